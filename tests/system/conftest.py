import pytest

from kzdaemon import Daemon


@pytest.fixture
def daemon(tmp_path):
    """Starts kz in tmp_path/root; every daemon started is killed at the end."""
    started = []

    def start(root=None, env=None, compression="None", command=None):
        root = root or tmp_path / "root"
        root.mkdir(exist_ok=True)
        d = Daemon(root, env, compression, command)
        started.append(d)
        return d

    yield start
    for d in started:
        d.kill()

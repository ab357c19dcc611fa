import signal
import stat


def test_decoder_fifos_live_in_the_root_and_do_not_hold_up_the_exit(daemon, tmp_path):
    d = daemon()
    d.wait_for("isUSBdac = ")
    root = tmp_path / "root"
    for name in ("kzpipe1", "kzpipe2", "ffso1", "ffso2"):
        assert stat.S_ISFIFO((root / "tmp" / name).stat().st_mode), name
    # The progress readers wait in open() for a decoder; the quit must not.
    assert d.stop(signal.SIGTERM) == 0
    assert not any(l.startswith("Problem opening") for l in d.lines)

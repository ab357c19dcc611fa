import time


def test_idle_output_is_the_value_one_at_real_time_pace(daemon, tmp_path):
    raw = tmp_path / "out.raw"
    d = daemon(env={"KZ_PCM": f"file:FILE={raw},FORMAT=raw"})
    d.wait_for("Alsa init complete")
    start = time.monotonic()
    time.sleep(2.0)
    size = raw.stat().st_size
    elapsed = time.monotonic() - start
    assert d.stop() == 0
    data = raw.read_bytes()
    assert len(data) > 0 and len(data) % 4 == 0
    # Every 16-bit word of silence is 1, not 0.
    assert data == b"\x01\x00" * (len(data) // 2)
    # A file does not pace itself: the daemon keeps to 44100 frames a second.
    frames_per_second = size / 4 / elapsed
    assert 44100 * 0.6 < frames_per_second < 44100 * 1.4, frames_per_second


def test_missing_device_is_reported_and_the_daemon_runs(daemon):
    d = daemon(env={"KZ_PCM": "no_such_device"})
    d.wait_for("isUSBdac = ")
    assert "*********** No USB DAC **********" in d.lines
    assert "Alsa init complete" in d.lines
    assert d.stop() == 0

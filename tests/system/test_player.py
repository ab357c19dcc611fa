"""Pause and resume, the play queue and the play modes, heard through the
daemon in an ALSA file PCM."""
import array
import json
import subprocess
import time

from client import Playing, without_dropouts


def tone(path, freq, seconds):
    subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    f"sine=frequency={freq}:sample_rate=44100:duration={seconds}", "-ac", "2",
                    str(path)], check=True)


class Player(Playing):
    def __init__(self, daemon, tmp_path, albums):
        root = tmp_path / "root"
        music = root / "media" / "hdd1" / "music"
        for (artist, album), tracks in albums.items():
            folder = music / artist / album
            folder.mkdir(parents=True)
            for name, freq, seconds in tracks:
                tone(folder / name, freq, seconds)
        super().__init__(daemon, root, tmp_path / "out.raw", library=True)

    def id_of(self, track):
        found = json.loads(self.api("search&artists=0&albums=0&radio=0&string=" + track))
        return found[0]["id"]

    def album_id(self, album):
        return json.loads(self.api("search&artists=0&tracks=0&radio=0&string=" + album))[0]["id"]

    def heard_tracks(self, seconds):
        """The tracks the status names, in turn, over the next seconds."""
        seen = []
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            s = self.status()
            name = s["track"] if s["playing"] == 1 else "(stopped)"
            if not seen or seen[-1] != name:
                seen.append(name)
            time.sleep(0.1)
        return seen


def test_pause_holds_the_same_sample_and_resume_goes_on_from_it(daemon, tmp_path):
    # 441 Hz at 44100: a period of exactly 100 samples, so a lost or repeated
    # sample anywhere shows as a jump against the sample 100 before.
    p = Player(daemon, tmp_path, {("Tones", "Pause"): [("01 Steady.wav", 441, 8)]})
    p.api(f"playID&id={p.id_of('Steady')}")
    time.sleep(2.5)
    assert p.api("pause") == '{"paused":true}'
    s = p.status()
    assert (s["paused"], s["playing"]) == (True, 1)
    into = s["timeIntoTrack"]
    time.sleep(2)
    assert p.status()["timeIntoTrack"] == into
    # The stop key still means stop, and play starts again: not while paused
    # here, the page's resume is "pause" again.
    assert p.api("pause") == '{"paused":false}'
    time.sleep(7)
    assert p.status()["playing"] == 0
    assert p.d.stop() == 0

    data = array.array("h")
    raw = p.pcm.read_bytes()
    data.frombytes(raw[:len(raw) // 4 * 4])
    # Dropouts of a busy machine are set aside: every sample of the tone
    # must still come, once and in order.
    kept, dropouts = without_dropouts(list(zip(data[0::2], data[1::2])), zero=(0, 0))
    left, right = [f[0] for f in kept], [f[1] for f in kept]
    # Runs of the idle value (1 on both sides) longer than 10 ms are silence
    # the player made; a sine may touch 1 now and then.
    sound, pauses, run = [], [], 0
    for i, v in enumerate(left):
        if v == 1 and right[i] == 1:
            run += 1
            continue
        if run:
            if run < 441:
                sound.extend(left[i - run:i])
            elif sound:
                pauses.append(run)
            run = 0
        sound.append(v)
    # The decoder's start is silence (zeros); the tone runs from the first
    # sound to the last.
    start = next(i for i, v in enumerate(sound) if v != 0)
    end = max(i for i, v in enumerate(sound) if v != 0)
    jumps = [n for n in range(start + 100, end - 100) if abs(sound[n] - sound[n - 100]) > 3]
    assert not jumps, (jumps[:10], "dropouts", dropouts)
    # The pause was heard once, for about two seconds, and the track whole.
    assert len(pauses) == 1 and 1.5 < pauses[0] / 44100 < 3, [r / 44100 for r in pauses]
    assert abs((end - start) / 44100 - 8) < 0.1, (end - start) / 44100


def test_the_queue_plays_next_once_each_then_playing_goes_on(daemon, tmp_path):
    # The status names a track from the moment it is lined up (about 4 s
    # before the one before it ends), so tracks are 5 s long.
    p = Player(daemon, tmp_path, {
        ("Alpha", "First"): [("01 A one.wav", 440, 5), ("02 A two.wav", 550, 5)],
        ("Beta", "Second"): [("01 B one.wav", 880, 5), ("02 B two.wav", 990, 5)],
        ("Gamma", "Third"): [("01 C one.wav", 330, 5)],
    })
    p.api(f"playID&id={p.id_of('A%20one')}")
    assert p.api(f"queueID&id={p.id_of('C%20one')}") == '"OK"'
    assert p.api(f"queueID&id={p.album_id('Second')}") == '"OK"'
    assert p.api(f"queueID&id={p.album_id('Second')}") == '"OK"'
    queue = json.loads(p.api("listplaylists"))
    qid = next(q["id"] for q in queue if q["name"] == "Queue")
    assert len(json.loads(p.api(f"listplaylist&id={qid}"))) == 2
    assert p.status()["queued"] is True
    seen = p.heard_tracks(22)
    assert seen[:5] == ["A one", "C one", "B one", "B two", "A two"], seen
    assert json.loads(p.api(f"listplaylist&id={qid}")) == []
    assert p.status()["queued"] is False

    # Queued with nothing playing, it starts at once; clearQueue empties it.
    if p.status()["playing"]:
        p.api("play")
        time.sleep(1)
    assert p.status()["playing"] == 0
    assert p.api(f"queueID&id={p.album_id('Third')}") == '"OK"'
    assert (p.status()["playing"], p.status()["track"]) == (1, "C one")
    assert p.api(f"queueID&id={p.album_id('First')}") == '"OK"'
    assert len(json.loads(p.api(f"listplaylist&id={qid}"))) == 1
    assert p.api("clearQueue") == '"OK"'
    assert json.loads(p.api(f"listplaylist&id={qid}")) == []
    assert p.d.stop() == 0


def test_play_modes_at_an_albums_end(daemon, tmp_path):
    p = Player(daemon, tmp_path, {
        ("Alpha", "First"): [("01 A one.wav", 440, 2), ("02 A two.wav", 550, 2)],
        ("Beta", "Second"): [("01 B one.wav", 880, 2)],
    })
    first = p.id_of("A%20one")
    # After an album comes the next one of the library's table, whichever
    # that is (the last one stops).
    expected = {
        "continue": ["A one", "A two"],
        "album": ["A one", "A two", "(stopped)"],
        "repeat-album": ["A one", "A two", "A one", "A two"],
        "repeat-track": ["A one", "A one"],
    }
    for mode, order in expected.items():
        assert json.loads(p.api(f"setPlayMode&mode={mode}")) == {"playMode": mode}
        assert p.status()["playMode"] == mode
        p.api(f"playID&id={first}")
        seen = p.heard_tracks(8.5)
        if mode == "repeat-track":
            # The same track again is seen as a restart of its clock.
            assert set(seen) == {"A one"}, seen
            assert p.d.wait_for("Play mode repeat-track")
        else:
            assert seen[:len(order)] == order, (mode, seen)
        p.api("play") if p.status()["playing"] else None
        time.sleep(0.5)
    # The user's "next" leaves a repeated track.
    p.api("setPlayMode&mode=repeat-track")
    p.api(f"playID&id={first}")
    time.sleep(0.5)
    p.api("next")
    time.sleep(1)
    assert p.status()["track"] == "A two"
    assert json.loads(p.api("setPlayMode&mode=bogus")) == {"playMode": "repeat-track"}
    assert json.loads(p.api("setPlayMode&mode=random")) == {"playMode": "random"}
    assert p.status()["random"] == "1"

    # Repeat outlives a restart; random starts off, as it always has; a
    # damaged record of the mode is logged and leaves repeat off.
    root, kept = tmp_path / "root", tmp_path / "root" / "media" / "hdd1" / "kzplaymode"
    for chosen, after in [("repeat-album", "repeat-album"), ("random", "continue"),
                          ("repeat-track", "repeat-track"), (None, "continue")]:
        if chosen:
            p.api(f"setPlayMode&mode={chosen}")
        else:
            kept.write_text("repeat forever\n")
        assert p.d.stop() == 0
        p = Playing(daemon, root, tmp_path / "out2.raw", library=True)
        assert p.status()["playMode"] == after, (chosen, after)
    assert p.d.wait_for("kzplaymode not understood; repeat is off")
    assert p.d.stop() == 0

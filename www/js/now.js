// The playing view: what plays, where it is in the track, the keys, volume,
// tone and segue; and the strip that shows the same on every other view.
import { act, artUrl, call, setZone, target } from './api.js';
import { state, subscribe, pollNow, num } from './status.js';
import { fmtTime, splitTags, titleNodes, toast, volumePercent } from './ui.js';

const $ = (id) => document.getElementById(id);

// While the user holds a control, the daemon's older value must not snap it
// back: not until the daemon has answered the change, nor from a status asked
// for before that answer, nor (while the control has the focus) for a moment
// after the last touch.
const HOLD_MS = 1500;
const ANSWER_MS = 6000;
const touched = new Map();
const answered = new Map();
function touch(el) {
  touched.set(el, performance.now());
}
function settle(...els) {
  for (const el of els) answered.set(el, performance.now());
}
function held(el) {
  const at = touched.get(el);
  if (at === undefined) return false;
  const done = answered.get(el) ?? -Infinity;
  const now = performance.now();
  // An answer that never comes holds the control only so long.
  if (done < at) return now - at < ANSWER_MS;
  if ((state.requestedAt ?? -Infinity) < done) return true;
  return document.activeElement === el && now - at < HOLD_MS;
}
function setValue(el, value) {
  if (!held(el) && el.value !== String(value)) el.value = value;
}

// Sends the newest value at most every `ms` while a slider moves, and the
// last one always.
function throttled(send, ms) {
  let last = 0;
  let timer;
  let pending;
  const flush = () => {
    last = performance.now();
    timer = undefined;
    send(pending);
  };
  return (value) => {
    pending = value;
    if (timer) return;
    const wait = Math.max(0, last + ms - performance.now());
    timer = setTimeout(flush, wait);
  };
}

const hasTrack = (s) => s.track && s.track !== 'empty';

// A room's place in its track is not followed: no seeking there.
function clearTimes() {
  const seek = $('seek');
  seek.max = '0';
  seek.value = '0';
  seek.disabled = true;
  $('elapsed').textContent = '';
  $('remaining').textContent = '';
}

function renderTimes(s) {
  const seek = $('seek');
  const duration = num('duration');
  const known = duration > 0;
  // Between replies the position moves on by itself while playing.
  let into = num('timeIntoTrack');
  if (s.playing === 1 && s.receivedAt) into += Math.floor((performance.now() - s.receivedAt) / 1000);
  if (known) into = Math.min(duration, into);
  seek.max = String(known ? duration : 0);
  seek.disabled = !known;
  if (!held(seek)) seek.value = String(into);
  const shown = held(seek) ? Number(seek.value) : into;
  $('elapsed').textContent = fmtTime(shown);
  // A stream has no end to count down to.
  $('remaining').textContent = known ? '-' + fmtTime(duration - shown) : '';
  seek.setAttribute('aria-valuetext', known ? `${fmtTime(shown)} of ${fmtTime(duration)}` : fmtTime(shown));
}

// On a zone, the view shows what the room plays, as far as kz knows it.
function viewOf(s) {
  const zone = zoneOf(s);
  if (!zone) return s;
  const title = zone.title || (zone.reachable ? '' : 'Not answering');
  return {
    ...s,
    source: zone.name,
    playlist: '',
    track: title || 'empty',
    artist: zone.artist,
    album: zone.album,
    albumid: zone.albumid >= 0 ? zone.albumid : undefined,
    artistid: undefined,
    playing: zone.active ? 1 : 0,
    paused: false,
    zone,
  };
}

let lastAlbum;
function render(status) {
  const s = viewOf(status);
  const playing = s.playing === 1 || s.playing === '1';
  const title = hasTrack(s) ? s.track : 'Nothing to play';
  const shown = splitTags(title).title;
  if ($('now-track').dataset.title !== title) {
    $('now-track').dataset.title = title;
    $('now-track').replaceChildren(...titleNodes(title));
  }
  const artist = $('now-artist');
  const album = $('now-album');
  artist.textContent = hasTrack(s) ? s.artist : '';
  album.textContent = hasTrack(s) ? s.album : '';
  artist.href = s.artistid ? `#/library/artist/${s.artistid}` : '#/library';
  album.href = s.albumid ? `#/library/album/${s.albumid}` : '#/library';
  $('now-by').hidden = !hasTrack(s) || !s.artist;
  const radio = s.source === 'Radio';
  const source = radio
    ? ['Radio', s.station !== s.track ? s.station : '', s.radioStatus]
    : [s.source, s.playlist && s.playlist !== 'All Music' ? `playlist ${s.playlist}` : s.playlist];
  $('now-source').textContent = source.filter(Boolean).join(' · ');

  // A station's logo stands where an album's cover would.
  const logo = radio && /^https?:\/\//.test(String(s.logo || '')) ? s.logo : '';
  if (radio && logo !== lastAlbum) {
    lastAlbum = logo;
    for (const img of [$('now-art'), $('strip-art')]) {
      img.hidden = true;
      if (logo) img.src = logo;
      else img.removeAttribute('src');
    }
  } else if (s.zone && !s.albumid && lastAlbum !== undefined) {
    // A room playing something of its own: no cover of ours.
    lastAlbum = undefined;
    for (const img of [$('now-art'), $('strip-art')]) img.hidden = true;
  } else if (!radio && s.albumid && s.albumid !== lastAlbum) {
    lastAlbum = s.albumid;
    for (const img of [$('now-art'), $('strip-art')]) {
      img.hidden = true;
      img.src = artUrl(s.albumid);
    }
  }

  // Playing: pause. Paused or stopped: play. Stop is its own key.
  const paused = s.paused === true;
  const sounding = playing && !paused;
  for (const button of [$('btn-play'), $('strip-play')]) {
    const label = sounding ? 'Pause' : paused ? 'Resume' : 'Play';
    button.setAttribute('aria-label', label);
    button.title = label;
    button.querySelector('use').setAttribute('href', sounding ? '#i-pause' : '#i-play');
  }
  $('btn-stop').disabled = !playing;
  if (!held($('playmode')) && s.playMode) $('playmode').value = s.playMode;
  document.body.classList.toggle('is-playing', playing);

  if (s.zone) clearTimes();
  else if (s.full) renderTimes(s);
  setValue($('volume'), num('volume'));
  const volume = held($('volume')) ? $('volume').value : num('volume');
  $('volume-out').textContent = volumePercent(volume);
  $('volume').setAttribute('aria-valuetext', volumePercent(volume));
  setValue($('bass'), num('bass'));
  setValue($('treble'), num('treble'));
  $('bass-out').textContent = signed($('bass').value);
  $('treble-out').textContent = signed($('treble').value);
  const segue = String(s.segue || '').toLowerCase();
  if (!held($('segue')) && ['off', 'short', 'on'].includes(segue)) $('segue').value = segue;

  $('strip-title').textContent = shown;
  $('strip-sub').textContent = radio ? s.station || '' : hasTrack(s) ? s.artist : '';
  renderZones(status);
}

// The zone the pages play on, when it is not this box.
function zoneOf(s) {
  return target.zone > 0 && Array.isArray(s.zones) ? s.zones[target.zone - 1] : undefined;
}

const STATES = { PLAYING: 'playing', STOPPED: 'stopped', PAUSED_PLAYBACK: 'paused', TRANSITIONING: 'starting', NO_MEDIA_PRESENT: 'idle' };

const BOX_CHOICES = [
  ['box:off', 'This box'],
  ['box:also', 'This box and the Snapcast rooms'],
  ['box:only', 'The Snapcast rooms'],
];

let shownZones = '';
function renderZones(s) {
  const names = Array.isArray(s.sonos) ? s.sonos : [];
  // A zone forgotten by the daemon leaves the pages on this box.
  if (target.zone > names.length) setZone(0);
  const select = $('zone');
  // This box with or without the Snapcast rooms (a setting of the box, for
  // every browser), then each networked zone.
  const wanted = [...BOX_CHOICES.map(([value, name]) => [value, name]), ...names.map((name, i) => [String(i + 1), name])];
  if (select.options.length !== wanted.length || [...select.options].some((o, i) => o.textContent !== wanted[i][1])) {
    select.replaceChildren(...wanted.map(([value, name]) => new Option(name, value)));
  }
  const mode = ['off', 'also', 'only'].includes(s.snapcast) ? s.snapcast : 'off';
  if (!held(select)) select.value = target.zone > 0 ? String(target.zone) : 'box:' + mode;

  const zones = Array.isArray(s.zones) ? s.zones : [];
  const key = JSON.stringify([target.zone, zones]);
  if (key !== shownZones) {
    shownZones = key;
    $('zones').hidden = zones.length === 0;
    $('zones').replaceChildren(
      ...zones.map((z, i) => {
        const li = document.createElement('li');
        li.classList.toggle('current', i + 1 === target.zone);
        const name = document.createElement('span');
        name.textContent = z.name;
        const meta = document.createElement('span');
        meta.className = 'meta';
        meta.textContent = !z.reachable
          ? 'not answering'
          : [STATES[z.state] || z.state || '', z.title ? `“${z.title}”` : '', z.volume >= 0 ? `volume ${z.volume}%` : '']
              .filter(Boolean)
              .join(' · ');
        li.append(name, meta);
        return li;
      }),
    );
  }

  // On a zone, the keys and the volume are the zone's: play starts and stops.
  const zone = zoneOf(s);
  if (!zone) return;
  for (const button of [$('btn-play'), $('strip-play')]) {
    const label = zone.active ? 'Stop' : 'Play';
    button.setAttribute('aria-label', label);
    button.title = label;
    button.querySelector('use').setAttribute('href', zone.active ? '#i-stop' : '#i-play');
  }
  $('btn-stop').disabled = !zone.active;
  if (zone.volume >= 0) {
    setValue($('volume'), Math.round((zone.volume * 64) / 100));
    if (!held($('volume'))) $('volume-out').textContent = zone.volume + '%';
  }
}

const signed = (v) => (Number(v) > 0 ? '+' + v : String(v));

async function key(command) {
  await act(command);
  pollNow(250);
}

export function init() {
  // Without a cover the daemon answers text, which fails as an image.
  for (const img of [$('now-art'), $('strip-art')]) {
    img.addEventListener('load', () => (img.hidden = false));
    img.addEventListener('error', () => (img.hidden = true));
  }
  subscribe(render);
  // The position moves on every second even between slow replies.
  setInterval(() => {
    if (state.full && !zoneOf(state) && document.visibilityState === 'visible') renderTimes(state);
  }, 1000);

  $('btn-back').addEventListener('click', () => key('back'));
  $('btn-next').addEventListener('click', () => key('next'));
  // Pause and resume when something is loaded; from a stop, play.
  const playPause = () => key(target.zone > 0 || state.playing !== 1 ? 'play' : 'pause');
  $('btn-play').addEventListener('click', playPause);
  $('strip-play').addEventListener('click', playPause);
  $('btn-stop').addEventListener('click', () => key('play'));
  $('playmode').addEventListener('change', async () => {
    touch($('playmode'));
    const reply = await call('setPlayMode', { mode: $('playmode').value }).catch(() => undefined);
    settle($('playmode'));
    const chosen = $('playmode').selectedOptions[0]?.textContent;
    toast(reply?.playMode === $('playmode').value ? `Play mode: ${chosen}` : 'Could not change the play mode');
    pollNow();
  });

  const seek = $('seek');
  seek.addEventListener('input', () => {
    touch(seek);
    $('elapsed').textContent = fmtTime(seek.value);
    $('remaining').textContent = '-' + fmtTime(Number(seek.max) - Number(seek.value));
  });
  // The daemon seeks to a place in thousandths of the track's file.
  seek.addEventListener('change', async () => {
    touch(seek);
    const duration = Number(seek.max);
    if (duration > 0) await act('seek', { pos: Math.min(999, Math.round((Number(seek.value) * 1000) / duration)) });
    settle(seek);
    pollNow(300);
  });

  $('zone').addEventListener('change', async () => {
    const select = $('zone');
    touch(select);
    const value = select.value;
    const name = select.selectedOptions[0]?.textContent;
    let ok = true;
    if (value.startsWith('box:')) {
      setZone(0);
      // Asked every time: the last status may not know the last change yet.
      const mode = value.slice(4);
      ok = (await call('setSnapcast', { mode }).catch(() => undefined))?.snapcast === mode;
    } else {
      setZone(Number(value));
    }
    settle(select);
    toast(ok ? `Playing on ${name}` : 'The music server did not change where it plays');
    shownZones = '';
    render(state);
    pollNow();
  });

  const volume = $('volume');
  const sendVolume = throttled((v) => act('vol' + v).finally(() => settle(volume)), 150);
  volume.addEventListener('input', () => {
    touch(volume);
    $('volume-out').textContent = volumePercent(volume.value);
    sendVolume(Number(volume.value));
  });

  const sendTone = throttled(
    () =>
      act('setTone', { bass: Number($('bass').value), treble: Number($('treble').value) }).finally(() =>
        settle($('bass'), $('treble')),
      ),
    150,
  );
  for (const id of ['bass', 'treble']) {
    $(id).addEventListener('input', () => {
      touch($(id));
      $(id + '-out').textContent = signed($(id).value);
      sendTone();
    });
  }

  $('segue').addEventListener('change', async () => {
    touch($('segue'));
    await call('setSegue', { mode: $('segue').value }).catch(() => {});
    settle($('segue'));
    pollNow();
  });
}

// The CD drive: what is in it, ripping with or without names, the rip's
// progress, and the ripped album once it is in the library.
import { call, list } from './api.js';
import { play } from './actions.js';
import { state, subscribe, pollNow } from './status.js';
import { cover, emit, fmtTime, h, icon, rowText, toast } from './ui.js';

const $ = (id) => document.getElementById(id);

// "Ripping T/N P% Sx": track T of N, P percent of that track, S times real time.
export function parseRipping(text) {
  const m = /^Ripping\s+(\d+)\s*\/\s*(\d+)\s+(\d+(?:\.\d+)?)%\s*(?:(\d+(?:\.\d+)?)x)?/i.exec(String(text || ''));
  if (!m) return null;
  const [track, tracks, percent] = [Number(m[1]), Number(m[2]), Number(m[3])];
  const overall = tracks ? Math.min(100, ((track - 1 + percent / 100) / tracks) * 100) : 0;
  return { track, tracks, percent, speed: m[4] === undefined ? null : Number(m[4]), overall };
}

// A rip that this page started: it ends when the library holds one album
// more than before and the drive no longer reports ripping.
let watch = null;
let lastDisc = null;

async function albumCount() {
  const info = await call('getWebInfo').catch(() => undefined);
  return info ? Number(info.albums) : NaN;
}

function startWatch(before) {
  watch = { before, done: false };
  renderDisc();
  pollNow();
  checkWatch();
}

async function checkWatch() {
  if (!watch || watch.done) return;
  if (!parseRipping(state.cdstatus)) {
    const now = await albumCount();
    if (now > watch.before || Number.isNaN(watch.before)) {
      watch.done = true;
      // Said last, so no older message can outlive it.
      toast('Ripped: the album is in the library');
      emit('library-changed');
      renderDisc();
      return;
    }
  }
  setTimeout(checkWatch, 1000);
}

function renderProgress() {
  const box = $('cd-progress');
  const rip = parseRipping(state.cdstatus);
  if (rip) {
    box.hidden = false;
    const bar = $('rip-bar');
    bar.value = rip.overall;
    bar.textContent = `${Math.round(rip.overall)}%`;
    $('rip-text').textContent = `Track ${rip.track} of ${rip.tracks} · ${rip.percent}%` + (rip.speed ? ` · ${rip.speed}× speed` : '');
    $('rip-stop').hidden = false;
    $('rip-done').hidden = true;
  } else if (watch) {
    box.hidden = false;
    $('rip-stop').hidden = watch.done;
    $('rip-done').hidden = !watch.done;
    if (watch.done) {
      $('rip-bar').value = 100;
      $('rip-text').textContent = 'Ripped.';
    } else {
      $('rip-bar').removeAttribute('value');
      $('rip-text').textContent = 'Ripping…';
    }
  } else {
    box.hidden = true;
  }
}

function renderDisc() {
  const status = state.cdstatus || 'No Disc';
  const ripping = Boolean(parseRipping(status)) || (watch && !watch.done);
  const words = { 'No Disc': 'No disc', 'Not Ready': state.cddrive === false ? 'No drive' : 'Waiting for the drive', 'Bad Disc': 'This disc cannot be read' };
  $('cd-state').textContent = parseRipping(status) ? 'Ripping' : words[status] || status;
  $('cd-discid').textContent = state.discid || '—';
  const loaded = state.cdloaded === true;
  $('cd-actions').hidden = !loaded || ripping;
  $('cd-names').hidden = !loaded || ripping;
  $('cd-empty').hidden = loaded || ripping;
  renderProgress();
  renderLookup(loaded);
  const disc = loaded ? state.discid || 'disc' : null;
  if (disc !== lastDisc) {
    lastDisc = disc;
    if (disc) fillTrackCount();
    loadTracks(disc);
  }
  $('cd-play').hidden = !loaded || ripping || !$('cd-tracks').children.length;
  markPlaying();
  // The candidates are read again whenever the lookup's answer changes:
  // it ends after the disc is seen, and again after "Look up again".
  const answer = loaded ? `${disc} ${state.lookup || ''} ${state.cddbmatches}` : null;
  if (answer !== lastAnswer) {
    lastAnswer = answer;
    if (loaded) loadCandidates();
    else $('cd-candidates').replaceChildren();
  }
}

let lastAnswer = null;
let loading = 0;

function renderLookup(loaded) {
  const looking = loaded && state.lookup === 'looking';
  const none = loaded && state.lookup === 'done' && Number(state.cddbmatches) === 0;
  $('cd-lookup').hidden = !looking && !none;
  $('cd-lookup-text').textContent = looking ? 'Looking up the disc…' : none ? 'No match found for this disc.' : '';
  $('cd-lookup-again').hidden = !none;
}

// The disc's tracks, to play from any of them.
async function loadTracks(disc) {
  const tracks = disc ? await list('listCD').catch(() => null) : null;
  $('cd-tracks').replaceChildren(
    ...(tracks || []).map((t) =>
      h(
        'li',
        { 'data-name': t.name },
        h('button', { type: 'button', class: 'row-main', 'aria-label': `Play ${t.name}`, onclick: () => play(t.id, t.name) }, icon('disc'), rowText(t.name, fmtTime(Number(t.seconds)))),
      ),
    ),
  );
  $('cd-play').hidden = !tracks?.length || $('cd-names').hidden;
  markPlaying();
}

function markPlaying() {
  for (const li of $('cd-tracks').children) {
    const now = state.source === 'CD' && state.playing === 1 && state.track === li.dataset.name;
    li.classList.toggle('current', now);
    if (now) li.setAttribute('aria-current', 'true');
    else li.removeAttribute('aria-current');
  }
}

async function fillTrackCount() {
  const info = await call('getDiscid').catch(() => undefined);
  if (info && Number(info.tracks) > 0 && !$('rip-tracks').value.trim()) {
    $('rip-tracks').value = Array.from({ length: Number(info.tracks) }, (_, i) => `Track ${i + 1}`).join('\n');
  }
}

// "getCandidate" has the year, genre and source too; a daemon without it
// answers "[]" and the shorter "getCDDB" reply is used instead.
async function candidate(i) {
  const c = await call('getCandidate', { index: i }).catch(() => undefined);
  if (c && typeof c === 'object' && !Array.isArray(c)) return c;
  const d = await call('getCDDB', { index: i }).catch(() => undefined);
  return d && typeof d === 'object' && !Array.isArray(d) ? d : null;
}

const SOURCES = { typed: 'your names', musicbrainz: 'MusicBrainz', cddb: 'CDDB' };

// Names from the disc lookup, when it found any, to rip with.
async function loadCandidates() {
  const box = $('cd-candidates');
  const mine = ++loading;
  const count = Number(state.cddbmatches);
  if (!(count > 0)) {
    box.replaceChildren();
    return;
  }
  const found = [];
  for (let i = 1; i <= Math.min(count, 10); i++) {
    const c = await candidate(i);
    if (mine !== loading) return;
    if (c) found.push([i, c]);
  }
  box.replaceChildren(
    h('h2', { text: 'Names found for this disc' }),
    h('ul', { class: 'rows candidates' }, found.map(([i, c]) => candidateRow(i, c))),
  );
}

function candidateRow(i, c) {
  const tracks = Array.isArray(c.tracks) ? c.tracks.map(String) : [];
  const artist = String(c.artist || '');
  const album = String(c.album || '');
  const meta = [artist, c.year, c.genre, `${tracks.length} tracks`, SOURCES[c.source]].filter(Boolean).join(' · ');
  return h(
    'li',
    { class: 'row candidate' },
    c.art ? cover(String(c.art), 'thumb') : h('span', { class: 'art thumb' }, icon('disc')),
    h(
      'div',
      { class: 'row-main static' },
      h(
        'span',
        { class: 'text' },
        h('span', { class: 'name', text: album }),
        h('span', { class: 'meta', text: meta }),
        tracks.length ? h('details', {}, h('summary', { text: 'Track names' }), h('ol', { class: 'track-names' }, tracks.map((t) => h('li', { text: t })))) : null,
      ),
    ),
    h(
      'span',
      { class: 'row-actions' },
      h('button', { type: 'button', class: 'btn', onclick: () => edit(c), 'aria-label': `Edit ${artist}, ${album}` }, icon('edit'), 'Edit'),
      h('button', { type: 'button', class: 'btn primary', onclick: () => rip(i), 'aria-label': `Rip as ${artist}, ${album}` }, icon('disc'), 'Rip'),
    ),
  );
}

// Puts a candidate's names into the form, to correct before ripping.
function edit(c) {
  $('rip-artist').value = String(c.artist || '');
  $('rip-album').value = String(c.album || '');
  $('rip-year').value = /^\d{4}$/.test(String(c.year || '')) ? String(c.year) : '';
  $('rip-genre').value = String(c.genre || '');
  $('rip-art').value = String(c.art || '');
  $('rip-tracks').value = (Array.isArray(c.tracks) ? c.tracks : []).map(String).join('\n');
  $('rip-form').scrollIntoView({ block: 'start' });
  $('rip-artist').focus({ preventScroll: true });
  toast('The names are in the form: correct them, then rip');
}

// The album count is taken before the rip starts: a short disc can be in
// the library by the time the command has answered.
// A disc already in the library is ripped again only when the user says so.
async function ripAgainAllowed() {
  const ripped = await call('discInLibrary').catch(() => undefined);
  if (!ripped || !ripped.album) return true;
  return window.confirm(`This disc is already in the library as “${ripped.album}” by ${ripped.artist}. Rip it again as a second album?`);
}

async function rip(index) {
  if (!(await ripAgainAllowed())) return;
  const before = await albumCount();
  try {
    await call('rip', { index });
  } catch {
    toast('The music server did not answer');
    return;
  }
  toast('Ripping started');
  startWatch(before);
}

// The names as the daemon reads them: one key=value a line, tracks in order.
export function metadataText(fields, tracks) {
  const clean = (v) => String(v).replace(/[\r\n]+/g, ' ').trim();
  const lines = ['artist', 'album', 'year', 'genre', 'art'].map((k) => `${k}=${clean(fields[k] || '')}`);
  for (const t of tracks) lines.push(`track=${clean(t)}`);
  return lines.join('\n') + '\n';
}

async function sendNames(command) {
  const form = $('rip-form');
  if (!form.reportValidity()) return;
  const fields = Object.fromEntries(new FormData(form));
  const tracks = $('rip-tracks').value.split('\n').map((t) => t.trim()).filter(Boolean);
  if (command === 'newRip' && !(await ripAgainAllowed())) return;
  const before = await albumCount();
  let reply;
  try {
    reply = await call(command, undefined, { method: 'POST', body: metadataText(fields, tracks) });
  } catch {
    reply = undefined;
  }
  if (reply !== 'OK') {
    toast(command === 'newRip' ? 'This server cannot take names for a rip yet' : 'This server cannot rename a ripped album yet');
    return;
  }
  if (command === 'newRip') {
    toast('Ripping with your names');
    startWatch(before);
  } else {
    toast('The album is renamed');
    emit('library-changed');
  }
}

export function init() {
  subscribe(() => {
    if (!$('view-cd').hidden) renderDisc();
    if (watch && !watch.done && !$('view-cd').hidden) renderProgress();
  });
  $('rip-plain').addEventListener('click', () => rip(0));
  $('rip-stop').addEventListener('click', async () => {
    await call('allStop').catch(() => {});
    if (watch) watch.done = true;
    watch = null;
    toast('Rip stopped');
    pollNow();
    renderDisc();
  });
  $('cd-eject').addEventListener('click', async () => {
    await call('eject').catch(() => {});
    toast('Opening the drive…');
    // Say what happened: a drive that did not open (or a disc image, when kz
    // runs on a computer) leaves the disc where it was.
    setTimeout(async () => {
      const s = await call('status').catch(() => undefined);
      if (!s) return;
      toast(s.cdloaded === true ? 'The disc is still in: the drive did not open (a disc image on a computer stays in)' : 'Ejected');
      pollNow();
    }, 2500);
  });
  $('rip-form').addEventListener('submit', (e) => {
    e.preventDefault();
    sendNames('newRip');
  });
  $('rip-reindex').addEventListener('click', () => sendNames('reindex'));
  $('cd-lookup-again').addEventListener('click', async () => {
    await call('lookupDisc').catch(() => {});
    pollNow(300);
  });
}

export function show() {
  renderDisc();
  pollNow();
}

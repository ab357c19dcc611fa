// The CD drive: what is in it, ripping with or without names, the rip's
// progress, and the ripped album once it is in the library.
import { call } from './api.js';
import { state, subscribe, pollNow } from './status.js';
import { emit, h, icon, rowText, toast } from './ui.js';

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
  $('cd-state').textContent = parseRipping(status) ? 'Ripping' : status;
  $('cd-discid').textContent = state.discid || '—';
  const loaded = state.cdloaded === true;
  $('cd-actions').hidden = !loaded || ripping;
  $('cd-names').hidden = !loaded || ripping;
  $('cd-empty').hidden = loaded || ripping;
  renderProgress();
  const disc = loaded ? state.discid || 'disc' : null;
  if (disc !== lastDisc) {
    lastDisc = disc;
    if (disc) loadNames();
  }
}

// Names from the disc lookup, when it found any, to rip with.
async function loadNames() {
  const box = $('cd-candidates');
  const count = Number(state.cddbmatches);
  const info = await call('getDiscid').catch(() => undefined);
  if (info && Number(info.tracks) > 0 && !$('rip-tracks').value.trim()) {
    $('rip-tracks').value = Array.from({ length: Number(info.tracks) }, (_, i) => `Track ${i + 1}`).join('\n');
  }
  if (!(count > 0)) {
    box.replaceChildren();
    return;
  }
  const found = [];
  for (let i = 1; i <= Math.min(count, 10); i++) {
    const c = await call('getCDDB', { index: i }).catch(() => undefined);
    if (c && typeof c === 'object') found.push([i, c]);
  }
  box.replaceChildren(
    h('h3', { text: 'Names found for this disc' }),
    h(
      'ul',
      { class: 'rows' },
      found.map(([i, c]) =>
        h(
          'li',
          { class: 'row candidate' },
          h('div', { class: 'row-main static' }, rowText(`${c.artist} — ${c.album}`, `${(c.tracks || []).length} tracks`)),
          h('span', { class: 'row-actions' }, h('button', { type: 'button', class: 'btn primary', onclick: () => rip(i), 'aria-label': `Rip as ${c.artist}, ${c.album}` }, icon('disc'), 'Rip')),
        ),
      ),
    ),
  );
}

// The album count is taken before the rip starts: a short disc can be in
// the library by the time the command has answered.
async function rip(index) {
  const before = await albumCount();
  try {
    await call('rip', { index });
  } catch {
    toast('The music server did not answer');
    return;
  }
  startWatch(before);
  toast('Ripping started');
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
    startWatch(before);
    toast('Ripping with your names');
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
    pollNow(500);
  });
  $('rip-form').addEventListener('submit', (e) => {
    e.preventDefault();
    sendNames('newRip');
  });
  $('rip-reindex').addEventListener('click', () => sendNames('reindex'));
}

export function show() {
  renderDisc();
  pollNow();
}

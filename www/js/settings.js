// Settings: playback, library order, ripping, tone presets, logging, the
// library rescan and the daemon's recent log.
import { act, call, list } from './api.js';
import { state, subscribe, pollNow } from './status.js';
import { emit, fmtBytes, h, toast } from './ui.js';

const $ = (id) => document.getElementById(id);

export const TONE_PRESETS = [
  ['Flat', 0, 0],
  ['Bass boost', 4, 0],
  ['Warm', 2, -2],
  ['Bright', 0, 3],
  ['Loudness', 4, 3],
  ['Speech', -3, 2],
];

// The status writes settings for people ("FLAC", "Short"); the commands take
// the lower-case words.
const lower = (v) => String(v ?? '').toLowerCase();

// The status has no classical flag: "setClassical" without a value reports
// it; until it has answered, show what this browser last chose.
const CLASSICAL_KEY = 'kz.classical';

const recent = new Map();
function mark(el) {
  recent.set(el, performance.now());
}
function fresh(el) {
  return recent.has(el) && performance.now() - recent.get(el) < 3000;
}

// One line on what each choice does to the library's WAV files.
export const COMPRESSION_ABOUT = {
  none: 'Tracks stay WAV files: nothing is lost, and they take the most room.',
  flac: 'Each WAV becomes a FLAC file of about half the size, every sample kept.',
  'mp3 128k': 'Each WAV becomes an MP3 of about a tenth of the size; some detail is lost.',
  'mp3 256k': 'Each WAV becomes an MP3 of about a fifth of the size, close to the original.',
  'flac+mp3': 'FLAC in the library, and an MP3 copy of each track in the mp3 folder for phones and cars.',
};

function renderCompression(s) {
  $('compression-about').textContent = COMPRESSION_ABOUT[$('set-compression').value] || '';
  // The background line speaks for a copy the person started before the
  // compression; that copy has its own line under Backup.
  const copy = s.storageJob?.message;
  const job = copy && s.background === copy ? '' : String(s.background || '');
  $('compression-progress').textContent = job || 'Nothing to compress right now.';
  $('compress-now').disabled = $('set-compression').value === 'none';
}

// The drives to back up to, each with the date of its last backup.
let drives = [];
async function loadDrives() {
  drives = (await list('usbDrives').catch(() => null)) || [];
  const select = $('backup-drive');
  const chosen = select.value;
  select.replaceChildren(...drives.map((d) => h('option', { value: d.drive, text: `${d.name} (${fmtBytes(d.free)} free)` })));
  if (drives.some((d) => d.drive === chosen)) select.value = chosen;
  renderBackup(state);
}

function renderBackup(s) {
  const drive = drives.find((d) => d.drive === $('backup-drive').value);
  const job = s.storageJob;
  const busy = !!job?.running;
  $('backup-last').textContent = !drives.length
    ? 'Plug a USB drive into the box to back the library up to it.'
    : drive?.lastBackup
      ? `Last backup to this drive: ${drive.lastBackup}`
      : 'This drive holds no backup yet.';
  $('backup-drive').disabled = !drives.length;
  $('backup-now').disabled = $('restore-now').disabled = !drives.length || busy;
  $('tidy-now').disabled = busy;
  const mine = job && ['backup', 'restore', 'tidy'].includes(job.job);
  $('backup-progress').textContent = mine ? job.message : '';
  $('backup-bar').hidden = !(mine && job.running && job.job !== 'tidy');
  if (mine) {
    $('backup-bar').max = job.bytesTotal || 1;
    $('backup-bar').value = job.bytesDone;
  }
}

let lastUsb;
let lastEnd;
function followDrives(s) {
  // A drive plugged in or pulled out, or a job just ended (a backup's new
  // date): a short job may start and end between two polls.
  const job = s.storageJob;
  const end = job && !job.running ? `${job.job}:${job.message}` : lastEnd;
  if (s.usb !== lastUsb || end !== lastEnd) loadDrives();
  lastUsb = s.usb;
  lastEnd = end;
}

function render(s) {
  followDrives(s);
  renderBackup(s);
  const set = (el, fn) => {
    if (!fresh(el)) fn(el);
  };
  set($('set-compression'), (el) => {
    const v = lower(s.compression);
    if ([...el.options].some((o) => o.value === v)) el.value = v;
  });
  renderCompression(s);
  set($('set-segue'), (el) => {
    const v = lower(s.segue);
    if (['off', 'short', 'on'].includes(v)) el.value = v;
  });
  set($('set-snapcast'), (el) => {
    if (['off', 'also', 'only'].includes(s.snapcast)) el.value = s.snapcast;
  });
  $('snapcast-state').textContent = s.snapcast && s.snapcast !== 'off' ? `Snapcast: ${s.snapcastState}` : '';
  set($('set-logging'), (el) => {
    const v = lower(s.logging);
    if ([...el.options].some((o) => o.value === v)) el.value = v;
  });
  set($('set-random'), (el) => (el.checked = String(s.random) === '1'));
  set($('set-sorted'), (el) => (el.checked = String(s.sorted) === '1'));
  set($('set-reversed'), (el) => (el.checked = String(s.reversed) === '1'));
  set($('set-classical'), (el) => {
    el.checked = 'classical' in s ? String(s.classical) === '1' : localStorage.getItem(CLASSICAL_KEY) === '1';
  });
  const bass = Number(s.bass) || 0;
  const treble = Number(s.treble) || 0;
  $('tone-now').textContent = `Bass ${bass > 0 ? '+' : ''}${bass}, treble ${treble > 0 ? '+' : ''}${treble}`;
  for (const b of $('tone-presets').querySelectorAll('button')) {
    b.setAttribute('aria-pressed', String(Number(b.dataset.bass) === bass && Number(b.dataset.treble) === treble));
  }
}

async function loadClassical() {
  const reply = await call('setClassical').catch(() => undefined);
  if (!reply || !('classical' in reply)) return;
  localStorage.setItem(CLASSICAL_KEY, String(reply.classical));
  const el = $('set-classical');
  if (!fresh(el)) el.checked = reply.classical === 1;
}

async function loadInfo() {
  const [info, space] = await Promise.all([call('getWebInfo').catch(() => undefined), call('getSpace').catch(() => undefined)]);
  const rows = [];
  if (info) {
    rows.push(['Artists', info.artists], ['Albums', info.albums], ['Tracks', info.tracks]);
    const kinds = [['WAV', info.wavs], ['FLAC', info.flacs], ['MP3', info.mp3s], ['AAC', info.aacs]].filter(([, n]) => Number(n) > 0);
    if (kinds.length) rows.push(['Files', kinds.map(([k, n]) => `${n} ${k}`).join(', ')]);
    if (info.capacity) rows.push(['Disk', `${info.used} GB used of ${info.capacity} GB`]);
  }
  // getSpace counts free space in kilobytes of 1024 bytes.
  if (space && space.free) rows.push(['Free', fmtBytes(Number(space.free) * 1024)]);
  rows.push(['Units', '1 GB = 1,000,000,000 bytes']);
  if (info?.version) rows.push(['Version', info.version]);
  $('library-info').replaceChildren(...rows.flatMap(([k, v]) => [h('dt', { text: k }), h('dd', { text: String(v) })]));
}

let follow = null;
async function loadLog() {
  let text;
  try {
    const res = await fetch('/api/getWebDebug', { cache: 'no-store' });
    text = await res.text();
  } catch {
    text = 'The music server did not answer.';
  }
  const pre = $('debug-log');
  // The newest line first: what just happened is what is looked for.
  pre.textContent = text.split('\n').filter((l) => l.trim()).reverse().join('\n');
  pre.hidden = false;
  $('log-copy').hidden = false;
}

function setFollow(on) {
  clearInterval(follow);
  follow = on ? setInterval(() => !$('view-settings').hidden && document.visibilityState === 'visible' && loadLog(), 2000) : null;
}

export function init() {
  subscribe((s) => {
    if (!$('view-settings').hidden) render(s);
  });

  // Every change says what it did, or that it did not reach the server.
  const change = (id, send) =>
    $(id).addEventListener('change', async () => {
      const el = $(id);
      mark(el);
      const ok = await send(el);
      const label = document.querySelector(`label[for="${id}"]`)?.textContent.trim() || el.closest('label')?.textContent.trim() || 'Setting';
      const value = el.type === 'checkbox' ? (el.checked ? 'on' : 'off') : el.selectedOptions?.[0]?.textContent.trim() || el.value;
      toast(ok ? `${label}: ${value}` : 'The setting did not reach the music server');
      pollNow();
    });
  change('set-compression', (el) => {
    renderCompression(state);
    return act('setCompression', { mode: el.value });
  });
  $('compress-now').addEventListener('click', async () => {
    const ok = await act('compressNow');
    toast(ok ? 'Compressing the library' : 'The music server did not answer');
    pollNow(500);
  });
  change('set-segue', (el) => act('setSegue', { mode: el.value }));
  change('set-logging', (el) => act('setLogging', { mode: el.value }));
  change('set-snapcast', async (el) => (await call('setSnapcast', { mode: el.value }).catch(() => undefined))?.snapcast === el.value);
  change('set-random', (el) => act('setRandom', { random: el.checked ? 1 : 0 }));
  change('set-classical', (el) => {
    localStorage.setItem(CLASSICAL_KEY, el.checked ? '1' : '0');
    return act('setClassical', { classical: el.checked ? 1 : 0 });
  });
  const order = async () => {
    mark($('set-sorted'));
    mark($('set-reversed'));
    const ok = await act('setSorted', { sorted: $('set-sorted').checked ? 1 : 0, reversed: $('set-reversed').checked ? 1 : 0 });
    emit('library-changed');
    return ok;
  };
  change('set-sorted', order);
  change('set-reversed', order);

  $('tone-presets').replaceChildren(
    ...TONE_PRESETS.map(([name, bass, treble]) =>
      h('button', {
        type: 'button',
        class: 'btn',
        'aria-pressed': 'false',
        'data-bass': String(bass),
        'data-treble': String(treble),
        text: name,
        onclick: async () => {
          const ok = await act('setTone', { bass, treble });
          toast(ok ? `Tone: ${name}` : 'The tone did not reach the music server');
          pollNow();
        },
      }),
    ),
  );

  $('rescan').addEventListener('click', async () => {
    const button = $('rescan');
    button.disabled = true;
    const ok = await act('scanDisk');
    toast(ok ? 'Rescanning the music folder' : 'The rescan did not start');
    setTimeout(() => {
      button.disabled = false;
      loadInfo();
      emit('library-changed');
    }, 3000);
  });

  $('backup-drive').addEventListener('change', () => renderBackup(state));
  const job = (command, params, started) => async () => {
    const reply = await call(command, params()).catch(() => undefined);
    toast(reply === 'OK' ? started : String(reply || 'The music server did not answer'));
    pollNow(300);
  };
  $('backup-now').addEventListener('click', job('startBackup', () => ({ drive: $('backup-drive').value }), 'Backing up the library'));
  const restore = job('startRestore', () => ({ drive: $('backup-drive').value }), 'Restoring the library');
  $('restore-now').addEventListener('click', () => {
    if (confirm('Restore the library from this drive? Playback stops, and tracks missing or damaged in the library are copied back from the backup.')) restore();
  });
  $('tidy-now').addEventListener('click', job('tidyLibrary', () => ({}), 'Tidying the library'));

  $('log-refresh').addEventListener('click', loadLog);
  $('log-copy').addEventListener('click', async () => {
    const text = $('debug-log').textContent;
    try {
      await navigator.clipboard.writeText(text);
      toast('The log is on the clipboard');
    } catch {
      // Without the clipboard (an address that is not secure), the text is
      // selected for the user to copy.
      const range = document.createRange();
      range.selectNodeContents($('debug-log'));
      getSelection().removeAllRanges();
      getSelection().addRange(range);
      toast('The log is selected: copy it with Ctrl+C');
    }
  });
  $('log-follow').addEventListener('change', (e) => setFollow(e.target.checked));
}

export function show() {
  loadDrives();
  render(state);
  loadInfo();
  loadClassical();
  pollNow();
}

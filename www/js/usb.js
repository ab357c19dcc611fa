// A USB drive plugged into the box: its folders and music, what the tags of
// a file say, playing straight from it, and importing albums or the whole
// drive into the library.
import { act, call, list } from './api.js';
import { state, subscribe, pollNow } from './status.js';
import { fmtBytes, fmtTime, h, iconButton, note, toast } from './ui.js';

const $ = (id) => document.getElementById(id);
let path = '';
let shown = null; // what the listing shows: drive, track count and path
let token = 0;

function href(p) {
  return '#/usb' + (p ? '/' + p.split('/').map(encodeURIComponent).join('/') : '');
}

function crumbs(drive) {
  const parts = path ? path.split('/') : [];
  const nav = $('usb-crumbs');
  nav.replaceChildren(
    h('a', { href: href(''), text: drive || 'Drive', 'aria-current': parts.length ? undefined : 'page' }),
    ...parts.flatMap((name, i) => {
      const to = parts.slice(0, i + 1).join('/');
      return [' / ', h('a', { href: href(to), text: name, 'aria-current': i === parts.length - 1 ? 'page' : undefined })];
    }),
  );
}

async function showTags(file, row) {
  const open = row.querySelector('.usb-tags');
  if (open) {
    open.remove();
    return;
  }
  const tags = await call('getTagsForPath', { path: path ? `${path}/${file.name}` : file.name });
  const facts = [
    ['Title', tags?.title], ['Artist', tags?.artist], ['Album', tags?.album], ['Track', tags?.track],
    ['Year', tags?.date], ['Genre', tags?.genre],
    ['Format', tags?.codec && `${tags.codec}${tags.sampleRate ? `, ${tags.sampleRate / 1000} kHz` : ''}${tags.channels ? `, ${tags.channels} ch` : ''}`],
    ['Length', tags?.duration ? fmtTime(tags.duration) : ''],
  ].filter(([, v]) => v);
  row.append(
    h('dl', { class: 'facts usb-tags' }, ...(facts.length ? facts.flatMap(([k, v]) => [h('dt', { text: k }), h('dd', { text: String(v) })]) : [h('dd', { text: tags?.error || 'No tags' })])),
  );
}

async function importHere(what) {
  const params = what === 'all' ? {} : { path };
  const reply = await call('USBImport', params);
  if (reply === 'OK') toast(what === 'all' ? 'Importing the whole drive' : `Importing ${path || 'the drive'}`);
  else toast(String(reply || 'The import did not start'));
  pollNow(300);
}

async function render() {
  const my = ++token;
  const drives = (await list('usbDrives')) || [];
  const dir = await call('listDir', { path });
  if (my !== token) return;
  const drive = drives.find((d) => d.library) || drives[0];
  const body = $('usb-body');
  $('usb-drive').textContent = drive
    ? `${drive.name} · ${fmtBytes(drive.free)} free of ${fmtBytes(drive.size)}`
    : '';
  crumbs(drive?.name);
  $('usb-actions').hidden = !drive;
  shown = { drive: state.usb, tracks: state.usbTracks, path };
  if (!drive) {
    body.replaceChildren(note('No USB drive is plugged in. Plug one into the box and it shows here.'));
    return;
  }
  if (!dir || dir.error) {
    body.replaceChildren(note(dir?.error || 'This folder cannot be read.'));
    return;
  }
  const rows = [
    ...dir.folders.map((name) =>
      h('li', {}, h('a', { class: 'row-link', href: href(path ? `${path}/${name}` : name) }, h('span', { class: 'text' }, h('span', { class: 'name', text: name }), h('span', { class: 'meta', text: 'Folder' })))),
    ),
    ...dir.files.map((file) => {
      const row = h(
        'li',
        {},
        h('span', { class: 'text' }, h('span', { class: 'name', text: file.name }), h('span', { class: 'meta', text: fmtBytes(file.size) })),
        file.id >= 0 ? iconButton('play', `Play ${file.name}`, async () => (await act('playID', { id: file.id })) && pollNow(300)) : null,
        h('button', { type: 'button', class: 'btn small', text: 'Tags', 'aria-label': `Tags of ${file.name}`, onclick: () => showTags(file, row) }),
      );
      return row;
    }),
  ];
  body.replaceChildren(
    ...[
      rows.length ? h('ul', { class: 'rows', 'aria-label': `Contents of ${path || drive.name}` }, ...rows) : note('No folders or music here.'),
      dir.more ? note('Only the first 2000 entries are shown.') : null,
    ].filter(Boolean),
  );
  $('usb-import-here').textContent = path ? 'Import this folder' : 'Import the whole drive';
}

function renderJob(s) {
  const job = s.storageJob;
  const box = $('usb-job');
  if (!job || job.job !== 'import' || (!job.running && !job.message)) {
    box.hidden = true;
    return;
  }
  box.hidden = false;
  $('usb-job-text').textContent = job.message;
  const bar = $('usb-job-bar');
  bar.hidden = !job.running;
  bar.max = job.bytesTotal || 1;
  bar.value = job.bytesDone;
  $('usb-stop').hidden = !job.running;
  $('usb-import-here').disabled = $('usb-import-all').disabled = job.running;
}

export function init() {
  $('usb-import-here').addEventListener('click', () => importHere(path ? 'here' : 'all'));
  $('usb-import-all').addEventListener('click', () => importHere('all'));
  $('usb-stop').addEventListener('click', async () => {
    await act('allStop');
    pollNow(300);
  });
  subscribe((s) => {
    renderJob(s);
    if (document.body.dataset.view !== 'usb' || !shown) return;
    // A drive plugged in, pulled out or scanned further shows at once.
    if (s.usb !== shown.drive || (s.usbTracks !== shown.tracks && !s.usbScanning)) {
      if (s.usb !== shown.drive) path = '';
      render();
    }
  });
}

export function show(parts) {
  path = parts.join('/');
  render();
}

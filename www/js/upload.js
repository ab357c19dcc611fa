// Music from this computer into an artist's album on the server's disk.
import { call, commandUrl, list } from './api.js';
import { emit, fmtBytes, h, toast } from './ui.js';

const $ = (id) => document.getElementById(id);
let request = null;

// The daemon files each part under its form name as the album and keeps the
// part's file name; the artist goes in the address.
export function uploadForm(album, files) {
  const form = new FormData();
  for (const file of files) form.append(album, file, file.name);
  return form;
}

function setBusy(busy) {
  $('upload-go').hidden = busy;
  $('upload-cancel').hidden = !busy;
  for (const el of $('upload-form').querySelectorAll('input')) el.disabled = busy;
}

function progress(sent, total) {
  const bar = $('upload-bar');
  bar.max = total || 1;
  bar.value = sent;
  $('upload-text').textContent = `${fmtBytes(sent)} of ${fmtBytes(total)}`;
}

function upload(artist, album, files) {
  const total = files.reduce((n, f) => n + f.size, 0);
  $('upload-progress').hidden = false;
  $('upload-result').replaceChildren();
  progress(0, total);
  setBusy(true);
  const xhr = new XMLHttpRequest();
  request = xhr;
  xhr.open('POST', commandUrl('upload', { artist }));
  xhr.upload.addEventListener('progress', (e) => progress(e.loaded, e.lengthComputable ? e.total : total));
  const finish = async (ok, message) => {
    request = null;
    setBusy(false);
    // A failure the daemon noticed (a file it could not write) shows here once.
    const checked = ok ? await call('checkUpload').catch(() => undefined) : undefined;
    if (ok && checked !== false) {
      progress(total, total);
      const names = files.length === 1 ? files[0].name : `${files.length} files`;
      $('upload-result').replaceChildren(h('p', { class: 'ok' }, `Uploaded ${names} to ${artist} / ${album}. `, h('a', { href: '#/library', text: 'Open the library' })));
      $('upload-files').value = '';
      emit('library-changed');
    } else {
      $('upload-result').replaceChildren(h('p', { class: 'error', text: message || 'The upload failed on the server.' }));
    }
  };
  xhr.addEventListener('load', () => {
    const free = Number(xhr.responseText);
    if (xhr.status === 200 && Number.isFinite(free)) finish(true);
    else finish(false, xhr.responseText.includes('NG') ? 'The server needs an artist name.' : 'The upload failed on the server.');
  });
  xhr.addEventListener('error', () => finish(false, 'The upload was cut off.'));
  xhr.addEventListener('abort', () => finish(false, 'Upload cancelled.'));
  xhr.send(uploadForm(album, files));
}

async function fillArtists() {
  const artists = await list('search', { albums: 0, tracks: 0, count: 1000, string: '' }).catch(() => null);
  if (artists) $('upload-artists').replaceChildren(...artists.map((a) => h('option', { value: a.artist })));
}

export function init() {
  $('upload-form').addEventListener('submit', (e) => {
    e.preventDefault();
    const artist = $('upload-artist').value.trim();
    const album = $('upload-album').value.trim();
    const files = [...$('upload-files').files];
    if (!artist || !album || !files.length) {
      toast('Choose an artist, an album and at least one file');
      return;
    }
    upload(artist, album, files);
  });
  $('upload-cancel').addEventListener('click', () => request?.abort());
  $('upload-files').addEventListener('change', () => {
    const files = [...$('upload-files').files];
    $('upload-chosen').textContent = files.length ? `${files.length} file${files.length === 1 ? '' : 's'}, ${fmtBytes(files.reduce((n, f) => n + f.size, 0))}` : '';
  });
}

export function show() {
  fillArtists();
}

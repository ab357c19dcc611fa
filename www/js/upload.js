// Music from this computer into an artist's album on the server's disk.
import { call, commandUrl, list } from './api.js';
import { emit, fmtBytes, h, toast } from './ui.js';
import { audioKind, readTags } from './tags.js';

const $ = (id) => document.getElementById(id);
let request = null;

// The daemon files each part under its form name as the album and keeps the
// part's file name; the artist goes in the address. names: the file name
// each file is sent under (its own when absent).
export function uploadForm(album, files, names = []) {
  const form = new FormData();
  files.forEach((file, i) => form.append(album, file, names[i] || file.name));
  return form;
}

// The files chosen, each with what its tags say; refused ones are shown
// but not sent.
let chosen = [];

// "03 Title.flac": the number from the tag or the file's name, the title
// as edited.
export function uploadName(file, title, track, index) {
  const ext = file.name.slice(file.name.lastIndexOf('.'));
  const own = /^(\d{1,3})[\s._-]/.exec(file.name)?.[1];
  const number = String(parseInt(track, 10) || parseInt(own, 10) || index + 1).padStart(2, '0');
  const safe = title.replace(/[\/\0]/g, '_').trim();
  return safe ? `${number} ${safe}${ext}` : file.name;
}

async function choose(files) {
  const my = (chosen = files.map((file) => ({ file, kind: audioKind(file), tags: {} })));
  await Promise.all(my.map(async (c) => c.kind && (c.tags = await readTags(c.file))));
  if (my !== chosen) return;
  // The first file that names them fills an empty artist and album.
  const named = my.find((c) => c.tags.artist || c.tags.album);
  if (named) {
    if (!$('upload-artist').value.trim() && named.tags.artist) $('upload-artist').value = named.tags.artist;
    if (!$('upload-album').value.trim() && named.tags.album) $('upload-album').value = named.tags.album;
  }
  $('upload-list').replaceChildren(
    ...my.map((c, i) => {
      if (!c.kind) {
        return h('li', { class: 'refused' }, h('span', { class: 'text' }, h('span', { class: 'name', text: c.file.name }), h('span', { class: 'meta error', text: 'Not a music file kz plays (WAV, FLAC, MP3 or M4A): it will not be sent' })));
      }
      const title = c.tags.title || c.file.name.replace(/\.[^.]+$/, '').replace(/^\d{1,3}[\s._-]+/, '');
      c.title = h('input', { type: 'text', value: title, 'aria-label': `Title of ${c.file.name}`, maxlength: 200 });
      return h('li', {}, h('span', { class: 'text' }, c.title, h('span', { class: 'meta', text: `${c.file.name} · ${fmtBytes(c.file.size)}` })));
    }),
  );
  const ok = my.filter((c) => c.kind);
  $('upload-chosen').textContent = files.length ? `${ok.length} file${ok.length === 1 ? '' : 's'}, ${fmtBytes(ok.reduce((n, c) => n + c.file.size, 0))}${ok.length < files.length ? `; ${files.length - ok.length} refused` : ''}` : '';
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

function upload(artist, album, files, names) {
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
      // A fresh form for the next album.
      $('upload-form').reset();
      $('upload-list').replaceChildren();
      $('upload-chosen').textContent = '';
      chosen = [];
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
  xhr.send(uploadForm(album, files, names));
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
    const ok = chosen.filter((c) => c.kind);
    if (!artist || !album || !ok.length) {
      toast(chosen.length && !ok.length ? 'None of these is a music file kz plays' : 'Choose an artist, an album and at least one file');
      return;
    }
    upload(artist, album, ok.map((c) => c.file), ok.map((c, i) => uploadName(c.file, c.title.value, c.tags.track, i)));
  });
  $('upload-cancel').addEventListener('click', () => request?.abort());
  $('upload-files').addEventListener('change', () => choose([...$('upload-files').files]));
}

export function show() {
  fillArtists();
}

// What every list offers on its items: play, add to the queue, add to a playlist.
import { call, list } from './api.js';
import { pollNow } from './status.js';
import { h, icon, iconButton, nameForm, rowText, toast, emit } from './ui.js';

export async function play(id, label) {
  try {
    await call('playID', { id: Number(id) });
    if (label) toast(`Playing ${label}`);
  } catch {
    toast('The music server did not answer');
  }
  pollNow(300);
}

export async function queue(id, label) {
  let reply;
  try {
    reply = await call('queueID', { id: Number(id) });
  } catch {
    reply = undefined;
  }
  if (reply === 'OK') {
    toast(`Added ${label} to the queue`);
    emit('playlists-changed');
    pollNow(300);
  } else {
    toast(reply === undefined ? 'This server has no play queue yet' : `Could not add ${label} to the queue`);
  }
}

// Past the end appends: the daemon puts an entry at an index beyond the
// list's length at its end.
const APPEND = 999999;

export async function addToPlaylist(playlistId, id) {
  try {
    return (await call('addIdToPlaylist', { id: Number(id), playlist: Number(playlistId), index: APPEND })) === 'OK';
  } catch {
    return false;
  }
}

// The playlist chooser: the existing playlists, or a new one by name.
export async function chooseAndAdd(id, label) {
  const dialog = document.getElementById('add-dialog');
  const body = dialog.querySelector('.dialog-body');
  dialog.querySelector('#add-h').textContent = `Add ${label} to a playlist`;
  body.replaceChildren(h('p', { class: 'note', text: 'Loading playlists…' }));
  if (!dialog.open) dialog.showModal();

  const done = async (playlistId, name) => {
    const ok = await addToPlaylist(playlistId, id);
    toast(ok ? `Added ${label} to ${name}` : `Could not add ${label} to ${name}`);
    if (ok) emit('playlists-changed');
    dialog.close();
  };

  let playlists;
  try {
    playlists = await list('listplaylists');
  } catch {
    playlists = null;
  }
  if (playlists === null) {
    body.replaceChildren(h('p', { class: 'note', text: 'This server has no playlists yet.' }));
    return;
  }
  const { form, input } = nameForm(
    {
      id: 'add-new-name',
      label: 'New playlist',
      onName: async (name) => {
        const made = await call('newPlaylist', { name }).catch(() => undefined);
        if (made && made.id) await done(made.id, name);
        else toast('Could not make the playlist');
      },
    },
    h('button', { type: 'submit', class: 'btn' }, icon('plus'), 'Create and add'),
  );
  const items = playlists.map((p) =>
    h(
      'li',
      {},
      h('button', { type: 'button', class: 'row-main', onclick: () => done(p.id, p.name) }, icon('list'), rowText(p.name, `${p.count} item${p.count === 1 ? '' : 's'}`)),
    ),
  );
  body.replaceChildren(items.length ? h('ul', { class: 'rows' }, items) : h('p', { class: 'note', text: 'No playlists yet.' }), form);
  (body.querySelector('button') || input).focus();
}

// The buttons at the end of a row: play, queue, add to playlist.
export function rowActions(id, label, { withPlay = true } = {}) {
  return h(
    'span',
    { class: 'row-actions' },
    withPlay && iconButton('play', `Play ${label}`, () => play(id, label)),
    iconButton('queue', `Add ${label} to the queue`, () => queue(id, label)),
    iconButton('list-add', `Add ${label} to a playlist`, () => chooseAndAdd(id, label)),
  );
}

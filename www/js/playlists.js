// Playlists and the queue: list, make, rename, delete, shuffle, play, and
// each playlist's entries moved and removed.
import { call, list, kindOf } from './api.js';
import { play } from './actions.js';
import { cleanTrackTitle } from './library.js';
import { pollNow, state, subscribe } from './status.js';
import { h, icon, iconButton, nameForm, note, on, rowText, toast } from './ui.js';

const $ = (id) => document.getElementById(id);
const QUEUE = 'Queue';
let current = null; // the open playlist's id, or null for the list
let showingQueue = false;
let generation = 0;

const unavailable = () => note('This music server has no playlists yet.');

function entryLabel(item) {
  if ('track' in item) return cleanTrackTitle(item.track);
  if ('album' in item) return item.album;
  return item.artist ?? item.name ?? String(item.id);
}

function entryMeta(item) {
  if ('track' in item) return `${item.artist} · ${item.album}`;
  if ('album' in item) return `album · ${item.artist}`;
  return kindOf(item.id);
}

async function insertAt(playlistId, id, index) {
  return (await call('addIdToPlaylist', { id: Number(id), playlist: playlistId, index }).catch(() => undefined)) === 'OK';
}

// Reordering is a delete at the old index and an insert at the new one.
async function reorder(playlistId, item, from, to) {
  const removed = await call('deletePlaylistIndex', { playlist: playlistId, index: from }).catch(() => undefined);
  if (removed !== 'OK') return false;
  if (await insertAt(playlistId, item.id, to)) return true;
  // Put it back where it was rather than lose it.
  await insertAt(playlistId, item.id, from);
  return false;
}

function renameForm(playlist, after) {
  const { form, input } = nameForm(
    {
      label: 'New name',
      visibleLabel: false,
      value: playlist.name,
      onName: async (name) => {
        const ok = (await call('renameID', { id: playlist.id, name }).catch(() => undefined)) !== undefined;
        toast(ok ? `Renamed to ${name}` : 'Could not rename the playlist');
        after();
      },
    },
    h('button', { type: 'submit', class: 'btn primary', text: 'Rename' }),
    h('button', { type: 'button', class: 'btn', text: 'Cancel', onclick: after }),
  );
  setTimeout(() => input.select(), 0);
  return form;
}

async function remove(playlist) {
  if (!confirm(`Delete the playlist ${playlist.name}?`)) return false;
  const ok = (await call('deleteID', { id: playlist.id }).catch(() => undefined)) !== undefined;
  toast(ok ? `Deleted ${playlist.name}` : 'Could not delete the playlist');
  return ok;
}

async function showList(body, my) {
  $('playlists-h').textContent = 'Playlists';
  const playlists = await list('listplaylists');
  if (my !== generation) return;
  if (playlists === null) {
    body.replaceChildren(unavailable());
    return;
  }
  // The queue first, then the rest in the daemon's order.
  playlists.sort((a, b) => (b.name === QUEUE) - (a.name === QUEUE));
  const { form } = nameForm(
    {
      id: 'new-playlist',
      label: 'New playlist',
      onName: async (name) => {
        const made = await call('newPlaylist', { name }).catch(() => undefined);
        if (made?.id) {
          toast(`Made ${name}`);
          location.hash = `#/playlists/${made.id}`;
        } else toast('Could not make the playlist');
      },
    },
    h('button', { type: 'submit', class: 'btn primary' }, icon('plus'), 'Create'),
  );
  const rows = playlists.map((p) =>
    h(
      'li',
      { class: 'row' },
      h(
        'a',
        { class: 'row-main', href: `#/playlists/${p.id}` },
        icon(p.name === QUEUE ? 'queue' : 'list'),
        rowText(p.name === QUEUE ? 'Queue (plays next)' : p.name, `${p.count} item${p.count === 1 ? '' : 's'}`),
      ),
      h('span', { class: 'row-actions' }, iconButton('play', `Play ${p.name}`, () => play(p.id, p.name))),
    ),
  );
  body.replaceChildren(form, rows.length ? h('ul', { class: 'rows' }, rows) : note('No playlists yet. Make one above, or add to the queue from the library.'));
}

async function showPlaylist(body, id, my) {
  const [playlists, entries] = await Promise.all([list('listplaylists'), list('listplaylist', { id })]);
  if (my !== generation) return;
  if (playlists === null || entries === null) {
    body.replaceChildren(unavailable());
    return;
  }
  const playlist = playlists.find((p) => Number(p.id) === id);
  if (!playlist) {
    $('playlists-h').textContent = 'Playlist not found';
    body.replaceChildren(note('This playlist is not on the music server any more.'), h('p', {}, h('a', { href: '#/playlists', text: '‹ All playlists' })));
    return;
  }
  const isQueue = playlist.name === QUEUE;
  showingQueue = isQueue;
  $('playlists-h').textContent = isQueue ? 'Queue' : playlist.name;
  const refresh = () => render();
  const head = h(
    'div',
    { class: 'detail-head' },
    h(
      'div',
      { class: 'detail-text' },
      h('p', {}, h('a', { href: '#/playlists', text: '‹ All playlists' })),
      h('p', { class: 'meta', text: `${entries.length} item${entries.length === 1 ? '' : 's'}` }),
      h(
        'div',
        { class: 'btn-row' },
        h('button', { type: 'button', class: 'btn primary', onclick: () => play(id, playlist.name) }, icon('play'), 'Play'),
        h(
          'button',
          {
            type: 'button',
            class: 'btn',
            onclick: async () => {
              const ok = (await call('mixPlaylists', { id }).catch(() => undefined)) === 'OK';
              toast(ok ? 'Shuffled' : 'Could not shuffle');
              refresh();
            },
          },
          icon('shuffle'),
          'Shuffle',
        ),
        // The queue is not a playlist to rename or delete: it empties.
        isQueue
          ? h(
              'button',
              {
                type: 'button',
                class: 'btn',
                onclick: async () => {
                  const ok = (await call('clearQueue').catch(() => undefined)) === 'OK';
                  toast(ok ? 'Queue cleared' : 'Could not clear the queue');
                  refresh();
                },
              },
              icon('close'),
              'Clear',
            )
          : h('button', { type: 'button', class: 'btn', onclick: () => head.querySelector('.btn-row').replaceWith(renameForm(playlist, refresh)) }, icon('edit'), 'Rename'),
        isQueue
          ? null
          : h(
              'button',
              {
                type: 'button',
                class: 'btn danger',
                onclick: async () => {
                  if (await remove(playlist)) location.hash = '#/playlists';
                },
              },
              icon('trash'),
              'Delete',
            ),
      ),
      // What plays now has left the queue: it is shown above what comes next.
      isQueue && state.playing === 1 && state.track && state.track !== 'empty'
        ? h('p', { class: 'now-playing-line' }, h('span', { class: 'meta', text: 'Playing now: ' }), h('strong', { text: state.track }), state.artist ? h('span', { class: 'meta', text: ` · ${state.artist}` }) : null)
        : null,
      isQueue ? h('p', { class: 'meta', text: entries.length ? 'Up next, in this order; each leaves the queue as it plays.' : 'Nothing is queued. Queue tracks or albums from the library: they play next.' }) : null,
    ),
  );
  const last = entries.length - 1;
  const step = async (item, from, to) => {
    if (!(await reorder(id, item, from, to))) toast('Could not move the entry');
    await render();
    // Keep the keyboard on the entry that moved.
    body.querySelectorAll('.rows > li')[to]?.querySelector(to < from ? '[data-up]' : '[data-down]')?.focus();
  };
  const rows = entries.map((item, i) => {
    const label = entryLabel(item);
    const up = iconButton('up', `Move ${label} up`, () => step(item, i, i - 1));
    const down = iconButton('down', `Move ${label} down`, () => step(item, i, i + 1));
    up.dataset.up = '';
    down.dataset.down = '';
    up.disabled = i === 0;
    down.disabled = i === last;
    return h(
      'li',
      { class: 'row' },
      h(
        'button',
        {
          type: 'button',
          class: 'row-main',
          'aria-label': `Play ${playlist.name} from ${label}`,
          onclick: async () => {
            await call('startPlaylist', { playlist: id, id: Number(item.id) }).catch(() => {});
            pollNow(300);
          },
        },
        h('span', { class: 'num', text: String(i + 1) }),
        rowText(label, entryMeta(item)),
      ),
      h(
        'span',
        { class: 'row-actions' },
        up,
        down,
        iconButton('close', `Remove ${label}`, async () => {
          const ok = (await call('deletePlaylistIndex', { playlist: id, index: i }).catch(() => undefined)) === 'OK';
          if (!ok) toast('Could not remove the entry');
          render();
        }),
      ),
    );
  });
  body.replaceChildren(head, rows.length ? h('ol', { class: 'rows' }, rows) : note('Empty. Add music from the library.'));
}

async function render() {
  const my = ++generation;
  const body = $('playlists-body');
  try {
    if (current === null) await showList(body, my);
    else await showPlaylist(body, current, my);
  } catch {
    if (my === generation) body.replaceChildren(note('The music server did not answer. Try again in a moment.'));
  }
}

export function init() {
  // Renames and deletions in the library change the names shown here too.
  for (const event of ['playlists-changed', 'library-changed']) {
    on(event, () => {
      if (!$('view-playlists').hidden) render();
    });
  }
  // The open list follows the daemon: a track that starts leaves the
  // queue, another page may have changed a playlist.
  let last = '';
  subscribe((s) => {
    const mark = `${s.track}|${s.queued}|${s.playing}`;
    const changed = mark !== last;
    last = mark;
    if ($('view-playlists').hidden) return;
    // Never under the user's hands: a name being typed stays.
    const typing = $('playlists-body').contains(document.activeElement) && document.activeElement.tagName === 'INPUT';
    if (typing || $('playlists-body').querySelector('form.inline-form input:not([aria-label="New playlist"])')) return;
    if (s.forceWebRefresh === true || (changed && showingQueue)) render();
  });
}

export function show(args) {
  current = args[0] ? Number(args[0]) : null;
  showingQueue = false;
  return render();
}

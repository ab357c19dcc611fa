// The library: artists → albums → tracks in the daemon's display order, and
// search as you type over all three.
import { artUrl, call, list } from './api.js';
import { chooseAndAdd, play, queue, rowActions } from './actions.js';
import { cover, debounce, emit, h, icon, iconButton, nameForm, note, on, rowText, titleWithTags, toast } from './ui.js';

const $ = (id) => document.getElementById(id);
const PAGE = 50;
const SEARCH_DELAY_MS = 250;

let route = { kind: 'artists' };
// Each render and search is numbered; a reply for an older one is dropped.
let generation = 0;

function crumbs(parts) {
  const nav = $('crumbs');
  nav.hidden = !parts.length;
  const items = [['Library', '#/library'], ...parts];
  nav.replaceChildren(
    h(
      'ol',
      {},
      items.map(([label, href], i) =>
        h('li', {}, i === items.length - 1 ? h('span', { 'aria-current': 'page', text: label }) : h('a', { href, text: label })),
      ),
    ),
  );
}

function header(title, sub, id, label, art, edit) {
  return [
    h('div', { class: 'detail-head' }, art, h('div', { class: 'detail-text' }, h('h2', {}, titleWithTags(title, 'title')), sub)),
    h(
      'div',
      { class: 'btn-row' },
      h('button', { type: 'button', class: 'btn primary', onclick: () => play(id, label) }, icon('play'), 'Play'),
      h('button', { type: 'button', class: 'btn', onclick: () => queue(id, label) }, icon('queue'), 'Queue'),
      h('button', { type: 'button', class: 'btn', onclick: () => chooseAndAdd(id, label) }, icon('list-add'), 'Add to playlist'),
    ),
    edit,
  ];
}

// Editing the library. The daemon answers these commands the same way
// whether they worked or not, so each result is read back before it is told.
async function nameNow(kind, id) {
  if (kind === 'album') return (await call('albumDetails', { id }).catch(() => undefined))?.name;
  if (kind === 'artist') return (await call('artistDetails', { id }).catch(() => undefined))?.name;
  const parent = await call('getParent', { id }).catch(() => undefined);
  const tracks = parent?.id ? await list('listalbum', { id: parent.id }).catch(() => null) : null;
  return tracks?.find((t) => Number(t.id) === Number(id))?.name;
}

function editForm(row, { id, label, value, onName }) {
  const cancel = h('button', { type: 'button', class: 'btn', onclick: () => render() }, 'Cancel');
  const { form, input } = nameForm({ id: `edit-${Date.now()}`, label, value, onName }, h('button', { type: 'submit', class: 'btn primary' }, 'Save'), cancel);
  row.replaceWith(form);
  input.focus();
  input.select();
}

async function renameItem(kind, id, old, row) {
  editForm(row, {
    label: `New name for ${old}`,
    value: old,
    onName: async (name) => {
      await call('renameID', { id: Number(id), name }).catch(() => undefined);
      const now = await nameNow(kind, id);
      toast(now === name ? `Renamed to ${name}` : `Could not rename ${old}: that name is taken or not allowed`);
      emit('library-changed');
      render();
    },
  });
}

async function moveAlbum(id, old, artist, row) {
  editForm(row, {
    label: `Move ${old} to the artist`,
    value: artist,
    onName: async (name) => {
      await call('moveID', { id: Number(id), name }).catch(() => undefined);
      const d = await call('albumDetails', { id }).catch(() => undefined);
      toast(d?.artist === name ? `Moved ${old} to ${name}` : `Could not move ${old}: ${name} has an album of that name already`);
      emit('library-changed');
      render();
    },
  });
}

async function deleteItem(kind, id, name, then) {
  const what = { album: 'the album', artist: 'the artist and all of their albums', track: 'the track' }[kind];
  if (!window.confirm(`Delete ${what} “${name}” from the music server's disk? This cannot be undone.`)) return;
  await call('deleteID', { id: Number(id) }).catch(() => undefined);
  const gone = (await nameNow(kind, id)) !== name;
  toast(gone ? `Deleted ${name}` : `Could not delete ${name}`);
  emit('library-changed');
  if (gone) then();
  else render();
}

function editRow(kind, id, name, { artist, up } = {}) {
  const row = h('div', { class: 'btn-row edit-row' });
  row.append(
    ...[
      h('button', { type: 'button', class: 'btn', onclick: () => renameItem(kind, id, name, row) }, icon('edit'), 'Rename'),
      kind === 'album' ? h('button', { type: 'button', class: 'btn', onclick: () => moveAlbum(id, name, artist, row) }, icon('library'), 'Move to artist') : null,
      h('button', { type: 'button', class: 'btn danger', onclick: () => deleteItem(kind, id, name, up) }, icon('trash'), 'Delete'),
    ].filter(Boolean),
  );
  return row;
}

function artistRow(a) {
  return h(
    'li',
    { class: 'row' },
    h('a', { class: 'row-main', href: `#/library/artist/${a.id}` }, rowText(a.artist)),
    rowActions(a.id, a.artist),
  );
}

function albumRow(a, artistName) {
  const label = a.album ?? a.name;
  return h(
    'li',
    { class: 'row' },
    h(
      'a',
      { class: 'row-main', href: `#/library/album/${a.id}` },
      cover(artUrl(a.id), 'thumb'),
      rowText(label, a.artist && a.artist !== artistName ? a.artist : null),
    ),
    rowActions(a.id, label),
  );
}

// Search answers a track's file name ("03 Prelude in D"): the listener
// wants its title.
export function cleanTrackTitle(name) {
  const text = String(name ?? '');
  const clean = text.replace(/\.(wav|mp3|flac|m4a)$/i, '').replace(/^\d{1,3}(?:[-.]\d{1,3})?(?:\s*[-.]\s*|\s+)/, '');
  return clean || text;
}

function trackRow(t, number, editable) {
  const label = t.track !== undefined ? cleanTrackTitle(t.track) : t.name;
  const li = h(
    'li',
    { class: 'row' },
    h(
      'button',
      { type: 'button', class: 'row-main', 'aria-label': `Play ${label}`, onclick: () => play(t.id, label) },
      number ? h('span', { class: 'num', text: String(number) }) : icon('note'),
      rowText(label, t.artist ? `${t.artist} · ${t.album}` : null),
    ),
    rowActions(t.id, label, { withPlay: false }),
  );
  if (editable) {
    // A track's file name is what is renamed: its number stays in front.
    li.lastChild.append(
      iconButton('edit', `Rename ${label}`, () => renameItem('track', t.id, t.name, li)),
      iconButton('trash', `Delete ${label}`, () => deleteItem('track', t.id, t.name, () => render())),
    );
  }
  return li;
}

function failed(body) {
  body.replaceChildren(note('The music server did not answer. Try again in a moment.'));
}

// A list that fetches itself a page at a time, with a "More" button while
// full pages keep coming.
async function pagedList(body, fetchPage, renderItem, emptyText, my) {
  const ul = h('ul', { class: 'rows' });
  const more = h('button', { type: 'button', class: 'btn more' }, 'More');
  let offset = 0;
  const load = async () => {
    more.disabled = true;
    const items = await fetchPage(offset);
    if (my !== generation) return;
    if (items === null) {
      body.replaceChildren(note('This server cannot list the library yet.'));
      return;
    }
    offset += items.length;
    ul.append(...items.map(renderItem));
    more.disabled = false;
    more.hidden = items.length < PAGE;
    if (!offset) body.replaceChildren(note(emptyText));
  };
  more.addEventListener('click', load);
  body.replaceChildren(ul, more);
  await load();
}

// An album as a tile of the grid: its cover (loaded as it scrolls into
// view, a placeholder without one), its title and artist.
function albumTile(a, artistName, withActions = false) {
  const label = a.album ?? a.name;
  return h(
    'li',
    { class: 'tile' },
    h(
      'a',
      { class: 'row-main tile-link', href: `#/library/album/${a.id}` },
      // Known to have no cover: the placeholder, and no request.
      a.art === false ? h('span', { class: 'art tile-art' }, icon('note')) : cover(artUrl(a.id), 'tile-art'),
      titleWithTags(label),
      a.artist && a.artist !== artistName ? h('span', { class: 'meta', text: a.artist }) : null,
    ),
    // An artist's few albums carry their actions; the whole library's grid
    // stays light (its album pages have them).
    withActions ? rowActions(a.id, label) : null,
  );
}

// How far beyond the screen the grid reaches: pages of tiles within it are
// in the document, and the next page is fetched when the end comes within
// it. A fast flick (some 24,000 pixels a second) covers 1,200 of them in a
// slow frame of 50 ms, and the tiles must be there before they show.
const NEAR = 1600;

// The grid fetches its next page as its end comes into view. Thousands of
// tiles in the document would make every frame's style, layout and paint
// walk all of them, so only the pages near the screen hold tiles; the
// others stay as empty boxes of the height they had, which keeps the
// scrollbar and the scroll position where they were.
async function albumGrid(body, fetchPage, emptyText, my, paged = true) {
  // Each page of tiles is a grid of its own: adding, emptying or filling
  // one never lays out the others again.
  const grid = h('div', { class: 'grid-pages' });
  const more = h('button', { type: 'button', class: 'btn more', hidden: true }, 'More');
  const albums = new Map();
  const fill = (ul) => {
    if (!ul.style.height) return;
    ul.replaceChildren(...albums.get(ul).map((a) => albumTile(a)));
    ul.style.height = '';
  };
  const empty = (ul, height) => {
    // A tile with the keyboard's focus stays, or the focus would be lost;
    // a page without a box (the view hidden) has no height to keep.
    if (ul.style.height || !height || ul.contains(document.activeElement)) return;
    // Covers still on their way are not wanted any more: the daemon's
    // answers to them would hold up the covers now on the screen.
    for (const img of ul.querySelectorAll('img')) if (!img.complete) img.removeAttribute('src');
    ul.style.height = `${height}px`;
    ul.replaceChildren();
  };
  const pages = new IntersectionObserver((seen) => {
    if (my !== generation) return pages.disconnect();
    for (const e of seen) {
      if (e.isIntersecting) fill(e.target);
      else empty(e.target, e.boundingClientRect.height);
    }
  }, { rootMargin: `${NEAR}px 0px` });
  let offset = 0;
  let busy = false;
  const load = async () => {
    if (busy) return;
    busy = true;
    more.disabled = true;
    const items = await fetchPage(offset);
    busy = false;
    if (my !== generation) return;
    if (items === null) {
      body.replaceChildren(note('This server cannot list the library yet.'));
      return;
    }
    offset += items.length;
    if (items.length) {
      const ul = h('ul', { class: 'grid grid-page' }, items.map((a) => albumTile(a)));
      albums.set(ul, items);
      grid.append(ul);
      pages.observe(ul);
    }
    more.disabled = false;
    more.hidden = !paged || items.length < PAGE;
    if (!offset) body.replaceChildren(note(emptyText));
    // Observed afresh, the end reports where it is now: a page that left
    // it still within reach (a tall screen) fetches the next one too.
    watcher.unobserve(more);
    if (!more.hidden) watcher.observe(more);
  };
  more.addEventListener('click', load);
  const watcher = new IntersectionObserver((seen) => {
    if (my !== generation) watcher.disconnect();
    else if (seen.some((e) => e.isIntersecting) && !more.hidden) load();
  }, { rootMargin: `${NEAR}px 0px` });
  body.replaceChildren(grid, more);
  await load();
}

async function showAlbums(body, my) {
  crumbs([['All albums', '#/library/albums']]);
  // albumTiles says which albums have covers; an older daemon without it
  // answers "thanks", and search lists the albums.
  const page = async (offset) => (await list('albumTiles', { offset, count: PAGE })) ?? list('search', { artists: 0, tracks: 0, offset, count: PAGE, string: '' });
  await albumGrid(body, page, 'The library has no albums.', my);
}

async function showRecent(body, my) {
  crumbs([['Recently added', '#/library/recent']]);
  await albumGrid(body, (offset) => (offset ? Promise.resolve([]) : list('recentAlbums', { count: 100 })), 'Nothing has been added yet.', my, false);
}

async function showArtists(body, my) {
  crumbs([]);
  await pagedList(body, (offset) => list('search', { albums: 0, tracks: 0, offset, count: PAGE, string: '' }), artistRow, 'The library is empty.', my);
}

function notFound(body, what) {
  crumbs([[`${what} not found`, '#/library']]);
  body.replaceChildren(note(`This ${what.toLowerCase()} is not in the library (it may have been renamed, moved or deleted).`), h('p', {}, h('a', { href: '#/library', text: '‹ All artists' })));
}

async function showArtist(body, id, my) {
  const [details, albums] = await Promise.all([call('artistDetails', { id }), list('listartist', { id })]);
  if (my !== generation) return;
  if (!details?.name) return notFound(body, 'Artist');
  const name = details.name;
  crumbs([[name, `#/library/artist/${id}`]]);
  const count = details?.albumcount;
  body.replaceChildren(
    ...header(
      name,
      h('p', { class: 'meta', text: count === undefined ? '' : `${count} album${count === 1 ? '' : 's'}` }),
      id,
      name,
      undefined,
      editRow('artist', id, name, { up: () => (location.hash = '#/library') }),
    ),
    albums?.length ? h('ul', { class: 'grid' }, albums.map((a) => albumTile(a, name, true))) : note('No albums.'),
  );
}

async function showAlbum(body, id, my) {
  const [details, tracks, parent] = await Promise.all([
    call('albumDetails', { id }),
    list('listalbum', { id }),
    call('getParent', { id }).catch(() => undefined),
  ]);
  if (my !== generation) return;
  if (!details?.name) return notFound(body, 'Album');
  const name = details.name;
  const artistId = parent?.id;
  crumbs([...(artistId ? [[details?.artist ?? 'Artist', `#/library/artist/${artistId}`]] : []), [name, `#/library/album/${id}`]]);
  const by = details?.artist ? h('p', { class: 'meta' }, artistId ? h('a', { href: `#/library/artist/${artistId}`, text: details.artist }) : details.artist) : null;
  body.replaceChildren(
    ...header(
      name,
      by,
      id,
      name,
      cover(artUrl(id), 'large'),
      editRow('album', id, name, { artist: details.artist, up: () => (location.hash = artistId ? `#/library/artist/${artistId}` : '#/library') }),
    ),
    tracks?.length ? h('ol', { class: 'rows tracks' }, tracks.map((t, i) => trackRow(t, i + 1, true))) : note('No tracks.'),
  );
}

function searchSection(title) {
  const ul = h('ul', { class: 'rows' });
  const section = h('section', { class: 'results', hidden: true }, h('h2', { text: title }), ul);
  return { section, ul };
}

async function showSearch(body, text, my) {
  crumbs([[`Search “${text}”`, '#/library']]);
  const artists = searchSection('Artists');
  const albums = searchSection('Albums');
  const tracks = searchSection('Tracks');
  const more = h('button', { type: 'button', class: 'btn more', hidden: true }, 'More results');
  const status = $('library-status');
  let offset = 0;
  const load = async () => {
    more.disabled = true;
    const items = await list('search', { artists: 1, albums: 1, tracks: 1, offset, count: PAGE, string: text });
    if (my !== generation) return;
    if (items === null) {
      body.replaceChildren(note('This server cannot search yet.'));
      return;
    }
    offset += items.length;
    for (const item of items) {
      if ('track' in item) tracks.ul.append(trackRow(item));
      else if ('album' in item) albums.ul.append(albumRow(item));
      else if ('artist' in item) artists.ul.append(artistRow(item));
    }
    for (const s of [artists, albums, tracks]) s.section.hidden = !s.ul.children.length;
    more.hidden = items.length < PAGE;
    more.disabled = false;
    status.textContent = offset ? `${offset}${more.hidden ? '' : '+'} results` : 'Nothing found';
    if (!offset) body.replaceChildren(note(`Nothing found for “${text}”.`));
  };
  more.addEventListener('click', load);
  body.replaceChildren(artists.section, albums.section, tracks.section, more);
  await load();
}

async function render() {
  const my = ++generation;
  const body = $('library-body');
  body.setAttribute('aria-busy', 'true');
  const text = $('search').value.trim();
  try {
    if (text) await showSearch(body, text, my);
    else if (route.kind === 'artist') await showArtist(body, route.id, my);
    else if (route.kind === 'album') await showAlbum(body, route.id, my);
    else if (route.kind === 'albums') await showAlbums(body, my);
    else if (route.kind === 'recent') await showRecent(body, my);
    else await showArtists(body, my);
  } catch {
    if (my === generation) failed(body);
  } finally {
    if (my === generation) body.removeAttribute('aria-busy');
  }
}

export function init() {
  const search = $('search');
  const later = debounce(render, SEARCH_DELAY_MS);
  search.addEventListener('input', later);
  // Enter searches at once; Escape clears the search.
  search.addEventListener('keydown', (e) => {
    if (e.key === 'Enter') render();
    if (e.key === 'Escape' && search.value) {
      search.value = '';
      render();
    }
  });
  on('library-changed', () => {
    if (!$('view-library').hidden) render();
  });
}

// args: [] | ['artist', id] | ['album', id]
export function show(args) {
  const [kind, id] = args;
  route = kind === 'artist' || kind === 'album' ? { kind, id: Number(id) } : kind === 'albums' || kind === 'recent' ? { kind } : { kind: 'artists' };
  const mode = route.kind === 'albums' || route.kind === 'recent' ? route.kind : route.kind === 'artists' ? 'artists' : '';
  for (const a of document.querySelectorAll('.lib-modes a')) {
    if (a.dataset.mode === mode) a.setAttribute('aria-current', 'page');
    else a.removeAttribute('aria-current');
  }
  // Following a link leaves the search for the item it names.
  if (kind) $('search').value = '';
  render();
}

// The pages' entry: the views behind the address's "#/view/..." part, the
// alerts, and the status poll that keeps every view current.
import * as now from './now.js';
import * as library from './library.js';
import * as playlists from './playlists.js';
import * as cd from './cd.js';
import * as radio from './radio.js';
import * as upload from './upload.js';
import * as usb from './usb.js';
import * as settings from './settings.js';
import { subscribe, setFast, pollNow } from './status.js';
import { emit } from './ui.js';

const views = { now, library, playlists, cd, radio, usb, upload, settings };
// The views that show time or progress follow the full status every second.
const FAST_VIEWS = new Set(['now', 'cd', 'radio']);
const $ = (id) => document.getElementById(id);

let currentView = null;

function route() {
  const parts = location.hash.replace(/^#\/?/, '').split('/').filter(Boolean).map(decodeURIComponent);
  const name = views[parts[0]] ? parts[0] : 'now';
  const changed = name !== currentView;
  for (const section of document.querySelectorAll('main > section')) section.hidden = section.dataset.view !== name;
  for (const link of document.querySelectorAll('.tabs a')) {
    if (link.dataset.view === name) link.setAttribute('aria-current', 'page');
    else link.removeAttribute('aria-current');
  }
  document.body.dataset.view = name;
  setFast(FAST_VIEWS.has(name));
  views[name].show?.(parts.slice(1));
  // After a move by the user, the keyboard and screen readers start at the
  // new view's heading; the first view of a visit keeps the page's start.
  if (currentView !== null) {
    const heading = document.querySelector(`#view-${name} h1`);
    heading?.focus({ preventScroll: true });
    if (changed) window.scrollTo(0, 0);
  }
  currentView = name;
  document.title = `${document.querySelector(`#view-${name} h1`)?.textContent || 'kz'} · kz`;
}

// A daemon alert stays until it changes or the user dismisses it.
let dismissed = '';
function showAlert(s) {
  const text = String(s.alert || '');
  const box = $('alert');
  if (!text) dismissed = '';
  box.hidden = !text || text === dismissed;
  if (!box.hidden && $('alert-text').textContent !== text) $('alert-text').textContent = text;
}

for (const view of Object.values(views)) view.init?.();
subscribe(showAlert);
// A change made anywhere (another tab, another phone, the front panel) has
// every open list read again.
let seenChanges;
subscribe((s) => {
  if (s.changes === undefined) return;
  if (seenChanges !== undefined && s.changes !== seenChanges) {
    emit('library-changed');
    emit('playlists-changed');
  }
  seenChanges = s.changes;
});
$('alert-close').addEventListener('click', () => {
  dismissed = $('alert-text').textContent;
  $('alert').hidden = true;
});
window.addEventListener('hashchange', route);
route();
pollNow();

// Follows the daemon: "status" once a second while the time matters (the
// playing view), "slowStatus" every few seconds otherwise, nothing while the
// page is hidden. Every reply is merged into one state that views subscribe to.
import { call } from './api.js';
import { emit } from './ui.js';

export const state = {};
const subscribers = new Set();
let fast = false;
let timer;
let running = false;
let again = false;
let failures = 0;
let online = true;

export function subscribe(fn) {
  subscribers.add(fn);
  if (Object.keys(state).length) fn(state);
  return () => subscribers.delete(fn);
}

export function setFast(value) {
  if (fast === value) return;
  fast = value;
  if (value) pollNow();
}

// Asks again at once, e.g. right after a command changed what plays.
export function pollNow(delay = 0) {
  clearTimeout(timer);
  timer = setTimeout(poll, delay);
}

function setOnline(value) {
  if (online === value) return;
  online = value;
  document.getElementById('offline').hidden = value;
}

async function poll() {
  clearTimeout(timer);
  if (running) {
    again = true;
    return;
  }
  if (document.visibilityState === 'hidden') return;
  running = true;
  const full = fast;
  const requestedAt = performance.now();
  try {
    const reply = await call(full ? 'status' : 'slowStatus', undefined, { timeout: 5000 });
    if (reply && typeof reply === 'object') {
      failures = 0;
      setOnline(true);
      Object.assign(state, reply);
      state.receivedAt = performance.now();
      state.requestedAt = requestedAt;
      state.full = full;
      if (reply.forceWebRefresh === true) emit('library-changed');
      for (const fn of subscribers) fn(state);
    }
  } catch {
    failures += 1;
    if (failures >= 2) setOnline(false);
  } finally {
    running = false;
    let wait = failures ? Math.min(5000, 1000 * failures) : fast ? 1000 : 3000;
    if (again) wait = 0;
    again = false;
    timer = setTimeout(poll, wait);
  }
}

document.addEventListener('visibilitychange', () => {
  if (document.visibilityState === 'visible') pollNow();
});

export function num(key, fallback = 0) {
  const n = Number(state[key]);
  return Number.isFinite(n) ? n : fallback;
}

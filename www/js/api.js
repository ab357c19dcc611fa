// Talking to the daemon: every request is GET /api/<command>&name=value...,
// or a POST of a body to the same kind of address.

// The daemon runs the first command name it finds anywhere in the address,
// so a search for "playlist" or a playlist called "Next" must not be able to
// look like one: free text goes with every byte percent-encoded.
export function encodeText(value) {
  let out = '';
  for (const b of new TextEncoder().encode(String(value))) {
    out += '%' + (b < 16 ? '0' : '') + b.toString(16).toUpperCase();
  }
  return out;
}

// Where playing goes: 0 this box, N the daemon's networked zone N. Kept per
// browser, as each person chooses the room they are in.
export const target = { zone: Number(globalThis.localStorage?.getItem('kz-zone')) || 0 };
export function setZone(zone) {
  target.zone = zone;
  globalThis.localStorage?.setItem('kz-zone', String(zone));
}
const ZONED = new Set(['playID', 'queueID', 'startPlaylist', 'back', 'play', 'next']);

// Parameters keep their order (some commands read them in a fixed order);
// numbers go as plain digits, everything else as free text.
export function commandUrl(command, params = {}) {
  let url = '/api/' + command;
  for (const [name, value] of Object.entries(params)) {
    url += '&' + name + '=' + (typeof value === 'number' ? String(Math.trunc(value)) : encodeText(value));
  }
  if (target.zone > 0 && (ZONED.has(command) || /^vol\d+$/.test(command))) url += '&sonos=' + target.zone;
  return url;
}

// The reply's JSON, or undefined when the reply is not JSON: commands that
// this server does not offer answer "thanks".
export function parseReply(text) {
  const t = text.trim();
  if (!t || !'[{"tf-0123456789'.includes(t[0])) return undefined;
  try {
    return JSON.parse(t);
  } catch {
    return undefined;
  }
}

export async function call(command, params, { method = 'GET', body, timeout = 10000 } = {}) {
  const res = await fetch(commandUrl(command, params), {
    method,
    body,
    cache: 'no-store',
    signal: AbortSignal.timeout(timeout),
    headers: body === undefined ? undefined : { 'Content-Type': 'text/plain;charset=UTF-8' },
  });
  if (!res.ok) throw new Error(`${command}: HTTP ${res.status}`);
  return parseReply(await res.text());
}

// A list command's items; null when the server does not offer the command.
export async function list(command, params) {
  const data = await call(command, params);
  return Array.isArray(data) ? data : null;
}

// Setters answer "[]" or "OK"; false means the command did not take.
export async function act(command, params) {
  try {
    const data = await call(command, params);
    return data !== undefined;
  } catch {
    return false;
  }
}

export function artUrl(albumId) {
  return commandUrl('getAlbumArt', { id: Number(albumId) });
}

// Identifiers name every item by its band of one million.
export function kindOf(id) {
  const band = Math.floor(Number(id) / 1000000);
  return { 1: 'album', 2: 'track', 3: 'artist', 4: 'playlist', 9: 'album', 10: 'track', 11: 'artist' }[band] || 'other';
}

// Reading a music file's own names (artist, album, title, track number) in
// the browser, before it is uploaded: ID3v2 (MP3), Vorbis comments (FLAC),
// MP4 atoms (M4A) and LIST/INFO (WAV). Only the parts that hold names are
// read, never the audio.

const latin1 = new TextDecoder('latin1');
const utf8 = new TextDecoder('utf-8');

async function bytes(file, start, length) {
  const end = Math.min(file.size, start + length);
  if (start >= end) return new Uint8Array(0);
  return new Uint8Array(await file.slice(start, end).arrayBuffer());
}

const ascii = (b, at, n) => String.fromCharCode(...b.subarray(at, at + n));
const be32 = (b, at) => ((b[at] << 24) | (b[at + 1] << 16) | (b[at + 2] << 8) | b[at + 3]) >>> 0;
const le32 = (b, at) => (b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (b[at + 3] << 24)) >>> 0;
const syncsafe = (b, at) => ((b[at] & 0x7f) << 21) | ((b[at + 1] & 0x7f) << 14) | ((b[at + 2] & 0x7f) << 7) | (b[at + 3] & 0x7f);

function clean(text) {
  return String(text ?? '')
    .replace(/\0+$/g, '')
    .replace(/[\0-\x1f\x7f]/g, ' ')
    .trim();
}

function id3Text(b) {
  if (!b.length) return '';
  const enc = b[0];
  const body = b.subarray(1);
  if (enc === 0) return latin1.decode(body);
  if (enc === 3) return utf8.decode(body);
  const le = enc === 1 ? !(body[0] === 0xfe && body[1] === 0xff) : false;
  const start = enc === 1 && body.length >= 2 && (body[0] === 0xff || body[0] === 0xfe) ? 2 : 0;
  return new TextDecoder(le ? 'utf-16le' : 'utf-16be').decode(body.subarray(start));
}

async function readId3(file) {
  const head = await bytes(file, 0, 10);
  if (head.length < 10 || ascii(head, 0, 3) !== 'ID3') return null;
  const version = head[3];
  const size = syncsafe(head, 6);
  const tag = await bytes(file, 10, Math.min(size, 1 << 20));
  const names = {};
  const wanted = version === 2 ? { TP1: 'artist', TAL: 'album', TT2: 'title', TRK: 'track' } : { TPE1: 'artist', TALB: 'album', TIT2: 'title', TRCK: 'track' };
  const idLength = version === 2 ? 3 : 4;
  const headLength = version === 2 ? 6 : 10;
  let at = 0;
  while (at + headLength <= tag.length && tag[at] !== 0) {
    const id = ascii(tag, at, idLength);
    const length = version === 2 ? (tag[at + 3] << 16) | (tag[at + 4] << 8) | tag[at + 5] : version === 4 ? syncsafe(tag, at + 4) : be32(tag, at + 4);
    if (!length || at + headLength + length > tag.length) break;
    if (wanted[id]) names[wanted[id]] = clean(id3Text(tag.subarray(at + headLength, at + headLength + length)));
    at += headLength + length;
  }
  return names;
}

async function readFlac(file) {
  const head = await bytes(file, 0, 4);
  if (ascii(head, 0, 4) !== 'fLaC') return null;
  let at = 4;
  for (let i = 0; i < 64; i++) {
    const block = await bytes(file, at, 4);
    if (block.length < 4) return {};
    const type = block[0] & 0x7f;
    const length = (block[1] << 16) | (block[2] << 8) | block[3];
    if (type === 4) {
      const c = await bytes(file, at + 4, Math.min(length, 1 << 20));
      const names = {};
      let p = 4 + le32(c, 0);
      const count = le32(c, p);
      p += 4;
      for (let k = 0; k < count && p + 4 <= c.length; k++) {
        const n = le32(c, p);
        const text = utf8.decode(c.subarray(p + 4, p + 4 + n));
        p += 4 + n;
        const eq = text.indexOf('=');
        const key = text.slice(0, eq).toUpperCase();
        const map = { ARTIST: 'artist', ALBUM: 'album', TITLE: 'title', TRACKNUMBER: 'track' };
        if (map[key] && !names[map[key]]) names[map[key]] = clean(text.slice(eq + 1));
      }
      return names;
    }
    if (block[0] & 0x80) return {};
    at += 4 + length;
  }
  return {};
}

// MP4: the names live in moov/udta/meta/ilst, as "©ART", "©alb", "©nam"
// and "trkn" atoms whose "data" child holds the value.
async function readMp4(file) {
  const first = await bytes(file, 0, 12);
  if (first.length < 12 || ascii(first, 4, 4) !== 'ftyp') return null;
  const find = async (start, end, path) => {
    let at = start;
    while (at + 8 <= end) {
      const h = await bytes(file, at, 16);
      let size = be32(h, 0);
      const type = ascii(h, 4, 4);
      let headSize = 8;
      if (size === 1) {
        size = be32(h, 8) * 2 ** 32 + be32(h, 12);
        headSize = 16;
      } else if (size === 0) size = end - at;
      if (size < headSize) return null;
      if (type === path[0]) {
        // "meta" has 4 bytes of version and flags before its children.
        const inner = at + headSize + (type === 'meta' ? 4 : 0);
        return path.length === 1 ? { start: inner, end: at + size } : find(inner, at + size, path.slice(1));
      }
      at += size;
    }
    return null;
  };
  const ilst = await find(0, file.size, ['moov', 'udta', 'meta', 'ilst']);
  if (!ilst) return {};
  const list = await bytes(file, ilst.start, Math.min(ilst.end - ilst.start, 1 << 20));
  const names = {};
  const map = { '\u00a9ART': 'artist', aART: 'albumArtist', '\u00a9alb': 'album', '\u00a9nam': 'title', trkn: 'track' };
  let at = 0;
  while (at + 8 <= list.length) {
    const size = be32(list, at);
    if (size < 8) break;
    const type = latin1.decode(list.subarray(at + 4, at + 8));
    const data = list.subarray(at + 8, at + size);
    if (map[type] && data.length >= 16 && ascii(data, 4, 4) === 'data') {
      const value = data.subarray(16, be32(data, 0));
      names[map[type]] = type === 'trkn' ? String((value[2] << 8) | value[3]) : clean(utf8.decode(value));
    }
    at += size;
  }
  if (!names.artist && names.albumArtist) names.artist = names.albumArtist;
  return names;
}

async function readWav(file) {
  const head = await bytes(file, 0, 12);
  if (ascii(head, 0, 4) !== 'RIFF' || ascii(head, 8, 4) !== 'WAVE') return null;
  let at = 12;
  for (let i = 0; i < 64 && at + 8 <= file.size; i++) {
    const h = await bytes(file, at, 12);
    const id = ascii(h, 0, 4);
    const size = le32(h, 4);
    if (id === 'LIST' && ascii(h, 8, 4) === 'INFO') {
      const info = await bytes(file, at + 12, Math.min(size - 4, 1 << 16));
      const names = {};
      const map = { IART: 'artist', IPRD: 'album', INAM: 'title', ITRK: 'track' };
      let p = 0;
      while (p + 8 <= info.length) {
        const key = ascii(info, p, 4);
        const n = le32(info, p + 4);
        if (map[key]) names[map[key]] = clean(utf8.decode(info.subarray(p + 8, p + 8 + n)));
        p += 8 + n + (n & 1);
      }
      return names;
    }
    // The audio itself is skipped, not read.
    at += 8 + size + (size & 1);
  }
  return {};
}

// The kinds of file the library plays; anything else is refused.
export function audioKind(file) {
  const m = /\.(wav|flac|mp3|m4a)$/i.exec(file.name);
  return m ? m[1].toLowerCase() : null;
}

// { artist, album, title, track } as far as the file says; {} when it says
// nothing or cannot be read.
export async function readTags(file) {
  try {
    for (const reader of [readId3, readFlac, readMp4, readWav]) {
      const names = await reader(file);
      if (names) return names;
    }
  } catch {
    // A damaged file names nothing.
  }
  return {};
}

// Small DOM helpers shared by the views.

// h('button', { class: 'x', onclick: f, 'aria-label': 'Play' }, child, 'text')
export function h(tag, props = {}, ...children) {
  const el = document.createElement(tag);
  for (const [key, value] of Object.entries(props)) {
    if (value === undefined || value === null || value === false) continue;
    if (key.startsWith('on')) el.addEventListener(key.slice(2), value);
    else if (key === 'class') el.className = value;
    else if (key === 'text') el.textContent = value;
    else if (key in el && typeof value !== 'string') el[key] = value;
    else el.setAttribute(key, value === true ? '' : value);
  }
  for (const child of children.flat()) {
    if (child !== undefined && child !== null && child !== false) el.append(child);
  }
  return el;
}

const SVG = 'http://www.w3.org/2000/svg';
export function icon(name) {
  const svg = document.createElementNS(SVG, 'svg');
  svg.setAttribute('aria-hidden', 'true');
  svg.setAttribute('class', 'icon');
  const use = document.createElementNS(SVG, 'use');
  use.setAttribute('href', '#i-' + name);
  svg.append(use);
  return svg;
}

// A one-line form for a name. onName gets the trimmed text, never an empty
// one; label is either a visible label (with an id) or the field's own name.
export function nameForm({ id, label, visibleLabel = true, value, onName }, ...buttons) {
  const input = h('input', {
    id,
    type: 'text',
    value,
    required: true,
    maxlength: 100,
    autocomplete: 'off',
    'aria-label': visibleLabel ? undefined : label,
  });
  const form = h(
    'form',
    {
      class: 'inline-form',
      onsubmit: async (e) => {
        e.preventDefault();
        const name = input.value.trim();
        if (name) await onName(name);
      },
    },
    visibleLabel && h('label', { for: id, text: label }),
    input,
    ...buttons,
  );
  return { form, input };
}

export function iconButton(name, label, onclick, cls = '') {
  return h('button', { type: 'button', class: 'icon-btn ' + cls, 'aria-label': label, title: label, onclick }, icon(name));
}

// A cover image over a placeholder: when the server has no art (it answers
// text, not an image) the image hides and the placeholder shows.
export function cover(src, cls = '') {
  const img = h('img', { alt: '', loading: 'lazy', decoding: 'async' });
  img.addEventListener('error', () => (img.hidden = true));
  img.addEventListener('load', () => (img.hidden = false));
  img.src = src;
  return h('span', { class: 'art ' + cls }, icon('note'), img);
}

export function fmtTime(seconds) {
  const s = Math.max(0, Math.floor(Number(seconds) || 0));
  const m = Math.floor(s / 60);
  const rest = String(s % 60).padStart(2, '0');
  return m >= 60 ? `${Math.floor(m / 60)}:${String(m % 60).padStart(2, '0')}:${rest}` : `${m}:${rest}`;
}

// One unit system for sizes everywhere: kB, MB and GB of 1000s, as disks
// are sold.
export function fmtBytes(n) {
  if (n < 1e6) return `${Math.round(n / 1e3)} kB`;
  if (n < 1e9) return `${(n / 1e6).toFixed(1)} MB`;
  return `${(n / 1e9).toFixed(2)} GB`;
}

// The daemon's volume runs 0 to 64.
export function volumePercent(v) {
  return `${Math.round((Number(v) / 64) * 100)}%`;
}

let toastTimer;
export function toast(message) {
  const el = document.getElementById('toast');
  el.textContent = message;
  el.classList.add('show');
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => el.classList.remove('show'), 3500);
}

export function debounce(fn, ms) {
  let timer;
  return (...args) => {
    clearTimeout(timer);
    timer = setTimeout(() => fn(...args), ms);
  };
}

// Views announce library changes and hear about them here.
export const bus = new EventTarget();
export function emit(name, detail) {
  bus.dispatchEvent(new CustomEvent(name, { detail }));
}
export function on(name, fn) {
  bus.addEventListener(name, (e) => fn(e.detail));
}

// A message in place of a list, e.g. "Nothing found".
export function note(text, cls = '') {
  return h('p', { class: 'note ' + cls, text });
}

// Tag groups in a name ("Nocturnes [C]") are the library's classes, not
// part of the title: they show as small badges after it.
const TAGS = /\s*\[([A-Za-z0-9]{1,3})\]/g;
export function splitTags(name) {
  const text = String(name ?? '');
  const tags = [...text.matchAll(TAGS)].map((m) => m[1]);
  const title = text.replace(TAGS, '').trim();
  return { title: title || text, tags: title ? tags : [] };
}

// The title and its class badges, as nodes to put in an element.
export function titleNodes(name) {
  const { title, tags } = splitTags(name);
  return [title, ...tags.map((t) => h('span', { class: 'tag', title: `Class ${t}`, text: t }))];
}

export function titleWithTags(name, cls = 'name') {
  return h('span', { class: cls }, ...titleNodes(name));
}

// A row's name with an optional line of detail under it.
export function rowText(name, meta) {
  return h('span', { class: 'text' }, titleWithTags(name), meta ? h('span', { class: 'meta', text: meta }) : null);
}

// The radio: presets, a station directory (top, genres, countries, search),
// adding a station by its address, and recording what plays.
import { act, call, list } from './api.js';
import { play } from './actions.js';
import { state, subscribe, pollNow } from './status.js';
import { fmtTime, h, iconButton, rowText, toast } from './ui.js';

const $ = (id) => document.getElementById(id);
const PRESETS = 20;
const PRESET_BASE = 6000000;

async function loadPresets() {
  const presets = await list('getPresets').catch(() => null);
  if (!presets) return;
  const rows = [];
  presets.forEach((p, i) => {
    if (!p.url) return;
    const label = p.name || p.url;
    rows.push(
      h('li', {}, h('span', { class: 'slot', text: String(i + 1) }), rowText(label, p.url), iconButton('play', `Play ${label}`, () => play(PRESET_BASE + i, label))),
    );
  });
  $('radio-presets').replaceChildren(...rows);
  $('radio-presets-empty').hidden = rows.length > 0;
  const slot = $('radio-slot');
  const chosen = slot.value || '0';
  slot.replaceChildren(
    ...presets.slice(0, PRESETS).map((p, i) => h('option', { value: String(i), text: `${i + 1}: ${p.url ? p.name || p.url : 'empty'}` })),
  );
  slot.value = chosen;
}

async function saveAsPreset(id, label) {
  const preset = Number($('radio-slot').value || 0);
  const reply = await call('setPresetFromID', { id: Number(id), preset }).catch(() => undefined);
  toast(reply === 'OK' ? `Saved ${label} as preset ${preset + 1}` : `Could not save ${label}`);
  loadPresets();
}

// Walking the directory: "back" returns to where the last folder came from.
let trail = [];

function showEntries(entries, where) {
  $('radio-where').textContent = where;
  $('radio-back').hidden = trail.length === 0;
  if (!entries) {
    $('radio-results').replaceChildren(h('li', { class: 'meta', text: 'The station directory did not answer.' }));
    return;
  }
  if (!entries.length) {
    $('radio-results').replaceChildren(h('li', { class: 'meta', text: 'Nothing found.' }));
    return;
  }
  $('radio-results').replaceChildren(
    ...entries.map((e) => {
      if (e.radio !== undefined) {
        return h(
          'li',
          {},
          rowText(e.radio),
          iconButton('play', `Play ${e.radio}`, () => play(e.id, e.radio)),
          iconButton('star', `Save ${e.radio} as a preset`, () => saveAsPreset(e.id, e.radio)),
        );
      }
      return h('li', {}, h('button', { type: 'button', class: 'row-link', onclick: () => walk(e.link, e.name) }, rowText(e.name, e.count ? `${e.count} stations` : '')));
    }),
  );
}

async function walk(link, name) {
  trail.push(name);
  $('radio-where').textContent = 'Loading…';
  showEntries(await list('vTunerLink', { link }).catch(() => null), trail.join(' › '));
}

async function top() {
  trail = [];
  $('radio-where').textContent = 'Loading…';
  showEntries(await list('vTunerTop').catch(() => null), 'Top stations');
}

async function back() {
  trail.pop();
  showEntries(await list('vTunerBack').catch(() => null), trail.join(' › ') || 'Directory');
}

function renderRecording(s) {
  const recording = s.recording === true;
  $('radio-record').hidden = recording;
  $('radio-record-stop').hidden = !recording;
  const radio = s.source === 'Radio' && s.playing === 1;
  $('radio-record').disabled = !radio;
  let text = radio ? `Records ${s.station || 'the station'} into the library, under Radio Recordings.` : 'Play a station to record it.';
  if (recording) {
    const limit = Number(s.recordingLimit) > 0 ? ` of ${fmtTime(Number(s.recordingLimit))}` : '';
    text = `Recording ${fmtTime(Number(s.recordingDuration) || 0)}${limit} to ${String(s.recordingPath || '').split('/').slice(-2).join(' / ')}`;
  }
  if ($('radio-record-state').textContent !== text) $('radio-record-state').textContent = text;
}

export function init() {
  $('radio-top').addEventListener('click', top);
  $('radio-genres').addEventListener('click', () => {
    trail = [];
    walk('genres', 'Genres');
  });
  $('radio-countries').addEventListener('click', () => {
    trail = [];
    walk('countries', 'Countries');
  });
  $('radio-back').addEventListener('click', back);
  $('radio-search').addEventListener('submit', async (e) => {
    e.preventDefault();
    const text = $('radio-search-text').value.trim();
    if (!text) return;
    trail = [];
    $('radio-where').textContent = 'Searching…';
    showEntries(await list('vTunerSearch', { string: text }).catch(() => null), `Stations named “${text}”`);
  });
  $('radio-add').addEventListener('submit', async (e) => {
    e.preventDefault();
    const url = $('radio-add-url').value.trim();
    const name = $('radio-add-name').value.trim();
    // The address goes last: it may hold "&" of its own.
    const station = await call('addStation', { name, url }).catch(() => undefined);
    if (!station || !station.id) {
      toast('That is not a web address kz can play');
      return;
    }
    $('radio-add').reset();
    showEntries([station], 'Added');
    play(station.id, station.radio);
  });
  $('radio-record').addEventListener('click', async () => {
    const minutes = Math.max(0, Math.floor(Number($('radio-limit').value) || 0));
    await act('recordingLimit', { limit: minutes * 60 });
    const reply = await call('startRecording').catch(() => undefined);
    if (reply !== 'OK') toast(typeof reply === 'string' ? `Not recording: ${reply}` : 'Could not start recording');
    pollNow(200);
  });
  $('radio-record-stop').addEventListener('click', async () => {
    await act('stopRecording');
    toast('Recording saved in the library');
    pollNow(200);
  });
  subscribe(renderRecording);
}

export function show() {
  loadPresets();
  if (state.source !== undefined) renderRecording(state);
}

// The Radio view against a local station and a radio-browser stand-in:
// search the directory and play a result, save it as a preset and play the
// preset, add a station by its address, and see the station, its title and
// logo on the playing view.
import { describe, it, before, after, afterEach } from 'node:test';
import assert from 'node:assert/strict';
import { createServer } from 'node:http';
import { mkdirSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import { tmpdir } from 'node:os';
import { Stack, logOnFailure, TOP, ffmpeg } from './stack.mjs';
import { launch, layoutProblems, watchedPage, PHONE, DESKTOP } from './browser.mjs';

const SHOTS = process.env.KZ_SCREENSHOTS || join(TOP, 'build', 'screenshots');
const HOSTILE = '<img src=x onerror="window.pwned=1">';

// Endless MP3 with ICY titles, a PNG logo and the radio-browser JSON API.
class Stations {
  constructor(mp3, png) {
    this.mp3 = mp3;
    this.png = png;
    this.requests = [];
    this.server = createServer((req, res) => {
      const url = new URL(req.url, 'http://x');
      this.requests.push(req.url);
      const json = (value) => {
        const body = JSON.stringify(value);
        res.writeHead(200, { 'Content-Type': 'application/json', 'Content-Length': Buffer.byteLength(body) });
        res.end(body);
      };
      const station = (name, path, tags) => ({ stationuuid: path, name, url: `${this.base}${path}`, url_resolved: '', favicon: `${this.base}/logo.png`, tags, country: 'Nowhere' });
      const all = [station('Jazz Cafe', '/jazz', 'jazz'), station(`Bad ${HOSTILE}`, '/bad', 'rock')];
      if (url.pathname === '/json/stations/topclick/50') return json(all);
      if (url.pathname === '/json/stations/search') {
        const name = (url.searchParams.get('name') || '').toLowerCase();
        return json(all.filter((s) => s.name.toLowerCase().includes(name)));
      }
      if (url.pathname === '/json/tags') return json([{ name: 'jazz', stationcount: 1 }, { name: 'rock', stationcount: 1 }]);
      if (url.pathname === '/json/countries') return json([{ name: 'Nowhere', stationcount: 2 }]);
      if (url.pathname === '/logo.png') {
        res.writeHead(200, { 'Content-Type': 'image/png', 'Content-Length': this.png.length });
        return res.end(this.png);
      }
      if (url.pathname === '/jazz' || url.pathname === '/added') return this.stream(req, res, url.pathname === '/jazz' ? 'Cafe - Blue Note' : 'Added - Tune');
      res.writeHead(404, { 'Content-Length': 0 });
      res.end();
    });
  }

  stream(req, res, title) {
    const metaint = 8192;
    const icy = req.headers['icy-metadata'] === '1';
    res.writeHead(200, { 'Content-Type': 'audio/mpeg', ...(icy ? { 'icy-metaint': String(metaint) } : {}) });
    let at = 0;
    const meta = Buffer.from(`StreamTitle='${title}';`);
    const block = Buffer.concat([Buffer.from([Math.ceil(meta.length / 16)]), meta, Buffer.alloc(Math.ceil(meta.length / 16) * 16 - meta.length)]);
    const timer = setInterval(() => {
      const chunk = Buffer.alloc(metaint);
      for (let i = 0; i < metaint; i++) chunk[i] = this.mp3[(at + i) % this.mp3.length];
      at = (at + metaint) % this.mp3.length;
      res.write(icy ? Buffer.concat([chunk, block]) : chunk);
    }, 30);
    res.on('close', () => clearInterval(timer));
  }

  async start() {
    await new Promise((resolve) => this.server.listen(0, '127.0.0.1', resolve));
    this.base = `http://127.0.0.1:${this.server.address().port}`;
    return { KZ_RADIO_DIRECTORY: this.base };
  }

  stop() {
    this.server.closeAllConnections();
    return new Promise((resolve) => this.server.close(resolve));
  }
}

describe('Radio in the pages', () => {
  let stations;
  let stack;
  afterEach(logOnFailure(() => stack));
  let browser;
  let page;
  let work;
  let outside;
  let errors;

  before(async () => {
    work = mkdtempSync(join(tmpdir(), 'kz-radio-page-'));
    const mp3 = join(work, 'tone.mp3');
    const png = join(work, 'logo.png');
    ffmpeg('-f', 'lavfi', '-i', 'sine=frequency=500:duration=10', '-ac', '2', '-c:a', 'libmp3lame', '-b:a', '128k', mp3);
    ffmpeg('-f', 'lavfi', '-i', 'color=c=teal:s=64x64', '-frames:v', '1', png);
    stations = new Stations(readFileSync(mp3), readFileSync(png));
    stack = await Stack.start({ discTracks: [4], env: await stations.start() });
    browser = await launch();
    ({ page, outside, errors } = await watchedPage(browser, PHONE, () => [stack.base, stations.base]));
  });

  after(async () => {
    await browser?.close();
    await stack?.stop();
    await stations?.stop();
    if (work) rmSync(work, { recursive: true, force: true });
  });

  it('plays a directory result and a preset, adds a station and shows what plays', async () => {
    await page.goto(`${stack.base}/#/radio`);
    await page.getByRole('heading', { name: 'Radio', level: 1 }).waitFor();
    assert.equal(await page.locator('#radio-presets-empty').isVisible(), true);

    // The directory: its top list, then a search, and play what it found.
    await page.getByRole('button', { name: 'Top stations' }).click();
    const results = page.locator('#radio-results li');
    await results.nth(1).waitFor();
    assert.equal(await results.nth(1).locator('.name').textContent(), `Bad ${HOSTILE}`);
    await page.getByLabel('Station name').fill('jazz');
    await page.getByRole('button', { name: 'Search' }).click();
    await page.locator('#radio-where', { hasText: 'Stations named' }).waitFor();
    assert.equal(await results.count(), 1);
    await results.first().getByRole('button', { name: 'Play Jazz Cafe' }).click();
    await stack.until(async () => (await stack.status()).radioStatus === 'Playing', 15000, 'the station to play');
    const s = await stack.status();
    assert.equal(s.station, 'Jazz Cafe');
    await stack.until(async () => (await stack.status()).track === 'Cafe - Blue Note', 10000, 'the stream title');

    // Genres walk into their stations and back.
    await page.getByRole('button', { name: 'Genres' }).click();
    await page.locator('#radio-results .row-link', { hasText: 'jazz' }).click();
    await page.locator('#radio-where', { hasText: 'Genres › jazz' }).waitFor();
    await page.getByRole('button', { name: 'Back' }).click();
    await page.locator('#radio-results .row-link', { hasText: 'rock' }).waitFor();

    // Saved as preset 3 and played from the presets.
    await page.getByLabel('Save stations as preset').selectOption('2');
    await page.getByRole('button', { name: 'Top stations' }).click();
    await results.first().getByRole('button', { name: 'Save Jazz Cafe as a preset' }).click();
    const preset = page.locator('#radio-presets li', { hasText: 'Jazz Cafe' });
    await preset.waitFor();
    assert.equal(await preset.locator('.slot').textContent(), '3');
    await stack.api('playID&id=2000000');
    await stack.until(async () => (await stack.status()).source === 'Library', 10000, 'the library to play');
    await preset.getByRole('button', { name: 'Play Jazz Cafe' }).click();
    await stack.until(async () => (await stack.status()).radioStatus === 'Playing', 15000, 'the preset to play');
    assert.equal((await stack.api('getPresets'))[2].url, `${stations.base}/jazz`);
    // The playing view shows the directory's logo for it.
    await page.goto(`${stack.base}/#/now`);
    const logo = page.locator('#now-art');
    await stack.until(() => logo.evaluate((img) => img.complete && img.naturalWidth === 64), 10000, 'the logo');
    await page.goto(`${stack.base}/#/radio`);

    // A station by its address, played at once; the playing view shows it.
    await page.getByLabel('Name', { exact: true }).fill('My Station');
    await page.getByLabel('Stream or playlist address').fill(`${stations.base}/added?a=1&b=2`);
    await page.getByRole('button', { name: 'Add and play' }).click();
    await stack.until(async () => (await stack.status()).station === 'My Station', 10000, 'the added station');
    await page.goto(`${stack.base}/#/now`);
    await page.locator('#now-track', { hasText: 'Added - Tune' }).waitFor({ timeout: 15000 });
    await page.locator('#now-source', { hasText: 'Radio · My Station · Playing' }).waitFor({ timeout: 15000 });
    assert.equal(await page.locator('#now-art').isHidden(), true);
    assert.ok(stations.requests.includes('/added?a=1&b=2'));

    await page.goto(`${stack.base}/#/radio`);
    await page.locator('#radio-record-state', { hasText: 'Records My Station' }).waitFor();
    for (const [size, viewport] of [['phone', PHONE], ['desktop', DESKTOP]]) {
      await page.setViewportSize(viewport);
      assert.deepEqual(await layoutProblems(page), [], `the radio view on a ${size}`);
      mkdirSync(SHOTS, { recursive: true });
      await page.screenshot({ path: join(SHOTS, `radio-${size}.png`), fullPage: size === 'phone', animations: 'disabled' });
    }
    assert.equal(await page.evaluate(() => window.pwned), undefined);
    assert.deepEqual(outside, []);
    assert.deepEqual(errors, []);
  });
});

// The CD view with the disc lookup behind it: a local MusicBrainz and Cover
// Art Archive stand-in (ws/2 XML, a 307 to the image), the daemon, lighttpd
// and chromium. The page follows the lookup, shows what it found with
// covers, fills the form from a candidate and rips with one.
import { describe, it, before, after, afterEach } from 'node:test';
import assert from 'node:assert/strict';
import { createServer } from 'node:http';
import { existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import { tmpdir } from 'node:os';
import { Stack, logOnFailure, TOP, ffmpeg } from './stack.mjs';
import { launch, layoutProblems, watchedPage, PHONE, DESKTOP } from './browser.mjs';

const SHOTS = process.env.KZ_SCREENSHOTS || join(TOP, 'build', 'screenshots');
const HOSTILE = '<img src=x onerror="window.pwned=1">';

const esc = (s) => String(s).replace(/&/g, '&amp;').replace(/</g, '&lt;').replace(/>/g, '&gt;').replace(/"/g, '&quot;');

function releaseXml(mbid, { title, artist, date, status, tracks }, discId) {
  const items = tracks
    .map((t, i) => `<track id="t${i}"><position>${i + 1}</position><number>${i + 1}</number><recording id="r${i}"><title>${esc(t)}</title></recording></track>`)
    .join('');
  return (
    `<release id="${mbid}"><title>${esc(title)}</title><status>${status}</status><date>${date}</date>` +
    `<artist-credit><name-credit><artist id="a-${mbid}"><name>${esc(artist)}</name><sort-name>${esc(artist)}</sort-name></artist></name-credit></artist-credit>` +
    `<medium-list count="1"><medium><position>1</position><disc-list count="1"><disc id="${esc(discId)}"><sectors>1</sectors></disc></disc-list>` +
    `<track-list count="${tracks.length}" offset="0">${items}</track-list></medium></medium-list></release>`
  );
}

// MusicBrainz, CDDB and the Cover Art Archive on one port. Disc id
// requests wait at `gate` until the test opens it, so the page can be
// seen while the lookup is under way.
class Services {
  constructor(jpeg) {
    this.jpeg = jpeg;
    this.releases = {};
    this.requests = [];
    this.closeGate();
    this.server = createServer(async (req, res) => {
      const url = new URL(req.url, 'http://x');
      this.requests.push(url.pathname);
      const send = (status, body = '', headers = {}) => {
        res.writeHead(status, { 'Content-Length': Buffer.byteLength(body), ...headers });
        res.end(body);
      };
      let m;
      if ((m = /^\/ws\/2\/discid\/([^/]+)$/.exec(url.pathname))) {
        await this.gate;
        const ids = Object.keys(this.releases);
        if (!ids.length) return send(404, '<?xml version="1.0" encoding="UTF-8"?><error><text>Not Found</text></error>');
        const releases = ids.map((id) => releaseXml(id, this.releases[id], m[1])).join('');
        return send(
          200,
          `<?xml version="1.0" encoding="UTF-8"?><metadata xmlns="http://musicbrainz.org/ns/mmd-2.0#"><disc id="${esc(m[1])}"><sectors>1</sectors>` +
            `<release-list count="${ids.length}">${releases}</release-list></disc></metadata>`,
          { 'Content-Type': 'application/xml' },
        );
      }
      if (url.pathname.startsWith('/cddb')) return send(200, '202 No match\r\n');
      if ((m = /^\/release\/([^/]+)\/front-500$/.exec(url.pathname)) && this.releases[m[1]]) {
        return send(307, '', { Location: `/images/${m[1]}.jpg` });
      }
      if ((m = /^\/images\/([^/]+)\.jpg$/.exec(url.pathname)) && this.releases[m[1]]) {
        res.writeHead(200, { 'Content-Type': 'image/jpeg', 'Content-Length': this.jpeg.length });
        return res.end(this.jpeg);
      }
      send(404);
    });
  }

  closeGate() {
    this.gate = new Promise((resolve) => (this.openGate = resolve));
  }

  async start() {
    await new Promise((resolve) => this.server.listen(0, '127.0.0.1', resolve));
    this.base = `http://127.0.0.1:${this.server.address().port}`;
    return { KZ_MUSICBRAINZ: this.base, KZ_CDDB: `${this.base}/cddb/cddb.cgi`, KZ_COVERART: this.base };
  }

  stop() {
    this.openGate();
    this.server.closeAllConnections();
    return new Promise((resolve) => this.server.close(resolve));
  }
}

describe('CD lookup in the pages', () => {
  let services;
  let stack;
  afterEach(logOnFailure(() => stack));
  let browser;
  let page;
  let work;
  let outside;
  let errors;

  before(async () => {
    work = mkdtempSync(join(tmpdir(), 'kz-lookup-page-'));
    const jpeg = join(work, 'cover.jpg');
    ffmpeg('-f', 'lavfi', '-i', 'color=c=orange:s=96x96', '-frames:v', '1', jpeg);
    services = new Services(readFileSync(jpeg));
    const env = await services.start();
    stack = await Stack.start({ discTracks: [4, 4], env });
    browser = await launch();
    ({ page, outside, errors } = await watchedPage(browser, PHONE, () => [stack.base, services.base]));
  });

  after(async () => {
    await browser?.close();
    await stack?.stop();
    await services?.stop();
    if (work) rmSync(work, { recursive: true, force: true });
  });

  it('follows the lookup, shows the releases with covers, edits one and rips another', async () => {
    const lookup = page.locator('#cd-lookup-text');
    await page.goto(`${stack.base}/#/cd`);
    await page.locator('#cd-state', { hasText: 'Ready' }).waitFor();

    // The network is down: the page says it is looking, then that nothing
    // was found, and offers to look again.
    await lookup.filter({ hasText: 'Looking up the disc' }).waitFor();
    services.openGate();
    await lookup.filter({ hasText: 'No match found' }).waitFor();
    assert.equal(await page.locator('#cd-candidates li').count(), 0);

    // The network is back, with two releases of this disc: the official one
    // first, the bootleg (whose names hold markup) second.
    services.releases['rel-official'] = { title: 'Found Online', artist: 'The Lookups', date: '2001-05-04', status: 'Official', tracks: ['Opening Number', 'Second Thoughts'] };
    services.releases['rel-bootleg'] = { title: `Bootleg & ${HOSTILE}`, artist: HOSTILE, date: '1999', status: 'Bootleg', tracks: ['Live One', HOSTILE] };
    services.closeGate();
    await page.getByRole('button', { name: 'Look up again' }).click();
    await lookup.filter({ hasText: 'Looking up the disc' }).waitFor();
    services.openGate();
    const rows = page.locator('#cd-candidates li.candidate');
    await rows.nth(1).waitFor({ timeout: 20000 });
    assert.equal(await rows.count(), 2);
    assert.equal(await page.locator('#cd-lookup').isHidden(), true);
    assert.equal(await rows.nth(0).locator('.name').textContent(), 'Found Online');
    assert.match(await rows.nth(0).locator('.meta').textContent(), /^The Lookups · 2001\b.* · 2 tracks · MusicBrainz$/);
    assert.equal(await rows.nth(1).locator('.name').textContent(), `Bootleg & ${HOSTILE}`);
    assert.equal(await page.evaluate(() => window.pwned), undefined);

    // Each cover is the release's image, shown whole from the archive.
    const art = rows.nth(0).locator('img');
    await stack.until(() => art.evaluate((img) => img.complete && img.naturalWidth === 96), 10000, 'the cover to show');
    assert.equal(await art.getAttribute('src'), `${services.base}/release/rel-official/front-500`);

    await rows.nth(0).getByText('Track names').click();
    assert.deepEqual(await rows.nth(0).locator('.track-names li').allTextContents(), ['Opening Number', 'Second Thoughts']);

    for (const [size, viewport] of [['phone', PHONE], ['desktop', DESKTOP]]) {
      await page.setViewportSize(viewport);
      assert.deepEqual(await layoutProblems(page), [], `the candidates on a ${size}`);
      mkdirSync(SHOTS, { recursive: true });
      await page.screenshot({ path: join(SHOTS, `cd-candidates-${size}.png`), fullPage: size === 'phone', animations: 'disabled' });
    }
    await page.setViewportSize(PHONE);

    // "Edit" puts a candidate's names into the form, to correct before a rip.
    await rows.nth(1).getByRole('button', { name: /^Edit / }).click();
    const form = page.locator('#rip-form');
    assert.equal(await form.getByLabel('Artist').inputValue(), HOSTILE);
    assert.equal(await form.getByLabel('Album').inputValue(), `Bootleg & ${HOSTILE}`);
    assert.equal(await form.getByLabel('Year').inputValue(), '1999');
    assert.equal(await form.getByLabel(/Track names/).inputValue(), `Live One\n${HOSTILE}`);
    assert.equal(await form.getByLabel('Cover image address').inputValue(), `${services.base}/release/rel-bootleg/front-500`);
    assert.equal(await page.evaluate(() => document.activeElement.id), 'rip-artist');

    // "Rip" on the first takes its names and its cover into the library.
    await rows.nth(0).getByRole('button', { name: 'Rip as The Lookups, Found Online' }).click();
    await page.locator('#rip-done').waitFor({ timeout: 60000 });
    const album = join(stack.music, 'The Lookups', 'Found Online');
    await stack.until(() => existsSync(join(album, 'coverart.jpg')), 10000, 'the cover beside the tracks');
    assert.deepEqual(readFileSync(join(album, 'coverart.jpg')), services.jpeg);
    await page.locator('#rip-done').getByRole('link', { name: 'Open the library' }).click();
    await page.locator('#library-body .row-main', { hasText: 'The Lookups' }).click();
    await page.locator('#library-body .row-main', { hasText: 'Found Online' }).click();
    const tracks = page.locator('#library-body ol.tracks .name');
    await tracks.nth(1).waitFor();
    assert.deepEqual(await tracks.allTextContents(), ['Opening Number', 'Second Thoughts']);

    assert.deepEqual(outside, []);
    assert.deepEqual(errors, []);
  });
});

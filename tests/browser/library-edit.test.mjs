// Editing the library from the pages (rename, move, delete, with the
// results read back), pages for what is not there, the longest names
// without a space on a 320-pixel phone, and the album grid of a library too
// big to keep in the page at once.
import { describe, it, before, after, afterEach } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync, mkdirSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { Stack, logOnFailure, TOP, makeTone } from './stack.mjs';
import { launch, layoutProblems, DESKTOP } from './browser.mjs';

const SHOTS = process.env.KZ_SCREENSHOTS || join(TOP, 'build', 'screenshots');
const NARROW = { width: 320, height: 640 };
// The longest names the library keeps (a folder name is at most 255 bytes,
// and kzdb keeps "artist/album" lines of up to 249): with the track's, over
// 600 bytes without a space.
const LONG_ARTIST = 'Orchestra'.repeat(13);
const LONG_ALBUM = 'Symphonies'.repeat(12);

describe('editing the library', () => {
  let stack;
  afterEach(logOnFailure(() => stack));
  let browser;
  let page;
  const errors = [];

  before(async () => {
    stack = await Stack.start({
      discTracks: [4],
      prepare: (music) => {
        for (const [artist, album, tracks] of [
          ['Old Artist', 'Lonely Album', ['01 First Song.mp3', '02 Second Song.mp3']],
          ['Keeper', 'Stays', ['01 Kept.mp3']],
          [LONG_ARTIST, LONG_ALBUM, ['01 ' + 'Movement'.repeat(30) + '.mp3']],
        ]) {
          mkdirSync(join(music, artist, album), { recursive: true });
          for (const t of tracks) makeTone(join(music, artist, album, t), 1, 440, t);
        }
      },
    });
    browser = await launch();
    page = await browser.newPage({ viewport: NARROW });
    page.on('pageerror', (e) => errors.push(e.message));
    page.on('console', (m) => m.type() === 'error' && !m.text().startsWith('Failed to load resource') && errors.push(m.text()));
    page.on('dialog', (d) => d.accept());
  });

  after(async () => {
    await browser?.close();
    await stack?.stop();
  });

  const row = (name) => page.locator('#library-body .row-main', { hasText: name });
  const idOf = async (command, key, name) => (await stack.api(`${command}&string=${encodeURIComponent(name)}`)).find((x) => x[key] === name)?.id;

  it('renames, moves and deletes, and an artist without albums goes', async () => {
    await page.goto(`${stack.base}/#/library`);
    await row('Old Artist').click();
    await row('Lonely Album').click();
    await page.getByRole('heading', { name: 'Lonely Album', level: 2 }).waitFor();

    // A track's name: its number and extension stay.
    await page.getByRole('button', { name: 'Rename Second Song' }).click();
    await page.getByLabel(/^New name for/).fill('Better Song');
    await page.getByRole('button', { name: 'Save' }).click();
    await page.locator('#library-body ol.tracks .name', { hasText: 'Better Song' }).waitFor();
    assert.ok(existsSync(join(stack.music, 'Old Artist', 'Lonely Album', '02 Better Song.mp3')));

    // The album to another artist: the old artist, now without albums, goes.
    await page.getByRole('button', { name: 'Move to artist' }).click();
    await page.getByLabel(/^Move Lonely Album to the artist/).fill('New Artist');
    await page.getByRole('button', { name: 'Save' }).click();
    await page.locator('#library-body .detail-text a', { hasText: 'New Artist' }).waitFor();
    assert.equal(await idOf('search&albums=0&tracks=0', 'artist', 'Old Artist'), undefined);
    assert.ok(!existsSync(join(stack.music, 'Old Artist')));

    // Renaming the album to a name the artist already has is refused, and said.
    await page.getByRole('button', { name: 'Rename', exact: true }).click();
    await page.getByLabel(/^New name for/).fill('Renamed Album');
    await page.getByRole('button', { name: 'Save' }).click();
    await page.getByRole('heading', { name: 'Renamed Album', level: 2 }).waitFor();
    await page.locator('.toast', { hasText: 'Renamed to Renamed Album' }).waitFor();

    // Deleting a track and then the album, each after a confirmation.
    await page.getByRole('button', { name: 'Delete First Song' }).click();
    await page.locator('.toast', { hasText: 'Deleted' }).first().waitFor();
    await stack.until(async () => (await page.locator('#library-body ol.tracks li').count()) === 1, 10000, 'one track left');
    await page.getByRole('button', { name: 'Delete', exact: true }).click();
    await page.waitForURL(/#\/library(\/artist\/\d+)?$/);
    assert.equal(await idOf('search&artists=0&tracks=0', 'album', 'Renamed Album'), undefined);
    assert.equal(await idOf('search&albums=0&tracks=0', 'artist', 'New Artist'), undefined);
    assert.ok(existsSync(join(stack.music, 'Keeper', 'Stays', '01 Kept.mp3')));
  });

  it('shows albums as a grid of covers, all of them and the newest first', async () => {
    await page.goto(`${stack.base}/#/library/albums`);
    const tiles = page.locator('#library-body .grid .tile');
    await tiles.first().waitFor();
    const names = await tiles.locator('.name').allTextContents();
    assert.ok(names.includes('Stays'), names.join());
    await page.screenshot({ path: join(SHOTS, 'albums-grid-320.png'), fullPage: true });
    // The newest folder first: one made now goes to the top.
    mkdirSync(join(stack.music, 'Keeper', 'Brand New'), { recursive: true });
    makeTone(join(stack.music, 'Keeper', 'Brand New', '01 Fresh.mp3'), 1, 440, 'Fresh');
    await stack.api('scanDisk');
    await stack.until(async () => (await stack.api('recentAlbums&count=1'))[0]?.album === 'Brand New', 20000, 'the new album first');
    await page.getByRole('link', { name: 'Recently added' }).click();
    await page.locator('#library-body .grid .tile').first().filter({ hasText: 'Brand New' }).waitFor();
    assert.deepEqual(await layoutProblems(page), []);
  });

  it('follows changes made in another tab', async () => {
    const made = await stack.api('newPlaylist&name=Shared');
    await page.goto(`${stack.base}/#/playlists/${made.id}`);
    await page.locator('#playlists-h', { hasText: 'Shared' }).waitFor();
    await page.goto(`${stack.base}/#/playlists`);
    const other = await browser.newPage({ viewport: NARROW });
    try {
      await other.goto(`${stack.base}/#/playlists/${made.id}`);
      await other.locator('#playlists-h', { hasText: 'Shared' }).waitFor();
      // This tab deletes it; the other, on its page, says it is gone.
      await page.getByRole('link', { name: /Shared/ }).click();
      await page.getByRole('button', { name: 'Delete' }).click();
      await other.locator('#playlists-h', { hasText: 'Playlist not found' }).waitFor({ timeout: 10000 });
      // And a list open in the other tab shows a new one without a reload.
      await other.goto(`${stack.base}/#/playlists`);
      await other.locator('#playlists-body').waitFor();
      await stack.api('newPlaylist&name=Arrived');
      await other.getByRole('link', { name: /Arrived/ }).waitFor({ timeout: 10000 });
    } finally {
      await other.close();
    }
  });

  it('says what Eject did with a disc image', async () => {
    await page.goto(`${stack.base}/#/cd`);
    await page.locator('#cd-state', { hasText: /^Ready$/ }).waitFor({ timeout: 20000 });
    await page.getByRole('button', { name: 'Eject' }).click();
    await page.locator('#toast', { hasText: 'The disc is still in' }).waitFor({ timeout: 10000 });
  });

  it('says what is not there: a made-up album, and an address that is no page', async () => {
    await page.goto(`${stack.base}/#/library/album/1000999`);
    await page.locator('#library-body', { hasText: 'This album is not in the library' }).waitFor();
    assert.equal(await page.locator('#library-body').getByRole('button', { name: 'Play', exact: true }).count(), 0);
    const res = await page.goto(`${stack.base}/no/such/page`);
    assert.equal(res.status(), 404);
    await page.getByRole('heading', { name: 'Not found' }).waitFor();
    await page.getByRole('link', { name: 'Open kz' }).click();
    await page.waitForURL(`${stack.base}/`);
  });

  it('keeps the longest names without a space inside a 320-pixel screen', async () => {
    await page.goto(`${stack.base}/#/library`);
    await row(LONG_ARTIST.slice(0, 30)).click();
    await row(LONG_ALBUM.slice(0, 30)).click();
    await page.locator('#library-body ol.tracks li').first().waitFor();
    await page.locator('#library-body ol.tracks .row-main').first().click();
    for (const view of ['#/library', '#/now']) {
      if (view === '#/now') await page.goto(`${stack.base}/${view}`);
      await page.waitForTimeout(300);
      const width = await page.evaluate(() => document.documentElement.scrollWidth);
      assert.ok(width <= 320, `${view} is ${width} px wide`);
      assert.deepEqual(await layoutProblems(page), [], view);
    }
    await page.screenshot({ path: join(SHOTS, 'long-names-320.png'), fullPage: true });
    await page.setViewportSize(DESKTOP);
    assert.deepEqual(await layoutProblems(page), []);
    assert.deepEqual(errors, []);
  });
});

describe('the album grid of a big library', () => {
  const ALBUMS = 400;
  let stack;
  afterEach(logOnFailure(() => stack));
  let browser;
  let page;
  const errors = [];

  before(async () => {
    stack = await Stack.start({
      discTracks: [4],
      prepare: (music) => {
        for (let i = 0; i < ALBUMS; i++) {
          const folder = join(music, `Artist ${String(Math.floor(i / 10)).padStart(3, '0')}`, `Album ${String(i).padStart(3, '0')}`);
          mkdirSync(folder, { recursive: true });
          writeFileSync(join(folder, '01 Track.mp3'), '');
        }
      },
    });
    browser = await launch();
    page = await browser.newPage({ viewport: NARROW });
    page.on('pageerror', (e) => errors.push(e.message));
  });

  after(async () => {
    await browser?.close();
    await stack?.stop();
  });

  const tile = (name) => page.locator('#library-body .tile-link', { hasText: name });
  // The first tile on the screen's left from a height down: its address
  // and where it is.
  const tileAt = (y) =>
    page.evaluate((y) => {
      for (let at = y; at < innerHeight; at += 10) {
        const link = document.elementFromPoint(60, at)?.closest('.tile-link');
        if (link) return { href: link.getAttribute('href'), top: Math.round(link.getBoundingClientRect().top) };
      }
    }, y);
  const frames = (n) =>
    page.evaluate(
      (n) =>
        new Promise((done) => {
          const next = () => (n-- ? requestAnimationFrame(next) : done());
          next();
        }),
      n,
    );

  it('scrolls to the last album and back with the tiles, covers and scroll position in place', async () => {
    await page.goto(`${stack.base}/#/library/albums`);
    await tile('Album 000').waitFor();
    // Down to the end, a flick at a time: every page is fetched on the way.
    for (let i = 0; i < 400 && !(await tile('Well-Tempered Hz').count()); i++) {
      await page.mouse.wheel(0, 2000);
      await page.waitForTimeout(30);
    }
    await tile('Well-Tempered Hz').scrollIntoViewIfNeeded();
    const coverShown = () => page.waitForFunction(() => [...document.querySelectorAll('#library-body .tile-link img')].some((img) => img.naturalWidth > 0));
    await coverShown();
    const height = await page.evaluate(() => document.documentElement.scrollHeight);
    // The first pages are out of the document by now, but hold their place.
    assert.equal(await tile('Album 000').count(), 0);
    assert.ok((await page.locator('#library-body .tile').count()) < ALBUMS / 2);

    // Half way up: what is on the screen stays there while pages around it
    // come and go.
    await page.evaluate(() => scrollTo(0, document.documentElement.scrollHeight / 2));
    await frames(3);
    const middle = await tileAt(320);
    assert.ok(middle, 'a tile in the middle of the screen');
    await frames(10);
    assert.deepEqual(await tileAt(320), middle);

    // A focused tile stays, and keeps the focus, while the grid scrolls away.
    await page.locator(`#library-body .tile-link[href="${middle.href}"]`).focus();
    for (let i = 0; i < 20; i++) await page.mouse.wheel(0, -3000);
    await frames(5);
    assert.equal(await page.evaluate(() => document.activeElement?.getAttribute('href')), middle.href);

    // Back at the top: the first albums again, the same height all along,
    // and a tile opens its album.
    await page.evaluate(() => scrollTo(0, 0));
    await tile('Album 000').waitFor();
    assert.ok(Math.abs((await page.evaluate(() => document.documentElement.scrollHeight)) - height) < 2);
    await page.evaluate(() => scrollTo(0, document.documentElement.scrollHeight));
    await tile('Well-Tempered Hz').waitFor();
    await coverShown();
    await tile('Album 399').click();
    await page.getByRole('heading', { name: 'Album 399', level: 2 }).waitFor();
    assert.deepEqual(errors, []);
  });
});

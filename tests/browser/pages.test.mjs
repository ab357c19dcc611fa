// The web pages in a real browser against the real stack: the daemon with
// the demo library and a CD image, lighttpd in front, chromium headless.
import { describe, it, before, after, afterEach } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync, readFileSync, existsSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { tmpdir } from 'node:os';
import { Stack, logOnFailure, TOP, ffmpeg, makeTone } from './stack.mjs';
import { launch, layoutProblems, PHONE, DESKTOP } from './browser.mjs';

const SHOTS = process.env.KZ_SCREENSHOTS || join(TOP, 'build', 'screenshots');
const PAGING_TRACKS = 130;

describe('web pages', () => {
  let stack;
  afterEach(logOnFailure(() => stack));
  let browser;
  let page;
  let files;
  const outside = [];
  const errors = [];

  before(async () => {
    stack = await Stack.start({
      prepare: (music) => {
        // One long track to seek in, and an album big enough to need pages.
        makeTone(join(music, 'Long Player', 'Side A', '01 Long One.mp3'), 60, 330, 'Long One');
        const many = join(music, 'Many Pages', 'Blue Pages');
        mkdirSync(many, { recursive: true });
        for (let i = 0; i < PAGING_TRACKS; i++) {
          makeEmpty(join(many, `${String(i).padStart(3, '0')} blue page ${i}.mp3`));
        }
      },
    });
    files = mkdtempSync(join(tmpdir(), 'kz-upload-'));
    makeTone(join(files, '01 Hello.mp3'), 3, 660, 'Hello');
    browser = await launch();
    page = await newPage(PHONE);
  });

  after(async () => {
    await browser?.close();
    await stack?.stop();
    if (files) rmSync(files, { recursive: true, force: true });
  });

  async function newPage(viewport) {
    const p = await browser.newPage({ viewport });
    // The box has no internet: every request must stay on the box.
    p.on('request', (r) => {
      if (!r.url().startsWith(stack.base) && !r.url().startsWith('data:')) outside.push(r.url());
    });
    p.on('pageerror', (e) => errors.push(e.message));
    p.on('console', (m) => m.type() === 'error' && !m.text().startsWith('Failed to load resource') && errors.push(m.text()));
    p.on('dialog', (d) => d.accept());
    return p;
  }

  const tab = (name) => page.getByRole('navigation', { name: 'Views' }).getByRole('link', { name });
  const row = (name) => page.locator('#library-body .row-main', { hasText: name });
  const until = (fn, what, timeout = 15000) => stack.until(fn, timeout, what);

  it('opens on what the daemon has loaded, from the box alone', async (t) => {
    await page.goto(stack.base + '/');
    const status = await stack.status();
    await page.locator('#now-track', { hasText: status.track }).waitFor();
    await page.locator('#now-artist', { hasText: status.artist }).waitFor();
    const nav = await page.evaluate(() => performance.getEntriesByType('navigation')[0].toJSON());
    t.diagnostic(`page loaded in ${Math.round(nav.loadEventEnd)} ms (DOM ready ${Math.round(nav.domContentLoadedEventEnd)} ms)`);
    assert.deepEqual(outside, []);
    // The keyboard reaches the views: the skip link first, then the tabs.
    await page.keyboard.press('Tab');
    assert.equal(await page.evaluate(() => document.activeElement.textContent), 'Skip to content');
    await tab('Library').focus();
    await page.keyboard.press('Enter');
    await page.locator('#view-library').waitFor();
    assert.equal(await tab('Library').getAttribute('aria-current'), 'page');
  });

  it('searches as you type, pages long results, and keeps command words as text', async () => {
    await tab('Library').click();
    const searches = [];
    const count = (r) => r.url().includes('/api/search&artists=1') && searches.push(r.url());
    page.on('request', count);
    await page.locator('#search').pressSequentially('fugue', { delay: 30 });
    await page.locator('.results', { hasText: 'Tracks' }).getByText('Fugue in C').waitFor();
    page.off('request', count);
    // Typing five letters quickly asks once (or twice on a slow machine), not five times.
    assert.ok(searches.length <= 2, `${searches.length} searches for one word`);
    await page.locator('#search').fill('disc tw');
    await page.locator('.results', { hasText: 'Albums' }).getByText('Disc Two').waitFor();
    await page.locator('#search').fill('SQUARE');
    await page.locator('.results', { hasText: 'Artists' }).getByText('The Square Waves').waitFor();

    // The album "Blue Pages" and its tracks: more than two pages.
    await page.locator('#search').fill('blue page');
    const items = page.locator('#library-body .results li');
    const more = page.getByRole('button', { name: 'More results' });
    await more.waitFor();
    assert.equal(await items.count(), 50);
    await more.click();
    await until(async () => (await items.count()) === 100, 'the second page');
    await more.click();
    await until(async () => (await items.count()) === PAGING_TRACKS + 1, 'the last page');
    await more.waitFor({ state: 'hidden' });
    const names = await page.locator('.results', { hasText: 'Tracks' }).locator('li .name').allTextContents();
    assert.equal(new Set(names).size, PAGING_TRACKS, 'a page repeated or skipped tracks');

    // A search text holding a command name stays a search.
    await page.locator('#search').fill('playID');
    await page.getByText('Nothing found for “playID”.').waitFor();
    assert.equal((await stack.status()).playing, 0);
    await page.locator('#search').fill('');
  });

  it('plays a track from the library and follows its progress, keys and seeking', async () => {
    await tab('Library').click();
    await row('Sine Quartet').click();
    // The class letter is a badge after the title, not part of it.
    const tones = row('Pure Tones');
    assert.equal(await tones.locator('.name').first().evaluate((el) => el.firstChild.textContent), 'Pure Tones');
    assert.equal(await tones.locator('.tag').first().textContent(), 'C');
    await tones.click();
    await page.getByRole('button', { name: 'Play Opening' }).click();
    await tab('Playing').click();
    await page.locator('#now-track', { hasText: /^Opening$/ }).waitFor();
    // The album's cover from its folder, at the size it was made.
    await page.locator('#now-art').waitFor();
    assert.equal(await page.locator('#now-art').evaluate((img) => img.naturalWidth), 300);
    const play = page.locator('#btn-play');
    await until(async () => (await play.getAttribute('aria-label')) === 'Pause', 'the play key to offer Pause');
    const elapsed = async () => {
      const [m, s] = (await page.locator('#elapsed').textContent()).split(':').map(Number);
      return m * 60 + s;
    };
    await until(async () => (await elapsed()) >= 2, 'the elapsed time to move');
    assert.ok(Number(await page.locator('#seek').inputValue()) >= 2);
    assert.match(await page.locator('#remaining').textContent(), /^-0:0[0-6]$/);

    await page.getByRole('button', { name: 'Next track' }).click();
    await page.locator('#now-track', { hasText: /^A Major Thought$/ }).waitFor();
    // Pause holds the place; resume goes on from it; stop stops.
    await play.click();
    await until(async () => (await stack.status()).paused === true, 'the pause');
    await until(async () => (await play.getAttribute('aria-label')) === 'Resume', 'the play key to offer Resume');
    const held = (await stack.status()).timeIntoTrack;
    await new Promise((r) => setTimeout(r, 1500));
    assert.equal((await stack.status()).timeIntoTrack, held);
    await play.click();
    await until(async () => (await stack.status()).paused === false, 'the resume');
    assert.equal((await stack.status()).track, 'A Major Thought');
    await page.getByRole('button', { name: 'Stop', exact: true }).click();
    await until(async () => (await stack.status()).playing === 0, 'the stop key to stop');
    await until(async () => (await play.getAttribute('aria-label')) === 'Play', 'the play key to offer Play');
    assert.equal(await page.getByRole('button', { name: 'Stop', exact: true }).isDisabled(), true);
    // The play modes are on the playing view.
    await page.getByLabel('Play mode').selectOption('repeat-album');
    await until(async () => (await stack.status()).playMode === 'repeat-album', 'the play mode');
    await page.getByLabel('Play mode').selectOption('continue');
    await until(async () => (await stack.status()).playMode === 'continue', 'the play mode back');

    // Seeking by keyboard in a minute-long track.
    await tab('Library').click();
    await row('Long Player').click();
    await row('Side A').click();
    await page.getByRole('button', { name: 'Play Long One' }).click();
    await tab('Playing').click();
    await page.locator('#now-track', { hasText: /^Long One$/ }).waitFor();
    // The seek bar opens once the page knows the track's length.
    await until(async () => Number(await page.locator('#seek').getAttribute('max')) > 50 && (await page.locator('#seek').isEnabled()), 'the seek bar');
    await page.locator('#seek').focus();
    for (let i = 0; i < 4; i++) await page.keyboard.press('PageUp');
    await until(async () => Number((await stack.status()).timeIntoTrack) >= 15, 'the seek to reach the daemon', 5000);
    await until(async () => (await elapsed()) >= 15, 'the page to show the new place');
  });

  it('sends volume, tone and segue, and follows changes made elsewhere', async () => {
    await tab('Playing').click();
    const volume = page.locator('#volume');
    await volume.focus();
    await page.keyboard.press('Home');
    await until(async () => (await stack.status()).volume === '0', 'volume 0');
    for (let i = 0; i < 5; i++) await page.keyboard.press('ArrowRight');
    await until(async () => (await stack.status()).volume === '5', 'volume 5');
    assert.equal(await page.locator('#volume-out').textContent(), '8%');

    await page.locator('#bass').focus();
    await page.keyboard.press('End');
    await page.locator('#treble').focus();
    await page.keyboard.press('Home');
    await until(async () => {
      const s = await stack.status();
      return s.bass === '6' && s.treble === '-6';
    }, 'bass +6 and treble -6');

    await page.locator('#segue').selectOption('short');
    await until(async () => (await stack.status()).segue.toLowerCase() === 'short', 'short segue');

    // Another client turns the volume up: the page follows.
    await page.locator('#now-track').click();
    await stack.api('vol33');
    await page.locator('#volume-out', { hasText: /^52%$/ }).waitFor();
    assert.equal(await volume.inputValue(), '33');
  });

  it('rips the CD image, and the album appears in the library', async () => {
    await tab('CD').click();
    await page.locator('#cd-state', { hasText: 'Ready' }).waitFor();
    // The disc plays from any of its tracks, and the one that plays is marked.
    const cdTracks = page.locator('#cd-tracks li');
    await cdTracks.nth(1).waitFor();
    assert.equal(await cdTracks.count(), 2);
    assert.match(await cdTracks.nth(0).locator('.meta').textContent(), /^0:\d\d$/);
    await page.getByRole('button', { name: 'Play Track 2' }).click();
    await until(async () => (await stack.status()).source === 'CD' && (await stack.status()).track === 'Track 2', 'the CD to play track 2');
    await page.locator('#cd-tracks li.current', { hasText: 'Track 2' }).waitFor();
    await stack.api('play');
    await until(async () => (await stack.status()).playing === 0, 'the CD to stop');
    await page.screenshot({ path: join(SHOTS, 'cd-phone.png'), fullPage: true });
    await page.getByRole('button', { name: 'Rip without names' }).click();
    await page.locator('#rip-done').waitFor({ timeout: 60000 });
    await page.locator('#rip-done').getByRole('link', { name: 'Open the library' }).click();
    await row(/^Unknown/).click();
    const album = row(/^Album \d+$/);
    await album.waitFor();
    await album.click();
    await page.locator('#library-body ol.tracks li').nth(1).waitFor();
    assert.equal(await page.locator('#library-body ol.tracks li').count(), 2);

    // Again with names typed in: they name the artist, the album and the tracks.
    await tab('CD').click();
    const form = page.locator('#rip-form');
    await form.getByLabel('Artist').fill('Test Band');
    await form.getByLabel('Album').fill('Named Disc');
    await form.getByLabel(/Track names/).fill('First Song\nSecond Song');
    // The disc is in the library already: the page asks before a second
    // album (the page's own handler says yes to every question).
    const asked = [];
    const note = (d) => asked.push(d.message());
    page.on('dialog', note);
    await form.getByRole('button', { name: 'Rip with these names' }).click();
    await until(async () => asked.some((m) => m.includes('already in the library')), 'the question before a second rip');
    page.off('dialog', note);
    assert.match(asked[0], /“Album \d+” by Unknown/);
    await page.locator('#rip-done').waitFor({ timeout: 60000 });
    // The last word is the rip's end, never its start.
    await page.locator('#toast', { hasText: 'Ripped: the album is in the library' }).waitFor();
    await tab('Library').click();
    await row('Test Band').click();
    await row('Named Disc').click();
    const tracks = page.locator('#library-body ol.tracks .name');
    await tracks.nth(1).waitFor();
    assert.deepEqual(await tracks.allTextContents(), ['First Song', 'Second Song']);

    // The daemon reads the rip's progress out as "Ripping T/N P% Sx".
    const progress = await page.evaluate(async () => (await import('/js/cd.js')).parseRipping('Ripping 2/4 50% 8x'));
    assert.deepEqual(progress, { track: 2, tracks: 4, percent: 50, speed: 8, overall: 37.5 });
  });

  it('uploads a file into an artist and album of the library', async () => {
    await tab('Upload').click();
    const form = page.locator('#upload-form');
    await form.getByLabel('Artist').fill('Upload Tester');
    await form.getByLabel('Album').fill('From The Laptop');
    await form.getByLabel(/Music files/).setInputFiles(join(files, '01 Hello.mp3'));
    await page.getByRole('button', { name: 'Upload' }).click();
    await page.locator('#upload-result', { hasText: 'Uploaded 01 Hello.mp3 to Upload Tester / From The Laptop' }).waitFor();
    assert.equal(await page.locator('#upload-bar').evaluate((b) => b.value === b.max), true);
    const landed = join(stack.music, 'Upload Tester', 'From The Laptop', '01 Hello.mp3');
    assert.ok(existsSync(landed));
    assert.deepEqual(readFileSync(landed), readFileSync(join(files, '01 Hello.mp3')));
    // The form is fresh for the next album.
    assert.equal(await form.getByLabel('Artist').inputValue(), '');

    // Files that name themselves fill the form; a title can be changed before
    // sending; a file that is not music is refused, and said so.
    const tagged = [
      ['tagged.flac', ['-c:a', 'flac', '-metadata', 'title=Flac Title', '-metadata', 'track=3']],
      ['tagged.m4a', ['-c:a', 'aac', '-metadata', 'title=M4a Title', '-metadata', 'track=4']],
    ].map(([name, args]) => {
      const path = join(files, name);
      ffmpeg('-f', 'lavfi', '-i', 'sine=frequency=500:duration=1', '-ac', '2', '-metadata', 'artist=Tag Artist', '-metadata', 'album=Tag Album', ...args, path);
      return path;
    });
    writeFileSync(join(files, 'notes.txt'), 'not music');
    await form.getByLabel(/Music files/).setInputFiles([...tagged, join(files, 'notes.txt')]);
    await until(async () => (await form.getByLabel('Artist').inputValue()) === 'Tag Artist', 'the artist from the tags');
    assert.equal(await form.getByLabel('Album').inputValue(), 'Tag Album');
    assert.equal(await page.getByLabel('Title of tagged.m4a').inputValue(), 'M4a Title');
    await page.getByLabel('Title of tagged.flac').fill('Edited Title');
    await page.locator('#upload-list li.refused', { hasText: 'notes.txt' }).waitFor();
    await page.locator('#upload-chosen', { hasText: '2 files' }).waitFor();
    await page.getByRole('button', { name: 'Upload' }).click();
    await page.locator('#upload-result', { hasText: 'Uploaded 2 files to Tag Artist / Tag Album' }).waitFor();
    for (const name of ['03 Edited Title.flac', '04 M4a Title.m4a'])
      assert.ok(existsSync(join(stack.music, 'Tag Artist', 'Tag Album', name)), name);
    assert.ok(!existsSync(join(stack.music, 'Tag Artist', 'Tag Album', 'notes.txt')));

    await page.locator('#upload-result').getByRole('link', { name: 'Open the library' }).click();
    await row('Upload Tester').click();
    await row('From The Laptop').click();
    await page.locator('#library-body ol.tracks .name', { hasText: 'Hello' }).waitFor();
  });

  it('makes, fills, reorders and plays playlists and the queue', async () => {
    await tab('Playlists').click();
    await page.getByLabel('New playlist').fill('Roadtrip');
    await page.getByRole('button', { name: 'Create' }).click();
    await page.locator('#playlists-h', { hasText: 'Roadtrip' }).waitFor();
    await page.getByRole('button', { name: 'Rename' }).click();
    await page.getByLabel('New name').fill('Road Trip');
    await page.getByRole('button', { name: 'Rename' }).click();
    await page.locator('#playlists-h', { hasText: 'Road Trip' }).waitFor();
    // Two tracks in through the chooser of the library.
    for (const [album, track] of [['Blocky', 'Edges'], ['Blocky', 'Harmonics']]) {
      await tab('Library').click();
      await row('The Square Waves').click();
      await row(album).click();
      await page.getByRole('button', { name: `Add ${track} to a playlist` }).click();
      await page.locator('#add-dialog').getByRole('button', { name: /Road Trip/ }).click();
      await page.locator('#toast', { hasText: `Added ${track} to Road Trip` }).waitFor();
    }
    await tab('Playlists').click();
    await page.getByRole('link', { name: /Road Trip/ }).click();
    const names = () => page.locator('#playlists-body ol.rows .name').allTextContents();
    await until(async () => (await names()).length === 2, 'two entries');
    // Entries are named by their titles, without the file's number.
    const [edges, harmonics] = await names();
    assert.match(edges, /^Edges$/);
    assert.match(harmonics, /^Harmonics$/);
    await page.getByRole('button', { name: `Move ${harmonics} up` }).click();
    await until(async () => (await names()).join() === [harmonics, edges].join(), 'the entry to move up');
    await page.getByRole('button', { name: `Remove ${edges}` }).click();
    await until(async () => (await names()).join() === harmonics, 'the entry to go');
    await page.locator('#playlists-body').getByRole('button', { name: 'Play', exact: true }).click();
    await page.locator('#strip-title', { hasText: 'Harmonics' }).waitFor();

    // The queue: an album added from the library shows up in it.
    await tab('Library').click();
    await row('The Square Waves').click();
    // A cover where the album has one, the placeholder where it has none.
    await row('Blocky').locator('img').waitFor();
    await until(async () => !(await row('Disc Two').locator('img').isVisible()) && (await row('Disc Two').locator('.art .icon').isVisible()), 'the placeholder');
    await page.getByRole('button', { name: 'Add Disc Two to the queue' }).click();
    await page.locator('#toast', { hasText: 'Added Disc Two to the queue' }).waitFor();
    await tab('Playlists').click();
    await page.getByRole('link', { name: /Queue/ }).click();
    await page.locator('#playlists-body ol.rows .name', { hasText: 'Disc Two' }).waitFor();
  });

  it('changes settings and shows the server log', async () => {
    await tab('Settings').click();
    await page.getByLabel('Random order').check();
    await until(async () => (await stack.status()).random === '1', 'random on');
    await page.getByLabel('Random order').uncheck();
    await until(async () => (await stack.status()).random === '0', 'random off');
    await page.getByLabel('Reversed').check();
    await until(async () => (await stack.status()).reversed === '1', 'reversed on');
    // Snapcast rooms: with no server running the page says the box waits.
    await page.getByLabel('Snapcast rooms').selectOption('also');
    await until(async () => (await stack.status()).snapcast === 'also', 'Snapcast rooms on');
    await page.locator('#toast', { hasText: 'Snapcast rooms: Also' }).waitFor();
    await page.locator('#snapcast-state', { hasText: 'waiting for the Snapcast server' }).waitFor();
    await page.getByLabel('Snapcast rooms').selectOption('off');
    await until(async () => (await stack.status()).snapcast === 'off', 'Snapcast rooms off');
    await page.getByLabel('Compression of ripped music').selectOption('mp3 256k');
    await until(async () => /256/.test((await stack.status()).compression), 'MP3 256k compression');
    // The WAV album and the rips become MP3s; the page follows the job to its end.
    await page.locator('#compression-about', { hasText: 'about a fifth of the size' }).waitFor();
    await page.locator('#compression-progress', { hasText: 'Nothing to compress right now.' }).waitFor({ timeout: 60000 });
    await until(async () => (await stack.api('getWebInfo')).wavs === '0', 'no WAV left in the library');
    await page.getByRole('button', { name: 'Compress the library now' }).click();
    await page.locator('#toast', { hasText: 'Compressing the library' }).waitFor();
    await page.getByRole('button', { name: 'Bass boost' }).click();
    await until(async () => {
      const s = await stack.status();
      return s.bass === '4' && s.treble === '0';
    }, 'the bass boost preset');
    await until(async () => (await page.getByRole('button', { name: 'Bass boost' }).getAttribute('aria-pressed')) === 'true', 'the preset to show as chosen');
    await page.getByRole('button', { name: 'Show the log' }).click();
    await page.locator('#debug-log', { hasText: 'Waiting for incoming connections on socket' }).waitFor();
    // Newest first: the start-up's first line comes after its later ones.
    const log = await page.locator('#debug-log').textContent();
    assert.ok(log.indexOf('Starting Main Loop') < log.indexOf('Waiting for incoming connections on socket'), 'the newest lines first');
    await page.getByRole('button', { name: 'Copy', exact: true }).click();
    await page.locator('.toast', { hasText: /log is (on the clipboard|selected)/ }).waitFor();

    // A page opened afresh shows the settings as the daemon holds them,
    // also the classical flag set elsewhere, which the status does not carry.
    assert.deepEqual(await stack.api('setClassical&classical=1'), { classical: 1 });
    const fresh = await newPage(DESKTOP);
    await fresh.goto(`${stack.base}/#/settings`);
    await fresh.locator('#tone-now', { hasText: 'Bass +4' }).waitFor();
    assert.equal(await fresh.locator('#set-compression').inputValue(), 'mp3 256k');
    assert.equal(await fresh.getByLabel('Reversed').isChecked(), true);
    assert.equal(await fresh.getByLabel('Random order').isChecked(), false);
    await until(async () => fresh.locator('#set-classical').isChecked(), 'classical shown as set');
    await fresh.close();
  });

  it('fits every view on a phone and a desktop, with a name on every control', async () => {
    mkdirSync(SHOTS, { recursive: true });
    const idOf = async (query, key, name) => (await stack.api(`${query}&string=${encodeURIComponent(name)}`)).find((i) => i[key] === name).id;
    const artist = await idOf('search&albums=0&tracks=0', 'artist', 'Sine Quartet');
    const album = await idOf('search&artists=0&tracks=0', 'album', 'Pure Tones [C]');
    const views = ['now', 'library', `library/artist/${artist}`, `library/album/${album}`, 'playlists', 'cd', 'upload', 'settings'];
    for (const [size, viewport] of [['phone', PHONE], ['desktop', DESKTOP]]) {
      const p = size === 'phone' ? page : await newPage(viewport);
      await p.goto('about:blank');
      for (const view of views) {
        await p.goto(`${stack.base}/#/${view}`);
        await p.locator(`#view-${view.split('/')[0]}`).waitFor();
        await p.waitForLoadState('networkidle');
        const problems = await layoutProblems(p);
        assert.deepEqual(problems, [], `${view} on a ${size}`);
        const file = view.replace(/\/(\d+)$/, '').replace(/\//g, '-');
        await p.screenshot({ path: join(SHOTS, `${file}-${size}.png`), fullPage: size === 'phone', animations: 'disabled' });
      }
      if (p !== page) await p.close();
    }
    assert.deepEqual(outside, []);
    assert.deepEqual(errors, []);
  });

  it('says so when the music server goes away', async () => {
    await page.goto(`${stack.base}/#/now`);
    await page.locator('#now-track', { hasText: /\S/ }).waitFor();
    const { code } = await stack.stopDaemon();
    assert.equal(code, 0);
    await page.locator('#offline').waitFor({ timeout: 15000 });
  });
});

function makeEmpty(path) {
  // Empty files are enough for names and paging; they are never played.
  writeFileSync(path, '');
}

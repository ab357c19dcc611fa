// The USB view and the backup in Settings: a drive plugged in shows with its
// folders, a file's tags and a track that plays; an album imported lands in
// the library; a backup shows its date; a drive pulled out leaves the view.
import { describe, it, before, after, afterEach } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync, mkdirSync, renameSync, symlinkSync } from 'node:fs';
import { join } from 'node:path';
import { Stack, logOnFailure, TOP, makeTone } from './stack.mjs';
import { launch, layoutProblems, watchedPage } from './browser.mjs';

const SHOTS = process.env.KZ_SCREENSHOTS || join(TOP, 'build', 'screenshots');
const NARROW = { width: 360, height: 740 };

describe('USB drives', () => {
  let stack;
  afterEach(logOnFailure(() => stack));
  let browser;
  let page;
  let errors;
  let outside;

  before(async () => {
    stack = await Stack.start({ discTracks: [4] });
    browser = await launch();
    ({ page, errors, outside } = await watchedPage(browser, NARROW, () => [stack.base]));
    page.on('dialog', (d) => d.accept());
  });

  after(async () => {
    await browser?.close();
    await stack?.stop();
  });

  const usb = () => join(stack.root, 'media', 'usba');

  it('shows a drive as it is plugged in, browses, plays and imports from it', async () => {
    await page.goto(`${stack.base}/#/usb`);
    await page.getByText('No USB drive is plugged in').waitFor();

    const built = join(stack.root, 'drive-built');
    const album = join(built, 'Drive Artist', 'Drive Album');
    makeTone(join(album, '01 From The Drive.mp3'), 30, 440, 'From The Drive');
    makeTone(join(album, '02 Second.flac'), 2, 550, 'Second');
    // A folder that spells a command word, and a link off the drive.
    makeTone(join(built, 'play', 'next', '01 Tricky.mp3'), 1, 330, 'Tricky');
    symlinkSync('/etc', join(built, 'Elsewhere'));
    renameSync(built, usb());

    await page.getByRole('link', { name: 'Drive Artist' }).click();
    await page.getByRole('link', { name: 'Drive Album' }).click();
    await page.getByText('01 From The Drive.mp3').waitFor();
    assert.equal(await page.getByRole('link', { name: 'Elsewhere' }).count(), 0);

    await page.getByRole('button', { name: 'Tags of 02 Second.flac' }).click();
    await page.locator('.usb-tags dd', { hasText: 'Second' }).first().waitFor();

    await page.getByRole('button', { name: 'Play 01 From The Drive.mp3' }).click();
    await stack.until(async () => (await stack.status()).track === 'From The Drive', 10000, 'the drive track to play');
    await page.screenshot({ path: join(SHOTS, 'usb-narrow.png'), fullPage: true });
    assert.deepEqual(await layoutProblems(page), []);

    await page.getByRole('button', { name: 'Import this folder' }).click();
    await page.locator('#usb-job-text', { hasText: 'Imported 2 tracks in 1 albums' }).waitFor({ timeout: 30000 });
    assert.ok(existsSync(join(stack.root, 'media', 'hdd1', 'music', 'Drive Artist', 'Drive Album', '02 Second.flac')));
    const found = await stack.api('search&artists=0&albums=1&tracks=0&string=Drive%20Album');
    assert.ok(found.some((x) => x.album === 'Drive Album'));

    // Folders named like commands are browsed, not obeyed.
    await page.goto(`${stack.base}/#/usb/play/next`);
    await page.getByText('01 Tricky.mp3').waitFor();
  });

  it('backs up from Settings, shows the date, and forgets a drive pulled out', async () => {
    await stack.api('allStop');
    await page.goto(`${stack.base}/#/settings`);
    await page.getByText('This drive holds no backup yet.').waitFor();
    await page.getByRole('button', { name: 'Back up the library now' }).click();
    await page.locator('#backup-progress', { hasText: /Backup complete/ }).waitFor({ timeout: 30000 });
    await page.getByText(/Last backup to this drive: \d{4}-\d\d-\d\d/).waitFor();
    assert.ok(existsSync(join(usb(), 'kz-backup', 'music', 'Drive Artist', 'Drive Album', '02 Second.flac')));

    renameSync(usb(), join(stack.root, 'drive-away'));
    await page.getByText('Plug a USB drive into the box').waitFor({ timeout: 10000 });
    await page.goto(`${stack.base}/#/usb`);
    await page.getByText('No USB drive is plugged in').waitFor();
    assert.deepEqual(errors, []);
    assert.deepEqual(outside, []);
  });
});

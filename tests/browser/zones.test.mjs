// The rooms on the Playing view, against a real UPnP renderer
// (gmediarender): the zone picker appears when the daemon finds it, a track
// chosen in the library plays there, the room's state and volume show, and
// the keys and the volume slider act on it. Runs inside the private network
// of tests/in-netns.sh (KZ_IN_NETNS=1), where kz, lighttpd, the renderer and
// the browser all live; skipped elsewhere.
import { describe, it, before, after, afterEach } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { join } from 'node:path';
import { Stack, logOnFailure, TOP } from './stack.mjs';
import { launch, layoutProblems, watchedPage, PHONE } from './browser.mjs';

const SHOTS = process.env.KZ_SCREENSHOTS || join(TOP, 'build', 'screenshots');
const ROOM = 'Kitchen <b>&</b>';
const AVT = 'urn:schemas-upnp-org:service:AVTransport:1';

// What the renderer says of itself, asked over SOAP as any control point would.
async function ask(control, action) {
  const body = `<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body><u:${action} xmlns:u="${AVT}"><InstanceID>0</InstanceID></u:${action}></s:Body></s:Envelope>`;
  const res = await fetch(control, {
    method: 'POST',
    body,
    headers: { 'Content-Type': 'text/xml; charset="utf-8"', SOAPACTION: `"${AVT}#${action}"` },
    signal: AbortSignal.timeout(3000),
  });
  const text = await res.text();
  return Object.fromEntries([...text.matchAll(/<(\w+)>([^<]*)<\/\1>/g)].map((m) => [m[1], m[2]]));
}

describe('rooms on the Playing view', { skip: process.env.KZ_IN_NETNS !== '1' && 'needs the private network of tests/in-netns.sh' }, () => {
  let stack;
  afterEach(logOnFailure(() => stack));
  let browser;
  let page;
  let errors;
  let renderer;
  let control;

  before(async () => {
    renderer = spawn('gmediarender', ['-I', 'eth1', '-f', ROOM, '-u', 'a1b2c3d4-0000-4000-8000-000000000002', '--gstout-audiopipe', 'fakesink sync=true'], { stdio: 'ignore' });
    stack = await Stack.start({ discTracks: [4] });
    const found = await stack.waitForLog('UPnP zone 1: ', 30000);
    const location = found.split(' at ').pop().trim();
    const description = await (await fetch(location)).text();
    control = new URL(description.match(/<controlURL>([^<]*rendertransport[^<]*)<\/controlURL>/)[1], location).href;
    browser = await launch();
    ({ page, errors } = await watchedPage(browser, PHONE, () => [stack.base]));
  });

  after(async () => {
    await browser?.close();
    await stack?.stop();
    renderer?.kill();
  });

  it('offers the room, plays a library track there and drives it', async () => {
    const tab = (name) => page.getByRole('navigation', { name: 'Views' }).getByRole('link', { name });
    const row = (name) => page.locator('#library-body .row-main', { hasText: name });
    const until = (fn, what, timeout = 15000) => stack.until(fn, timeout, what);

    await page.goto(stack.base + '/');
    const picker = page.getByLabel('Play on');
    await picker.waitFor();
    await picker.locator('option', { hasText: ROOM }).waitFor({ state: 'attached' });
    assert.deepEqual(await picker.locator('option').allTextContents(), ['This box', 'This box and the Snapcast rooms', 'The Snapcast rooms', ROOM]);
    await picker.selectOption({ label: ROOM });
    await page.locator('#toast', { hasText: `Playing on ${ROOM}` }).waitFor();

    // A track chosen in the library goes to the room, not to this box.
    await tab('Library').click();
    await row('Sine Quartet').click();
    await row('Pure Tones').click();
    await page.getByRole('button', { name: 'Play Opening' }).click();
    await until(async () => (await ask(control, 'GetTransportInfo')).CurrentTransportState === 'PLAYING', 'the room to play');
    assert.match((await ask(control, 'GetPositionInfo')).TrackURI, /\/hdd1\/music\/Sine%20Quartet\/Pure%20Tones%20%5BC%5D\/01%20Opening\.flac$/);
    assert.equal((await stack.status()).playing, 0);

    await tab('Playing').click();
    const room = page.locator('#zones li.current');
    await room.filter({ hasText: 'playing' }).waitFor();
    assert.match(await room.textContent(), /“Opening”/);
    // The view shows what the room plays, not what this box last had.
    await page.locator('#now-track', { hasText: /^Opening$/ }).waitFor();
    assert.equal(await page.locator('#now-source').textContent(), ROOM);
    assert.equal(await page.locator('#now-artist').textContent(), 'Sine Quartet');
    assert.equal(await page.locator('#seek').isDisabled(), true);
    assert.equal(await page.locator('#btn-play').getAttribute('aria-label'), 'Stop');

    // The slider is the room's volume: 32 of 64 is (100 × 32 + 32) / 64 = 50.
    await page.locator('#volume').fill('32');
    await until(async () => (await stack.api('sonosStatus'))[0].volume === 50, 'the room volume');
    await page.locator('#volume-out', { hasText: /^50%$/ }).waitFor();
    await page.screenshot({ path: join(SHOTS, 'rooms-phone.png'), fullPage: true });
    assert.deepEqual(await layoutProblems(page), []);

    // Its key stops the room; back on this box, play is this box's again.
    await page.locator('#btn-play').click();
    await until(async () => (await ask(control, 'GetTransportInfo')).CurrentTransportState === 'STOPPED', 'the room to stop');
    // The Snapcast rooms are a choice of this box: chosen here, set for all.
    await picker.selectOption({ label: 'This box and the Snapcast rooms' });
    await until(async () => (await stack.status()).snapcast === 'also', 'the Snapcast rooms');
    await picker.selectOption({ label: 'This box' });
    await until(async () => (await stack.status()).snapcast === 'off', 'this box alone');
    await page.goto(stack.base + '/#/library');
    await row('Sine Quartet').click();
    await row('Pure Tones').click();
    await page.getByRole('button', { name: 'Play Opening' }).click();
    await until(async () => (await stack.status()).playing === 1, 'this box to play');
    assert.equal((await ask(control, 'GetTransportInfo')).CurrentTransportState, 'STOPPED');
    assert.deepEqual(errors, []);
  });
});

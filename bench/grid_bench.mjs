// The pages on a big library: 15,000 albums (one track each). A cold page
// load (fresh browser profile) to the first status shown, on the demo
// library and on the big one; then the album grid scrolled from its top to
// its end, every page of albums loaded on the way, with the longest frame
// seen while it is flicked down at about 24,000 pixels a second (aim: none
// over 50 ms).
import { mkdirSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { Stack } from '../tests/browser/stack.mjs';
import { launch, PHONE, DESKTOP } from '../tests/browser/browser.mjs';

const ALBUMS = Number(process.env.ALBUMS || 15000);
const RUNS = Number(process.env.RUNS || 5);

function median(values) {
  const s = [...values].sort((a, b) => a - b);
  return s[Math.floor(s.length / 2)];
}

async function coldLoad(browser, stack) {
  const times = [];
  for (let i = 0; i < RUNS; i++) {
    const context = await browser.newContext({ viewport: PHONE });
    const page = await context.newPage();
    const start = Date.now();
    await page.goto(stack.base + '/');
    await page.locator('#now-track', { hasText: /^(?!…)/ }).waitFor();
    times.push(Date.now() - start);
    await context.close();
  }
  return times;
}

const browser = await launch();
let demo;
let big;
try {
  demo = await Stack.start({ discTracks: [4] });
  const demoTimes = await coldLoad(browser, demo);
  await demo.stop();
  demo = null;

  big = await Stack.start({
    discTracks: [4],
    prepare: (music) => {
      for (let i = 0; i < ALBUMS; i++) {
        const folder = join(music, `Artist ${String(Math.floor(i / 10)).padStart(4, '0')}`, `Album ${String(i).padStart(5, '0')}`);
        mkdirSync(folder, { recursive: true });
        writeFileSync(join(folder, '01 Track.mp3'), '');
      }
    },
  });
  await big.until(async () => Number((await big.api('getWebInfo')).albums) >= ALBUMS, 600000, 'the big library to load');
  const bigTimes = await coldLoad(browser, big);
  // One page of the grid from the daemon, near the end of the list.
  const pageTimes = [];
  for (let i = 0; i < 5; i++) {
    const t = Date.now();
    await big.api(`search&artists=0&tracks=0&offset=${ALBUMS - 100}&count=50&string=`);
    pageTimes.push(Date.now() - t);
  }

  const context = await browser.newContext({ viewport: DESKTOP });
  const page = await context.newPage();
  await page.goto(big.base + '/#/library/albums');
  await page.locator('#library-body .grid .tile').first().waitFor();
  // Frame lengths from the page's own animation frames while it scrolls.
  await page.evaluate(() => {
    window.frames_ = [];
    let last = performance.now();
    const tick = (now) => {
      window.frames_.push(now - last);
      last = now;
      if (!window.stopFrames_) requestAnimationFrame(tick);
    };
    requestAnimationFrame(tick);
  });
  // Tiles are counted as they come into the page, since the grid takes
  // those far off the screen out again.
  await page.evaluate(() => {
    window.tiles_ = new Set();
    const note = (el) => el.querySelectorAll('.tile-link').forEach((a) => window.tiles_.add(a.getAttribute('href')));
    const body = document.getElementById('library-body');
    note(body);
    new MutationObserver((changes) => changes.forEach((c) => c.addedNodes.forEach((n) => n.nodeType === 1 && note(n)))).observe(body, { childList: true, subtree: true });
  });
  const start = Date.now();
  let tiles = 0;
  let most = 0;
  for (let stalls = 0; stalls < 40; ) {
    // A fast flick, about 24,000 pixels a second, all the way down.
    await page.mouse.wheel(0, 1200);
    await page.waitForTimeout(50);
    const [seen, inPage] = await page.evaluate(() => [window.tiles_.size, document.querySelectorAll('#library-body .tile').length]);
    stalls = seen === tiles ? stalls + 1 : 0;
    tiles = seen;
    most = Math.max(most, inPage);
    if (tiles >= ALBUMS && stalls > 2) break;
  }
  const scrollMs = Date.now() - start;
  const frames = await page.evaluate(() => {
    window.stopFrames_ = true;
    return window.frames_;
  });
  await context.close();
  const longest = Math.max(...frames.slice(1));
  const over = frames.filter((f) => f > 50).length;
  console.log(`pages: cold load to the first status, median of ${RUNS}: demo library ${median(demoTimes)} ms, ${ALBUMS} albums ${median(bigTimes)} ms`);
  console.log(`pages: one page of 50 albums from the daemon, near the end of ${ALBUMS}: median ${median(pageTimes)} ms`);
  console.log(`pages: album grid of ${ALBUMS} albums scrolled end to end: ${tiles} tiles in ${(scrollMs / 1000).toFixed(1)} s, at most ${most} in the page at once; ${frames.length} frames, longest ${longest.toFixed(0)} ms, ${over} over 50 ms`);
} finally {
  await browser.close();
  await demo?.stop();
  await big?.stop();
}

// How fast the web pages come up on the demo library, in a fresh browser
// profile each time (nothing cached): the page's load, the first status
// shown, the library's artist list, and a search's results.
import { Stack } from '../tests/browser/stack.mjs';
import { launch, PHONE } from '../tests/browser/browser.mjs';

const RUNS = Number(process.env.RUNS || 15);

function median(values) {
  const s = [...values].sort((a, b) => a - b);
  return s[Math.floor(s.length / 2)];
}

const stack = await Stack.start();
const browser = await launch();
const figures = { load: [], status: [], library: [], search: [] };
try {
  for (let i = 0; i < RUNS; i++) {
    const context = await browser.newContext({ viewport: PHONE });
    const page = await context.newPage();
    const start = Date.now();
    await page.goto(stack.base + '/');
    figures.load.push(await page.evaluate(() => performance.getEntriesByType('navigation')[0].loadEventEnd));
    await page.locator('#now-track', { hasText: /^(?!…)/ }).waitFor();
    figures.status.push(Date.now() - start);

    let t = Date.now();
    await page.getByRole('navigation', { name: 'Views' }).getByRole('link', { name: 'Library' }).click();
    await page.locator('#library-body .row').first().waitFor();
    figures.library.push(Date.now() - t);

    // From the last key to the results, the debounce included.
    await page.locator('#search').fill('prelud');
    t = Date.now();
    await page.locator('#search').press('e');
    await page.locator('.results', { hasText: 'Tracks' }).getByText('Prelude in C').waitFor();
    figures.search.push(Date.now() - t);
    await context.close();
  }
} finally {
  await browser.close();
  await stack.stop();
}

console.log(`web pages (${RUNS} cold loads on the demo library, median ms):`);
console.log(`  page loaded            ${median(figures.load).toFixed(0)}`);
console.log(`  first status shown     ${median(figures.status).toFixed(0)}`);
console.log(`  library artists shown  ${median(figures.library).toFixed(0)}`);
console.log(`  search results shown   ${median(figures.search).toFixed(0)} (250 ms of it is the typing pause)`);

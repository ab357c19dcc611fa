// Debian's chromium, headless, driven by Playwright.
import { chromium } from 'playwright-core';

export const PHONE = { width: 360, height: 740 };
export const DESKTOP = { width: 1280, height: 800 };

export function launch() {
  return chromium.launch({
    executablePath: process.env.KZ_CHROMIUM || '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-background-networking'],
  });
}

// What a person would trip over on a page: something wider than the screen
// (a sideways scroll on a phone) or a control with no name to read out.
export function layoutProblems(page) {
  return page.evaluate(() => {
    const found = [];
    const visible = (el) => el.offsetParent !== null || getComputedStyle(el).position === 'fixed';
    for (const el of document.querySelectorAll('main *, .tabs, .top *')) {
      if (!visible(el) || el.closest('.sr-only')) continue;
      const r = el.getBoundingClientRect();
      if (r.right > innerWidth + 1) found.push(`wider than the screen: ${el.tagName}#${el.id}.${el.className}`);
    }
    for (const el of document.querySelectorAll('button, a[href], input, select, textarea, summary')) {
      if (!visible(el)) continue;
      const named = el.getAttribute('aria-label') || el.textContent.trim() || el.labels?.length || el.title;
      if (!named) found.push(`no name: ${el.outerHTML.slice(0, 80)}`);
    }
    return found;
  });
}

// A page that notes every request leaving the given addresses (no page of
// kz may reach the internet) and every script error.
export async function watchedPage(browser, viewport, bases) {
  const page = await browser.newPage({ viewport });
  const outside = [];
  const errors = [];
  page.on('request', (r) => {
    const u = r.url();
    if (!bases().some((b) => u.startsWith(b)) && !u.startsWith('data:')) outside.push(u);
  });
  page.on('pageerror', (e) => errors.push(e.message));
  page.on('console', (m) => m.type() === 'error' && !m.text().startsWith('Failed to load resource') && errors.push(m.text()));
  return { page, outside, errors };
}

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

// Debian's Chromium, headless, driven by playwright-core: a real browser on the real page.
import { join } from 'node:path';
import { SOURCE } from './service.ts';

const playwright = join(SOURCE, '.tools/dev/node_modules/playwright-core/index.mjs');

export type Browser = import('playwright-core').Browser;
export type Page = import('playwright-core').Page;

export async function launchBrowser(): Promise<Browser> {
  const { chromium } = (await import(playwright)) as typeof import('playwright-core');
  return chromium.launch({
    executablePath: process.env.LM_CHROMIUM ?? '/usr/bin/chromium',
    // Root in CI has no user namespace for Chromium's sandbox; the machine has no network, and
    // Chromium's own background connections would only be refused.
    args: ['--no-sandbox', '--disable-gpu', '--disable-background-networking', '--disable-component-update', '--disable-sync',
      '--no-first-run', '--disable-quic'],
  });
}

/** A page that fails the test on any error of its own (script errors, refused resources, CSP). */
export async function openPage(browser: Browser, url: string, viewport = { width: 1200, height: 800 }): Promise<{ page: Page; problems: string[] }> {
  const page = await browser.newPage({ viewport });
  const problems: string[] = [];
  page.on('pageerror', (error) => problems.push(`page error: ${error.message}`));
  page.on('console', (message) => { if (message.type() === 'error') problems.push(`console: ${message.text()}`); });
  page.on('response', (response) => { if (response.status() >= 400) problems.push(`${response.status()} ${response.url()}`); });
  await page.goto(url);
  return { page, problems };
}

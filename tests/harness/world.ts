// What every browser test stands on: the stand-in model answering a script, a sandbox whose Codex
// uses it, a headless Chromium, the launcher and its page, and the few page gestures every test repeats.
import type { TestContext } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync } from 'node:fs';
import { join } from 'node:path';
import { codexHome, startStandIn, type Script } from './standin.ts';
import { Launcher, Sandbox, WORKSPACE } from './launcher.ts';
import { launchBrowser, openPage, type Page } from './browser.ts';
import { until } from './service.ts';
import { ThreadStore } from '../../resources/app/workspace/store/store.ts';

/** The stand-in model with this script, a sandbox whose Codex uses it, and a browser; all gone after the test. */
export async function world(t: TestContext, answer: Script, options: { signedOut?: boolean; settings?: string[] } = {}) {
  const standIn = await startStandIn(answer);
  const sandbox = new Sandbox((folder) => codexHome(standIn, { folder, signedOut: options.signedOut, settings: options.settings }));
  const browser = await launchBrowser();
  t.after(async () => {
    await browser.close();
    await standIn.close();
    await sandbox.retire();
  });
  return { sandbox, browser, standIn };
}

/**
 * The world with the launcher started and a page at the workspace (at `at`). A store seeded here is
 * closed before the service opens it; prepare sees the sandbox before the launcher does.
 */
export async function opened(t: TestContext, answer: Script, options: Parameters<typeof world>[2] & {
  at?: string; seed?: (store: ThreadStore) => void; prepare?: (sandbox: Sandbox) => void;
} = {}) {
  const { sandbox, browser, standIn } = await world(t, answer, options);
  if (options.seed) {
    mkdirSync(sandbox.dataFolder, { recursive: true, mode: 0o700 });
    const store = ThreadStore.open(join(sandbox.dataFolder, 'workspace.db'));
    options.seed(store);
    store.close();
  }
  options.prepare?.(sandbox);
  const launcher = await Launcher.ready(sandbox);
  const { page, problems } = await openPage(browser, `${WORKSPACE}${options.at ?? ''}`);
  /** The page met no error of its own, and the launcher quits. */
  const finish = async () => { assert.deepEqual(problems, []); await launcher.quit(); };
  return { sandbox, browser, standIn, launcher, page, problems, finish };
}

/** The id of the thread's last turn in the page; a long thread folds far turns away, so they cannot be counted. */
const lastTurn = (page: Page) => page.evaluate<string | null>(`document.querySelector('#conversation > .turn:last-child')?.dataset.turn ?? null`);

export async function ask(page: Page, question: string) {
  const before = await lastTurn(page);
  // A thread asks one question at a time: the last answer may be on the page before its turn ends,
  // and what is sent while it runs is guidance for it.
  await page.locator('#stop').waitFor({ state: 'hidden' });
  await page.locator('#send:enabled').waitFor();
  await page.fill('#question', question);
  await page.press('#question', 'Enter');
  const id = await until('the question to become a turn', async () => { const last = await lastTurn(page); return last !== before && last; });
  return page.locator(`.turn[data-turn="${id}"]`);
}

export async function newThread(page: Page) {
  await page.click('#new-thread');
  await page.locator('#welcome').waitFor();
  await page.locator('.turn').first().waitFor({ state: 'detached' });
}


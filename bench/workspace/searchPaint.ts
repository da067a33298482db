// How long a search takes in the page on a big store, through the real launcher: the service's
// answer, and from the keystroke that completes the text to the answer's arrival, its hits in the
// DOM, and the frame that shows them.
// Figures only. Uses the launcher's fixed port: run it in a network namespace of its own,
//   tests/e2e/netns.sh node --experimental-strip-types bench/workspace/searchPaint.ts STORE.db
// with a store bench/workspace/search.ts --keep left (it is copied, not changed).
import { copyFileSync, mkdirSync } from 'node:fs';
import { join } from 'node:path';
import { codexHome, reply, startStandIn } from '../../tests/workspace/support/standin.ts';
import { Launcher, Sandbox, WORKSPACE } from '../../tests/workspace/support/launcher.ts';
import { launchBrowser, openPage } from '../../tests/workspace/support/browser.ts';
import { median } from './figures.ts';

const store = process.argv[2]!;
const QUERIES = ['checkpoint', 'sqlite write', '检查点', '量子', 'zq', 'no such words here', 'python3 analyse.py --run 77'];
const standIn = await startStandIn(() => reply.answer('好的。'));
const browser = await launchBrowser();
const sandbox = new Sandbox((folder) => codexHome(standIn, { folder }));
try {
  mkdirSync(sandbox.dataFolder, { recursive: true, mode: 0o700 });
  copyFileSync(store, join(sandbox.dataFolder, 'workspace.db'));
  const launcher = await Launcher.ready(sandbox);
  const { page } = await openPage(browser, WORKSPACE, { width: 1280, height: 860 });
  await page.locator('.thread-entry').first().waitFor();
  for (const query of QUERIES) {
    const painted: number[] = [];
    const answered: number[] = [];
    const arrived: number[] = [];
    const drawn: number[] = [];
    for (let run = 0; run < 7; run += 1) {
      await page.fill('#search', '');
      await page.locator('#threads').waitFor();
      // The list shown again is laid out first: that frame is the clearing's, not the search's.
      await page.evaluate('new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)))');
      await page.waitForTimeout(200);
      // Runs in the page, given as text: this file is checked against Node.js's types, not the DOM's.
      const figures = await page.evaluate(`(async () => {
        const input = document.querySelector('#search');
        const results = document.querySelector('#search-results');
        const start = performance.now();
        let drawn = 0;
        const done = new Promise((resolve) => {
          new MutationObserver((_, observer) => {
            observer.disconnect();
            drawn = performance.now() - start;
            requestAnimationFrame(() => setTimeout(() => resolve(performance.now() - start)));
          }).observe(results, { childList: true });
        });
        input.value = ${JSON.stringify(query)};
        input.dispatchEvent(new Event('input'));
        const paint = await done;
        const entry = performance.getEntriesByType('resource').filter((e) => e.name.includes('/api/search')).at(-1);
        return { paint, drawn, arrived: entry.responseEnd - start, answer: entry.responseStart - entry.requestStart };
      })()`) as { paint: number; drawn: number; arrived: number; answer: number };
      arrived.push(figures.arrived);
      drawn.push(figures.drawn);
      painted.push(figures.paint);
      answered.push(figures.answer);
    }
    const hits = await page.locator('.search-result').count();
    const ms = (values: number[]) => `${median(values).toFixed(1).padStart(6)} ms`;
    console.log(`${JSON.stringify(query).padEnd(32)} ${String(hits).padStart(3)} hits  answered in ${ms(answered)}, `
      + `from the keystroke: arrived ${ms(arrived)}, drawn ${ms(drawn)}, painted ${ms(painted)} (medians of 7)`);
  }
  await launcher.quit();
} finally {
  await browser.close();
  await standIn.close();
  for (const pid of sandbox.leftovers()) process.kill(pid, 'SIGKILL');
}

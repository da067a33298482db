// The thread list with years of work behind it: a store of 5,000 threads and 200,000 items, filled
// straight into SQLite in one transaction (through the service's own schema), then the page loaded
// afresh again and again in Chromium. Stamped in the page: when the first list entry enters the DOM,
// the end of the frame after it, when Element Timing says its title was painted, and when the whole
// list is in the DOM. Figures only.
//
//   node --experimental-strip-types bench/workspace/threadList.ts [--runs 15] [--threads 5000] [--items 200000] [--app DIR]
import { DatabaseSync } from 'node:sqlite';
import { rmSync } from 'node:fs';
import { join, resolve } from 'node:path';
import { parseArgs } from 'node:util';
import type { Item } from '../../resources/app/workspace/model.ts';
import { APP, CODEX, startService, temporaryFolder } from '../../tests/workspace/support/service.ts';
import { codexHome, reply, startStandIn } from '../../tests/workspace/support/standin.ts';
import { launchBrowser, openPage } from '../../tests/workspace/support/browser.ts';
import { keptTurnItems, random } from './answers.ts';
import { printTable, type Figure } from './figures.ts';

const { values } = parseArgs({
  options: {
    runs: { type: 'string', default: '15' },
    threads: { type: 'string', default: '5000' },
    items: { type: 'string', default: '200000' },
    app: { type: 'string' },
  },
});
const runs = Number(values.runs);
const threadCount = Number(values.threads);
const itemCount = Number(values.items);
const app = values.app ? resolve(values.app) : undefined;
// The store is made by the app under test, so an older app can be compared on its own schema.
const { ThreadStore } = await import(join(app ?? APP, 'workspace/store/store.ts')) as typeof import('../../resources/app/workspace/store/store.ts');

function fill(dataFolder: string): void {
  const path = join(dataFolder, 'workspace.db');
  ThreadStore.open(path).close();
  const db = new DatabaseSync(path);
  const rng = random(15);
  const perThread = Math.ceil(itemCount / threadCount);
  const day = Date.UTC(2024, 0, 1);
  const thread = db.prepare('INSERT INTO threads (id, title, folder, created_at, updated_at) VALUES (?, ?, ?, ?, ?)');
  const turn = db.prepare(`INSERT INTO turns (id, thread_id, position, question, status, error, usage, started_at, ended_at)
    VALUES (?, ?, ?, ?, 'completed', NULL, NULL, ?, ?)`);
  const item = db.prepare('INSERT INTO items (turn_id, position, status, body) VALUES (?, ?, ?, ?)');
  db.exec('BEGIN');
  let made = 0;
  for (let t = 0; t < threadCount; t += 1) {
    const id = `t${String(t).padStart(5, '0')}`;
    const at = day + t * 3_600_000;
    thread.run(id, `研究 ${t}：SQLite 在桌面应用中的可靠写入与备份策略`, join('threads', id), at, at + 600_000);
    for (let position = 0, left = Math.min(perThread, itemCount - made); left > 0; position += 1) {
      const turnId = `${id}-${position}`;
      turn.run(turnId, id, position, `第 ${position + 1} 个问题`, at + position * 60_000, at + position * 60_000 + 30_000);
      const kept: Item[] = keptTurnItems(rng).slice(0, left);
      for (const each of kept) item.run(turnId, each.position, each.status, JSON.stringify(each));
      left -= kept.length;
      made += kept.length;
    }
  }
  db.exec('COMMIT');
  db.close();
  console.log(`filled ${threadCount} threads, ${made} items`);
}

// Injected before the page's scripts: stamps on the page's own clock, from navigation start.
const PROBE = `(() => {
  const seen = { entry: null, frame: null, painted: null, all: null, hello: null, helloBytes: 0, longest: 0, asked: null, served: null };
  // The stream's first message is the snapshot: from asking for the stream to it is the service's share, and the wire's.
  const Stream = WebSocket;
  globalThis.WebSocket = class extends Stream {
    constructor(...args) { super(...args); seen.asked ??= performance.now(); }
  };
  Object.defineProperty(globalThis, '__lmList', { value: seen });
  new PerformanceObserver((list) => { for (const e of list.getEntries()) seen.longest = Math.max(seen.longest, e.duration); })
    .observe({ type: 'longtask', buffered: true });
  new PerformanceObserver((list) => { for (const e of list.getEntries()) if (e.identifier === 'lm-list') seen.painted ??= e.renderTime; })
    .observe({ type: 'element', buffered: true });
  const add = EventTarget.prototype.addEventListener;
  WebSocket.prototype.addEventListener = function (type, listener, options) {
    if (type !== 'message') return add.call(this, type, listener, options);
    return add.call(this, type, function (event) {
      const start = performance.now();
      try { return listener.call(this, event); } finally {
        if (seen.hello === null) { seen.served = start - seen.asked; seen.hello = performance.now() - start; seen.helloBytes = event.data.length; }
      }
    }, options);
  };
  new MutationObserver(() => {
    const entries = document.querySelectorAll('.thread-entry');
    if (seen.entry === null && entries.length > 0) {
      seen.entry = performance.now();
      for (const node of entries[0].querySelectorAll('*')) node.setAttribute('elementtiming', 'lm-list');
      requestAnimationFrame(() => setTimeout(() => { seen.frame = performance.now(); }));
    }
    if (seen.all === null && entries.length >= ${threadCount}) seen.all = performance.now();
  }).observe(document, { childList: true, subtree: true });
})();`;

const dataFolder = temporaryFolder('lm-bench-list-');
fill(dataFolder);
// A Codex that starts and stays up, as in use: one that cannot start is tried again with every page.
const standIn = await startStandIn(() => reply.answer('好的。'));
const home = codexHome(standIn);
const service = await startService({ codexPath: CODEX, dataFolder, app, env: { CODEX_HOME: home, STANDIN_KEY: 'stand-in-key' } });
const browser = await launchBrowser();
const samples = { entry: [] as number[], frame: [] as number[], painted: [] as number[], afterLoad: [] as number[], all: [] as number[], hello: [] as number[], longest: [] as number[], nextPage: [] as number[], served: [] as number[] };
let helloBytes = 0;
try {
  for (let run = -1; run < runs; run += 1) {
    const { page, problems } = await openPage(browser, 'about:blank');
    await page.addInitScript({ content: PROBE });
    await page.goto(service.url);
    await page.waitForFunction(() => {
      const seen = (globalThis as unknown as { __lmList: { frame: number | null; all: number | null } }).__lmList;
      return seen.frame !== null;
    }, null, { timeout: 60_000 });
    await new Promise((done) => setTimeout(done, 300));
    const drawn = await page.locator('.thread-entry').count();
    // The next page of the list, as the reader scrolls to its end: asked for, fetched and drawn.
    const before = performance.now();
    await page.evaluate(() => {
      const nav = (globalThis as unknown as { document: { getElementById(id: string): { scrollTop: number; scrollHeight: number } } }).document.getElementById('threads');
      nav.scrollTop = nav.scrollHeight;
    });
    await page.waitForFunction(([count, all]: number[]) => (globalThis as unknown as { document: { querySelectorAll(s: string): { length: number } } })
      .document.querySelectorAll('.thread-entry').length > count! || count! >= all!, [drawn, threadCount], { timeout: 10_000 });
    const nextPage = performance.now() - before;
    const seen = await page.evaluate(() => ({
      ...(globalThis as unknown as { __lmList: Record<string, number | null> }).__lmList,
      load: (performance.getEntriesByType('navigation' as never)[0] as unknown as { loadEventStart: number }).loadEventStart,
    })) as Record<string, number | null> & { load: number; served: number };
    await page.close();
    if (problems.length > 0) console.log(`page problems: ${problems.join('; ')}`);
    console.log(`${run < 0 ? 'warm-up' : `run ${run + 1}`}: entry in DOM ${seen.entry!.toFixed(0)} ms, frame done ${seen.frame!.toFixed(0)}, painted ${seen.painted?.toFixed(0)}, load event ${seen.load!.toFixed(0)}, ${drawn} entries drawn (all ${threadCount} at ${seen.all?.toFixed(0) ?? '—'}), next page ${nextPage.toFixed(0)} ms, snapshot served in ${seen.served.toFixed(0)} ms, handled in ${seen.hello!.toFixed(0)} ms (${(seen.helloBytes! / 1024).toFixed(0)} KiB), longest task ${seen.longest!.toFixed(0)} ms`);
    if (run < 0) continue;
    const painted = seen.painted ?? seen.frame!;
    samples.entry.push(seen.entry!);
    samples.frame.push(seen.frame!);
    samples.painted.push(painted);
    samples.afterLoad.push(painted - seen.load!);
    if (seen.all !== null) samples.all.push(seen.all!);
    if (drawn < threadCount) samples.nextPage.push(nextPage);
    samples.hello.push(seen.hello!);
    samples.served.push(seen.served);
    samples.longest.push(seen.longest!);
    helloBytes = seen.helloBytes!;
  }
} finally {
  await browser.close();
  service.child.kill('SIGTERM');
  await service.exited;
  await standIn.close();
  for (const folder of [home, dataFolder]) rmSync(folder, { recursive: true, force: true });
}
const figures: Figure[] = [
  { name: `list of ${threadCount}: navigation → first entry painted`, unit: 'ms', runs: [samples.painted], goal: { limit: 100, atMost: true, text: '≤ 100 ms' }, note: 'Element Timing of the first entry, else the frame after it' },
  { name: `list of ${threadCount}: load event → first entry painted`, unit: 'ms', runs: [samples.afterLoad] },
  { name: `list of ${threadCount}: navigation → first entry in the DOM`, unit: 'ms', runs: [samples.entry] },
  ...(samples.all.length > 0 ? [{ name: `list of ${threadCount}: navigation → every entry in the DOM`, unit: 'ms', runs: [samples.all] }] : []),
  ...(samples.nextPage.length > 0 ? [{ name: `list of ${threadCount}: scrolled to the end → next page drawn`, unit: 'ms', runs: [samples.nextPage], note: 'measured from the benchmark: includes a round trip to Chromium' }] : []),
  { name: `list of ${threadCount}: snapshot asked for → first byte`, unit: 'ms', runs: [samples.served], note: 'from new WebSocket to its first message' },
  { name: `list of ${threadCount}: snapshot handler`, unit: 'ms', runs: [samples.hello], note: `${(helloBytes / 1024).toFixed(0)} KiB of JSON` },
  { name: `list of ${threadCount}: longest task while loading`, unit: 'ms', runs: [samples.longest], statistic: 'max' },
];
printTable(figures);

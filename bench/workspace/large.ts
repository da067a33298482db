// Years of work: the page and the service on the filled store (fill.ts: 5,000 threads, 200,000
// items). The thread list painted after the page loads; a search answered by the service and
// painted in the page; the 2,000-item thread opened, scrolled to its top, and the page's heap with
// it open. Codex is the fake app-server: nothing here asks it anything.
//
// Search is measured only where the service has /api/search and the page a #search box; otherwise
// its figures are skipped with a line saying so.
import { rmSync } from 'node:fs';
import { join } from 'node:path';
import { Agent, request } from 'node:http';
import { fakeCodex, startService, temporaryFolder, type Running } from '../../tests/harness/service.ts';
import { launchBrowser, openPage, type Browser, type Page } from '../../tests/harness/browser.ts';
import { fileURLToPath } from 'node:url';
import { copyOfStore, LONG_THREAD_ITEMS, type Filled } from './fill.ts';
import { now, recorded, resetRecorded } from './inPage.ts';
import type { Figure } from './figures.ts';
import { summariseTrace, tracing } from './trace.ts';

export type LargeSection = 'list' | 'search' | 'thread' | 'heap';

export interface LargeOptions {
  filled: Filled;
  sections: ReadonlySet<LargeSection>;
  runs: number;
  /** Where the last wheel to the top leaves its Chromium trace, summarised in the log. */
  profile?: string | null;
  app?: string;
  log(line: string): void;
}

const PROBE = fileURLToPath(new URL('./probe.js', import.meta.url));
const settle = (ms: number) => new Promise((resolve) => setTimeout(resolve, ms));

interface Bench {
  __lmBench: { afterFrame: number | null };
  __lmInput?: number;
}

/**
 * A fresh page with the probe, whose target is set before the page's own scripts run: what the
 * page draws while it loads can be stamped too.
 */
async function probed(browser: Browser, target: string | null): Promise<{ page: Page; problems: string[] }> {
  const opened = await openPage(browser, 'about:blank');
  await opened.page.addInitScript({ path: PROBE });
  // In the page's own terms (this file is checked without the DOM's types): the target, and when
  // the reader last typed, which a search's figure runs from.
  await opened.page.addInitScript({ content: `globalThis.__lmBench.target = ${JSON.stringify(target)};
    document.addEventListener('input', (event) => { globalThis.__lmInput = performance.timeOrigin + event.timeStamp; }, true);` });
  return opened;
}

const afterFrame = (page: Page, timeout = 30_000) =>
  page.waitForFunction(() => (globalThis as unknown as Bench).__lmBench.afterFrame !== null, null, { timeout });

/** When the target was painted: Element Timing, else the end of the frame after it entered the DOM. */
async function paintedAt(page: Page): Promise<{ at: number; how: 'paint' | 'frame' }> {
  // Element Timing entries are delivered after the frame that painted them.
  await settle(200);
  const seen = await recorded(page);
  if (seen.painted.length > 0) return { at: Math.min(...seen.painted), how: 'paint' };
  return { at: seen.afterFrame!, how: 'frame' };
}

const keepAlive = new Agent({ keepAlive: true, maxSockets: 1 });

/** A GET from a loopback client, timed from the request to the last byte of the answer. */
function timedGet(port: number, path: string): Promise<{ status: number; ms: number; bytes: number }> {
  const begun = now();
  return new Promise((resolve, reject) => {
    const outgoing = request({ host: '127.0.0.1', port, path, agent: keepAlive }, (response) => {
      let bytes = 0;
      response.on('data', (chunk: Buffer) => { bytes += chunk.length; });
      response.on('end', () => resolve({ status: response.statusCode ?? 0, ms: now() - begun, bytes }));
    });
    outgoing.on('error', reject);
    outgoing.end();
  });
}

async function listFigures(browser: Browser, service: Running, options: LargeOptions): Promise<Figure[]> {
  const painted: number[] = [];
  const afterLoad: number[] = [];
  const hello: number[] = [];
  const longest: number[] = [];
  const how = new Set<string>();
  let entries = 0;
  const { page } = await probed(browser, '#threads .thread-entry');
  for (let run = -1; run < options.runs; run += 1) {
    await page.goto(service.url);
    await afterFrame(page);
    const at = await paintedAt(page);
    const timing = await page.evaluate<{ origin: number; loadEnd: number; entries: number }>(`({ origin: performance.timeOrigin,
      loadEnd: performance.getEntriesByType('navigation')[0].loadEventEnd, entries: document.querySelectorAll('#threads .thread-entry').length })`);
    const seen = await recorded(page);
    const helloHandler = seen.handlers.find((handler) => handler.kind === 'hello');
    entries = timing.entries;
    const sample = { painted: at.at - timing.origin, afterLoad: at.at - timing.origin - timing.loadEnd, hello: helloHandler?.duration ?? Number.NaN, longest: Math.max(0, ...seen.longTasks.map((task) => task.duration)) };
    options.log(`list ${run < 0 ? 'warm-up' : `run ${run + 1}`}: navigation → list painted ${sample.painted.toFixed(0)} ms (${at.how}), load event → painted ${sample.afterLoad.toFixed(0)} ms, snapshot handler ${sample.hello.toFixed(0)} ms, longest task ${sample.longest.toFixed(0)} ms; ${entries} entries in the DOM`);
    if (run < 0) continue;
    painted.push(sample.painted);
    afterLoad.push(sample.afterLoad);
    hello.push(sample.hello);
    longest.push(sample.longest);
    how.add(at.how);
  }
  await page.close();
  const by = [...how].map((each) => (each === 'paint' ? 'Element Timing of the first entry' : 'the frame after the entries entered the DOM')).join(' / ');
  return [
    { name: `list of ${options.filled.threads}: navigation start → entries painted`, unit: 'ms', runs: [painted], goal: { limit: 100, atMost: true, text: '≤ 100 ms after the page loads' }, note: `${by}; ${entries} entries in the DOM` },
    { name: `list of ${options.filled.threads}: load event end → entries painted`, unit: 'ms', runs: [afterLoad], goal: { limit: 100, atMost: true, text: '≤ 100 ms after the page loads' }, note: 'the list comes in the event stream\'s snapshot, after the load event' },
    { name: `list of ${options.filled.threads}: snapshot handler`, unit: 'ms', runs: [hello] },
    { name: `list of ${options.filled.threads}: longest task while loading`, unit: 'ms', runs: [longest], statistic: 'max', note: 'Long Tasks API: only tasks over 50 ms are reported (0: none)' },
  ];
}

/** Words to search for, common to rare, of each script, and a few no thread holds. */
function searchWords(filled: Filled, script: 'latin' | 'cjk'): string[] {
  const words = filled.words.filter((word) => word.script === script).sort((a, b) => b.threads - a.threads);
  const spaced = words.filter((_, index) => index % Math.max(1, Math.floor(words.length / 16)) === 0);
  return [...new Set([...spaced, ...words.filter((word) => word.threads < 50)].map((word) => word.word))];
}

async function searchFigures(browser: Browser, service: Running, options: LargeOptions): Promise<Figure[]> {
  const probe = await timedGet(service.port, '/api/search?q=sqlite');
  if (probe.status === 404) {
    options.log('search: skipped, the service has no /api/search yet');
    return [];
  }
  // The first search may wait for an index the service builds over the store it found.
  options.log(`search: the first answer took ${probe.ms.toFixed(0)} ms (${probe.status})`);
  const figures: Figure[] = [];
  for (const script of ['latin', 'cjk'] as const) {
    const words = searchWords(options.filled, script);
    const first: number[] = [];
    const rounds: number[][] = [];
    const bytes: number[] = [];
    for (let round = 0; round < options.runs; round += 1) {
      const times: number[] = [];
      for (const word of words) {
        const answer = await timedGet(service.port, `/api/search?q=${encodeURIComponent(word)}`);
        if (answer.status !== 200) throw new Error(`search for ${word}: ${answer.status}`);
        (round === 0 ? first : times).push(answer.ms);
        bytes.push(answer.bytes);
      }
      if (round > 0) rounds.push(times);
    }
    const held = options.filled.words.filter((word) => words.includes(word.word)).map((word) => word.threads);
    options.log(`search in the service (${script}): ${words.length} words held by ${Math.min(...held)}–${Math.max(...held)} threads; first round ${Math.max(...first).toFixed(1)} ms at worst`);
    figures.push(
      { name: `search answered in the service, ${script === 'cjk' ? 'Chinese' : 'Latin'} words`, unit: 'ms', runs: rounds, goal: { limit: 50, atMost: true, text: '≤ 50 ms' }, note: `${words.length} words (${words.slice(0, 6).join(', ')} …) held by ${Math.min(...held)} to ${Math.max(...held)} of ${options.filled.threads} threads, each asked ${rounds.length} times after a first round; request to last byte over loopback, keep-alive; answers ${Math.min(...bytes)}–${Math.max(...bytes)} bytes` },
      { name: `search answered in the service, ${script === 'cjk' ? 'Chinese' : 'Latin'} words, worst`, unit: 'ms', runs: rounds, statistic: 'max' },
      { name: `search answered in the service, ${script === 'cjk' ? 'Chinese' : 'Latin'} words, first asked`, unit: 'ms', runs: [first], note: 'the first time each word is asked' },
    );
  }

  const { page, problems } = await probed(browser, null);
  await page.goto(service.url);
  if (await page.locator('#search').count() === 0) {
    options.log('search in the page: skipped, the page has no #search box yet');
    await page.close();
    return figures;
  }
  const painted: number[] = [];
  const words = [...searchWords(options.filled, 'latin'), ...searchWords(options.filled, 'cjk')]
    .filter((word) => (options.filled.words.find((each) => each.word === word)?.threads ?? 0) > 0);
  for (let round = 0; round < Math.max(1, Math.ceil(options.runs / 2)); round += 1) {
    for (const word of words) {
      await page.fill('#search', '');
      await page.locator('.search-result').first().waitFor({ state: 'detached', timeout: 5000 }).catch(() => options.log(`search in the page: results stay after the box is emptied (before "${word}")`));
      await resetRecorded(page, '.search-result');
      await page.fill('#search', word);
      const shown = await afterFrame(page, 10_000).then(() => true, () => false);
      if (!shown) {
        const seen = await page.evaluate<string>(`[...document.querySelectorAll('.search-result')].length + ' results; ' + (document.querySelector('#search')?.parentElement?.innerText ?? '').slice(0, 200)`);
        options.log(`search in the page: "${word}" painted no .search-result within 10 s (${seen}); ${problems.slice(-3).join('; ')}`);
        continue;
      }
      const at = await paintedAt(page);
      const typed = await page.evaluate(() => (globalThis as unknown as Bench).__lmInput!);
      painted.push(at.at - typed);
    }
  }
  if (problems.length > 0) options.log(`search page problems: ${[...new Set(problems)].join('; ')}`);
  await page.close();
  figures.push({ name: 'search typed → first result painted', unit: 'ms', runs: [painted], goal: { limit: 100, atMost: true, text: '≤ 100 ms' }, note: `${words.length} words, whole word put in #search at once (one input event); any debounce of the page's is counted` });
  figures.push({ name: 'search typed → first result painted, worst', unit: 'ms', runs: [painted], statistic: 'max' });
  return figures;
}

/** Wheels the view up until the thread's first turn is drawn; how many earlier pages were fetched. */
async function wheelToTop(page: Page): Promise<number> {
  const box = (await page.locator('#scroller').boundingBox())!;
  await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
  const begun = now();
  let requests = 0;
  const count = (sent: { url(): string }) => { if (sent.url().includes('/turns?before=')) requests += 1; };
  page.on('request', count);
  try {
    for (;;) {
      const where = await page.evaluate<{ top: number; more: boolean }>(`({ top: document.getElementById('scroller').scrollTop, more: document.querySelector('#conversation > .sentinel') !== null })`);
      if (where.top === 0 && !where.more) return requests;
      if (now() - begun > 120_000) throw new Error('never reached the top of the long thread');
      await page.mouse.wheel(0, -2400);
      await settle(50);
    }
  } finally {
    page.off('request', count);
  }
}

async function threadFigures(browser: Browser, service: Running, options: LargeOptions): Promise<Figure[]> {
  const { filled } = options;
  const entry = `.thread-entry[data-thread="${filled.longThreadId}"]`;
  const newest = `section.turn[data-turn="${filled.longLastTurnId}"] .items > .item:last-child`;
  const { page, problems } = await probed(browser, null);
  const cdp = await page.context().newCDPSession(page);
  await cdp.send('Performance.enable');
  const opened: number[] = [];
  const toTop: number[] = [];
  const longest: number[] = [];
  const over50: number[] = [];
  const framesScripts: number[] = [];
  const framesRendering: number[] = [];
  const fetches: number[] = [];
  const heap: number[] = [];
  const metricHeap: number[] = [];
  const nodes: number[] = [];
  let drawn = 0;
  const wantOpen = options.sections.has('thread');
  const wantHeap = options.sections.has('heap');
  // Each run wheels through the whole thread: fewer of them.
  for (let run = -1; run < Math.min(options.runs, 5); run += 1) {
    await page.goto(service.url);
    await page.locator(entry).waitFor();
    await settle(300);
    await resetRecorded(page, newest);
    await page.click(entry);
    await afterFrame(page);
    const at = await paintedAt(page);
    const seen = await recorded(page);
    const click = seen.clicks.at(-1)!.event;
    if (run >= 0) opened.push(at.at - click);

    // To the top: wheel turns upwards, as a reader would, while earlier turns are fetched.
    await resetRecorded(page);
    const begun = now();
    const trace = options.profile && run === Math.min(options.runs, 5) - 1 ? join(options.profile, 'thread-to-top.trace.json') : null;
    const requests = trace ? await tracing(browser, page, trace, () => wheelToTop(page)) : await wheelToTop(page);
    const elapsed = now() - begun;
    await settle(300);
    const scrolled = await recorded(page);
    drawn = await page.evaluate<number>(`document.querySelectorAll('#conversation .item').length`);
    const tasks = scrolled.longTasks.map((task) => task.duration);
    const frames = scrolled.longFrames;
    const sum = (key: 'scripts' | 'rendering') => frames.reduce((total, frame) => total + frame[key], 0);
    options.log(`long thread ${run < 0 ? 'warm-up' : `run ${run + 1}`}: click → newest painted ${(at.at - click).toFixed(0)} ms (${at.how}); to the top in ${elapsed.toFixed(0)} ms with ${requests} fetches, ${drawn} items in the DOM, longest task ${Math.max(0, ...tasks).toFixed(0)} ms (${tasks.filter((task) => task > 50).length} over 50 ms); ${frames.length} long frames: scripts ${sum('scripts').toFixed(0)} ms, rendering ${sum('rendering').toFixed(0)} ms`);
    if (trace) options.log(`the last wheel to the top, traced (${trace}):\n${summariseTrace(trace)}`);
    if (run < 0) continue;
    toTop.push(elapsed);
    longest.push(Math.max(0, ...tasks));
    over50.push(tasks.filter((task) => task > 50).length);
    framesScripts.push(sum('scripts'));
    framesRendering.push(sum('rendering'));
    fetches.push(requests);

    if (wantHeap) {
      await cdp.send('HeapProfiler.collectGarbage');
      const usage = await cdp.send('Runtime.getHeapUsage');
      const { metrics } = await cdp.send('Performance.getMetrics');
      const metric = (name: string) => metrics.find((each) => each.name === name)?.value ?? Number.NaN;
      heap.push(usage.usedSize / 1048576);
      metricHeap.push(metric('JSHeapUsedSize') / 1048576);
      nodes.push(metric('Nodes'));
      options.log(`heap with the long thread open at its top: ${heap.at(-1)!.toFixed(1)} MB used (Performance.getMetrics ${metricHeap.at(-1)!.toFixed(1)} MB, ${nodes.at(-1)} DOM nodes)`);
    }
  }
  if (problems.length > 0) options.log(`long thread page problems: ${[...new Set(problems)].join('; ')}`);
  await page.close();
  const items = LONG_THREAD_ITEMS.toLocaleString('en');
  const figures: Figure[] = [];
  if (wantOpen) {
    figures.push(
      { name: `thread of ${items} items: click → newest painted`, unit: 'ms', runs: [opened], goal: { limit: 300, atMost: true, text: '≤ 300 ms' }, note: 'in the filled store, third in the list; Element Timing of the newest item' },
      { name: `thread of ${items} items: wheel to the top`, unit: 'ms', runs: [toTop], note: `wheel −2400 px every 50 ms until the first turn is drawn; earlier turns fetched per run: ${fetches.join(', ')}; ${drawn} items in the DOM at the top` },
      { name: `thread of ${items} items: longest task scrolling to the top`, unit: 'ms', runs: longest.map((value) => [value]), statistic: 'max', goal: { limit: 50, atMost: true, text: 'none over 50 ms' }, note: `Long Tasks API (0: none over 50 ms); tasks over 50 ms per run: ${over50.join(', ')}` },
      { name: `thread of ${items} items: scripts in long frames scrolling to the top`, unit: 'ms', runs: [framesScripts], note: `Long Animation Frames that held input back, summed per run; their rendering (style, layout, paint): ${framesRendering.map((value) => value.toFixed(0)).join(', ')} ms` },
    );
  }
  if (wantHeap) {
    figures.push(
      { name: `page JS heap, thread of ${items} items open at its top`, unit: 'MB', runs: [heap], goal: { limit: 100, atMost: true, text: '≤ 100 MB' }, note: `Runtime.getHeapUsage after HeapProfiler.collectGarbage; Performance.getMetrics JSHeapUsedSize ${metricHeap.map((value) => value.toFixed(1)).join(', ')} MB; DOM nodes ${nodes.join(', ')}; MB = 2^20 bytes` },
    );
  }
  return figures;
}

export async function largeFigures(options: LargeOptions): Promise<Figure[]> {
  const dataFolder = copyOfStore(options.filled);
  const fake = temporaryFolder('lm-bench-fake-');
  const started = now();
  const service = await startService({ codexPath: fakeCodex(fake), dataFolder, app: options.app });
  options.log(`service on the filled store listening after ${(now() - started).toFixed(0)} ms`);
  const browser = await launchBrowser();
  const figures: Figure[] = [];
  try {
    if (options.sections.has('list')) figures.push(...await listFigures(browser, service, options));
    if (options.sections.has('search')) figures.push(...await searchFigures(browser, service, options));
    if (options.sections.has('thread') || options.sections.has('heap')) figures.push(...await threadFigures(browser, service, options));
    return figures;
  } finally {
    await browser.close();
    service.child.kill('SIGTERM');
    await service.exited;
    for (const folder of [dataFolder, fake]) rmSync(folder, { recursive: true, force: true });
  }
}

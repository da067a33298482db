// Opening a long thread: the store is filled through the service's own ThreadStore before the
// service starts (a 2,000-item thread among smaller ones), then the page in Chromium clicks it in
// the list. The page stamps the click, the moment the newest item enters its DOM, the next frame,
// and when Element Timing says that item's text was painted.
import { mkdirSync, readdirSync, readFileSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import { ThreadStore } from '../../resources/app/workspace/store/store.ts';
import type { Item, TurnHead } from '../../resources/app/workspace/model.ts';
import { codexHome, reply, startStandIn } from '../../tests/harness/standin.ts';
import { CODEX, startService, temporaryFolder } from '../../tests/harness/service.ts';
import { launchBrowser } from '../../tests/harness/browser.ts';
import { keptTurnItems, random } from './answers.ts';
import { clockOffset, now, probedPage, recorded, resetRecorded } from './inPage.ts';
import { blocks, type Figure } from './figures.ts';
import { request } from 'node:http';
import { profilePage, summarise, type CpuProfile } from './profile.ts';

export interface OpeningOptions {
  runs: number;
  items: number;
  /** A folder for CPU profiles of one more opening, in the page and in the service; null for none. */
  profile: string | null;
  /** The app folder to run; the shipped one when undefined. */
  app?: string;
  log(line: string): void;
}

interface Filled {
  threadId: string;
  lastTurnId: string;
  turns: number;
  bytes: number;
  kinds: Record<string, number>;
}

const usage = { input: 1200, cachedInput: 800, output: 400, reasoning: 100, total: 1600 };

/** Writes threads as the service would have kept them: turns committed with their items. */
function fill(dataFolder: string, items: number): Filled {
  const rng = random(2026);
  const store = ThreadStore.open(join(dataFolder, 'workspace.db'));
  const day = Date.UTC(2026, 10, 1);
  const thread = (id: string, title: string, createdAt: number, count: number | null, turnsAtMost: number) => {
    const folder = join('threads', id);
    mkdirSync(join(dataFolder, folder), { recursive: true });
    const made = { items: 0, turns: 0, lastTurnId: '', bytes: 0, kinds: {} as Record<string, number> };
    for (let position = 0; position < turnsAtMost && (count === null || made.items < count); position += 1) {
      let kept: Item[] = keptTurnItems(rng);
      if (count !== null) kept = kept.slice(0, count - made.items);
      const at = createdAt + position * 60_000;
      const head: TurnHead = {
        id: `${id}-turn-${position}`, threadId: id, position, question: `第 ${position + 1} 个问题：${title}，请再深入一点`,
        status: 'completed', error: null, usage, startedAt: at, endedAt: at + 30_000,
      };
      if (position === 0) store.createThread({ id, title, folder, createdAt }, head);
      else store.addTurn(head);
      store.commit({ turns: [], items: kept.map((item) => ({ turnId: head.id, item })) });
      for (const item of kept) {
        made.bytes += JSON.stringify(item).length;
        made.kinds[item.kind] = (made.kinds[item.kind] ?? 0) + 1;
      }
      made.items += kept.length;
      made.turns += 1;
      made.lastTurnId = head.id;
    }
    return made;
  };
  // Smaller threads around the long one, three of them newer: it is fourth in the list.
  for (let i = 0; i < 30; i += 1) thread(`2026-10-${String(1 + (i % 28)).padStart(2, '0')}-small${i}`, `较短的研究 ${i}`, day - (30 - i) * 86_400_000, null, 2 + (i % 5));
  const threadId = '2026-11-01-longthread';
  const big = thread(threadId, '长期研究：SQLite 在桌面应用中的可靠写入', day, items, 100_000);
  for (let i = 0; i < 3; i += 1) thread(`2026-11-2${i}-newer${i}`, `更新的研究 ${i}`, day + (20 + i) * 86_400_000 + 600 * 60_000, null, 3);
  store.close();
  if (big.items !== items) throw new Error(`filled ${big.items} items, not ${items}`);
  return { threadId, lastTurnId: big.lastTurnId, turns: big.turns, bytes: big.bytes, kinds: big.kinds };
}

export async function openingFigures(options: OpeningOptions): Promise<Figure[]> {
  const dataFolder = temporaryFolder('lm-bench-open-');
  const filled = fill(dataFolder, options.items);
  options.log(`filled: ${options.items} items in ${filled.turns} turns, ${(filled.bytes / 1048576).toFixed(1)} MB of item JSON (${Object.entries(filled.kinds).map(([kind, count]) => `${kind} ${count}`).join(', ')})`);
  const standIn = await startStandIn(() => reply.answer('好的。'));
  const home = codexHome(standIn);
  const service = await startService({ codexPath: CODEX, dataFolder, app: options.app, env: { CODEX_HOME: home, STANDIN_KEY: 'stand-in-key' } });
  const browser = await launchBrowser();
  const samples = { painted: [] as number[], dom: [] as number[], frame: [] as number[], first: [] as number[], helloStart: [] as number[], helloHandler: [] as number[], longest: [] as number[] };
  let helloBytes = 0;
  try {
    const { page, problems } = await probedPage(browser, service.url);
    const offset = await clockOffset(page);
    const entry = `.thread-entry[data-thread="${filled.threadId}"]`;
    const target = `section.turn[data-turn="${filled.lastTurnId}"] .items > .item:last-child`;
    for (let run = -1; run < options.runs; run += 1) {
      await page.goto(service.url);
      await page.locator(entry).waitFor();
      await new Promise((resolve) => setTimeout(resolve, 300));
      await resetRecorded(page, target);
      await page.click(entry);
      await page.waitForFunction(() => {
        const bench = (globalThis as unknown as { __lmBench: { afterFrame: number | null } }).__lmBench;
        return bench.afterFrame !== null;
      }, null, { timeout: 30_000 });
      // Element Timing entries are delivered after the frame that painted them.
      await new Promise((resolve) => setTimeout(resolve, 300));
      const seen = await recorded(page);
      const click = seen.clicks.at(-1)?.event;
      if (click === undefined || seen.arrived === null || seen.afterFrame === null) throw new Error('the click or the item was not seen');
      const painted = seen.painted.length > 0 ? Math.max(...seen.painted) : Number.NaN;
      const hello = seen.handlers.find((handler) => handler.kind === 'hello' && handler.start >= click);
      const tasks = seen.longTasks.filter((task) => task.start + task.duration >= click);
      const sample = {
        painted: painted - click, dom: seen.arrived - click, frame: seen.afterFrame - click,
        helloStart: (hello?.start ?? Number.NaN) - click, helloHandler: hello?.duration ?? Number.NaN,
        longest: Math.max(0, ...tasks.map((task) => task.duration)),
      };
      helloBytes = hello?.bytes ?? 0;
      options.log(`open ${run < 0 ? 'warm-up' : `run ${run + 1}`}: click → painted ${sample.painted.toFixed(0)} ms (in DOM ${sample.dom.toFixed(0)}, next frame done ${sample.frame.toFixed(0)}); snapshot handler starts at ${sample.helloStart.toFixed(0)} ms and takes ${sample.helloHandler.toFixed(0)} ms; longest task ${sample.longest.toFixed(0)} ms`);
      if (run === -1) {
        samples.first.push(sample.painted);
        continue;
      }
      for (const key of ['painted', 'dom', 'frame', 'helloStart', 'helloHandler', 'longest'] as const) samples[key].push(sample[key]);
    }
    // The service's share: reading the thread and sending it, to the last byte, without a browser.
    const served: number[] = [];
    for (let i = 0; i < options.runs; i += 1) {
      const begun = now();
      const status = await new Promise<number>((resolve, reject) => {
        const outgoing = request({ host: '127.0.0.1', port: service.port, path: `/api/threads/${filled.threadId}`, agent: false }, (response) => {
          response.resume();
          response.on('end', () => resolve(response.statusCode ?? 0));
        });
        outgoing.on('error', reject);
        outgoing.end();
      });
      if (status !== 200) throw new Error(`GET thread: ${status}`);
      served.push(now() - begun);
    }
    if (options.profile) {
      await page.goto(service.url);
      await page.locator(entry).waitFor();
      await resetRecorded(page, target);
      const file = join(options.profile, 'page-open-thread.cpuprofile');
      const { profile } = await profilePage(page, file, async () => {
        await page.click(entry);
        await page.waitForFunction(() => (globalThis as unknown as { __lmBench: { afterFrame: number | null } }).__lmBench.afterFrame !== null, null, { timeout: 30_000 });
      });
      options.log(`page profile, opening the thread (${file}):\n${summarise(profile)}`);
    }
    const unique = [...new Set(problems)];
    if (unique.length > 0) options.log(`page problems (${problems.length}, ${unique.length} different): ${unique.join('; ')}`);
    const painted = samples.painted.every(Number.isNaN) ? samples.frame : samples.painted;
    const size = Math.max(1, Math.round(options.runs / 4));
    return [
      {
        name: `open ${options.items} items: click → newest painted`, unit: 'ms', runs: blocks(painted, size), goal: { limit: 300, atMost: true, text: '≤ 300 ms' },
        note: `${samples.painted.every(Number.isNaN) ? 'next frame after the item entered the DOM (Element Timing gave nothing)' : 'Element Timing renderTime of the newest item\'s text'}; first open after the service started: ${samples.first[0]?.toFixed(0)} ms; clock offset ±${offset.uncertainty.toFixed(2)} ms`,
      },
      { name: `open ${options.items}: click → snapshot handler starts`, unit: 'ms', runs: blocks(samples.helloStart, size), note: `the snapshot (hello event) is ${(helloBytes / 1048576).toFixed(2)} MB of JSON` },
      { name: `open ${options.items}: snapshot handler (parse, draw)`, unit: 'ms', runs: blocks(samples.helloHandler, size) },
      { name: `open ${options.items}: click → newest item in the DOM`, unit: 'ms', runs: blocks(samples.dom, size) },
      { name: `open ${options.items}: longest task while opening`, unit: 'ms', runs: blocks(samples.longest, size) },
      { name: `open ${options.items}: GET the thread, no browser`, unit: 'ms', runs: blocks(served, size) },
    ];
  } finally {
    await browser.close();
    service.child.kill('SIGTERM');
    await service.exited;
    if (options.profile) await profileService(dataFolder, filled.threadId, options.profile, options.app, options.log).catch((error) => options.log(`service profile failed: ${error}`));
    await standIn.close();
    for (const folder of [home, dataFolder]) rmSync(folder, { recursive: true, force: true });
  }
}

/** The service's side of opening, profiled: the same store, a service under --cpu-prof, the thread read five times. */
async function profileService(dataFolder: string, threadId: string, folder: string, app: string | undefined, log: (line: string) => void): Promise<void> {
  const service = await startService({ codexPath: '/bin/false', dataFolder, app, env: { NODE_OPTIONS: `--cpu-prof --cpu-prof-dir=${folder} --cpu-prof-interval=100` } });
  for (let i = 0; i < 5; i += 1) await service.request('GET', `/api/threads/${threadId}`);
  service.child.kill('SIGTERM');
  await service.exited;
  const written = readdirSync(folder).filter((name) => name.startsWith('CPU.') && name.endsWith('.cpuprofile'));
  const file = join(folder, written.sort().at(-1)!);
  log(`service profile, reading the thread five times (${file}):\n${summarise(JSON.parse(readFileSync(file, 'utf8')) as CpuProfile)}`);
}

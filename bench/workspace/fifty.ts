// Fifty pages on one running turn. The fake app-server streams deltas that say when they were
// sent; each of 49 reading pages stamps each delta as it arrives, and a fiftieth connection reads
// its snapshot and then nothing more. Figures: from a delta's sending to the last page having it,
// and how far apart the pages are; then, with deltas big enough that the stalled page overflows the
// kernel's buffers and the hub's limit, the service's resident memory with and without it; a page
// opening the thread three quarters into a 12 MiB answer, which is read back for its snapshot; and
// that answer completed with its whole text, as Codex does.
//
// The pages are either bare event-stream clients in this process ('taps') or real pages in
// headless Chromium ('tabs', one browser, 49 tabs).
import { connect, type Socket } from 'node:net';
import { rmSync } from 'node:fs';
import { eventSocket, fakeCodex, startService, temporaryFolder, until, type Running } from '../../tests/harness/service.ts';
import { Tap, upgradeRequest } from './tap.ts';
import { launchBrowser, type Page } from '../../tests/harness/browser.ts';
import { MAX_QUEUED_BYTES } from '../../resources/app/workspace/http/events.ts';
import { residentMemory } from './memory.ts';
import { median, quantile, type Figure } from './figures.ts';
import type { PageEvent } from '../../resources/app/workspace/model.ts';

export interface FiftyOptions {
  clients: 'taps' | 'tabs';
  runs: number;
  app?: string;
  log(line: string): void;
}

const READERS = 49;
const settle = (ms: number) => new Promise((resolve) => setTimeout(resolve, ms));

/** A page's view of the deltas: each one's head ("index:sent:") and when it arrived. */
interface Arrivals { heads: string[]; times: number[] }

async function withService<T>(stream: string, app: string | undefined, work: (service: Running, id: string) => Promise<T>, completion = ''): Promise<T> {
  const fake = temporaryFolder('lm-bench-fake-');
  const service = await startService({ codexPath: fakeCodex(fake), app, env: { FAKE_CODEX_STREAM: stream, FAKE_CODEX_COMPLETE: completion } });
  service.child.setMaxListeners(0);
  try {
    const created = await service.request('POST', '/api/threads', { question: 'first' });
    const id: string = created.body.thread.id;
    const first = service.stream(id);
    await first.wait('turn', (event) => event.turn.status === 'completed');
    first.close();
    return await work(service, id);
  } finally {
    service.child.kill('SIGTERM');
    await service.exited;
    for (const folder of [fake, service.dataFolder]) rmSync(folder, { recursive: true, force: true });
  }
}

/** A connection that reads the snapshot and then stops reading. */
async function stalledPage(service: Running, id: string): Promise<Socket> {
  const socket = connect(service.port, '127.0.0.1');
  socket.write(upgradeRequest(service.port, `/api/events?thread=${id}`));
  await new Promise<void>((resolve) => socket.once('data', () => { socket.pause(); resolve(); }));
  return socket;
}

/** Whether the service let the stalled page go: read now, its stream ends (or never does). */
async function wasDropped(socket: Socket): Promise<boolean> {
  let closed = false;
  socket.on('close', () => { closed = true; }).on('error', () => {});
  socket.resume();
  return until('the stalled page\'s end', () => closed, 5000).then(() => true, () => false).finally(() => socket.destroy());
}

/** Watches for the turn's end; a reader the hub let go watches no more. */
const turnOver = (taps: Tap[], id: string) => () => taps.every((tap) => tap.ended
  || tap.events.some((event) => event.type === 'threadSummary' && event.thread.id === id && !event.thread.running));

/** Tabs: the real page, each delta stamped once the page's own handler has taken it. */
const STAMP = `(() => {
  const stamps = { heads: [], times: [] };
  Object.defineProperty(globalThis, '__lmDeltas', { value: stamps });
  const add = EventTarget.prototype.addEventListener;
  WebSocket.prototype.addEventListener = function (type, listener, options) {
    if (type !== 'message' || typeof listener !== 'function') return add.call(this, type, listener, options);
    return add.call(this, type, function (event) {
      listener.call(this, event);
      const head = event.data.startsWith('{"type":"delta"') ? /"text":"(.{0,32})/.exec(event.data.slice(0, 400)) : null;
      if (head) {
        stamps.heads.push(head[1]);
        stamps.times.push(performance.timeOrigin + performance.now());
      }
    }, options);
  };
})();`;

async function latencyRun(options: FiftyOptions, deltas: number): Promise<{ all: number[]; spread: number[]; first: number[]; missing: number; dropped: boolean; rss: [number, number] }> {
  return withService(`${deltas}x120x20`, options.app, async (service, id) => {
    const browser = options.clients === 'tabs' ? await launchBrowser() : null;
    try {
      let read: () => Promise<Arrivals[]>;
      if (browser) {
        // One profile for all the tabs, as a user has: the event streams are WebSockets, which do
        // not take from the six HTTP/1.1 connections a browser keeps to one host.
        const pages: Page[] = [];
        const context = await browser.newContext({ viewport: { width: 1000, height: 700 } });
        await context.addInitScript({ content: STAMP });
        for (let i = 0; i < READERS; i += 1) {
          const page = await context.newPage();
          await page.goto(`${service.url}#${id}`);
          pages.push(page);
        }
        await Promise.all(pages.map((page) => page.locator('section.turn').first().waitFor()));
        read = () => Promise.all(pages.map((page) => page.evaluate<Arrivals>('globalThis.__lmDeltas')));
      } else {
        const taps = Array.from({ length: READERS }, () => new Tap(service.port, id));
        await until('every page\'s snapshot', () => taps.every((tap) => tap.events.length > 0));
        read = async () => taps;
      }
      const stalled = await stalledPage(service, id);
      await settle(1000);
      const before = residentMemory(service.child.pid!).rss;
      const watch = new Tap(service.port, id);
      await until('the watcher\'s snapshot', () => watch.events.length > 0);
      await service.request('POST', `/api/threads/${id}/turns`, { question: 'stream' });
      await until('the turn to end', turnOver([watch], id), 120_000);
      await settle(500);
      const after = residentMemory(service.child.pid!).rss;
      watch.close();
      const pages = await read();
      const all: number[] = [];
      const spread: number[] = [];
      const first: number[] = [];
      let missing = 0;
      for (let index = 0; index < deltas; index += 1) {
        const arrivals: number[] = [];
        let sent = Number.NaN;
        for (const page of pages) {
          const at = page.heads.findIndex((head) => head.startsWith(`${index}:`));
          if (at < 0) { missing += 1; continue; }
          sent = Number(page.heads[at]!.split(':')[1]);
          arrivals.push(page.times[at]!);
        }
        if (arrivals.length === 0) continue;
        all.push(Math.max(...arrivals) - sent);
        first.push(Math.min(...arrivals) - sent);
        spread.push(Math.max(...arrivals) - Math.min(...arrivals));
      }
      return { all, spread, first, missing, dropped: await wasDropped(stalled), rss: [before, after] };
    } finally {
      await browser?.close();
    }
  });
}

/** A page opening the thread: from its connection to its snapshot's arrival, and how long the running answer was in it. */
async function openedPage(service: Running, id: string): Promise<{ ms: number; chars: number }> {
  const started = performance.now();
  const socket = eventSocket(service.port, id);
  const data = await new Promise<string>((resolve) => socket.addEventListener('message', (message) => resolve(message.data as string), { once: true }));
  const ms = performance.now() - started;
  socket.close();
  const hello = JSON.parse(data) as Extract<PageEvent, { type: 'hello' }>;
  const item = hello.thread?.turns.at(-1)?.items[0];
  return { ms, chars: item?.kind === 'answer' ? item.text.length : 0 };
}

/**
 * Big deltas: the stalled page overflows its connection and the hub's limit; resident memory
 * sampled throughout. openAt: after so many deltas, another page opens the thread; completion:
 * 'whole' to have the answer completed with its whole text, as Codex does.
 */
async function memoryRun(options: FiftyOptions, stall: boolean, readers = READERS, openAt?: number, completion?: 'whole'): Promise<{
  before: number; peak: number; after: number; dropped: boolean | null; complete: number; opened?: { ms: number; chars: number };
}> {
  const count = 192;
  const size = 64 << 10;
  return withService(`${count}x${size}x30`, options.app, async (service, id) => {
    const taps = Array.from({ length: readers }, () => new Tap(service.port, id));
    await until('every page\'s snapshot', () => taps.every((tap) => tap.events.length > 0));
    const stalled = stall ? await stalledPage(service, id) : null;
    await settle(1000);
    const pid = service.child.pid!;
    const before = residentMemory(pid).rss;
    let peak = before;
    const sampler = setInterval(() => { peak = Math.max(peak, residentMemory(pid).rss); }, 50);
    await service.request('POST', `/api/threads/${id}/turns`, { question: 'stream' });
    let opened: { ms: number; chars: number } | undefined;
    if (openAt !== undefined) {
      await until('the answer to be long enough', () => taps[0]!.heads.length >= openAt, 120_000);
      opened = await openedPage(service, id);
    }
    await until('the turn to end', turnOver(taps, id), 120_000);
    clearInterval(sampler);
    await settle(1000);
    const after = residentMemory(pid).rss;
    const complete = taps.filter((tap) => !tap.ended && tap.heads.length === count + 1).length;
    taps.forEach((tap) => tap.close());
    return { before, peak, after, dropped: stalled ? await wasDropped(stalled) : null, complete, opened };
  }, completion);
}

/** How many tabs of one profile load the page on one thread before the next one cannot. */
async function tabsInOneProfile(app: string | undefined, log: (line: string) => void): Promise<number> {
  return withService('0x0x0', app, async (service, id) => {
    const browser = await launchBrowser();
    try {
      const context = await browser.newContext();
      for (let i = 0; i < 12; i += 1) {
        const page = await context.newPage();
        const loaded = await page.goto(`${service.url}#${id}`, { timeout: 5000 }).then(() => true, () => false);
        if (!loaded) {
          log(`one profile: tab ${i + 1} did not load in 5 s with ${i} tabs open on the workspace`);
          return i;
        }
      }
      return 12;
    } finally {
      await browser.close();
    }
  });
}

export async function fiftyFigures(options: FiftyOptions): Promise<Figure[]> {
  const inOneProfile = options.clients === 'tabs' ? await tabsInOneProfile(options.app, options.log) : null;
  const deltas = 200;
  const label = options.clients === 'tabs' ? `${READERS} Chromium tabs` : `${READERS} event-stream clients`;
  const all: number[][] = [];
  const spread: number[][] = [];
  const first: number[][] = [];
  const rss: string[] = [];
  for (let run = 0; run < options.runs; run += 1) {
    const result = await latencyRun(options, deltas);
    all.push(result.all);
    spread.push(result.spread);
    first.push(result.first);
    rss.push(`${result.rss[0].toFixed(1)} → ${result.rss[1].toFixed(1)}`);
    options.log(`fifty (${label} + 1 stalled), run ${run + 1}: delta → all pages median ${median(result.all).toFixed(1)} ms, p90 ${quantile(result.all, 0.9).toFixed(1)}, worst ${Math.max(...result.all).toFixed(1)}; spread median ${median(result.spread).toFixed(1)} ms, worst ${Math.max(...result.spread).toFixed(1)}; ${result.missing} deltas missing (the stalled connection holds its few KB in its buffers); service resident ${rss.at(-1)} MB`);
  }
  const memory: { stall: boolean; before: number; peak: number; after: number; dropped: boolean | null; complete: number }[] = [];
  // Memory is measured with event-stream clients only: 12 MiB drawn in 49 tabs is another benchmark.
  for (let run = 0; run < (options.clients === 'tabs' ? 0 : options.runs); run += 1) {
    for (const stall of [false, true]) {
      const result = await memoryRun(options, stall);
      memory.push({ stall, ...result });
      options.log(`fifty, 12 MiB answer, ${stall ? 'one page stalled' : 'no page stalled'}, run ${run + 1}: service resident ${result.before.toFixed(1)} → peak ${result.peak.toFixed(1)} → ${result.after.toFixed(1)} MB; readers with every delta: ${result.complete} of ${READERS}${stall ? `; stalled page dropped: ${result.dropped}` : ''}`);
    }
  }
  // One reader: what the answer itself costs the service, the journal's writes included.
  const alone: { before: number; peak: number }[] = [];
  for (let run = 0; run < (options.clients === 'tabs' ? 0 : options.runs); run += 1) {
    alone.push(await memoryRun(options, false, 1));
    options.log(`one page, 12 MiB answer, run ${run + 1}: service resident ${alone.at(-1)!.before.toFixed(1)} → peak ${alone.at(-1)!.peak.toFixed(1)} MB`);
  }
  // A reload three quarters into the answer: its snapshot has the answer so far read back.
  const reloads: { before: number; peak: number; opened: { ms: number; chars: number } }[] = [];
  for (let run = 0; run < (options.clients === 'tabs' ? 0 : options.runs); run += 1) {
    const result = await memoryRun(options, false, 1, 144);
    reloads.push({ ...result, opened: result.opened! });
    options.log(`one page, 12 MiB answer, a second opening the thread at delta 144, run ${run + 1}: snapshot in ${result.opened!.ms.toFixed(1)} ms with ${(result.opened!.chars / 1048576).toFixed(1)} Mi characters of the answer; service resident ${result.before.toFixed(1)} → peak ${result.peak.toFixed(1)} MB`);
  }
  // Completed with its whole text, as Codex does: the settling on top of the streaming.
  const settling: { before: number; peak: number; after: number; complete: number }[] = [];
  for (let run = 0; run < (options.clients === 'tabs' ? 0 : options.runs); run += 1) {
    settling.push(await memoryRun(options, false, 1, undefined, 'whole'));
    const { before, peak, after, complete } = settling.at(-1)!;
    options.log(`one page, 12 MiB answer completed whole, run ${run + 1}: service resident ${before.toFixed(1)} → peak ${peak.toFixed(1)} → ${after.toFixed(1)} MB; page let go: ${complete !== 1}`);
  }
  const of = (stall: boolean, key: 'before' | 'peak' | 'after') => [memory.filter((each) => each.stall === stall).map((each) => each[key])];
  const figures: Figure[] = [
    ...(inOneProfile === null ? [] : [{ name: 'tabs of one browser profile that load the workspace', unit: 'tabs', runs: [[inOneProfile]], note: 'tried up to 12, each given 5 s to load; an event stream over HTTP held one of the six connections a browser keeps to one host' }]),
    { name: `fifty pages: delta → all ${READERS} readers have it`, unit: 'ms', runs: all, note: `${label} and one stalled connection on one turn of ${deltas} deltas of 120 characters, 20 ms apart, from the fake app-server; sent and received stamped on the wall clock of two processes; service resident before → after: ${rss.join('; ')} MB` },
    { name: 'fifty pages: delta → all readers, worst', unit: 'ms', runs: all, statistic: 'max' },
    { name: 'fifty pages: delta → first reader', unit: 'ms', runs: first },
    { name: 'fifty pages: spread first → last reader', unit: 'ms', runs: spread },
    { name: 'fifty pages: spread, worst', unit: 'ms', runs: spread, statistic: 'max' },
  ];
  if (memory.length === 0) return figures;
  return [
    ...figures,
    { name: 'fifty, 12 MiB answer, no stall: resident before', unit: 'MB', runs: of(false, 'before'), note: `${READERS} event-stream clients; 192 deltas of 64 KiB, 30 ms apart; VmRSS of the service` },
    { name: 'fifty, 12 MiB answer, no stall: resident peak', unit: 'MB', runs: of(false, 'peak'), statistic: 'max', note: 'VmRSS sampled every 50 ms while streaming' },
    { name: 'fifty, 12 MiB answer, no stall: resident after', unit: 'MB', runs: of(false, 'after') },
    { name: 'fifty, 12 MiB answer, one stalled: resident before', unit: 'MB', runs: of(true, 'before') },
    { name: 'fifty, 12 MiB answer, one stalled: resident peak', unit: 'MB', runs: of(true, 'peak'), statistic: 'max', note: `the hub lets a page go past ${MAX_QUEUED_BYTES / 1048576} MiB queued; stalled page dropped in ${memory.filter((each) => each.dropped).length} of ${memory.filter((each) => each.stall).length} runs; readers with every delta per run: ${memory.map((each) => each.complete).join(', ')} of ${READERS}` },
    { name: 'fifty, 12 MiB answer, one stalled: resident after', unit: 'MB', runs: of(true, 'after') },
    { name: 'one page, 12 MiB answer: resident peak − before', unit: 'MB', runs: [alone.map((each) => each.peak - each.before)], statistic: 'max', goal: { limit: 20, atMost: true, text: '≤ 20 MB' }, note: 'one event-stream client, the same deltas; VmRSS sampled every 50 ms' },
    { name: 'a page opening that answer at 9 MiB: connection → snapshot', unit: 'ms', runs: [reloads.map((each) => each.opened.ms)], note: 'its hello frame read whole, not parsed' },
    { name: 'the same: resident peak − before', unit: 'MB', runs: [reloads.map((each) => each.peak - each.before)], statistic: 'max' },
    { name: 'one page, 12 MiB answer completed whole: resident peak − before', unit: 'MB', runs: [settling.map((each) => each.peak - each.before)], statistic: 'max', note: 'the fake app-server completes it with all it streamed, as Codex does' },
  ];
}

// The page as the benchmarks see it: the real page in Debian's Chromium with the probe injected,
// and the offset between the page's clock and this process's, measured rather than assumed.
import { fileURLToPath } from 'node:url';
import { openPage, type Browser, type Page } from '../../tests/harness/browser.ts';

const PROBE = fileURLToPath(new URL('./probe.js', import.meta.url));

/** What probe.js records; all times on the page's clock (milliseconds since the epoch). */
export interface Recorded {
  seen: Record<string, number>;
  longTasks: { start: number; duration: number }[];
  longFrames: { duration: number; scripts: number; rendering: number }[];
  handlers: { start: number; duration: number; bytes: number; kind: string }[];
  observerCost: number[];
  clicks: { event: number; handled: number }[];
  hashChanges: number[];
  target: string | null;
  arrived: number | null;
  frame: number | null;
  afterFrame: number | null;
  painted: number[];
}

export const now = () => performance.timeOrigin + performance.now();

export async function probedPage(browser: Browser, url: string): Promise<{ page: Page; problems: string[] }> {
  const opened = await openPage(browser, 'about:blank');
  await opened.page.addInitScript({ path: PROBE });
  await opened.page.goto(url);
  return opened;
}

/**
 * The page's clock minus ours. Both are the wall clock at process start plus a monotonic clock,
 * so they may differ by a constant; it is estimated from the round trip with the least delay,
 * and is uncertain by half of that round trip.
 */
export async function clockOffset(page: Page): Promise<{ offset: number; uncertainty: number }> {
  let best = { rtt: Number.POSITIVE_INFINITY, offset: 0 };
  for (let i = 0; i < 40; i += 1) {
    const before = now();
    const inPage = await page.evaluate(() => performance.timeOrigin + performance.now());
    const after = now();
    if (after - before < best.rtt) best = { rtt: after - before, offset: inPage - (before + after) / 2 };
  }
  return { offset: best.offset, uncertainty: best.rtt / 2 };
}

export function recorded(page: Page): Promise<Recorded> {
  return page.evaluate(() => {
    const bench = (globalThis as unknown as { __lmBench: Recorded }).__lmBench;
    return JSON.parse(JSON.stringify(bench)) as Recorded;
  });
}

/** Forgets what was recorded so far: the next measurement starts clean. */
export function resetRecorded(page: Page, target: string | null = null): Promise<void> {
  return page.evaluate((selector) => {
    const bench = (globalThis as unknown as { __lmBench: Recorded }).__lmBench;
    for (const key of ['longTasks', 'longFrames', 'handlers', 'observerCost', 'clicks', 'hashChanges', 'painted'] as const) bench[key].length = 0;
    bench.seen = Object.create(null) as Record<string, number>;
    bench.target = selector;
    bench.arrived = bench.frame = bench.afterFrame = null;
  }, target);
}

// Where a long task's time goes in the browser: a Chromium trace (from playwright-core's
// startTracing) reduced to the page's main-thread tasks over 50 ms and, within them, each kind of
// work's own time (style, layout, pre-paint, paint, scripts ...), children's time taken out.
import { readFileSync } from 'node:fs';
import type { Browser, Page } from '../../tests/harness/browser.ts';

interface TraceEvent {
  name: string;
  ph: string;
  ts: number;
  dur?: number;
  /** The thread's own processor time, which a loaded machine does not stretch. */
  tdur?: number;
  pid: number;
  tid: number;
  args?: { name?: string };
}

export const TRACE_CATEGORIES = ['devtools.timeline', 'disabled-by-default-devtools.timeline', 'blink', 'v8.execute'];
const LONG_US = 50_000;

/** Records a trace of the page while work runs. */
export async function tracing<T>(browser: Browser, page: Page, file: string, work: () => Promise<T>): Promise<T> {
  await browser.startTracing(page, { path: file, categories: TRACE_CATEGORIES });
  try {
    return await work();
  } finally {
    await browser.stopTracing();
  }
}

/** The long tasks of the page's main thread, and the kinds of work that filled them, in ms. */
export function summariseTrace(file: string, top = 14): string {
  const { traceEvents } = JSON.parse(readFileSync(file, 'utf8')) as { traceEvents: TraceEvent[] };
  const main = traceEvents.find((event) => event.ph === 'M' && event.name === 'thread_name' && event.args?.name === 'CrRendererMain');
  if (!main) return '  no renderer main thread in the trace';
  const events = traceEvents.filter((event) => event.pid === main.pid && event.tid === main.tid && event.ph === 'X' && event.dur !== undefined)
    .sort((a, b) => a.ts - b.ts || b.dur! - a.dur!);
  const own = new Map<string, number>();
  const tasks: number[] = [];
  const processor: number[] = [];
  /** The processor time of each task that painted a frame, in order. */
  const frames: number[] = [];
  // Nested complete events: a stack of those still open, each charged its own time only.
  let stack: { event: TraceEvent; children: number }[] = [];
  let inLong = false;
  let painted: TraceEvent | null = null;
  const close = (until: number) => {
    while (stack.length > 0 && stack.at(-1)!.event.ts + stack.at(-1)!.event.dur! <= until) {
      const { event, children } = stack.pop()!;
      if (inLong) own.set(event.name, (own.get(event.name) ?? 0) + (event.dur! - children) / 1000);
      if (stack.length > 0) stack.at(-1)!.children += event.dur!;
    }
  };
  for (const event of events) {
    close(event.ts);
    if (event.name === 'Paint' && stack.length > 0 && stack[0]!.event !== painted) {
      painted = stack[0]!.event;
      frames.push((painted.tdur ?? 0) / 1000);
    }
    if (stack.length === 0) {
      processor.push((event.tdur ?? 0) / 1000);
      inLong = event.dur! > LONG_US;
      if (inLong) tasks.push(event.dur! / 1000);
    }
    stack.push({ event, children: 0 });
  }
  close(Number.POSITIVE_INFINITY);
  const total = tasks.reduce((sum, each) => sum + each, 0);
  const rows = [...own].sort((a, b) => b[1] - a[1]).slice(0, top)
    .map(([name, ms]) => `    ${ms.toFixed(0).padStart(7)} ms  ${(ms / total * 100).toFixed(0).padStart(3)} %  ${name}`);
  // The frames' cost as the wheel goes on, an eighth of them at a time: what grows with the page.
  const eighths = Array.from({ length: 8 }, (_, at) => frames.slice(Math.floor((at * frames.length) / 8), Math.floor(((at + 1) * frames.length) / 8)))
    .map((part) => (part.reduce((sum, ms) => sum + ms, 0) / Math.max(1, part.length)).toFixed(1));
  const busy = processor.filter((ms) => ms > LONG_US / 1000);
  return `  ${tasks.length} tasks over 50 ms on the main thread (longest ${Math.max(0, ...tasks).toFixed(0)} ms), ${total.toFixed(0)} ms in all; `
    + `${busy.length} of them over 50 ms of processor time (longest ${Math.max(0, ...processor).toFixed(0)} ms, ${processor.length} tasks in all);\n`
    + `  ${frames.length} frames painted, processor time a frame by eighths of the wheel: ${eighths.join(', ')} ms; the long tasks' own time by kind:\n${rows.join('\n')}`;
}

// What the benchmarks of the store share: a store opened on a clock that times each piece of work
// it runs (the slices of the search index's build), and a store's size in pages.
import { DatabaseSync } from 'node:sqlite';
import { ThreadStore } from '../../resources/app/workspace/store/store.ts';
import type { BackendName } from '../../resources/app/workspace/store/indexBackend.ts';
import type { Clock } from '../../resources/app/workspace/clock.ts';
import { median, quantile } from './figures.ts';

/**
 * The system's clock, timing each piece of work it runs: the wall clock, and this process's
 * processor time, which a busy machine does not stretch.
 */
export function timedClock(slices: number[], cpu: number[]): Clock {
  return {
    now: () => Date.now(),
    after(ms, action) {
      const handle = setTimeout(() => {
        const start = performance.now();
        const used = process.cpuUsage();
        action();
        slices.push(performance.now() - start);
        const { user, system } = process.cpuUsage(used);
        cpu.push((user + system) / 1000);
      }, ms);
      return { cancel: () => clearTimeout(handle) };
    },
  };
}

/** The store opened with its slices timed (wall clock and processor time), and when and how fast it opened. */
export function openTimed(path: string, backend: BackendName) {
  const slices: number[] = [];
  const cpu: number[] = [];
  const began = performance.now();
  const store = ThreadStore.open(path, { search: backend, clock: timedClock(slices, cpu) });
  return { store, slices, cpu, began, opened: performance.now() - began };
}

/** Until no slice has run for half a second: the last ones empty what an older index left, after the turns are done. */
export async function slicesDone(slices: readonly number[]): Promise<void> {
  for (let count = -1; count !== slices.length; ) {
    count = slices.length;
    await new Promise((resolve) => setTimeout(resolve, 500));
  }
}

/** How many slices ran and how long they held the event loop, by wall clock and by processor time. */
export function sliceFigures(slices: readonly number[], cpu: readonly number[]): string {
  const brief = (times: readonly number[]) => `median ${median(times).toFixed(1)} ms, p99 ${quantile(times, 0.99).toFixed(1)} ms, longest ${Math.max(...times).toFixed(1)} ms`;
  return `${slices.length} slices: ${brief(slices)} (processor time: ${brief(cpu)})`;
}

/** The file's bytes, and those of its pages in use (what was dropped leaves free pages until a VACUUM). */
export function pagesOf(path: string): { file: number; used: number } {
  const db = new DatabaseSync(path, { readOnly: true });
  const pragma = (name: string) => Number(Object.values(db.prepare(`PRAGMA ${name}`).get()!)[0]);
  const [count, free, size] = [pragma('page_count'), pragma('freelist_count'), pragma('page_size')];
  db.close();
  return { file: count * size, used: (count - free) * size };
}

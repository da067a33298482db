// What the benchmarks of the store share: a clock that times each piece of work it runs (the
// slices of the search index's build), and a store's size in pages.
import { DatabaseSync } from 'node:sqlite';
import type { Clock } from '../../resources/app/workspace/clock.ts';

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

/** The file's bytes, and those of its pages in use (what was dropped leaves free pages until a VACUUM). */
export function pagesOf(path: string): { file: number; used: number } {
  const db = new DatabaseSync(path, { readOnly: true });
  const pragma = (name: string) => Number(Object.values(db.prepare(`PRAGMA ${name}`).get()!)[0]);
  const [count, free, size] = [pragma('page_count'), pragma('freelist_count'), pragma('page_size')];
  db.close();
  return { file: count * size, used: (count - free) * size };
}

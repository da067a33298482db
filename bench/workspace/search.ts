// Search on a store of years of work: 5,000 threads and 200,000 items written with the first
// version's schema (or a copy of the store given), opened (the migration timed: what the page
// waits for), its index built in the background (the slices timed: how long each holds the event
// loop), then searched with each index this Node.js has. Figures only.
//
//   node --experimental-strip-types bench/workspace/search.ts [--threads 5000] [--items 40] [--runs 15] [--backend fts5|own] [--store PATH] [--keep]
//
// Run it with the oldest Node.js too: its SQLite has no FTS5, so there it times our own index alone.
import { copyFileSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { parseArgs } from 'node:util';
import { DatabaseSync } from 'node:sqlite';
import { migrations } from '../../resources/app/workspace/store/migrations.ts';
import { hasFts5 } from '../../resources/app/workspace/store/fts5Index.ts';
import type { BackendName } from '../../resources/app/workspace/store/indexBackend.ts';
import { median, quantile } from './figures.ts';
import { openTimed, pagesOf, sliceFigures, slicesDone } from './slices.ts';

const { values } = parseArgs({
  options: {
    threads: { type: 'string', default: '5000' }, items: { type: 'string', default: '40' }, runs: { type: 'string', default: '15' },
    backend: { type: 'string' }, store: { type: 'string' }, keep: { type: 'boolean', default: false },
  },
});
const THREADS = Number(values.threads);
const ITEMS = Number(values.items);
const RUNS = Number(values.runs);
const TURNS = 4;

// A fixed pseudo-random sequence: the same store every run.
let seed = 15;
const random = () => ((seed = (seed * 1103515245 + 12345) % 2 ** 31) / 2 ** 31);
const pick = <T>(list: readonly T[]) => list[Math.floor(random() * list.length)]!;
const ZH = ['数据库', '事务', '日志', '检查点', '索引', '查询', '并发', '锁', '页面', '缓存', '量子', '纠缠', '测量', '光谱', '实验', '样本',
  '模型', '误差', '统计', '回归', '分布', '论文', '引用', '结论', '方法', '参数', '温度', '压力', '速度', '能量', '结构', '蛋白质'];
const EN = ['sqlite', 'write', 'ahead', 'journal', 'checkpoint', 'index', 'query', 'latency', 'throughput', 'sample', 'variance', 'model',
  'python', 'numpy', 'pandas', 'regression', 'protein', 'spectrum', 'entropy', 'gradient', 'matrix', 'kernel', 'buffer', 'thread'];
function sentence(words: number): string {
  let text = '';
  for (let at = 0; at < words; at += 1) {
    const roll = random();
    text += roll < 0.55 ? pick(ZH) : roll < 0.9 ? `${pick(EN)} ` : `${Math.floor(random() * 10_000)} `;
    if (random() < 0.08) text += '。';
  }
  return text;
}
function itemBody(position: number): string {
  const roll = random();
  if (roll < 0.5) return JSON.stringify({ position, status: 'completed', kind: 'answer', text: sentence(120) });
  if (roll < 0.75) return JSON.stringify({ position, status: 'completed', kind: 'reasoning', parts: [sentence(40)] });
  return JSON.stringify({
    position, status: 'completed', kind: 'command', command: `python3 analyse.py --run ${Math.floor(random() * 1000)}`,
    output: Array.from({ length: 6 }, () => `${pick(EN)} ${random().toFixed(6)} ${pick(EN)}`).join('\n'), dropped: 0, exitCode: 0, durationMs: 40,
  });
}

const folder = mkdtempSync(join(tmpdir(), 'lm-bench-search-'));
const original = values.store ?? join(folder, 'v1.db');
if (!values.store) makeFirstVersionStore(original);

function makeFirstVersionStore(path: string): void {
  const made = performance.now();
  const db = new DatabaseSync(path);
  migrations[0]!(db);
  db.exec('PRAGMA user_version = 1; BEGIN');
  const thread = db.prepare('INSERT INTO threads VALUES (?, ?, ?, NULL, ?, ?)');
  const turn = db.prepare('INSERT INTO turns VALUES (?, ?, ?, ?, ?, NULL, NULL, ?, ?)');
  const item = db.prepare('INSERT INTO items VALUES (?, ?, ?, ?)');
  let clock = Date.UTC(2024, 0, 1);
  for (let t = 0; t < THREADS; t += 1) {
    const id = `thread-${t}`;
    thread.run(id, sentence(4), `threads/${id}`, clock, clock);
    for (let u = 0; u < TURNS; u += 1) {
      clock += 60_000;
      turn.run(`${id}-${u}`, id, u, sentence(12), 'completed', clock, clock + 30_000);
      for (let i = 0; i < ITEMS / TURNS; i += 1) item.run(`${id}-${u}`, i, 'completed', itemBody(i));
    }
  }
  db.exec('COMMIT');
  db.close();
  console.log(`store of ${THREADS} threads, ${THREADS * ITEMS} items made in ${((performance.now() - made) / 1000).toFixed(1)} s`);
}

/** The file's size, and the part of it in use. */
function size(path: string): string {
  const { file, used } = pagesOf(path);
  return `${(file / 2 ** 20).toFixed(0)} MiB (${(used / 2 ** 20).toFixed(0)} MiB in use)`;
}

// Common and rare words, text found nowhere, two characters (a scan), and Chinese phrases.
const QUERIES = ['checkpoint', 'sqlite write', '检查点', '蛋白质结构', '量子', 'zq', 'no such words here', '"near" * -x', '9999', 'python3 analyse.py --run 77'];
const backends: BackendName[] = values.backend ? [values.backend as BackendName] : hasFts5() ? ['fts5', 'own'] : ['own'];
for (const backend of backends) {
  const path = join(folder, `${backend}.db`);
  copyFileSync(original, path);
  const { store: reopened, slices, cpu, began, opened } = openTimed(path, backend);
  const early = reopened.search('checkpoint');
  // Blank text is answered with the progress alone.
  while (reopened.search('\0').indexed.done < reopened.search('\0').indexed.total || slices.length === 0) {
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
  await slicesDone(slices);
  const built = performance.now() - began;
  console.log(`\n${backend} (Node.js ${process.version}): opened in ${opened.toFixed(0)} ms (a search then: ${early.results.length} hits, ${early.indexed.done} of ${early.indexed.total} turns indexed);`
    + ` index built in the background in ${(built / 1000).toFixed(1)} s, ${sliceFigures(slices, cpu)};`
    + ` store ${size(original)} → ${size(path)}`);
  for (const query of QUERIES) {
    const samples: number[] = [];
    let hits = 0;
    for (let run = 0; run < RUNS; run += 1) {
      const start = performance.now();
      hits = reopened.search(query).results.length;
      samples.push(performance.now() - start);
    }
    console.log(`  ${JSON.stringify(query).padEnd(32)} ${String(hits).padStart(3)} hits  median ${median(samples).toFixed(1).padStart(6)} ms  p90 ${quantile(samples, 0.9).toFixed(1).padStart(6)} ms`);
  }
  // While an answer streams, a flush appends what came; when it settles, it is written and indexed whole.
  const turnId = reopened.readTurns(reopened.listThreads()[0]!.id, null, 1).turns[0]!.id;
  const flushes: number[] = [];
  let text = '';
  reopened.commit({ turns: [], items: [{ turnId, item: { kind: 'answer', position: 99, status: 'running', text } }] });
  for (let flush = 0; flush < 40; flush += 1) {
    const gained = sentence(30);
    const start = performance.now();
    reopened.commit({ turns: [], items: [], tails: [{ turnId, position: 99, part: 0, at: text.length, text: gained }] });
    flushes.push(performance.now() - start);
    text += gained;
  }
  const settling = performance.now();
  reopened.commit({ turns: [], items: [{ turnId, item: { kind: 'answer', position: 99, status: 'completed', text } }] });
  console.log(`  one flush of a growing answer (${text.length} characters at the end): median ${median(flushes).toFixed(1)} ms, max ${Math.max(...flushes).toFixed(1)} ms; settled: ${(performance.now() - settling).toFixed(1)} ms`);
  reopened.close();
}
if (values.keep) console.log(`\nthe stores are left in ${folder}`);
else rmSync(folder, { recursive: true, force: true });

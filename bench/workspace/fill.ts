// Years of work in one store: 5,000 threads and 200,000 items written through the service's own
// ThreadStore, as the service would have kept them (two transactions a thread: the thread with its
// first turn, then the rest of its turns and all its items). Answers in Chinese and in English,
// Markdown with tables and code, command output, some of it long; one thread of 2,000 items.
//
// Filling takes a while, so the store is kept in the build folder under the hash of what makes it
// (this file, answers.ts, the store and its migrations); a benchmark gets a copy of its own.
//
//   node --experimental-strip-types bench/workspace/fill.ts [--refill]
import { createHash } from 'node:crypto';
import { cpSync, existsSync, mkdirSync, readFileSync, renameSync, rmSync, statSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { ThreadStore } from '../../resources/app/workspace/store/store.ts';
import type { Item, TurnHead } from '../../resources/app/workspace/model.ts';
import { SOURCE, temporaryFolder } from '../../tests/harness/service.ts';
import { random } from './answers.ts';

export const THREADS = 5000;
export const ITEMS = 200_000;
export const LONG_THREAD_ITEMS = 2000;

export interface Filled {
  /** The cached store's folder: copy it, never run a service on it. */
  folder: string;
  threads: number;
  items: number;
  turns: number;
  longThreadId: string;
  longLastTurnId: string;
  /** How long filling took when the cache was made, and the store's size on disk. */
  fillSeconds: number;
  databaseBytes: number;
  /** Words to search for: how many threads hold each, from common to rare, and some held by none. */
  words: { word: string; script: 'latin' | 'cjk'; threads: number }[];
}

// ---- the text ----

const LATIN = ('sqlite journal checkpoint vacuum index latency throughput replica quorum consensus raft paxos gossip '
  + 'tokenizer embedding transformer attention gradient optimizer regularization dropout benchmark profiler flamegraph '
  + 'allocator fragmentation mmap pagecache writeback fsync kernel scheduler cgroup namespace seccomp sandbox '
  + 'protein enzyme genome sequencing phylogeny microbiome metabolism ribosome mitochondria chloroplast '
  + 'inflation elasticity tariff arbitrage liquidity volatility derivative portfolio regression heteroskedasticity '
  + 'glacier permafrost aerosol monsoon isotope sediment basalt tectonic erosion aquifer '
  + 'compiler parser lexer bytecode interpreter garbage collector closure coroutine continuation monad '
  + 'typescript rust kotlin haskell erlang elixir clojure ocaml fortran cobol').split(' ');
const RARE_LATIN = ['zygomorphic', 'quinquennial', 'sesquipedalian', 'obfuscatory', 'heliotrope', 'perihelion', 'anastomosis', 'xylography'];
const CJK = ('数据库 预写日志 检查点 索引 延迟 吞吐量 副本 共识 分词器 向量 注意力 梯度 优化器 正则化 基准测试 性能分析 '
  + '内存分配 碎片 页缓存 调度器 沙箱 蛋白质 基因组 测序 系统发育 微生物 代谢 核糖体 线粒体 叶绿体 通货膨胀 弹性 关税 '
  + '套利 流动性 波动率 衍生品 投资组合 回归 冰川 永久冻土 气溶胶 季风 同位素 沉积物 玄武岩 构造 侵蚀 含水层 '
  + '编译器 解析器 字节码 解释器 垃圾回收 闭包 协程').split(' ');
const RARE_CJK = ['鹦鹉螺', '琉璃瓦', '饕餮纹', '榫卯结构', '皮影戏', '青铜器'];
const ABSENT = ['qwertyuiopz', '不存在的词语'];

const ENGLISH = [
  'The {0} behaves differently once the {1} is under load, so we measured both before changing anything.',
  'In short, {0} trades {1} for simpler recovery; the numbers below show when that pays off.',
  'A careful reading of the {0} literature suggests the {1} effect is smaller than the headline figures claim.',
  'We reran the {0} experiment three times; the {1} stayed within two percent each time.',
  'If the {0} is misconfigured, the {1} silently degrades and nothing in the logs says so.',
];
const CHINESE = [
  '在高负载下，{0}的表现与{1}明显不同，所以我们在改动之前先把两者都测了一遍。',
  '简单地说，{0}用{1}换来了更简单的恢复过程；下面的数据说明什么时候值得这样做。',
  '仔细阅读关于{0}的文献后会发现，{1}的影响比标题里的数字要小得多。',
  '我们把{0}实验重复了三次，{1}每次的差别都在百分之二以内。',
  '如果{0}配置错了，{1}会悄悄变差，而日志里什么也看不出来。',
];

/** Common words often, rare ones seldom: an index skewed towards the start of the list. */
const pick = <T>(rng: () => number, list: readonly T[]) => list[Math.floor(rng() ** 2 * list.length)]!;
/** The words the thread being written holds so far: what each search word should find. */
const used = new Set<string>();
const word = (rng: () => number, list: readonly string[]) => {
  const chosen = pick(rng, list);
  used.add(chosen);
  return chosen;
};

function sentence(rng: () => number, chinese: boolean): string {
  const words = chinese ? CJK : LATIN;
  const template = pick(rng, chinese ? CHINESE : ENGLISH);
  let text = template.replace('{0}', word(rng, words)).replace('{1}', word(rng, words));
  if (rng() < 0.002) text += chinese ? `另见${word(rng, RARE_CJK)}。` : ` See also ${word(rng, RARE_LATIN)}.`;
  return text;
}

function paragraph(rng: () => number, chinese: boolean, sentences: number): string {
  return Array.from({ length: sentences }, () => sentence(rng, chinese)).join(chinese ? '' : ' ');
}

/** A Markdown answer of about `size` characters: headings, paragraphs, lists, tables, code. */
function answer(rng: () => number, chinese: boolean, size: number): string {
  const parts: string[] = [];
  let length = 0;
  while (length < size) {
    const roll = rng();
    let part: string;
    if (roll < 0.12) part = `## ${word(rng, chinese ? CJK : LATIN)}`;
    else if (roll < 0.6) part = paragraph(rng, chinese, 1 + Math.floor(rng() * 4));
    else if (roll < 0.78) part = Array.from({ length: 2 + Math.floor(rng() * 4) }, () => `- **${word(rng, chinese ? CJK : LATIN)}**: ${sentence(rng, chinese)}`).join('\n');
    else if (roll < 0.88) {
      const rows = Array.from({ length: 2 + Math.floor(rng() * 5) }, (_, i) => `| ${word(rng, LATIN)} | ${(rng() * 1000).toFixed(1)} | ${i} |`);
      part = `| name | value | run |\n|---|---:|---:|\n${rows.join('\n')}`;
    } else {
      const lines = Array.from({ length: 3 + Math.floor(rng() * 25) }, (_, i) => `  const ${word(rng, LATIN)}${i} = await measure('${word(rng, LATIN)}', ${i});`);
      part = `\`\`\`ts\nasync function run() {\n${lines.join('\n')}\n}\n\`\`\``;
    }
    parts.push(part);
    length += part.length + 2;
  }
  return parts.join('\n\n');
}

const COMMANDS = ['rg -n "checkpoint" src', 'ls -la data', 'python3 analyze.py --rows 10000', 'sqlite3 data.db ".schema"', 'git log --oneline -20', 'make test', 'du -sh *'];

function commandOutput(rng: () => number, size: number): string {
  const lines: string[] = [];
  for (let length = 0, i = 0; length < size; i += 1) {
    const line = rng() < 0.5
      ? `src/${word(rng, LATIN)}.ts:${10 + i}:  // ${word(rng, LATIN)} ${word(rng, LATIN)} ${i}`
      : `-rw-r--r-- 1 user user ${Math.floor(rng() * 90000)} 2024-03-${String(1 + (i % 28)).padStart(2, '0')} ${word(rng, LATIN)}-${i}.json`;
    lines.push(line);
    length += line.length + 1;
  }
  return `${lines.join('\n')}\n`;
}

/** Lengths as they come: most items short, a tenth a few thousand characters, a few very long. */
const length = (rng: () => number) => {
  const roll = rng();
  return roll < 0.75 ? 80 + Math.floor(rng() * 600) : roll < 0.97 ? 800 + Math.floor(rng() * 3000) : 8000 + Math.floor(rng() * 20000);
};

function turnItems(rng: () => number, chinese: boolean, count: number): Item[] {
  const items: Item[] = [];
  const add = (item: Record<string, unknown>) => items.push({ ...item, position: items.length, status: 'completed' } as unknown as Item);
  while (items.length < count - 1) {
    const roll = rng();
    if (roll < 0.35) add({ kind: 'reasoning', parts: [paragraph(rng, chinese, 1 + Math.floor(rng() * 3))] });
    else if (roll < 0.45) add({ kind: 'webSearch', query: `${word(rng, LATIN)} ${word(rng, LATIN)}` });
    else if (roll < 0.9) add({ kind: 'command', command: pick(rng, COMMANDS), output: commandOutput(rng, length(rng)), dropped: 0, exitCode: rng() < 0.9 ? 0 : 1, durationMs: Math.floor(rng() * 3000) });
    else add({ kind: 'fileChange', changes: [{ path: `${word(rng, LATIN)}.py`, change: 'update', diff: `@@ -1,3 +1,4 @@\n-  rows = fetch(1)\n+  rows = fetch(2)\n+  ${word(rng, LATIN)}()\n` }] });
  }
  add({ kind: 'answer', text: answer(rng, chinese, length(rng)) });
  return items;
}

// ---- the store ----

function hashOfInputs(): string {
  const hash = createHash('sha256');
  for (const file of ['bench/workspace/fill.ts', 'bench/workspace/answers.ts', 'resources/app/workspace/store/store.ts', 'resources/app/workspace/store/migrations.ts']) {
    hash.update(readFileSync(join(SOURCE, file)));
  }
  return hash.digest('hex').slice(0, 16);
}

/** How many items each thread gets: skewed, the long one fixed, summing to ITEMS. */
function itemCounts(rng: () => number, longIndex: number): number[] {
  const weights = Array.from({ length: THREADS }, () => 0.2 + rng() ** 3 * 6);
  weights[longIndex] = 0;
  const total = weights.reduce((a, b) => a + b, 0);
  const counts = weights.map((weight) => Math.max(2, Math.round((weight / total) * (ITEMS - LONG_THREAD_ITEMS))));
  counts[longIndex] = LONG_THREAD_ITEMS;
  // Rounding leaves the sum a little off: the difference goes to threads that can take it.
  for (let diff = ITEMS - counts.reduce((a, b) => a + b, 0), i = 0; diff !== 0; i = (i + 1) % THREADS) {
    if (i === longIndex || (diff < 0 && counts[i]! <= 2)) continue;
    counts[i]! += Math.sign(diff);
    diff -= Math.sign(diff);
  }
  return counts;
}

const usage = { input: 1800, cachedInput: 900, output: 500, reasoning: 120, total: 2300 };

function fillInto(folder: string): Omit<Filled, 'folder' | 'fillSeconds' | 'databaseBytes'> {
  const rng = random(15);
  const store = ThreadStore.open(join(folder, 'workspace.db'));
  const from = Date.UTC(2021, 0, 1);
  const to = Date.UTC(2026, 10, 20);
  // The long thread is among the newest: third in the list, as one in daily use would be.
  const starts = Array.from({ length: THREADS }, () => from + Math.floor(rng() * (to - from))).sort((a, b) => a - b);
  const longIndex = THREADS - 3;
  const counts = itemCounts(rng, longIndex);
  const holders = new Map<string, Set<number>>();
  let turnsWritten = 0;
  let long = { id: '', lastTurn: '' };
  for (let index = 0; index < THREADS; index += 1) {
    const chinese = rng() < 0.6;
    const createdAt = starts[index]!;
    const day = new Date(createdAt).toISOString().slice(0, 10);
    const id = `${day}-${(index * 2654435761 >>> 0).toString(16).padStart(8, '0')}`;
    const threadFolder = join('threads', id);
    mkdirSync(join(folder, threadFolder), { recursive: true });
    const turns: TurnHead[] = [];
    const items: { turnId: string; item: Item }[] = [];
    // A thread's turns come minutes to days apart; the long one's over its last weeks.
    let at = createdAt;
    for (let left = counts[index]!; left > 0; ) {
      const count = Math.min(left, 1 + Math.floor(rng() * 6));
      const turnId = `${id}-t${turns.length}`;
      const question = index === longIndex && turns.length === 0 ? '长期研究：在桌面应用里可靠地写入 SQLite' : sentence(rng, chinese);
      turns.push({ id: turnId, threadId: id, position: turns.length, question, status: 'completed', error: null, usage, startedAt: at, endedAt: at + 20_000 + Math.floor(rng() * 60_000) });
      for (const item of turnItems(rng, chinese, count)) items.push({ turnId, item });
      left -= count;
      at += Math.floor(rng() ** 3 * (index === longIndex ? 1 : 5) * 86_400_000) + 90_000;
    }
    store.createThread({ id, title: turns[0]!.question.slice(0, 60), folder: threadFolder, createdAt }, turns[0]!);
    store.commit({ turns: turns.slice(1), items });
    turnsWritten += turns.length;
    if (index === longIndex) long = { id, lastTurn: turns.at(-1)!.id };
    for (const held of used) (holders.get(held) ?? holders.set(held, new Set()).get(held)!).add(index);
    used.clear();
  }
  store.close();
  const words = [...LATIN, ...RARE_LATIN, ...CJK, ...RARE_CJK, ...ABSENT].map((each) => ({
    word: each, script: /[\u4e00-\u9fff]/.test(each) ? 'cjk' as const : 'latin' as const, threads: holders.get(each)?.size ?? 0,
  }));
  return { threads: THREADS, items: ITEMS, turns: turnsWritten, longThreadId: long.id, longLastTurnId: long.lastTurn, words };
}

/** The filled store, from the cache when what makes it has not changed; `refill` makes it anew. */
export function filledStore(log: (line: string) => void, refill = false): Filled {
  const cache = join(process.env.LM_BUILD_DIR ?? join(SOURCE, 'build'), 'bench-store', hashOfInputs());
  const meta = join(cache, 'filled.json');
  if (!refill && existsSync(meta)) return { ...(JSON.parse(readFileSync(meta, 'utf8')) as Filled), folder: cache };
  const making = `${cache}.making-${process.pid}`;
  rmSync(making, { recursive: true, force: true });
  mkdirSync(making, { recursive: true });
  log(`filling a store of ${THREADS} threads and ${ITEMS} items into ${cache} …`);
  const begun = performance.now();
  const made = fillInto(making);
  const fillSeconds = (performance.now() - begun) / 1000;
  const filled: Filled = { ...made, folder: cache, fillSeconds, databaseBytes: statSync(join(making, 'workspace.db')).size };
  writeFileSync(join(making, 'filled.json'), JSON.stringify(filled));
  rmSync(cache, { recursive: true, force: true });
  renameSync(making, cache);
  return filled;
}

/** A copy of the filled store for one service to run on (it may migrate and write it). */
export function copyOfStore(filled: Filled): string {
  const folder = temporaryFolder('lm-bench-store-');
  cpSync(filled.folder, folder, { recursive: true });
  rmSync(join(folder, 'filled.json'));
  return folder;
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  const filled = filledStore(console.log, process.argv.includes('--refill'));
  const { words, ...rest } = filled;
  console.log(JSON.stringify(rest, null, 2));
  console.log(`${words.length} search words; held by: ${words.map((word) => `${word.word} ${word.threads}`).join(', ')}`);
}

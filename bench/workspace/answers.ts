// What the stand-in streams and what the filled store holds: Markdown answers with code, command
// output, reasoning, searches and diffs, from a seeded generator so every run sees the same bytes.
// Streamed deltas each carry a marker word, so the page can say when each one reached its DOM.
import type { Item } from '../../resources/app/workspace/model.ts';

export function random(seed: number): () => number {
  let state = seed >>> 0;
  return () => {
    state = (state + 0x6d2b79f5) >>> 0;
    let t = state;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

const PROSE = '数据库在写入时先把变更记进预写日志，再更新数据页；进程被杀掉之后，下次打开时从日志重放，已经提交的事务一条也不会丢。'
  + '索引让查询按键直接找到行，但每次插入都要多写一份，所以只给真正用来查找的列建索引。'
  + '流式回答按块渲染：已经定型的段落只渲染一次，只有最后一块还在增长，因此每次追加的代价与整篇长度无关。';

function prose(rng: () => number, length: number): string {
  const start = Math.floor(rng() * (PROSE.length - length - 1));
  return PROSE.slice(start, start + length);
}

/** A marker word: which turn (tag) and which delta of it. Fixed width, letters and digits only. */
export function marker(tag: number, index: number): string {
  return `lm${String(tag % 1000).padStart(3, '0')}x${String(index).padStart(4, '0')}`;
}

export const MARKER_PATTERN = /lm\d{3}x\d{4}/;

/** A short answer of `count` deltas, each its own sentence with its marker. */
export function shortAnswer(tag: number, count: number): string[] {
  return Array.from({ length: count }, (_, index) => `第${index + 1}点：${marker(tag, index)} 是这一句的记号。`);
}

const WIDTH = 40;

function fit(head: string, tail: string, filler: string): string {
  const room = WIDTH - head.length - tail.length;
  if (room < 0) throw new Error(`piece too long: ${head}`);
  return head + filler.slice(0, room).padEnd(room, '。') + tail;
}

/**
 * A long Markdown answer cut into `count` deltas of exactly 40 characters each: headings,
 * paragraphs, lists and fenced code blocks (some of them long), every delta with its marker.
 */
export function longAnswer(tag: number, count = 500, seed = 7): string[] {
  const rng = random(seed);
  const pieces: string[] = [];
  const mark = () => marker(tag, pieces.length);
  const left = () => count - pieces.length;
  let section = 0;
  const paragraph = (sentences: number) => {
    for (let i = 0; i < sentences && left() > 1; i += 1) {
      const last = i === sentences - 1 || left() === 2;
      pieces.push(fit(`${mark()} `, last ? '\n\n' : '', prose(rng, WIDTH)));
    }
  };
  while (left() > 1) {
    section += 1;
    pieces.push(fit(`## 第${section}节 ${mark()} `, '\n\n', prose(rng, WIDTH)));
    paragraph(2 + Math.floor(rng() * 5));
    if (left() <= 1) break;
    const items = Math.min(2 + Math.floor(rng() * 4), left() - 1);
    for (let i = 0; i < items; i += 1) pieces.push(fit(`- ${mark()} `, i === items - 1 ? '\n\n' : '\n', prose(rng, WIDTH)));
    if (left() <= 3) break;
    // Code blocks of 5 to 80 lines: the last block on the page grows with each of its lines.
    const lines = Math.min(left() - 3, rng() < 0.2 ? 40 + Math.floor(rng() * 40) : 5 + Math.floor(rng() * 15));
    pieces.push(fit(`\`\`\`ts\nconst ${mark()} = open('`, `');\n`, 'workspace.db'));
    for (let i = 1; i < lines && left() > 2; i += 1) {
      pieces.push(fit(`  total += ${mark()}.step(${i}); // `, '\n', 'accumulate the next chunk of rows'));
    }
    pieces.push(fit('```\n\n', '\n\n', `${mark()} ${prose(rng, WIDTH)}`));
    paragraph(1 + Math.floor(rng() * 3));
  }
  paragraph(left() - 1);
  pieces.push(fit(`最后：${mark()} `, '\n', '以上就是全部内容，欢迎继续追问。'));
  return pieces;
}

// ---- a thread as it is kept: for filling the store ----

function markdownAnswer(rng: () => number, size: number): string {
  const parts: string[] = [];
  let length = 0;
  let section = 1;
  while (length < size) {
    const roll = rng();
    let part: string;
    if (roll < 0.15) part = `## ${section++}. ${prose(rng, 12)}\n\n`;
    else if (roll < 0.5) part = `${prose(rng, 60 + Math.floor(rng() * 120))}，见 \`store.ts\` 与 [文档](https://sqlite.org/wal.html)。\n\n`;
    else if (roll < 0.7) part = `${Array.from({ length: 2 + Math.floor(rng() * 4) }, () => `- **${prose(rng, 6)}**：${prose(rng, 30)}`).join('\n')}\n\n`;
    else if (roll < 0.8) part = `| 项目 | 数值 | 说明 |\n|---|---:|---|\n${Array.from({ length: 3 + Math.floor(rng() * 4) }, (_, i) => `| 第${i}项 | ${Math.floor(rng() * 1000)} | ${prose(rng, 12)} |`).join('\n')}\n\n`;
    else {
      const lines = 4 + Math.floor(rng() * 30);
      const code = Array.from({ length: lines }, (_, i) => `  const row${i} = db.prepare('SELECT * FROM items WHERE turn_id = ?').get(id${i}); // ${i}`);
      part = `\`\`\`ts\nfunction load(db, id) {\n${code.join('\n')}\n}\n\`\`\`\n\n`;
    }
    parts.push(part);
    length += part.length;
  }
  return parts.join('').trimEnd();
}

function commandOutput(rng: () => number, size: number): string {
  const lines: string[] = [];
  let length = 0;
  for (let i = 0; length < size; i += 1) {
    const line = rng() < 0.5
      ? `src/store/store.ts:${10 + i}:  ${prose(rng, 20)} const value${i} = read(${i});`
      : `-rw-r--r-- 1 user user ${Math.floor(rng() * 90000)} Nov 23 23:${String(i % 60).padStart(2, '0')} file-${i}.json`;
    lines.push(line);
    length += line.length + 1;
  }
  return `${lines.join('\n')}\n`;
}

const COMMANDS = ['rg -n "journal_mode" .', 'ls -la', 'python3 analyze.py --rows 10000', 'sqlite3 data.db ".schema"', 'cat README.md', 'git log --oneline -20'];

/** An item of any kind, before it has a place in its turn. */
type Unplaced = Item extends infer Each ? (Each extends Item ? Omit<Each, 'position' | 'status'> : never) : never;

/** One turn's items, in the order Codex would produce them; positions from 0. */
export function keptTurnItems(rng: () => number): Item[] {
  const items: Item[] = [];
  const push = (item: Unplaced) => items.push({ ...item, position: items.length, status: 'completed' } as Item);
  if (rng() < 0.7) push({ kind: 'reasoning', parts: Array.from({ length: 1 + Math.floor(rng() * 2) }, () => `**${prose(rng, 8)}** ${prose(rng, 80 + Math.floor(rng() * 200))}`) });
  if (rng() < 0.3) push({ kind: 'webSearch', query: `sqlite ${prose(rng, 10)}` });
  const commands = Math.floor(rng() * 4);
  for (let i = 0; i < commands; i += 1) {
    const size = rng() < 0.15 ? 4000 + Math.floor(rng() * 12000) : 100 + Math.floor(rng() * 1500);
    push({ kind: 'command', command: COMMANDS[Math.floor(rng() * COMMANDS.length)]!, output: commandOutput(rng, size), dropped: 0, exitCode: rng() < 0.9 ? 0 : 1, durationMs: Math.floor(rng() * 3000) });
  }
  if (rng() < 0.15) {
    push({ kind: 'fileChange', changes: [{ path: 'analyze.py', change: 'update', diff: `@@ -1,4 +1,6 @@\n${Array.from({ length: 12 }, (_, i) => `${i % 3 ? '+' : '-'}  rows = fetch(${i})`).join('\n')}\n` }] });
  }
  if (rng() < 0.03) push({ kind: 'notice', level: 'warning', text: '连接中断，正在重试……' });
  const size = rng() < 0.2 ? 3000 + Math.floor(rng() * 5000) : 300 + Math.floor(rng() * 1700);
  push({ kind: 'answer', text: markdownAnswer(rng, size) });
  return items;
}

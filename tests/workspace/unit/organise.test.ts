// Organising threads on a real store and a scripted Codex: two pages at once, a deletion that must
// stop a turn and touch nothing but the thread's own folder, the list a page at a time, the export.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync, renameSync, symlinkSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { DatabaseSync } from 'node:sqlite';
import { exportFileName, threadMarkdown } from '../../../resources/app/workspace/research/export.ts';
import { ThreadStore } from '../../../resources/app/workspace/store/store.ts';
import { Refusal, type RefusalReason } from '../../../resources/app/workspace/refusal.ts';
import type { Turn } from '../../../resources/app/workspace/model.ts';
import { settle } from '../../harness/clock.ts';
import { asked, deskFixture } from '../../harness/desk.ts';
import { temporaryFolder } from '../../harness/service.ts';

const refused = (reason: RefusalReason, detail = '') => (error: unknown) =>
  error instanceof Refusal && error.reason === reason && error.detail === detail;

test('of two pages renaming from the same title, the first wins and the second is told the title it lost to', () => {
  const { desk, store, events } = deskFixture();
  const { thread } = desk.create(asked('什么是 WAL？'));
  assert.equal(desk.threads.rename(thread.id, '什么是 WAL？', '  WAL\n研究 ').title, 'WAL 研究');
  assert.throws(() => desk.threads.rename(thread.id, '什么是 WAL？', '另一个标题'), refused('renamedElsewhere', 'WAL 研究'));
  assert.equal(store.summary(thread.id)!.title, 'WAL 研究');
  assert.deepEqual(events.filter((event) => event.type === 'threadSummary').map((event) => event.thread.title), ['什么是 WAL？', 'WAL 研究']);
  for (const [title, reason] of [[' \n ', 'emptyTitle'], ['长'.repeat(101), 'titleTooLong']] as const) {
    assert.throws(() => desk.threads.rename(thread.id, 'WAL 研究', title), refused(reason), title);
  }
  assert.equal(desk.threads.rename(thread.id, 'WAL 研究', '😀'.repeat(100)).title, '😀'.repeat(100), 'a hundred characters, not UTF-16 units');
});

test('deleting a running thread from two pages at once: the turn is stopped, one deletion wins, the other finds nothing', async () => {
  const { desk, store, dataFolder, codex, events } = deskFixture();
  const { thread } = desk.create(asked('一个很长的问题'));
  await settle();
  writeFileSync(join(dataFolder, 'threads', thread.id, 'notes.txt'), 'x');
  const results = await Promise.allSettled([desk.threads.remove(thread.id), desk.threads.remove(thread.id)]);
  assert.deepEqual(results.map((result) => result.status), ['fulfilled', 'rejected']);
  assert.ok(refused('noSuchThread')((results[1] as PromiseRejectedResult).reason));
  assert.ok(codex.methods().includes('turn/interrupt'));
  assert.equal(store.readThread(thread.id), null);
  assert.equal(existsSync(join(dataFolder, 'threads', thread.id)), false);
  assert.deepEqual(events.filter((event) => event.type === 'threadRemoved'), [{ type: 'threadRemoved', id: thread.id }]);
  assert.equal(desk.turns.busy, false);
  assert.throws(() => desk.threads.rename(thread.id, '一个很长的问题', '新标题'), refused('noSuchThread'));
});

test('a deletion removes the thread\'s own folder only, whatever its row says and whatever stands in its place', async () => {
  const cases: [string, (db: DatabaseSync, id: string, folder: string, outside: string) => void][] = [
    ['its row names the data folder', (db, id) => db.prepare("UPDATE threads SET folder = '.' WHERE id = ?").run(id)],
    ['its folder is one of the user\'s own', (db, id, _folder, outside) => db.prepare('UPDATE threads SET folder = ? WHERE id = ?').run(outside, id)],
    ['its folder is a link to one outside', (_db, _id, folder, outside) => {
      renameSync(folder, `${folder}.moved`);
      symlinkSync(outside, folder);
    }],
  ];
  for (const [name, tamper] of cases) {
    const { desk, dataFolder } = deskFixture();
    const { thread } = desk.create(asked('问题'));
    await settle();
    const outside = temporaryFolder('lm-outside-');
    for (const folder of [outside, dataFolder]) writeFileSync(join(folder, 'keep.txt'), 'keep');
    const db = new DatabaseSync(join(dataFolder, 'workspace.db'));
    tamper(db, thread.id, join(dataFolder, 'threads', thread.id), outside);
    db.close();
    await desk.threads.remove(thread.id);
    assert.ok([outside, dataFolder].every((folder) => existsSync(join(folder, 'keep.txt'))), name);
  }
});

test('the list a page at a time: pinned first and apart, archived apart, each thread once in order, ties and all', () => {
  const store = ThreadStore.open(':memory:');
  const times = [5, 3, 3, 3, 1, 4, 2];
  times.forEach((at, i) => store.createThread({ id: `t${i}`, title: `T${i}`, folder: `threads/t${i}`, createdAt: at }, {
    id: `u${i}`, threadId: `t${i}`, position: 0, question: 'q', status: 'completed', error: null, usage: null, startedAt: at, endedAt: at,
  }));
  store.setFlag('t5', 'pinned', true);
  store.setFlag('t0', 'archived', true);
  store.setFlag('t6', 'pinned', true);
  store.setFlag('t6', 'archived', true);
  const pages = (archived: boolean) => {
    const seen: string[][] = [];
    let after = null;
    for (let more = true; more;) {
      const page = store.listPage(archived, after, 2);
      seen.push(page.threads.map((thread) => thread.id));
      after = page.threads.at(-1) ?? null;
      more = page.more;
    }
    return seen;
  };
  assert.deepEqual(store.pinnedThreads().map((thread) => thread.id), ['t5']);
  assert.deepEqual(pages(false), [['t1', 't2'], ['t3', 't4']]);
  assert.deepEqual(pages(true), [['t0', 't6']]);
});

test('an export names the files a question carried, keeps a command\'s output inside its block whatever backticks it prints; its file name is safe', () => {
  const turn: Turn = {
    id: 'u', threadId: 't', position: 0, question: '第一行\n第二行', status: 'completed', error: null, usage: null, startedAt: 0, endedAt: 1,
    attachments: ['数据.csv', '图.png'],
    items: [
      { kind: 'command', position: 0, status: 'completed', command: 'cat a.md', output: '````\n# 不是标题', dropped: 0, exitCode: 0, durationMs: 1 },
      { kind: 'answer', position: 1, status: 'completed', text: '答案。' },
      { kind: 'webSearch', position: 2, status: 'completed', query: '', url: 'https://example.org/page' },
      { kind: 'answer', position: 3, status: 'completed', text: '见 [数据](https://example.org/page) 与 [报告](https://example.com/r)。' },
    ],
  };
  const markdown = threadMarkdown({ title: 'T', createdAt: 0, updatedAt: 1, turns: [turn] }, ['out/图 1.png']);
  // Sources once each, a page a search opened named by its domain; the folder's files by relative path.
  assert.ok(markdown.includes('**来源**\n\n- [example.org](https://example.org/page)\n- [报告](https://example.com/r)'), markdown);
  assert.ok(markdown.endsWith('## 文件\n\n- [out/图 1.png](out/%E5%9B%BE%201.png)\n'), markdown);
  assert.ok(markdown.includes('> 第一行\n> 第二行\n\n**附带的文件**\n- `数据.csv`\n- `图.png`\n\n'), markdown);
  assert.ok(markdown.includes('`````console\n$ cat a.md\n````\n# 不是标题\n`````\n\n答案。'), markdown);
  for (const [title, name] of [
    ['a/b\\c:d*e?f"g<h>i|j', 'a b c d e f g h i j.md'], ['..', 't-1.md'], ['.隐藏', '隐藏.md'], ['行\u0000\u001b尾', '行 尾.md'],
    ['长'.repeat(90), `${'长'.repeat(80)}.md`],
  ]) assert.equal(exportFileName(title!, 't-1'), name, title);
});

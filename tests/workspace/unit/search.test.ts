// Search: any text found literally and alike by both indexes, kept current while answers stream,
// forgotten with a deleted thread, and a store of the previous version upgraded whole.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { DatabaseSync } from 'node:sqlite';
import { ThreadStore } from '../../../resources/app/workspace/store/store.ts';
import { hasFts5, type SearchBackend } from '../../../resources/app/workspace/store/search.ts';
import type { Item, TurnHead } from '../../../resources/app/workspace/model.ts';
import { SOURCE, temporaryFolder } from '../../harness/service.ts';

// FTS5 where this Node.js has it; our own index always, so each Node.js tests what it can.
const backends: SearchBackend[] = hasFts5() ? ['fts5', 'own'] : ['own'];

const head = (threadId: string, position: number, question: string): TurnHead => ({
  id: `${threadId}-${position}`, threadId, position, question, status: 'completed', error: null, usage: null,
  startedAt: 1000 + position, endedAt: 2000,
});
const answer = (position: number, text: string): Item => ({ kind: 'answer', position, status: 'completed', text });

/** Three threads; a hit reads thread:turn:item (-1 the question). */
function filled(path: string, backend: SearchBackend, skip?: string): ThreadStore {
  const store = ThreadStore.open(path, undefined, backend);
  const threads: [string, string, Item[]][] = [
    ['a', 'How does SQLite WAL work?', [answer(0, `He said "hello" * NEAR(x) - don't: 100% a_b c\\d`)]],
    ['b', '量子纠缠是什么？', [answer(0, '量子纠缠是一种物理现象 🚀'), {
      kind: 'command', position: 1, status: 'completed', command: 'cat notes', output: 'ÉCOLE near (', dropped: 0, exitCode: 0, durationMs: 1,
    }]],
    ['c', 'percent', [{ kind: 'reasoning', position: 0, status: 'completed', parts: ['thinking about 100 %', 'and a_b'] }]],
  ];
  for (const [id, question, items] of threads.filter(([id]) => id !== skip)) {
    store.createThread({ id, title: id.toUpperCase(), folder: id, createdAt: 1 }, head(id, 0, question));
    store.commit({ turns: [], items: items.map((item) => ({ turnId: `${id}-0`, item })) });
  }
  return store;
}

const cases: [string, string[]][] = [
  ['"hello"', ['a:0:0']],
  ['*', ['a:0:0']],
  ['NEAR', ['b:0:1', 'a:0:0']],
  ['near(x', ['a:0:0']],
  ['- don', ['a:0:0']],
  ["don't", ['a:0:0']],
  ['%', ['c:0:0', 'a:0:0']],
  ['100%', ['a:0:0']],
  ['a_b', ['c:0:0', 'a:0:0']],
  ['_', ['c:0:0', 'a:0:0']],
  ['c\\d', ['a:0:0']],
  ['\\d', ['a:0:0']],
  ['(', ['b:0:1', 'a:0:0']],
  ['量子', ['b:0:0', 'b:0:-1']],
  ['一种物理', ['b:0:0']],
  ['sqlite wal', ['a:0:-1']],
  ['école', ['b:0:1']],
  ['🚀', ['b:0:0']],
  ['现象 🚀', ['b:0:0']],
  ['hello world', []],
  ['  ', []],
];

test('search text is found literally, any case, and alike by both indexes', () => {
  const path = join(temporaryFolder('lm-search-'), 'workspace.db');
  filled(path, backends[0]!).close();
  // Each backend in turn on the same store: opening with the other one rebuilds the index.
  for (const backend of [...backends, ...backends]) {
    const store = ThreadStore.open(path, undefined, backend);
    for (const [text, hits] of cases) {
      const found = store.search(text);
      assert.deepEqual(found.map((hit) => `${hit.threadId}:${hit.turnPosition}:${hit.itemPosition}`), hits, `${backend}: ${text}`);
      for (const hit of found) {
        // The marks are the matches in the original case, the rest is the text around them.
        const marks = hit.snippet.filter((_, at) => at % 2 === 1);
        assert.ok(marks.length > 0 && marks.every((mark) => mark.toLowerCase() === text.trim().toLowerCase()), `${backend}: ${text}`);
      }
    }
    store.close();
  }
});

// What is left of thread b's words in the index itself, which the checked search would hide.
const residue: Record<SearchBackend, string> = {
  fts5: `SELECT count(*) AS n FROM search_fts WHERE search_fts MATCH '"量子纠"'`,
  own: 'SELECT sum(length(places)) AS n FROM search_grams',
};

for (const backend of backends) {
  test(`${backend}: an answer re-written while it streams is found by its newest text once`, () => {
    const store = filled(join(temporaryFolder('lm-search-'), 'workspace.db'), backend);
    for (const text of ['Partial', 'Partial answ', 'Partial answer, then the end']) {
      store.commit({ turns: [], items: [{ turnId: 'c-0', item: answer(1, text) }] });
    }
    assert.deepEqual(store.search('partial answer').map((hit) => hit.snippet.join('')), ['Partial answer, then the end']);
    store.commit({ turns: [], items: [{ turnId: 'c-0', item: answer(1, 'Rewritten') }] });
    assert.deepEqual([store.search('partial'), store.search('rewritten').length], [[], 1]);
    store.close();
  });

  test(`${backend}: a thread deleted with plain SQL leaves no words in the index`, () => {
    const [path, without] = [join(temporaryFolder('lm-search-'), 'workspace.db'), join(temporaryFolder('lm-search-'), 'workspace.db')];
    filled(path, backend).close();
    const db = new DatabaseSync(path);
    db.exec("PRAGMA foreign_keys = ON; DELETE FROM threads WHERE id = 'b'");
    db.close();
    const store = ThreadStore.open(path, undefined, backend);
    assert.deepEqual([store.search('量子'), store.search('école')], [[], []]);
    store.close();
    filled(without, backend, 'b').close();
    const left = [path, without].map((file) => {
      const reader = new DatabaseSync(file);
      const { n } = reader.prepare(residue[backend]).get() as { n: number };
      reader.close();
      return n;
    });
    assert.deepEqual(left, [left[1], backend === 'fts5' ? 0 : left[1]]);
  });
}

test("a store made by the previous version keeps every thread, turn and item, and all of it can be found", () => {
  const path = join(temporaryFolder('lm-search-'), 'workspace.db');
  const old = new DatabaseSync(path);
  old.exec(readFileSync(join(SOURCE, 'tests/workspace/fixtures/store-v1.sql'), 'utf8'));
  const before = old.prepare('SELECT thread_id, position, question, (SELECT json_group_array(body) FROM items WHERE turn_id = turns.id) AS items FROM turns ORDER BY id').all();
  old.close();
  for (const backend of backends) {
    const store = ThreadStore.open(path, undefined, backend);
    const threads = store.listThreads();
    assert.ok(threads.every((thread) => !thread.pinned && !thread.archived && store.readThread(thread.id)!.model === null));
    const after = threads.flatMap((thread) => store.readThread(thread.id)!.turns)
      .map((turn) => ({ thread_id: turn.threadId, position: turn.position, question: turn.question, items: JSON.stringify(turn.items.map((item) => JSON.stringify(item))) }))
      .sort((x, y) => (`${x.thread_id}-u${x.position}` < `${y.thread_id}-u${y.position}` ? -1 : 1));
    assert.deepEqual(after, before.map((row) => ({ ...row })));
    const where = (text: string) => store.search(text).map((hit) => `${hit.threadId}:${hit.turnPosition}:${hit.itemPosition}`);
    assert.deepEqual([where('超光速'), where('sqlite 3.46'), where('notes.md'), where('检查点')],
      [['quantum-2:0:-1'], ['wal-1:0:1'], ['stopped-3:0:0'], ['wal-1:1:0', 'wal-1:1:-1', 'wal-1:0:2']]);
    store.close();
  }
});

// Search: any text found literally and alike by both indexes, kept current as items are rewritten,
// forgotten with a deleted thread, built in the background for an older store, and resumed.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { DatabaseSync } from 'node:sqlite';
import { ThreadStore } from '../../../resources/app/workspace/store/store.ts';
import { hasFts5 } from '../../../resources/app/workspace/store/fts5Index.ts';
import { migrations } from '../../../resources/app/workspace/store/migrations.ts';
import { addPlaces, packPlaces, unpackPlaces } from '../../../resources/app/workspace/store/places.ts';
import type { BackendName } from '../../../resources/app/workspace/store/indexBackend.ts';
import type { Item, TurnHead } from '../../../resources/app/workspace/model.ts';
import { SOURCE, temporaryFolder } from '../../harness/service.ts';
import { VirtualClock } from '../../harness/clock.ts';

// FTS5 where this Node.js has it; our own index always, so each Node.js tests what it can.
const backends: BackendName[] = hasFts5() ? ['fts5', 'own'] : ['own'];

/** The store with its index built to the end: the background work runs on a clock the test moves. */
async function indexed(path: string, backend: BackendName): Promise<ThreadStore> {
  const clock = new VirtualClock();
  const store = ThreadStore.open(path, { search: backend, clock });
  await clock.advance(60_000);
  return store;
}

const where = (store: ThreadStore, text: string) =>
  store.search(text).results.map((hit) => `${hit.threadId}:${hit.turnPosition}:${hit.itemPosition}`);

const head = (threadId: string, position: number, question: string): TurnHead => ({
  id: `${threadId}-${position}`, threadId, position, question, status: 'completed', error: null, usage: null,
  startedAt: 1000 + position, endedAt: 2000,
});
const answer = (position: number, text: string): Item => ({ kind: 'answer', position, status: 'completed', text });

/** Three threads; a hit reads thread:turn:item (-1 the question). */
function filled(path: string, backend: BackendName, skip?: string): ThreadStore {
  const store = ThreadStore.open(path, { search: backend });
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
  ['x\u{10FFFF}', []],
  ['  ', []],
];

test('search text is found literally, any case, and alike by both indexes', async () => {
  const path = join(temporaryFolder('lm-search-'), 'workspace.db');
  filled(path, backends[0]!).close();
  // Each backend in turn on the same store: opening with the other one rebuilds the index.
  for (const backend of [...backends, ...backends]) {
    const store = await indexed(path, backend);
    for (const [text, hits] of cases) {
      const found = store.search(text).results;
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
const residue: Record<BackendName, string> = {
  fts5: `SELECT count(*) AS n FROM search_fts5 WHERE search_fts5 MATCH '"量子纠"'`,
  own: 'SELECT sum(length(places)) AS n FROM search_grams',
};

for (const backend of backends) {
  test(`${backend}: an answer re-written while it streams is found by its newest text once`, () => {
    const store = filled(join(temporaryFolder('lm-search-'), 'workspace.db'), backend);
    for (const text of ['Partial', 'Partial answ', 'Partial answer, then the end']) {
      store.commit({ turns: [], items: [{ turnId: 'c-0', item: answer(1, text) }] });
    }
    assert.deepEqual(store.search('partial answer').results.map((hit) => hit.snippet.join('')), ['Partial answer, then the end']);
    store.commit({ turns: [], items: [{ turnId: 'c-0', item: answer(1, 'Rewritten') }] });
    assert.deepEqual([where(store, 'partial'), where(store, 'rewritten')], [[], ['c:0:1']]);
    store.close();
  });

  test(`${backend}: a thread deleted with plain SQL leaves no words in the index`, () => {
    const [path, without] = [join(temporaryFolder('lm-search-'), 'workspace.db'), join(temporaryFolder('lm-search-'), 'workspace.db')];
    filled(path, backend).close();
    const db = new DatabaseSync(path);
    db.exec("PRAGMA foreign_keys = ON; DELETE FROM threads WHERE id = 'b'");
    db.close();
    const store = ThreadStore.open(path, { search: backend });
    assert.deepEqual([where(store, '量子'), where(store, 'école')], [[], []]);
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

// Version 4 kept a folded copy of every text and its FTS5 index; where FTS5 is missing they are
// retired without it.
for (const [fixture, version] of [['store-v1.sql', 1], ['store-v4.sql', 4]] as const) {
  test(`a store made by version ${version} keeps every thread, turn and item, and all of it is found once its index is built`, async () => {
    const path = join(temporaryFolder('lm-search-'), 'workspace.db');
    const old = new DatabaseSync(path);
    old.exec(readFileSync(join(SOURCE, 'tests/workspace/fixtures', fixture), 'utf8'));
    const before = old.prepare('SELECT thread_id, position, question, (SELECT json_group_array(body) FROM items WHERE turn_id = turns.id) AS items FROM turns ORDER BY id').all();
    old.close();
    for (const backend of backends) {
      const store = await indexed(path, backend);
      const threads = store.listThreads();
      assert.ok(threads.every((thread) => !thread.pinned && !thread.archived && store.readThread(thread.id)!.model === null));
      const after = threads.flatMap((thread) => store.readThread(thread.id)!.turns)
        .map((turn) => ({ thread_id: turn.threadId, position: turn.position, question: turn.question, items: JSON.stringify(turn.items.map((item) => JSON.stringify(item))) }))
        .sort((x, y) => (`${x.thread_id}-u${x.position}` < `${y.thread_id}-u${y.position}` ? -1 : 1));
      assert.deepEqual(after, before.map((row) => ({ ...row })));
      assert.deepEqual([where(store, '超光速'), where(store, 'sqlite 3.46'), where(store, 'notes.md'), where(store, '检查点')],
        [['quantum-2:0:-1'], ['wal-1:0:1'], ['stopped-3:0:0'], ['wal-1:1:0', 'wal-1:1:-1', 'wal-1:0:2']]);
      assert.deepEqual(store.search('x').indexed, { done: 4, total: 4 });
      store.close();
      // Nothing of the first index is left but, without FTS5 to drop it, its name and what FTS5 needs to drop it.
      const reader = new DatabaseSync(path);
      const tables = reader.prepare("SELECT name FROM sqlite_schema WHERE type = 'table' AND (name GLOB 'retired_*' OR name GLOB 'search_fts*')").all().map((row) => row.name);
      reader.close();
      assert.deepEqual(tables, version === 4 && !hasFts5() ? ['search_fts', 'search_fts_idx', 'search_fts_config'] : backend === 'fts5' ? ['search_fts5', 'search_fts5_data', 'search_fts5_idx', 'search_fts5_docsize', 'search_fts5_config'] : []);
    }
  });
}

test('an older store is usable at once: its index is built newest turns first, says how far it got, and carries on after a close', async () => {
  const path = join(temporaryFolder('lm-search-'), 'workspace.db');
  const old = new DatabaseSync(path);
  old.exec(readFileSync(join(SOURCE, 'tests/workspace/fixtures/store-v1.sql'), 'utf8'));
  // Answers long enough that each turn is a slice of its own.
  const long = (word: string) => JSON.stringify({ position: 9, status: 'completed', kind: 'answer', text: `${'长'.repeat(300_000)} ${word}` });
  for (const [turn, word] of [['wal-1-u0', 'first'], ['quantum-2-u0', 'second'], ['stopped-3-u0', 'third']] as const) {
    old.prepare("INSERT INTO items VALUES (?, 9, 'completed', ?)").run(turn, long(word));
  }
  old.close();
  const clock = new VirtualClock();
  let store = ThreadStore.open(path, { clock });
  while (store.search('x').indexed.done === 0) await clock.advance(1);
  // Turns in the order they were asked: wal-1-u0, wal-1-u1, quantum-2-u0, stopped-3-u0.
  assert.deepEqual([store.search('x').indexed, where(store, 'third'), where(store, 'second')], [{ done: 1, total: 4 }, ['stopped-3:0:9'], []]);
  store.close();
  store = ThreadStore.open(path, { clock });
  assert.deepEqual(store.search('x').indexed, { done: 1, total: 4 });
  await clock.advance(1);
  assert.deepEqual([where(store, 'second'), where(store, '检查点'), store.search('x').indexed], [['quantum-2:0:9'], [], { done: 2, total: 4 }]);
  await clock.advance(1000);
  assert.deepEqual([where(store, 'first'), where(store, '检查点')], [['wal-1:0:9'], ['wal-1:1:0', 'wal-1:1:-1', 'wal-1:0:2']]);
  store.close();
});

test('a block\'s places come back as they went in, each once, in one or two bytes a gap or a bitmap', () => {
  const every = (step: number, count: number) => Array.from({ length: count }, (_, at) => at * step);
  // The longest list of gaps is one byte short of a bitmap. A build adds places below a row's.
  const cases: [number[], number][] = [[[], 0], [[127], 1], [[128], 2], [[4095, 0], 3], [[300, 200, 100, 0], 4], [[5, 3, 5], 2],
    [every(8, 511), 511], [every(8, 512), 512], [every(2, 2048).reverse(), 512]];
  for (const [places, bytes] of cases) {
    for (const blob of [packPlaces(places), addPlaces(packPlaces(places.slice(0, places.length >> 1)), places.slice(places.length >> 1))]) {
      assert.deepEqual([unpackPlaces(blob), blob.length], [[...new Set(places)].sort((a, b) => a - b), bytes], places.join());
    }
  }
});

test('our own index as version 8 kept it is built anew', () => {
  const path = join(temporaryFolder('lm-search-'), 'workspace.db');
  const old = ThreadStore.open(path, { migrations: migrations.slice(0, 8), search: 'own' });
  old.createThread({ id: 'a', title: 'A', folder: 'a', createdAt: 1 }, head('a', 0, 'checkpoint'));
  old.close();
  const store = ThreadStore.open(path, { search: 'own', clock: new VirtualClock() });
  assert.deepEqual(store.search('checkpoint'), { results: [], indexed: { done: 0, total: 1 } });
  store.close();
});

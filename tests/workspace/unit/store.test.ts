// The store: owner-only files, versions it will not touch, runs cut short, a disk that fills up.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { copyFileSync, readFileSync, statSync } from 'node:fs';
import { join } from 'node:path';
import { DatabaseSync } from 'node:sqlite';
import { ThreadStore, StoreError } from '../../../resources/app/workspace/store/store.ts';
import { migrations } from '../../../resources/app/workspace/store/migrations.ts';
import type { Item, TurnHead } from '../../../resources/app/workspace/model.ts';
import { temporaryFolder } from '../../harness/service.ts';

const head = (id: string, position: number, status: TurnHead['status'] = 'running'): TurnHead => ({
  id, threadId: 't1', position, question: `question ${position}`, status, error: null, usage: null, startedAt: 1000 + position, endedAt: null,
});
const answer = (position: number, text: string, status: Item['status'] = 'running'): Item => ({ kind: 'answer', position, status, text });

function storeWithThread(folder = temporaryFolder('lm-store-')) {
  const path = join(folder, 'workspace.db');
  const store = ThreadStore.open(path);
  store.createThread({ id: 't1', title: 'T', folder: 'threads/t1', createdAt: 1000 }, head('u0', 0));
  return { store, path };
}

test('the database and the files SQLite makes beside it are owner-only whatever the umask', () => {
  const previous = process.umask(0o022);
  try {
    const { store, path } = storeWithThread();
    store.commit({ turns: [], items: [{ turnId: 'u0', item: answer(0, 'x') }] });
    for (const file of [path, `${path}-wal`, `${path}-shm`]) assert.equal(statSync(file).mode & 0o777, 0o600, file);
    store.close();
  } finally {
    process.umask(previous);
  }
});

test('a database made by a newer version is refused and left byte for byte as it was, its WAL too', () => {
  const [source, folder] = [temporaryFolder('lm-store-'), temporaryFolder('lm-store-')];
  const newer = new DatabaseSync(join(source, 'workspace.db'));
  newer.exec(`PRAGMA journal_mode = WAL; PRAGMA user_version = ${migrations.length + 1}; CREATE TABLE future (x)`);
  // Copied while it is open: a WAL not yet folded in, as a newer version that was killed leaves it.
  const names = ['workspace.db', 'workspace.db-wal'];
  for (const name of names) copyFileSync(join(source, name), join(folder, name));
  newer.close();
  const files = () => names.map((name) => readFileSync(join(folder, name)));
  const before = files();
  assert.throws(() => ThreadStore.open(join(folder, 'workspace.db')), (error) => error instanceof StoreError && error.reason === 'newer');
  assert.deepEqual(files(), before);
});

test('a full disk fails the whole batch, keeps what was kept, and the same batch goes in once there is room', () => {
  const { store, path } = storeWithThread();
  store.commit({ turns: [], items: [{ turnId: 'u0', item: answer(0, 'kept before') }] });
  store.close();
  // SQLite answers a database at its page limit exactly as it answers a full disk.
  const limit = (pages: number) => [...migrations, (db: DatabaseSync) => db.exec(`PRAGMA max_page_count = ${pages}`)];
  const full = ThreadStore.open(path, { migrations: limit(Number(new DatabaseSync(path).prepare('PRAGMA page_count').get()!.page_count)) });
  const big = { turns: [{ ...head('u0', 0), status: 'completed' as const, endedAt: 9 }], items: [{ turnId: 'u0', item: answer(1, 'x'.repeat(200_000)) }] };
  assert.throws(() => full.commit(big), (error) => error instanceof StoreError && error.reason === 'full');
  assert.deepEqual(full.readThread('t1')!.turns.map((turn) => [turn.status, turn.items.map((item) => item.position)]), [['running', [0]]]);
  full.close();
  const roomy = ThreadStore.open(path, { migrations: limit(100_000) });
  roomy.commit(big);
  assert.deepEqual(roomy.readThread('t1')!.turns.map((turn) => [turn.status, turn.items.length]), [['completed', 2]]);
  roomy.close();
});

test('a page of turns is the newest that fill the budget, at least one, and says whether earlier ones remain', () => {
  const { store } = storeWithThread();
  // Turn 0 has 1 item, 1 has 5, 2 has 0, 3 has 2: costs (items + the question) 2, 6, 1, 3.
  const sizes = [1, 5, 0, 2];
  sizes.forEach((size, position) => {
    if (position > 0) store.addTurn(head(`u${position}`, position));
    store.commit({ turns: [], items: Array.from({ length: size }, (_, i) => ({ turnId: `u${position}`, item: answer(i, `${position}.${i}`) })) });
  });
  const rows: [number | null, number, number[], boolean][] = [
    [null, 4, [2, 3], true],
    [null, 3, [3], true],
    [null, 1, [3], true],
    [null, 12, [0, 1, 2, 3], false],
    [2, 6, [1], true],
    [2, 8, [0, 1], false],
    [0, 10, [], false],
  ];
  for (const [before, budget, positions, earlier] of rows) {
    const page = store.readTurns('t1', before, budget);
    assert.deepEqual([page.turns.map((turn) => turn.position), page.earlier], [positions, earlier], `before ${before}, budget ${budget}`);
    for (const turn of page.turns) assert.equal(turn.items.length, sizes[turn.position]);
  }
});

test("a thread's usage is the sum over the turns that reported one, and null until one has", () => {
  const { store } = storeWithThread();
  assert.equal(store.readThread('t1')!.usage, null);
  const usage = (n: number) => ({ input: n, cachedInput: 2 * n, output: 3 * n, reasoning: 4 * n, total: 5 * n });
  store.commit({ turns: [{ ...head('u0', 0), status: 'completed', usage: usage(1) }, head('u1', 1), { ...head('u2', 2), status: 'stopped', usage: usage(10) }], items: [] });
  assert.deepEqual(store.readThread('t1')!.usage, usage(11));
  store.close();
});

test('an item cut short while it streamed: recovery makes its JSON and tails one stopped item, and search finds it only then', () => {
  const { store, path } = storeWithThread();
  store.commit({ turns: [], items: [{ turnId: 'u0', item: answer(0, 'Hello') }], tails: [{ turnId: 'u0', position: 0, part: 0, at: 5, text: ' world' }] });
  assert.deepEqual(store.search('hello world').results, []);
  store.close();
  const reopened = ThreadStore.open(path);
  reopened.recover('cut', 5000);
  assert.deepEqual(reopened.readThread('t1')!.turns[0]!.items, [answer(0, 'Hello world', 'stopped')]);
  assert.deepEqual(reopened.search('hello world').results.map((hit) => hit.snippet.join('')), ['Hello world']);
  reopened.close();
});

// A thread's folder as the page reads it, on real files: which paths reach a file and which are
// refused (escapes, links planted inside, odd names), what a listing says of each entry, and the
// byte ranges a reader may ask for.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { appendFileSync, mkdirSync, rmSync, symlinkSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:http';
import { once } from 'node:events';
import { join } from 'node:path';
import { filesAmong, listFolder, openFile } from '../../../resources/app/workspace/files/results.ts';
import { rangeOf, send } from '../../../resources/app/workspace/http/files.ts';
import { Refusal } from '../../../resources/app/workspace/refusal.ts';
import { TurnFiles } from '../../../resources/app/workspace/files/turnFiles.ts';
import { ThreadStore } from '../../../resources/app/workspace/store/store.ts';
import { newHead } from '../../../resources/app/workspace/research/threads.ts';
import { temporaryFolder } from '../../harness/service.ts';

const reason = (error: unknown) => (error instanceof Refusal ? `refused: ${error.reason}` : `threw: ${String(error)}`);

/** A data folder with two threads; the first holds plain files, odd names and links planted to escape. */
function threads() {
  const data = temporaryFolder('lm-results-');
  const folder = join(data, 'threads', 'a');
  const other = join(data, 'threads', 'b');
  mkdirSync(join(folder, 'out'), { recursive: true });
  mkdirSync(other);
  writeFileSync(join(other, 'secret.txt'), 'not yours');
  writeFileSync(join(folder, 'data.csv'), 'x,y\n1,2\n');
  writeFileSync(join(folder, 'empty.txt'), '');
  writeFileSync(join(folder, 'out', '图 1 #?%.txt'), 'cjk');
  symlinkSync('/etc/passwd', join(folder, 'passwd'));
  symlinkSync(other, join(folder, 'other'));
  symlinkSync(join(folder, 'out'), join(folder, 'inside'));
  return { folder };
}

test('a path reaches a plain file below the thread folder through no link, or is refused as no such file', async () => {
  const { folder } = threads();
  const rows: [string, string][] = [
    ['data.csv', 'data.csv 8'], ['empty.txt', 'empty.txt 0'], ['out/图 1 #?%.txt', '图 1 #?%.txt 3'],
    ['../b/secret.txt', 'refused: noSuchFile'], ['/etc/passwd', 'refused: noSuchFile'], ['out/../data.csv', 'refused: noSuchFile'],
    ['./data.csv', 'refused: noSuchFile'], ['out//图 1 #?%.txt', 'refused: noSuchFile'], ['out\\x', 'refused: noSuchFile'],
    ['data.csv\u0000.png', 'refused: noSuchFile'], ['out%2F图 1 #?%.txt', 'refused: noSuchFile'],
    ['passwd', 'refused: noSuchFile'], ['other/secret.txt', 'refused: noSuchFile'], ['inside/图 1 #?%.txt', 'refused: noSuchFile'],
    ['out', 'refused: noSuchFile'], ['', 'refused: noSuchFile'], ['gone.txt', 'refused: noSuchFile'],
  ];
  for (const [path, expected] of rows) {
    const outcome = await openFile(folder, path).then(async (file) => {
      await file.handle.close();
      return `${file.name} ${file.size}`;
    }, reason);
    assert.equal(outcome, expected, path);
  }
  assert.deepEqual(await filesAmong(folder, ['data.csv', 'out', 'passwd', '../b/secret.txt', 'out/图 1 #?%.txt']), ['data.csv', 'out/图 1 #?%.txt']);
  for (const path of ['passwd', 'other', 'data.csv', '..']) {
    assert.equal(await listFolder(folder, path, () => () => ({ turn: null, changedSince: false, user: false })).then(() => 'listed', reason), 'refused: noSuchFile', path);
  }
});

test('a listing tells each entry\'s kind, and which turn made or last changed a file, from its changes and from the folder before and after', async () => {
  const folder = temporaryFolder('lm-turn-files-');
  const store = ThreadStore.open(':memory:');
  const files = new TurnFiles(store, 12);
  const heads = [0, 1, 2].map((position) => newHead('t', position, 'q', 0, position === 1 ? ['mine.csv'] : []));
  store.createThread({ id: 't', title: 't', folder, createdAt: 0 }, heads[0]!);
  const write = (name: string, text = 'x') => writeFileSync(join(folder, name), text);
  const origins = async () => Object.fromEntries((await listFolder(folder, '', (paths) => files.originsOf('t', paths))).entries.map((entry) =>
    [entry.name, `${entry.kind} ${entry.user ? 'yours' : entry.turn === null ? '-' : `turn ${entry.turn}${entry.changedSince ? ', changed since' : ''}`}`]));
  mkdirSync(join(folder, 'out'));
  symlinkSync('/etc/passwd', join(folder, 'passwd'));
  write('before.txt');

  await files.started(heads[0]!, folder);
  for (const name of ['plot.png', 'edited.txt', 'gone.txt']) write(name);
  // Dropped on the page for the next question while this turn runs.
  write('mine.csv');
  await files.settled(heads[0]!, []);
  appendFileSync(join(folder, 'edited.txt'), ' by the user');

  store.addTurn(heads[1]!);
  await files.started(heads[1]!, folder);
  write('during.txt');
  rmSync(join(folder, 'gone.txt'));
  assert.equal((await origins())['during.txt'], 'file turn 1', 'while the turn runs');
  await files.settled(heads[1]!, []);
  write('gone.txt', 'the user\'s again');

  // Past the limit of a cheap look: only what Codex's own changes name is the turn's.
  store.addTurn(heads[2]!);
  await files.started(heads[2]!, folder);
  for (let i = 0; i < 6; i += 1) write(`many-${i}`);
  write('fit.py');
  await files.settled(heads[2]!, [{ kind: 'fileChange', position: 0, status: 'completed', changes: [{ path: join(folder, 'fit.py'), change: 'add', diff: '' }] }]);

  assert.deepEqual(await origins(), {
    'out': 'folder -', 'before.txt': 'file -', 'during.txt': 'file turn 1', 'edited.txt': 'file turn 0, changed since',
    'fit.py': 'file turn 2', 'gone.txt': 'file -', 'many-0': 'file -', 'many-1': 'file -', 'many-2': 'file -', 'many-3': 'file -',
    'many-4': 'file -', 'many-5': 'file -', 'mine.csv': 'file yours', 'passwd': 'link -', 'plot.png': 'file turn 0',
  });
  const window = await listFolder(folder, '', () => () => ({ turn: null, changedSince: false, user: false }), 1, 2);
  assert.deepEqual([window.total, window.entries.map((entry) => entry.name)], [15, ['before.txt', 'during.txt']]);
  store.deleteThread('t');
  assert.equal(store.fileRecords('t', ['plot.png']).size, 0);
});

test('a byte range is served as asked, the whole file when it cannot be read, and refused past the end', async () => {
  const rows: [string | undefined, number, string][] = [
    [undefined, 10, 'whole'], ['bytes=0-3', 10, '0-3'], ['bytes=4-', 10, '4-9'], ['bytes=-3', 10, '7-9'], ['bytes=-30', 10, '0-9'],
    ['bytes=5-100', 10, '5-9'], ['bytes=9-9', 10, '9-9'], ['bytes=10-', 10, 'refused: badRange'], ['bytes=-0', 10, 'refused: badRange'],
    ['bytes=5-2', 10, 'whole'], ['bytes=0-1,4-5', 10, 'whole'], ['items=0-1', 10, 'whole'], ['bytes=0-1', 0, 'whole'],
  ];
  for (const [header, size, expected] of rows) {
    const outcome = await Promise.resolve().then(() => rangeOf(header, size))
      .then((range) => (range ? `${range.start}-${range.end}` : 'whole'), reason);
    assert.equal(outcome, expected, `${header} of ${size}`);
  }
});

test('a file still being written is sent as it was when it was opened, its stated length kept', async () => {
  const { folder } = threads();
  const server = createServer(async (request, response) => {
    const file = await openFile(folder, 'data.csv');
    appendFileSync(join(folder, 'data.csv'), '3,4\n'.repeat(1000));
    await send(request, response, file, false);
  }).listen(0, '127.0.0.1');
  await once(server, 'listening');
  try {
    const answer = await fetch(`http://127.0.0.1:${(server.address() as import('node:net').AddressInfo).port}/`);
    assert.deepEqual([answer.headers.get('content-length'), await answer.text()], ['8', 'x,y\n1,2\n']);
  } finally {
    server.close();
  }
});

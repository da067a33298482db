// What Codex asks a person to allow, on a virtual clock: the answer Codex gets for each way a
// request can end, that a request is answered once only, and what the thread is told.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync, symlinkSync, writeFileSync, chownSync } from 'node:fs';
import { join } from 'node:path';
import { Approvals, APPROVAL_LIMIT_MS } from '../../../resources/app/workspace/research/approvals.ts';
import { checkOwnFolder } from '../../../resources/app/workspace/files/ownFolder.ts';
import { Refusal } from '../../../resources/app/workspace/refusal.ts';
import { VirtualClock, settle } from '../../harness/clock.ts';
import { temporaryFolder } from '../../harness/service.ts';
import type { PageEvent } from '../../../resources/app/workspace/model.ts';

const COMMAND = 'item/commandExecution/requestApproval';
const ask = (thread = 'codex-a') => ({ threadId: thread, turnId: 't', itemId: 'i', command: "/bin/bash -lc 'pip install x'", commandActions: [{ command: 'pip install x' }], reason: '要联网' });

function fixture() {
  const clock = new VirtualClock();
  const events: PageEvent[] = [];
  const notes: string[] = [];
  const running = new Map([['codex-a', 'a'], ['codex-b', 'b']]);
  const approvals = new Approvals({
    clock, publish: (event) => events.push(event), note: (thread, text) => notes.push(`${thread}: ${text}`), waitingChanged: () => {},
    turnOf: (codexThread) => (running.has(codexThread) ? { threadId: running.get(codexThread)!, turnId: 'turn', files: [] } : null),
  });
  const card = () => approvals.forThread('a')[0]!;
  return { clock, events, notes, approvals, card };
}

const gone = (error: unknown) => error instanceof Refusal && error.reason === 'approvalGone';

test('each way a request ends gives Codex its answer once; a second answer, from any page, is refused', async () => {
  // Said in the thread: what a person refused, and what nobody answered.
  const rows: [string, (f: ReturnType<typeof fixture>) => Promise<void> | void, string, number][] = [
    ['allowed once', (f) => f.approvals.answer('a', f.card().id, 'once'), 'accept', 0],
    ['refused', (f) => f.approvals.answer('a', f.card().id, 'decline'), 'decline', 1],
    ['its turn stopped', (f) => f.approvals.turnEnded('a'), 'cancel', 0],
    ['nobody answered in time', (f) => f.clock.advance(APPROVAL_LIMIT_MS), 'decline', 1],
  ];
  for (const [what, end, decision, notes] of rows) {
    const f = fixture();
    const answer = f.approvals.request(COMMAND, ask());
    const { id } = f.card();
    await f.clock.advance(APPROVAL_LIMIT_MS - 1);
    await end(f);
    assert.deepEqual(await answer, { decision }, what);
    assert.deepEqual(f.events.map((event) => event.type), ['approval', 'approvalEnded'], what);
    assert.throws(() => f.approvals.answer('a', id, 'once'), gone, what);
    assert.equal(f.notes.length, notes, what);
  }
});

test('allowed for the thread: what it asks later is allowed without a card, until its level changes; other threads still ask', async () => {
  const f = fixture();
  const first = f.approvals.request(COMMAND, ask());
  assert.throws(() => f.approvals.answer('b', f.card().id, 'thread'), gone, 'an answer names the thread it is for');
  f.approvals.answer('a', f.card().id, 'thread');
  assert.deepEqual(await first, { decision: 'acceptForSession' });
  assert.deepEqual(await f.approvals.request(COMMAND, ask()), { decision: 'acceptForSession' });
  void f.approvals.request(COMMAND, ask('codex-b'));
  f.approvals.forgetAllowed('a');
  void f.approvals.request(COMMAND, ask());
  await settle();
  assert.deepEqual([f.approvals.waiting('a'), f.approvals.waiting('b')], [true, true]);
  assert.deepEqual(await f.approvals.request(COMMAND, ask('codex-gone')), { decision: 'decline' }, 'no turn of ours runs there');
  assert.throws(() => f.approvals.request('item/tool/requestUserInput', ask()), /not supported/);
});

test('a folder of the user\'s own: an existing folder of theirs, by its real path, and nothing wider', () => {
  const root = temporaryFolder('lm-own-');
  const home = join(root, 'home');
  const data = join(home, '.local', 'share', 'Lanternmoor Pro');
  for (const folder of [join(data, 'threads'), join(home, 'run-42'), join(root, 'theirs')]) mkdirSync(folder, { recursive: true });
  writeFileSync(join(home, 'notes.txt'), '');
  symlinkSync('/', join(home, 'to-root'));
  const rules = { home, dataFolder: data, uid: process.getuid!() };
  const rows: [string, string][] = [
    ['run-42', join(home, 'run-42')], ['relative', 'run-42'], ['tilde', '~/run-42'], ['a file', join(home, 'notes.txt')],
    ['missing', join(home, 'nope')], ['root', '/'], ['home', `${home}/`], ['data', data], ['inside data', join(data, 'threads')],
    ['above data', join(home, '.local')], ['link to root', join(home, 'to-root')],
  ];
  if (process.getuid!() === 0) {
    chownSync(join(root, 'theirs'), 65534, 65534);
    rows.push(['theirs', join(root, 'theirs')]);
  }
  const got = rows.map(([what, path]) => {
    try {
      return [what, checkOwnFolder(path, rules)];
    } catch (error) {
      return [what, (error as Refusal).reason];
    }
  });
  assert.deepEqual(Object.fromEntries(got), {
    'run-42': join(home, 'run-42'), relative: 'folderNotAbsolute', tilde: 'folderNotAbsolute', 'a file': 'folderNotFolder',
    missing: 'folderMissing', root: 'folderForbidden', home: 'folderForbidden', data: 'folderForbidden', 'inside data': 'folderForbidden',
    'above data': 'folderForbidden', 'link to root': 'folderForbidden',
    ...(process.getuid!() === 0 ? { theirs: 'folderNotYours' } : {}),
  });
});

// A thread's history changed on a scripted Codex and a real store: the last question asked again
// with Codex rolled back by whichever method its version has, a branch at a turn, guidance for a
// running turn, the queue behind it, and what is refused meanwhile.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { lstatSync, readFileSync, truncateSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { DatabaseSync } from 'node:sqlite';
import { LARGE_BRANCH_BYTES } from '../../../resources/app/workspace/research/history.ts';
import { seenOf } from '../../../resources/app/workspace/files/turnFiles.ts';
import { RpcError } from '../../../resources/app/workspace/codex/rpc.ts';
import { Refusal } from '../../../resources/app/workspace/refusal.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';
import { settle } from '../../harness/clock.ts';
import { asked, deskFixture } from '../../harness/desk.ts';
import { temporaryFolder } from '../../harness/service.ts';

const unknown = (method: string) => () => { throw new RpcError(-32600, `Invalid request: unknown variant \`${method}\`, expected one of …`); };

/** A thread of this many completed turns, the Codex thread codex-1 holding turn-1 … turn-n. */
async function threadOf(count: number) {
  const fixture = deskFixture();
  const { desk, notify } = fixture;
  const { thread } = desk.create(asked('q1'));
  for (let n = 1; n <= count; n += 1) {
    if (n > 1) desk.ask(thread.id, asked(`q${n}`));
    await settle();
    notify('turn/completed', { turn: { id: `turn-${n}`, status: 'completed', error: null } }, 'codex-1', `turn-${n}`);
  }
  const questions = () => desk.threads.thread(thread.id)!.turns.map((turn) => turn.question);
  return { ...fixture, id: thread.id, questions };
}

const reason = (expected: string) => (error: unknown) => error instanceof Refusal && error.reason === expected;

test('asked again: Codex rolled back by the method its version has, and only then the turn replaced', async () => {
  const revert: [string, object] = ['thread/revert', { threadId: 'codex-1', beforeTurnId: 'turn-2' }];
  const rollback: [string, object] = ['thread/rollback', { threadId: 'codex-1', numTurns: 1 }];
  const rows: { name: string; revert?: () => unknown; rollback?: () => unknown; calls: [string, object][]; refused?: string }[] = [
    { name: 'a newer Codex reverts to before the turn', calls: [revert] },
    { name: 'an older Codex rolls its last turn back', revert: unknown('thread/revert'), calls: [revert, rollback] },
    {
      name: 'a Codex with neither: refused with a sentence, the turn kept', revert: unknown('thread/revert'), rollback: unknown('thread/rollback'),
      calls: [revert, rollback], refused: 'redoUnsupported',
    },
  ];
  for (const row of rows) {
    const { desk, codex, id, questions } = await threadOf(2);
    codex.handlers['thread/revert'] = row.revert ?? (() => ({}));
    codex.handlers['thread/rollback'] = row.rollback ?? (() => ({}));
    const before = codex.calls.length;
    const redo = desk.redo(id, 'q2, better');
    if (row.refused) await assert.rejects(redo, reason(row.refused), row.name);
    else await redo;
    await settle();
    const calls = codex.calls.slice(before);
    assert.deepEqual(calls.filter(([method]) => method.startsWith('thread/')), row.calls, row.name);
    assert.deepEqual(questions(), row.refused ? ['q1', 'q2'] : ['q1', 'q2, better'], row.name);
    assert.equal(calls.some(([method]) => method === 'turn/start'), !row.refused, row.name);
  }
});

test('a retry of a turn Codex never started rolls nothing back', async () => {
  const { desk, codex, id, questions } = await threadOf(1);
  codex.handlers['turn/start'] = () => { throw new RpcError(-32001, 'overloaded'); };
  desk.ask(id, asked('q2'));
  await settle();
  codex.handlers['turn/start'] = () => ({ turn: { id: 'turn-9' } });
  await desk.redo(id, null);
  await settle();
  assert.deepEqual(questions(), ['q1', 'q2']);
  assert.ok(!codex.methods().some((method) => method === 'thread/revert' || method === 'thread/rollback'));
});

test('refused with a sentence, the history as it was: a change while a turn runs, and one of a turn Codex\'s id was never kept for', async () => {
  const { desk, id, dataFolder, notify } = await threadOf(1);
  desk.ask(id, asked('running'));
  await settle();
  await assert.rejects(desk.redo(id, 'edited'), reason('busyThread'));
  await assert.rejects(desk.branch(id, 0, false), reason('busyThread'));
  notify('item/completed', { item: { type: 'agentMessage', id: 'a', text: 'an answer' } }, 'codex-1', 'turn-2');
  notify('turn/completed', { turn: { id: 'turn-2', status: 'completed', error: null } }, 'codex-1', 'turn-2');
  // As a store from before Codex's turn ids were kept has them.
  const db = new DatabaseSync(join(dataFolder, 'workspace.db'));
  db.exec('UPDATE turns SET codex_turn_id = NULL');
  db.close();
  await assert.rejects(desk.redo(id, 'edited'), reason('unknownTurn'));
  await assert.rejects(desk.branch(id, 0, false), reason('unknownTurn'));
  assert.deepEqual(desk.threads.thread(id)!.turns.map((turn) => turn.question), ['q1', 'running']);
});

test('guidance after the turn has ended, or before Codex has started it, becomes a queued question, said so; queued questions wait for the user after a stop', async () => {
  const { desk, codex, notify, id, questions } = await threadOf(1);
  const late = await desk.steer(id, 'too late');
  assert.deepEqual([late.steered, !late.steered && late.notice], [false, texts.steeredToQueue]);
  assert.ok(!codex.methods().includes('turn/steer'));
  const start = codex.hold('turn/start');
  desk.ask(id, asked('long'));
  await settle();
  // Codex has not yet said which turn it runs: nothing to steer, and the sentence says why.
  const early = await desk.steer(id, 'too early');
  assert.deepEqual([early.steered, !early.steered && early.notice], [false, texts.steeredNotReady]);
  start();
  await settle();
  await desk.stop(id);
  notify('turn/completed', { turn: { id: 'turn-2', status: 'interrupted', error: null } }, 'codex-1', 'turn-2');
  await settle();
  assert.deepEqual(questions(), ['q1', 'long']);
  assert.deepEqual(desk.threads.thread(id)!.queued.map((queued) => queued.text), ['too late', 'too early']);
});

test('a branch: Codex\'s fork through the turn, a copy of the folder, the turns through it; a large folder asks first', async () => {
  const { desk, codex, store, id, dataFolder } = await threadOf(3);
  codex.handlers['thread/fork'] = () => ({ thread: { id: 'codex-fork' } });
  const folder = join(dataFolder, 'threads', id);
  writeFileSync(join(folder, 'data.csv'), 'a,b\n');
  // Sparse: its size is what counts, not the blocks it takes.
  truncateSync(join(folder, 'data.csv'), LARGE_BRANCH_BYTES + 1);

  const asking = await desk.branch(id, 0, false);
  assert.ok('confirm' in asking && asking.confirm.includes('1.0 GB'));
  assert.ok(!codex.methods().includes('thread/fork'));

  truncateSync(join(folder, 'data.csv'), 4);
  const made = seenOf(lstatSync(join(folder, 'data.csv')));
  store.recordFiles(id, store.keptTurn(id, 0)!.id, new Map([['data.csv', made]]), []);
  const branched = await desk.branch(id, 0, false);
  assert.ok('thread' in branched);
  const branch = branched.thread.id;
  const [, fork] = codex.calls.find(([method]) => method === 'thread/fork')!;
  assert.deepEqual([fork.threadId, fork.lastTurnId, fork.cwd], ['codex-1', 'turn-1', join(dataFolder, 'threads', branch)]);
  assert.equal(readFileSync(join(dataFolder, 'threads', branch, 'data.csv'), 'utf8'), 'a,b\n');
  // The copy is still the first turn's, unchanged since.
  const copied = seenOf(lstatSync(join(dataFolder, 'threads', branch, 'data.csv')));
  assert.deepEqual(desk.files.originsOf(branch, ['data.csv'])('data.csv', copied), { turn: 0, changedSince: false, user: false });
  assert.deepEqual(desk.threads.thread(branch)!.turns.map((turn) => turn.question), ['q1']);

  // Codex's fork keeps the turns' ids: the branch's own last turn can be rolled back by them.
  assert.equal(store.keptTurn(branch, 0)!.codexTurnId, 'turn-1');
});

test('a branch of a thread in the user\'s own folder works in that folder at its level; one that fails leaves the folder as it was', async () => {
  const { desk, codex, notify } = deskFixture();
  const mine = temporaryFolder('lm-mine-');
  writeFileSync(join(mine, 'run.csv'), '1');
  const { thread } = desk.create({ ...asked('读一读'), folder: mine });
  await settle();
  notify('turn/completed', { turn: { id: 'turn-1', status: 'completed', error: null } });

  codex.handlers['thread/fork'] = () => { throw new RpcError(-32600, 'no such thread'); };
  await assert.rejects(desk.branch(thread.id, 0, false), reason('branchFailed'));
  assert.equal(readFileSync(join(mine, 'run.csv'), 'utf8'), '1');

  codex.handlers['thread/fork'] = () => ({ thread: { id: 'codex-fork' } });
  const branched = await desk.branch(thread.id, 0, false);
  assert.ok('thread' in branched);
  const [, fork] = codex.calls.filter(([method]) => method === 'thread/fork').at(-1)!;
  assert.deepEqual([fork.cwd, fork.sandbox], [mine, 'read-only']);
  const branch = desk.threads.thread(branched.thread.id)!;
  assert.deepEqual([branch.folder, branch.ownFolder, branch.permission], [mine, true, 'read']);
});

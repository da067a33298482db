// The research desk on a scripted Codex, a real store and a virtual clock: what Codex is asked,
// what the page and the store get, and what is refused.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { statSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { STOP_DEADLINE_MS } from '../../../resources/app/workspace/research/turns.ts';
import { StoreError } from '../../../resources/app/workspace/store/store.ts';
import { RpcError } from '../../../resources/app/workspace/codex/rpc.ts';
import { settle } from '../../harness/clock.ts';
import { asked, deskFixture } from '../../harness/desk.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';
import { temporaryFolder } from '../../harness/service.ts';

test('a new thread: an owner-only folder, and a Codex thread working there that may write only there, asks before going beyond, searches live', async () => {
  const { desk, codex, dataFolder } = deskFixture();
  const { thread } = desk.create(asked('什么是 FTS5？'));
  await settle();
  const folder = join(dataFolder, 'threads', thread.id);
  assert.equal(statSync(folder).mode & 0o777, 0o700);
  assert.deepEqual(codex.calls, [
    ['thread/start', {
      cwd: folder, approvalPolicy: 'on-request', sandbox: 'workspace-write',
      config: { web_search: 'live', 'shell_environment_policy.set.LANTERNMOOR_THREAD': thread.id },
    }],
    ['turn/start', {
      threadId: 'codex-1', input: [{ type: 'text', text: '什么是 FTS5？', text_elements: [] }], approvalPolicy: 'on-request',
      sandboxPolicy: { type: 'workspaceWrite', writableRoots: [], networkAccess: false, excludeTmpdirEnvVar: false, excludeSlashTmp: false },
    }],
  ]);
  assert.equal(thread.title, '什么是 FTS5？');
});

test('a thread in the user\'s own folder works there read only; a question\'s files go where Codex is told, in the folder once it may write', async () => {
  const { desk, codex, dataFolder, notify } = deskFixture();
  const mine = temporaryFolder('lm-mine-');
  const { thread } = desk.create({ ...asked('读一读'), folder: mine });
  await settle();
  notify('turn/completed', { turn: { id: 'turn-1', status: 'completed', error: null } });
  const files = desk.threads.attachmentsFolder(thread.id)!;
  assert.equal(files, join(dataFolder, 'threads', thread.id));
  writeFileSync(join(files, 'a.csv'), '1');
  desk.ask(thread.id, { ...asked('看附件'), attachments: ['a.csv'] });
  await settle();
  const [, started] = codex.calls.filter(([method]) => method === 'turn/start').at(-1)!;
  assert.deepEqual(started.sandboxPolicy, { type: 'readOnly', networkAccess: false });
  assert.match(started.input[0].text, new RegExp(`${files}.*a\\.csv`));
  desk.setPermission(thread.id, 'write');
  assert.equal(desk.threads.attachmentsFolder(thread.id), join(mine, '.lanternmoor-attachments'));
});

test('a thread Codex no longer has is started afresh, with the thread so far before the question', async () => {
  const { desk, codex, notify, store } = deskFixture();
  const { thread } = desk.create(asked('first question'));
  await settle();
  notify('item/started', { item: { type: 'agentMessage', id: 'a', text: '' } });
  notify('item/completed', { item: { type: 'agentMessage', id: 'a', text: 'first answer' } });
  assert.equal(store.readThread(thread.id)!.turns[0]!.items[0]!.status, 'completed', 'an ended item is written at once');
  notify('turn/completed', { turn: { id: 'turn-1', status: 'completed', error: null } });
  desk.turns.onCodexExit();
  codex.handlers['thread/resume'] = () => { throw new RpcError(-32600, 'no rollout found for thread id codex-1'); };
  desk.ask(thread.id, asked('second question'));
  await settle();
  assert.deepEqual(codex.methods(), ['thread/start', 'turn/start', 'thread/resume', 'thread/start', 'turn/start']);
  const text: string = codex.calls.at(-1)![1].input[0].text;
  assert.match(text, /问：first question\n\n答：first answer[\s\S]*second question$/);
  assert.equal(codex.calls.at(-1)![1].threadId, 'codex-2');
});

test('a stop while Codex starts the thread: the turn never starts; while it starts the turn: Codex is told once it names it', async () => {
  const rows: [string, string[]][] = [['thread/start', ['thread/start']], ['turn/start', ['thread/start', 'turn/start', 'turn/interrupt']]];
  for (const [held, methods] of rows) {
    const { desk, codex } = deskFixture();
    const release = codex.hold(held);
    const { thread } = desk.create(asked('never mind'));
    await settle();
    void desk.stop(thread.id);
    await settle();
    release();
    await settle();
    assert.deepEqual(codex.methods(), methods, held);
  }
});

test('a turn cut short by the service\'s end says so, though Codex reports it interrupted first', async () => {
  const { desk, codex, notify } = deskFixture();
  const { thread } = desk.create(asked('long'));
  await settle();
  codex.handlers['turn/interrupt'] = () => {
    notify('turn/completed', { turn: { id: 'turn-1', status: 'interrupted', items: [], error: null } });
    return {};
  };
  await desk.turns.shutdown();
  assert.equal(desk.threads.thread(thread.id)!.turns[0]!.error, texts.turnCutByServiceEnd);
});

test('a Codex that does not confirm a stop: the turn is stopped at the deadline, and what it sends later goes nowhere', async () => {
  const { desk, codex, clock, notify, answers } = deskFixture();
  const { thread } = desk.create(asked('hung'));
  await settle();
  codex.handlers['turn/interrupt'] = () => new Promise(() => {});
  void desk.stop(thread.id);
  await clock.advance(STOP_DEADLINE_MS - 1);
  assert.equal(desk.threads.thread(thread.id)!.running, true);
  await clock.advance(1);
  assert.equal(desk.threads.thread(thread.id)!.turns[0]!.status, 'stopped');
  desk.ask(thread.id, asked('next'));
  await settle();
  notify('item/started', { item: { type: 'agentMessage', id: 'late', text: 'from the old turn' } }, 'codex-1', 'turn-1');
  notify('item/started', { item: { type: 'agentMessage', id: 'new', text: 'from the new turn' } }, 'codex-1', 'turn-2');
  assert.deepEqual(answers(thread.id), [[], ['from the new turn']]);
});

test('a running answer reads as it streamed, its text unwritten, written in part or held back by a full disk; settled, it is written once there is room', async () => {
  let full = false;
  const { desk, store, storage, clock, events, notify, answers } = deskFixture({
    commit: (write) => { if (full) throw new StoreError('full', 'database or disk is full'); write(); },
  });
  const { thread } = desk.create(asked('q'));
  await settle();
  let streamed = '早';
  notify('item/started', { item: { type: 'agentMessage', id: 'a', text: streamed } });
  // Longer than one tail, with characters of two and four bytes across the tails' ends.
  const long = '中😀'.repeat(12_000);
  // A quarter second apart: the first before the item is written at all, each next after the last was.
  for (const [delta, disk] of [['晨', 'room'], [long, 'room'], ['a', 'full'], [long, 'full']] as const) {
    full = disk === 'full';
    streamed += delta;
    notify('item/agentMessage/delta', { itemId: 'a', delta });
    assert.ok(answers(thread.id)[0]![0] === streamed, `${delta.slice(0, 2)} on a disk with ${disk}`);
    await clock.advance(250);
  }
  notify('turn/completed', { turn: { id: 'turn-1', status: 'interrupted', error: null } });
  // The pages have the text: the settled item goes to them without it.
  const settled = events.findLast((event) => event.type === 'item');
  assert.ok(settled?.type === 'item' && settled.streamed && answers(thread.id)[0]![0] === streamed);
  full = false;
  await clock.advance(2000);
  const [kept] = store.readThread(thread.id)!.turns;
  assert.deepEqual([storage, kept!.status, kept!.items], [['full', null], 'interrupted', [{ kind: 'answer', position: 0, status: 'stopped', text: streamed }]]);
});

test('an answer Codex completes as it streamed goes to the pages without its text, one it completes otherwise with it', async () => {
  const deltas = ['a', '😀'.repeat(20_000), '😀'.repeat(20_000)];
  // The first has a pair's halves either side of where its digest's first slice would end.
  for (const [text, streamed] of [[deltas.join(''), true], [`${deltas.join('').slice(0, -2)}😃`, undefined]] as const) {
    const { desk, events, notify } = deskFixture();
    desk.create(asked('q'));
    await settle();
    notify('item/started', { item: { type: 'agentMessage', id: 'a', text: '' } });
    for (const delta of deltas) notify('item/agentMessage/delta', { itemId: 'a', delta });
    notify('item/completed', { item: { type: 'agentMessage', id: 'a', text } });
    const settled = events.findLast((event) => event.type === 'item');
    assert.ok(settled?.type === 'item' && settled.item.kind === 'answer');
    assert.deepEqual([settled.streamed, settled.item.text.length], streamed ? [true, 0] : [undefined, text.length]);
  }
});

test('a follow-up after a restart is not thrown by what Codex re-sends of the thread\'s earlier turns', async () => {
  const before = deskFixture();
  const { thread } = before.desk.create(asked('one'));
  await settle();
  before.notify('turn/completed', { turn: { id: 'turn-1', status: 'completed', error: null } });
  before.store.close();
  // The service starts again: a new desk on the same store, a new app-server.
  const { desk, codex, notify } = deskFixture({ dataFolder: before.dataFolder });
  const usage = { totalTokens: 15, inputTokens: 10, cachedInputTokens: 0, outputTokens: 5, reasoningOutputTokens: 0 };
  codex.handlers['turn/start'] = () => {
    // Between our turn/start and its answer: the earlier turn's usage again, and the new turn's start.
    notify('thread/tokenUsage/updated', { tokenUsage: { total: usage, last: usage } }, 'codex-1', 'turn-1');
    notify('item/started', { item: { type: 'agentMessage', id: 'a', text: '' } }, 'codex-1', 'turn-2');
    return { turn: { id: 'turn-2' } };
  };
  desk.ask(thread.id, asked('two'));
  await settle();
  notify('item/agentMessage/delta', { itemId: 'a', delta: 'the answer' }, 'codex-1', 'turn-2');
  notify('turn/completed', { turn: { id: 'turn-2', status: 'completed', error: null } }, 'codex-1', 'turn-2');
  assert.deepEqual(codex.methods(), ['thread/resume', 'turn/start']);
  const second = desk.threads.thread(thread.id)!.turns[1]!;
  assert.deepEqual([second.status, second.usage, second.items.map((item) => item.kind === 'answer' && item.text)], ['completed', null, ['the answer']]);
});

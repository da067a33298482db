// The research desk on a scripted Codex, a real store and a virtual clock: what Codex is asked,
// what the page and the store get, and what is refused.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { statSync } from 'node:fs';
import { join } from 'node:path';
import { ResearchDesk, type Question } from '../../../resources/app/workspace/research/desk.ts';
import { STOP_DEADLINE_MS } from '../../../resources/app/workspace/research/turns.ts';
import { ThreadStore, StoreError } from '../../../resources/app/workspace/store/store.ts';
import { RpcError } from '../../../resources/app/workspace/codex/rpc.ts';
import { routeNotifications } from '../../../resources/app/workspace/codex/protocol.ts';
import { VirtualClock, settle } from '../../harness/clock.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';
import { temporaryFolder } from '../../harness/service.ts';

/** Codex as the test scripts it: each method answers, fails, or waits for the test. */
class ScriptedCodex {
  calls: [string, any][] = [];
  #count = (method: string) => this.calls.filter(([m]) => m === method).length;
  handlers: Record<string, (params: any) => unknown> = {
    'thread/start': () => ({ thread: { id: `codex-${this.#count('thread/start')}` } }),
    'thread/resume': () => ({}),
    'turn/start': () => ({ turn: { id: `turn-${this.#count('turn/start')}` } }),
    'turn/interrupt': () => ({}),
  };

  async request<T>(method: string, params: unknown): Promise<T> {
    this.calls.push([method, params]);
    return (await this.handlers[method]!(params)) as T;
  }

  methods = () => this.calls.map(([method]) => method);
}

/** A desk on a real store; commit, when given, stands between the desk and the store's writes. */
function deskFixture(options: { commit?: (write: () => void) => void; dataFolder?: string } = {}) {
  const dataFolder = options.dataFolder ?? temporaryFolder('lm-desk-');
  const realStore = ThreadStore.open(join(dataFolder, 'workspace.db'));
  const store = new Proxy(realStore, {
    get: (target, key) => (key === 'commit' && options.commit
      ? (batch: never) => options.commit!(() => target.commit(batch))
      : (Reflect.get(target, key, target) as () => unknown).bind(target)),
  });
  const codex = new ScriptedCodex();
  const clock = new VirtualClock();
  const storage: (string | null)[] = [];
  const desk = new ResearchDesk({
    store, codex, dataFolder, clock, publish: () => {}, endCommands: async () => {},
    reportStorage: (error) => storage.push(error ? error.reason : null),
  });
  const route = routeNotifications({ account: () => {}, turn: (notification) => desk.turns.onNotification(notification) });
  /** Codex's notification for the turn it is running in this Codex thread. */
  const notify = (method: string, params: object, codexThread = 'codex-1', turn = 'turn-1') =>
    route(method, { threadId: codexThread, turnId: turn, ...params });
  const answers = (id: string) => desk.threads.thread(id)!.turns.map((turn) => turn.items.map((item) => item.kind === 'answer' && item.text));
  return { desk, store: realStore, codex, clock, storage, dataFolder, notify, answers };
}

const asked = (text: string): Question => ({ text, attachments: [], draft: null, choice: null });

test('a new thread: an owner-only folder, and a Codex thread working there that may write only there, asks nothing, searches live', async () => {
  const { desk, codex, dataFolder } = deskFixture();
  const { thread } = desk.create(asked('什么是 FTS5？'));
  await settle();
  const folder = join(dataFolder, 'threads', thread.id);
  assert.equal(statSync(folder).mode & 0o777, 0o700);
  assert.deepEqual(codex.calls, [
    ['thread/start', {
      cwd: folder, approvalPolicy: 'never', sandbox: 'workspace-write',
      config: { web_search: 'live', 'shell_environment_policy.set.LANTERNMOOR_THREAD': thread.id },
    }],
    ['turn/start', { threadId: 'codex-1', input: [{ type: 'text', text: '什么是 FTS5？', text_elements: [] }] }],
  ]);
  assert.equal(thread.title, '什么是 FTS5？');
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
    const answer = codex.handlers[held]!;
    let release!: () => void;
    codex.handlers[held] = (params) => new Promise((resolve) => { release = () => resolve(answer(params)); });
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

test('while the disk is full the page still has the whole turn, and it is written once there is room', async () => {
  let full = false;
  const { desk, store, storage, clock, notify, answers } = deskFixture({
    commit: (write) => { if (full) throw new StoreError('full', 'database or disk is full'); write(); },
  });
  const { thread } = desk.create(asked('q'));
  await settle();
  full = true;
  notify('item/started', { item: { type: 'agentMessage', id: 'a', text: '' } });
  notify('item/completed', { item: { type: 'agentMessage', id: 'a', text: 'the answer' } });
  notify('turn/completed', { turn: { id: 'turn-1', status: 'completed', error: null } });
  assert.deepEqual(storage, ['full']);
  assert.deepEqual(answers(thread.id), [['the answer']]);
  assert.deepEqual(store.readThread(thread.id)!.turns[0]!.items, []);
  full = false;
  await clock.advance(2000);
  assert.deepEqual(storage, ['full', null]);
  assert.deepEqual(store.readThread(thread.id)!.turns.map((turn) => [turn.status, turn.items.length]), [['completed', 1]]);
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

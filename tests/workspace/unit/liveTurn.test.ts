// A running turn: Codex's notifications, as they come, become what the page shows and the store
// keeps. Each row is a turn as Codex played it and the turn it must leave behind.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { LiveTurn } from '../../../resources/app/workspace/research/liveTurn.ts';
import { OUTPUT_LIMIT } from '../../../resources/app/workspace/codex/translate.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';
import type { TurnNotification } from '../../../resources/app/workspace/codex/protocol.ts';
import type { Context, Item, Turn, TurnHead } from '../../../resources/app/workspace/model.ts';

const T = 'codex-thread';
const U = 'codex-turn';
const n = (method: TurnNotification['method'], params: object) => ({ method, params: { threadId: T, turnId: U, ...params } }) as TurnNotification;
const started = (item: object) => n('item/started', { item });
const completed = (item: object) => n('item/completed', { item });
const turnEnd = (status: string, error: object | null = null) => n('turn/completed', { turn: { id: U, status, error } });
const breakdown = (input: number, output: number) => ({ totalTokens: input + output, inputTokens: input, cachedInputTokens: 0, outputTokens: output, reasoningOutputTokens: 0 });
/** The thread's running total after a request, and that request's own count. */
const tokens = (total: [number, number], last: [number, number], modelContextWindow?: number) => n('thread/tokenUsage/updated', {
  tokenUsage: { total: breakdown(...total), last: breakdown(...last), modelContextWindow },
});

interface Row {
  name: string;
  play: TurnNotification[];
  stop?: boolean;
  want: Partial<Turn> & { items: Item[] };
  /** How full the context was said to be, last. */
  context?: Context;
}

const output = (text: string) => n('item/commandExecution/outputDelta', { itemId: 'c', delta: text });
const command = (fields: object) => ({ type: 'commandExecution', id: 'c', command: "/bin/bash -lc 'ls -l'", commandActions: [{ command: 'ls -l' }], ...fields });

const rows: Row[] = [
  {
    name: 'a command keeps its streamed output when Codex leaves the aggregate out, with its exit code',
    play: [
      started(command({ status: 'inProgress', aggregatedOutput: null, exitCode: null, durationMs: null })), output('a\n'), output('b\n'),
      completed(command({ status: 'failed', aggregatedOutput: '', exitCode: 2, durationMs: 31 })), turnEnd('completed'),
    ],
    want: { items: [{ kind: 'command', position: 0, status: 'failed', command: 'ls -l', output: 'a\nb\n', dropped: 0, exitCode: 2, durationMs: 31 }] },
  },
  {
    name: 'output beyond the limit is counted, not kept',
    play: [started(command({ status: 'inProgress', aggregatedOutput: null, exitCode: null, durationMs: null })), output('y'.repeat(OUTPUT_LIMIT - 1)), output('yyyy'), output('yy')],
    stop: true,
    want: { status: 'stopped', items: [{ kind: 'command', position: 0, status: 'stopped', command: 'ls -l', output: 'y'.repeat(OUTPUT_LIMIT), dropped: 5, exitCode: null, durationMs: null }] },
  },
  {
    name: 'retries are noted once; the failure that ends the turn is said in Chinese',
    play: [
      n('error', { error: { message: 'retrying 1/5' }, willRetry: true }), n('error', { error: { message: 'retrying 2/5' }, willRetry: true }),
      turnEnd('failed', { message: '401 Unauthorized', codexErrorInfo: { responseTooManyFailedAttempts: { httpStatusCode: 401 } } }),
    ],
    want: { status: 'failed', error: texts.unauthorized, items: [{ kind: 'notice', level: 'warning', position: 0, status: 'completed', text: texts.retrying }] },
  },
  {
    name: 'the turn\'s usage counts from before its first request, across its requests',
    // The thread had used 90 + 10 before this turn; the turn makes two requests of 10 + 5.
    play: [tokens([100, 15], [10, 5], 1000), tokens([110, 20], [12, 5], 1000), turnEnd('completed')],
    want: { status: 'completed', usage: { input: 20, cachedInput: 0, output: 10, reasoning: 0, total: 30 }, items: [] },
    context: { used: 17, window: 1000 },
  },
  {
    name: 'items Codex sends only whole are kept; a compaction is said where it happened',
    play: [
      completed({ type: 'webSearch', id: 'w', query: 'lanternmoor' }), completed({ type: 'contextCompaction', id: 'x' }),
      completed({ type: 'fileChange', id: 'f', status: 'completed', changes: [{ path: 'notes.md', kind: { type: 'add' }, diff: '+hi' }] }), turnEnd('completed'),
    ],
    want: {
      items: [
        { kind: 'webSearch', position: 0, status: 'completed', query: 'lanternmoor' },
        { kind: 'notice', level: 'info', position: 1, status: 'completed', text: texts.compacted },
        { kind: 'fileChange', position: 2, status: 'completed', changes: [{ path: 'notes.md', change: 'add', diff: '+hi' }] },
      ],
    },
  },
];

for (const row of rows) {
  test(row.name, () => {
    const head: TurnHead = { id: 'u', threadId: 't', position: 0, question: 'q', status: 'running', error: null, usage: null, startedAt: 0, endedAt: null };
    const events: string[] = [];
    const kept = new Map<number, Item>();
    let said: Context | undefined;
    const turn = new LiveTurn(head, { folder: '/threads/t', attachments: '/threads/t', codexThreadId: T, choice: { model: null, effort: null }, permission: 'write' }, {
      turn: (changed) => events.push(`turn ${changed.status}`),
      context: (_, context) => { said = context; },
      item: (_, item) => { kept.set(item.position, item); },
      delta: (_, item, field, part, _at, text) => { kept.set(item.position, item); events.push(`delta ${item.position} ${field} ${part ?? ''} ${text.length}`); },
      textOf: () => assert.fail('no answer grew'),
    });
    turn.stopRequested = row.stop ?? false;
    for (const notification of row.play) turn.apply(notification);
    if (!turn.finished) turn.finish('stopped', null, 1);
    const { items, ...want } = row.want;
    assert.deepEqual(turn.items, items);
    for (const [key, value] of Object.entries(want)) assert.deepEqual(turn.head[key as keyof TurnHead], value, key);
    // What the sink was handed last is what the turn holds: the store keeps what the page shows.
    assert.deepEqual([...kept.values()], items);
    assert.equal(events.at(-1), `turn ${turn.head.status}`);
    assert.deepEqual(said, row.context);
  });
}

// Where each delta starts in the answer, in UTF-16 units: the store puts the journal's tails there,
// and rebuilds a running answer from them after a crash.
test('each delta of an answer is said with where it starts', () => {
  const head: TurnHead = { id: 'u', threadId: 't', position: 0, question: 'q', status: 'running', error: null, usage: null, startedAt: 0, endedAt: null };
  const said: string[] = [];
  const turn = new LiveTurn(head, { folder: '/threads/t', attachments: '/threads/t', codexThreadId: T, choice: { model: null, effort: null }, permission: 'write' }, {
    turn: () => {}, context: () => {}, item: () => {}, delta: (_, _item, _field, _part, at, text) => { said.push(`${at} ${text}`); }, textOf: () => '',
  });
  turn.apply(started({ type: 'agentMessage', id: 'm', text: '早' }));
  for (const delta of ['中文', '😀', 'a']) turn.apply(n('item/agentMessage/delta', { itemId: 'm', delta }));
  assert.deepEqual(said, ['1 中文', '3 😀', '5 a']);
});

// A scriptable stand-in for `codex app-server`, for the faults the real one will not show on
// demand: a given version, silence, death in the middle of a turn. Told what to do through its
// environment; writes each method it receives to FAKE_CODEX_LOG.
import { createInterface } from 'node:readline';
import { appendFileSync, closeSync } from 'node:fs';
import { spawn } from 'node:child_process';

const version = process.env.FAKE_CODEX_VERSION ?? '0.169.0';
const die = process.env.FAKE_CODEX_DIE ?? '';
const log = process.env.FAKE_CODEX_LOG;
// "<count>x<size>x<gap ms>": every turn after the first streams this many numbered deltas of this
// size, this far apart, before it ends; each says when it was sent (for benchmarks).
const [streamCount, streamSize, streamGap] = (process.env.FAKE_CODEX_STREAM ?? '0x0x0').split('x').map(Number) as [number, number, number];
// "whole": an answer is completed with all it streamed, as Codex does; else with its first delta.
const completeWhole = process.env.FAKE_CODEX_COMPLETE === 'whole';
let threads = 0;
let turns = 0;

const send = (message: object) => process.stdout.write(`${JSON.stringify(message)}\n`);
const notify = (method: string, params: object) => send({ method, params });

async function turn(threadId: string, turnId: string) {
  notify('turn/started', { threadId, turn: { id: turnId, status: 'inProgress', items: [], error: null } });
  notify('item/started', { threadId, turnId, item: { type: 'agentMessage', id: `m${turnId}`, text: '' } });
  notify('item/agentMessage/delta', { threadId, turnId, itemId: `m${turnId}`, delta: 'partial answer' });
  if (die === 'mid-turn') process.exit(3);
  const streamed = ['partial answer'];
  for (let i = 0; turns > 1 && i < streamCount; i += 1) {
    await new Promise((resolve) => setTimeout(resolve, streamGap));
    const delta = `${i}:${(performance.timeOrigin + performance.now()).toFixed(2)}:`.padEnd(streamSize, '.');
    if (completeWhole) streamed.push(delta);
    notify('item/agentMessage/delta', { threadId, turnId, itemId: `m${turnId}`, delta });
  }
  // Streams on and on: the turn stays open until it is interrupted.
  if (die === 'never-finishes' && turns > 1) return;
  notify('item/completed', { threadId, turnId, item: { type: 'agentMessage', id: `m${turnId}`, text: streamed.join('') } });
  notify('turn/completed', { threadId, turn: { id: turnId, status: 'completed', items: [], error: null } });
}

createInterface({ input: process.stdin }).on('line', (line) => {
  const message = JSON.parse(line) as { id?: number; method?: string; params?: Record<string, string> };
  if (log && message.method) appendFileSync(log, `${message.method}\n`);
  if (message.id === undefined) return;
  const answer = (result: object) => send({ id: message.id, result });
  switch (message.method) {
    case 'initialize':
      if (die === 'hang' || die === 'flood') return;
      answer({ userAgent: version === 'garbage' ? 'codex' : `lanternmoor/${version} (fake)` });
      return;
    case 'account/read':
      answer({ account: null, requiresOpenaiAuth: false });
      return;
    case 'thread/start':
      threads += 1;
      answer({ thread: { id: `fake-thread-${threads}` } });
      return;
    case 'turn/interrupt':
      answer({});
      notify('turn/completed', { threadId: message.params!.threadId, turn: { id: message.params!.turnId, status: 'interrupted', items: [], error: null } });
      return;
    case 'thread/resume':
      answer({ thread: { id: message.params?.threadId } });
      return;
    case 'turn/start': {
      turns += 1;
      const turnId = `fake-turn-${turns}`;
      answer({ turn: { id: turnId, status: 'inProgress', items: [], error: null } });
      void turn(message.params!.threadId!, turnId);
      return;
    }
    default:
      send({ id: message.id, error: { code: -32601, message: `${message.method} is not faked` } });
  }
});
// Ones that will not go: deaf to the end of their input, and the stubborn one to SIGTERM too;
// ones that never start, holding a child of their own, one of them printing lines all the while.
const stays = ['stubborn', 'deaf', 'hang', 'flood'].includes(die);
if (die === 'stubborn' || die === 'hang' || die === 'flood') process.on('SIGTERM', () => {});
if (stays) setInterval(() => {}, 60_000);
if (die === 'hang' || die === 'flood') spawn(process.execPath, ['-e', 'setInterval(() => {}, 60_000)'], { stdio: 'ignore' });
const flood = () => {
  while (process.stdout.write(`${'stray line '.repeat(20)}\n`));
  process.stdout.once('drain', flood);
};
if (die === 'flood') flood();
// Its output closed well before its exit is seen: the exit is still what it is reported by.
if (die === 'at-start') {
  closeSync(1);
  setTimeout(() => process.exit(1), 200);
}
process.stdin.on('end', () => { if (!stays) process.exit(0); });

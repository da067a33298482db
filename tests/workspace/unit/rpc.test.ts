// JSON-RPC over a pair of streams: answers matched to requests, the other side's requests and
// notifications, time-outs on the clock, and the end of the connection.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { PassThrough } from 'node:stream';
import { RpcClosed, RpcConnection, RpcError } from '../../../resources/app/workspace/codex/rpc.ts';
import { VirtualClock, settle } from '../support/clock.ts';

function pair() {
  const toUs = new PassThrough();
  const fromUs = new PassThrough();
  const sent: Record<string, unknown>[] = [];
  let buffered = '';
  fromUs.on('data', (chunk) => {
    buffered += chunk;
    const lines = buffered.split('\n');
    buffered = lines.pop()!;
    for (const line of lines) sent.push(JSON.parse(line));
  });
  const notifications: [string, unknown][] = [];
  const clock = new VirtualClock();
  const connection = new RpcConnection(toUs, fromUs, {
    notification: (method, params) => notifications.push([method, params]),
    request: (method, params) => {
      if (method === 'ask/name') return { name: 'us', params };
      throw new RpcError(-32601, 'no');
    },
  }, clock);
  const reply = (message: object) => toUs.write(`${JSON.stringify(message)}\n`);
  return { connection, sent, notifications, reply, clock, toUs };
}

test('answers find their requests in any order, and errors come back as RpcError', async () => {
  const { connection, sent, reply } = pair();
  const first = connection.request('a', { n: 1 });
  const second = connection.request('b', {});
  const third = connection.request('c', {});
  await settle();
  assert.deepEqual(sent, [{ id: 1, method: 'a', params: { n: 1 } }, { id: 2, method: 'b', params: {} }, { id: 3, method: 'c', params: {} }]);
  reply({ id: 2, result: 'two' });
  reply({ id: 3, error: { code: -32001, message: 'overloaded' } });
  reply({ id: 1, result: { one: true } });
  assert.deepEqual(await first, { one: true });
  assert.equal(await second, 'two');
  await assert.rejects(third, (error) => error instanceof RpcError && error.code === -32001 && error.message === 'overloaded');
});

test('the other side\'s notifications are passed on, its requests answered, stray lines ignored', async () => {
  const { sent, notifications, reply, toUs } = pair();
  toUs.write('WARNING: not JSON at all\n\n[1,2]\n');
  reply({ method: 'item/started', params: { x: 1 } });
  reply({ id: 'r1', method: 'ask/name', params: { p: 2 } });
  reply({ id: 7, method: 'approve/this', params: {} });
  await settle();
  assert.deepEqual(notifications, [['item/started', { x: 1 }]]);
  assert.deepEqual(sent, [
    { id: 'r1', result: { name: 'us', params: { p: 2 } } },
    { id: 7, error: { code: -32601, message: 'no' } },
  ]);
});

test('a request without an answer in time fails on the clock, and a late answer is dropped', async () => {
  const { connection, reply, clock } = pair();
  const slow = connection.request('slow', {}, 1000);
  const rejected = assert.rejects(slow, RpcClosed);
  await clock.advance(999);
  let settled = false;
  slow.catch(() => { settled = true; });
  await settle();
  assert.equal(settled, false);
  await clock.advance(1);
  await rejected;
  reply({ id: 1, result: 'late' });
  await settle();
});

test('when the other side ends, every open request fails and later ones fail at once', async () => {
  const { connection, toUs, clock } = pair();
  const open = connection.request('x', {}, 5000);
  toUs.end();
  await assert.rejects(open, RpcClosed);
  await assert.rejects(connection.request('y', {}), RpcClosed);
  assert.equal(clock.waiting, 0, 'the time-out of the failed request is cancelled');
});

// JSON-RPC over a pair of streams: answers matched to requests, and the other side's requests and
// notifications told apart; and which Codex versions are too old to talk to. (Time-outs and the end
// of the connection: the app-server's tests.)
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { PassThrough } from 'node:stream';
import { RpcConnection, RpcError } from '../../../resources/app/workspace/codex/rpc.ts';
import { olderThan, parseVersion } from '../../../resources/app/workspace/codex/appServer.ts';
import { VirtualClock, settle } from '../../harness/clock.ts';

function pair() {
  const toUs = new PassThrough();
  const fromUs = new PassThrough();
  const sent: unknown[] = [];
  fromUs.on('data', (chunk: Buffer) => sent.push(...chunk.toString().trim().split('\n').map((line) => JSON.parse(line))));
  const notifications: unknown[] = [];
  const connection = new RpcConnection(toUs, fromUs, {
    notification: (method, params) => notifications.push([method, params]),
    request: (method) => { throw new RpcError(-32601, `no ${method}`); },
  }, new VirtualClock());
  return { connection, sent, notifications, toUs, reply: (message: object) => toUs.write(`${JSON.stringify(message)}\n`) };
}

test('answers find their requests in any order; the other side\'s requests, notifications and stray lines are told apart', async () => {
  const { connection, sent, notifications, reply, toUs } = pair();
  const first = connection.request('a', { n: 1 });
  const second = connection.request('b', {});
  toUs.write('WARNING: not JSON at all\n\n[1,2]\n');
  reply({ id: 2, error: { code: -32001, message: 'overloaded' } });
  reply({ method: 'item/started', params: { x: 1 } });
  reply({ id: 'r1', method: 'approve/this', params: {} });
  reply({ id: 1, result: { one: true } });
  assert.deepEqual(await first, { one: true });
  await assert.rejects(second, (error) => error instanceof RpcError && error.code === -32001 && error.message === 'overloaded');
  await settle();
  assert.deepEqual(notifications, [['item/started', { x: 1 }]]);
  assert.deepEqual(sent, [
    { id: 1, method: 'a', params: { n: 1 } }, { id: 2, method: 'b', params: {} },
    { id: 'r1', error: { code: -32601, message: 'no approve/this' } },
  ]);
});

test('a Codex version is older than 0.146.0 number by number, not as text', () => {
  const rows: [string, boolean][] = [['0.146.0', false], ['0.146.1', false], ['0.145.9', true], ['0.99.0', true], ['0.1000.0', false], ['1.0.0', false]];
  for (const [version, older] of rows) assert.equal(olderThan(parseVersion(`codex_cli_rs/${version} (Linux)`)!, [0, 146, 0]), older, version);
});

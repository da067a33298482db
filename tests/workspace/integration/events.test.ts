// The event stream to many pages: one page that stops reading is let go once it lags too far,
// while the pages that read get every event.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { createServer } from 'node:http';
import { connect } from 'node:net';
import { once } from 'node:events';
import { EventHub, MAX_QUEUED_BYTES } from '../../../resources/app/workspace/http/events.ts';
import type { PageEvent, ServiceState } from '../../../resources/app/workspace/model.ts';
import { Page } from '../support/service.ts';

const service = { codex: { state: 'idle', version: null }, account: null, signIn: { state: 'idle', outcome: null, offerDeviceCode: false }, limits: null, storage: null, about: { address: '', dataFolder: '', codexPath: '', node: '', startedAt: 0 } } satisfies ServiceState;

async function hubServer() {
  const hub = new EventHub();
  const server = createServer((request, response) => {
    const thread = new URL(request.url!, 'http://x').searchParams.get('thread');
    hub.subscribe(response, thread, { type: 'hello', service, threads: [], thread: null });
  }).listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address() as import('node:net').AddressInfo;
  return { hub, server, url: `http://127.0.0.1:${port}/`, port };
}

const delta = (threadId: string, text: string): PageEvent => ({ type: 'delta', threadId, turnId: 'u', position: 0, field: 'text', text });

test('a page that stops reading is dropped once it lags too far; the others get every event', { timeout: 60_000 }, async () => {
  const { hub, server, url, port } = await hubServer();
  const readers = [new Page(url, 't'), new Page(url, 't')];
  const stalled = connect(port, '127.0.0.1');
  stalled.write('GET /api/events?thread=t HTTP/1.1\r\nHost: x\r\n\r\n');
  await new Promise<void>((resolve) => stalled.once('data', () => { stalled.pause(); resolve(); }));
  while (hub.size < 3) await new Promise((resolve) => setTimeout(resolve, 10));

  const piece = 'x'.repeat(64 << 10);
  const count = Math.ceil((4 * MAX_QUEUED_BYTES) / piece.length);
  for (let i = 0; i < count; i += 1) {
    hub.publish(delta('t', `${i}:${piece}`));
    // Let the readers read between events, as a stream spread over time would.
    if (i % 8 === 0) await new Promise((resolve) => setImmediate(resolve));
  }
  while (readers.some((page) => page.events.length < count + 1)) await new Promise((resolve) => setTimeout(resolve, 10));

  assert.equal(hub.size, 2, 'the stalled page was let go');
  for (const page of readers) {
    assert.deepEqual(page.events.slice(1).map((event) => event.type === 'delta' && Number(event.text.split(':')[0])), [...Array(count).keys()]);
  }
  readers.forEach((page) => page.close());
  stalled.destroy();
  server.close();
});

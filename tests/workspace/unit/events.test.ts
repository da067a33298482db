// Pages on one running turn, one of which stops reading: it is let go once more than the limit
// waits for it, so what the service queues stays bounded, and the other pages get every event of
// their thread in order. (Fifty pages, and a stalled one on a real connection: the benchmark.)
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { Duplex } from 'node:stream';
import type { IncomingMessage } from 'node:http';
import { EventHub, MAX_QUEUED_BYTES } from '../../../resources/app/workspace/http/events.ts';
import { PageSocket, textFrame } from '../../../resources/app/workspace/http/socket.ts';
import type { PageEvent } from '../../../resources/app/workspace/model.ts';

/** A page's connection; a stalled one takes the handshake and nothing after it, so the rest queues. */
function page(reads: boolean) {
  const written: Buffer[] = [];
  const duplex = new Duplex({ read() {}, write(chunk: Buffer, _encoding, done) { written.push(chunk); if (reads) done(); } });
  const socket = new PageSocket({ headers: { 'sec-websocket-key': 'dGhlIHNhbXBsZSBub25jZQ==' } } as unknown as IncomingMessage, duplex, Buffer.alloc(0));
  return { written, duplex, socket };
}

const hello = { type: 'hello' } as Extract<PageEvent, { type: 'hello' }>;
const delta = (threadId: string, text: string): PageEvent => ({ type: 'delta', threadId, turnId: 'x', position: 0, field: 'text', text });

test('a page with more than the limit queued is let go, one just at it is not, and the others get every event of their thread in order', () => {
  const hub = new EventHub();
  const [reading, stalled] = [page(true), page(false)];
  for (const each of [stalled, reading]) hub.subscribe(each.socket, 't', hello);
  // A frame over 64 KiB gives its length in 8 bytes where the empty one's takes none.
  const filler = delta('t', 'x'.repeat(MAX_QUEUED_BYTES - stalled.socket.writableLength - textFrame(JSON.stringify(delta('t', ''))).length - 8));
  const events = [filler, delta('t', 'at the limit'), delta('u', 'elsewhere'), delta('t', 'over it')];
  hub.publish(events[0]!);
  assert.equal(stalled.socket.writableLength, MAX_QUEUED_BYTES);
  assert.deepEqual(events.slice(1).map((event) => { hub.publish(event); return stalled.duplex.destroyed; }), [false, false, true]);
  assert.deepEqual(reading.written.slice(1), [hello, events[0]!, events[1]!, events[3]!].map((event) => textFrame(JSON.stringify(event))));
  assert.equal(hub.size, 1);
});

test('one event bigger than the limit (a long answer settled) is not a page falling behind: the limit counts from its end', () => {
  const hub = new EventHub();
  const stalled = page(false);
  hub.subscribe(stalled.socket, 't', hello);
  const sent = [delta('t', 'x'.repeat(2 * MAX_QUEUED_BYTES)), delta('t', 'the turn ends'), delta('t', 'x'.repeat(MAX_QUEUED_BYTES)), delta('t', 'over it')];
  assert.deepEqual(sent.map((event) => { hub.publish(event); return stalled.duplex.destroyed; }), [false, false, false, true]);
});

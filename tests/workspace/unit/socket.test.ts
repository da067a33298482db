// A page's WebSocket as the service reads it: what the page may send is answered in the protocol's
// own terms, and frames no browser sends end the connection with the code that says why.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { Duplex } from 'node:stream';
import type { IncomingMessage } from 'node:http';
import { frameHead, PageSocket } from '../../../resources/app/workspace/http/socket.ts';

/** A frame as a browser sends it: masked, its length in 7 bits, or as many as `long` says. */
function masked(opcode: number, text: string, long?: number): Buffer {
  const payload = Buffer.from(text);
  const mask = Buffer.from([1, 2, 3, 4]);
  const length = long === undefined ? [0x80 | payload.length] : [0x80 | 127, ...Buffer.from(BigInt(long).toString(16).padStart(16, '0'), 'hex')];
  return Buffer.concat([Buffer.from([0x80 | opcode, ...length]), mask, payload.map((byte, i) => byte ^ mask[i & 3]!)]);
}

const close = (code: number) => [0x88, 2, code >> 8, code & 0xff];

test('what a page sends: pings answered, a close returned, text ignored, foreign frames refused', async () => {
  const cases: [string, Buffer[], number[]][] = [
    ['a ping', [masked(0x9, 'hi')], [0x8a, 2, 0x68, 0x69]],
    ['a ping in two pieces', [masked(0x9, 'hi').subarray(0, 3), masked(0x9, 'hi').subarray(3)], [0x8a, 2, 0x68, 0x69]],
    ['text, then a ping', [Buffer.concat([masked(0x1, 'words'), masked(0x9, '')])], [0x8a, 0]],
    ['a close', [masked(0x8, '')], close(1000)],
    ['an unmasked frame', [Buffer.from([0x89, 0])], close(1002)],
    ['a frame of 64 KiB, waited for', [masked(0x1, '', 64 << 10).subarray(0, 10)], []],
    ['a frame a byte over 64 KiB', [masked(0x1, '', (64 << 10) + 1).subarray(0, 10)], close(1009)],
  ];
  for (const [what, chunks, answer] of cases) {
    const written: Buffer[] = [];
    const socket = new Duplex({ read() {}, write(chunk, _encoding, done) { written.push(chunk); done(); } });
    const request = { headers: { 'sec-websocket-key': 'dGhlIHNhbXBsZSBub25jZQ==' } } as unknown as IncomingMessage;
    new PageSocket(request, socket, Buffer.alloc(0));
    for (const chunk of chunks) socket.push(chunk);
    await new Promise(setImmediate);
    assert.match(written[0]!.toString(), /^HTTP\/1\.1 101 .*Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK\+xOo=\r\n\r\n$/s, what);
    assert.deepEqual([...Buffer.concat(written.slice(1))], answer, what);
  }
});

test('a frame the service sends gives its length in the shortest form the protocol allows', () => {
  const rows: [number, number[]][] = [
    [125, [0x81, 125]],
    [126, [0x81, 126, 0, 126]],
    [65_535, [0x81, 126, 0xff, 0xff]],
    [65_536, [0x81, 127, 0, 0, 0, 0, 0, 1, 0, 0]],
  ];
  for (const [length, head] of rows) assert.deepEqual([...frameHead(0x1, length)], head, String(length));
});

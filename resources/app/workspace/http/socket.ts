// A WebSocket (RFC 6455) for the one thing the pages need one for: the service's events, sent one
// way. A browser keeps at most six HTTP/1.1 connections to a host and an event stream over HTTP
// holds one for as long as the page is open, so six pages took them all; its WebSockets are not
// counted among those six. The page has nothing to say on it: only the protocol's own ping and
// close are answered, and whatever else it might send is ignored.
import { createHash } from 'node:crypto';
import { STATUS_CODES, type IncomingMessage } from 'node:http';
import type { Duplex } from 'node:stream';

const GUID = '258EAFA5-E914-47DA-95CA-C5AB0DC85B11';
/** Control frames carry at most 125 bytes; the page has no reason to send bigger text. */
const MAX_INCOMING_BYTES = 64 << 10;

const TEXT = 0x1;
const CLOSE = 0x8;
const PING = 0x9;
const PONG = 0xa;

export const CLOSE_PROTOCOL_ERROR = 1002;
export const CLOSE_TOO_BIG = 1009;
export const CLOSE_GOING_AWAY = 1001;

/** Why an upgrade request is not answered with a WebSocket, or null when it is a valid one. */
export function handshakeProblem(request: IncomingMessage): string | null {
  if (request.method !== 'GET') return 'method';
  if ((request.headers.upgrade ?? '').toLowerCase() !== 'websocket') return 'upgrade';
  if (request.headers['sec-websocket-version'] !== '13') return 'version';
  const key = request.headers['sec-websocket-key'] ?? '';
  if (!/^[A-Za-z0-9+/]{22}==$/.test(key)) return 'key';
  return null;
}

export function acceptKey(key: string): string {
  return createHash('sha1').update(key + GUID).digest('base64');
}

/** A frame's head: final, unmasked (a server never masks), with the length in 7, 16 or 64 bits. */
export function frameHead(opcode: number, length: number): Buffer {
  if (length < 126) return Buffer.from([0x80 | opcode, length]);
  if (length < 0x10000) {
    const head = Buffer.alloc(4);
    head[0] = 0x80 | opcode;
    head[1] = 126;
    head.writeUInt16BE(length, 2);
    return head;
  }
  const head = Buffer.alloc(10);
  head[0] = 0x80 | opcode;
  head[1] = 127;
  head.writeBigUInt64BE(BigInt(length), 2);
  return head;
}

/** A text message as it goes on the wire, made once and written to every page that wants it. */
export function textFrame(text: string): Buffer {
  // Encoded straight into the frame: a long answer's every delta came here, and a copy of each
  // was a buffer more for the collector to find.
  const length = Buffer.byteLength(text, 'utf8');
  const head = frameHead(TEXT, length);
  const frame = Buffer.allocUnsafe(head.length + length);
  head.copy(frame);
  frame.write(text, head.length, 'utf8');
  return frame;
}

function closeFrame(code: number): Buffer {
  const payload = Buffer.alloc(2);
  payload.writeUInt16BE(code, 0);
  return Buffer.concat([frameHead(CLOSE, 2), payload]);
}

/** One page's WebSocket, after the handshake. */
export class PageSocket {
  readonly socket: Duplex;
  #buffer: Buffer = Buffer.alloc(0);
  #closing = false;

  constructor(request: IncomingMessage, socket: Duplex, head: Buffer) {
    this.socket = socket;
    socket.write(
      'HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n'
        + `Sec-WebSocket-Accept: ${acceptKey(request.headers['sec-websocket-key']!)}\r\n\r\n`,
    );
    socket.on('data', (chunk: Buffer) => this.#read(chunk));
    socket.on('error', () => socket.destroy());
    if (head.length > 0) this.#read(head);
  }

  get writableLength(): number {
    return (this.socket as Duplex & { writableLength: number }).writableLength;
  }

  get open(): boolean {
    return !this.#closing && !this.socket.destroyed;
  }

  send(frame: Buffer): void {
    if (this.open) this.socket.write(frame);
  }

  close(code: number): void {
    if (this.#closing) return;
    this.#closing = true;
    if (this.socket.destroyed) return;
    this.socket.end(closeFrame(code));
    // A page that does not answer the close within a moment is not waited for.
    setTimeout(() => this.socket.destroy(), 1000).unref();
  }

  #read(chunk: Buffer): void {
    if (this.#closing) return;
    this.#buffer = this.#buffer.length === 0 ? chunk : Buffer.concat([this.#buffer, chunk]);
    for (;;) {
      const frame = parseFrame(this.#buffer);
      if (frame === null) return;
      if (typeof frame === 'number') {
        this.close(frame);
        return;
      }
      this.#buffer = this.#buffer.subarray(frame.size);
      if (frame.opcode === PING) this.send(Buffer.concat([frameHead(PONG, frame.payload.length), frame.payload]));
      else if (frame.opcode === CLOSE) this.close(1000);
    }
  }
}

/**
 * The first whole frame from a page, or null until it has all come, or the close code to answer
 * a frame no browser sends: unmasked, or bigger than a page has reason to send.
 */
export function parseFrame(buffer: Buffer): { opcode: number; payload: Buffer; size: number } | number | null {
  if (buffer.length < 2) return null;
  const opcode = buffer[0]! & 0x0f;
  if ((buffer[1]! & 0x80) === 0) return CLOSE_PROTOCOL_ERROR;
  let length = buffer[1]! & 0x7f;
  let offset = 2;
  if (length === 126) {
    if (buffer.length < 4) return null;
    length = buffer.readUInt16BE(2);
    offset = 4;
  } else if (length === 127) {
    if (buffer.length < 10) return null;
    // Past 2^53 the number is inexact, but still far over the limit below.
    length = Number(buffer.readBigUInt64BE(2));
    offset = 10;
  }
  if (length > MAX_INCOMING_BYTES) return CLOSE_TOO_BIG;
  if (buffer.length < offset + 4 + length) return null;
  const mask = buffer.subarray(offset, offset + 4);
  const payload = Buffer.from(buffer.subarray(offset + 4, offset + 4 + length));
  for (let i = 0; i < payload.length; i += 1) payload[i]! ^= mask[i & 3]!;
  return { opcode, payload, size: offset + 4 + length };
}

/** A plain HTTP answer instead of the handshake, after which the connection is closed. */
export function refuseUpgrade(socket: Duplex, status: number, message: string, headers: Record<string, string> = {}): void {
  const body = Buffer.from(JSON.stringify({ error: message }), 'utf8');
  const lines = [
    `HTTP/1.1 ${status} ${STATUS_CODES[status] ?? ''}`, 'Content-Type: application/json; charset=utf-8',
    `Content-Length: ${body.length}`, 'Cache-Control: no-store', 'Connection: close',
    ...Object.entries(headers).map(([name, value]) => `${name}: ${value}`),
  ];
  socket.end(Buffer.concat([Buffer.from(`${lines.join('\r\n')}\r\n\r\n`), body]));
}

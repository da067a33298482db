// JSON-RPC as Codex's app-server speaks it: one JSON object per line each way, without the
// "jsonrpc" member; requests from either side, notifications from either side.
import { createInterface } from 'node:readline';
import type { Readable, Writable } from 'node:stream';
import type { Clock, Timer } from '../clock.ts';

export class RpcError extends Error {
  readonly code: number;
  constructor(code: number, message: string) {
    super(message);
    this.code = code;
  }
}

/** The connection ended (or timed out) before an answer came. */
export class RpcClosed extends Error {}

export interface RpcHandlers {
  notification(method: string, params: unknown): void;
  /** A request from the other side; what it returns (or throws as RpcError) is the answer. */
  request(method: string, params: unknown): unknown;
}

interface Pending {
  method: string;
  resolve(result: unknown): void;
  reject(error: Error): void;
  timer: Timer | null;
}

type Message = {
  id?: number | string;
  method?: string;
  params?: unknown;
  result?: unknown;
  error?: { code?: number; message?: string };
};

export class RpcConnection {
  readonly #output: Writable;
  readonly #handlers: RpcHandlers;
  readonly #clock: Clock;
  readonly #pending = new Map<number, Pending>();
  #nextId = 1;
  #closed: Error | null = null;

  constructor(input: Readable, output: Writable, handlers: RpcHandlers, clock: Clock) {
    this.#output = output;
    this.#handlers = handlers;
    this.#clock = clock;
    const lines = createInterface({ input, crlfDelay: Infinity });
    lines.on('line', (line) => this.#receive(line));
    lines.on('close', () => this.close(new RpcClosed('the other side closed the connection')));
    // A write after the other side is gone fails here rather than as an unhandled error event.
    output.on('error', (error) => this.close(new RpcClosed(`writing failed: ${error.message}`)));
  }

  get closed(): boolean {
    return this.#closed !== null;
  }

  /** The answer as it came: what it means is for whoever knows the method (codex/protocol.ts). */
  request(method: string, params: unknown, timeoutMs?: number): Promise<unknown> {
    if (this.#closed) return Promise.reject(this.#closed);
    const id = this.#nextId++;
    return new Promise((resolve, reject) => {
      const timer = timeoutMs === undefined ? null : this.#clock.after(timeoutMs, () => {
        this.#pending.delete(id);
        reject(new RpcClosed(`${method} had no answer within ${timeoutMs} ms`));
      });
      this.#pending.set(id, { method, resolve, reject, timer });
      this.#send({ id, method, params });
    });
  }

  notify(method: string, params?: unknown): void {
    if (!this.#closed) this.#send(params === undefined ? { method } : { method, params });
  }

  /** Fails every open request with this error; later ones fail at once. */
  close(error: Error = new RpcClosed('closed')): void {
    if (this.#closed) return;
    this.#closed = error;
    for (const pending of this.#pending.values()) {
      pending.timer?.cancel();
      pending.reject(error);
    }
    this.#pending.clear();
  }

  #send(message: Message): void {
    if (this.#closed) return;
    this.#output.write(`${JSON.stringify(message)}\n`);
  }

  #receive(line: string): void {
    if (line.trim() === '') return;
    let message: Message;
    try {
      message = JSON.parse(line) as Message;
    } catch {
      return; // not ours to answer: a stray line from the other side's start-up
    }
    if (typeof message !== 'object' || message === null) return;
    if (message.method !== undefined && message.id !== undefined) {
      this.#answer(message.id, message.method, message.params);
    } else if (message.method !== undefined) {
      this.#handlers.notification(message.method, message.params);
    } else if (typeof message.id === 'number') {
      this.#settle(message.id, message);
    }
  }

  #settle(id: number, message: Message): void {
    const pending = this.#pending.get(id);
    if (!pending) return;
    this.#pending.delete(id);
    pending.timer?.cancel();
    if (message.error) {
      pending.reject(new RpcError(message.error.code ?? -32603, message.error.message ?? `${pending.method} failed`));
    } else {
      pending.resolve(message.result);
    }
  }

  #answer(id: number | string, method: string, params: unknown): void {
    Promise.resolve()
      .then(() => this.#handlers.request(method, params))
      .then(
        (result) => this.#send({ id, result: result ?? {} }),
        (error: unknown) => {
          const code = error instanceof RpcError ? error.code : -32603;
          this.#send({ id, error: { code, message: error instanceof Error ? error.message : String(error) } });
        },
      )
      .catch(() => {}); // the connection went away while answering
  }
}

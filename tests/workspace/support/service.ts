// The workspace service as the launcher runs it: a child Node.js on server.mjs, with the
// launcher's environment, on a free loopback port; and a page's view of it (its event stream).
import { spawn, type ChildProcess } from 'node:child_process';
import { chmodSync, mkdtempSync, readFileSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:net';
import { once } from 'node:events';
import { get, request as httpRequest } from 'node:http';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';
import type { PageEvent } from '../../../resources/app/workspace/model.ts';

export const SOURCE = fileURLToPath(new URL('../../../', import.meta.url));
export const APP = join(SOURCE, 'resources/app');
export const NODE = process.execPath;
export const CODEX = process.env.LM_TEST_CODEX ?? join(SOURCE, '.tools/codex/node_modules/.bin/codex');

export function temporaryFolder(prefix: string): string {
  return mkdtempSync(join(tmpdir(), prefix));
}

export async function freePort(): Promise<number> {
  const server = createServer().listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address() as import('node:net').AddressInfo;
  server.close();
  await once(server, 'close');
  return port;
}

/** Whether the process runs: it exists and has not ended (a zombie has). */
export function isRunning(pid: number): boolean {
  try {
    const stat = readFileSync(`/proc/${pid}/stat`, 'utf8');
    return stat.slice(stat.lastIndexOf(')') + 2)[0] !== 'Z';
  } catch {
    return false;
  }
}

/** An executable that runs the fake app-server under this test's Node.js. */
export function fakeCodex(folder: string): string {
  const path = join(folder, 'codex');
  writeFileSync(path, `#!/bin/sh\nexec "${NODE}" --experimental-strip-types "${join(SOURCE, 'tests/workspace/support/fake-app-server.ts')}" "$@"\n`);
  chmodSync(path, 0o755);
  return path;
}

export async function until<T>(what: string, probe: () => T | undefined | null | false | Promise<T | undefined | null | false>, timeoutMs = 15_000): Promise<T> {
  const end = Date.now() + timeoutMs;
  for (;;) {
    const value = await probe();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
}

/** A page's event stream, read as the page reads it. */
export class Page {
  readonly events: PageEvent[] = [];
  /** When each event was read, on the stand-in's clock: for benchmarks. */
  readonly times: number[] = [];
  readonly #abort = new AbortController();
  readonly done: Promise<void>;

  constructor(url: string, threadId: string | null) {
    const address = `${url}api/events${threadId ? `?thread=${encodeURIComponent(threadId)}` : ''}`;
    this.done = (async () => {
      const response = await fetch(address, { signal: this.#abort.signal });
      let buffer = '';
      const decoder = new TextDecoder();
      for await (const chunk of response.body!) {
        buffer += decoder.decode(chunk, { stream: true });
        for (let end = buffer.indexOf('\n\n'); end >= 0; end = buffer.indexOf('\n\n')) {
          const data = buffer.slice(0, end).split('\n').find((line) => line.startsWith('data: '));
          buffer = buffer.slice(end + 2);
          if (data) {
            this.times.push(performance.timeOrigin + performance.now());
            this.events.push(JSON.parse(data.slice(6)) as PageEvent);
          }
        }
      }
    })().catch(() => {});
  }

  find<T extends PageEvent['type']>(type: T, test: (event: Extract<PageEvent, { type: T }>) => boolean = () => true) {
    return this.events.find((event): event is Extract<PageEvent, { type: T }> => event.type === type && test(event as never));
  }

  wait<T extends PageEvent['type']>(type: T, test: (event: Extract<PageEvent, { type: T }>) => boolean = () => true, timeoutMs?: number) {
    return until(`a ${type} event`, () => this.find(type, test), timeoutMs);
  }

  close(): void {
    this.#abort.abort();
  }
}

/**
 * A page's event stream read over a bare connection, cheaply enough for fifty at once: a delta
 * keeps only the head of its text (and when it came); other events are kept whole.
 */
export class Tap {
  readonly heads: string[] = [];
  readonly times: number[] = [];
  readonly events: PageEvent[] = [];
  ended = false;
  readonly #request: import('node:http').ClientRequest;

  constructor(port: number, threadId: string) {
    let buffer = '';
    this.#request = get({ host: '127.0.0.1', port, path: `/api/events?thread=${encodeURIComponent(threadId)}`, agent: false }, (response) => {
      response.setEncoding('utf8');
      response.on('data', (chunk: string) => {
        const at = performance.timeOrigin + performance.now();
        buffer += chunk;
        for (let end = buffer.indexOf('\n\n'); end >= 0; end = buffer.indexOf('\n\n')) {
          const data = buffer.slice(buffer.indexOf('data: ') + 6, end);
          buffer = buffer.slice(end + 2);
          const head = /^\{"type":"delta".*?"text":"(.{0,32})/.exec(data.slice(0, 400));
          if (head) {
            this.heads.push(head[1]!);
            this.times.push(at);
          } else {
            this.events.push(JSON.parse(data) as PageEvent);
          }
        }
      });
      response.on('close', () => { this.ended = true; });
    }).on('error', () => { this.ended = true; });
  }

  close(): void {
    this.#request.destroy();
  }
}

export interface Running {
  url: string;
  port: number;
  child: ChildProcess;
  dataFolder: string;
  request(method: string, path: string, body?: unknown, headers?: Record<string, string>): Promise<{ status: number; body: any; headers: Headers }>;
  page(threadId?: string | null): Page;
  exited: Promise<[number | null, NodeJS.Signals | null]>;
}

/** app: another copy of the app folder to run instead of the shipped one (benchmarks compare them). */
export async function startService(options: { codexPath: string; dataFolder?: string; env?: NodeJS.ProcessEnv; app?: string }): Promise<Running> {
  const port = await freePort();
  const dataFolder = options.dataFolder ?? temporaryFolder('lm-data-');
  const app = options.app ?? APP;
  let output = '';
  const child = spawn(NODE, ['--experimental-strip-types', join(app, 'server.mjs')], {
    cwd: app,
    stdio: ['ignore', 'pipe', 'pipe'],
    env: {
      ...process.env, ...options.env,
      LANTERNMOOR_APP_DIR: app, LANTERNMOOR_DATA_DIR: dataFolder, LANTERNMOOR_PORT: String(port),
      LANTERNMOOR_CODEX_PATH: options.codexPath, PATH: `${join(NODE, '..')}:${process.env.PATH}`,
    },
  });
  child.stdout!.on('data', (chunk) => { output += chunk; });
  child.stderr!.on('data', (chunk) => { output += chunk; });
  const exited = once(child, 'exit') as Promise<[number | null, NodeJS.Signals | null]>;
  const url = `http://127.0.0.1:${port}/`;
  await until('the service to listen', () => output.includes('listening on'));
  return {
    url, port, child, dataFolder, exited,
    request(method, path, body, headers = {}) {
      // node:http, not fetch: a test must be able to send any Host and Origin, or none.
      const payload = body === undefined ? undefined : Buffer.from(typeof body === 'string' ? body : JSON.stringify(body));
      const sent: Record<string, string | number> = {
        host: `127.0.0.1:${port}`,
        ...(payload ? { 'content-type': 'application/json', origin: `http://127.0.0.1:${port}`, 'content-length': payload.length } : {}),
        ...headers,
      };
      for (const [name, value] of Object.entries(sent)) if (value === '') delete sent[name];
      return new Promise((resolve, reject) => {
        const outgoing = httpRequest({ host: '127.0.0.1', port, method, path, headers: sent }, async (response) => {
          let text = '';
          for await (const chunk of response) text += chunk;
          let parsed: unknown = text;
          try {
            parsed = JSON.parse(text);
          } catch {
            // not JSON: kept as text
          }
          resolve({ status: response.statusCode!, body: parsed, headers: new Headers(response.headers as Record<string, string>) });
        });
        // A refusal may come before the whole body is sent; the answer is what counts.
        outgoing.on('error', (error: NodeJS.ErrnoException) => { if (error.code !== 'EPIPE' && error.code !== 'ECONNRESET') reject(error); });
        outgoing.end(payload);
      });
    },
    page(threadId = null) {
      const page = new Page(url, threadId);
      child.once('exit', () => page.close());
      return page;
    },
  };
}

// The workspace service as the launcher runs it: a child Node.js on the shipped server.mjs, with
// the launcher's environment, on a free loopback port; and a page's view of it (its event stream).
import { spawn, type ChildProcess } from 'node:child_process';
import { chmodSync, existsSync, mkdtempSync, readdirSync, readFileSync, statSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:net';
import { once } from 'node:events';
import { request as httpRequest } from 'node:http';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';
import type { PageEvent } from '../../resources/app/workspace/model.ts';

export const SOURCE = fileURLToPath(new URL('../../', import.meta.url));
export const BUILD = process.env.LM_BUILD_DIR ?? join(SOURCE, 'build');
/** The service as it ships: the build strips the types of resources/app into the share folder. */
export const APP = join(BUILD, 'share/lanternmoor-pro/app');
export const NODE = process.execPath;
export const CODEX = process.env.LM_TEST_CODEX ?? join(SOURCE, '.tools/codex/node_modules/.bin/codex');

let shippedChecked = false;
/** A module changed since the build would leave a test running yesterday's service. */
export function assertShippedIsCurrent(): void {
  if (shippedChecked) return;
  const sources = join(SOURCE, 'resources/app');
  for (const name of readdirSync(sources, { recursive: true, encoding: 'utf8' })) {
    if (!/^(server\.mjs|workspace\/.*\.ts)$/.test(name)) continue;
    const shipped = join(APP, name.replace(/\.ts$/, '.js'));
    if (!existsSync(shipped) || statSync(shipped).mtimeMs < statSync(join(sources, name)).mtimeMs) {
      throw new Error(`${shipped} is older than resources/app/${name}: cmake --build ${BUILD} --target lanternmoor_resources`);
    }
  }
  shippedChecked = true;
}

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
  writeFileSync(path, `#!/bin/sh\nexec "${NODE}" --experimental-strip-types "${join(SOURCE, 'tests/harness/fake-app-server.ts')}" "$@"\n`);
  chmodSync(path, 0o755);
  return path;
}

// A time-out here only bounds a failure: generous, since a loaded machine is slow, not wrong.
export async function until<T>(what: string, probe: () => T | undefined | null | false | Promise<T | undefined | null | false>, timeoutMs = 60_000): Promise<T> {
  const end = Date.now() + timeoutMs;
  for (;;) {
    const value = await probe();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
}

/** Opens a page's event stream as the page does: a WebSocket, with the page's own Origin. */
export function eventSocket(port: number, threadId: string | null): WebSocket {
  const query = threadId ? `?thread=${encodeURIComponent(threadId)}` : '';
  // Node.js's WebSocket takes headers, which a browser's does not: the Origin is the page's.
  return new WebSocket(`ws://127.0.0.1:${port}/api/events${query}`, { headers: { origin: `http://127.0.0.1:${port}` } } as never);
}

/** A page's event stream, read as the page reads it. */
export class EventStream {
  readonly events: PageEvent[] = [];
  /** When each event was read, on the stand-in's clock: for benchmarks. */
  readonly times: number[] = [];
  readonly #socket: WebSocket;
  readonly done: Promise<void>;

  constructor(port: number, threadId: string | null) {
    this.#socket = eventSocket(port, threadId);
    this.#socket.addEventListener('message', (message) => {
      this.times.push(performance.timeOrigin + performance.now());
      this.events.push(JSON.parse(message.data as string) as PageEvent);
    });
    this.done = new Promise((resolve) => this.#socket.addEventListener('close', () => resolve()));
  }

  find<T extends PageEvent['type']>(type: T, test: (event: Extract<PageEvent, { type: T }>) => boolean = () => true) {
    return this.events.find((event): event is Extract<PageEvent, { type: T }> => event.type === type && test(event as never));
  }

  wait<T extends PageEvent['type']>(type: T, test: (event: Extract<PageEvent, { type: T }>) => boolean = () => true) {
    return until(`a ${type} event`, () => this.find(type, test));
  }

  close(): void {
    this.#socket.close();
  }
}

export interface Running {
  url: string;
  port: number;
  child: ChildProcess;
  dataFolder: string;
  request(method: string, path: string, body?: unknown, headers?: Record<string, string>): Promise<{ status: number; body: any; headers: Headers }>;
  stream(threadId?: string | null): EventStream;
  exited: Promise<[number | null, NodeJS.Signals | null]>;
  /** What it has printed so far, as its run log would have it. */
  output(): string;
}

/** app: another app folder (of another build, say) to run instead of the shipped one: benchmarks compare them. */
export async function startService(options: { codexPath: string; dataFolder?: string; env?: NodeJS.ProcessEnv; app?: string }): Promise<Running> {
  const port = await freePort();
  const dataFolder = options.dataFolder ?? temporaryFolder('lm-data-');
  if (!options.app) assertShippedIsCurrent();
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
    output: () => output,
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
    stream(threadId = null) {
      const stream = new EventStream(port, threadId);
      child.once('exit', () => stream.close());
      return stream;
    },
  };
}

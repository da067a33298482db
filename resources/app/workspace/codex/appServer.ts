// The one long-lived `codex app-server` child: started when first needed, its version checked,
// started again by the next request after it has ended, and stopped politely on shutdown. One
// given up on (silent, refused, stopped) ends with everything it started before another starts.
import { spawn, type ChildProcess } from 'node:child_process';
import { RpcClosed, RpcConnection, RpcError } from './rpc.ts';
import { killSurvivors, treeOf } from './commands.ts';
import type { CodexMethod, CodexPort, CodexRequests } from './protocol.ts';
import { texts } from '../texts.ts';
import type { Clock } from '../clock.ts';
import type { CodexState } from '../model.ts';

/**
 * The oldest Codex measured to do everything this service asks of it. Older ones (0.132 to 0.145)
 * sometimes report a command's end after the end of its turn, losing its exit code.
 */
export const MINIMUM_CODEX_VERSION = '0.146.0';

const INITIALIZE_TIMEOUT_MS = 20_000;
const TERM_AFTER_MS = 1_000;
const KILL_AFTER_MS = 1_500;

export interface AppServerOptions {
  /** What the launcher found: the codex executable, or the npm package's codex.js. */
  command: string;
  env: NodeJS.ProcessEnv;
  clock: Clock;
  clientVersion: string;
  minimumVersion?: string;
  onState(state: CodexState): void;
  onNotification(method: string, params: unknown): void;
  /** A request from Codex (it asks before going beyond its sandbox); what it resolves to is the answer. */
  onRequest?(method: string, params: unknown): Promise<unknown>;
  /** The app-server has ended: every turn that ran through it is over. */
  onExit(): void;
}

/** Refused to start, with the sentence the page shows. */
export class CodexUnavailable extends Error {}

export function parseVersion(userAgent: string): number[] | null {
  const match = /^[^/\s]+\/(\d+)\.(\d+)\.(\d+)/.exec(userAgent);
  return match ? match.slice(1).map(Number) : null;
}

export function olderThan(version: number[], minimum: number[]): boolean {
  for (let i = 0; i < minimum.length; i += 1) {
    const a = version[i] ?? 0;
    const b = minimum[i] ?? 0;
    if (a !== b) return a < b;
  }
  return false;
}

function describeExit(code: number | null, signal: NodeJS.Signals | null): string {
  return signal ? texts.exitSignal(signal) : texts.exitCode(code);
}

export class CodexAppServer implements CodexPort {
  readonly #options: AppServerOptions;
  #state: CodexState = { state: 'idle', version: null };
  #child: ChildProcess | null = null;
  #connection: RpcConnection | null = null;
  #starting: Promise<RpcConnection> | null = null;
  #stopping = false;
  /** The old app-server being ended on purpose, before a new one starts: its exit is no failure to report. */
  #restarting: Promise<void> | null = null;

  constructor(options: AppServerOptions) {
    this.#options = options;
  }

  get state(): CodexState {
    return this.#state;
  }

  /** The running app-server's process id, where its commands are found; null when none runs. */
  get pid(): number | null {
    return this.#connection && !this.#connection.closed ? (this.#child?.pid ?? null) : null;
  }

  /** Whether an app-server process is there (starting, running, being ended, or ended to start again). */
  get running(): boolean {
    return this.#child !== null || this.#restarting !== null;
  }

  connect(): Promise<RpcConnection> {
    if (this.#stopping) return Promise.reject(new RpcClosed(texts.stopping));
    // What asks while the old one ends is answered by the new one, not by a second one started beside it.
    if (this.#restarting) return this.#restarting.then(() => this.connect());
    // Only once the handshake is done (and the version accepted) does anything else go to it.
    if (this.#state.state === 'ready' && this.#connection && !this.#connection.closed) return Promise.resolve(this.#connection);
    this.#starting ??= this.#start().finally(() => {
      this.#starting = null;
    });
    return this.#starting;
  }

  async request<M extends CodexMethod>(method: M, params: CodexRequests[M]['params'], timeoutMs?: number): Promise<CodexRequests[M]['result']> {
    return ask(await this.connect(), method, params, timeoutMs);
  }

  /** Ends it for good: nothing is started after this. */
  async stop(): Promise<void> {
    this.#stopping = true;
    await this.#end();
  }

  /** Ends it and starts it anew, which reads its sign-in again; for when nothing runs through it. */
  async restart(): Promise<void> {
    this.#restarting ??= this.#end().finally(() => {
      this.#restarting = null;
    });
    await this.#restarting;
    await this.connect();
  }

  /**
   * Closes its input (it then ends, and the commands it started with it); SIGTERM after 1 s,
   * SIGKILL after 1.5 s, and whatever it started that outlives it is killed after it. Given up on,
   * its output is let go of too.
   */
  async #end(child = this.#child, givenUp = false): Promise<void> {
    if (!child?.pid || child.exitCode !== null || child.signalCode !== null) return;
    const exited = new Promise<void>((resolve) => child.once('exit', () => resolve()));
    // Read while it runs: once it has ended, what it started is no longer below it. Nothing that
    // may end it goes before the reading is done, however soon the clock says.
    const tree = treeOf(child.pid).catch(() => []);
    void tree.then(() => {
      child.stdin?.end();
      if (givenUp) child.stdout?.destroy();
    });
    const term = this.#options.clock.after(TERM_AFTER_MS, () => void tree.then(() => child.kill('SIGTERM')));
    const kill = this.#options.clock.after(KILL_AFTER_MS, () => void tree.then(() => child.kill('SIGKILL')));
    await exited;
    term.cancel();
    kill.cancel();
    await killSurvivors(await tree).catch(() => 0);
  }

  #setState(state: CodexState): void {
    this.#state = state;
    this.#options.onState(state);
  }

  #unavailable(message: string): CodexUnavailable {
    this.#setState({ state: 'unavailable', version: this.#state.version, message });
    return new CodexUnavailable(message);
  }

  #start(): Promise<RpcConnection> {
    const { command, env, clock } = this.#options;
    if (!command) return Promise.reject(this.#unavailable(texts.codexNoPath));
    this.#setState({ state: 'starting', version: this.#state.version });
    return new Promise((resolve, reject) => {
      let ready = false;
      let settled = false;
      const child = spawn(command, ['app-server'], { stdio: ['pipe', 'pipe', 'inherit'], env });
      const connection = new RpcConnection(child.stdout, child.stdin, {
        notification: (method, params) => this.#options.onNotification(method, params),
        request: (method, params) => {
          if (!this.#options.onRequest) throw new RpcError(-32601, `${method} is not supported by this client`);
          return this.#options.onRequest(method, params);
        },
      }, clock);
      this.#child = child;
      this.#connection = connection;

      // The first reason wins: a spawn error is followed by an exit, a refusal by the end it causes.
      // The start stays under way until the process has ended, so nothing starts a second meanwhile.
      const fail = (message: string) => {
        if (settled) return;
        settled = true;
        silence.cancel();
        connection.close(new CodexUnavailable(message));
        // Nothing more of it is read: one that floods its output would keep the service busy.
        child.stdout.pause();
        const refusal = this.#unavailable(message);
        void this.#end(child, true).finally(() => reject(refusal));
      };
      // Its own timer, not the request's: a start that fails closes the pipe before its exit is
      // known, and the exit, not the silence, is what the user is told.
      const silence = clock.after(INITIALIZE_TIMEOUT_MS, () => fail(texts.codexDidNotStart(texts.codexSilent)));
      child.once('error', (error: NodeJS.ErrnoException) => {
        if (error.code === 'ENOENT') fail(texts.codexMissing(command));
        else if (error.code === 'EACCES') fail(texts.codexNotExecutable(command));
        else fail(texts.codexDidNotStart(error.message));
      });
      child.once('exit', (code, signal) => {
        if (this.#child === child) {
          this.#child = null;
          this.#connection = null;
        }
        if (!ready) {
          fail(texts.codexDidNotStart(describeExit(code, signal)));
          return;
        }
        connection.close(new RpcClosed(texts.codexExited(describeExit(code, signal))));
        if (!this.#stopping && !this.#restarting) this.#unavailable(texts.codexExited(describeExit(code, signal)));
        this.#options.onExit();
      });

      ask(connection, 'initialize', {
        clientInfo: { name: 'lanternmoor', title: 'Lanternmoor Pro', version: this.#options.clientVersion },
        capabilities: { experimentalApi: false },
      }).then((answer) => {
        if (settled) return;
        // What answers may not be Codex at all: nothing of it is taken on trust before this.
        const version = parseVersion(typeof answer?.userAgent === 'string' ? answer.userAgent : '');
        if (!version) {
          fail(texts.codexUnknownVersion);
          return;
        }
        const minimum = this.#options.minimumVersion ?? MINIMUM_CODEX_VERSION;
        const text = version.join('.');
        if (olderThan(version, parseVersion(`codex/${minimum}`)!)) {
          this.#state = { state: 'starting', version: text };
          fail(texts.codexTooOld(text, minimum));
          return;
        }
        connection.notify('initialized');
        ready = true;
        settled = true;
        silence.cancel();
        this.#setState({ state: 'ready', version: text });
        resolve(connection);
      }, () => {}); // the pipe closed: its exit, or the silence, says why
    });
  }
}

/** The one place an answer is taken to be what the protocol says it is. */
function ask<M extends CodexMethod>(
  connection: RpcConnection, method: M, params: CodexRequests[M]['params'], timeoutMs?: number,
): Promise<CodexRequests[M]['result']> {
  return connection.request(method, params, timeoutMs) as Promise<CodexRequests[M]['result']>;
}

// The built launcher as a user starts it, in a sandbox of its own: a temporary HOME, the user's
// Node.js and Codex, a browser that only writes down what it was asked to open. Codex is the real
// one with a CODEX_HOME whose model is the stand-in, or the scriptable app-server where the model
// does not matter. Everything the launcher leaves running is found by the sandbox's path in its
// environment or command.
import { spawn, type ChildProcess } from 'node:child_process';
import { mkdirSync, readdirSync, readFileSync, rmSync, symlinkSync, writeFileSync } from 'node:fs';
import { once } from 'node:events';
import { dirname, join } from 'node:path';
import type { TestContext } from 'node:test';
import { assertShippedIsCurrent, BUILD, CODEX, fakeCodex, isRunning, NODE, temporaryFolder, until } from './service.ts';

export const WORKSPACE = 'http://127.0.0.1:18765/';
/** What the terminal surface prints as the launcher starts, once its service runs, and as it opens the workspace. */
export const STARTING = 'LM  Lanternmoor Pro · 正在启动', RUNNING = 'LM  Lanternmoor Pro · 正在本机运行', OPENED = `→ ${WORKSPACE}`;

export class Sandbox {
  readonly root = temporaryFolder('lm-sandbox-');
  readonly home = join(this.root, 'home');
  readonly bin = join(this.root, 'bin');
  readonly codexHome: string | undefined;
  readonly dataFolder = join(this.home, '.local/share/Lanternmoor Pro');
  readonly log = join(this.dataFolder, 'server.log');
  /** More of the launcher's environment, which the service and Codex inherit. */
  readonly env: Record<string, string> = {};

  /** node: the user's Node.js, linked into PATH; none there when null. */
  constructor(codexHome?: (folder: string) => string, options: { node?: string | null } = {}) {
    mkdirSync(this.bin, { recursive: true });
    if (codexHome) {
      mkdirSync(join(this.root, 'codex-home'));
      this.codexHome = codexHome(join(this.root, 'codex-home'));
      symlinkSync(CODEX, join(this.bin, 'codex'));
    } else {
      mkdirSync(join(this.home, '.local/bin'), { recursive: true });
      fakeCodex(join(this.home, '.local/bin'));
    }
    const node = options.node === undefined ? NODE : options.node;
    if (node) symlinkSync(node, join(this.bin, 'node'));
    this.script('bin/xdg-open', `echo "$1" >> "${this.root}/opened"`);
  }

  /** A shell script at this path under the sandbox's root. */
  script(path: string, body: string): void {
    const file = join(this.root, path);
    mkdirSync(dirname(file), { recursive: true });
    writeFileSync(file, `#!/bin/sh\n${body}\n`, { mode: 0o755 });
  }

  opened(): string[] {
    return readText(join(this.root, 'opened')).split('\n').filter(Boolean);
  }

  /** Processes of this sandbox still running: whatever has its path in its environment or command. */
  leftovers(): number[] {
    const mark = Buffer.from(this.root);
    return readdirSync('/proc').filter((name) => /^\d+$/.test(name)).map(Number).filter((pid) => {
      if (pid === process.pid) return false;
      try {
        return isRunning(pid) && ['environ', 'cmdline'].some((name) => readFileSync(`/proc/${pid}/${name}`).includes(mark));
      } catch {
        return false;
      }
    });
  }

  /** Nothing of it outlives the test: what it left running (and with it the port), its folder. */
  async retire(): Promise<void> {
    for (const pid of this.leftovers()) {
      try {
        process.kill(pid, 'SIGKILL');
      } catch {
        // ended meanwhile
      }
    }
    await until('the sandbox to stop', () => this.leftovers().length === 0);
    rmSync(this.root, { recursive: true, force: true });
  }
}

/** A sandbox retired when the test ends. */
export function sandboxFor(t: TestContext, ...options: ConstructorParameters<typeof Sandbox>): Sandbox {
  const sandbox = new Sandbox(...options);
  t.after(() => sandbox.retire());
  return sandbox;
}

export function readText(path: string): string {
  try {
    return readFileSync(path, 'utf8');
  } catch {
    return '';
  }
}

export class Launcher {
  readonly child: ChildProcess;
  readonly exited: Promise<[number | null, NodeJS.Signals | null]>;
  /** Standard output and error, as they came. */
  output = '';
  #read = 0;

  constructor(sandbox: Sandbox, program = join(BUILD, 'bin/lanternmoor-pro')) {
    assertShippedIsCurrent();
    this.child = spawn(program, [], {
      stdio: ['pipe', 'pipe', 'pipe'],
      env: {
        HOME: sandbox.home, PATH: `${sandbox.bin}:/usr/bin:/bin`, LANG: 'C.UTF-8',
        // The first command cannot start: the convention's list is followed to the next.
        BROWSER: `${join(sandbox.root, 'missing')} --flag:xdg-open %s`,
        ...(sandbox.codexHome ? { CODEX_HOME: sandbox.codexHome, STANDIN_KEY: 'stand-in-key' } : {}), ...sandbox.env,
      },
    });
    this.child.stdout!.on('data', (chunk) => { this.output += chunk; });
    this.child.stderr!.on('data', (chunk) => { this.output += chunk; });
    this.exited = once(this.child, 'exit') as Promise<[number | null, NodeJS.Signals | null]>;
  }

  static async ready(sandbox: Sandbox): Promise<Launcher> {
    const launcher = new Launcher(sandbox);
    const before = sandbox.opened().length;
    await until('the launcher to open the workspace', () => sandbox.opened().length > before)
      .catch((error) => { throw new Error(`${error.message}\n${launcher.output}`); });
    return launcher;
  }

  /** Whole lines printed so far: one still being written is not there yet. */
  lines(): string[] {
    return this.output.split('\n').slice(0, -1);
  }

  /** The next lines are these, in order; null stands for any line. */
  async expect(...texts: (string | null)[]): Promise<void> {
    for (const text of texts) {
      await until('another line', () => this.lines().length > this.#read).catch(() => {});
      const line = this.lines()[this.#read];
      if (line === undefined || (text !== null && line !== text)) {
        throw new Error(`expected ${JSON.stringify(text)}, got ${JSON.stringify(line)}:\n${this.output}`);
      }
      this.#read += 1;
    }
  }

  /** Its exit status once it has ended, with nothing of the sandbox left running. */
  async ended(sandbox: Sandbox): Promise<number | null> {
    await until('the launcher to end', () => this.child.exitCode !== null || this.child.signalCode !== null);
    await until('nothing of the sandbox to run', () => sandbox.leftovers().length === 0);
    return this.child.exitCode;
  }

  async quit(): Promise<void> {
    this.child.kill('SIGTERM');
    await this.exited;
  }
}

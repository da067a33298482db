// The built launcher as a user starts it, in a sandbox of its own: a temporary HOME, the
// user's Node.js and Codex on PATH, a browser that only writes down what it was asked to open,
// and a CODEX_HOME whose model is the stand-in. Everything it leaves running is found by the
// sandbox's path in its environment.
import { spawn, type ChildProcess } from 'node:child_process';
import { mkdirSync, readdirSync, readFileSync, symlinkSync, writeFileSync, chmodSync } from 'node:fs';
import { once } from 'node:events';
import { join } from 'node:path';
import { assertShippedIsCurrent, BUILD, CODEX, isRunning, NODE, temporaryFolder, until } from './service.ts';

export const WORKSPACE = 'http://127.0.0.1:18765/';

export class Sandbox {
  readonly root = temporaryFolder('lm-browser-');
  readonly home = join(this.root, 'home');
  readonly bin = join(this.root, 'bin');
  readonly codexHome: string;
  readonly dataFolder = join(this.home, '.local/share/Lanternmoor Pro');
  /** More of the launcher's environment, which the service and Codex inherit. */
  readonly env: Record<string, string> = {};

  constructor(codexHome: (folder: string) => string) {
    mkdirSync(this.bin, { recursive: true });
    mkdirSync(join(this.root, 'codex-home'));
    this.codexHome = codexHome(join(this.root, 'codex-home'));
    symlinkSync(NODE, join(this.bin, 'node'));
    symlinkSync(CODEX, join(this.bin, 'codex'));
    const opener = join(this.bin, 'record-opened');
    writeFileSync(opener, `#!/bin/sh\necho "$1" >> "${this.root}/opened"\n`);
    chmodSync(opener, 0o755);
  }

  opened(): string[] {
    try {
      return readFileSync(join(this.root, 'opened'), 'utf8').trim().split('\n').filter(Boolean);
    } catch {
      return [];
    }
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
}

export class Launcher {
  readonly child: ChildProcess;
  readonly exited: Promise<unknown>;
  output = '';

  constructor(sandbox: Sandbox, program = join(BUILD, 'bin/lanternmoor-pro')) {
    assertShippedIsCurrent();
    this.child = spawn(program, [], {
      stdio: ['pipe', 'pipe', 'pipe'],
      env: {
        HOME: sandbox.home, PATH: `${sandbox.bin}:/usr/bin:/bin`, LANG: 'C.UTF-8', BROWSER: `${join(sandbox.bin, 'record-opened')} %s`,
        CODEX_HOME: sandbox.codexHome, STANDIN_KEY: 'stand-in-key', ...sandbox.env,
      },
    });
    this.child.stdout!.on('data', (chunk) => { this.output += chunk; });
    this.child.stderr!.on('data', (chunk) => { this.output += chunk; });
    this.exited = once(this.child, 'exit');
  }

  static async ready(sandbox: Sandbox): Promise<Launcher> {
    const launcher = new Launcher(sandbox);
    const before = sandbox.opened().length;
    await until('the launcher to open the workspace', () => sandbox.opened().length > before, 20_000)
      .catch((error) => { throw new Error(`${error.message}\n${launcher.output}`); });
    return launcher;
  }

  async quit(): Promise<void> {
    this.child.kill('SIGTERM');
    await this.exited;
  }
}

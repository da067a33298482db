// Start to health answer: today's service against the status-page service it replaced (the
// server.mjs of 55be54b), each in a copy of the app folder of its own. Node.js spawned directly,
// as the launcher spawns it, until a client here gets its first 200; and the real launcher until
// it has its own first 200. Runs of the two alternate, so a change in the machine's load falls on
// both alike.
import { spawn, execFileSync } from 'node:child_process';
import { cpSync, copyFileSync, mkdirSync, writeFileSync, rmSync } from 'node:fs';
import { connect } from 'node:net';
import { request } from 'node:http';
import { join } from 'node:path';
import { APP, NODE, SOURCE, temporaryFolder, until } from '../../tests/harness/service.ts';
import { Launcher, Sandbox } from '../../tests/harness/launcher.ts';
import { now } from './inPage.ts';
import { blocks, median, type Figure } from './figures.ts';
import { residentMemory } from './memory.ts';

export const OLD_SERVICE_COMMIT = '55be54b';
const PORT = 18765;
const BUILD = process.env.LM_BUILD_DIR ?? join(SOURCE, 'build');

export interface StartOptions {
  directRuns: number;
  launcherRuns: number;
  /** The app folder whose server.mjs is today's; the shipped one when undefined. */
  app?: string;
  log(line: string): void;
}

interface Variant {
  name: 'old' | 'new';
  app: string;
  /** A copy of the built program beside a share folder holding this app: the launcher finds it there. */
  program: string;
}

function variants(root: string, app: string): Variant[] {
  const oldServer = execFileSync('git', ['-C', SOURCE, 'show', `${OLD_SERVICE_COMMIT}:resources/app/server.mjs`], { encoding: 'utf8' });
  return (['old', 'new'] as const).map((name) => {
    const prefix = join(root, name);
    const share = join(prefix, 'share/lanternmoor-pro');
    mkdirSync(join(prefix, 'bin'), { recursive: true });
    cpSync(join(BUILD, 'share/lanternmoor-pro'), share, { recursive: true });
    rmSync(join(share, 'app'), { recursive: true });
    cpSync(app, join(share, 'app'), { recursive: true });
    if (name === 'old') writeFileSync(join(share, 'app/server.mjs'), oldServer);
    const program = join(prefix, 'bin/lanternmoor-pro');
    copyFileSync(join(BUILD, 'bin/lanternmoor-pro'), program);
    return { name, app: join(share, 'app'), program };
  });
}

function health(): Promise<number> {
  return new Promise((resolve, reject) => {
    const outgoing = request({ host: '127.0.0.1', port: PORT, path: '/api/health', agent: false, headers: { host: `127.0.0.1:${PORT}` } }, (response) => {
      response.resume();
      response.on('end', () => resolve(response.statusCode ?? 0));
    });
    outgoing.on('error', reject);
    outgoing.end();
  });
}

/** When a path first answers 200: tried every millisecond, so the stamp is late by up to about 1 ms. */
async function firstOk(path: () => Promise<number>, deadline = 20_000): Promise<number> {
  const end = now() + deadline;
  while (now() < end) {
    const status = await path().catch(() => 0);
    if (status === 200) return now();
    await new Promise((resolve) => setTimeout(resolve, 1));
  }
  throw new Error('no health answer');
}

const page = (): Promise<number> => new Promise((resolve, reject) => {
  const outgoing = request({ host: '127.0.0.1', port: PORT, path: '/', agent: false, headers: { host: `127.0.0.1:${PORT}` } }, (response) => {
    response.resume();
    response.on('end', () => resolve(response.statusCode ?? 0));
  });
  outgoing.on('error', reject);
  outgoing.end();
});

function portFree(): Promise<boolean> {
  return new Promise((resolve) => {
    const socket = connect(PORT, '127.0.0.1');
    socket.once('connect', () => { socket.destroy(); resolve(false); });
    socket.once('error', () => resolve(true));
  });
}

async function direct(variant: Variant, data: string, weigh: boolean): Promise<{ health: number; page: number | null; resident: number | null }> {
  await until('the port to be free', portFree, 10_000);
  const begun = now();
  const child = spawn(NODE, ['--experimental-strip-types', join(variant.app, 'server.mjs')], {
    cwd: variant.app,
    stdio: 'ignore',
    env: {
      PATH: `${join(NODE, '..')}:/usr/bin:/bin`, LANG: 'C.UTF-8',
      LANTERNMOOR_APP_DIR: variant.app, LANTERNMOOR_DATA_DIR: data, LANTERNMOOR_PORT: String(PORT), LANTERNMOOR_CODEX_PATH: '/bin/true',
    },
  });
  const exited = new Promise((resolve) => child.once('exit', resolve));
  try {
    const ok = await firstOk(health) - begun;
    // Today's service loads the workspace after it answers health; the page needs it.
    const served = variant.name === 'new' ? await firstOk(page) - begun : null;
    if (!weigh) return { health: ok, page: served, resident: null };
    // Once started and idle: no page has connected, so today's service has not started Codex.
    await new Promise((resolve) => setTimeout(resolve, 1000));
    return { health: ok, page: served, resident: residentMemory(child.pid!).rss };
  } finally {
    child.kill('SIGTERM');
    await exited;
  }
}

/**
 * Launcher start until it prints the workspace address, which it does right after its own health
 * probe got its 200. Nothing else asks the service meanwhile: another client's request could
 * change when the service does its work.
 */
async function throughLauncher(variant: Variant, sandbox: Sandbox): Promise<number> {
  await until('the port to be free', portFree, 10_000);
  const begun = now();
  const launcher = new Launcher(sandbox, variant.program);
  let printed = 0;
  launcher.child.stdout!.on('data', () => {
    if (!printed && launcher.output.includes(`→ http://127.0.0.1:${PORT}/`)) printed = now();
  });
  try {
    await until('the launcher to print the address', () => printed, 20_000);
    return printed - begun;
  } finally {
    await launcher.quit();
    for (const pid of sandbox.leftovers()) process.kill(pid, 'SIGKILL');
  }
}

export async function startFigures(options: StartOptions): Promise<Figure[]> {
  const root = temporaryFolder('lm-bench-start-');
  try {
    const pair = variants(root, options.app ?? APP);
    const data = Object.fromEntries(pair.map((variant) => [variant.name, join(root, `${variant.name}-data`)]));
    for (const folder of Object.values(data)) mkdirSync(folder);
    const samples = { old: [] as number[], new: [] as number[], page: [] as number[] };
    const resident = { old: [] as number[], new: [] as number[] };
    // Two runs of each first, unmeasured: the files are in the page cache for both alike.
    for (let run = -2; run < options.directRuns; run += 1) {
      const order = run % 2 === 0 ? pair : [...pair].reverse();
      for (const variant of order) {
        const result = await direct(variant, data[variant.name]!, run >= 0 && run < 3);
        if (run < 0) continue;
        samples[variant.name].push(result.health);
        if (result.page !== null) samples.page.push(result.page);
        if (result.resident !== null) resident[variant.name].push(result.resident);
      }
    }
    options.log(`spawn → health: old ${median(samples.old).toFixed(1)} ms, new ${median(samples.new).toFixed(1)} ms (n=${samples.old.length} each)`);

    const launched = { old: [] as number[], new: [] as number[] };
    const sandboxes = new Map(pair.map((variant) => [variant.name, new Sandbox((folder) => {
      writeFileSync(join(folder, 'config.toml'), '');
      return folder;
    })]));
    for (let run = -1; run < options.launcherRuns; run += 1) {
      const order = run % 2 === 0 ? pair : [...pair].reverse();
      for (const variant of order) {
        const printed = await throughLauncher(variant, sandboxes.get(variant.name)!);
        if (run >= 0) launched[variant.name].push(printed);
      }
    }
    for (const sandbox of sandboxes.values()) rmSync(sandbox.root, { recursive: true, force: true });
    options.log(`launcher start → address printed: old ${median(launched.old).toFixed(1)} ms, new ${median(launched.new).toFixed(1)} ms`);

    // Stability: the same figure over consecutive blocks of the alternating runs.
    const perBlock = Math.max(1, Math.round(options.directRuns / 4));
    const perLauncherBlock = Math.max(1, Math.round(options.launcherRuns / 3));
    const differences = (a: number[], b: number[], size: number) => {
      const first = blocks(a, size);
      return blocks(b, size).map((block, index) => [median(block) - median(first[index]!)]);
    };
    const goal = { limit: 10, atMost: true, text: 'within 10 ms of the old' };
    return [
      { name: `spawn → health 200, status page (${OLD_SERVICE_COMMIT})`, unit: 'ms', runs: blocks(samples.old, perBlock) },
      { name: 'spawn → health 200, workspace', unit: 'ms', runs: blocks(samples.new, perBlock) },
      { name: 'spawn → health: workspace minus status page', unit: 'ms', runs: differences(samples.old, samples.new, perBlock), goal, note: `per block of ${perBlock} alternating runs, the difference of the two medians; the value is the median of those differences` },
      { name: 'spawn → page 200 (workspace loaded)', unit: 'ms', runs: blocks(samples.page, perBlock) },
      { name: 'launcher start → health 200 → address printed, status page', unit: 'ms', runs: blocks(launched.old, perLauncherBlock), note: 'the launcher prints the address right after its own health probe has its 200' },
      { name: 'launcher start → health 200 → address printed, workspace', unit: 'ms', runs: blocks(launched.new, perLauncherBlock) },
      { name: 'launcher: workspace minus status page', unit: 'ms', runs: differences(launched.old, launched.new, perLauncherBlock), goal, note: `per block of ${perLauncherBlock} alternating runs, as above` },
      { name: 'resident once started, idle: status page', unit: 'MB', runs: [resident.old], note: 'VmRSS 1 s after the first answer, no page connected' },
      { name: 'resident once started, idle: workspace', unit: 'MB', runs: [resident.new], note: 'VmRSS 1 s after the page was first served, no page connected, Codex not started' },
    ];
  } finally {
    rmSync(root, { recursive: true, force: true });
  }
}

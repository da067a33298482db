// Times the launcher's start path on this machine and prints median, min and max of each step:
//   a  terminal: launcher start until it prints the workspace address (shipped service)
//   b  the same Node.js running the shipped server.mjs alone until its first health answer
//   c  a second launcher handing over to the running service (start until it exits)
//   d  quitting: SIGTERM to the launcher until it has exited
//   e  desktop, on an Xvfb with a tray host: launcher start until the browser is asked to open
// Then, once the start has settled, each surface's resident memory and how often it wakes while
// idle (context switches of all its threads over ten seconds). b is the floor under a and e: their
// difference is what the launcher itself adds. Figures only; the program runs in the tests'
// sandbox, on the build named by LM_BUILD_DIR.
//   node --experimental-strip-types bench/startPath.mts [runs]
import { spawn } from 'node:child_process';
import { readdirSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import { Launcher, OPENED, Sandbox } from '../tests/harness/launcher.ts';
import { XDisplay } from '../tests/harness/desktop.ts';
import { APP, BUILD, NODE, temporaryFolder } from '../tests/harness/service.ts';

const runs = Number(process.argv[2] ?? 5);
const IDLE_SECONDS = 10;
const sleep = (ms: number) => new Promise((resolve) => setTimeout(resolve, ms));

/** Polled every 2 ms: a stamp is late by about that much. */
async function poll(what: string, condition: () => unknown, limitMs = 20_000): Promise<number> {
  for (const end = performance.now() + limitMs; performance.now() < end; await sleep(2)) {
    if (await condition()) return performance.now();
  }
  throw new Error(`timed out waiting for ${what}`);
}

function residentAndWakeUps(pid: number): Promise<[number, number]> {
  const switches = () => readdirSync(`/proc/${pid}/task`).reduce((sum, task) => sum + [...readFileSync(`/proc/${pid}/task/${task}/status`, 'utf8')
    .matchAll(/^(?:non)?voluntary_ctxt_switches:\s+(\d+)/gm)].reduce((all, match) => all + Number(match[1]), 0), 0);
  const resident = Number(/^VmRSS:\s+(\d+)/m.exec(readFileSync(`/proc/${pid}/status`, 'utf8'))![1]) / 1024;
  // Past the start: the browser opener has been handed its address.
  return sleep(1000).then(async () => {
    const before = switches();
    await sleep(IDLE_SECONDS * 1000);
    return [resident, switches() - before];
  });
}

/** Cleanups for what a round starts, run when it ends. */
function scope() {
  const cleanups: (() => unknown)[] = [];
  return { after: (cleanup: () => unknown) => { cleanups.push(cleanup); }, end: async () => { for (const cleanup of cleanups.reverse()) await cleanup(); } };
}

async function terminalRound(measure: boolean) {
  const sandbox = new Sandbox();
  try {
    const begun = performance.now();
    const first = new Launcher(sandbox);
    const ready = await poll('the address', () => first.lines().includes(OPENED)) - begun;
    const footprint = measure ? await residentAndWakeUps(first.child.pid!) : null;
    const handing = performance.now();
    const second = new Launcher(sandbox);
    await second.exited;
    if (second.child.exitCode !== 0) throw new Error(`the second launcher did not hand over:\n${second.output}`);
    const handedOver = performance.now() - handing;
    const asked = performance.now();
    await first.quit();
    return { ready, handedOver, quit: performance.now() - asked, footprint };
  } finally {
    await sandbox.retire();
  }
}

async function desktopRound(measure: boolean) {
  const round = scope();
  const sandbox = new Sandbox();
  try {
    const display = await XDisplay.start(round);
    await display.trayer(round, 'eeeeee');
    sandbox.env.DISPLAY = display.name;
    const begun = performance.now();
    const launcher = new Launcher(sandbox);
    const ready = await poll('the browser to be asked', () => sandbox.opened().length > 0) - begun;
    return { ready, footprint: measure ? await residentAndWakeUps(launcher.child.pid!) : null };
  } finally {
    await sandbox.retire();
    await round.end();
  }
}

async function serviceAlone(): Promise<number> {
  const data = temporaryFolder('lm-bench-');
  const begun = performance.now();
  const service = spawn(NODE, ['--experimental-strip-types', join(APP, 'server.mjs')], {
    cwd: APP, stdio: 'ignore',
    env: { ...process.env, LANTERNMOOR_APP_DIR: APP, LANTERNMOOR_DATA_DIR: data, LANTERNMOOR_PORT: '18765', LANTERNMOOR_CODEX_PATH: '/bin/true' },
  });
  try {
    return await poll('the health answer', () => fetch('http://127.0.0.1:18765/api/health').then((answer) => answer.ok, () => false)) - begun;
  } finally {
    service.kill('SIGTERM');
    await new Promise((resolve) => service.once('exit', resolve));
  }
}

const terminal = [];
for (let run = 0; run < runs; run += 1) terminal.push(await terminalRound(run === 0));
const desktop = [];
for (let run = 0; run < runs; run += 1) desktop.push(await desktopRound(run === 0));
const alone = [];
for (let run = 0; run < runs; run += 1) alone.push(await serviceAlone());

const report = (name: string, samples: number[]) => {
  const sorted = [...samples].sort((a, b) => a - b);
  const median = sorted.length % 2 ? sorted[(sorted.length - 1) / 2]! : (sorted[sorted.length / 2 - 1]! + sorted[sorted.length / 2]!) / 2;
  console.log(`${name.padEnd(58)} ${[median, sorted[0]!, sorted.at(-1)!].map((ms) => ms.toFixed(1).padStart(8)).join(' ')}   n=${samples.length}`);
};
console.log(`program ${BUILD}/bin/lanternmoor-pro, Node.js ${process.version}, ${runs} runs each`);
console.log(`${'milliseconds'.padEnd(58)} ${['median', 'min', 'max'].map((title) => title.padStart(8)).join(' ')}`);
report('a  terminal: launcher start -> workspace address printed', terminal.map((round) => round.ready));
report('b  Node.js + server.mjs alone -> first health answer', alone);
report('c  second launcher start -> exit after hand-over', terminal.map((round) => round.handedOver));
report('d  SIGTERM to launcher -> launcher exited', terminal.map((round) => round.quit));
report('e  desktop: launcher start -> browser asked to open', desktop.map((round) => round.ready));
for (const [surface, footprint] of [['terminal', terminal[0]!.footprint], ['desktop', desktop[0]!.footprint]] as const) {
  console.log(`${surface.padEnd(9)} once ready: resident ${footprint![0].toFixed(1)} MB, ${footprint![1]} context switches in ${IDLE_SECONDS} s idle`);
}

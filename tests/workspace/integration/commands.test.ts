// Ending a thread's commands in a real process tree: only that thread's, only below the
// app-server, those that shrug off SIGTERM too, and never a process that merely reused an id.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { createInterface } from 'node:readline';
import { once } from 'node:events';
import { constants } from 'node:os';
import { endThreadCommands, killSurvivors, treeOf, MARKER } from '../../../resources/app/workspace/codex/commands.ts';
import { systemClock } from '../../../resources/app/workspace/clock.ts';
import { isRunning, NODE, until } from '../../harness/service.ts';

function catches(pid: number, signal: 'SIGTERM'): boolean {
  const mask = /^SigCgt:\s*([0-9a-f]+)$/m.exec(readFileSync(`/proc/${pid}/status`, 'utf8'))?.[1] ?? '0';
  return (BigInt(`0x${mask}`) >> BigInt(constants.signals[signal] - 1)) % 2n === 1n;
}

// Stands in for the app-server: starts commands as Codex does (each in a session of its own,
// the thread's marker in its environment) and prints their process ids.
const ROOT = `
const { spawn } = require('node:child_process');
const start = (marker, ...command) => spawn(command[0], command.slice(1), {
  detached: true, stdio: 'ignore', env: { ...process.env, ...(marker ? { ${MARKER}: marker } : {}) },
}).pid;
const pids = {
  shell: start('t1', 'sh', '-c', 'sleep 300 & wait'),
  stubborn: start('t1', process.execPath, '-e', "process.on('SIGTERM', () => {}); setInterval(() => {}, 1000)"),
  otherThread: start('t2', 'sleep', '300'),
  unmarked: start(null, 'sleep', '300'),
};
console.log(JSON.stringify(pids));
setInterval(() => {}, 1000);
`;

test('a thread\'s commands end, the shell\'s children and a SIGTERM-proof one included; nothing else does', { skip: process.platform !== 'linux' }, async (t) => {
  const root = spawn(NODE, ['-e', ROOT], { stdio: ['ignore', 'pipe', 'inherit'] });
  const outside = spawn('sleep', ['300'], { env: { ...process.env, [MARKER]: 't1' }, stdio: 'ignore' });
  t.after(() => {
    for (const pid of [root.pid!, outside.pid!]) process.kill(pid, 'SIGKILL');
  });
  const [line] = (await once(createInterface({ input: root.stdout! }), 'line')) as [string];
  const pids = JSON.parse(line) as Record<string, number>;
  const sleeping = await until('the shell to start its sleep', async () => (await treeOf(pids.shell!))[0]?.pid);
  // Only once it catches SIGTERM does the stubborn one need the SIGKILL that follows.
  await until('the stubborn one to catch SIGTERM', () => catches(pids.stubborn!, 'SIGTERM'));

  const ended = await endThreadCommands(root.pid!, 't1', systemClock);

  assert.equal(ended, 3, 'the shell, its sleep and the stubborn one were signalled');
  await until('the thread\'s commands to end', () => [pids.shell!, sleeping, pids.stubborn!].every((pid) => !isRunning(pid)));
  assert.deepEqual([pids.otherThread!, pids.unmarked!, outside.pid!, root.pid!].map(isRunning), [true, true, true, true]);
  for (const pid of [pids.otherThread!, pids.unmarked!]) process.kill(pid, 'SIGKILL');
});

test('what outlived the app-server is ended, but not a process that has since taken one of its ids', async () => {
  const survivor = spawn('sleep', ['300'], { stdio: 'ignore' });
  const gone = spawn('true', { stdio: 'ignore' });
  await once(gone, 'exit');
  const table = (await treeOf(process.pid)).filter((entry) => entry.pid === survivor.pid);
  // The same id, started at another time: another process.
  const reused = { pid: survivor.pid!, ppid: process.pid, started: `${table[0]!.started}0` };
  assert.equal(await killSurvivors([reused]), 0);
  assert.equal(isRunning(survivor.pid!), true);
  assert.equal(await killSurvivors(table), 1);
  await once(survivor, 'exit');
});

// Ending the commands Codex runs for one thread. Codex's interrupt ends the turn but leaves a
// running command alive, in a session (and on Linux a sandbox) of its own, out of reach of any
// process-group signal. Every command of a thread carries the thread's marker in its environment
// (set through the thread's shell environment), so the ones to end are the app-server's
// descendants that carry it; nothing outside the app-server's tree is ever signalled.
import { readdir, readFile } from 'node:fs/promises';
import { execFile } from 'node:child_process';
import { promisify } from 'node:util';
import { sleep, type Clock } from '../clock.ts';

export const MARKER = 'LANTERNMOOR_THREAD';
const GRACE_MS = 300;

export interface ProcessEntry {
  pid: number;
  ppid: number;
  /** Tells this process from a later one given the same id. */
  started: string;
}

export interface ProcessTable {
  list(): Promise<ProcessEntry[]>;
  environment(pid: number): Promise<string[]>;
}

/** From a /proc/<pid>/stat line: the parent and the start time, after the command name. */
export function parseStat(pid: number, stat: string): ProcessEntry | null {
  // The command name is in parentheses and may itself hold spaces and parentheses.
  const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
  const ppid = Number(fields[1]);
  const started = fields[19];
  return Number.isInteger(ppid) && started !== undefined ? { pid, ppid, started } : null;
}

export const linuxProcesses: ProcessTable = {
  async list() {
    const entries: ProcessEntry[] = [];
    for (const name of await readdir('/proc')) {
      if (!/^\d+$/.test(name)) continue;
      try {
        const entry = parseStat(Number(name), await readFile(`/proc/${name}/stat`, 'utf8'));
        if (entry) entries.push(entry);
      } catch {
        // ended while we looked
      }
    }
    return entries;
  },
  async environment(pid) {
    try {
      return (await readFile(`/proc/${pid}/environ`, 'utf8')).split('\0');
    } catch {
      return [];
    }
  },
};

const run = promisify(execFile);

// FIXME: written for macOS's ps, which shows a process's environment after its command line with
// -E; not yet run on a Mac.
export const psProcesses: ProcessTable = {
  async list() {
    const { stdout } = await run('ps', ['-A', '-o', 'pid=,ppid=,lstart='], { maxBuffer: 16 << 20 });
    return stdout.split('\n').flatMap((line) => {
      const match = /^\s*(\d+)\s+(\d+)\s+(.+?)\s*$/.exec(line);
      return match ? [{ pid: Number(match[1]), ppid: Number(match[2]), started: match[3]! }] : [];
    });
  },
  async environment(pid) {
    try {
      const { stdout } = await run('ps', ['-E', '-ww', '-o', 'command=', '-p', String(pid)]);
      return stdout.trim().split(/\s+/);
    } catch {
      return [];
    }
  },
};

export const systemProcesses: ProcessTable = process.platform === 'linux' ? linuxProcesses : psProcesses;

/** Every process below root, in the table as it is now. */
export function descendants(table: ProcessEntry[], root: number): ProcessEntry[] {
  const children = new Map<number, ProcessEntry[]>();
  for (const entry of table) {
    const siblings = children.get(entry.ppid);
    if (siblings) siblings.push(entry);
    else children.set(entry.ppid, [entry]);
  }
  const found: ProcessEntry[] = [];
  const queue = [root];
  for (let pid = queue.shift(); pid !== undefined; pid = queue.shift()) {
    for (const child of children.get(pid) ?? []) {
      found.push(child);
      queue.push(child.pid);
    }
  }
  return found;
}

async function marked(table: ProcessTable, root: number, thread: string): Promise<ProcessEntry[]> {
  const wanted = `${MARKER}=${thread}`;
  const below = descendants(await table.list(), root);
  const environments = await Promise.all(below.map((entry) => table.environment(entry.pid)));
  return below.filter((_, i) => environments[i]!.includes(wanted));
}

export type Signaller = (pid: number, signal: NodeJS.Signals) => void;

const signalProcess: Signaller = (pid, signal) => {
  try {
    process.kill(pid, signal);
  } catch {
    // already gone
  }
};

/**
 * SIGTERM to every command of this thread below the app-server, then SIGKILL to whatever of them
 * (or of what they started meanwhile) is still there after a short grace. Returns how many
 * processes were signalled.
 */
export async function endThreadCommands(
  root: number, thread: string, clock: Clock, table: ProcessTable = systemProcesses, signal: Signaller = signalProcess,
): Promise<number> {
  const first = await marked(table, root, thread);
  if (first.length === 0) return 0;
  for (const entry of first) signal(entry.pid, 'SIGTERM');
  await sleep(clock, GRACE_MS);
  const now = await table.list();
  const alive = new Map(now.map((entry) => [entry.pid, entry.started]));
  const survivors = first.filter((entry) => alive.get(entry.pid) === entry.started);
  const latecomers = await marked(table, root, thread);
  const seen = new Set<number>();
  for (const entry of [...survivors, ...latecomers]) {
    if (seen.has(entry.pid)) continue;
    seen.add(entry.pid);
    signal(entry.pid, 'SIGKILL');
  }
  return first.length;
}

/** The processes below root now, to be ended later if they outlive it. */
export async function treeOf(root: number, table: ProcessTable = systemProcesses): Promise<ProcessEntry[]> {
  return descendants(await table.list(), root);
}

/** SIGKILL to those of these processes that are still the same processes. */
export async function killSurvivors(
  entries: ProcessEntry[], table: ProcessTable = systemProcesses, signal: Signaller = signalProcess,
): Promise<number> {
  if (entries.length === 0) return 0;
  const alive = new Map((await table.list()).map((entry) => [entry.pid, entry.started]));
  const survivors = entries.filter((entry) => alive.get(entry.pid) === entry.started);
  for (const entry of survivors) signal(entry.pid, 'SIGKILL');
  return survivors.length;
}

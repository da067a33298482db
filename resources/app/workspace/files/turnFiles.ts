// Which turn made or last changed each file of a thread's folder. Codex's own file changes name
// the files it edits, but a command it runs (a script writing a CSV and a plot) writes files no
// item names: so the folder is looked at when a turn starts and again when it has ended, and what
// differs is that turn's. A folder too large to look at cheaply is told by Codex's changes alone.
import { lstatSync, readdirSync, type Stats } from 'node:fs';
import { isAbsolute, join, relative, resolve } from 'node:path';
import type { Entry, FileRecord, FileSeen, Item, TurnHead } from '../model.ts';

/** The most entries a look at a folder takes in; beyond it, the look is given up. */
export const SNAPSHOT_LIMIT = 20_000;
/** How many entries are looked at between two turns of the event loop. */
const SLICE = 1000;

/** The plain files below a folder, by their paths there, as they were when looked at. */
export type Snapshot = Map<string, FileSeen>;

export const seenOf = (stats: Stats): FileSeen => ({ size: stats.size, changedAt: Math.round(stats.mtimeMs) });
const same = (a: FileSeen, b: FileSeen) => a.size === b.size && a.changedAt === b.changedAt;

/** Every plain file below the folder, reached by no link; null when it holds more than limit entries. */
export async function snapshot(folder: string, limit = SNAPSHOT_LIMIT): Promise<Snapshot | null> {
  const files: Snapshot = new Map();
  const pending = [''];
  let looked = 0;
  while (pending.length > 0) {
    const below = pending.pop()!;
    let names: string[];
    try {
      names = readdirSync(join(folder, below));
    } catch {
      continue;
    }
    for (const name of names) {
      looked += 1;
      if (looked > limit) return null;
      // Synchronously, a slice at a time: through promises it costs several times as much, and a
      // small folder is looked at before anything else can happen in it.
      if (looked % SLICE === 0) await new Promise((done) => setImmediate(done));
      const path = below === '' ? name : `${below}/${name}`;
      let stats: Stats | undefined;
      try {
        stats = lstatSync(join(folder, path), { throwIfNoEntry: false });
      } catch {
        continue;
      }
      if (stats?.isDirectory()) pending.push(path);
      else if (stats?.isFile()) files.set(path, seenOf(stats));
    }
  }
  return files;
}

export interface Changes {
  /** Made or changed, as they were left. */
  changed: Snapshot;
  deleted: string[];
}

/** What differs between two looks at a folder. */
export function differences(before: Snapshot, after: Snapshot): Changes {
  const changed: Snapshot = new Map();
  for (const [path, seen] of after) {
    const was = before.get(path);
    if (!was || !same(was, seen)) changed.set(path, seen);
  }
  return { changed, deleted: [...before.keys()].filter((path) => !after.has(path)) };
}

/** What Codex's file changes in the items say of files inside the folder, as they are now. */
export function namedChanges(folder: string, items: readonly Item[]): Changes {
  const changes: Changes = { changed: new Map(), deleted: [] };
  for (const item of items) {
    if (item.kind !== 'fileChange') continue;
    for (const change of item.changes) {
      const path = relative(folder, resolve(folder, change.path)).split('\\').join('/');
      if (path === '' || path.startsWith('..') || isAbsolute(path)) continue;
      let stats: Stats | undefined;
      try {
        stats = lstatSync(join(folder, path), { throwIfNoEntry: false });
      } catch {
        continue;
      }
      if (stats?.isFile()) changes.changed.set(path, seenOf(stats));
      else if (!stats) changes.deleted.push(path);
    }
  }
  return changes;
}

/** What the store keeps of the files' turns. */
export interface FileRecords {
  uploads(threadId: string): Map<string, number>;
  fileRecords(threadId: string, paths: readonly string[]): Map<string, FileRecord>;
  recordFiles(threadId: string, turnId: string, changed: ReadonlyMap<string, FileSeen>, deleted: readonly string[]): void;
}

/** What a listing says of a file's origin. */
export type Origin = Pick<Entry, 'turn' | 'changedSince' | 'user'>;
/** A file's origin, by its path in the thread's folder and what it is now. */
export type OriginOf = (path: string, seen: FileSeen) => Origin;

interface Running {
  turnId: string;
  position: number;
  folder: string;
  /** The folder as the turn began; undefined while it is being looked at, null when too large. */
  before: Snapshot | null | undefined;
  looked: Promise<Snapshot | null>;
}

export class TurnFiles {
  readonly #store: FileRecords;
  readonly #limit: number;
  /** Each thread's running turn, kept until what it changed is recorded. */
  readonly #running = new Map<string, Running>();
  /** Each thread's last turn's recording, which the next turn's first look waits for. */
  readonly #recording = new Map<string, Promise<void>>();

  constructor(store: FileRecords, limit = SNAPSHOT_LIMIT) {
    this.#store = store;
    this.#limit = limit;
  }

  /** A turn is about to start: its folder is looked at first, after the last turn's is recorded. */
  async started(head: TurnHead, folder: string): Promise<void> {
    const previous = this.#recording.get(head.threadId);
    const running: Running = {
      turnId: head.id, position: head.position, folder, before: undefined,
      looked: (async () => {
        await previous;
        return snapshot(folder, this.#limit);
      })(),
    };
    this.#running.set(head.threadId, running);
    running.before = await running.looked;
  }

  /** A turn has ended: what differs in its folder, and what Codex said it changed, is recorded as its. */
  settled(head: TurnHead, items: readonly Item[]): Promise<void> {
    const { threadId } = head;
    const running = this.#running.get(threadId);
    if (running?.turnId !== head.id) return Promise.resolve();
    const recording = this.#record(threadId, running, items).finally(() => {
      if (this.#running.get(threadId) === running) this.#running.delete(threadId);
      if (this.#recording.get(threadId) === recording) this.#recording.delete(threadId);
    });
    this.#recording.set(threadId, recording);
    return recording;
  }

  async #record(threadId: string, running: Running, items: readonly Item[]): Promise<void> {
    const before = await running.looked;
    const after = before ? await snapshot(running.folder, this.#limit) : null;
    const { changed, deleted }: Changes = before && after ? differences(before, after) : { changed: new Map(), deleted: [] };
    const named = namedChanges(running.folder, items);
    for (const [path, seen] of named.changed) changed.set(path, seen);
    deleted.push(...named.deleted.filter((path) => !deleted.includes(path)));
    if (changed.size === 0 && deleted.length === 0) return;
    try {
      this.#store.recordFiles(threadId, running.turnId, changed, deleted);
    } catch {
      // The thread is gone, or the store is full: only the listing's word on who made a file is lost.
    }
  }

  /** The origin of these files of the thread's folder, by their paths there and what they are now. */
  originsOf(threadId: string, paths: readonly string[]): OriginOf {
    const records = this.#store.fileRecords(threadId, paths);
    const uploads = this.#store.uploads(threadId);
    const running = this.#running.get(threadId);
    return (path, seen) => {
      const was = running?.before?.get(path);
      if (running?.before && (!was || !same(was, seen))) return { turn: running.position, changedSince: false, user: false };
      const record = records.get(path);
      // A file dropped on the page while a turn ran is in that turn's look, but is the next question's.
      const brought = uploads.get(path);
      if (record && (brought === undefined || record.turn >= brought)) return { turn: record.turn, changedSince: !same(record, seen), user: false };
      return { turn: null, changedSince: false, user: brought !== undefined };
    };
  }
}

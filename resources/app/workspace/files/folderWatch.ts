// The folder a page's files panel shows, watched while it is shown, so the pages re-read it when
// something in it changes rather than asking again and again. fs.watch does not recurse on every
// Node.js this runs on, and a thread's folder can hold tens of thousands of files: only the folder
// shown is watched, by one watcher however many pages show it. Where the system will not watch
// (its inotify watches used up, a folder on a network mount), the folder is looked at every few
// seconds instead, and the pages told only when what it holds has changed.
import { createHash } from 'node:crypto';
import { lstatSync, readdirSync, watch } from 'node:fs';
import { join } from 'node:path';
import type { Clock, Timer } from '../clock.ts';
import type { PageEvent } from '../model.ts';

/** The wait after a first change before the pages are told: a command writing many files at once is one notice. */
export const NOTICE_MS = 50;
/** At least this long between two notices of one folder: a re-read of a folder of ten thousand entries costs the service 10–45 ms. */
export const NOTICE_GAP_MS = 200;
/** How often a folder that cannot be watched is looked at. */
export const SLOW_LOOK_MS = 3000;

export interface Watcher {
  close(): void;
}

/** Watches a folder: changed on any change in it, failed once it can watch no more; throws when it cannot start. */
export type WatchFolder = (path: string, changed: () => void, failed: () => void) => Watcher;

const systemWatch: WatchFolder = (path, changed, failed) => {
  const watcher = watch(path, { persistent: false }, changed);
  watcher.on('error', failed);
  return watcher;
};

/** What a folder holds, in brief: its entries' names, sizes and times, hashed. */
function systemLook(path: string): string {
  const hash = createHash('sha1');
  try {
    for (const name of readdirSync(path)) {
      const stats = lstatSync(join(path, name), { throwIfNoEntry: false });
      hash.update(`${name}\u0000${stats?.size}\u0000${stats?.mtimeMs}\u0000`);
    }
  } catch {
    hash.update('\u0000gone');
  }
  return hash.digest('hex');
}

export interface FolderWatchOptions {
  clock: Clock;
  publish(event: PageEvent): void;
  watch?: WatchFolder;
  look?: (path: string) => string;
}

interface Watched {
  threadId: string;
  path: string;
  absolute: string;
  /** The pages (by their event stream) showing it. */
  pages: Set<string>;
  watcher: Watcher | null;
  look: Timer | null;
  notice: Timer | null;
  noticedAt: number;
}

export class FolderWatches {
  readonly #options: FolderWatchOptions;
  readonly #watch: WatchFolder;
  readonly #look: (path: string) => string;
  readonly #folders = new Map<string, Watched>();
  /** Which folder each page shows, by the folder's key. */
  readonly #pages = new Map<string, string>();

  constructor(options: FolderWatchOptions) {
    this.#options = options;
    this.#watch = options.watch ?? systemWatch;
    this.#look = options.look ?? systemLook;
  }

  /** How many folders are watched or looked at now. */
  get size(): number {
    return this.#folders.size;
  }

  /** The page shows this folder of the thread (path inside it, absolute its real place): watched until it shows another, or none, or goes. */
  show(page: string, threadId: string, path: string, absolute: string): void {
    const key = `${threadId}\u0000${path}`;
    if (this.#pages.get(page) === key) return;
    this.forget(page);
    let watched = this.#folders.get(key);
    if (!watched) {
      watched = { threadId, path, absolute, pages: new Set(), watcher: null, look: null, notice: null, noticedAt: -Infinity };
      this.#folders.set(key, watched);
      this.#start(watched);
    }
    watched.pages.add(page);
    this.#pages.set(page, key);
  }

  /** The page shows no folder now, or has gone. */
  forget(page: string): void {
    const key = this.#pages.get(page);
    if (key === undefined) return;
    this.#pages.delete(page);
    const watched = this.#folders.get(key)!;
    watched.pages.delete(page);
    if (watched.pages.size === 0) this.#stop(key, watched);
  }

  /** The thread is gone, and with it every folder of it any page shows. */
  forgetThread(threadId: string): void {
    for (const [key, watched] of this.#folders) {
      if (watched.threadId !== threadId) continue;
      for (const page of watched.pages) this.#pages.delete(page);
      this.#stop(key, watched);
    }
  }

  closeAll(): void {
    for (const [key, watched] of this.#folders) this.#stop(key, watched);
    this.#pages.clear();
  }

  #start(watched: Watched): void {
    try {
      watched.watcher = this.#watch(watched.absolute, () => this.#changed(watched), () => this.#lookInstead(watched));
    } catch {
      this.#lookInstead(watched);
    }
  }

  #lookInstead(watched: Watched): void {
    watched.watcher?.close();
    watched.watcher = null;
    let last = this.#look(watched.absolute);
    const again = () => {
      watched.look = this.#options.clock.after(SLOW_LOOK_MS, () => {
        const now = this.#look(watched.absolute);
        if (now !== last) this.#changed(watched);
        last = now;
        again();
      });
    };
    again();
  }

  #changed(watched: Watched): void {
    if (watched.notice) return;
    const { clock } = this.#options;
    const wait = Math.max(NOTICE_MS, watched.noticedAt + NOTICE_GAP_MS - clock.now());
    watched.notice = clock.after(wait, () => {
      watched.notice = null;
      watched.noticedAt = clock.now();
      this.#options.publish({ type: 'folderChanged', threadId: watched.threadId, path: watched.path });
    });
  }

  #stop(key: string, watched: Watched): void {
    watched.watcher?.close();
    watched.look?.cancel();
    watched.notice?.cancel();
    this.#folders.delete(key);
  }
}

// What a thread's folder holds, as the page lists and reads it. A path the page names is taken
// apart here and refused unless every part of it is a plain name, and what it names is found
// below the folder's real path with no symbolic link on the way: Codex, or a page Codex fetched,
// can plant a link, and following one would hand out any file this user can read.
import { constants, lstatSync, type Stats } from 'node:fs';
import { lstat, open, readdir, realpath, type FileHandle } from 'node:fs/promises';
import { join } from 'node:path';
import { Refusal } from '../refusal.ts';
import { seenOf, type OriginOf } from './turnFiles.ts';
import type { Entry, EntryKind } from '../model.ts';

/** The most entries one listing describes: a larger folder is read a window at a time as it scrolls. */
export const LISTING_WINDOW = 500;
/** Longest path the page may name, in characters: far beyond any real one, short of abuse. */
const PATH_LIMIT = 4096;
// C0, DEL and C1; a NUL would cut the path short in the system call.
const CONTROL = /[\u0000-\u001f\u007f-\u009f]/;

/** The parts of a path relative to a thread's folder; refused (as no such file) unless each is a plain name. */
export function partsOf(path: string): string[] {
  if (path === '') return [];
  if (path.length > PATH_LIMIT || CONTROL.test(path) || path.includes('\\')) throw new Refusal('noSuchFile');
  const parts = path.split('/');
  for (const part of parts) if (part === '' || part === '.' || part === '..') throw new Refusal('noSuchFile');
  return parts;
}

/**
 * The folder's real path and what the relative path names below it, found without following a
 * link: the real path of the whole must be the folder's followed by the very parts named.
 */
async function locate(folder: string, parts: string[]): Promise<{ path: string; stats: Stats }> {
  try {
    const root = await realpath(folder);
    const path = join(root, ...parts);
    if (parts.length > 0 && (await realpath(path)) !== path) throw new Refusal('noSuchFile');
    const stats = await lstat(path);
    if (!stats.isFile() && !stats.isDirectory()) throw new Refusal('noSuchFile');
    return { path, stats };
  } catch (error) {
    if (error instanceof Refusal) throw error;
    throw new Refusal('noSuchFile');
  }
}

/** Which of these paths name plain files inside the thread's folder (reached by no link). */
export async function filesAmong(folder: string, paths: readonly string[]): Promise<string[]> {
  const found = await Promise.all(paths.map(async (path) => {
    try {
      const parts = partsOf(path);
      return parts.length > 0 && (await locate(folder, parts)).stats.isFile() ? path : null;
    } catch {
      return null;
    }
  }));
  return found.filter((path) => path !== null);
}

/** A folder inside the thread's folder, by its absolute path. */
export async function folderPath(folder: string, path: string): Promise<string> {
  const { path: absolute, stats } = await locate(folder, partsOf(path));
  if (!stats.isDirectory()) throw new Refusal('noSuchFile');
  return absolute;
}

/** What the listing says of one name; null for one gone since the folder was read, or neither file, folder nor link. */
function entryOf(absolute: string, name: string, path: string, originOf: OriginOf): Entry | null {
  let entry: Stats | undefined;
  try {
    entry = lstatSync(join(absolute, name), { throwIfNoEntry: false });
  } catch {
    return null;
  }
  if (!entry) return null;
  const kind: EntryKind | null = entry.isDirectory() ? 'folder' : entry.isSymbolicLink() ? 'link' : entry.isFile() ? 'file' : null;
  if (!kind) return null;
  const seen = seenOf(entry);
  const origin = kind === 'file' ? originOf(path, seen) : { turn: null, changedSince: false, user: false };
  return { name, kind, size: kind === 'file' ? entry.size : 0, changedAt: seen.changedAt, ...origin };
}

/** What a listing answers: how many entries the folder holds, and a window of them in order. */
export interface Listing {
  total: number;
  from: number;
  entries: Entry[];
}

/**
 * The entries of a folder inside the thread's folder, folders first, then by name: from the one at
 * from, at most count of them; originsOf tells who made which of them. The order comes from
 * reading the folder alone, which says each entry's kind; only the window is looked at, so a folder
 * of ten thousand entries answers about as fast as one of a hundred.
 */
export async function listFolder(
  folder: string, path: string, originsOf: (paths: string[]) => OriginOf, from = 0, count = LISTING_WINDOW,
): Promise<Listing> {
  const parts = partsOf(path);
  const absolute = await folderPath(folder, path);
  const found = await readdir(absolute, { withFileTypes: true }).catch(() => {
    throw new Refusal('noSuchFile');
  });
  const names = found.map((entry) => ({ name: entry.name, folder: entry.isDirectory() }))
    .sort((a, b) => Number(b.folder) - Number(a.folder) || (a.name < b.name ? -1 : a.name > b.name ? 1 : 0));
  const window = names.slice(from, from + Math.min(count, LISTING_WINDOW)).map(({ name }) => ({ name, path: [...parts, name].join('/') }));
  const originOf = originsOf(window.map((entry) => entry.path));
  const entries = window.map(({ name, path: inside }) => entryOf(absolute, name, inside, originOf)).filter((entry) => entry !== null);
  return { total: names.length, from, entries };
}

/** A file inside the thread's folder, open for reading, with what it was when opened. */
export interface OpenFile {
  handle: FileHandle;
  size: number;
  name: string;
}

/** Opens the named file; refused as no such file unless it is a plain file reached by no link. */
export async function openFile(folder: string, path: string): Promise<OpenFile> {
  const parts = partsOf(path);
  if (parts.length === 0) throw new Refusal('noSuchFile');
  const { path: absolute, stats } = await locate(folder, parts);
  if (!stats.isFile()) throw new Refusal('noSuchFile');
  let handle: FileHandle;
  try {
    handle = await open(absolute, constants.O_RDONLY | constants.O_NOFOLLOW | constants.O_NONBLOCK);
  } catch {
    throw new Refusal('noSuchFile');
  }
  // What was opened must be what was looked at: a file swapped for another (or a fifo) meanwhile is not read.
  const opened = await handle.stat();
  if (!opened.isFile() || opened.ino !== stats.ino || opened.dev !== stats.dev) {
    await handle.close();
    throw new Refusal('noSuchFile');
  }
  return { handle, size: opened.size, name: parts.at(-1)! };
}

/** The paths of the first files below the folder, at most limit of them. */
export async function filePaths(folder: string, limit: number): Promise<string[]> {
  const paths: string[] = [];
  for await (const { path } of everyFile(folder)) {
    if (paths.push(path) >= limit) break;
  }
  return paths;
}

/**
 * Every plain file below the folder, by its path relative to it, in order; links, and whatever
 * they point at, are left out. A folder that cannot be read is skipped.
 */
export async function* everyFile(folder: string): AsyncGenerator<{ path: string; absolute: string; stats: Stats }> {
  const root = await realpath(folder);
  const pending = [''];
  while (pending.length > 0) {
    const relative = pending.shift()!;
    const names = await readdir(join(root, relative)).catch(() => [] as string[]);
    for (const name of names.sort()) {
      const path = relative === '' ? name : `${relative}/${name}`;
      const stats = await lstat(join(root, path)).catch(() => null);
      if (stats?.isDirectory()) pending.push(path);
      else if (stats?.isFile()) yield { path, absolute: join(root, path), stats };
    }
  }
}

// A folder the user already has, as a thread's working folder: named by an absolute path, taken
// as the folder it really is (links resolved), and only one of the user's own that is neither the
// whole system, the home folder, nor the workspace's data folder or anything holding it. The small
// folder browser lists folders only, starting at the home folder.
import { readdirSync, realpathSync, statSync } from 'node:fs';
import { dirname, isAbsolute, join, sep } from 'node:path';
import { Refusal } from '../refusal.ts';
import type { FolderListing } from '../model.ts';

/** The most folders one listing shows: a browser, not an index of the disk. */
export const LISTING_LIMIT = 500;

export interface FolderRules {
  home: string;
  dataFolder: string;
  /** The user's own id; another's folder is refused. */
  uid: number;
}

const inside = (path: string, folder: string) => path === folder || path.startsWith(folder.endsWith(sep) ? folder : folder + sep);

/** The real path of an existing folder this path names; refused with its reason otherwise. */
function realFolder(raw: string): string {
  // "~" is a shell's, not a path: taken as typed it would be a folder named "~" somewhere.
  if (!isAbsolute(raw)) throw new Refusal('folderNotAbsolute');
  let real: string;
  try {
    real = realpathSync(raw);
  } catch {
    throw new Refusal('folderMissing', raw);
  }
  if (!statSync(real).isDirectory()) throw new Refusal('folderNotFolder', raw);
  return real;
}

/** The folder a thread may work in, by its real path. */
export function checkOwnFolder(raw: string, rules: FolderRules): string {
  const real = realFolder(raw.trim());
  const home = realpathOr(rules.home);
  const data = realpathOr(rules.dataFolder);
  // The data folder is refused whole and from above: a thread writing there could reach the store.
  if (real === sep || real === home || inside(real, data) || inside(data, real)) throw new Refusal('folderForbidden', real);
  if (statSync(real).uid !== rules.uid) throw new Refusal('folderNotYours', real);
  return real;
}

function realpathOr(path: string): string {
  try {
    return realpathSync(path);
  } catch {
    return path;
  }
}

/** The folders in this one (the home folder when none is named), hidden ones left out, by name. */
export function listFolders(raw: string | null, rules: FolderRules): FolderListing {
  const path = realFolder(raw === null || raw === '' ? rules.home : raw);
  const names: string[] = [];
  for (const entry of readdirSync(path, { withFileTypes: true })) {
    if (entry.name.startsWith('.')) continue;
    if (entry.isDirectory() || (entry.isSymbolicLink() && isFolder(join(path, entry.name)))) names.push(entry.name);
  }
  names.sort((a, b) => a.localeCompare(b, 'zh-CN'));
  const parent = dirname(path);
  return { path, parent: parent === path ? null : parent, folders: names.slice(0, LISTING_LIMIT), more: names.length > LISTING_LIMIT };
}

function isFolder(path: string): boolean {
  try {
    return statSync(path).isDirectory();
  } catch {
    return false;
  }
}

// How much a folder holds, before anything copies it.
import { lstat, readdir } from 'node:fs/promises';
import { join } from 'node:path';

/** The bytes of the files below the folder; links count as themselves, never followed. */
export async function folderBytes(folder: string): Promise<number> {
  let total = 0;
  for (const entry of await readdir(folder, { recursive: true, withFileTypes: true })) {
    if (entry.isDirectory()) continue;
    total += (await lstat(join(entry.parentPath, entry.name))).size;
  }
  return total;
}

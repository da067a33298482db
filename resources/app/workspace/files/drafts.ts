// A page's draft folder: where the files of a question that has no thread yet wait, moved into the
// thread's own folder when the question makes it, and swept away when their page is long gone.
import { linkSync, readdirSync, rmSync, statSync, unlinkSync } from 'node:fs';
import { join } from 'node:path';
import { Refusal } from '../refusal.ts';

/** Drafts a page left behind (it was closed before asking) go after this long. */
export const DRAFT_AGE_MS = 24 * 60 * 60 * 1000;
// The page's own token names the folder: nothing in it may lead anywhere else.
const TOKEN = /^[\w-]{8,64}$/;

export function draftFolder(dataFolder: string, token: string | null): string {
  if (token === null || !TOKEN.test(token)) throw new Refusal('badDraft');
  return join(dataFolder, 'drafts', token);
}

/**
 * Moves a draft's files into the new thread's folder (new, so no name is taken there): all are
 * linked before any leaves the draft, so a failure halfway leaves the draft as it was.
 */
export function moveDraftFiles(from: string, to: string, names: readonly string[]): void {
  for (const name of names) linkSync(join(from, name), join(to, name));
  for (const name of names) unlinkSync(join(from, name));
}

/** Drafts of pages long gone; a page still open keeps its own. */
export function sweepDrafts(dataFolder: string, now: number): void {
  const root = join(dataFolder, 'drafts');
  let entries: string[];
  try {
    entries = readdirSync(root);
  } catch {
    return;
  }
  for (const entry of entries) {
    const path = join(root, entry);
    const stat = statSync(path, { throwIfNoEntry: false });
    if (stat && now - stat.mtimeMs > DRAFT_AGE_MS) rmSync(path, { recursive: true, force: true });
  }
}

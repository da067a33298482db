// Files the user brings to a question: written into the thread's own folder (or, for a question
// that will start a thread, into the page's draft folder). Nothing is ever written anywhere else,
// replaced, or written through a symbolic link.
import { constants, lstatSync, mkdirSync } from 'node:fs';
import { link, lstat, open, unlink } from 'node:fs/promises';
import { randomBytes } from 'node:crypto';
import { extname, join } from 'node:path';
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { draftFolder } from './drafts.ts';
import { StoreError } from '../store/store.ts';

export const FILE_LIMIT_BYTES = 50 * 1024 * 1024;
export const FILE_LIMIT_TEXT = '50 MB';
/** Leaves room under the file systems' 255 bytes for a " (999)" and the temporary name's prefix. */
export const NAME_LIMIT_BYTES = 200;
export const ATTACHMENT_LIMIT = 20;
const IMAGE_TYPES = new Set(['.png', '.jpg', '.jpeg', '.gif', '.webp']);
// C0, DEL and C1: a newline would split the line that names the files for Codex.
const CONTROL = /[\u0000-\u001f\u007f-\u009f]/;

/** The name as the user gave it, checked: refused with the reason rather than quietly changed. */
export function checkName(raw: string): string {
  const name = raw.normalize('NFC');
  if (name.trim() === '') throw new Refusal('fileNameEmpty');
  if (CONTROL.test(name)) throw new Refusal('fileNameHasControl');
  if (name.includes('/') || name.includes('\\')) throw new Refusal('fileNameHasSlash');
  if (name === '.' || name === '..') throw new Refusal('fileNameReserved');
  if (Buffer.byteLength(name, 'utf8') > NAME_LIMIT_BYTES) throw new Refusal('fileNameTooLong');
  return name;
}

/** The n-th name for a file whose name is taken: "报告.pdf" becomes "报告 (2).pdf". */
export function numbered(name: string, n: number): string {
  if (n <= 1) return name;
  const extension = extname(name);
  const stem = extension === '' ? name : name.slice(0, -extension.length);
  return `${stem} (${n})${extension}`;
}

export function isImage(name: string): boolean {
  return IMAGE_TYPES.has(extname(name).toLowerCase());
}

/** What Codex is told beside the question: the files by their names in its working folder, or in the folder named. */
export function attachmentNote(names: readonly string[], elsewhere: string | null = null): string {
  if (names.length === 0) return '';
  return elsewhere === null ? texts.attachmentNote(names) : texts.attachmentNoteIn(names, elsewhere);
}

/** Where a file goes: a thread's folder, or the draft folder of a page's question that has no thread yet. */
export type UploadPlace = { thread: string } | { draft: string | null };

export interface UploadFolders {
  dataFolder: string;
  /** The thread's folder; null for no such thread. */
  threadFolder(threadId: string): string | null;
}

/** The place's folder; a draft's is made when a file is to go in. */
export function uploadFolder(folders: UploadFolders, place: UploadPlace, create: boolean): string {
  if ('thread' in place) {
    const folder = folders.threadFolder(place.thread);
    if (folder === null) throw new Refusal('noSuchThread');
    return folder;
  }
  const draft = draftFolder(folders.dataFolder, place.draft);
  if (create) makeDraftFolder(draft);
  return draft;
}

/** Where uploads go must be a folder of its own, not a link to one elsewhere. */
function checkFolder(folder: string): void {
  let stat;
  try {
    stat = lstatSync(folder);
  } catch {
    throw new Refusal('noSuchThread');
  }
  if (!stat.isDirectory()) throw new Refusal('folderUnsafe');
}

function makeDraftFolder(folder: string): void {
  mkdirSync(join(folder, '..'), { recursive: true, mode: 0o700 });
  try {
    mkdirSync(folder, { mode: 0o700 });
  } catch (error) {
    if ((error as NodeJS.ErrnoException).code !== 'EEXIST') throw error;
  }
  checkFolder(folder);
}

/**
 * Streams the body into the folder under this name or the first free numbered one, and returns
 * the name used. The bytes go to a fresh temporary file (O_EXCL: never an existing file or a
 * planted link) which is then linked to its name; a link never replaces what is there, so two
 * uploads of one name at once get two names.
 */
export async function saveUpload(body: AsyncIterable<Buffer>, folder: string, name: string, limit = FILE_LIMIT_BYTES): Promise<string> {
  checkFolder(folder);
  const temporary = join(folder, `.upload-${randomBytes(8).toString('hex')}.part`);
  const handle = await open(temporary, constants.O_WRONLY | constants.O_CREAT | constants.O_EXCL, 0o600);
  try {
    let size = 0;
    try {
      for await (const chunk of body) {
        size += chunk.length;
        if (size > limit) throw new Refusal('fileTooLarge');
        await handle.write(chunk);
      }
      await handle.close();
    } catch (error) {
      // A full disk is the user's to mend, told as the store tells it; not a fault of the service.
      const code = (error as NodeJS.ErrnoException).code;
      if (code === 'ENOSPC' || code === 'EDQUOT') throw new StoreError('full', (error as Error).message, { cause: error });
      throw error;
    }
    for (let n = 1; ; n += 1) {
      try {
        await link(temporary, join(folder, numbered(name, n)));
        return numbered(name, n);
      } catch (error) {
        if ((error as NodeJS.ErrnoException).code !== 'EEXIST' || n >= 999) throw error;
      }
    }
  } finally {
    await handle.close().catch(() => {});
    await unlink(temporary).catch(() => {});
  }
}

/** Takes back a file the page uploaded and has not sent: only a plain file of that name goes. */
export async function removeUpload(folder: string, name: string): Promise<void> {
  const checked = checkName(name);
  checkFolder(folder);
  const path = join(folder, checked);
  const stat = await lstat(path).catch(() => null);
  if (stat?.isFile()) await unlink(path);
}

/** The names a question brings, checked; each must be a plain file in the folder. */
export function checkAttachments(folder: string, names: readonly string[]): string[] {
  if (names.length > ATTACHMENT_LIMIT) throw new Refusal('tooManyFiles');
  const checked = [...new Set(names.map(checkName))];
  for (const name of checked) {
    if (!lstatSync(join(folder, name), { throwIfNoEntry: false })?.isFile()) throw new Refusal('fileMissing', name);
  }
  return checked;
}

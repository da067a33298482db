// Files the user brings to a question: written into the thread's own folder (or, for a question
// that will start a thread, into the page's draft folder, moved into the thread's folder when it is
// made). Nothing is ever written anywhere else, replaced, or written through a symbolic link.
import { constants, linkSync, lstatSync, mkdirSync, readdirSync, rmSync, statSync, unlinkSync } from 'node:fs';
import { link, lstat, open, unlink } from 'node:fs/promises';
import { randomBytes } from 'node:crypto';
import { extname, join } from 'node:path';
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';

export const FILE_LIMIT_BYTES = 50 * 1024 * 1024;
export const FILE_LIMIT_TEXT = '50 MB';
/** Leaves room under the file systems' 255 bytes for a " (999)" and the temporary name's prefix. */
export const NAME_LIMIT_BYTES = 200;
export const ATTACHMENT_LIMIT = 20;
/** Drafts a page left behind (it was closed before asking) go after this long. */
export const DRAFT_AGE_MS = 24 * 60 * 60 * 1000;
const TOKEN = /^[\w-]{8,64}$/;
const IMAGE_TYPES = new Set(['.png', '.jpg', '.jpeg', '.gif', '.webp']);
// C0, DEL and C1: a newline would split the line that names the files for Codex.
const CONTROL = /[\u0000-\u001f\u007f-\u009f]/;

/** The name as the user gave it, checked: refused with a sentence rather than quietly changed. */
export function checkName(raw: string): string {
  const name = raw.normalize('NFC');
  if (name.trim() === '') throw new Refusal(400, texts.fileNameEmpty);
  if (CONTROL.test(name)) throw new Refusal(400, texts.fileNameHasControl);
  if (name.includes('/') || name.includes('\\')) throw new Refusal(400, texts.fileNameHasSlash);
  if (name === '.' || name === '..') throw new Refusal(400, texts.fileNameReserved);
  if (Buffer.byteLength(name, 'utf8') > NAME_LIMIT_BYTES) throw new Refusal(400, texts.fileNameTooLong(NAME_LIMIT_BYTES));
  return name;
}

/** The name from its header: percent-encoded UTF-8, since a header carries only Latin-1 faithfully. */
export function nameFromHeader(header: string | string[] | undefined): string {
  if (typeof header !== 'string' || header === '') throw new Refusal(400, texts.fileNameMissing);
  let decoded: string;
  try {
    decoded = decodeURIComponent(header);
  } catch {
    throw new Refusal(400, texts.fileNameUnreadable);
  }
  return checkName(decoded);
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

/** What Codex is told beside the question: the files by their names in its working folder. */
export function attachmentNote(names: readonly string[]): string {
  if (names.length === 0) return '';
  return `\n\n（用户附带了这些文件，已放在当前文件夹中：${names.map((name) => `“${name}”`).join('、')}）`;
}

/** A page's draft folder for a question that has no thread yet. */
export function draftFolder(dataFolder: string, token: unknown): string {
  if (typeof token !== 'string' || !TOKEN.test(token)) throw new Refusal(400, texts.badDraft);
  return join(dataFolder, 'drafts', token);
}

/** Where uploads go must be a folder of its own, not a link to one elsewhere. */
function checkFolder(folder: string): void {
  let stat;
  try {
    stat = lstatSync(folder);
  } catch {
    throw new Refusal(404, texts.noSuchThread);
  }
  if (!stat.isDirectory()) throw new Refusal(409, texts.folderUnsafe);
}

export function ensureDraftFolder(folder: string): void {
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
export async function receive(body: AsyncIterable<Buffer>, folder: string, name: string, limit = FILE_LIMIT_BYTES): Promise<string> {
  checkFolder(folder);
  const temporary = join(folder, `.upload-${randomBytes(8).toString('hex')}.part`);
  const flags = constants.O_WRONLY | constants.O_CREAT | constants.O_EXCL | constants.O_NOFOLLOW;
  const handle = await open(temporary, flags, 0o600);
  try {
    let size = 0;
    for await (const chunk of body) {
      size += chunk.length;
      if (size > limit) throw new Refusal(413, texts.fileTooLarge(FILE_LIMIT_TEXT));
      await handle.write(chunk);
    }
    await handle.close();
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
export async function removeUpload(folder: string, name: unknown): Promise<void> {
  const checked = checkName(typeof name === 'string' ? name : '');
  checkFolder(folder);
  const path = join(folder, checked);
  const stat = await lstat(path).catch(() => null);
  if (stat?.isFile()) await unlink(path);
}

/** The names a question brings, checked; each must be a plain file in the folder. */
export function checkAttachments(folder: string, names: unknown): string[] {
  if (names === undefined || names === null) return [];
  if (!Array.isArray(names)) throw new Refusal(400, texts.notJson);
  if (names.length > ATTACHMENT_LIMIT) throw new Refusal(400, texts.tooManyFiles(ATTACHMENT_LIMIT));
  const checked = [...new Set(names.map((name) => checkName(typeof name === 'string' ? name : '')))];
  for (const name of checked) {
    if (!lstatSync(join(folder, name), { throwIfNoEntry: false })?.isFile()) throw new Refusal(409, texts.fileMissing(name));
  }
  return checked;
}

/**
 * Moves a draft's files into the new thread's folder (new, so no name is taken there): all are
 * linked before any leaves the draft, so a failure halfway leaves the draft as it was.
 */
export function adoptDraft(draft: string, folder: string, names: readonly string[]): void {
  for (const name of names) linkSync(join(draft, name), join(folder, name));
  for (const name of names) unlinkSync(join(draft, name));
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

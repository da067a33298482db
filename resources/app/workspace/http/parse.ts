// A request's input as the workspace takes it: whatever came in the body, the path and the query,
// turned into typed values or refused with the reason. Nothing past this module sees `unknown`.
import type { IncomingMessage } from 'node:http';
import { Refusal } from '../refusal.ts';
import { checkName, type UploadPlace } from '../files/uploads.ts';
import type { Question } from '../research/desk.ts';
import type { ListCursor } from '../store/store.ts';
import { isPermission } from '../research/permissions.ts';
import type { ApprovalDecision, Choice, Permission, SignInMethod } from '../model.ts';

export const BODY_LIMIT_BYTES = (1 << 20) + (64 << 10);
const THREAD_ID = /^[\w-]{1,64}$/;
// Names only, as Codex itself judges whether it has them.
const MODEL = /^[\w.:/@+-]{1,100}$/;
const EFFORT = /^[a-z]{1,20}$/;

export type Fields = Readonly<Record<string, unknown>>;

/** The request's JSON body; over the limit, refused without reading the rest. */
export async function readJson(request: IncomingMessage, limit = BODY_LIMIT_BYTES): Promise<unknown> {
  const declared = Number(request.headers['content-length']);
  if (declared > limit) throw new Refusal('tooLarge');
  const chunks: Buffer[] = [];
  let size = 0;
  for await (const chunk of request as AsyncIterable<Buffer>) {
    size += chunk.length;
    if (size > limit) throw new Refusal('tooLarge');
    chunks.push(chunk);
  }
  try {
    return JSON.parse(Buffer.concat(chunks).toString('utf8')) as unknown;
  } catch {
    throw new Refusal('notJson');
  }
}

/** A JSON body that must be an object. */
export async function readFields(request: IncomingMessage): Promise<Fields> {
  const body = await readJson(request);
  if (typeof body !== 'object' || body === null || Array.isArray(body)) throw new Refusal('notJson');
  return body as Fields;
}

/** A thread's id: in a path, one of another form names no address of the workspace. */
export function isThreadId(raw: unknown): raw is string {
  return typeof raw === 'string' && THREAD_ID.test(raw);
}

export function questionOf(fields: Fields): Question {
  const { question, attachments, draft } = fields;
  if (typeof question !== 'string') throw new Refusal('emptyQuestion');
  const chosen = 'model' in fields || 'effort' in fields;
  return {
    text: question, attachments: namesOf(attachments), draft: typeof draft === 'string' ? draft : null,
    choice: chosen ? choiceOf(fields) : null, folder: typeof fields.folder === 'string' ? fields.folder : null,
  };
}

/** The files a question names; a name that is not text is no name, which the file rules refuse. */
function namesOf(value: unknown): string[] {
  if (value === undefined || value === null) return [];
  if (!Array.isArray(value)) throw new Refusal('notJson');
  return value.map((name: unknown) => (typeof name === 'string' ? name : ''));
}

/** The model and effort a question asks for; null for either is Codex's default. */
export function choiceOf(fields: Fields): Choice {
  const { model = null, effort = null } = fields;
  if (model !== null && (typeof model !== 'string' || !MODEL.test(model))) throw new Refusal('badChoice');
  if (effort !== null && (typeof effort !== 'string' || !EFFORT.test(effort))) throw new Refusal('badChoice');
  return { model, effort };
}

/** The question asked again: edited, or null to ask it as it was. */
export function redoOf(fields: Fields): string | null {
  const { question = null } = fields;
  if (question !== null && typeof question !== 'string') throw new Refusal('emptyQuestion');
  return question;
}

/** The turn a branch is made at, and whether the user has agreed to copy a large folder. */
export function branchOf(fields: Fields): { position: number; confirmed: boolean } {
  const { position, confirmed = false } = fields;
  if (typeof position !== 'number' || !Number.isSafeInteger(position) || position < 0) throw new Refusal('badPosition');
  return { position, confirmed: confirmed === true };
}

/** A queued question, by its id, and its new text; null takes it out of the queue. */
export function queuedChangeOf(fields: Fields): { id: string; text: string | null } {
  const { id, question = null } = fields;
  if (typeof id !== 'string') throw new Refusal('noSuchQueued');
  if (question !== null && typeof question !== 'string') throw new Refusal('emptyQuestion');
  return { id, text: question };
}

/** A new title, and the title the page saw, which another page may have changed since. */
export function renameOf(fields: Fields): { from: string; title: string } {
  const { from, title } = fields;
  if (typeof title !== 'string' || typeof from !== 'string') throw new Refusal('emptyTitle');
  return { from, title };
}

export function permissionOf(value: unknown): Permission {
  if (!isPermission(value)) throw new Refusal('badPermission');
  return value;
}

export function decisionOf(value: unknown): ApprovalDecision {
  if (value !== 'once' && value !== 'thread' && value !== 'decline') throw new Refusal('badDecision');
  return value;
}

/** An approval's id: one of another form names none. */
export function isApprovalId(raw: unknown): raw is string {
  return typeof raw === 'string' && /^[0-9a-f-]{36}$/.test(raw);
}

export function flagOf(value: unknown): boolean {
  if (typeof value !== 'boolean') throw new Refusal('needsFlag');
  return value;
}

/** A turn's position in the query; none at all is the first. */
export function positionOf(raw: string | null): number {
  const position = Number(raw);
  if (!Number.isSafeInteger(position) || position < 0) throw new Refusal('badPosition');
  return position;
}

/** Where a page of the list starts (`updated=…&after=…`, the last thread the page has); null: at the top. */
export function cursorOf(query: URLSearchParams): ListCursor | null {
  const updated = query.get('updated');
  const after = query.get('after');
  if (updated === null && after === null) return null;
  const updatedAt = Number(updated);
  if (!Number.isSafeInteger(updatedAt) || after === null) throw new Refusal('badPosition');
  return { updatedAt, id: after };
}

export function signInMethodOf(body: unknown): SignInMethod {
  const method = typeof body === 'object' && body !== null ? (body as Fields).method : undefined;
  if (method !== 'browser' && method !== 'deviceCode') throw new Refusal('badSignInMethod');
  return method;
}

/** An upload's name from its header: percent-encoded UTF-8, since a header carries only Latin-1 faithfully. */
export function fileNameOf(header: string | string[] | undefined): string {
  if (typeof header !== 'string' || header === '') throw new Refusal('fileNameMissing');
  let decoded: string;
  try {
    decoded = decodeURIComponent(header);
  } catch {
    throw new Refusal('fileNameUnreadable');
  }
  return checkName(decoded);
}

/** Where an upload goes: `thread` names a thread, else `draft` the page's draft for a question that has none yet. */
export function uploadPlaceOf(thread: unknown, draft: unknown): UploadPlace {
  if (thread === undefined || thread === null) return { draft: typeof draft === 'string' ? draft : null };
  if (!isThreadId(thread)) throw new Refusal('noSuchThread');
  return { thread };
}

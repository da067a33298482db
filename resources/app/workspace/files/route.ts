// The upload requests: a file into a thread's folder or a page's draft folder, and one taken back.
import type { IncomingMessage, ServerResponse } from 'node:http';
import { join } from 'node:path';
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { sendJson } from '../http/answer.ts';
import { readJson } from '../http/security.ts';
import { draftFolder, ensureDraftFolder, FILE_LIMIT_BYTES, FILE_LIMIT_TEXT, nameFromHeader, receive, removeUpload } from './uploads.ts';

export interface UploadDeps {
  dataFolder: string;
  /** The thread's folder, relative to the data folder; null for no such thread. */
  threadFolder(threadId: string): string | null;
}

const THREAD_ID = /^[\w-]{1,64}$/;

/** Where a request's file goes: `thread=<id>` for a thread, `draft=<token>` for a question that has none yet. */
function folderOf(deps: UploadDeps, place: { thread?: unknown; draft?: unknown }, create: boolean): string {
  if (place.thread !== undefined && place.thread !== null) {
    const folder = typeof place.thread === 'string' && THREAD_ID.test(place.thread) ? deps.threadFolder(place.thread) : null;
    if (folder === null) throw new Refusal(404, texts.noSuchThread);
    return join(deps.dataFolder, folder);
  }
  const draft = draftFolder(deps.dataFolder, place.draft);
  if (create) ensureDraftFolder(draft);
  return draft;
}

export async function handleUploads(deps: UploadDeps, request: IncomingMessage, response: ServerResponse, url: URL, action: string | undefined): Promise<void> {
  if (request.method !== 'POST') throw new Refusal(405, texts.methodNotAllowed);
  if (action === 'remove') {
    const body = (await readJson(request)) as { thread?: unknown; draft?: unknown; name?: unknown } | null;
    if (typeof body !== 'object' || body === null) throw new Refusal(400, texts.notJson);
    await removeUpload(folderOf(deps, body, false), body.name);
    return sendJson(response, 200, {});
  }
  if (action !== undefined) throw new Refusal(404, texts.notFound);
  const name = nameFromHeader(request.headers['x-file-name']);
  // A browser states the length of a file it sends: one too big is refused before a byte is read,
  // and the connection is not used again (what is left of the body would be read as the next request).
  if (Number(request.headers['content-length']) > FILE_LIMIT_BYTES) {
    response.setHeader('Connection', 'close');
    throw new Refusal(413, texts.fileTooLarge(FILE_LIMIT_TEXT));
  }
  const folder = folderOf(deps, { thread: url.searchParams.get('thread') ?? undefined, draft: url.searchParams.get('draft') ?? undefined }, true);
  try {
    sendJson(response, 201, { name: await receive(request, folder, name) });
  } catch (error) {
    // What was not read of a body over the limit is not read at all: the connection goes with it.
    if (error instanceof Refusal && error.status === 413) {
      response.setHeader('Connection', 'close');
      response.once('finish', () => request.destroy());
    }
    throw error;
  }
}

// Requests that organise the threads: the list a page at a time, titles, pins, the archive,
// deletion and export. Each change is one store transaction and is published to every page.
import type { IncomingMessage, ServerResponse } from 'node:http';
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { securityHeaders, sendJson } from './answer.ts';
import { readJson } from './security.ts';
import { attachment, exportFileName, threadMarkdown } from '../research/export.ts';
import type { ResearchDesk } from '../research/desk.ts';
import type { ListCursor } from '../store/store.ts';

const CHANGES = new Set(['title', 'pin', 'archive', 'delete']);

function fieldsOf(body: unknown): Record<string, unknown> {
  if (typeof body !== 'object' || body === null || Array.isArray(body)) throw new Refusal(400, texts.notJson);
  return body as Record<string, unknown>;
}

/** GET /api/threads?archived=1&updated=…&after=…: the page of the list after that thread. */
export function listPage(desk: ResearchDesk, response: ServerResponse, query: URLSearchParams): void {
  const updated = query.get('updated');
  const after = query.get('after');
  let cursor: ListCursor | null = null;
  if (updated !== null || after !== null) {
    const updatedAt = Number(updated);
    if (!Number.isSafeInteger(updatedAt) || after === null) throw new Refusal(400, texts.badPosition);
    cursor = { updatedAt, id: after };
  }
  sendJson(response, 200, desk.listPage(query.get('archived') === '1', cursor));
}

/** Answers the request if it is one of these; false when it is not. */
export async function organise(
  desk: ResearchDesk, request: IncomingMessage, response: ServerResponse, id: string, action: string, method: string,
): Promise<boolean> {
  if (action === 'export' && method === 'GET') {
    const thread = desk.whole(id);
    if (!thread) throw new Refusal(404, texts.noSuchThread);
    // Made whole before the first byte goes out: a deletion meanwhile cannot cut it short.
    const bytes = Buffer.from(threadMarkdown(thread), 'utf8');
    response.writeHead(200, {
      ...securityHeaders,
      'Content-Type': 'text/markdown; charset=utf-8',
      'Content-Length': bytes.length,
      'Content-Disposition': attachment(exportFileName(thread.title, thread.id), thread.id),
      'Cache-Control': 'no-store',
    });
    response.end(bytes);
    return true;
  }
  if (!CHANGES.has(action) || method !== 'POST') return false;
  const body = fieldsOf(await readJson(request));
  if (action === 'title') sendJson(response, 200, { thread: desk.rename(id, body.from, body.title) });
  else if (action === 'pin') sendJson(response, 200, { thread: desk.setFlag(id, 'pinned', body.pinned) });
  else if (action === 'archive') sendJson(response, 200, { thread: desk.setFlag(id, 'archived', body.archived) });
  else {
    await desk.remove(id);
    sendJson(response, 200, {});
  }
  return true;
}

// The workspace's HTTP interface: the page's files, its event stream, and the few requests that
// change something (ask, follow up, stop).
import type { IncomingMessage, ServerResponse } from 'node:http';
import type { Duplex } from 'node:stream';
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { sendJson } from './answer.ts';
import { checkChange, readJson, type PeerGate } from './security.ts';
import type { EventHub } from './events.ts';
import { handshakeProblem, PageSocket, refuseUpgrade } from './socket.ts';
import type { StaticFiles } from './static.ts';
import { listPage, organise } from './organise.ts';
import type { ResearchDesk } from '../research/desk.ts';
import type { AccountDesk } from '../account/accountDesk.ts';
import type { ModelCatalog, ServiceState } from '../model.ts';
import type { QuestionExtras } from '../research/desk.ts';
import { choiceOf } from '../codex/models.ts';
import { handleUploads, type UploadDeps } from '../files/route.ts';
import { searchAnswer } from './search.ts';

export interface RouteDeps {
  desk: ResearchDesk;
  account: AccountDesk;
  hub: EventHub;
  gate: PeerGate;
  files: StaticFiles;
  service(): ServiceState;
  /** A page has connected: it wants to know Codex's state, so Codex is started if it is not. */
  pageConnected(): void;
  complain(line: string): void;
  /** The model picker's catalogue, asked of Codex. */
  models(): Promise<ModelCatalog>;
  uploads: UploadDeps;
}

const THREAD_ID = /^[\w-]{1,64}$/;

function questionOf(body: unknown): unknown {
  if (typeof body !== 'object' || body === null || Array.isArray(body)) throw new Refusal(400, texts.notJson);
  return (body as { question?: unknown }).question;
}

async function accountAction(account: AccountDesk, action: string, body: unknown): Promise<unknown> {
  if (action === 'sign-in') return { signIn: await account.start((body as { method?: unknown } | null)?.method) };
  if (action === 'cancel') return { signIn: account.cancel() };
  if (action === 'sign-out') return account.signOut().then(() => ({}));
  throw new Refusal(404, texts.notFound);
}

function extrasOf(body: unknown): QuestionExtras {
  const { attachments, draft } = body as { attachments?: unknown; draft?: unknown };
  const chosen = 'model' in (body as object) || 'effort' in (body as object);
  return { attachments, draft, ...(chosen ? { choice: choiceOf(body as object) } : {}) };
}

export function createRoutes(deps: RouteDeps): (request: IncomingMessage, response: ServerResponse) => Promise<void> {
  const { desk, hub, gate, files } = deps;

  async function api(request: IncomingMessage, response: ServerResponse, url: URL): Promise<void> {
    const parts = url.pathname.split('/').slice(2); // after "/api/"
    const method = request.method ?? 'GET';
    const [resource, id, action, ...rest] = parts;
    // The events come over a WebSocket (see socket.ts); a plain request for them is told so.
    if (resource === 'events' && parts.length === 1) throw new Refusal(426, texts.notWebSocket);
    if (resource === 'account' && id !== undefined && action === undefined) {
      if (method !== 'POST') throw new Refusal(405, texts.methodNotAllowed);
      return sendJson(response, 200, await accountAction(deps.account, id, await readJson(request)));
    }
    if (resource === 'uploads' && parts.length <= 2) return handleUploads(deps.uploads, request, response, url, id);
    if (resource === 'models' && parts.length === 1) {
      if (method !== 'GET') throw new Refusal(405, texts.methodNotAllowed);
      return sendJson(response, 200, await deps.models());
    }
    if (resource === 'search' && parts.length === 1) {
      if (method !== 'GET') throw new Refusal(405, texts.methodNotAllowed);
      return sendJson(response, 200, searchAnswer(desk, url.searchParams.get('q') ?? ''));
    }
    if (resource !== 'threads' || rest.length > 0 || (id !== undefined && !THREAD_ID.test(id))) {
      throw new Refusal(404, texts.notFound);
    }
    if (id === undefined) {
      if (method === 'GET' && url.search !== '') return listPage(desk, response, url.searchParams);
      if (method === 'GET') return sendJson(response, 200, { threads: desk.list() });
      if (method === 'POST') {
        const body = await readJson(request);
        return sendJson(response, 201, desk.create(questionOf(body), extrasOf(body)));
      }
      throw new Refusal(405, texts.methodNotAllowed);
    }
    if (action === undefined) {
      if (method !== 'GET') throw new Refusal(405, texts.methodNotAllowed);
      const thread = desk.thread(id);
      if (!thread) throw new Refusal(404, texts.noSuchThread);
      return sendJson(response, 200, { thread });
    }
    if (action === 'turns' && method === 'GET') {
      if (url.searchParams.has('after')) {
        const after = Number(url.searchParams.get('after'));
        if (!Number.isSafeInteger(after) || after < 0) throw new Refusal(400, texts.badPosition);
        return sendJson(response, 200, desk.laterTurns(id, after));
      }
      const before = Number(url.searchParams.get('before'));
      if (!Number.isSafeInteger(before) || before < 0) throw new Refusal(400, texts.badPosition);
      return sendJson(response, 200, desk.earlierTurns(id, before));
    }
    if (await organise(desk, request, response, id, action, method)) return;
    if (method !== 'POST') throw new Refusal(405, texts.methodNotAllowed);
    if (action === 'turns') {
      const body = await readJson(request);
      return sendJson(response, 201, desk.ask(id, questionOf(body), extrasOf(body)));
    }
    if (action === 'stop') {
      await readJson(request);
      await desk.stop(id);
      return sendJson(response, 200, {});
    }
    throw new Refusal(404, texts.notFound);
  }

  return async (request, response) => {
    try {
      if (!(await gate.allows(request.socket))) throw new Refusal(403, texts.foreignUser);
      const url = new URL(request.url ?? '/', 'http://workspace.invalid');
      checkChange(request);
      if (url.pathname.startsWith('/api/')) {
        await api(request, response, url);
        return;
      }
      if (request.method !== 'GET' && request.method !== 'HEAD') throw new Refusal(405, texts.methodNotAllowed);
      if (!(await files.serve(request, response, url.pathname))) throw new Refusal(404, texts.notFound);
    } catch (error) {
      if (response.headersSent) {
        response.destroy();
        return;
      }
      if (error instanceof Refusal) {
        sendJson(response, error.status, { error: error.message });
        return;
      }
      deps.complain(`request ${request.method} ${request.url} failed: ${error instanceof Error ? error.stack : String(error)}`);
      sendJson(response, 500, { error: texts.internal(error instanceof Error ? error.message : String(error)) });
    }
  };
}

/**
 * A page's event stream: a WebSocket on /api/events?thread=ID&at=N. No browser asks another site
 * before opening one, so unlike the other requests it must come from the page itself even to read.
 */
export function createUpgrade(deps: RouteDeps): (request: IncomingMessage, socket: Duplex, head: Buffer) => Promise<void> {
  const { desk, hub, gate } = deps;
  return async (request, socket, head) => {
    const url = new URL(request.url ?? '/', 'http://workspace.invalid');
    if (!(await gate.allows(request.socket))) return refuseUpgrade(socket, 403, texts.foreignUser);
    if (url.pathname !== '/api/events') return refuseUpgrade(socket, 404, texts.notFound);
    if (request.method !== 'GET') return refuseUpgrade(socket, 405, texts.methodNotAllowed);
    if (request.headers.origin !== `http://${request.headers.host}`) return refuseUpgrade(socket, 403, texts.foreignOrigin);
    const problem = handshakeProblem(request);
    if (problem === 'version') return refuseUpgrade(socket, 426, texts.notWebSocket, { 'Sec-WebSocket-Version': '13' });
    if (problem) return refuseUpgrade(socket, 400, texts.notWebSocket);
    try {
      const wanted = url.searchParams.get('thread');
      const at = url.searchParams.has('at') ? Number(url.searchParams.get('at')) : NaN;
      const thread = wanted && THREAD_ID.test(wanted) ? desk.thread(wanted, undefined, Number.isSafeInteger(at) ? at : undefined) : null;
      const notice = wanted && !thread ? { notice: texts.noSuchThread } : {};
      const hello = { type: 'hello' as const, service: deps.service(), ...desk.firstListPage(), thread, ...notice };
      hub.subscribe(new PageSocket(request, socket, head), thread?.id ?? null, hello);
    } catch (error) {
      deps.complain(`event stream ${request.url} failed: ${error instanceof Error ? error.stack : String(error)}`);
      socket.destroy();
      return;
    }
    deps.pageConnected();
  };
}

// The workspace's HTTP interface as one table: each request's input parsed here, and the domain
// called with typed values only. The page's event stream is upgrade.ts's.
import type { IncomingMessage, ServerResponse } from 'node:http';
import { Refusal } from '../refusal.ts';
import { securityHeaders } from './answer.ts';
import { checkChange, type PeerGate } from './security.ts';
import { createRouter, created, ok, route, type Handler } from './router.ts';
import {
  branchOf, cursorOf, decisionOf, flagOf, isApprovalId, isThreadId, permissionOf, positionOf, queuedChangeOf, questionOf, readFields,
  readJson, redoOf, renameOf, signInMethodOf,
} from './parse.ts';
import { listFolders, type FolderRules } from '../files/ownFolder.ts';
import { takeBackFile, uploadFile } from './uploads.ts';
import { fileRoutes } from './files.ts';
import { filePaths } from '../files/results.ts';
import type { StaticFiles } from './static.ts';
import { attachment, exportFileName, threadMarkdown } from '../research/export.ts';
import type { ResearchDesk } from '../research/desk.ts';
import type { Threads } from '../research/threads.ts';
import type { AccountDesk } from '../account/accountDesk.ts';
import type { Models } from '../codex/models.ts';
import type { UploadFolders } from '../files/uploads.ts';
import type { FolderWatches } from '../files/folderWatch.ts';
import type { Choice } from '../model.ts';

/** The most files an export links: a folder of many more is one to open, not a list to read. */
const EXPORTED_FILES = 1000;

export interface RouteDeps {
  desk: ResearchDesk;
  account: AccountDesk;
  models: Models;
  gate: PeerGate;
  files: StaticFiles;
  uploads: UploadFolders;
  /** Shows a folder in the desktop's file manager. */
  openFolder(path: string): void;
  /** The folders of threads the pages' files panels show. */
  watches: FolderWatches;
  /** Whether a page of this name has its event stream open. */
  pageOpen(page: string): boolean;
  /** The choice the last question asked for, which the model picker starts from. */
  lastChoice(): Choice;
  /** What the folder browser may show. */
  folderRules: FolderRules;
  complain(line: string): void;
}

/** GET /api/threads/ID/export: the whole thread as one Markdown file. */
function exportThread(threads: Threads): Handler<'id'> {
  return async ({ response, params }) => {
    const thread = threads.whole(params.id);
    if (!thread) throw new Refusal('noSuchThread');
    const files = await filePaths(thread.folder, EXPORTED_FILES).catch(() => []);
    // Made whole before the first byte goes out: a deletion meanwhile cannot cut it short.
    const bytes = Buffer.from(threadMarkdown(thread, files), 'utf8');
    response.writeHead(200, {
      ...securityHeaders,
      'Content-Type': 'text/markdown; charset=utf-8',
      'Content-Length': bytes.length,
      'Content-Disposition': attachment(exportFileName(thread.title, thread.id), thread.id),
      'Cache-Control': 'no-store',
    });
    response.end(bytes);
  };
}

/** Everything not under /api/: the page's own files. */
function pageFiles(files: StaticFiles): Handler {
  return async ({ request, response, url }) => {
    if (url.pathname.startsWith('/api/')) throw new Refusal('notFound');
    if (request.method !== 'GET' && request.method !== 'HEAD') throw new Refusal('methodNotAllowed');
    if (!(await files.serve(request, response, url.pathname))) throw new Refusal('notFound');
  };
}

export function createRoutes(deps: RouteDeps): (request: IncomingMessage, response: ServerResponse) => Promise<void> {
  const { desk, account } = deps;
  const { threads } = desk;
  return createRouter({
    admit: async (request) => {
      if (!(await deps.gate.allows(request.socket))) throw new Refusal('foreignUser');
      checkChange(request);
    },
    params: { id: isThreadId, approval: isApprovalId },
    otherwise: pageFiles(deps.files),
    complain: deps.complain,
    routes: [
      // The events come over a WebSocket; a plain request for them is told so.
      route('*', '/api/events', () => {
        throw new Refusal('notWebSocket');
      }),
      route('GET', '/api/threads', ({ url }) => ok(url.search === ''
        ? { threads: threads.list() }
        : threads.listPage(url.searchParams.get('archived') === '1', cursorOf(url.searchParams)))),
      route('POST', '/api/threads', async ({ request }) => created(desk.create(questionOf(await readFields(request))))),
      route('GET', '/api/threads/:id', ({ params }) => {
        const thread = threads.thread(params.id);
        if (!thread) throw new Refusal('noSuchThread');
        return ok({ thread });
      }),
      route('GET', '/api/threads/:id/turns', ({ params, url }) => {
        const query = url.searchParams;
        return ok(query.has('after')
          ? threads.laterTurns(params.id, positionOf(query.get('after')))
          : threads.earlierTurns(params.id, positionOf(query.get('before'))));
      }),
      route('POST', '/api/threads/:id/turns', async ({ request, params }) => created(desk.ask(params.id, questionOf(await readFields(request))))),
      route('POST', '/api/threads/:id/redo', async ({ request, params }) => created(await desk.redo(params.id, redoOf(await readFields(request))))),
      route('POST', '/api/threads/:id/branch', async ({ request, params }) => {
        const { position, confirmed } = branchOf(await readFields(request));
        return created(await desk.branch(params.id, position, confirmed));
      }),
      route('POST', '/api/threads/:id/steer', async ({ request, params }) =>
        ok(await desk.steer(params.id, questionOf(await readFields(request)).text))),
      route('POST', '/api/threads/:id/queue', async ({ request, params }) =>
        created({ queued: desk.enqueue(params.id, questionOf(await readFields(request)).text) })),
      route('POST', '/api/threads/:id/queue/change', async ({ request, params }) => {
        const { id, text } = queuedChangeOf(await readFields(request));
        desk.changeQueued(params.id, id, text);
        return ok({});
      }),
      route('POST', '/api/threads/:id/queue/send', async ({ request, params }) =>
        created(desk.sendQueued(params.id, queuedChangeOf(await readFields(request)).id))),
      route('POST', '/api/threads/:id/stop', async ({ request, params }) => {
        await readJson(request);
        await desk.stop(params.id);
        return ok({});
      }),
      route('POST', '/api/threads/:id/title', async ({ request, params }) => {
        const { from, title } = renameOf(await readFields(request));
        return ok({ thread: threads.rename(params.id, from, title) });
      }),
      route('POST', '/api/threads/:id/pin', async ({ request, params }) =>
        ok({ thread: threads.setFlag(params.id, 'pinned', flagOf((await readFields(request)).pinned)) })),
      route('POST', '/api/threads/:id/archive', async ({ request, params }) =>
        ok({ thread: threads.setFlag(params.id, 'archived', flagOf((await readFields(request)).archived)) })),
      route('POST', '/api/threads/:id/delete', async ({ request, params }) => {
        await readFields(request);
        await threads.remove(params.id);
        return ok({});
      }),
      route('GET', '/api/threads/:id/export', exportThread(threads)),
      route('POST', '/api/threads/:id/permission', async ({ request, params }) => {
        desk.setPermission(params.id, permissionOf((await readFields(request)).permission));
        return ok({});
      }),
      route('POST', '/api/threads/:id/approvals/:approval', async ({ request, params }) => {
        desk.approvals.answer(params.id, params.approval, decisionOf((await readFields(request)).decision));
        return ok({});
      }),
      route('GET', '/api/folders', ({ url }) => ok(listFolders(url.searchParams.get('path'), deps.folderRules))),
      ...fileRoutes({ threads, files: desk.files, watches: deps.watches, pageOpen: deps.pageOpen, openFolder: deps.openFolder }),
      route('GET', '/api/search', ({ url }) => ok(threads.search(url.searchParams.get('q') ?? ''))),
      route('GET', '/api/models', async () => ok({ ...(await deps.models.read()), last: deps.lastChoice() })),
      route('POST', '/api/uploads', uploadFile(deps.uploads)),
      route('POST', '/api/uploads/remove', takeBackFile(deps.uploads)),
      route('POST', '/api/account/sign-in', async ({ request }) => ok({ signIn: await account.start(signInMethodOf(await readJson(request))) })),
      route('POST', '/api/account/cancel', async ({ request }) => {
        await readJson(request);
        return ok({ signIn: account.cancel() });
      }),
      route('POST', '/api/account/sign-out', async ({ request }) => {
        await readJson(request);
        await account.signOut();
        return ok({});
      }),
    ],
  });
}

// A thread's files as the page reads them: listed, sent and opened on the desktop. A file sent from
// the page's own origin was written by Codex, or by a web page Codex fetched: it is sent as data,
// never as something the browser may run here. Its type comes from its name's extension, never
// from its bytes (nosniff); HTML, SVG and whatever is not known go out as downloads or plain text,
// and every answer is sandboxed, so no script in it runs with the page's rights.
import { extname } from 'node:path';
import { pipeline } from 'node:stream/promises';
import { createGzip } from 'node:zlib';
import type { IncomingMessage, ServerResponse } from 'node:http';
import { Refusal } from '../refusal.ts';
import { route, ok, type Route } from './router.ts';
import { readFields } from './parse.ts';
import { disposition, exportFileName } from '../research/export.ts';
import { folderTar } from '../files/archive.ts';
import { filesAmong, folderPath, listFolder, LISTING_WINDOW, openFile, type OpenFile } from '../files/results.ts';
import type { Threads } from '../research/threads.ts';
import type { TurnFiles } from '../files/turnFiles.ts';
import type { FolderWatches } from '../files/folderWatch.ts';

const IMAGES: Record<string, string> = {
  '.png': 'image/png', '.jpg': 'image/jpeg', '.jpeg': 'image/jpeg', '.gif': 'image/gif', '.webp': 'image/webp',
};
/** Read by the page as text (previews), and by a reader who opens one as text: never as a document. */
const TEXTS = new Set([
  '.md', '.markdown', '.txt', '.text', '.log', '.csv', '.tsv', '.json', '.ipynb', '.yaml', '.yml', '.toml', '.ini', '.cfg',
  '.py', '.r', '.jl', '.m', '.js', '.mjs', '.ts', '.sh', '.sql', '.c', '.h', '.cpp', '.hpp', '.java', '.go', '.rs',
  '.tex', '.bib', '.html', '.htm', '.xml', '.css',
]);
const SANDBOX = "sandbox; default-src 'none'";
/** The most paths one answer's Markdown is asked about at once. */
const ASKED_PATHS = 100;

interface Sending {
  type: string;
  policy: string;
  /** Shown where it opens, or handed to the downloads. */
  inline: boolean;
}

/** How a file goes out, by its name alone. */
export function sendingOf(name: string): Sending {
  const extension = extname(name).toLowerCase();
  const image = IMAGES[extension];
  if (image) return { type: image, policy: `${SANDBOX}; img-src 'self'`, inline: true };
  // The browser's own viewer draws a PDF in a process of its own, and refuses to in a sandboxed document.
  if (extension === '.pdf') return { type: 'application/pdf', policy: "default-src 'none'; object-src 'self'", inline: true };
  // An <img> draws an SVG with its script off; opened by itself it would run, so it only downloads.
  if (extension === '.svg') return { type: 'image/svg+xml', policy: SANDBOX, inline: false };
  if (TEXTS.has(extension)) return { type: 'text/plain; charset=utf-8', policy: SANDBOX, inline: true };
  return { type: 'application/octet-stream', policy: SANDBOX, inline: false };
}

/** The one byte range asked for; null for the whole file (no range, several, or one not understood). */
export function rangeOf(header: string | undefined, size: number): { start: number; end: number } | null {
  const match = /^bytes=(\d*)-(\d*)$/.exec(header?.trim() ?? '');
  if (!match || size === 0) return null;
  const [, from = '', to = ''] = match;
  if (from === '') {
    if (to === '' || Number(to) === 0) throw new Refusal('badRange');
    return { start: Math.max(0, size - Number(to)), end: size - 1 };
  }
  const start = Number(from);
  if (to !== '' && Number(to) < start) return null;
  if (start >= size) throw new Refusal('badRange');
  return { start, end: to === '' ? size - 1 : Math.min(Number(to), size - 1) };
}

/** Sends the open file, or the range of it asked for, as its name says it goes out. */
export async function send(request: IncomingMessage, response: ServerResponse, file: OpenFile, download: boolean): Promise<void> {
  let range: { start: number; end: number } | null;
  try {
    range = rangeOf(request.headers.range, file.size);
  } catch (error) {
    await file.handle.close();
    throw error;
  }
  const sending = sendingOf(file.name);
  const ascii = file.name.replace(/[^\x20-\x7e]|["\\]/g, '_');
  const { start, end } = range ?? { start: 0, end: file.size - 1 };
  response.writeHead(range ? 206 : 200, {
    'Content-Type': sending.type,
    'Content-Security-Policy': sending.policy,
    'X-Content-Type-Options': 'nosniff',
    'Referrer-Policy': 'no-referrer',
    'Cross-Origin-Resource-Policy': 'same-origin',
    'Content-Disposition': disposition(sending.inline && !download ? 'inline' : 'attachment', file.name, ascii),
    'Content-Length': end - start + 1,
    'Accept-Ranges': 'bytes',
    'Cache-Control': 'no-store',
    ...(range ? { 'Content-Range': `bytes ${start}-${end}/${file.size}` } : {}),
  });
  if (end < start) {
    await file.handle.close();
    response.end();
    return;
  }
  // Only the bytes there were when it was opened: a file still being written is sent as it was then.
  await pipeline(file.handle.createReadStream({ start, end }), response);
}

function folderOf(threads: Threads, id: string): string {
  const place = threads.place(id);
  if (!place) throw new Refusal('noSuchThread');
  return place.folder;
}

export interface FileRouteDeps {
  threads: Threads;
  files: TurnFiles;
  watches: FolderWatches;
  /** Whether a page of this name has its event stream open. */
  pageOpen(page: string): boolean;
  /** Shows a folder in the desktop's file manager. */
  openFolder(path: string): void;
}

/** The routes of a thread's files. */
export function fileRoutes({ threads, files, watches, pageOpen, openFolder }: FileRouteDeps): Route[] {
  return [
    route('GET', '/api/threads/:id/files', async ({ params, url }) => {
      const query = url.searchParams;
      const path = query.get('path') ?? '';
      const [from, count] = ['from', 'count'].map((name) => Math.max(0, Math.floor(Number(query.get(name) ?? 0)) || 0));
      const originsOf = (paths: string[]) => files.originsOf(params.id, paths);
      return ok({ path, ...await listFolder(folderOf(threads, params.id), path, originsOf, from, count || LISTING_WINDOW) });
    }),
    route('GET', '/api/threads/:id/file', async ({ request, response, params, url }) => {
      const file = await openFile(folderOf(threads, params.id), url.searchParams.get('path') ?? '');
      await send(request, response, file, url.searchParams.has('download'));
    }),
    // Which of the relative paths a Markdown text names are files here: only those become images and links.
    route('GET', '/api/threads/:id/which', async ({ params, url }) =>
      ok({ files: await filesAmong(folderOf(threads, params.id), url.searchParams.getAll('path').slice(0, ASKED_PATHS)) })),
    route('GET', '/api/threads/:id/archive', async ({ response, params }) => {
      const folder = folderOf(threads, params.id);
      const name = exportFileName(threads.thread(params.id, 1)?.title ?? '', params.id, '.tar.gz');
      response.writeHead(200, {
        'Content-Type': 'application/gzip',
        'Content-Security-Policy': SANDBOX,
        'X-Content-Type-Options': 'nosniff',
        'Content-Disposition': disposition('attachment', name, `${params.id}.tar.gz`),
        'Cache-Control': 'no-store',
      });
      await pipeline(folderTar(folder), createGzip(), response);
    }),
    // The folder a page shows (null: none), watched for it until it shows another or its stream closes.
    route('POST', '/api/threads/:id/watch', async ({ request, params }) => {
      const { page, path } = await readFields(request);
      if (typeof page !== 'string' || !pageOpen(page)) throw new Refusal('notFound');
      if (path === null) watches.forget(page);
      else if (typeof path === 'string') watches.show(page, params.id, path, await folderPath(folderOf(threads, params.id), path));
      else throw new Refusal('noSuchFile');
      return ok({});
    }),
    route('POST', '/api/threads/:id/reveal', async ({ request, params }) => {
      const { path } = await readFields(request);
      openFolder(await folderPath(folderOf(threads, params.id), typeof path === 'string' ? path : ''));
      return ok({});
    }),
  ];
}

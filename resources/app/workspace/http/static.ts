// The page's own files, from the folder "public": nothing else is served, nothing is listed.
import { readFile } from 'node:fs/promises';
import { extname, join, normalize, sep } from 'node:path';
import { createHash } from 'node:crypto';
import type { IncomingMessage, ServerResponse } from 'node:http';
import { securityHeaders } from './answer.ts';

const TYPES: Record<string, string> = {
  '.html': 'text/html; charset=utf-8',
  '.js': 'text/javascript; charset=utf-8',
  '.mjs': 'text/javascript; charset=utf-8',
  '.css': 'text/css; charset=utf-8',
  '.svg': 'image/svg+xml',
  '.png': 'image/png',
  '.woff2': 'font/woff2',
  '.txt': 'text/plain; charset=utf-8',
};

interface File {
  body: Buffer;
  type: string;
  tag: string;
}

export class StaticFiles {
  readonly #root: string;
  // The files ship with the service and do not change while it runs.
  readonly #cache = new Map<string, Promise<File | null>>();

  constructor(root: string) {
    this.#root = root;
  }

  /** Answers the request from the page's files; false when there is no such file. */
  async serve(request: IncomingMessage, response: ServerResponse, path: string): Promise<boolean> {
    const file = await this.#file(path === '/' ? '/index.html' : path);
    if (!file) return false;
    const headers = { ...securityHeaders, 'Content-Type': file.type, 'Cache-Control': 'no-cache', ETag: file.tag };
    if (request.headers['if-none-match'] === file.tag) {
      response.writeHead(304, headers).end();
      return true;
    }
    response.writeHead(200, { ...headers, 'Content-Length': file.body.length });
    response.end(request.method === 'HEAD' ? undefined : file.body);
    return true;
  }

  #file(path: string): Promise<File | null> {
    let file = this.#cache.get(path);
    if (!file) {
      file = this.#load(path);
      this.#cache.set(path, file);
    }
    return file;
  }

  async #load(path: string): Promise<File | null> {
    const type = TYPES[extname(path)];
    if (!type || !/^\/[\w./-]+$/.test(path)) return null;
    const full = normalize(join(this.#root, path));
    if (!full.startsWith(this.#root + sep)) return null;
    try {
      const body = await readFile(full);
      return { body, type, tag: `"${createHash('sha256').update(body).digest('base64url').slice(0, 16)}"` };
    } catch {
      return null;
    }
  }
}

// Requests to their handlers: a table of method and path pattern, and the one place where
// whatever a handler throws becomes the answer.
import type { IncomingMessage, ServerResponse } from 'node:http';
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { sendJson } from './answer.ts';
import { answerOf } from './refusals.ts';

/** The names of a path pattern's `:name` segments. */
type ParamsOf<Path extends string> = Path extends `${string}:${infer Name}/${infer Rest}` ? Name | ParamsOf<`/${Rest}`>
  : Path extends `${string}:${infer Name}` ? Name : never;

export interface Exchange<Params extends string = never> {
  request: IncomingMessage;
  response: ServerResponse;
  url: URL;
  /** The path's `:name` segments, by name, each of the form its name requires. */
  params: Readonly<Record<Params, string>>;
}

/** A JSON answer; a handler that wrote its answer itself returns nothing. */
export interface Reply {
  status: number;
  body: unknown;
}

export type Handler<Params extends string = never> = (exchange: Exchange<Params>) => Reply | void | Promise<Reply | void>;

export interface Route {
  /** '*' for any. */
  method: string;
  path: string;
  handler: Handler<string>;
}

export function route<Path extends string>(method: string, path: Path, handler: Handler<ParamsOf<Path>>): Route {
  // The table holds every pattern's handler alike; each is only ever called with its own pattern's params.
  return { method, path, handler: handler as Handler<string> };
}

export const ok = (body: unknown): Reply => ({ status: 200, body });
export const created = (body: unknown): Reply => ({ status: 201, body });

export interface RouterOptions {
  routes: Route[];
  /** What a `:name` segment must be; a path whose segment is not is no route's. */
  params: Record<string, (segment: string) => boolean>;
  /** What matches no route's path. */
  otherwise: Handler;
  /** The checks every request passes before its route is looked for. */
  admit(request: IncomingMessage): Promise<void>;
  complain(line: string): void;
}

function match(pattern: string[], segments: string[], forms: RouterOptions['params']): Record<string, string> | null {
  if (pattern.length !== segments.length) return null;
  const params: Record<string, string> = {};
  for (const [i, part] of pattern.entries()) {
    const segment = segments[i]!;
    if (!part.startsWith(':')) {
      if (part !== segment) return null;
    } else if (forms[part.slice(1)]?.(segment)) {
      params[part.slice(1)] = segment;
    } else {
      return null;
    }
  }
  return params;
}

export function createRouter(options: RouterOptions): (request: IncomingMessage, response: ServerResponse) => Promise<void> {
  const table = options.routes.map((one) => ({ ...one, pattern: one.path.split('/') }));

  async function dispatch(request: IncomingMessage, response: ServerResponse): Promise<Reply | void> {
    await options.admit(request);
    const url = new URL(request.url ?? '/', 'http://workspace.invalid');
    const segments = url.pathname.split('/');
    let pathKnown = false;
    for (const one of table) {
      const params = match(one.pattern, segments, options.params);
      if (!params) continue;
      pathKnown = true;
      if (one.method === '*' || one.method === request.method) return one.handler({ request, response, url, params });
    }
    if (pathKnown) throw new Refusal('methodNotAllowed');
    return options.otherwise({ request, response, url, params: {} });
  }

  return async (request, response) => {
    try {
      const reply = await dispatch(request, response);
      if (reply) sendJson(response, reply.status, reply.body);
    } catch (error) {
      // A client gone midway (a page closed during an upload) is an everyday event, not a fault.
      if (request.destroyed && !request.complete) {
        options.complain(`request ${request.method} ${request.url} ended: the client went away before sending all of it`);
        response.destroy();
        return;
      }
      if (response.headersSent) {
        response.destroy();
        return;
      }
      const answer = answerOf(error);
      if (answer) {
        sendJson(response, answer.status, { error: answer.message });
        return;
      }
      options.complain(`request ${request.method} ${request.url} failed: ${error instanceof Error ? error.stack : String(error)}`);
      sendJson(response, 500, { error: texts.internal(error instanceof Error ? error.message : String(error)) });
    }
  };
}

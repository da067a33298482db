// A page's event stream: a WebSocket on /api/events?thread=ID&at=N. No browser asks another site
// before opening one, so unlike the other requests it must come from the page itself even to read.
import { randomUUID } from 'node:crypto';
import type { IncomingMessage } from 'node:http';
import type { Duplex } from 'node:stream';
import { Refusal, type RefusalReason } from '../refusal.ts';
import { texts } from '../texts.ts';
import { refusalAnswer } from './refusals.ts';
import { isThreadId } from './parse.ts';
import { handshakeProblem, PageSocket, refuseUpgrade } from './socket.ts';
import type { EventHub } from './events.ts';
import type { PeerGate } from './security.ts';
import type { Threads } from '../research/threads.ts';
import type { ServiceState } from '../model.ts';

export interface UpgradeDeps {
  threads: Threads;
  hub: EventHub;
  gate: PeerGate;
  service(): ServiceState;
  /** A page has connected: it wants to know Codex's state, so Codex is started if it is not. */
  pageConnected(): void;
  complain(line: string): void;
}

export function createUpgrade(deps: UpgradeDeps): (request: IncomingMessage, socket: Duplex, head: Buffer) => Promise<void> {
  const { threads, hub, gate } = deps;
  return async (request, socket, head) => {
    const refuse = (reason: RefusalReason, headers?: Record<string, string>) => {
      const { status, message } = refusalAnswer(new Refusal(reason));
      refuseUpgrade(socket, status, message, headers);
    };
    const url = new URL(request.url ?? '/', 'http://workspace.invalid');
    // Another user account is turned away before anything else: it learns not even which addresses exist.
    if (!(await gate.allows(request.socket))) return refuse('foreignUser');
    if (url.pathname !== '/api/events') return refuse('notFound');
    if (request.method !== 'GET') return refuse('methodNotAllowed');
    if (request.headers.origin !== `http://${request.headers.host}`) return refuse('foreignOrigin');
    const problem = handshakeProblem(request);
    if (problem === 'version') return refuse('notWebSocket', { 'Sec-WebSocket-Version': '13' });
    if (problem) return refuse('badHandshake');
    try {
      const wanted = url.searchParams.get('thread');
      const at = url.searchParams.has('at') ? Number(url.searchParams.get('at')) : NaN;
      const thread = isThreadId(wanted) ? threads.thread(wanted, undefined, Number.isSafeInteger(at) ? at : undefined) : null;
      const notice = wanted && !thread ? { notice: texts.noSuchThread } : {};
      const hello = { type: 'hello' as const, service: deps.service(), ...threads.firstListPage(), thread, ...notice, page: randomUUID() };
      hub.subscribe(new PageSocket(request, socket, head), thread?.id ?? null, hello);
    } catch (error) {
      deps.complain(`event stream ${request.url} failed: ${error instanceof Error ? error.stack : String(error)}`);
      socket.destroy();
      return;
    }
    deps.pageConnected();
  };
}

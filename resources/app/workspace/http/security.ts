// The checks every request passes before it reaches a route. The host name was checked by the
// entry already (it answers the health check before this module is loaded).
import type { IncomingMessage } from 'node:http';
import type { Socket } from 'node:net';
import { Refusal } from '../refusal.ts';
import type { PeerLookup } from './peer.ts';

const CHANGING = new Set(['POST', 'PUT', 'PATCH', 'DELETE']);

export class PeerGate {
  readonly #lookup: PeerLookup;
  readonly #uid: number;
  readonly #verdicts = new WeakMap<Socket, Promise<boolean>>();

  constructor(lookup: PeerLookup, uid: number) {
    this.#lookup = lookup;
    this.#uid = uid;
  }

  /** Whether the connection comes from this service's own user; asked once per connection. */
  allows(socket: Socket): Promise<boolean> {
    let verdict = this.#verdicts.get(socket);
    if (!verdict) {
      const peer = { address: socket.remoteAddress ?? '', port: socket.remotePort ?? 0 };
      const local = { address: socket.localAddress ?? '', port: socket.localPort ?? 0 };
      verdict = this.#lookup(peer, local).then((uid) => uid === this.#uid, () => false);
      this.#verdicts.set(socket, verdict);
    }
    return verdict;
  }
}

/**
 * A request that changes something must come from the page itself: its Origin is the page's own
 * (which a browser sets and a page elsewhere cannot forge), and its body is JSON, which no form of
 * another site can send without the browser asking first.
 */
export function checkChange(request: IncomingMessage): void {
  if (!CHANGING.has(request.method ?? '')) return;
  if (request.headers.origin !== `http://${request.headers.host}`) throw new Refusal('foreignOrigin');
  const type = (request.headers['content-type'] ?? '').split(';')[0]!.trim().toLowerCase();
  // A file's bytes are not JSON. Sent as application/octet-stream with its name in X-File-Name,
  // an upload is, like JSON, something no form and no other site's script can send without the
  // browser asking this service first (neither the type nor the header is one a browser lets
  // through unasked), and the Origin above still decides. Only the upload address takes it.
  if (isUpload(request)) {
    if (type !== 'application/octet-stream') throw new Refusal('fileNeedsBytes');
    return;
  }
  if (type !== 'application/json') throw new Refusal('needsJson');
}

function isUpload(request: IncomingMessage): boolean {
  const path = (request.url ?? '').split('?')[0];
  return path === '/api/uploads';
}

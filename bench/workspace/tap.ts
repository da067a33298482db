// What the benchmark of fifty pages reads the service with: bare upgrade requests, and event
// streams light enough to keep fifty open at once.
import { eventSocket } from '../../tests/harness/service.ts';
import type { PageEvent } from '../../resources/app/workspace/model.ts';

/** The upgrade request of a page's event stream, sent over a bare connection that then stalls. */
export function upgradeRequest(port: number, path: string, headers: Record<string, string> = {}, method = 'GET'): string {
  const sent: Record<string, string> = {
    host: `127.0.0.1:${port}`, origin: `http://127.0.0.1:${port}`, upgrade: 'websocket', connection: 'Upgrade',
    'sec-websocket-key': 'dGhlIHNhbXBsZSBub25jZQ==', 'sec-websocket-version': '13', ...headers,
  };
  const lines = Object.entries(sent).filter(([, value]) => value !== '').map(([name, value]) => `${name}: ${value}`);
  return `${method} ${path} HTTP/1.1\r\n${lines.join('\r\n')}\r\n\r\n`;
}

/**
 * A page's event stream, cheaply enough for fifty at once: a delta keeps only the head of its
 * text (and when it came); other events are kept whole.
 */
export class Tap {
  readonly heads: string[] = [];
  readonly times: number[] = [];
  readonly events: PageEvent[] = [];
  ended = false;
  readonly #socket: WebSocket;

  constructor(port: number, threadId: string) {
    this.#socket = eventSocket(port, threadId);
    this.#socket.addEventListener('message', (message) => {
      const data = message.data as string;
      const head = /^\{"type":"delta".*?"text":"(.{0,32})/.exec(data.slice(0, 400));
      if (head) {
        this.heads.push(head[1]!);
        this.times.push(performance.timeOrigin + performance.now());
      } else {
        this.events.push(JSON.parse(data) as PageEvent);
      }
    });
    this.#socket.addEventListener('close', () => { this.ended = true; });
  }

  close(): void {
    this.#socket.close();
  }
}

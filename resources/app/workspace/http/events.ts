// The event stream to the pages (Server-Sent Events): each page gets a snapshot first, then every
// change as it happens. Each event is serialised once, whatever the number of pages; a page that
// stops reading is dropped once it lags too far behind, and its browser reconnects for a fresh
// snapshot, so one slow page neither slows the others nor grows the service's memory.
import type { ServerResponse } from 'node:http';
import type { PageEvent } from '../model.ts';

/** How far behind a page may fall, in bytes queued for it, before it is dropped. */
export const MAX_QUEUED_BYTES = 4 << 20;
const RECONNECT_MS = 1000;

interface Subscriber {
  response: ServerResponse;
  /** The thread the page has open: only that thread's turns and items are sent to it. */
  threadId: string | null;
}

function threadOf(event: PageEvent): string | null {
  switch (event.type) {
    case 'turn':
      return event.turn.threadId;
    case 'item':
    case 'delta':
    case 'threadUsage':
      return event.threadId;
    default:
      return null;
  }
}

export class EventHub {
  readonly #subscribers = new Set<Subscriber>();

  get size(): number {
    return this.#subscribers.size;
  }

  subscribe(response: ServerResponse, threadId: string | null, hello: PageEvent): void {
    response.writeHead(200, {
      'Content-Type': 'text/event-stream; charset=utf-8',
      'Cache-Control': 'no-store',
      'X-Content-Type-Options': 'nosniff',
    });
    const subscriber = { response, threadId };
    this.#subscribers.add(subscriber);
    response.on('close', () => this.#subscribers.delete(subscriber));
    this.#write(subscriber, `retry: ${RECONNECT_MS}\n${frame(hello)}`);
  }

  publish(event: PageEvent): void {
    const thread = threadOf(event);
    const readers = [...this.#subscribers].filter((subscriber) => thread === null || subscriber.threadId === thread);
    // Every delta comes here: one nobody has open is not even serialised.
    if (readers.length === 0) return;
    const text = frame(event);
    for (const subscriber of readers) this.#write(subscriber, text);
  }

  closeAll(): void {
    for (const subscriber of this.#subscribers) subscriber.response.end();
    this.#subscribers.clear();
  }

  #write(subscriber: Subscriber, text: string): void {
    const { response } = subscriber;
    if (response.destroyed) return;
    if (response.writableLength > MAX_QUEUED_BYTES) {
      this.#subscribers.delete(subscriber);
      response.destroy();
      return;
    }
    response.write(text);
  }
}

function frame(event: PageEvent): string {
  // JSON escapes line breaks, so one data line carries the whole event.
  return `data: ${JSON.stringify(event)}\n\n`;
}

// The event stream to the pages, one WebSocket each: each page gets a snapshot first, then every
// change as it happens. Each event is serialised and framed once, whatever the number of pages; a
// page that stops reading is dropped once it lags too far behind, and the page reconnects for a
// fresh snapshot, so one slow page neither slows the others nor grows the service's memory.
import type { PageEvent } from '../model.ts';
import { CLOSE_GOING_AWAY, textFrame, type PageSocket } from './socket.ts';

/** How far behind a page may fall, in bytes queued for it, before it is dropped. */
export const MAX_QUEUED_BYTES = 4 << 20;

interface Subscriber {
  /** The page's name for this stream, said in its hello. */
  page: string;
  socket: PageSocket;
  /** The thread the page has open: only that thread's turns and items are sent to it. */
  threadId: string | null;
  /**
   * The largest frame over the limit sent since the page last had nothing queued: a snapshot or
   * a settled answer that big is one event, not a page falling behind, and the limit counts on
   * from its end.
   */
  oversize: number;
}

function threadOf(event: PageEvent): string | null {
  switch (event.type) {
    case 'turn':
      return event.turn.threadId;
    case 'item':
    case 'delta':
    case 'threadUsage':
    case 'folderChanged':
      return event.threadId;
    default:
      return null;
  }
}

export class EventHub {
  readonly #subscribers = new Set<Subscriber>();
  readonly #left: (page: string) => void;

  /** left: a page's stream has closed, whichever end closed it. */
  constructor(left: (page: string) => void = () => {}) {
    this.#left = left;
  }

  get size(): number {
    return this.#subscribers.size;
  }

  /** Whether the page of this name has its stream open. */
  has(page: string): boolean {
    return [...this.#subscribers].some((subscriber) => subscriber.page === page);
  }

  subscribe(socket: PageSocket, threadId: string | null, hello: Extract<PageEvent, { type: 'hello' }>): void {
    const subscriber = { page: hello.page, socket, threadId, oversize: 0 };
    this.#subscribers.add(subscriber);
    socket.socket.on('close', () => {
      this.#subscribers.delete(subscriber);
      this.#left(subscriber.page);
    });
    this.#write(subscriber, textFrame(JSON.stringify(hello)));
  }

  publish(event: PageEvent): void {
    const thread = threadOf(event);
    const readers = [...this.#subscribers].filter((subscriber) => thread === null || subscriber.threadId === thread);
    // Every delta comes here: one nobody has open is not even serialised.
    if (readers.length === 0) return;
    const frame = textFrame(JSON.stringify(event));
    for (const subscriber of readers) this.#write(subscriber, frame);
  }

  closeAll(): void {
    for (const subscriber of this.#subscribers) subscriber.socket.close(CLOSE_GOING_AWAY);
    this.#subscribers.clear();
  }

  #write(subscriber: Subscriber, frame: Buffer): void {
    const { socket } = subscriber;
    if (!socket.open) return;
    if (socket.writableLength === 0) subscriber.oversize = 0;
    if (socket.writableLength > MAX_QUEUED_BYTES + subscriber.oversize) {
      this.#subscribers.delete(subscriber);
      socket.socket.destroy();
      return;
    }
    if (frame.length > MAX_QUEUED_BYTES) subscriber.oversize = Math.max(subscriber.oversize, frame.length);
    socket.send(frame);
  }
}

// The questions a user queues behind a running turn: kept in the store, so a second page and a
// restarted service see them, and each sent once, when the turn before it completes.
import { randomUUID } from 'node:crypto';
import { Refusal } from '../refusal.ts';
import type { ThreadStore } from '../store/store.ts';
import type { Clock } from '../clock.ts';
import type { PageEvent, Queued } from '../model.ts';

export interface QueueOptions {
  store: ThreadStore;
  clock: Clock;
  publish(event: PageEvent): void;
}

export class QuestionQueue {
  readonly #options: QueueOptions;

  constructor(options: QueueOptions) {
    this.#options = options;
  }

  add(threadId: string, text: string): Queued {
    const queued = { id: randomUUID(), text, queuedAt: this.#options.clock.now() };
    this.#options.store.enqueue(threadId, queued);
    this.#published(threadId);
    return queued;
  }

  /** Changes the queued question's text, or takes it out (null); one already sent or taken out is refused. */
  change(threadId: string, id: string, text: string | null): void {
    if (!this.#options.store.changeQueued(threadId, id, text)) throw new Refusal('noSuchQueued');
    this.#published(threadId);
  }

  first(threadId: string): Queued | null {
    return this.#options.store.queued(threadId)[0] ?? null;
  }

  find(threadId: string, id: string): Queued {
    const queued = this.#options.store.queued(threadId).find((question) => question.id === id);
    if (!queued) throw new Refusal('noSuchQueued');
    return queued;
  }

  #published(threadId: string): void {
    this.#options.publish({ type: 'queue', threadId, queued: this.#options.store.queued(threadId) });
  }
}

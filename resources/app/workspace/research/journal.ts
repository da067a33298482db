// Writes what streams in to the store in batches: what changed in the last quarter second, one
// transaction. A failed write keeps its changes for the next attempt, so nothing already kept
// is touched and nothing shown is dropped while the disk is full.
import { StoreError, type ThreadStore } from '../store/store.ts';
import type { Clock, Timer } from '../clock.ts';
import type { Item, TurnHead } from '../model.ts';

export const FLUSH_INTERVAL_MS = 250;
// While the disk refuses, trying four times a second would only spin.
export const RETRY_INTERVAL_MS = 2_000;

export class Journal {
  readonly #store: ThreadStore;
  readonly #clock: Clock;
  readonly #report: (error: StoreError | null) => void;
  readonly #turns = new Map<string, TurnHead>();
  readonly #items = new Map<string, { turnId: string; item: Item }>();
  #timer: Timer | null = null;
  #failing = false;

  constructor(store: ThreadStore, clock: Clock, report: (error: StoreError | null) => void) {
    this.#store = store;
    this.#clock = clock;
    this.#report = report;
  }

  turn(head: TurnHead): void {
    this.#turns.set(head.id, head);
    this.#schedule();
  }

  item(turnId: string, item: Item): void {
    // Items are kept by reference: the flush writes whatever they hold by then.
    this.#items.set(`${turnId}\u0000${item.position}`, { turnId, item });
    this.#schedule();
  }

  get pending(): boolean {
    return this.#turns.size > 0 || this.#items.size > 0;
  }

  flush(): void {
    this.#timer?.cancel();
    this.#timer = null;
    if (!this.pending) return;
    const batch = { turns: [...this.#turns.values()], items: [...this.#items.values()] };
    try {
      this.#store.commit(batch);
    } catch (error) {
      // Said once when writing starts to fail, and once when it works again.
      if (!this.#failing) this.#report(error instanceof StoreError ? error : new StoreError('other', String(error)));
      this.#failing = true;
      this.#schedule();
      return;
    }
    this.#turns.clear();
    this.#items.clear();
    if (this.#failing) {
      this.#failing = false;
      this.#report(null);
    }
  }

  #schedule(): void {
    this.#timer ??= this.#clock.after(this.#failing ? RETRY_INTERVAL_MS : FLUSH_INTERVAL_MS, () => {
      this.#timer = null;
      this.flush();
    });
  }
}

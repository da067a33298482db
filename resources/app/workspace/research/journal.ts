// Writes what streams in to the store in batches: what changed in the last quarter second, one
// transaction. What an item gains is written as tails, never the whole item again: a long answer
// costs each batch what came in it. A failed write keeps its changes for the next attempt, so
// nothing already kept is touched and nothing shown is dropped while the disk is full. A running
// answer's text is the store's and this journal's alone: what it has yet to write is the only copy.
import { StoreError, type ThreadStore } from '../store/store.ts';
import type { ItemTail } from '../store/tails.ts';
import { ChunkPool, GrowingText } from './growingText.ts';
import type { Clock, Timer } from '../clock.ts';
import type { Item, TurnHead } from '../model.ts';

export const FLUSH_INTERVAL_MS = 250;
// While the disk refuses, trying four times a second would only spin.
export const RETRY_INTERVAL_MS = 2_000;
// What a part gained is written as strings of at most this many bytes, so of as many characters at
// most: longer ones go to V8's space for large objects, where one a quarter second piled up faster
// than it was freed (9 MB over a 12 MiB answer).
const TAIL_BYTES = 32 * 1024;
// Twice what a quarter second of the fastest answer measured takes (12 MiB in six seconds: 16).
const SPARE_CHUNKS = 32;

/** An item with changes to write: whole, or the text its parts gained since it was last written. */
interface Changed {
  turnId: string;
  item: Item;
  whole: boolean;
  /** By part: where the gain starts, and what came, outside V8's heap until it is written. */
  gained: Map<number, { at: number; text: GrowingText }>;
}

export class Journal {
  readonly #store: ThreadStore;
  readonly #clock: Clock;
  readonly #report: (error: StoreError | null) => void;
  readonly #turns = new Map<string, TurnHead>();
  readonly #items = new Map<string, Changed>();
  readonly #chunks = new ChunkPool(TAIL_BYTES, SPARE_CHUNKS);
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

  /** The item appeared or was replaced: written whole. */
  item(turnId: string, item: Item): void {
    const key = `${turnId}\u0000${item.position}`;
    // What it gained is in it: written whole, it needs no tails.
    for (const gain of this.#items.get(key)?.gained.values() ?? []) gain.text.release();
    // Items are kept by reference: the flush writes whatever they hold by then.
    this.#items.set(key, { turnId, item, whole: true, gained: new Map() });
    this.#schedule();
  }

  /** Text was appended `at` UTF-16 units into a part of the item (its text, output, or a reasoning part). */
  grew(turnId: string, item: Item, part: number, at: number, text: string): void {
    const key = `${turnId}\u0000${item.position}`;
    let changed = this.#items.get(key);
    if (!changed) {
      changed = { turnId, item, whole: false, gained: new Map() };
      this.#items.set(key, changed);
    }
    // Kept for an item to be written whole too: an answer's holds none of what it gained. Copied
    // as it comes, as keeping the deltas would keep them in V8's young generation for a quarter
    // second, long enough to grow it.
    let gain = changed.gained.get(part);
    if (!gain) {
      gain = { at, text: new GrowingText(this.#chunks) };
      changed.gained.set(part, gain);
    }
    gain.text.append(text);
    this.#schedule();
  }

  /** A growing item's text as the store will have it once written: `kept`, the store's now, then what came since. */
  textOf(turnId: string, position: number, kept: string): string {
    const changed = this.#items.get(`${turnId}\u0000${position}`);
    if (!changed) return kept;
    // An item still to be written whole has nothing of it in the store.
    const base = changed.whole && 'text' in changed.item ? changed.item.text : kept;
    const gain = changed.gained.get(0);
    return gain ? base.slice(0, gain.at) + gain.text.toString() : base;
  }

  get pending(): boolean {
    return this.#turns.size > 0 || this.#items.size > 0;
  }

  flush(): void {
    this.#timer?.cancel();
    this.#timer = null;
    if (!this.pending) return;
    const changed = [...this.#items.values()];
    const tails: ItemTail[] = [];
    // An item written whole in this batch has its gains written too: the store puts its JSON
    // first and these tails after it.
    for (const { turnId, item, gained } of changed) {
      for (const [part, gain] of gained) {
        let at = gain.at;
        // A reasoning part that only began is written as an empty tail, so the store has it too.
        const pieces = gain.text.length > 0 ? gain.text.pieces() : [''];
        for (const text of pieces) {
          tails.push({ turnId, position: item.position, part, at, text });
          at += text.length;
        }
      }
    }
    const batch = {
      turns: [...this.#turns.values()],
      items: changed.filter((each) => each.whole).map(({ turnId, item }) => ({ turnId, item })),
      tails,
    };
    try {
      this.#store.commit(batch);
    } catch (error) {
      // Said once when writing starts to fail, and once when it works again.
      if (!this.#failing) this.#report(error instanceof StoreError ? error : new StoreError('other', String(error)));
      this.#failing = true;
      this.#schedule();
      return;
    }
    for (const { gained } of changed) for (const gain of gained.values()) gain.text.release();
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

// Writes what streams in to the store in batches: what changed in the last quarter second, one
// transaction. An item that only grew is written as the text it gained, never whole again: a long
// answer costs each batch what came in it. A failed write keeps its changes for the next attempt,
// so nothing already kept is touched and nothing shown is dropped while the disk is full.
import { StoreError, type ThreadStore } from '../store/store.ts';
import { partLength, type ItemTail } from '../store/tails.ts';
import type { Clock, Timer } from '../clock.ts';
import type { Item, TurnHead } from '../model.ts';

export const FLUSH_INTERVAL_MS = 250;
// While the disk refuses, trying four times a second would only spin.
export const RETRY_INTERVAL_MS = 2_000;
// Pieces are joined into strings of at most this many characters: longer ones go to V8's space for
// large objects, where one a quarter second piled up faster than it was freed (9 MB over a 12 MiB
// answer).
const TAIL_CHARS = 32 * 1024;

/** An item with changes to write: whole, or the text its parts gained since it was last written. */
interface Changed {
  turnId: string;
  item: Item;
  whole: boolean;
  /** By part: where the gain starts, and what came, in pieces (joined when written). */
  gained: Map<number, { at: number; pieces: string[] }>;
}

export class Journal {
  readonly #store: ThreadStore;
  readonly #clock: Clock;
  readonly #report: (error: StoreError | null) => void;
  readonly #turns = new Map<string, TurnHead>();
  readonly #items = new Map<string, Changed>();
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
    // Items are kept by reference: the flush writes whatever they hold by then.
    this.#items.set(`${turnId}\u0000${item.position}`, { turnId, item, whole: true, gained: new Map() });
    this.#schedule();
  }

  /** Text was appended to a part of the item (its text, output, or a reasoning part); the item holds it already. */
  grew(turnId: string, item: Item, part: number, text: string): void {
    const key = `${turnId}\u0000${item.position}`;
    let changed = this.#items.get(key);
    if (!changed) {
      changed = { turnId, item, whole: false, gained: new Map() };
      this.#items.set(key, changed);
    }
    if (!changed.whole) {
      // The pieces as they came: taking the new text from the item's own would have V8 copy all of
      // that text into one string, every time.
      const gain = changed.gained.get(part) ?? { at: partLength(item, part) - text.length, pieces: [] };
      gain.pieces.push(text);
      changed.gained.set(part, gain);
    }
    this.#schedule();
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
    for (const { turnId, item, whole, gained } of changed) {
      if (whole) continue;
      for (const [part, gain] of gained) {
        // Joined once: a write that failed is tried again with the same strings.
        gain.pieces = joined(gain.pieces);
        let at = gain.at;
        for (const text of gain.pieces) {
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

/** The pieces as few strings, each of at most TAIL_CHARS characters unless a piece alone is longer. */
function joined(pieces: string[]): string[] {
  const out: string[] = [];
  let group: string[] = [];
  let length = 0;
  for (const piece of pieces) {
    if (length + piece.length > TAIL_CHARS && group.length > 0) {
      out.push(group.join(''));
      group = [];
      length = 0;
    }
    group.push(piece);
    length += piece.length;
  }
  if (group.length > 0) out.push(group.join(''));
  return out;
}

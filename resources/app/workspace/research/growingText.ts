// Text that grows by appending, kept as UTF-8 in buffers outside V8's heap. A string appended to a
// string stays alive inside the result, so a long answer's every delta outlived V8's young
// generation, and V8, taking the service for one whose young objects live long, grew that
// generation to its limit: 26 MB more while a 12 MiB answer streamed. Copied into buffers, each
// delta dies young.
const encoder = new TextEncoder();

/**
 * Spare chunks of one size for texts that are written and dropped again and again: a buffer that
 * outlived a collection of V8's young generation is freed only by a full one, so ones made anew
 * every quarter second piled up, 10 MB of them over a 12 MiB answer.
 */
export class ChunkPool {
  readonly #bytes: number;
  readonly #keep: number;
  readonly #spare: Buffer[] = [];

  constructor(bytes: number, keep: number) {
    this.#bytes = bytes;
    this.#keep = keep;
  }

  take(): Buffer {
    return this.#spare.pop() ?? Buffer.allocUnsafeSlow(this.#bytes);
  }

  give(chunks: Buffer[]): void {
    for (const chunk of chunks) if (this.#spare.length < this.#keep) this.#spare.push(chunk);
  }
}

export class GrowingText {
  readonly #pool: ChunkPool;
  readonly #chunks: Buffer[] = [];
  /** How many bytes of each chunk hold text; every one but the last ends on a character's end. */
  readonly #ends: number[] = [];
  /** The last chunk has no room for the next character. */
  #full = true;
  #length = 0;

  /** In the pool's chunks: what one decodes to is the longest string made at once. */
  constructor(pool: ChunkPool) {
    this.#pool = pool;
  }

  /** In UTF-16 units, as a string's length counts. */
  get length(): number {
    return this.#length;
  }

  /** Codex's text comes from Rust's strings: a delta never ends inside a surrogate pair. */
  append(text: string): void {
    if (text === '') return;
    this.#length += text.length;
    let rest = text;
    for (;;) {
      if (this.#full) this.#open();
      const last = this.#chunks.length - 1;
      // encodeInto stops before a character that does not fit, a surrogate pair included, so no
      // chunk ends inside a character and each decodes alone.
      const { read, written } = encoder.encodeInto(rest, this.#chunks[last]!.subarray(this.#ends[last]));
      this.#ends[last]! += written;
      if (read === rest.length) return;
      // Whatever bytes are left, the next character needs more.
      this.#full = true;
      rest = rest.slice(read);
    }
  }

  /** The text as strings of one chunk each, in order. */
  pieces(): string[] {
    return this.#chunks.map((chunk, index) => chunk.toString('utf8', 0, this.#ends[index]));
  }

  /** The whole text, decoded anew each time: kept, it would be the copy these buffers spare. */
  toString(): string {
    return this.pieces().join('');
  }

  /** Gives the chunks back to the pool; the text is not used again. */
  release(): void {
    this.#pool.give(this.#chunks);
  }

  #open(): void {
    this.#chunks.push(this.#pool.take());
    this.#ends.push(0);
    this.#full = false;
  }
}

// One turn while it runs: Codex's notifications become the page's items, as they come.
import { createHash, type Hash } from 'node:crypto';
import { completeItem, describeError, OUTPUT_LIMIT, toItem, usageOf } from '../codex/translate.ts';
import { texts } from '../texts.ts';
import type { CodexTokenBreakdown, TurnNotification } from '../codex/protocol.ts';
import type { Choice, Context, Item, Permission, Turn, TurnHead, TurnStatus } from '../model.ts';

/**
 * Where a thread's turns run, read once per question: its folder, where its questions' files are,
 * its Codex thread (none before its first turn), the model chosen, what Codex may do there.
 */
export interface CodexPlace {
  folder: string;
  attachments: string;
  codexThreadId: string | null;
  choice: Choice;
  permission: Permission;
}

export interface TurnSink {
  /** The turn's head changed: its status, usage or error. */
  turn(head: TurnHead): void;
  /**
   * An item appeared or was replaced whole; settled when Codex has said its last word on it;
   * streamed when its text is exactly what its deltas brought.
   */
  item(head: TurnHead, item: Item, settled: boolean, streamed?: boolean): void;
  /** How full the model's context is, as Codex counted at its last request. */
  context(head: TurnHead, context: Context): void;
  /** Text was appended to an item (its answer, a reasoning part, a command's output), `at` UTF-16 units into its part. */
  delta(head: TurnHead, item: Item, field: 'text' | 'output', part: number | undefined, at: number, text: string): void;
  /** The whole text of an answer that grew: the turn keeps only its length and digest, the store and the journal its text. */
  textOf(head: TurnHead, item: Growing): string;
}

export type Growing = Item & { kind: 'answer' | 'plan' };

// A completed answer is digested so many UTF-16 units at a time, each encoded apart.
const DIGEST_SLICE = 1 << 16;

export class LiveTurn {
  readonly head: TurnHead;
  readonly place: CodexPlace;
  readonly items: Item[] = [];
  readonly #sink: TurnSink;
  readonly #byCodexId = new Map<string, number>();
  /** What the answers that grew have streamed, how long and its digest; `item.text` stays what Codex started them with. */
  readonly #streamed = new WeakMap<Item, { length: number; digest: Hash }>();
  readonly #readBack = (item: Growing) => this.#sink.textOf(this.head, item);
  codexThreadId: string | null = null;
  /** Codex's id for this turn, known from its answer to our turn/start. */
  codexTurnId: string | null = null;
  /** turn/start has been sent: what comes for this Codex thread may now be this turn's. */
  turnRequested = false;
  /** What came between the turn/start and Codex's answer to it, to be sorted once it is known. */
  readonly early: TurnNotification[] = [];
  stopRequested = false;
  /** Why the service cuts it short, said when Codex reports it interrupted. */
  cutBecause: string | null = null;
  #usageBase: CodexTokenBreakdown | null = null;
  #retryNoted = false;

  constructor(head: TurnHead, place: CodexPlace, sink: TurnSink) {
    this.head = head;
    this.place = place;
    this.#sink = sink;
  }

  get finished(): boolean {
    return this.head.status !== 'running';
  }

  /** The turn as a page is to see it, a running answer's text read back through `textOf`. */
  snapshot(textOf = this.#readBack): Turn {
    return { ...this.head, items: this.items.map((item) => this.#whole(item, textOf)) };
  }

  apply(notification: TurnNotification): void {
    if (this.finished) return;
    switch (notification.method) {
      case 'turn/started':
        this.codexTurnId ??= notification.params.turn.id;
        return;
      case 'item/started': {
        const item = toItem(notification.params.item, this.items.length);
        if (!item) return;
        this.items.push(item);
        this.#byCodexId.set(notification.params.item.id, item.position);
        this.#sink.item(this.head, item, item.status !== 'running');
        return;
      }
      case 'item/completed': {
        if (notification.params.item.type === 'contextCompaction') {
          this.#push({ kind: 'notice', level: 'info', text: texts.compacted, position: this.items.length, status: 'completed' });
          return;
        }
        const position = this.#byCodexId.get(notification.params.item.id);
        if (position === undefined) {
          // Completed without a start (Codex sends some items only whole).
          const item = toItem(notification.params.item, this.items.length);
          if (!item) return;
          const whole = completeItem(item, notification.params.item);
          this.items.push(whole);
          this.#sink.item(this.head, whole, true);
          return;
        }
        const current = this.items[position]!;
        // Codex's own text replaces what streamed; only an item it no longer knows as such keeps ours.
        const whole = completeItem(current, notification.params.item, () => this.#whole(current));
        this.items[position] = whole;
        this.#sink.item(this.head, whole, true, this.#sameAsStreamed(current, whole));
        return;
      }
      case 'item/agentMessage/delta': {
        const item = this.#find(notification.params.itemId);
        if (item?.kind !== 'answer' && item?.kind !== 'plan') return;
        let streamed = this.#streamed.get(item);
        if (!streamed) {
          streamed = { length: item.text.length, digest: createHash('sha256').update(item.text) };
          this.#streamed.set(item, streamed);
        }
        const at = streamed.length;
        streamed.length += notification.params.delta.length;
        this.#sink.delta(this.head, item, 'text', undefined, at, notification.params.delta);
        streamed.digest.update(notification.params.delta);
        return;
      }
      case 'item/reasoning/summaryPartAdded': {
        const item = this.#find(notification.params.itemId);
        if (item?.kind !== 'reasoning') return;
        while (item.parts.length <= notification.params.summaryIndex) item.parts.push('');
        this.#sink.delta(this.head, item, 'text', notification.params.summaryIndex, item.parts[notification.params.summaryIndex]!.length, '');
        return;
      }
      case 'item/reasoning/summaryTextDelta': {
        const item = this.#find(notification.params.itemId);
        if (item?.kind !== 'reasoning') return;
        const index = notification.params.summaryIndex;
        while (item.parts.length <= index) item.parts.push('');
        const at = item.parts[index]!.length;
        item.parts[index] += notification.params.delta;
        this.#sink.delta(this.head, item, 'text', index, at, notification.params.delta);
        return;
      }
      case 'item/commandExecution/outputDelta': {
        const item = this.#find(notification.params.itemId);
        if (item?.kind !== 'command') return;
        const room = Math.max(0, OUTPUT_LIMIT - item.output.length);
        const kept = notification.params.delta.slice(0, room);
        item.dropped += notification.params.delta.length - kept.length;
        if (kept === '') return;
        const at = item.output.length;
        item.output += kept;
        this.#sink.delta(this.head, item, 'output', undefined, at, kept);
        return;
      }
      case 'thread/tokenUsage/updated': {
        const { total, last, modelContextWindow } = notification.params.tokenUsage;
        // The last request's tokens are what the model had before it: the context in use.
        this.#sink.context(this.head, { used: last.totalTokens, window: modelContextWindow ?? null });
        // The thread's total before this turn's first request is the base of the turn's own count.
        this.#usageBase ??= subtract(total, last);
        this.head.usage = usageOf(total, this.#usageBase);
        this.#sink.turn(this.head);
        return;
      }
      case 'error': {
        if (notification.params.willRetry) {
          if (this.#retryNoted) return;
          this.#retryNoted = true;
          this.#push({ kind: 'notice', level: 'warning', text: texts.retrying, position: this.items.length, status: 'completed' });
        } else {
          this.head.error ??= describeError(notification.params.error);
        }
        return;
      }
      case 'turn/completed': {
        const { status, error } = notification.params.turn;
        if (status === 'inProgress') return;
        if (status === 'completed') this.finish('completed', null);
        else if (status === 'failed') this.finish('failed', error ? describeError(error) : this.head.error ?? texts.codexError(''));
        else this.finish(this.stopRequested ? 'stopped' : 'interrupted', this.stopRequested ? null : this.cutBecause ?? this.head.error);
        return;
      }
    }
  }

  /** Ends the turn: what was shown stays, marked as cut short where it was still coming. */
  finish(status: Exclude<TurnStatus, 'running'>, error: string | null, now = Date.now()): void {
    if (this.finished) return;
    for (const [position, item] of this.items.entries()) {
      if (item.status !== 'running') continue;
      const stopped = { ...this.#whole(item), status: status === 'completed' ? 'completed' : 'stopped' } as Item;
      this.items[position] = stopped;
      this.#sink.item(this.head, stopped, true, this.#streamed.has(item));
    }
    this.head.status = status;
    this.head.error = status === 'completed' ? null : error;
    this.head.endedAt = now;
    this.#sink.turn(this.head);
  }

  /** Something the user must know, said in the turn where it happened. */
  note(text: string): void {
    if (!this.finished) this.#push({ kind: 'notice', level: 'warning', text, position: this.items.length, status: 'completed' });
  }

  /** The item Codex knows by this id, as it is now. */
  itemOf(codexId: string): Item | undefined {
    return this.#find(codexId);
  }

  /** The user's guidance, which Codex took into the turn here. */
  guide(text: string): void {
    if (!this.finished) this.#push({ kind: 'guidance', text, position: this.items.length, status: 'completed' });
  }

  /** The item with its whole text: an answer that grew has it read back, once it settled it holds it. */
  #whole(item: Item, textOf = this.#readBack): Item {
    return this.#streamed.has(item) && item.status === 'running' ? { ...item, text: textOf(item as Growing) } as Item : item;
  }

  /** Whether Codex completed the answer with exactly the text it streamed, which the pages have. */
  #sameAsStreamed(current: Item, settled: Item): boolean {
    const streamed = this.#streamed.get(current);
    if (!streamed || settled.kind !== current.kind || !('text' in settled) || settled.text.length !== streamed.length) return false;
    // A slice at a time: the whole answer encoded at once would be one more copy of it. None ends
    // between a surrogate pair's halves, either of which alone is encoded as a replacement.
    const { text } = settled;
    const digest = createHash('sha256');
    for (let at = 0, end = 0; at < text.length; at = end) {
      end = Math.min(at + DIGEST_SLICE, text.length);
      if (end < text.length && (text.charCodeAt(end - 1) & 0xfc00) === 0xd800) end += 1;
      digest.update(text.slice(at, end));
    }
    return digest.digest('hex') === streamed.digest.digest('hex');
  }

  #find(codexId: string): Item | undefined {
    const position = this.#byCodexId.get(codexId);
    return position === undefined ? undefined : this.items[position];
  }

  #push(item: Item): void {
    this.items.push(item);
    this.#sink.item(this.head, item, true);
  }
}

function subtract(total: CodexTokenBreakdown, last: CodexTokenBreakdown): CodexTokenBreakdown {
  return {
    totalTokens: total.totalTokens - last.totalTokens,
    inputTokens: total.inputTokens - last.inputTokens,
    cachedInputTokens: total.cachedInputTokens - last.cachedInputTokens,
    outputTokens: total.outputTokens - last.outputTokens,
    reasoningOutputTokens: total.reasoningOutputTokens - last.reasoningOutputTokens,
  };
}

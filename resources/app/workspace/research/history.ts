// A thread's history rewritten: its last question asked again (in Codex too, rolled back to before
// it), and a new thread branched at one of its turns (Codex's fork of it, and a copy of its folder).
import { cp, mkdir, rm } from 'node:fs/promises';
import { constants } from 'node:fs';
import { isAbsolute, join } from 'node:path';
import { Refusal } from '../refusal.ts';
import { newHead, newThreadId } from './threads.ts';
import { codexSettings, type TurnRunner } from './turns.ts';
import { folderBytes } from '../files/folderSize.ts';
import { RpcError } from '../codex/rpc.ts';
import { texts } from '../texts.ts';
import type { CodexPlace } from './liveTurn.ts';
import type { CodexPort } from '../codex/protocol.ts';
import type { KeptTurn, ThreadStore } from '../store/store.ts';
import type { Clock } from '../clock.ts';
import type { PageEvent, ThreadSummary, TurnHead } from '../model.ts';

/** A folder larger than this is copied for a branch only once the user has said so. */
export const LARGE_BRANCH_BYTES = 1 << 30;

/** The branch made, or the question to put to the user before its folder is copied. */
export type Branched = { thread: ThreadSummary } | { confirm: string };

export interface HistoryOptions {
  store: ThreadStore;
  codex: CodexPort;
  clock: Clock;
  dataFolder: string;
  turns: TurnRunner;
  publish(event: PageEvent): void;
}

// What Codex says of a method its version does not have: serde's "unknown variant" for a method
// name it cannot parse, or JSON-RPC's own code.
function unknownMethod(error: unknown): boolean {
  return error instanceof RpcError && (error.code === -32601 || /unknown variant/.test(error.message));
}

function describe(error: unknown): string {
  return error instanceof Error ? error.message : String(error);
}

function sizeText(bytes: number): string {
  return bytes >= 1 << 30 ? `${(bytes / (1 << 30)).toFixed(1)} GB` : `${Math.ceil(bytes / (1 << 20))} MB`;
}

export class History {
  readonly #options: HistoryOptions;

  constructor(options: HistoryOptions) {
    this.#options = options;
  }

  /**
   * The thread's last turn replaced by a new one asking this: Codex's history is rolled back to
   * before the old turn first, and only then does the old turn leave the store and the pages.
   */
  async redo(threadId: string, place: CodexPlace, question: string | null): Promise<TurnHead> {
    const { store, clock, publish, turns } = this.#options;
    // What waits to be written of the old turn would otherwise be written after it is gone.
    if (!turns.writeDown()) throw new Refusal('changeWhileUnsaved');
    const last = store.keptTurn(threadId);
    if (!last) throw new Refusal('noTurnToRedo');
    // One Codex answered, kept before Codex's turn ids were, cannot be named to it.
    if (!last.codexTurnId && last.answered) throw new Refusal('unknownTurn');
    if (last.codexTurnId) await this.#rollBack(threadId, place, last);
    const head = newHead(threadId, last.position, question ?? last.question, clock.now(), last.attachments ?? []);
    store.replaceTurn(last.id, head);
    publish({ type: 'turnRemoved', threadId, turnId: last.id });
    return head;
  }

  async #rollBack(threadId: string, place: CodexPlace, last: KeptTurn): Promise<void> {
    const { codex, turns } = this.#options;
    try {
      const loaded = await turns.load(threadId, place);
      // Codex no longer has the thread: the next turn starts it afresh from what the store keeps.
      if (!loaded) return;
      try {
        await codex.request('thread/revert', { threadId: loaded, beforeTurnId: last.codexTurnId! });
      } catch (error) {
        if (!unknownMethod(error)) throw error;
        // An older Codex counts turns from the end; the kept last turn is its last too, as only this service runs turns in it.
        await codex.request('thread/rollback', { threadId: loaded, numTurns: 1 });
      }
    } catch (error) {
      if (error instanceof Refusal) throw error;
      throw unknownMethod(error) ? new Refusal('redoUnsupported') : new Refusal('redoFailed', describe(error));
    }
  }

  /**
   * A new thread whose history is this one's through the turn: its folder a copy of this one's
   * (a reflink where the file system makes them), its Codex thread Codex's own fork. On failure
   * nothing of it is left.
   */
  async branch(source: { id: string; title: string }, place: CodexPlace, turn: KeptTurn, confirmed: boolean): Promise<Branched> {
    const { store, codex, clock, dataFolder, turns, publish } = this.#options;
    if (!turn.codexTurnId || !place.codexThreadId) throw new Refusal('unknownTurn');
    // The branch copies what the store has: all of it, written down first.
    if (!turns.writeDown()) throw new Refusal('changeWhileUnsaved');
    // A folder of the user's own is theirs and never copied: the branch works in it too.
    const own = isAbsolute(store.codexPlace(source.id)?.folder ?? '');
    const bytes = own ? 0 : await folderBytes(place.folder);
    if (bytes > LARGE_BRANCH_BYTES && !confirmed) return { confirm: texts.branchTooLarge(sizeText(bytes)) };
    const now = clock.now();
    const id = newThreadId(now);
    const folder = own ? place.folder : join('threads', id);
    const absolute = own ? place.folder : join(dataFolder, folder);
    try {
      if (!own) {
        await mkdir(join(dataFolder, 'threads'), { recursive: true, mode: 0o700 });
        // Links are copied as links, never followed out of the folder.
        await cp(place.folder, absolute, { recursive: true, errorOnExist: true, force: false, verbatimSymlinks: true, preserveTimestamps: true, mode: constants.COPYFILE_FICLONE });
      }
      const forked = await codex.request('thread/fork', {
        threadId: place.codexThreadId, lastTurnId: turn.codexTurnId, ...codexSettings(id, { folder: absolute, permission: place.permission }),
      });
      store.branchThread({
        id, title: texts.branchTitle(source.title, turn.position + 1), folder, createdAt: now, ...place.choice, permission: place.permission,
        codexThreadId: forked.thread.id,
      }, source.id, turn.position);
      turns.adopt(id, forked.thread.id);
    } catch (error) {
      if (!own) await rm(absolute, { recursive: true, force: true });
      throw new Refusal('branchFailed', describe(error));
    }
    const summary = { ...store.summary(id)!, running: false, waiting: false };
    publish({ type: 'threadSummary', thread: summary });
    return { thread: summary };
  }
}

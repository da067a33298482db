// The threads as the reader keeps them: made with their folders, listed a page at a time, read,
// renamed, pinned, archived, searched and deleted. A change is one store transaction and is
// published to every page; what is read shows the running turns as they are in memory.
import { mkdirSync, rmSync } from 'node:fs';
import { randomBytes, randomUUID } from 'node:crypto';
import { isAbsolute, join } from 'node:path';
import { Refusal } from '../refusal.ts';
import { storageError } from './storage.ts';
import { moveDraftFiles } from '../files/drafts.ts';
import { SEARCH_MAX_LENGTH } from '../store/search.ts';
import type { CodexPlace } from './liveTurn.ts';
import type { TurnRunner } from './turns.ts';
import type { Approvals } from './approvals.ts';
import type { ListCursor, ThreadStore } from '../store/store.ts';
import type { Clock } from '../clock.ts';
import type { Choice, PageEvent, Permission, SearchAnswer, StoredSummary, Thread, ThreadSummary, Turn, TurnHead } from '../model.ts';

/** Where the files of an own-folder thread's questions go while Codex may write there. */
export const ATTACHMENTS_FOLDER = '.lanternmoor-attachments';

/** About how many items a page gets at a time: a screen or two, drawn in one go. */
export const PAGE_ITEMS = 40;
/** The longest title a reader may give a thread, in characters. */
export const TITLE_LIMIT = 100;
/** How many threads (besides the pinned ones) a page's list gets at a time: several screens. */
export const LIST_PAGE = 100;
const TITLE_LENGTH = 60;

export interface ThreadsOptions {
  store: ThreadStore;
  /** The data folder: each thread's folder is made below it. */
  dataFolder: string;
  clock: Clock;
  turns: TurnRunner;
  approvals: Approvals;
  publish(event: PageEvent): void;
}

/** A thread's first title: its first question, on one line, cut short. */
export function titleOf(question: string): string {
  const line = question.replace(/\s+/g, ' ').trim();
  const chars = [...line];
  return chars.length <= TITLE_LENGTH ? line : `${chars.slice(0, TITLE_LENGTH).join('')}…`;
}

/** Thread ids name folders: the day first, so a file manager lists them in order. */
export function newThreadId(now: number): string {
  return `${new Date(now).toISOString().slice(0, 10)}-${randomBytes(4).toString('hex')}`;
}

export function newHead(threadId: string, position: number, question: string, now: number, attachments: string[]): TurnHead {
  return {
    id: randomUUID(), threadId, position, question, status: 'running', error: null, usage: null, startedAt: now, endedAt: null,
    ...(attachments.length > 0 ? { attachments } : {}),
  };
}

export class Threads {
  readonly #options: ThreadsOptions;

  constructor(options: ThreadsOptions) {
    this.#options = options;
  }

  exists(id: string): boolean {
    return this.#options.store.summary(id) !== null;
  }

  /** Where the thread's turns run, read once for a question; null for no such thread. */
  place(id: string): CodexPlace | null {
    const place = this.#options.store.codexPlace(id);
    if (!place) return null;
    const { codexThreadId, model, effort, permission } = place;
    const folder = this.#folderOf(place.folder);
    return { folder, attachments: this.#attachmentsOf(id, place.folder, permission), codexThreadId, choice: { model, effort }, permission };
  }

  /** The store keeps a folder the workspace made by its place in the data folder, the user's own by its whole path. */
  #folderOf(kept: string): string {
    return isAbsolute(kept) ? kept : join(this.#options.dataFolder, kept);
  }

  /**
   * Where the files of the thread's questions go: its folder; for a folder of the user's own, a
   * folder of their own inside it while Codex may write there, and otherwise the thread's folder
   * in the data folder, which is made for every thread.
   */
  #attachmentsOf(id: string, kept: string, permission: Permission): string {
    if (!isAbsolute(kept)) return join(this.#options.dataFolder, kept);
    return permission === 'read' ? join(this.#options.dataFolder, 'threads', id) : join(kept, ATTACHMENTS_FOLDER);
  }

  /** Where a file for the thread's next question goes, made when first needed; null for no such thread. */
  attachmentsFolder(id: string): string | null {
    const folder = this.place(id)?.attachments ?? null;
    if (folder !== null) mkdirSync(folder, { recursive: true, mode: 0o700 });
    return folder;
  }

  /**
   * A new thread with its own folder, holding the draft's files, and its first question's turn;
   * on failure nothing of it is left, and the files are back in the draft.
   */
  create(
    question: string, files: { draft: string; names: string[] } | null, choice: Choice | null, ownFolder: string | null = null,
  ): { head: TurnHead; place: CodexPlace } {
    const now = this.#options.clock.now();
    const id = newThreadId(now);
    const absolute = join(this.#options.dataFolder, 'threads', id);
    // A folder of the user's own is read only until the user allows more.
    const folder = ownFolder ?? join('threads', id);
    const permission: Permission = ownFolder ? 'read' : 'write';
    try {
      mkdirSync(join(this.#options.dataFolder, 'threads'), { recursive: true, mode: 0o700 });
      mkdirSync(absolute, { mode: 0o700 });
    } catch (error) {
      throw storageError(error);
    }
    try {
      if (files) moveDraftFiles(files.draft, absolute, files.names);
    } catch (error) {
      rmSync(absolute, { recursive: true, force: true });
      throw storageError(error);
    }
    const head = newHead(id, 0, question, now, files?.names ?? []);
    try {
      this.#options.store.createThread({ id, title: titleOf(question), createdAt: now, folder, permission, ...choice }, head);
    } catch (error) {
      // The user's files go back where the page expects them, for the next try.
      if (files) moveDraftFiles(absolute, files.draft, files.names);
      rmSync(absolute, { recursive: true, force: true });
      throw storageError(error);
    }
    return {
      head, place: { folder: ownFolder ?? absolute, attachments: absolute, codexThreadId: null, choice: choice ?? { model: null, effort: null }, permission },
    };
  }

  /** A follow-up question's turn; a choice given is the thread's from now on. */
  addTurn(threadId: string, question: string, attachments: string[], choice: Choice | null): TurnHead {
    const { store, clock } = this.#options;
    const head = newHead(threadId, store.nextTurnPosition(threadId), question, clock.now(), attachments);
    if (choice) store.setChoice(threadId, choice);
    store.addTurn(head);
    return head;
  }

  list(): ThreadSummary[] {
    return this.#options.store.listThreads().map(this.#running);
  }

  /** What a page's list starts with: the pinned threads, then the newest page of the rest. */
  firstListPage(): { threads: ThreadSummary[]; moreThreads: boolean } {
    const { store } = this.#options;
    const { threads, more } = store.listPage(false, null, LIST_PAGE);
    return { threads: [...store.pinnedThreads(), ...threads].map(this.#running), moreThreads: more };
  }

  /** The page of the list after this cursor: archived threads, or the others that are not pinned. */
  listPage(archived: boolean, after: ListCursor | null): { threads: ThreadSummary[]; more: boolean } {
    const { threads, more } = this.#options.store.listPage(archived, after, LIST_PAGE);
    return { threads: threads.map(this.#running), more };
  }

  readonly #running = (thread: StoredSummary): ThreadSummary =>
    ({ ...thread, running: this.#options.turns.isRunning(thread.id), waiting: this.#options.approvals.waiting(thread.id) });

  /** What Codex may do in the thread from its next question on. */
  setPermission(id: string, permission: Permission): void {
    if (!this.#options.store.setPermission(id, permission)) throw new Refusal('noSuchThread');
    this.#options.publish({ type: 'threadPermission', threadId: id, permission });
  }

  /** Gives the thread the reader's title, unless another page renamed it since this one saw it. */
  rename(id: string, from: string, title: string): ThreadSummary {
    const cleaned = title.replace(/\s+/g, ' ').trim();
    if (cleaned === '') throw new Refusal('emptyTitle');
    if ([...cleaned].length > TITLE_LIMIT) throw new Refusal('titleTooLong');
    const result = this.#options.store.renameThread(id, from, cleaned);
    if (!result.done) throw result.current === null ? new Refusal('noSuchThread') : new Refusal('renamedElsewhere', result.current);
    return this.published(id);
  }

  /** Pins or archives the thread, or undoes it; setting what is already set is no change. */
  setFlag(id: string, flag: 'pinned' | 'archived', value: boolean): ThreadSummary {
    if (!this.#options.store.setFlag(id, flag, value)) throw new Refusal('noSuchThread');
    return this.published(id);
  }

  /** The thread's summary as it now is, to every page. */
  published(id: string): ThreadSummary {
    const summary = this.#running(this.#options.store.summary(id)!);
    this.#options.publish({ type: 'threadSummary', thread: summary });
    return summary;
  }

  /**
   * Deletes the thread, its turns and its folder; a running turn is stopped first. Of two pages
   * deleting at once, the second finds nothing left to delete.
   */
  async remove(id: string): Promise<void> {
    if (!this.exists(id)) throw new Refusal('noSuchThread');
    await this.#options.turns.stopNow(id);
    // What is still waiting to be written goes in first, and out again with its thread's rows: a
    // write left for later would meet rows that are gone. A store that cannot take it now would
    // not take the deletion either.
    if (!this.#options.turns.writeDown()) throw new Refusal('deleteWhileUnsaved');
    if (!this.#options.store.deleteThread(id)) throw new Refusal('noSuchThread');
    this.#options.publish({ type: 'threadRemoved', id });
    this.#removeFolder(id);
  }

  /**
   * The thread's own folder, named by its id below the data folder's threads folder: never the
   * folder its row names, which a damaged or edited store could point anywhere.
   */
  #removeFolder(id: string): void {
    if (!/^[\w-]+$/.test(id)) return;
    // rm follows no link: a link in the folder's place goes, not what it points to, and so do
    // links inside it.
    rmSync(join(this.#options.dataFolder, 'threads', id), { recursive: true, force: true });
  }

  /** The whole thread as it is now, for an export; read at once, so never half of one. */
  whole(id: string): Thread | null {
    return this.thread(id, Infinity);
  }

  /** The thread as a page opens it: its newest turns (or those at a search hit), as they are now. */
  thread(id: string, itemBudget = PAGE_ITEMS, at?: number): Thread | null {
    const kept = this.#options.store.readThread(id, itemBudget, at);
    if (!kept) return null;
    const { codexThreadId: _, folder, ...rest } = kept;
    const { turns, approvals } = this.#options;
    return {
      ...rest, folder: this.#folderOf(folder), ownFolder: isAbsolute(folder), turns: turns.fresh(id, kept.turns),
      running: turns.isRunning(id), waiting: approvals.waiting(id), approvals: approvals.forThread(id),
    };
  }

  /** Turns before this position, for a page the reader scrolls up in. */
  earlierTurns(id: string, before: number): { turns: Turn[]; earlier: boolean } {
    if (!this.exists(id)) throw new Refusal('noSuchThread');
    const { turns, earlier } = this.#options.store.readTurns(id, before, PAGE_ITEMS);
    return { turns: this.#options.turns.fresh(id, turns), earlier };
  }

  /** Turns after this position, for a page opened at a search hit that the reader scrolls down in. */
  laterTurns(id: string, after: number): { turns: Turn[]; later: boolean } {
    if (!this.exists(id)) throw new Refusal('noSuchThread');
    const { turns, later } = this.#options.store.readTurnsAfter(id, after, PAGE_ITEMS);
    return { turns: this.#options.turns.fresh(id, turns), later };
  }

  /** The newest places holding the text as typed, whatever characters it has. */
  search(text: string): SearchAnswer {
    if ([...text].length > SEARCH_MAX_LENGTH) throw new Refusal('searchTooLong');
    return this.#options.store.search(text);
  }
}

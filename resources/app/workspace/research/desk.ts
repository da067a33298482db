// The research desk: threads are asked, followed up and stopped here. Each thread is a Codex
// thread working in a folder of its own; each question a turn whose items stream to the pages
// and into the store as they come.
import { lstatSync, mkdirSync, rmSync } from 'node:fs';
import { randomBytes, randomUUID } from 'node:crypto';
import { join } from 'node:path';
import { LiveTurn, type TurnSink } from './liveTurn.ts';
import { Journal } from './journal.ts';
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { RpcClosed, RpcError } from '../codex/rpc.ts';
import { CodexUnavailable } from '../codex/appServer.ts';
import { APPROVAL_POLICY, isTurnNotification, SANDBOX, type TurnNotification } from '../codex/protocol.ts';
import { MARKER } from '../codex/commands.ts';
import { StoreError, type ListCursor, type ThreadStore } from '../store/store.ts';
import type { Clock, Timer } from '../clock.ts';
import type { Choice, PageEvent, SearchAnswer, Thread, ThreadSummary, Turn, TurnHead } from '../model.ts';
import { adoptDraft, attachmentNote, checkAttachments, draftFolder, isImage } from '../files/uploads.ts';

export const QUESTION_LIMIT_BYTES = 1 << 20;
export const STOP_DEADLINE_MS = 900;
/** About how many items a page gets at a time: a screen or two, drawn in one go. */
export const PAGE_ITEMS = 40;
// Codex answers turn/start within milliseconds; this only bounds what one that never does costs.
const EARLY_LIMIT = 10_000;
const TITLE_LENGTH = 60;
/** The longest title a reader may give a thread, in characters. */
export const TITLE_LIMIT = 100;
/** How many threads (besides the pinned ones) a page's list gets at a time: several screens. */
export const LIST_PAGE = 100;

export interface CodexPort {
  request<T>(method: string, params: unknown, timeoutMs?: number): Promise<T>;
  /** The running app-server's process, below which a thread's commands run. */
  readonly pid: number | null;
}

export interface DeskOptions {
  store: ThreadStore;
  codex: CodexPort;
  /** The data folder: each thread's folder is made below it. */
  dataFolder: string;
  clock: Clock;
  publish(event: PageEvent): void;
  endCommands(appServerPid: number, threadId: string): Promise<unknown>;
  reportStorage(error: StoreError | null): void;
  /** The model and effort Codex is to use for a thread's choice (its default for none); as given when absent. */
  resolveChoice?(choice: Choice): Choice;
}

/** What a question brings besides its text: files (for a new thread, in the page's draft folder) and a model choice. */
export interface QuestionExtras {
  attachments?: unknown;
  draft?: unknown;
  /** Absent: the thread keeps the choice it has. */
  choice?: Choice;
}

export function titleOf(question: string): string {
  const line = question.replace(/\s+/g, ' ').trim();
  const chars = [...line];
  return chars.length <= TITLE_LENGTH ? line : `${chars.slice(0, TITLE_LENGTH).join('')}…`;
}

function checkQuestion(question: unknown): string {
  if (typeof question !== 'string' || question.trim() === '') throw new Refusal(400, texts.emptyQuestion);
  if (Buffer.byteLength(question, 'utf8') > QUESTION_LIMIT_BYTES) throw new Refusal(413, texts.tooLarge);
  return question;
}

export function describeStorage(error: StoreError): string {
  if (error.reason === 'full') return texts.storageFull;
  if (error.reason === 'unwritable') return texts.storageUnwritable;
  if (error.reason === 'corrupt') return texts.storageCorrupt;
  if (error.reason === 'newer') return texts.storageNewer;
  return texts.storageOther(error.message);
}

function storageRefusal(error: unknown): Refusal {
  const reason = error instanceof StoreError ? describeStorage(error)
    : (error as NodeJS.ErrnoException).code === 'ENOSPC' ? texts.storageFull : texts.storageUnwritable;
  return new Refusal(503, texts.storeUnavailable(reason));
}

/** Why a turn could not start, in one sentence: Codex's own refusals are in English. */
function failureOf(error: unknown): string {
  if (error instanceof CodexUnavailable) return error.message;
  if (error instanceof RpcClosed) return texts.turnCutByCodexExit;
  if (error instanceof RpcError) return texts.codexError(error.message);
  if (error instanceof StoreError) return describeStorage(error);
  return texts.internal(error instanceof Error ? error.message : String(error));
}

/** Thread ids name folders: the day first, so a file manager lists them in order. */
function newThreadId(now: number): string {
  return `${new Date(now).toISOString().slice(0, 10)}-${randomBytes(4).toString('hex')}`;
}

export class ResearchDesk {
  readonly #options: DeskOptions;
  readonly #journal: Journal;
  readonly #sink: TurnSink;
  /** The running turn of each thread; a thread runs one turn at a time. */
  readonly #live = new Map<string, LiveTurn>();
  /** Ended turns, by turn, whose last writes the store has not taken yet (a full disk): still shown. */
  readonly #unsaved = new Map<string, LiveTurn>();
  readonly #deadlines = new Map<LiveTurn, Timer>();
  readonly #byCodexThread = new Map<string, string>();
  /** Codex threads the running app-server has loaded; it forgets them when it ends. */
  readonly #loaded = new Set<string>();
  readonly #endedCodexTurns = new Set<string>();
  #closing = false;

  constructor(options: DeskOptions) {
    this.#options = options;
    this.#journal = new Journal(options.store, options.clock, (error) => {
      if (!error) this.#unsaved.clear();
      options.reportStorage(error);
    });
    this.#sink = {
      turn: (head) => {
        this.#journal.turn(head);
        options.publish({ type: 'turn', turn: head });
      },
      item: (head, item, settled) => {
        this.#journal.item(head.id, item);
        options.publish({ type: 'item', threadId: head.threadId, turnId: head.id, item });
        if (settled) this.#journal.flush();
      },
      delta: (head, item, field, part, text) => {
        this.#journal.grew(head.id, item, part ?? 0, text);
        const event: PageEvent = { type: 'delta', threadId: head.threadId, turnId: head.id, position: item.position, field, text };
        options.publish(part === undefined ? event : { ...event, part });
      },
    };
  }

  /** Whether any turn runs now. */
  get busy(): boolean {
    return this.#live.size > 0;
  }

  list(): ThreadSummary[] {
    return this.#options.store.listThreads().map((thread) => ({ ...thread, running: this.#live.has(thread.id) }));
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

  readonly #running = (thread: Omit<ThreadSummary, 'running'>): ThreadSummary => ({ ...thread, running: this.#live.has(thread.id) });

  /** Gives the thread the reader's title, unless another page renamed it since this one saw it. */
  rename(id: string, from: unknown, title: unknown): ThreadSummary {
    if (typeof title !== 'string' || typeof from !== 'string') throw new Refusal(400, texts.emptyTitle);
    const cleaned = title.replace(/\s+/g, ' ').trim();
    if (cleaned === '') throw new Refusal(400, texts.emptyTitle);
    if ([...cleaned].length > TITLE_LIMIT) throw new Refusal(400, texts.titleTooLong(TITLE_LIMIT));
    let result;
    try {
      result = this.#options.store.renameThread(id, from, cleaned);
    } catch (error) {
      throw storageRefusal(error);
    }
    if (!result.done) {
      throw result.current === null ? new Refusal(404, texts.noSuchThread) : new Refusal(409, texts.renamedElsewhere(result.current));
    }
    return this.#published(id);
  }

  /** Pins or archives the thread, or undoes it; setting what is already set is no change. */
  setFlag(id: string, flag: 'pinned' | 'archived', value: unknown): ThreadSummary {
    if (typeof value !== 'boolean') throw new Refusal(400, texts.needsFlag);
    let found;
    try {
      found = this.#options.store.setFlag(id, flag, value);
    } catch (error) {
      throw storageRefusal(error);
    }
    if (!found) throw new Refusal(404, texts.noSuchThread);
    return this.#published(id);
  }

  #published(id: string): ThreadSummary {
    const summary = this.#running(this.#options.store.summary(id)!);
    this.#options.publish({ type: 'threadSummary', thread: summary });
    return summary;
  }

  /**
   * Deletes the thread, its turns and its folder; a running turn is stopped first. Of two pages
   * deleting at once, the second finds nothing left to delete.
   */
  async remove(id: string): Promise<void> {
    if (!this.#options.store.summary(id)) throw new Refusal(404, texts.noSuchThread);
    const live = this.#live.get(id);
    if (live) {
      live.stopRequested = true;
      await this.#interrupt(live);
      this.#end(live, 'stopped', null);
    }
    // What is still waiting to be written goes in first, and out again with its thread's rows: a
    // write left for later would meet rows that are gone. A store that cannot take it now would
    // not take the deletion either.
    this.#journal.flush();
    if (this.#journal.pending) throw new Refusal(503, texts.deleteWhileUnsaved);
    let deleted;
    try {
      deleted = this.#options.store.deleteThread(id);
    } catch (error) {
      throw storageRefusal(error);
    }
    if (!deleted) throw new Refusal(404, texts.noSuchThread);
    this.#options.publish({ type: 'threadRemoved', id });
    this.#removeFolder(id);
  }

  /**
   * The thread's own folder, named by its id below the data folder's threads folder: never the
   * folder its row names, which a damaged or edited store could point anywhere. A link in its
   * place is not followed.
   */
  #removeFolder(id: string): void {
    if (!/^[\w-]+$/.test(id)) return;
    const folder = join(this.#options.dataFolder, 'threads', id);
    try {
      if (!lstatSync(folder).isDirectory()) return;
    } catch {
      return;
    }
    // rm does not follow links inside either: only what is in the folder itself goes.
    rmSync(folder, { recursive: true, force: true });
  }

  /** The whole thread as it is now, for an export; read at once, so never half of one. */
  whole(id: string): Thread | null {
    return this.thread(id, Infinity);
  }

  /** The thread as a page opens it: its newest turns, as they are now. */
  thread(id: string, itemBudget = PAGE_ITEMS, at?: number): Thread | null {
    const kept = this.#options.store.readThread(id, itemBudget, at);
    if (!kept) return null;
    const { codexThreadId: _, folder, ...rest } = kept;
    return { ...rest, folder: join(this.#options.dataFolder, folder), turns: this.#fresh(id, kept.turns), running: this.#live.has(id) };
  }

  /** Turns before this position, for a page the reader scrolls up in. */
  earlierTurns(id: string, before: number): { turns: Turn[]; earlier: boolean } {
    if (!this.#options.store.summary(id)) throw new Refusal(404, texts.noSuchThread);
    const { turns, earlier } = this.#options.store.readTurns(id, before, PAGE_ITEMS);
    return { turns: this.#fresh(id, turns), earlier };
  }

  search(text: string): SearchAnswer {
    return this.#options.store.search(text);
  }

  /** Turns after this position, for a page opened at a search hit that the reader scrolls down in. */
  laterTurns(id: string, after: number): { turns: Turn[]; later: boolean } {
    if (!this.#options.store.summary(id)) throw new Refusal(404, texts.noSuchThread);
    const { turns, later } = this.#options.store.readTurnsAfter(id, after, PAGE_ITEMS);
    return { turns: this.#fresh(id, turns), later };
  }

  /** The running turn, and ended ones the store has not taken yet, as they are in memory. */
  #fresh(id: string, turns: Turn[]): Turn[] {
    const fresh = [this.#live.get(id), ...this.#unsaved.values()]
      .filter((turn): turn is LiveTurn => turn?.head.threadId === id);
    return turns.map((turn) => fresh.find((live) => live.head.id === turn.id)?.turn ?? turn);
  }

  /** A new thread, its folder and its first turn; the answer streams in afterwards. */
  create(question: unknown, extras: QuestionExtras = {}): { thread: ThreadSummary; turn: TurnHead } {
    const text = checkQuestion(question);
    this.#refuseWhileClosing();
    const wanted = Array.isArray(extras.attachments) && extras.attachments.length > 0;
    const draft = wanted ? draftFolder(this.#options.dataFolder, extras.draft) : null;
    const names = draft ? checkAttachments(draft, extras.attachments) : [];
    const now = this.#options.clock.now();
    const id = newThreadId(now);
    const folder = join('threads', id);
    const absolute = join(this.#options.dataFolder, folder);
    try {
      mkdirSync(join(this.#options.dataFolder, 'threads'), { recursive: true, mode: 0o700 });
      mkdirSync(absolute, { mode: 0o700 });
    } catch (error) {
      throw storageRefusal(error);
    }
    try {
      if (draft) adoptDraft(draft, absolute, names);
    } catch (error) {
      rmSync(absolute, { recursive: true, force: true });
      throw storageRefusal(error);
    }
    const head = this.#newHead(id, 0, text, now, names);
    const summary = { id, title: titleOf(text), createdAt: now, updatedAt: now };
    try {
      this.#options.store.createThread({ ...summary, folder, ...extras.choice }, head);
    } catch (error) {
      // The user's files go back where the page expects them, for the next try.
      if (draft) adoptDraft(absolute, draft, names);
      rmSync(absolute, { recursive: true, force: true });
      throw storageRefusal(error);
    }
    const thread = this.#begin(head);
    return { thread, turn: head };
  }

  /** A follow-up question in a thread: Codex has the whole thread before it. */
  ask(threadId: string, question: unknown, extras: QuestionExtras = {}): { thread: ThreadSummary; turn: TurnHead } {
    const text = checkQuestion(question);
    const place = this.#options.store.codexPlace(threadId);
    if (!place) throw new Refusal(404, texts.noSuchThread);
    if (this.#live.has(threadId)) throw new Refusal(409, texts.turnRunning);
    this.#refuseWhileClosing();
    const names = checkAttachments(join(this.#options.dataFolder, place.folder), extras.attachments);
    const now = this.#options.clock.now();
    const head = this.#newHead(threadId, this.#options.store.nextTurnPosition(threadId), text, now, names);
    try {
      if (extras.choice) this.#options.store.setChoice(threadId, extras.choice);
      this.#options.store.addTurn(head);
    } catch (error) {
      throw storageRefusal(error);
    }
    return { thread: this.#begin(head), turn: head };
  }

  /** Stops the thread's running turn: Codex's turn within a second, and the commands it ran. */
  async stop(threadId: string): Promise<void> {
    const live = this.#live.get(threadId);
    if (!live) {
      if (!this.#options.store.summary(threadId)) throw new Refusal(404, texts.noSuchThread);
      return;
    }
    if (live.stopRequested) return;
    live.stopRequested = true;
    // Codex normally confirms within milliseconds; one that does not must not keep the turn open.
    this.#deadlines.set(live, this.#options.clock.after(STOP_DEADLINE_MS, () => this.#end(live, 'stopped', null)));
    await this.#interrupt(live);
  }

  onNotification(method: string, params: unknown): void {
    if (!isTurnNotification(method, params)) return;
    const notification = { method, params } as TurnNotification;
    const threadId = this.#byCodexThread.get(notification.params.threadId);
    const live = threadId === undefined ? undefined : this.#live.get(threadId);
    if (!live) return;
    if (live.codexTurnId === null) {
      // Which turn is this question's is known only from Codex's answer to turn/start: a resumed
      // thread re-sends what belongs to its earlier turns (their token usage, for one).
      if (live.turnRequested && live.early.length < EARLY_LIMIT) live.early.push(notification);
      return;
    }
    this.#apply(live, notification);
  }

  #apply(live: LiveTurn, notification: TurnNotification): void {
    const turnId = 'turnId' in notification.params ? notification.params.turnId : notification.params.turn.id;
    if (turnId !== live.codexTurnId || this.#endedCodexTurns.has(turnId)) return;
    live.apply(notification);
    if (live.finished) this.#settle(live);
  }

  /** Codex has said which turn it started: what came meanwhile for that turn is applied. */
  #adoptTurn(live: LiveTurn, codexTurnId: string): void {
    live.codexTurnId = codexTurnId;
    const early = live.early.splice(0);
    if (live.finished) {
      this.#endedCodexTurns.add(codexTurnId);
      return;
    }
    for (const notification of early) this.#apply(live, notification);
  }

  /** The app-server has ended: whatever ran through it is over, and it remembers no thread. */
  onCodexExit(): void {
    this.#loaded.clear();
    for (const live of [...this.#live.values()]) this.#end(live, 'interrupted', texts.turnCutByCodexExit);
  }

  /** Cuts every running turn short and writes everything down; nothing new starts after this. */
  async shutdown(): Promise<void> {
    this.#closing = true;
    const running = [...this.#live.values()];
    await Promise.all(running.map((live) => this.#interruptTurn(live, 300)));
    for (const live of running) this.#end(live, 'interrupted', texts.turnCutByServiceEnd);
    this.#journal.flush();
  }

  #refuseWhileClosing(): void {
    if (this.#closing) throw new Refusal(503, texts.stopping);
  }

  #newHead(threadId: string, position: number, question: string, now: number, attachments: string[] = []): TurnHead {
    return {
      id: randomUUID(), threadId, position, question, status: 'running', error: null, usage: null, startedAt: now, endedAt: null,
      ...(attachments.length > 0 ? { attachments } : {}),
    };
  }

  #begin(head: TurnHead): ThreadSummary {
    const live = new LiveTurn(head, this.#sink);
    this.#live.set(head.threadId, live);
    const summary = { ...this.#options.store.summary(head.threadId)!, running: true };
    this.#options.publish({ type: 'threadSummary', thread: summary });
    this.#options.publish({ type: 'turn', turn: head });
    void this.#run(live);
    return summary;
  }

  async #run(live: LiveTurn): Promise<void> {
    try {
      const { codexThreadId, context } = await this.#codexThread(live.head.threadId);
      live.codexThreadId = codexThreadId;
      if (live.finished) return;
      if (live.stopRequested) {
        this.#end(live, 'stopped', null);
        return;
      }
      const names = live.head.attachments ?? [];
      const text = `${context ?? ''}${live.head.question}${attachmentNote(names)}`;
      const place = this.#options.store.codexPlace(live.head.threadId)!;
      const images = names.filter(isImage).map((name) => ({ type: 'localImage', path: join(this.#options.dataFolder, place.folder, name) }));
      const choice = this.#options.resolveChoice?.(place) ?? place;
      live.turnRequested = true;
      // The choice is sent with every turn: Codex keeps a turn's model for the turns after it,
      // so a thread set back to the default must say which model that is.
      const started = await this.#options.codex.request<{ turn: { id: string } }>('turn/start', {
        threadId: codexThreadId, input: [{ type: 'text', text, text_elements: [] }, ...images],
        ...(choice.model ? { model: choice.model } : {}), ...(choice.effort ? { effort: choice.effort } : {}),
      });
      this.#adoptTurn(live, started.turn.id);
      // A stop asked for meanwhile (and perhaps already given up on) still reaches Codex.
      if (live.stopRequested) await this.#interrupt(live);
    } catch (error) {
      this.#end(live, 'failed', failureOf(error));
    }
  }

  /**
   * Codex's thread for this research thread, loaded in the running app-server: started on the
   * first question, resumed after the app-server was started again. One that Codex no longer has
   * (its sessions were cleared) is started afresh, with the thread so far given as context.
   */
  async #codexThread(threadId: string): Promise<{ codexThreadId: string; context: string | null }> {
    const place = this.#options.store.codexPlace(threadId)!;
    const settings = {
      cwd: join(this.#options.dataFolder, place.folder), approvalPolicy: APPROVAL_POLICY, sandbox: SANDBOX,
      config: { web_search: 'live', [`shell_environment_policy.set.${MARKER}`]: threadId },
    };
    let context: string | null = null;
    if (place.codexThreadId && this.#loaded.has(place.codexThreadId)) return { codexThreadId: place.codexThreadId, context };
    if (place.codexThreadId) {
      try {
        await this.#options.codex.request('thread/resume', { threadId: place.codexThreadId, ...settings });
        this.#adopt(threadId, place.codexThreadId);
        return { codexThreadId: place.codexThreadId, context };
      } catch (error) {
        if (!(error instanceof RpcError)) throw error;
        context = this.#transcript(threadId);
      }
    }
    const started = await this.#options.codex.request<{ thread: { id: string } }>('thread/start', settings);
    this.#options.store.setCodexThread(threadId, started.thread.id);
    this.#adopt(threadId, started.thread.id);
    return { codexThreadId: started.thread.id, context };
  }

  #adopt(threadId: string, codexThreadId: string): void {
    this.#loaded.add(codexThreadId);
    this.#byCodexThread.set(codexThreadId, threadId);
  }

  #transcript(threadId: string): string | null {
    const turns = this.#options.store.readTurns(threadId, null, Infinity).turns.filter((turn) => turn.status !== 'running');
    if (turns.length === 0) return null;
    const lines = turns.map((turn) => {
      const answer = turn.items.filter((item) => item.kind === 'answer').map((item) => item.text).join('\n\n');
      return `问：${turn.question}\n\n答：${answer}`;
    });
    return `（以下是这个研究线程此前的对话，供你参考。）\n\n${lines.join('\n\n---\n\n')}\n\n---\n\n现在的问题：`;
  }

  async #interrupt(live: LiveTurn): Promise<void> {
    if (!live.codexTurnId) return; // #run interrupts as soon as it knows the turn
    await this.#interruptTurn(live, STOP_DEADLINE_MS);
    const pid = this.#options.codex.pid;
    if (pid !== null) await this.#options.endCommands(pid, live.head.threadId).catch(() => {});
  }

  async #interruptTurn(live: LiveTurn, timeoutMs: number): Promise<void> {
    if (!live.codexTurnId || !live.codexThreadId) return;
    await this.#options.codex.request('turn/interrupt', { threadId: live.codexThreadId, turnId: live.codexTurnId }, timeoutMs)
      .catch(() => {});
  }

  #end(live: LiveTurn, status: 'stopped' | 'interrupted' | 'failed', error: string | null): void {
    live.finish(status, error, this.#options.clock.now());
    this.#settle(live);
  }

  #settle(live: LiveTurn): void {
    if (this.#live.get(live.head.threadId) !== live) return;
    this.#live.delete(live.head.threadId);
    this.#deadlines.get(live)?.cancel();
    this.#deadlines.delete(live);
    if (live.codexTurnId) {
      this.#endedCodexTurns.add(live.codexTurnId);
      // Only a turn that ended moments ago can still send anything.
      if (this.#endedCodexTurns.size > 1000) this.#endedCodexTurns.delete(this.#endedCodexTurns.values().next().value!);
    }
    this.#journal.flush();
    if (this.#journal.pending) this.#unsaved.set(live.head.id, live);
    const summary = this.#options.store.summary(live.head.threadId);
    if (summary) this.#options.publish({ type: 'threadSummary', thread: { ...summary, running: false } });
    if (summary) this.#options.publish({ type: 'threadUsage', threadId: live.head.threadId, usage: this.#options.store.threadUsage(live.head.threadId) });
  }
}

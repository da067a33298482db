// The research desk: threads are asked, followed up and stopped here. Each thread is a Codex
// thread working in a folder of its own; each question a turn whose items stream to the pages
// and into the store as they come.
import { mkdirSync, rmSync } from 'node:fs';
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
import { StoreError, type ThreadStore } from '../store/store.ts';
import type { Clock, Timer } from '../clock.ts';
import type { PageEvent, SearchHit, Thread, ThreadSummary, Turn, TurnHead } from '../model.ts';

export const QUESTION_LIMIT_BYTES = 1 << 20;
export const STOP_DEADLINE_MS = 900;
/** About how many items a page gets at a time: a screen or two, drawn in one go. */
export const PAGE_ITEMS = 40;
// Codex answers turn/start within milliseconds; this only bounds what one that never does costs.
const EARLY_LIMIT = 10_000;
const TITLE_LENGTH = 60;

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
        this.#journal.item(head.id, item);
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

  search(text: string): SearchHit[] {
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
  create(question: unknown): { thread: ThreadSummary; turn: TurnHead } {
    const text = checkQuestion(question);
    this.#refuseWhileClosing();
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
    const head = this.#newHead(id, 0, text, now);
    const summary = { id, title: titleOf(text), createdAt: now, updatedAt: now };
    try {
      this.#options.store.createThread({ ...summary, folder }, head);
    } catch (error) {
      rmSync(absolute, { recursive: true, force: true });
      throw storageRefusal(error);
    }
    const thread = this.#begin(head);
    return { thread, turn: head };
  }

  /** A follow-up question in a thread: Codex has the whole thread before it. */
  ask(threadId: string, question: unknown): { thread: ThreadSummary; turn: TurnHead } {
    const text = checkQuestion(question);
    const place = this.#options.store.codexPlace(threadId);
    if (!place) throw new Refusal(404, texts.noSuchThread);
    if (this.#live.has(threadId)) throw new Refusal(409, texts.turnRunning);
    this.#refuseWhileClosing();
    const now = this.#options.clock.now();
    const head = this.#newHead(threadId, this.#options.store.nextTurnPosition(threadId), text, now);
    try {
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

  #newHead(threadId: string, position: number, question: string, now: number): TurnHead {
    return {
      id: randomUUID(), threadId, position, question, status: 'running', error: null, usage: null, startedAt: now, endedAt: null,
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
      const text = context ? `${context}${live.head.question}` : live.head.question;
      live.turnRequested = true;
      const started = await this.#options.codex.request<{ turn: { id: string } }>('turn/start', {
        threadId: codexThreadId, input: [{ type: 'text', text, text_elements: [] }],
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
  }
}

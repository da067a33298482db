// The turns while they run: each question's Codex thread loaded (started, resumed, or started
// afresh with the thread so far), its turn started, stopped or cut short, and settled. Codex's
// notifications for a turn come here; what they make streams to the pages and into the store.
import { join } from 'node:path';
import { LiveTurn, type CodexPlace, type Growing, type TurnSink } from './liveTurn.ts';
import { Journal } from './journal.ts';
import { describeStorage } from './storage.ts';
import { texts } from '../texts.ts';
import { RpcClosed, RpcError } from '../codex/rpc.ts';
import { CodexUnavailable } from '../codex/appServer.ts';
import { APPROVAL_POLICY, type CodexPort, type TurnNotification } from '../codex/protocol.ts';
import { sandboxModeOf, sandboxPolicyOf } from './permissions.ts';
import { MARKER } from '../codex/commands.ts';
import { StoreError, type ThreadStore } from '../store/store.ts';
import { attachmentNote, isImage } from '../files/uploads.ts';
import type { Clock, Timer } from '../clock.ts';
import type { Choice, Item, PageEvent, ThreadSummary, Turn, TurnHead, TurnStatus } from '../model.ts';

export const STOP_DEADLINE_MS = 900;
// The service's end waits for nothing long: what Codex has not confirmed by then is cut short.
const SHUTDOWN_INTERRUPT_MS = 300;
// Codex answers turn/start within milliseconds; this only bounds what one that never does costs.
const EARLY_LIMIT = 10_000;
// Only a turn that ended moments ago can still send anything.
const ENDED_KEPT = 1000;

export interface TurnRunnerOptions {
  store: ThreadStore;
  codex: CodexPort;
  clock: Clock;
  publish(event: PageEvent): void;
  /** Ends the commands Codex runs for the thread, which its interrupt leaves running. */
  endCommands(threadId: string): Promise<void>;
  reportStorage(error: StoreError | null): void;
  /** The model and effort Codex is to use for a thread's choice (its default for none); as given when absent. */
  resolveChoice?(choice: Choice): Promise<Choice>;
  /** A turn is about to be asked of Codex in this folder: awaited first. */
  starting?(head: TurnHead, folder: string): Promise<void>;
  /** A thread's turn has ended and its end is written down (the thread may be gone meanwhile). */
  settled?(turn: Turn): void;
}

/** Why a turn could not start, in one sentence: Codex's own refusals are in English. */
function failureOf(error: unknown): string {
  if (error instanceof CodexUnavailable) return error.message;
  if (error instanceof RpcClosed) return texts.turnCutByCodexExit;
  if (error instanceof RpcError) return texts.codexError(error.message);
  if (error instanceof StoreError) return describeStorage(error);
  return texts.internal(error instanceof Error ? error.message : String(error));
}

/** How a thread's Codex thread works: in its folder, at its level, its commands told which thread they are for. */
export function codexSettings(threadId: string, place: Pick<CodexPlace, 'folder' | 'permission'>) {
  return {
    cwd: place.folder, approvalPolicy: APPROVAL_POLICY, sandbox: sandboxModeOf(place.permission),
    config: { web_search: 'live', [`shell_environment_policy.set.${MARKER}`]: threadId },
  } as const;
}

export class TurnRunner {
  readonly #options: TurnRunnerOptions;
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

  constructor(options: TurnRunnerOptions) {
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
      item: (head, item, settled, streamed) => {
        this.#journal.item(head.id, item);
        const event: PageEvent = { type: 'item', threadId: head.threadId, turnId: head.id, item };
        // Sent again, a long answer's text was the event's JSON and frame: twice its size more at its end.
        options.publish(streamed ? { ...event, item: { ...item, text: '' } as Item, streamed } : event);
        if (settled) this.#journal.flush();
      },
      context: (head, context) => {
        try {
          options.store.setContext(head.threadId, context);
        } catch {
          // Only a gauge: the next request's count replaces it.
        }
        options.publish({ type: 'context', threadId: head.threadId, context });
      },
      delta: (head, item, field, part, at, text) => {
        this.#journal.grew(head.id, item, part ?? 0, at, text);
        const event: PageEvent = { type: 'delta', threadId: head.threadId, turnId: head.id, position: item.position, field, text };
        options.publish(part === undefined ? event : { ...event, part });
      },
      textOf: (head, item) => this.#textOf(head.id, item, options.store.readItem(head.id, item.position)),
    };
  }

  /** Whether any turn runs now. */
  get busy(): boolean {
    return this.#live.size > 0;
  }

  /** The service is ending: nothing new starts. */
  get closing(): boolean {
    return this.#closing;
  }

  isRunning(threadId: string): boolean {
    return this.#live.has(threadId);
  }

  /**
   * The thread's turns, read from the store just now, as they are: the running one's answers with
   * what the journal has yet to write, and ended ones the store has not taken yet from memory.
   */
  fresh(threadId: string, turns: Turn[]): Turn[] {
    const running = this.#live.get(threadId);
    return turns.map((turn) => {
      if (running?.head.id === turn.id) {
        return running.snapshot((item) => this.#textOf(turn.id, item, turn.items.find((kept) => kept.position === item.position) ?? null));
      }
      return this.#unsaved.get(turn.id)?.snapshot() ?? turn;
    });
  }

  /** A running answer's text: what the store has of it, then what the journal has yet to write. */
  #textOf(turnId: string, item: Growing, kept: Item | null): string {
    return this.#journal.textOf(turnId, item.position, kept?.kind === item.kind ? kept.text : '');
  }

  /** Runs the question's turn, whose head the store has; the answer streams in afterwards. */
  begin(head: TurnHead, place: CodexPlace): ThreadSummary {
    const live = new LiveTurn(head, place, this.#sink);
    this.#live.set(head.threadId, live);
    const summary = { ...this.#options.store.summary(head.threadId)!, running: true, waiting: false };
    this.#options.publish({ type: 'threadSummary', thread: summary });
    this.#options.publish({ type: 'turn', turn: head });
    void this.#run(live);
    return summary;
  }

  /** Stops the thread's running turn: Codex's turn within a second, and the commands it ran. */
  async stop(threadId: string): Promise<void> {
    const live = this.#live.get(threadId);
    if (!live || live.stopRequested) return;
    live.stopRequested = true;
    // Codex normally confirms within milliseconds; one that does not must not keep the turn open.
    this.#deadlines.set(live, this.#options.clock.after(STOP_DEADLINE_MS, () => this.#finish(live, 'stopped', null)));
    await this.#interrupt(live);
  }

  /** Stops the thread's running turn and ends it without waiting for Codex's word: its thread is going. */
  async stopNow(threadId: string): Promise<void> {
    const live = this.#live.get(threadId);
    if (!live) return;
    live.stopRequested = true;
    await this.#interrupt(live);
    this.#finish(live, 'stopped', null);
  }

  /** The running turn of this Codex thread, by the workspace's ids, and the files its item would change; null when none runs. */
  turnOf(codexThreadId: string, codexItemId: string): { threadId: string; turnId: string; files: string[] } | null {
    const threadId = this.#byCodexThread.get(codexThreadId);
    const live = threadId === undefined ? undefined : this.#live.get(threadId);
    if (!live) return null;
    const item = live.itemOf(codexItemId);
    return { threadId: live.head.threadId, turnId: live.head.id, files: item?.kind === 'fileChange' ? item.changes.map((change) => change.path) : [] };
  }

  /** Says something in the thread's running turn, where it happened. */
  note(threadId: string, text: string): void {
    this.#live.get(threadId)?.note(text);
  }

  /**
   * Gives the running turn the user's guidance, where Codex takes it at its next step; false when
   * no turn of the thread is running in Codex (it ended, or Codex has not said which it is yet).
   */
  async steer(threadId: string, text: string): Promise<boolean> {
    const live = this.#live.get(threadId);
    if (!live?.codexTurnId || !live.codexThreadId || live.stopRequested) return false;
    try {
      await this.#options.codex.request('turn/steer', {
        threadId: live.codexThreadId, expectedTurnId: live.codexTurnId, input: [{ type: 'text', text, text_elements: [] }],
      });
    } catch (error) {
      // "no active turn to steer": it ended meanwhile.
      if (error instanceof RpcError) return false;
      throw error;
    }
    live.guide(text);
    return true;
  }

  /** A Codex thread made elsewhere (a branch's fork) is loaded in the running app-server. */
  adopt(threadId: string, codexThreadId: string): void {
    this.#track(threadId, codexThreadId);
  }

  /** Writes down whatever is waiting; false when the store cannot take it now. */
  writeDown(): boolean {
    this.#journal.flush();
    return !this.#journal.pending;
  }

  onNotification(notification: TurnNotification): void {
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

  /** The app-server has ended: whatever ran through it is over, and it remembers no thread. */
  onCodexExit(): void {
    this.#loaded.clear();
    for (const live of [...this.#live.values()]) this.#finish(live, 'interrupted', texts.turnCutByCodexExit);
  }

  /** Cuts every running turn short and writes everything down; nothing new starts after this. */
  async shutdown(): Promise<void> {
    this.#closing = true;
    const running = [...this.#live.values()];
    // Said before Codex is asked: it reports the interrupted turn before its answer comes back.
    for (const live of running) live.cutBecause = texts.turnCutByServiceEnd;
    await Promise.all(running.map((live) => this.#interruptTurn(live, SHUTDOWN_INTERRUPT_MS)));
    for (const live of running) this.#finish(live, 'interrupted', texts.turnCutByServiceEnd);
    this.#journal.flush();
  }

  #apply(live: LiveTurn, notification: TurnNotification): void {
    const turnId = 'turnId' in notification.params ? notification.params.turnId : notification.params.turn.id;
    if (turnId !== live.codexTurnId || this.#endedCodexTurns.has(turnId)) return;
    live.apply(notification);
    if (live.finished) this.#settle(live);
  }

  /** Codex has said which turn it started: what came meanwhile for that turn is applied. */
  #turnStarted(live: LiveTurn, codexTurnId: string): void {
    live.codexTurnId = codexTurnId;
    const early = live.early.splice(0);
    if (live.finished) {
      this.#endedCodexTurns.add(codexTurnId);
      return;
    }
    for (const notification of early) this.#apply(live, notification);
  }

  async #run(live: LiveTurn): Promise<void> {
    try {
      const { codexThreadId, context } = await this.#codexThread(live.head.threadId, live.place);
      live.codexThreadId = codexThreadId;
      const { choice } = live.place;
      const resolved = (await this.#options.resolveChoice?.(choice)) ?? choice;
      await this.#options.starting?.(live.head, live.place.folder);
      if (live.finished) return;
      if (live.stopRequested) {
        this.#finish(live, 'stopped', null);
        return;
      }
      const names = live.head.attachments ?? [];
      const { folder, attachments, permission } = live.place;
      const text = `${context ?? ''}${live.head.question}${attachmentNote(names, attachments === folder ? null : attachments)}`;
      const images = names.filter(isImage).map((name) => ({ type: 'localImage' as const, path: join(attachments, name) }));
      live.turnRequested = true;
      // The choice is sent with every turn: Codex keeps a turn's model for the turns after it,
      // so a thread set back to the default must say which model that is.
      const started = await this.#options.codex.request('turn/start', {
        threadId: codexThreadId, input: [{ type: 'text', text, text_elements: [] }, ...images],
        ...(resolved.model ? { model: resolved.model } : {}), ...(resolved.effort ? { effort: resolved.effort } : {}),
        approvalPolicy: APPROVAL_POLICY, sandboxPolicy: sandboxPolicyOf(permission),
      });
      try {
        this.#options.store.setCodexTurn(live.head.id, started.turn.id);
      } catch {
        // Without it the turn cannot be asked again or branched from; it still runs.
      }
      this.#turnStarted(live, started.turn.id);
      // A stop asked for meanwhile (and perhaps already given up on) still reaches Codex.
      if (live.stopRequested) await this.#interrupt(live);
    } catch (error) {
      this.#finish(live, 'failed', failureOf(error));
    }
  }

  /**
   * The turn's Codex thread, loaded in the running app-server: started on the thread's first
   * question, resumed after the app-server was started again. One that Codex no longer has (its
   * sessions were cleared) is started afresh, with the thread so far given as context.
   */
  async #codexThread(threadId: string, place: CodexPlace): Promise<{ codexThreadId: string; context: string | null }> {
    const loaded = await this.load(threadId, place);
    if (loaded) return { codexThreadId: loaded, context: null };
    const context = place.codexThreadId ? this.#transcript(threadId) : null;
    const started = await this.#options.codex.request('thread/start', codexSettings(threadId, place));
    this.#options.store.setCodexThread(threadId, started.thread.id);
    this.#track(threadId, started.thread.id);
    return { codexThreadId: started.thread.id, context };
  }

  /** The thread's Codex thread, loaded in the running app-server; null when there is none, or Codex no longer has it. */
  async load(threadId: string, place: CodexPlace): Promise<string | null> {
    const { codexThreadId } = place;
    if (!codexThreadId || this.#loaded.has(codexThreadId)) return codexThreadId;
    try {
      await this.#options.codex.request('thread/resume', { threadId: codexThreadId, ...codexSettings(threadId, place) });
    } catch (error) {
      if (!(error instanceof RpcError)) throw error;
      return null;
    }
    this.#track(threadId, codexThreadId);
    return codexThreadId;
  }

  /** The app-server has this Codex thread loaded: its notifications are this thread's. */
  #track(threadId: string, codexThreadId: string): void {
    this.#loaded.add(codexThreadId);
    this.#byCodexThread.set(codexThreadId, threadId);
  }

  #transcript(threadId: string): string | null {
    const turns = this.#options.store.readTurns(threadId, null, Infinity).turns.filter((turn) => turn.status !== 'running');
    if (turns.length === 0) return null;
    return texts.transcript(turns.map((turn) => texts.transcriptTurn(
      turn.question, turn.items.filter((item) => item.kind === 'answer').map((item) => item.text).join('\n\n'))));
  }

  async #interrupt(live: LiveTurn): Promise<void> {
    if (!live.codexTurnId) return; // #run interrupts as soon as it knows the turn
    await this.#interruptTurn(live, STOP_DEADLINE_MS);
    await this.#options.endCommands(live.head.threadId).catch(() => {});
  }

  async #interruptTurn(live: LiveTurn, timeoutMs: number): Promise<void> {
    if (!live.codexTurnId || !live.codexThreadId) return;
    await this.#options.codex.request('turn/interrupt', { threadId: live.codexThreadId, turnId: live.codexTurnId }, timeoutMs)
      .catch(() => {});
  }

  #finish(live: LiveTurn, status: 'stopped' | 'interrupted' | 'failed', error: string | null): void {
    live.finish(status, error, this.#options.clock.now());
    this.#settle(live);
  }

  #settle(live: LiveTurn): void {
    const { threadId } = live.head;
    if (this.#live.get(threadId) !== live) return;
    this.#live.delete(threadId);
    this.#deadlines.get(live)?.cancel();
    this.#deadlines.delete(live);
    if (live.codexTurnId) {
      this.#endedCodexTurns.add(live.codexTurnId);
      if (this.#endedCodexTurns.size > ENDED_KEPT) this.#endedCodexTurns.delete(this.#endedCodexTurns.values().next().value!);
    }
    this.#journal.flush();
    if (this.#journal.pending) this.#unsaved.set(live.head.id, live);
    const summary = this.#options.store.summary(threadId);
    if (summary) {
      this.#options.publish({ type: 'threadSummary', thread: { ...summary, running: false, waiting: false } });
      this.#options.publish({ type: 'threadUsage', threadId, usage: this.#options.store.threadUsage(threadId) });
    }
    this.#options.settled?.(live.snapshot());
  }
}

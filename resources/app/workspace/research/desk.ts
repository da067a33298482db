// The research desk: where a question is asked, in a new thread or as a follow-up, asked again,
// given to a running turn as guidance or queued behind it, branched from, and stopped. Each thread
// is a Codex thread working in a folder of its own; the desk keeps the threads (threads.ts), runs
// their turns (turns.ts), rewrites their history (history.ts) and queues questions (queue.ts).
import { Threads } from './threads.ts';
import { TurnRunner, type TurnRunnerOptions } from './turns.ts';
import { Approvals } from './approvals.ts';
import { History, type Branched } from './history.ts';
import { QuestionQueue } from './queue.ts';
import { texts } from '../texts.ts';
import { Refusal } from '../refusal.ts';
import { checkAttachments } from '../files/uploads.ts';
import { TurnFiles } from '../files/turnFiles.ts';
import { draftFolder } from '../files/drafts.ts';
import { checkOwnFolder, type FolderRules } from '../files/ownFolder.ts';
import type { CodexPlace } from './liveTurn.ts';
import type { Choice, Permission, Queued, ThreadSummary, TurnHead, TurnStatus } from '../model.ts';

export const QUESTION_LIMIT_BYTES = 1 << 20;

export interface DeskOptions extends TurnRunnerOptions {
  /** The data folder: each thread's folder is made below it. */
  dataFolder: string;
  /** The user's home folder and id, which a folder of their own is judged by. */
  home: string;
  uid: number;
}

/** A question as the page asks it: its text, the files it brings, and the model it asks for. */
export interface Question {
  text: string;
  /** The files' names: in the page's draft folder for a new thread, in the thread's folder for a follow-up. */
  attachments: string[];
  draft: string | null;
  /** Null: the thread keeps the choice it has. */
  choice: Choice | null;
  /** A new thread's working folder, one the user already has; null: a folder of its own. */
  folder: string | null;
}

function checkQuestion(text: string): void {
  if (text.trim() === '') throw new Refusal('emptyQuestion');
  if (Buffer.byteLength(text, 'utf8') > QUESTION_LIMIT_BYTES) throw new Refusal('tooLarge');
}

export class ResearchDesk {
  readonly turns: TurnRunner;
  readonly threads: Threads;
  readonly approvals: Approvals;
  readonly queue: QuestionQueue;
  readonly files: TurnFiles;
  readonly #history: History;
  readonly #dataFolder: string;
  readonly #folderRules: FolderRules;
  readonly #store: DeskOptions['store'];
  /** Threads whose history is being rewritten or copied: nothing else starts in them meanwhile. */
  readonly #busy = new Set<string>();

  constructor(options: DeskOptions) {
    const files = new TurnFiles(options.store);
    const turns = new TurnRunner({
      ...options,
      starting: (head, folder) => files.started(head, folder),
      settled: (turn) => {
        // What the ended turn asked is no one's to answer now, and what it changed is its own,
        // before a queued question starts the next.
        approvals.turnEnded(turn.threadId);
        void files.settled(turn, turn.items);
        this.#sendQueued(turn.threadId, turn.status);
      },
    });
    const approvals = new Approvals({
      clock: options.clock, publish: options.publish,
      turnOf: (codexThreadId, codexItemId) => turns.turnOf(codexThreadId, codexItemId),
      note: (threadId, text) => turns.note(threadId, text),
      waitingChanged: (threadId) => {
        if (threads.exists(threadId)) threads.published(threadId);
      },
    });
    const threads = new Threads({ ...options, turns, approvals });
    this.turns = turns;
    this.files = files;
    this.approvals = approvals;
    this.threads = threads;
    this.queue = new QuestionQueue(options);
    this.#history = new History({ ...options, turns });
    this.#dataFolder = options.dataFolder;
    this.#folderRules = { home: options.home, dataFolder: options.dataFolder, uid: options.uid };
    this.#store = options.store;
  }

  /** A new thread, its folder and its first turn; the answer streams in afterwards. */
  create(question: Question): { thread: ThreadSummary; turn: TurnHead } {
    checkQuestion(question.text);
    this.#refuseWhileClosing();
    const folder = question.folder === null ? null : checkOwnFolder(question.folder, this.#folderRules);
    const draft = question.attachments.length > 0 ? draftFolder(this.#dataFolder, question.draft) : null;
    const files = draft ? { draft, names: checkAttachments(draft, question.attachments) } : null;
    const { head, place } = this.threads.create(question.text, files, question.choice, folder);
    return { thread: this.turns.begin(head, place), turn: head };
  }

  /** A follow-up question in a thread: Codex has the whole thread before it. */
  ask(threadId: string, question: Question): { thread: ThreadSummary; turn: TurnHead } {
    checkQuestion(question.text);
    const place = this.threads.place(threadId);
    if (!place) throw new Refusal('noSuchThread');
    if (this.turns.isRunning(threadId)) throw new Refusal('turnRunning');
    if (this.#busy.has(threadId)) throw new Refusal('busyThread');
    this.#refuseWhileClosing();
    const names = checkAttachments(place.attachments, question.attachments);
    const head = this.threads.addTurn(threadId, question.text, names, question.choice);
    return { thread: this.turns.begin(head, question.choice ? { ...place, choice: question.choice } : place), turn: head };
  }

  /** Stops the thread's running turn, if it has one. */
  async stop(threadId: string): Promise<void> {
    if (!this.turns.isRunning(threadId) && !this.threads.exists(threadId)) throw new Refusal('noSuchThread');
    await this.turns.stop(threadId);
  }

  /** What Codex may do in the thread from its next question on; what was allowed for all of it is asked again. */
  setPermission(threadId: string, permission: Permission): void {
    this.threads.setPermission(threadId, permission);
    this.approvals.forgetAllowed(threadId);
  }

  /** The thread's last question asked again, edited (text) or as it was (null: a retry), in place of its turn. */
  async redo(threadId: string, text: string | null): Promise<{ thread: ThreadSummary; turn: TurnHead }> {
    if (text !== null) checkQuestion(text);
    const place = this.#claim(threadId);
    try {
      const head = await this.#history.redo(threadId, place, text);
      return { thread: this.turns.begin(head, place), turn: head };
    } finally {
      this.#busy.delete(threadId);
    }
  }

  /** A new thread branched at the turn at this position; a large folder is copied only once confirmed. */
  async branch(threadId: string, position: number, confirmed: boolean): Promise<Branched> {
    const place = this.#claim(threadId);
    try {
      const source = this.#store.summary(threadId);
      const turn = this.#store.keptTurn(threadId, position);
      if (!source || !turn) throw new Refusal('noSuchTurn');
      return await this.#history.branch(source, place, turn, confirmed);
    } finally {
      this.#busy.delete(threadId);
    }
  }

  /** Guidance for the running turn; when none runs any more, the words are queued instead, and the page is told so. */
  async steer(threadId: string, text: string): Promise<{ steered: true } | { steered: false; queued: Queued; notice: string }> {
    checkQuestion(text);
    if (!this.threads.exists(threadId)) throw new Refusal('noSuchThread');
    if (await this.turns.steer(threadId, text)) return { steered: true };
    // Still running: Codex has not yet said which turn it runs, or a stop is on its way.
    const notice = this.turns.isRunning(threadId) ? texts.steeredNotReady : texts.steeredToQueue;
    return { steered: false, queued: this.queue.add(threadId, text), notice };
  }

  /** A question kept until the running turn completes. */
  enqueue(threadId: string, text: string): Queued {
    checkQuestion(text);
    if (!this.threads.exists(threadId)) throw new Refusal('noSuchThread');
    return this.queue.add(threadId, text);
  }

  changeQueued(threadId: string, id: string, text: string | null): void {
    if (text !== null) checkQuestion(text);
    this.queue.change(threadId, id, text);
  }

  /** A queued question asked now, by the user's word (the turn before it did not complete). */
  sendQueued(threadId: string, id: string): { thread: ThreadSummary; turn: TurnHead } {
    const queued = this.queue.find(threadId, id);
    const asked = this.ask(threadId, { text: queued.text, attachments: [], draft: null, choice: null, folder: null });
    this.queue.change(threadId, id, null);
    return asked;
  }

  /**
   * The first queued question goes once the turn before it has completed; after a stop, a failure
   * or a cut, it waits for the user, who may no longer want it.
   */
  #sendQueued(threadId: string, status: TurnStatus): void {
    const next = status === 'completed' && !this.turns.closing ? this.queue.first(threadId) : null;
    if (!next) return;
    try {
      this.sendQueued(threadId, next.id);
    } catch {
      // It stays queued, for the user to send.
    }
  }

  /** The thread's place, with nothing running in it, held for a change of its history. */
  #claim(threadId: string): CodexPlace {
    const place = this.threads.place(threadId);
    if (!place) throw new Refusal('noSuchThread');
    if (this.turns.isRunning(threadId) || this.#busy.has(threadId)) throw new Refusal('busyThread');
    this.#refuseWhileClosing();
    this.#busy.add(threadId);
    return place;
  }

  #refuseWhileClosing(): void {
    if (this.turns.closing) throw new Refusal('stopping');
  }
}

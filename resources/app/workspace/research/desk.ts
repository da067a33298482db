// The research desk: where a question is asked, in a new thread or as a follow-up, and stopped.
// Each thread is a Codex thread working in a folder of its own; the desk keeps the threads
// (threads.ts) and runs their turns (turns.ts), and a question needs both.
import { Threads } from './threads.ts';
import { TurnRunner, type TurnRunnerOptions } from './turns.ts';
import { Approvals } from './approvals.ts';
import { Refusal } from '../refusal.ts';
import { checkAttachments } from '../files/uploads.ts';
import { draftFolder } from '../files/drafts.ts';
import { checkOwnFolder, type FolderRules } from '../files/ownFolder.ts';
import type { Choice, Permission, ThreadSummary, TurnHead } from '../model.ts';

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
  readonly #dataFolder: string;
  readonly #folderRules: FolderRules;

  constructor(options: DeskOptions) {
    const turns = new TurnRunner({ ...options, ended: (threadId) => approvals.turnEnded(threadId) });
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
    this.approvals = approvals;
    this.threads = threads;
    this.#dataFolder = options.dataFolder;
    this.#folderRules = { home: options.home, dataFolder: options.dataFolder, uid: options.uid };
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

  #refuseWhileClosing(): void {
    if (this.turns.closing) throw new Refusal('stopping');
  }
}

// The research desk: where a question is asked, in a new thread or as a follow-up, and stopped.
// Each thread is a Codex thread working in a folder of its own; the desk keeps the threads
// (threads.ts) and runs their turns (turns.ts), and a question needs both.
import { Threads } from './threads.ts';
import { TurnRunner, type TurnRunnerOptions } from './turns.ts';
import { Refusal } from '../refusal.ts';
import { checkAttachments } from '../files/uploads.ts';
import { draftFolder } from '../files/drafts.ts';
import type { ThreadSummary, TurnHead, Choice } from '../model.ts';

export const QUESTION_LIMIT_BYTES = 1 << 20;

export interface DeskOptions extends TurnRunnerOptions {
  /** The data folder: each thread's folder is made below it. */
  dataFolder: string;
}

/** A question as the page asks it: its text, the files it brings, and the model it asks for. */
export interface Question {
  text: string;
  /** The files' names: in the page's draft folder for a new thread, in the thread's folder for a follow-up. */
  attachments: string[];
  draft: string | null;
  /** Null: the thread keeps the choice it has. */
  choice: Choice | null;
}

function checkQuestion(text: string): void {
  if (text.trim() === '') throw new Refusal('emptyQuestion');
  if (Buffer.byteLength(text, 'utf8') > QUESTION_LIMIT_BYTES) throw new Refusal('tooLarge');
}

export class ResearchDesk {
  readonly turns: TurnRunner;
  readonly threads: Threads;
  readonly #dataFolder: string;

  constructor(options: DeskOptions) {
    this.turns = new TurnRunner(options);
    this.threads = new Threads({ ...options, turns: this.turns });
    this.#dataFolder = options.dataFolder;
  }

  /** A new thread, its folder and its first turn; the answer streams in afterwards. */
  create(question: Question): { thread: ThreadSummary; turn: TurnHead } {
    checkQuestion(question.text);
    this.#refuseWhileClosing();
    const draft = question.attachments.length > 0 ? draftFolder(this.#dataFolder, question.draft) : null;
    const files = draft ? { draft, names: checkAttachments(draft, question.attachments) } : null;
    const { head, place } = this.threads.create(question.text, files, question.choice);
    return { thread: this.turns.begin(head, place), turn: head };
  }

  /** A follow-up question in a thread: Codex has the whole thread before it. */
  ask(threadId: string, question: Question): { thread: ThreadSummary; turn: TurnHead } {
    checkQuestion(question.text);
    const place = this.threads.place(threadId);
    if (!place) throw new Refusal('noSuchThread');
    if (this.turns.isRunning(threadId)) throw new Refusal('turnRunning');
    this.#refuseWhileClosing();
    const names = checkAttachments(place.folder, question.attachments);
    const head = this.threads.addTurn(threadId, question.text, names, question.choice);
    return { thread: this.turns.begin(head, question.choice ? { ...place, choice: question.choice } : place), turn: head };
  }

  /** Stops the thread's running turn, if it has one. */
  async stop(threadId: string): Promise<void> {
    if (!this.turns.isRunning(threadId) && !this.threads.exists(threadId)) throw new Refusal('noSuchThread');
    await this.turns.stop(threadId);
  }

  #refuseWhileClosing(): void {
    if (this.turns.closing) throw new Refusal('stopping');
  }
}

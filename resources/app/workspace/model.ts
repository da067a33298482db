// What a page sees of the workspace, and what the store keeps: threads of turns, each turn a
// question and the items Codex produced for it. The page reads these shapes too (as JSDoc types).

export type TurnStatus = 'running' | 'completed' | 'stopped' | 'interrupted' | 'failed';
export type ItemStatus = 'running' | 'completed' | 'failed' | 'stopped';

export interface Usage {
  input: number;
  cachedInput: number;
  output: number;
  reasoning: number;
  total: number;
}

interface ItemBase {
  /** Its place in the turn, from 0; stable for the life of the item. */
  position: number;
  status: ItemStatus;
}

export type AnswerItem = ItemBase & { kind: 'answer'; text: string };
export type ReasoningItem = ItemBase & { kind: 'reasoning'; parts: string[] };
export type CommandItem = ItemBase & {
  kind: 'command';
  command: string;
  output: string;
  /** Output beyond what is kept was dropped; the count of characters dropped. */
  dropped: number;
  exitCode: number | null;
  durationMs: number | null;
};
export type WebSearchItem = ItemBase & { kind: 'webSearch'; query: string };
export type FileChangeItem = ItemBase & {
  kind: 'fileChange';
  changes: { path: string; change: 'add' | 'delete' | 'update'; diff: string }[];
};
export type ToolItem = ItemBase & { kind: 'tool'; name: string };
export type PlanItem = ItemBase & { kind: 'plan'; text: string };
/** Something the user must know about this turn, in one sentence: an error, a retry. */
export type NoticeItem = ItemBase & { kind: 'notice'; level: 'error' | 'warning'; text: string };

export type Item =
  | AnswerItem | ReasoningItem | CommandItem | WebSearchItem | FileChangeItem | ToolItem | PlanItem | NoticeItem;

export interface TurnHead {
  id: string;
  threadId: string;
  position: number;
  question: string;
  status: TurnStatus;
  /** Why the turn did not complete, in one sentence; null when it did. */
  error: string | null;
  usage: Usage | null;
  startedAt: number;
  endedAt: number | null;
}

export interface Turn extends TurnHead {
  items: Item[];
}

export interface ThreadSummary {
  id: string;
  title: string;
  createdAt: number;
  updatedAt: number;
  running: boolean;
}

export interface Thread extends ThreadSummary {
  /** The thread's own folder, Codex's working folder for it. */
  folder: string;
  /** Its newest turns; the page asks for earlier ones as the reader scrolls up to them. */
  turns: Turn[];
  /** Whether there are turns before the first of these. */
  earlier: boolean;
  /** Whether there are turns after the last of these (the thread was opened at a search hit). */
  later: boolean;
}

/** A place in a thread holding the text searched for. */
export interface SearchHit {
  threadId: string;
  title: string;
  turnPosition: number;
  /** The item's place in the turn; -1 for the turn's question. */
  itemPosition: number;
  /** Plain and matching text by turns, starting with plain: the odd ones are the matches. */
  snippet: string[];
}

export type CodexState =
  | { state: 'idle' | 'starting'; version: string | null }
  | { state: 'ready'; version: string }
  | { state: 'unavailable'; version: string | null; message: string };

export type Account =
  | { signedIn: true; label: string }
  | { signedIn: false; requiresSignIn: boolean };

export interface About {
  address: string;
  dataFolder: string;
  codexPath: string;
  node: string;
  startedAt: number;
}

export interface ServiceState {
  codex: CodexState;
  account: Account | null;
  /** Why the store cannot keep what happens now; null while it can. */
  storage: string | null;
  about: About;
}

/** What a page's event stream carries, in order. */
export type PageEvent =
  | { type: 'hello'; service: ServiceState; threads: ThreadSummary[]; thread: Thread | null }
  | { type: 'service'; service: ServiceState }
  | { type: 'threadSummary'; thread: ThreadSummary }
  | { type: 'turn'; turn: TurnHead }
  | { type: 'item'; threadId: string; turnId: string; item: Item }
  | { type: 'delta'; threadId: string; turnId: string; position: number; field: 'text' | 'output'; part?: number; text: string };

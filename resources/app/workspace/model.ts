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
/** url: the page it opened, when it opened one. */
export type WebSearchItem = ItemBase & { kind: 'webSearch'; query: string; url?: string };
export type FileChangeItem = ItemBase & {
  kind: 'fileChange';
  changes: { path: string; change: 'add' | 'delete' | 'update'; diff: string }[];
};
export type ToolItem = ItemBase & { kind: 'tool'; name: string };
export type PlanItem = ItemBase & { kind: 'plan'; text: string };
/** Something the user must know about this turn, in one sentence: an error, a retry, a compaction. */
export type NoticeItem = ItemBase & { kind: 'notice'; level: 'error' | 'warning' | 'info'; text: string };
/** What the user told Codex while the turn ran, where in the turn it was given. */
export type GuidanceItem = ItemBase & { kind: 'guidance'; text: string };

export type Item =
  | AnswerItem | ReasoningItem | CommandItem | WebSearchItem | FileChangeItem | ToolItem | PlanItem | NoticeItem | GuidanceItem;

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
  /** The files the question brought, by their names in the thread's folder; absent when none. */
  attachments?: string[];
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
  /** Listed first, in a group of their own. */
  pinned: boolean;
  /** Left out of the main list; shown in the archived view. */
  archived: boolean;
  /** Its running turn waits for a person to allow or refuse something Codex asked. */
  waiting: boolean;
}

/** A thread's summary as the store keeps it: what runs and waits now is known only to the service. */
export type StoredSummary = Omit<ThreadSummary, 'running' | 'waiting'>;

/**
 * What Codex may do in a thread without asking: read only, write in its folder, or that and use
 * the network. Beyond it, Codex asks, and a person decides.
 */
export type Permission = 'read' | 'write' | 'network';

/** Something Codex asks a person to allow, while its turn waits. */
export interface Approval {
  id: string;
  threadId: string;
  turnId: string;
  kind: 'command' | 'fileChange';
  /** The command it wants to run; null for a file change. */
  command: string | null;
  /** The files a change would write; none for a command. */
  files: string[];
  /** Where: the command's folder, or the folder a file change would write in. */
  cwd: string | null;
  /** Why, in Codex's words; null when it gave none. */
  reason: string | null;
  askedAt: number;
}

/** A folder of the user's and the folders in it, as the folder browser shows them. */
export interface FolderListing {
  path: string;
  /** The folder above; null at the top. */
  parent: string | null;
  folders: string[];
  /** More folders are there than the listing shows. */
  more: boolean;
}

/** A person's answer: this once, everything this thread asks from now on, or no. */
export type ApprovalDecision = 'once' | 'thread' | 'decline';

export interface Thread extends ThreadSummary {
  /** The thread's own folder, Codex's working folder for it. */
  folder: string;
  /** Its newest turns; the page asks for earlier ones as the reader scrolls up to them. */
  turns: Turn[];
  /** Whether there are turns before the first of these. */
  earlier: boolean;
  /** The tokens of all its turns together; null before any turn reported its usage. */
  usage: Usage | null;
  /** The model and reasoning effort chosen for it; null: Codex's default. */
  model: string | null;
  effort: string | null;
  /** Whether there are turns after the last of these (the thread was opened at a search hit). */
  later: boolean;
  permission: Permission;
  /** The folder is one the user named, not one the workspace made: deleting the thread leaves it. */
  ownFolder: boolean;
  /** What its running turn waits for a person to decide. */
  approvals: Approval[];
  /** How full the model's context was at the thread's last request; null before Codex said. */
  context: Context | null;
  /** The questions waiting for the running turn to end, oldest first. */
  queued: Queued[];
}

/** Tokens the model had in its context at a thread's last request, against its window (null: not known). */
export interface Context {
  used: number;
  window: number | null;
}

/** A question kept to be asked when the thread's running turn ends. */
export interface Queued {
  id: string;
  text: string;
  queuedAt: number;
}

/** What a thread's folder holds, as its files panel lists it. */
export type EntryKind = 'file' | 'folder' | 'link';

export interface Entry {
  name: string;
  kind: EntryKind;
  size: number;
  changedAt: number;
  /** The turn (its position) that last made or changed it; null when none did that anyone saw. */
  turn: number | null;
  /** Changed since that turn, outside any turn (by the user's own editor, say). */
  changedSince: boolean;
  /** The user brought it to a question. */
  user: boolean;
}

/** A file as a turn left it: what tells whether it was changed since. */
export interface FileSeen {
  size: number;
  /** Its modification time, in whole milliseconds. */
  changedAt: number;
}

/** The turn (its position) that last made or changed a file, and how it left it. */
export interface FileRecord extends FileSeen {
  turn: number;
}

/** A model and reasoning effort; null for either is Codex's own default. */
export interface Choice {
  model: string | null;
  effort: string | null;
}

/** One model Codex offers, with the reasoning efforts it supports. */
export interface ModelOption {
  id: string;
  name: string;
  efforts: string[];
  defaultEffort: string | null;
}

/** What the model picker shows: the models, what Codex uses when none is chosen, and the last choice. */
export interface ModelCatalog {
  models: ModelOption[];
  codexDefault: Choice;
  last: Choice;
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

/**
 * A search's hits, and how many of the turns its index started with it holds: fewer than all
 * while the index of an older store is being built, when the hits are those of the turns done.
 */
export interface SearchAnswer {
  results: SearchHit[];
  indexed: { done: number; total: number };
}

export type CodexState =
  | { state: 'idle' | 'starting'; version: string | null }
  | { state: 'ready'; version: string }
  | { state: 'unavailable'; version: string | null; message: string };

export type Account =
  | { signedIn: true; label: string; email: string | null; plan: string | null; chatgpt: boolean }
  | { signedIn: false; requiresSignIn: boolean };

export type SignInMethod = 'browser' | 'deviceCode';

/** A ChatGPT sign-in through Codex, as every page shows it. */
export type SignIn =
  /** None runs; outcome says in one sentence how the last one ended, when not by success. */
  | { state: 'idle'; outcome: string | null; offerDeviceCode: boolean }
  | { state: 'starting'; method: SignInMethod }
  | { state: 'browser'; authUrl: string }
  | { state: 'deviceCode'; verificationUrl: string; userCode: string };

export interface UsageWindow {
  usedPercent: number;
  windowMinutes: number | null;
  /** When the window starts afresh, in ms since the epoch. */
  resetsAt: number | null;
}

/** The account's usage limits as Codex reports them; null where it reports none. */
export interface UsageLimits {
  primary: UsageWindow | null;
  secondary: UsageWindow | null;
}

export interface About {
  /** The workspace's version: the package's, the health answer's and the one Codex is told. */
  version: string;
  address: string;
  dataFolder: string;
  codexPath: string;
  node: string;
  startedAt: number;
}

/**
 * The service's limits, which a page checks input against before sending it, with the service's
 * own sentences for them: the page keeps neither a copy of a number nor of a sentence.
 */
export interface Rules {
  titleChars: number;
  fileBytes: number;
  attachments: number;
  searchChars: number;
  questionBytes: number;
  refusals: { titleTooLong: string; fileTooLarge: string; tooManyFiles: string; searchTooLong: string; questionTooLong: string };
}

export interface ServiceState {
  codex: CodexState;
  account: Account | null;
  signIn: SignIn;
  limits: UsageLimits | null;
  /** Why the store cannot keep what happens now; null while it can. */
  storage: string | null;
  about: About;
  rules: Rules;
}

/** What a page's event stream carries, in order. */
export type PageEvent =
  | {
    type: 'hello'; service: ServiceState; threads: ThreadSummary[]; thread: Thread | null;
    /** threads holds the pinned ones and the newest page of the rest; moreThreads: older ones are left to fetch. */
    moreThreads?: boolean;
    /** Why the thread the page asked for is not there (it was deleted), in one sentence. */
    notice?: string;
    /** This event stream's name, by which the page says which of the thread's folders it shows. */
    page: string;
  }
  | { type: 'service'; service: ServiceState }
  | { type: 'threadSummary'; thread: ThreadSummary }
  | { type: 'threadUsage'; threadId: string; usage: Usage | null }
  | { type: 'threadRemoved'; id: string }
  | { type: 'threadPermission'; threadId: string; permission: Permission }
  | { type: 'approval'; approval: Approval }
  /** Answered here or elsewhere, declined at the limit, or its turn ended: the card goes. */
  | { type: 'approvalEnded'; threadId: string; id: string }
  /** The turn is gone: asked again, and Codex's history rolled back to before it. */
  | { type: 'turnRemoved'; threadId: string; turnId: string }
  | { type: 'queue'; threadId: string; queued: Queued[] }
  /** Something in this folder of the thread (path inside it) has changed, which a page showing it watches. */
  | { type: 'folderChanged'; threadId: string; path: string }
  | { type: 'context'; threadId: string; context: Context }
  | { type: 'turn'; turn: TurnHead }
  /** streamed: the answer's text is left out, being exactly what its deltas brought, which the page has. */
  | { type: 'item'; threadId: string; turnId: string; item: Item; streamed?: true }
  | { type: 'delta'; threadId: string; turnId: string; position: number; field: 'text' | 'output'; part?: number; text: string };

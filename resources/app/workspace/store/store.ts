// The thread store: one SQLite database in the data folder, owner-only, in WAL mode so a kill at
// any moment leaves it whole. Writes come in batches, each one transaction.
import { DatabaseSync, type StatementSync } from 'node:sqlite';
import { chmodSync, closeSync, openSync } from 'node:fs';
import { migrations as allMigrations, type Migration } from './migrations.ts';
import { SearchIndex } from './search.ts';
import type { BackendName } from './indexBackend.ts';
import { preparedOnce } from './prepared.ts';
import { applyTails, type ItemTail } from './tails.ts';
import { systemClock, type Clock } from '../clock.ts';
import { randomUUID } from 'node:crypto';
import type { Choice, Context, Item, Permission, Queued, SearchAnswer, StoredSummary, Thread, Turn, TurnHead, Usage, FileRecord, FileSeen } from '../model.ts';

export class StoreError extends Error {
  readonly reason: 'newer' | 'unwritable' | 'full' | 'corrupt' | 'other';
  constructor(reason: StoreError['reason'], message: string, options?: ErrorOptions) {
    super(message, options);
    this.reason = reason;
  }
}

/** What one flush writes: turn heads and items that changed since the last one, and text that items gained. */
export interface Batch {
  turns: TurnHead[];
  items: { turnId: string; item: Item }[];
  tails?: ItemTail[];
}

export interface OpenOptions {
  migrations?: readonly Migration[];
  /** The search index's backend; FTS5 where this Node.js has it, when absent. */
  search?: BackendName;
  /** What paces the search index's background build. */
  clock?: Clock;
}

export interface NewThread {
  id: string;
  title: string;
  folder: string;
  createdAt: number;
  model?: string | null;
  effort?: string | null;
  permission?: Permission;
}

interface TurnRow {
  id: string; thread_id: string; position: number; question: string; status: string;
  error: string | null; usage: string | null; started_at: number; ended_at: number | null; attachments: string | null;
  codex_turn_id: string | null;
}

/**
 * A kept turn with Codex's id for it (null when Codex never started it, or it was kept before such
 * ids were), and whether anything came of it.
 */
export type KeptTurn = TurnHead & { codexTurnId: string | null; answered: boolean };
interface ThreadRow {
  id: string; title: string; folder: string; created_at: number; updated_at: number; pinned: number; archived: number;
}

/** A thread as the store keeps it: what runs and waits now, and whose its folder is, the service adds. */
export type KeptThread = Omit<Thread, 'running' | 'waiting' | 'ownFolder' | 'approvals'>;

/** Where a page of the list starts: after this thread, in the list's order (newest first). */
export interface ListCursor { updatedAt: number; id: string }

/** What a rename found: done, the thread gone, or a title other than the one the page saw. */
export type RenameResult = { done: true } | { done: false; current: string | null };

// SQLite's primary result codes (the low byte of an extended one).
const FULL = 13;
const UNWRITABLE = new Set([3 /* PERM */, 8 /* READONLY */, 10 /* IOERR */, 14 /* CANTOPEN */, 23 /* AUTH */]);
const CORRUPT = new Set([11 /* CORRUPT */, 26 /* NOTADB */]);
// What the file system says when the store's own file cannot be made.
const UNWRITABLE_FILE = new Set(['EACCES', 'EPERM', 'EROFS', 'ENOTDIR', 'ENOENT', 'EISDIR']);

function classify(error: unknown): StoreError {
  if (error instanceof StoreError) return error;
  const text = error instanceof Error ? error.message : String(error);
  const { errcode, code } = (error ?? {}) as { errcode?: number; code?: string };
  const primary = typeof errcode === 'number' ? errcode & 0xff : -1;
  if (primary === FULL || code === 'ENOSPC') return new StoreError('full', text, { cause: error });
  if (UNWRITABLE.has(primary) || (code !== undefined && UNWRITABLE_FILE.has(code))) {
    return new StoreError('unwritable', text, { cause: error });
  }
  if (CORRUPT.has(primary)) return new StoreError('corrupt', text, { cause: error });
  return new StoreError('other', text, { cause: error });
}

function versionOf(path: string): number {
  const db = new DatabaseSync(path, { readOnly: true });
  try {
    return Number((db.prepare('PRAGMA user_version').get() as { user_version: number }).user_version);
  } finally {
    db.close();
  }
}

export class ThreadStore {
  readonly #db: DatabaseSync;
  readonly #statement: (sql: string) => StatementSync;
  #search!: SearchIndex;
  #open = true;

  private constructor(db: DatabaseSync) {
    this.#db = db;
    this.#statement = preparedOnce(db);
  }

  /** Opens (creating if need be) and migrates the store at this path. */
  static open(path: string, options: OpenOptions = {}): ThreadStore {
    const migrations = options.migrations ?? allMigrations;
    let db: DatabaseSync | undefined;
    try {
      if (path !== ':memory:') {
        // Created here first so the mode is ours whatever the umask; SQLite gives its WAL and
        // shared-memory files the mode of the database file.
        closeSync(openSync(path, 'a', 0o600));
        chmodSync(path, 0o600);
      }
      // Read through a connection that cannot write: the last writable one to close folds a WAL
      // into the database and deletes it, and a newer version's files are left exactly as they are.
      const version = path === ':memory:' ? 0 : versionOf(path);
      if (version > migrations.length) {
        throw new StoreError('newer', `database version ${version} is newer than this service's ${migrations.length}`);
      }
      db = new DatabaseSync(path);
      const store = new ThreadStore(db);
      db.exec('PRAGMA busy_timeout = 2000; PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON;');
      store.#migrate(version, migrations);
      store.#search = store.#transaction(() => SearchIndex.attach(db!, {
        backend: options.search, clock: options.clock ?? systemClock, transaction: (work) => store.#transaction(work),
      }));
      store.#search.resume();
      return store;
    } catch (error) {
      db?.close();
      throw classify(error);
    }
  }

  #migrate(version: number, migrations: readonly Migration[]): void {
    for (let next = version; next < migrations.length; next += 1) {
      this.#transaction(() => {
        migrations[next]!(this.#db);
        this.#db.exec(`PRAGMA user_version = ${next + 1}`);
      });
    }
  }

  #transaction<T>(work: () => T): T {
    this.#db.exec('BEGIN IMMEDIATE');
    try {
      const result = work();
      this.#db.exec('COMMIT');
      return result;
    } catch (error) {
      // A failed COMMIT may or may not have ended the transaction already.
      try {
        this.#db.exec('ROLLBACK');
      } catch {
        // none was open
      }
      throw error;
    }
  }

  #write<T>(work: () => T): T {
    try {
      return this.#transaction(work);
    } catch (error) {
      throw classify(error);
    }
  }

  listThreads(): StoredSummary[] {
    const rows = this.#statement(`SELECT ${SUMMARY} FROM threads ORDER BY updated_at DESC, id`)
      .all() as unknown as ThreadRow[];
    return rows.map(summaryOf);
  }

  /** The pinned threads that are not archived, newest first. */
  pinnedThreads(): StoredSummary[] {
    const rows = this.#statement(`SELECT ${SUMMARY} FROM threads WHERE archived = 0 AND pinned = 1 ORDER BY updated_at DESC, id`)
      .all() as unknown as ThreadRow[];
    return rows.map(summaryOf);
  }

  /**
   * A page of the list after the cursor: the archived threads, or the others that are not pinned;
   * more: whether any come after the page.
   */
  listPage(archived: boolean, after: ListCursor | null, limit: number): { threads: StoredSummary[]; more: boolean } {
    const from = after ?? { updatedAt: Number.MAX_SAFE_INTEGER, id: '' };
    // Spelled out for each view, so SQLite walks the index in the list's order rather than sorting.
    const which = archived ? 'archived = 1' : 'archived = 0 AND pinned = 0';
    const rows = this.#statement(`SELECT ${SUMMARY} FROM threads
      WHERE ${which} AND (updated_at < ? OR (updated_at = ? AND id > ?)) ORDER BY updated_at DESC, id LIMIT ?`)
      .all(from.updatedAt, from.updatedAt, from.id, limit + 1) as unknown as ThreadRow[];
    return { threads: rows.slice(0, limit).map(summaryOf), more: rows.length > limit };
  }

  /** Renames the thread if its title is still the one the page saw. */
  renameThread(id: string, from: string, title: string): RenameResult {
    return this.#write(() => {
      const row = this.#statement('SELECT title FROM threads WHERE id = ?').get(id) as { title: string } | undefined;
      if (!row || row.title !== from) return { done: false, current: row?.title ?? null };
      this.#statement('UPDATE threads SET title = ? WHERE id = ?').run(title, id);
      return { done: true };
    });
  }

  /** Sets a flag of the thread; false when there is no such thread. */
  setFlag(id: string, flag: 'pinned' | 'archived', value: boolean): boolean {
    const sql = flag === 'pinned' ? 'UPDATE threads SET pinned = ? WHERE id = ?' : 'UPDATE threads SET archived = ? WHERE id = ?';
    return this.#write(() => Number(this.#statement(sql).run(value ? 1 : 0, id).changes) > 0);
  }

  /** Deletes the thread with its turns and items; false when there was no such thread. */
  deleteThread(id: string): boolean {
    return this.#write(() => Number(this.#statement('DELETE FROM threads WHERE id = ?').run(id).changes) > 0);
  }

  /** The thread with its newest turns, as many as fill about this many items; earlier: more before them. */
  readThread(id: string, itemBudget = Infinity, at?: number): (KeptThread & { codexThreadId: string | null }) | null {
    const row = this.#statement('SELECT * FROM threads WHERE id = ?').get(id) as
      (ThreadRow & { codex_thread_id: string | null; model: string | null; effort: string | null; permission: Permission; context: string | null }) | undefined;
    if (!row) return null;
    const { turns, earlier, later } = at === undefined
      ? { ...this.readTurns(id, null, itemBudget), later: false }
      : this.#readFrom(id, at, itemBudget);
    return { ...summaryOf(row), folder: row.folder, codexThreadId: row.codex_thread_id, turns, earlier, later, usage: this.threadUsage(id),
      model: row.model, effort: row.effort, permission: row.permission,
      context: row.context ? (JSON.parse(row.context) as Context) : null, queued: this.queued(id),
    };
  }

  /** The page opened at a turn (a search hit): that turn and those after it that fit the budget. */
  #readFrom(id: string, at: number, itemBudget: number): { turns: Turn[]; earlier: boolean; later: boolean } {
    const { turns, later } = this.readTurnsAfter(id, at - 1, itemBudget);
    // A hit in a turn that is gone since: the thread as it opens without one.
    if (turns.length === 0) return { ...this.readTurns(id, null, itemBudget), later: false };
    const first = turns[0]?.position ?? at;
    const before = this.#statement('SELECT count(*) AS n FROM (SELECT 1 FROM turns WHERE thread_id = ? AND position < ? LIMIT 1)')
      .get(id, first) as { n: number };
    return { turns, earlier: before.n > 0, later };
  }

  /** The turns after this position, oldest first, as many as fill the budget as readTurns does; later: whether more follow. */
  readTurnsAfter(threadId: string, after: number, itemBudget: number): { turns: Turn[]; later: boolean } {
    const { turns, more } = this.#turnsBeside(threadId, 'after', after, itemBudget);
    return { turns, later: more };
  }

  /** The sum of the usage its turns reported; null when none did. */
  threadUsage(id: string): Usage | null {
    const row = this.#statement(`SELECT count(usage) AS turns,
        sum(usage ->> '$.input') AS input, sum(usage ->> '$.cachedInput') AS cachedInput, sum(usage ->> '$.output') AS output,
        sum(usage ->> '$.reasoning') AS reasoning, sum(usage ->> '$.total') AS total
      FROM turns WHERE thread_id = ?`).get(id) as unknown as { turns: number } & Usage;
    if (row.turns === 0) return null;
    const { turns: _, ...usage } = row;
    return usage;
  }

  /**
   * The turns before this position (or the newest), oldest first: as many as fill the budget of
   * items (a turn's question counts as one), at least one; earlier: whether more come before them.
   */
  readTurns(threadId: string, before: number | null, itemBudget: number): { turns: Turn[]; earlier: boolean } {
    const { turns, more } = this.#turnsBeside(threadId, 'before', before ?? Number.MAX_SAFE_INTEGER, itemBudget);
    return { turns, earlier: more };
  }

  /** The turns on one side of a position, the nearest that fill the budget, oldest first; more: whether others lie beyond. */
  #turnsBeside(threadId: string, side: 'before' | 'after', edge: number, itemBudget: number): { turns: Turn[]; more: boolean } {
    // Every turn costs at least one of the budget, so this many rows always suffice.
    const limit = Number.isFinite(itemBudget) ? Math.max(1, Math.ceil(itemBudget)) + 1 : -1;
    const where = side === 'before' ? 'position < ? ORDER BY position DESC' : 'position > ? ORDER BY position';
    const rows = this.#statement(`SELECT turns.*, (SELECT count(*) FROM items WHERE items.turn_id = turns.id) AS item_count
      FROM turns WHERE thread_id = ? AND ${where} LIMIT ?`)
      .all(threadId, edge, limit) as unknown as (TurnRow & { item_count: number })[];
    const taken = withinBudget(rows, itemBudget);
    const page = rows.slice(0, taken);
    if (side === 'before') page.reverse();
    return { turns: page.map((turn) => this.#withItems(turn)), more: taken < rows.length };
  }

  #withItems(turn: TurnRow): Turn {
    const rows = this.#statement('SELECT status, body FROM items WHERE turn_id = ? ORDER BY position').all(turn.id) as
      { status: string; body: string }[];
    return { ...headOf(turn), items: rows.map((row) => this.#itemOf(turn.id, row)) };
  }

  /** An item as it was last written: its JSON, and while it runs, the text it gained since. */
  #itemOf(turnId: string, row: { status: string; body: string }): Item {
    const item = JSON.parse(row.body) as Item;
    // Only a running item has tails: writing it whole takes them in.
    if (row.status !== 'running') return item;
    const tails = this.#statement('SELECT part, at, text FROM item_tails WHERE turn_id = ? AND position = ? ORDER BY part, at')
      .all(turnId, item.position) as { part: number; at: number; text: string }[];
    applyTails(item, tails);
    return item;
  }

  /** The item at this place as written so far, with the text it gained while running; null when none is. */
  readItem(turnId: string, position: number): Item | null {
    const row = this.#statement('SELECT status, body FROM items WHERE turn_id = ? AND position = ?').get(turnId, position) as
      { status: string; body: string } | undefined;
    return row ? this.#itemOf(turnId, row) : null;
  }

  /** The files the thread's questions brought, by name, each with the last question (its position) that brought it. */
  uploads(threadId: string): Map<string, number> {
    const rows = this.#statement('SELECT position, attachments FROM turns WHERE thread_id = ? AND attachments IS NOT NULL ORDER BY position')
      .all(threadId) as unknown as { position: number; attachments: string }[];
    return new Map(rows.flatMap((row) => (JSON.parse(row.attachments) as string[]).map((name) => [name, row.position] as const)));
  }

  /** Which turn last made or changed each of these files of the thread's folder that one did, by its path there. */
  fileRecords(threadId: string, paths: readonly string[]): Map<string, FileRecord> {
    const rows = this.#statement(`SELECT turn_files.path, turns.position, turn_files.size, turn_files.changed_at
      FROM turn_files JOIN turns ON turns.id = turn_files.turn_id
      WHERE turn_files.thread_id = ? AND turn_files.path IN (SELECT value FROM json_each(?))`)
      .all(threadId, JSON.stringify(paths)) as unknown as { path: string; position: number; size: number; changed_at: number }[];
    return new Map(rows.map((row) => [row.path, { turn: row.position, size: row.size, changedAt: row.changed_at }]));
  }

  /** What a turn made or changed in its thread's folder, as it left them, and what it deleted there. */
  recordFiles(threadId: string, turnId: string, changed: ReadonlyMap<string, FileSeen>, deleted: readonly string[]): void {
    this.#write(() => {
      const put = this.#statement(`INSERT INTO turn_files (thread_id, path, turn_id, size, changed_at) VALUES (?, ?, ?, ?, ?)
        ON CONFLICT (thread_id, path) DO UPDATE SET turn_id = excluded.turn_id, size = excluded.size, changed_at = excluded.changed_at`);
      for (const [path, seen] of changed) put.run(threadId, path, turnId, seen.size, seen.changedAt);
      const drop = this.#statement('DELETE FROM turn_files WHERE thread_id = ? AND path = ?');
      for (const path of deleted) drop.run(threadId, path);
    });
  }

  /** The newest places in any thread holding this text, and how far the index has got. */
  search(text: string): SearchAnswer {
    return this.#search.search(text);
  }

  summary(id: string): StoredSummary | null {
    const row = this.#statement(`SELECT ${SUMMARY} FROM threads WHERE id = ?`).get(id) as
      ThreadRow | undefined;
    return row ? summaryOf(row) : null;
  }

  /** What Codex needs to carry on with a thread: its folder, Codex's own id for it, the model chosen. */
  codexPlace(id: string): ({ folder: string; codexThreadId: string | null; permission: Permission } & Choice) | null {
    const row = this.#statement('SELECT folder, codex_thread_id, model, effort, permission FROM threads WHERE id = ?').get(id) as
      { folder: string; codex_thread_id: string | null; model: string | null; effort: string | null; permission: Permission } | undefined;
    return row ? { folder: row.folder, codexThreadId: row.codex_thread_id, model: row.model, effort: row.effort, permission: row.permission } : null;
  }

  /** What Codex may do in the thread from its next turn on; false when there is no such thread. */
  setPermission(id: string, permission: Permission): boolean {
    return this.#write(() => Number(this.#statement('UPDATE threads SET permission = ? WHERE id = ?').run(permission, id).changes) > 0);
  }

  /** The thread's model choice from now on; it is also the choice the next thread starts with. */
  setChoice(threadId: string, choice: Choice): void {
    this.#write(() => {
      this.#statement('UPDATE threads SET model = ?, effort = ? WHERE id = ?').run(choice.model, choice.effort, threadId);
      this.#putSetting('lastChoice', JSON.stringify(choice));
    });
  }

  lastChoice(): Choice {
    const row = this.#statement('SELECT value FROM settings WHERE key = ?').get('lastChoice') as { value: string } | undefined;
    return row ? (JSON.parse(row.value) as Choice) : { model: null, effort: null };
  }

  #putSetting(key: string, value: string): void {
    this.#statement('INSERT INTO settings (key, value) VALUES (?, ?) ON CONFLICT (key) DO UPDATE SET value = excluded.value').run(key, value);
  }

  nextTurnPosition(threadId: string): number {
    const row = this.#statement('SELECT coalesce(max(position) + 1, 0) AS next FROM turns WHERE thread_id = ?').get(threadId) as
      { next: number };
    return row.next;
  }

  /** A new thread with its first turn, together or not at all. */
  createThread(thread: NewThread, first: TurnHead): void {
    this.#write(() => {
      this.#statement('INSERT INTO threads (id, title, folder, created_at, updated_at, model, effort, permission) VALUES (?, ?, ?, ?, ?, ?, ?, ?)')
        .run(thread.id, thread.title, thread.folder, thread.createdAt, thread.createdAt, thread.model ?? null, thread.effort ?? null,
          thread.permission ?? 'write');
      if (thread.model !== undefined || thread.effort !== undefined) {
        this.#putSetting('lastChoice', JSON.stringify({ model: thread.model ?? null, effort: thread.effort ?? null }));
      }
      this.#putTurn(first);
    });
  }

  addTurn(turn: TurnHead): void {
    this.#write(() => this.#putTurn(turn));
  }

  setCodexThread(threadId: string, codexThreadId: string | null): void {
    this.#write(() => this.#statement('UPDATE threads SET codex_thread_id = ? WHERE id = ?').run(codexThreadId, threadId));
  }

  /** Codex's id for the turn, once Codex has started it: what a rollback or a branch names. */
  setCodexTurn(turnId: string, codexTurnId: string): void {
    this.#write(() => this.#statement('UPDATE turns SET codex_turn_id = ? WHERE id = ?').run(codexTurnId, turnId));
  }

  /** The thread's last turn, or its turn at this position; null when there is none. */
  keptTurn(threadId: string, position?: number): KeptTurn | null {
    const columns = 'turns.*, EXISTS (SELECT 1 FROM items WHERE items.turn_id = turns.id) AS answered';
    const row = (position === undefined
      ? this.#statement(`SELECT ${columns} FROM turns WHERE thread_id = ? ORDER BY position DESC LIMIT 1`).get(threadId)
      : this.#statement(`SELECT ${columns} FROM turns WHERE thread_id = ? AND position = ?`).get(threadId, position)) as
      (TurnRow & { answered: number }) | undefined;
    return row ? { ...headOf(row), codexTurnId: row.codex_turn_id, answered: row.answered === 1 || row.usage !== null } : null;
  }

  /** The turn asked again: the old one and its items go, the new one takes its place, together or not at all. */
  replaceTurn(oldId: string, head: TurnHead): void {
    this.#write(() => {
      this.#statement('DELETE FROM turns WHERE id = ?').run(oldId);
      this.#putTurn(head);
    });
  }

  /**
   * A new thread whose turns are copies of another's up to and including this position, each
   * keeping Codex's id for it (Codex's fork keeps its turns' ids too).
   */
  branchThread(thread: NewThread & { codexThreadId: string }, from: string, through: number): void {
    this.#write(() => {
      this.#statement(`INSERT INTO threads (id, title, folder, created_at, updated_at, model, effort, codex_thread_id, permission)
        VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)`).run(thread.id, thread.title, thread.folder, thread.createdAt, thread.createdAt, thread.model ?? null,
        thread.effort ?? null, thread.codexThreadId, thread.permission ?? 'write');
      const rows = this.#statement('SELECT * FROM turns WHERE thread_id = ? AND position <= ? ORDER BY position').all(from, through) as unknown as TurnRow[];
      const copy = this.#statement(`INSERT INTO turns (id, thread_id, position, question, status, error, usage, started_at, ended_at, attachments, codex_turn_id)
        SELECT ?, ?, position, question, status, error, usage, started_at, ended_at, attachments, codex_turn_id FROM turns WHERE id = ?`);
      // The folder is copied with its files' times, so what these turns made still reads as theirs.
      const files = this.#statement(`INSERT INTO turn_files (thread_id, path, turn_id, size, changed_at)
        SELECT ?, path, ?, size, changed_at FROM turn_files WHERE turn_id = ?`);
      for (const row of rows) {
        const id = randomUUID();
        copy.run(id, thread.id, row.id);
        files.run(thread.id, id, row.id);
        this.#search.putQuestion(id, row.question);
        const items = this.#statement('SELECT body FROM items WHERE turn_id = ? ORDER BY position').all(row.id) as { body: string }[];
        for (const { body } of items) this.#putItem(id, JSON.parse(body) as Item);
      }
    });
  }

  /** How full the model's context was at the thread's last request. */
  setContext(threadId: string, context: Context): void {
    this.#write(() => this.#statement('UPDATE threads SET context = ? WHERE id = ?').run(JSON.stringify(context), threadId));
  }

  /** The questions queued behind the thread's running turn, oldest first. */
  queued(threadId: string): Queued[] {
    const rows = this.#statement('SELECT id, text, queued_at FROM queued WHERE thread_id = ? ORDER BY queued_at, rowid').all(threadId) as
      { id: string; text: string; queued_at: number }[];
    return rows.map((row) => ({ id: row.id, text: row.text, queuedAt: row.queued_at }));
  }

  enqueue(threadId: string, queued: Queued): void {
    this.#write(() => this.#statement('INSERT INTO queued (id, thread_id, text, queued_at) VALUES (?, ?, ?, ?)')
      .run(queued.id, threadId, queued.text, queued.queuedAt));
  }

  /** Changes a queued question's text, or takes it out (text null); false when it is no longer queued. */
  changeQueued(threadId: string, id: string, text: string | null): boolean {
    return this.#write(() => Number((text === null
      ? this.#statement('DELETE FROM queued WHERE thread_id = ? AND id = ?').run(threadId, id)
      : this.#statement('UPDATE queued SET text = ? WHERE thread_id = ? AND id = ?').run(text, threadId, id)).changes) > 0);
  }

  commit(batch: Batch): void {
    if (batch.turns.length === 0 && batch.items.length === 0 && !batch.tails?.length) return;
    this.#write(() => {
      for (const turn of batch.turns) this.#putTurn(turn);
      for (const { turnId, item } of batch.items) this.#putItem(turnId, item);
      const append = this.#statement('INSERT OR REPLACE INTO item_tails (turn_id, position, part, at, text) VALUES (?, ?, ?, ?, ?)');
      for (const tail of batch.tails ?? []) append.run(tail.turnId, tail.position, tail.part, tail.at, tail.text);
    });
  }

  /** Writes the item whole, in place of its JSON and tails. */
  #putItem(turnId: string, item: Item): void {
    this.#search.putItem(turnId, item);
    this.#statement(`INSERT INTO items (turn_id, position, status, body) VALUES (?, ?, ?, ?)
      ON CONFLICT (turn_id, position) DO UPDATE SET status = excluded.status, body = excluded.body`)
      .run(turnId, item.position, item.status, JSON.stringify(item));
    this.#statement('DELETE FROM item_tails WHERE turn_id = ? AND position = ?').run(turnId, item.position);
  }

  #putTurn(turn: TurnHead): void {
    this.#statement(`INSERT INTO turns (id, thread_id, position, question, status, error, usage, started_at, ended_at, attachments)
      VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)
      ON CONFLICT (id) DO UPDATE SET status = excluded.status, error = excluded.error, usage = excluded.usage,
        ended_at = excluded.ended_at`)
      .run(turn.id, turn.threadId, turn.position, turn.question, turn.status, turn.error,
        turn.usage ? JSON.stringify(turn.usage) : null, turn.startedAt, turn.endedAt,
        turn.attachments?.length ? JSON.stringify(turn.attachments) : null);
    this.#search.putQuestion(turn.id, turn.question);
    this.#statement('UPDATE threads SET updated_at = max(updated_at, ?) WHERE id = ?')
      .run(turn.endedAt ?? turn.startedAt, turn.threadId);
  }

  /**
   * Turns the last run left running were cut short by its end (a kill, a crash, a power loss):
   * they and their running items are marked so, with the reason given.
   */
  recover(reason: string, now: number): number {
    return this.#write(() => {
      const cut = this.#statement("SELECT id FROM turns WHERE status = 'running'").all() as { id: string }[];
      for (const { id } of cut) {
        const rows = this.#statement("SELECT status, body FROM items WHERE turn_id = ? AND status = 'running'")
          .all(id) as { status: string; body: string }[];
        for (const row of rows) this.#putItem(id, { ...this.#itemOf(id, row), status: 'stopped' } as Item);
      }
      this.#statement("UPDATE turns SET status = 'interrupted', error = ?, ended_at = ? WHERE status = 'running'").run(reason, now);
      return cut.length;
    });
  }

  close(): void {
    if (!this.#open) return;
    this.#open = false;
    this.#search.close();
    this.#db.close();
  }
}

/** How many of these turns, in order, fit the budget of items (a question counts as one); at least one. */
function withinBudget(rows: { item_count: number }[], itemBudget: number): number {
  let spent = 0;
  let taken = 0;
  while (taken < rows.length && (taken === 0 || spent + rows[taken]!.item_count + 1 <= itemBudget)) {
    spent += rows[taken]!.item_count + 1;
    taken += 1;
  }
  return taken;
}

const SUMMARY = 'id, title, created_at, updated_at, pinned, archived';

function summaryOf(row: Omit<ThreadRow, 'folder'>): StoredSummary {
  return {
    id: row.id, title: row.title, createdAt: row.created_at, updatedAt: row.updated_at,
    pinned: row.pinned === 1, archived: row.archived === 1,
  };
}

function headOf(row: TurnRow): TurnHead {
  const attachments = row.attachments ? { attachments: JSON.parse(row.attachments) as string[] } : {};
  return {
    ...attachments,
    id: row.id, threadId: row.thread_id, position: row.position, question: row.question,
    status: row.status as TurnHead['status'], error: row.error,
    usage: row.usage ? (JSON.parse(row.usage) as Usage) : null, startedAt: row.started_at, endedAt: row.ended_at,
  };
}

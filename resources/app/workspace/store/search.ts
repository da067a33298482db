// Full-text search over every question, answer, reasoning and command of every thread.
//
// The words are kept once, where the thread keeps them (the turn's question, the item's JSON);
// search_docs only numbers them. An index (FTS5's trigram tokenizer where this Node.js has it,
// one of our own otherwise; chosen once, at open) narrows a search to the rows that may hold the
// text, and fold() and includes() on the words decide, so either index gives the same answers.
// Text has no spaces in Chinese, hence trigrams (substrings) rather than words.
//
// An item is indexed when it settles, never while it streams. A store that has no index for this
// backend (an older store, or one last used by a Node.js with the other) gets one built in the
// background, newest turns first, a slice at a time; searches meanwhile find what is indexed so
// far, and say how far that is. A store closed halfway carries on where it stopped.
import type { DatabaseSync, StatementSync } from 'node:sqlite';
import type { Clock, Timer } from '../clock.ts';
import type { Item, SearchAnswer, SearchHit } from '../model.ts';
import type { BackendKind, BackendName, Candidates, Doc, IndexBackend } from './indexBackend.ts';
import { fts5, hasFts5 } from './fts5Index.ts';
import { own } from './ownIndex.ts';
import { anyRetired, emptyRetired, retireTable } from './retired.ts';
import { preparedOnce } from './prepared.ts';
import { fold, likePattern, snippetOf, wordsOf } from './words.ts';

/** At most this many hits, newest first. */
export const SEARCH_LIMIT = 50;
// Search text longer than this is refused: nobody types it, and a scan of it would be long.
export { SEARCH_MAX_LENGTH } from '../entryTexts.mjs';
const QUESTION = -1;
const BACKENDS: Record<BackendName, BackendKind> = { fts5, own };
// Rows written as they come are numbered up from here, and rows a build makes down from it: the
// numbers keep the order of time whichever comes first, and newest first is highest first.
const MIDDLE = 2 ** 32;
/**
 * A slice of the background work: about this much text indexed, or this many retired rows emptied.
 * A page's request waits for the slice under way: 64 KiB took our own index up to 121 ms of
 * processor time on the benchmark's store, and a search on a loaded machine up to 1.6 s.
 */
const SLICE_CHARS = 16 * 1024;
const SLICE_ROWS = 500;
// Never at once: each slice is a task of its own, and the page's requests come between them.
const SLICE_GAP_MS = 1;
const SCAN_BATCH = 500;
const NEWEST_BATCHES = 4;
const CHECK_BATCH = 100;
// A slice that failed (a full disk) is tried again after this long, not at once.
const RETRY_MS = 2000;

/** Runs work in one transaction of the store's. */
export type Transaction = <T>(work: () => T) => T;

export interface SearchOptions {
  /** The backend wanted; FTS5 where this Node.js has it, when absent. */
  backend?: BackendName | undefined;
  clock: Clock;
  transaction: Transaction;
}

interface Row {
  id: number; position: number; thread_id: string; turn_position: number; question: string; body: string | null; title: string;
}

export class SearchIndex {
  readonly #statement: (sql: string) => StatementSync;
  readonly #db: DatabaseSync;
  readonly #backend: IndexBackend;
  readonly #clock: Clock;
  readonly #transaction: Transaction;
  #timer: Timer | null = null;
  #closed = false;

  private constructor(db: DatabaseSync, backend: IndexBackend, options: SearchOptions) {
    this.#db = db;
    this.#statement = preparedOnce(db);
    this.#backend = backend;
    this.#clock = options.clock;
    this.#transaction = options.transaction;
  }

  /** The store's index, started afresh if it was kept by another backend or none; call inside a transaction. */
  static attach(db: DatabaseSync, options: SearchOptions): SearchIndex {
    const kind = BACKENDS[options.backend ?? (hasFts5() ? 'fts5' : 'own')];
    const kept = db.prepare('SELECT backend FROM search_state').get() as { backend: BackendName } | undefined;
    if (kept?.backend !== kind.name) start(db, kept ? BACKENDS[kept.backend] : null, kind);
    return new SearchIndex(db, kind.open(db), options);
  }

  /** Starts the background work, if there is any; after the transaction that attached the index. */
  resume(): void {
    const { done, total } = this.progress();
    if (done < total || anyRetired(this.#db)) this.#schedule(SLICE_GAP_MS);
  }

  close(): void {
    this.#closed = true;
    this.#timer?.cancel();
    this.#timer = null;
  }

  /** How many of the turns the index was started with it holds. */
  progress(): SearchAnswer['indexed'] {
    const { total } = this.#statement('SELECT total FROM search_state').get() as { total: number };
    const { left } = this.#statement('SELECT count(*) AS left FROM search_pending').get() as { left: number };
    return { done: total - left, total };
  }

  /** Indexes a turn's question, unless it is; call in the transaction that writes the turn. */
  putQuestion(turnId: string, question: string): void {
    const id = this.#newId();
    if (Number(this.#statement('INSERT OR IGNORE INTO search_docs (id, turn_id, position) VALUES (?, ?, ?)').run(id, turnId, QUESTION).changes) > 0) {
      this.#backend.put([{ id, folded: fold(question) }]);
    }
  }

  /** Indexes a settled item's words; call before the transaction writes the item, while the index still has what it replaces. */
  putItem(turnId: string, item: Item): void {
    const words = item.status === 'running' ? null : wordsOf(item);
    if (words === null) return;
    const kept = this.#statement('SELECT id FROM search_docs WHERE turn_id = ? AND position = ?').get(turnId, item.position) as
      { id: number } | undefined;
    let id: number;
    if (kept) {
      id = kept.id;
      this.#backend.forget(id);
    } else {
      id = this.#newId();
      this.#statement('INSERT INTO search_docs (id, turn_id, position) VALUES (?, ?, ?)').run(id, turnId, item.position);
    }
    this.#backend.put([{ id, folded: fold(words) }]);
  }

  #newId(): number {
    return (this.#statement('SELECT max(coalesce(max(id), 0) + 1, ?) AS id FROM search_docs').get(MIDDLE) as { id: number }).id;
  }

  /** The newest places holding this text, any case; none for blank text. */
  search(text: string): SearchAnswer {
    const indexed = this.progress();
    // A NUL pads our own trigrams; nobody searches for one.
    const wanted = fold(text.trim()).replaceAll('\0', '');
    if (wanted === '') return { results: [], indexed };
    const results: SearchHit[] = [];
    const like = likePattern(wanted);
    const first = this.#backend.candidates(wanted, Number.MAX_SAFE_INTEGER);
    const more = first === null ? this.#scan(like) : (below: number) => this.#backend.candidates(wanted, below)!;
    for (let found = first ?? more(Number.MAX_SAFE_INTEGER); ; found = more(found.next)) {
      results.push(...this.#hits(found.ids, wanted, like, SEARCH_LIMIT - results.length));
      if (results.length >= SEARCH_LIMIT || found.next === null) break;
    }
    return { results, indexed };
  }

  /**
   * Every row is a candidate: the newest first, a batch at a time, which soon finds text that is
   * common; then, for text that is not, those of the rest whose kept text is like it, found in one
   * pass in the order they are kept in (going to each row in turn from the newest reads the store
   * in no order, several times slower).
   */
  #scan(like: string): (below: number) => Candidates {
    let batches = 0;
    return (below) => {
      batches += 1;
      if (batches > NEWEST_BATCHES) {
        // CROSS JOIN: SQLite walks the kept text first, as it lies, not the rows by their numbers.
        const rest = this.#statement(`SELECT d.id FROM items i CROSS JOIN search_docs d ON d.turn_id = i.turn_id AND d.position = i.position
          WHERE i.body LIKE ?1 ESCAPE '\\' AND d.id < ?2
          UNION ALL SELECT d.id FROM turns t CROSS JOIN search_docs d ON d.turn_id = t.id AND d.position = ${QUESTION}
          WHERE t.question LIKE ?1 ESCAPE '\\' AND d.id < ?2`).all(like, below) as { id: number }[];
        return { ids: rest.map((row) => row.id).sort((a, b) => b - a), next: null };
      }
      const ids = (this.#statement(`SELECT id FROM search_docs WHERE id < ? ORDER BY id DESC LIMIT ${SCAN_BATCH}`).all(below) as { id: number }[])
        .map((row) => row.id);
      return { ids, next: ids.length < SCAN_BATCH ? null : ids.at(-1)! };
    };
  }

  /** Of these candidates, newest first, those whose words hold the text; at most this many. */
  #hits(ids: number[], wanted: string, like: string, limit: number): SearchHit[] {
    const hits: SearchHit[] = [];
    // A batch at a time: a common word has thousands of candidates, and the first few hold it.
    for (let at = 0; at < ids.length && hits.length < limit; at += CHECK_BATCH) {
      hits.push(...this.#held(ids.slice(at, at + CHECK_BATCH), wanted, like, limit - hits.length));
    }
    return hits;
  }

  #held(ids: number[], wanted: string, like: string, limit: number): SearchHit[] {
    // SQLite passes over most rows that do not hold the text far sooner than JSON.parse() would.
    const rows = this.#statement(`SELECT d.id, d.position, t.thread_id, t.position AS turn_position, t.question, i.body, th.title
      FROM search_docs d JOIN turns t ON t.id = d.turn_id JOIN threads th ON th.id = t.thread_id
      LEFT JOIN items i ON i.turn_id = d.turn_id AND i.position = d.position
      WHERE d.id IN (SELECT value FROM json_each(?)) AND (CASE WHEN d.position = ${QUESTION} THEN t.question ELSE i.body END) LIKE ? ESCAPE '\\'
      ORDER BY d.id DESC`).all(JSON.stringify(ids), like) as unknown as Row[];
    const hits: SearchHit[] = [];
    for (const row of rows) {
      const words = row.position === QUESTION ? row.question : row.body === null ? null : wordsOf(JSON.parse(row.body) as Item);
      if (words === null) continue;
      const folded = fold(words);
      if (!folded.includes(wanted)) continue;
      hits.push({
        threadId: row.thread_id, title: row.title, turnPosition: row.turn_position, itemPosition: row.position,
        snippet: snippetOf(words, folded, wanted),
      });
      if (hits.length === limit) break;
    }
    return hits;
  }

  #schedule(ms: number): void {
    if (this.#closed || this.#timer) return;
    this.#timer = this.#clock.after(ms, () => {
      this.#timer = null;
      let more: boolean;
      try {
        more = this.#transaction(() => this.#slice());
      } catch {
        this.#schedule(RETRY_MS);
        return;
      }
      if (more) this.#schedule(SLICE_GAP_MS);
    });
  }

  /** One slice of the background work: retired tables emptied first, then turns indexed; false when all is done. */
  #slice(): boolean {
    if (emptyRetired(this.#db, SLICE_ROWS)) return true;
    const pending = this.#statement('SELECT seq, turn_id FROM search_pending ORDER BY seq DESC LIMIT 64').all() as
      { seq: number; turn_id: string }[];
    if (pending.length === 0) return false;
    let next = (this.#statement('SELECT min(coalesce(min(id), ?), ?) AS id FROM search_docs').get(MIDDLE, MIDDLE) as { id: number }).id;
    const docs: Doc[] = [];
    let chars = 0;
    for (const { seq, turn_id: turnId } of pending) {
      const words = this.#wordsOfTurn(turnId);
      // A turn's rows go in ascending, below those of the turns after it.
      next -= words.length;
      for (const [at, [position, text]] of words.entries()) {
        const id = next + at;
        if (Number(this.#statement('INSERT OR IGNORE INTO search_docs (id, turn_id, position) VALUES (?, ?, ?)').run(id, turnId, position).changes) === 0) continue;
        docs.push({ id, folded: fold(text) });
        chars += text.length;
      }
      this.#statement('DELETE FROM search_pending WHERE seq = ?').run(seq);
      if (chars >= SLICE_CHARS) break;
    }
    this.#backend.put(docs);
    return true;
  }

  /** The settled words a turn holds, by position: its question first; none when the turn is gone. */
  #wordsOfTurn(turnId: string): [number, string][] {
    const turn = this.#statement('SELECT question FROM turns WHERE id = ?').get(turnId) as { question: string } | undefined;
    if (!turn) return [];
    const words: [number, string][] = [[QUESTION, turn.question]];
    const items = this.#statement("SELECT position, body FROM items WHERE turn_id = ? AND status != 'running' ORDER BY position").all(turnId) as
      { position: number; body: string }[];
    for (const item of items) {
      const text = wordsOf(JSON.parse(item.body) as Item);
      if (text !== null) words.push([item.position, text]);
    }
    return words;
  }
}

/** A new, empty index for this backend, with every turn the store holds still to index. */
function start(db: DatabaseSync, previous: BackendKind | null, kind: BackendKind): void {
  // The old index's triggers go before search_docs is renamed: a rename carries them along.
  previous?.retire(db);
  retireTable(db, 'search_docs');
  retireTable(db, 'search_pending');
  db.exec(`
    DELETE FROM search_state;
    CREATE TABLE search_docs (
      id INTEGER PRIMARY KEY,
      turn_id TEXT NOT NULL REFERENCES turns (id) ON DELETE CASCADE,
      position INTEGER NOT NULL,
      UNIQUE (turn_id, position)
    ) STRICT;
    -- The turns still to index, oldest first; a deleted one is passed over when its turn comes.
    CREATE TABLE search_pending (seq INTEGER PRIMARY KEY, turn_id TEXT NOT NULL) STRICT;
  `);
  kind.create(db);
  const { changes } = db.prepare('INSERT INTO search_pending (turn_id) SELECT id FROM turns ORDER BY started_at, thread_id, position').run();
  db.prepare('INSERT INTO search_state (backend, total) VALUES (?, ?)').run(kind.name, Number(changes));
}

// Full-text search over every question, answer, reasoning and command of every thread.
//
// The words are kept once, case-folded, in search_docs (one row a question or item, gone with its
// turn by the foreign key). Two interchangeable indexes sit over it: SQLite's FTS5 with the trigram
// tokenizer where the SQLite in this Node.js has it, and otherwise a table of trigrams of our own.
// Both only narrow the rows down; the last word is always instr() on the folded text, so the two
// give the same answers, and the search text is never syntax: it is one quoted FTS5 string, and a
// bound parameter everywhere else. Text has no spaces in Chinese, hence trigrams (substrings)
// rather than words; shorter search text is looked for by scanning.
//
// Both indexes lose a deleted row's words by triggers, so a thread deleted with plain SQL leaves
// nothing behind.
// search_state names the index a store has; a store last used by a Node.js without FTS5 (or with
// it) has its index built anew for the other one when it is opened.
import { DatabaseSync, type StatementSync } from 'node:sqlite';
import type { Item } from '../model.ts';

export type SearchBackend = 'fts5' | 'own';

export interface SearchHit {
  threadId: string;
  title: string;
  turnPosition: number;
  /** The item's place in the turn; -1 for the turn's question. */
  itemPosition: number;
  /** Plain and matching text by turns, starting with plain: the odd ones are the matches. */
  snippet: string[];
}

/** At most this many hits, newest first. */
export const SEARCH_LIMIT = 50;
/** Search text longer than this is refused: nobody types it, and a scan of it would be long. */
export const SEARCH_MAX_LENGTH = 200;
const QUESTION = -1;
const SNIPPET_CONTEXT = 40;

let fts5Here: boolean | undefined;

/** Whether the SQLite in this Node.js has FTS5 with the trigram tokenizer. */
export function hasFts5(): boolean {
  if (fts5Here === undefined) {
    const probe = new DatabaseSync(':memory:');
    try {
      probe.exec("CREATE VIRTUAL TABLE probe USING fts5(text, tokenize = 'trigram')");
      fts5Here = true;
    } catch {
      fts5Here = false;
    } finally {
      probe.close();
    }
  }
  return fts5Here;
}

/**
 * Lower case, one UTF-16 unit for one, so an offset in the folded text is the same offset in the
 * original (a snippet is cut from the original where the folded one matched).
 */
export function fold(text: string): string {
  const lower = text.toLowerCase();
  // Lowering never shortens a character, so equal lengths mean every one kept its length.
  if (lower.length === text.length) return lower;
  let out = '';
  for (const char of text) {
    const low = char.toLowerCase();
    out += low.length === char.length ? low : char;
  }
  return out;
}

/** The words of an item a reader may look for; null for items without any. */
export function wordsOf(item: Item): string | null {
  switch (item.kind) {
    case 'answer':
    case 'plan':
    case 'notice':
      return item.text;
    case 'reasoning':
      return item.parts.join('\n');
    case 'command':
      return `${item.command}\n${item.output}`;
    case 'webSearch':
      return item.query;
    default:
      return null;
  }
}

/** The trigrams of folded text, as integers (three UTF-16 units), each once. */
function trigrams(folded: string): Set<number> {
  const grams = new Set<number>();
  for (let at = 0; at + 3 <= folded.length; at += 1) {
    grams.add(folded.charCodeAt(at) * 2 ** 32 + folded.charCodeAt(at + 1) * 2 ** 16 + folded.charCodeAt(at + 2));
  }
  return grams;
}

/** The search tables, made once by a migration; filled from the items already kept. */
export function createSearchTables(db: DatabaseSync): void {
  db.exec(`
    CREATE TABLE search_docs (
      id INTEGER PRIMARY KEY,
      turn_id TEXT NOT NULL REFERENCES turns (id) ON DELETE CASCADE,
      position INTEGER NOT NULL,
      folded TEXT NOT NULL,
      UNIQUE (turn_id, position)
    ) STRICT;
    CREATE TABLE search_grams (gram INTEGER NOT NULL, doc INTEGER NOT NULL, PRIMARY KEY (gram, doc)) STRICT, WITHOUT ROWID;
    CREATE INDEX search_grams_by_doc ON search_grams (doc);
    CREATE TABLE search_state (backend TEXT NOT NULL) STRICT;
    CREATE TRIGGER search_grams_delete AFTER DELETE ON search_docs BEGIN
      DELETE FROM search_grams WHERE doc = old.id;
    END;
  `);
  const put = db.prepare('INSERT INTO search_docs (turn_id, position, folded) VALUES (?, ?, ?)');
  const turns = db.prepare('SELECT id, question FROM turns ORDER BY started_at, thread_id, position').all() as
    { id: string; question: string }[];
  const items = db.prepare('SELECT position, body FROM items WHERE turn_id = ? ORDER BY position');
  for (const turn of turns) {
    put.run(turn.id, QUESTION, fold(turn.question));
    for (const item of items.all(turn.id) as { position: number; body: string }[]) {
      const words = wordsOf(JSON.parse(item.body) as Item);
      if (words) put.run(turn.id, item.position, fold(words));
    }
  }
}

const FTS5_SCHEMA = `
  CREATE VIRTUAL TABLE search_fts USING fts5(folded, content = 'search_docs', content_rowid = 'id', tokenize = 'trigram');
  CREATE TRIGGER search_fts_insert AFTER INSERT ON search_docs BEGIN
    INSERT INTO search_fts (rowid, folded) VALUES (new.id, new.folded);
  END;
  CREATE TRIGGER search_fts_delete AFTER DELETE ON search_docs BEGIN
    INSERT INTO search_fts (search_fts, rowid, folded) VALUES ('delete', old.id, old.folded);
  END;
  CREATE TRIGGER search_fts_update AFTER UPDATE OF folded ON search_docs BEGIN
    INSERT INTO search_fts (search_fts, rowid, folded) VALUES ('delete', old.id, old.folded);
    INSERT INTO search_fts (rowid, folded) VALUES (new.id, new.folded);
  END;
  INSERT INTO search_fts (search_fts) VALUES ('rebuild');
`;

export class SearchIndex {
  readonly backend: SearchBackend;
  readonly #db: DatabaseSync;
  readonly #statements = new Map<string, StatementSync>();

  private constructor(db: DatabaseSync, backend: SearchBackend) {
    this.#db = db;
    this.backend = backend;
  }

  /**
   * The index of this store, brought to the backend wanted (FTS5 where there is one) if it was
   * last kept by the other; call inside a transaction.
   */
  static attach(db: DatabaseSync, wanted: SearchBackend = hasFts5() ? 'fts5' : 'own'): SearchIndex {
    const index = new SearchIndex(db, wanted);
    const kept = db.prepare('SELECT backend FROM search_state').get() as { backend: SearchBackend } | undefined;
    if (kept?.backend === wanted) return index;
    // The FTS5 table cannot be dropped without FTS5; without its triggers nothing touches it.
    db.exec(`DELETE FROM search_grams; DELETE FROM search_state; DROP TRIGGER IF EXISTS search_fts_insert;
      DROP TRIGGER IF EXISTS search_fts_delete; DROP TRIGGER IF EXISTS search_fts_update;`);
    if (wanted === 'fts5') {
      db.exec('DROP TABLE IF EXISTS search_fts;');
      db.exec(FTS5_SCHEMA);
    } else {
      const docs = db.prepare('SELECT id, folded FROM search_docs').all() as { id: number; folded: string }[];
      for (const doc of docs) index.#addGrams(doc.id, trigrams(doc.folded));
    }
    db.prepare('INSERT INTO search_state (backend) VALUES (?)').run(wanted);
    return index;
  }

  #statement(sql: string): StatementSync {
    let statement = this.#statements.get(sql);
    if (!statement) {
      statement = this.#db.prepare(sql);
      this.#statements.set(sql, statement);
    }
    return statement;
  }

  /** Keeps a question's words; call in the transaction that writes its turn. */
  putQuestion(turnId: string, question: string): void {
    this.#put(turnId, QUESTION, question);
  }

  /** Keeps (or replaces) an item's words; call in the transaction that writes the item. */
  putItem(turnId: string, item: Item): void {
    const words = wordsOf(item);
    if (words !== null) this.#put(turnId, item.position, words);
  }

  #put(turnId: string, position: number, words: string): void {
    const folded = fold(words);
    const old = this.#statement('SELECT id, folded FROM search_docs WHERE turn_id = ? AND position = ?').get(turnId, position) as
      { id: number; folded: string } | undefined;
    if (old?.folded === folded) return;
    let id: number;
    if (old) {
      this.#statement('UPDATE search_docs SET folded = ? WHERE id = ?').run(folded, old.id);
      id = old.id;
    } else {
      id = Number(this.#statement('INSERT INTO search_docs (turn_id, position, folded) VALUES (?, ?, ?)').run(turnId, position, folded).lastInsertRowid);
    }
    if (this.backend === 'fts5') return;
    // A streamed answer mostly grows at its end: only the trigrams it gained or lost are written.
    const now = trigrams(folded);
    if (old) {
      const before = trigrams(old.folded);
      const drop = this.#statement('DELETE FROM search_grams WHERE gram = ? AND doc = ?');
      for (const gram of before) if (!now.has(gram)) drop.run(gram, id);
      for (const gram of before) now.delete(gram);
    }
    this.#addGrams(id, now);
  }

  #addGrams(doc: number, grams: Set<number>): void {
    const add = this.#statement('INSERT OR IGNORE INTO search_grams (gram, doc) VALUES (?, ?)');
    for (const gram of grams) add.run(gram, doc);
  }

  /** The newest places holding this text, any case; none for blank text. */
  search(text: string): SearchHit[] {
    const wanted = fold(text.trim());
    if (wanted === '') return [];
    const rows = this.#candidates(wanted);
    const title = this.#statement('SELECT threads.title FROM threads WHERE id = ?');
    const item = this.#statement('SELECT body FROM items WHERE turn_id = ? AND position = ?');
    return rows.map((row): SearchHit => {
      let words: string | null = row.question;
      if (row.position !== QUESTION) {
        const body = item.get(row.turn_id, row.position) as { body: string } | undefined;
        words = body ? wordsOf(JSON.parse(body.body) as Item) : null;
      }
      return {
        threadId: row.thread_id,
        title: (title.get(row.thread_id) as { title: string }).title,
        turnPosition: row.turn_position,
        itemPosition: row.position,
        snippet: snippetOf(words ?? row.folded, row.folded, wanted),
      };
    });
  }

  #candidates(wanted: string): CandidateRow[] {
    const columns = 'd.id, d.turn_id, d.position, d.folded, t.thread_id, t.position AS turn_position, t.question';
    const select = `SELECT ${columns} FROM search_docs d JOIN turns t ON t.id = d.turn_id`;
    const grams = [...trigrams(wanted)];
    if (grams.length === 0 || [...wanted].length < 3) {
      return this.#statement(`${select} WHERE instr(d.folded, ?) > 0 ORDER BY d.id DESC LIMIT ${SEARCH_LIMIT}`)
        .all(wanted) as unknown as CandidateRow[];
    }
    if (this.backend === 'fts5') {
      return this.#statement(`SELECT ${columns} FROM search_fts f JOIN search_docs d ON d.id = f.rowid JOIN turns t ON t.id = d.turn_id
        WHERE search_fts MATCH ? AND instr(d.folded, ?) > 0 ORDER BY f.rowid DESC LIMIT ${SEARCH_LIMIT}`)
        .all(`"${wanted.replaceAll('"', '""')}"`, wanted) as unknown as CandidateRow[];
    }
    // The rarest trigram leads (counted up to a bound, so a common one costs little); the others
    // are looked up in the primary key for each of its rows, newest first.
    const counted = this.#statement('SELECT count(*) AS n FROM (SELECT 1 FROM search_grams WHERE gram = ? LIMIT 20000)');
    const ordered = grams.map((gram) => ({ gram, n: (counted.get(gram) as { n: number }).n })).sort((a, b) => a.n - b.n);
    if (ordered[0]!.n === 0) return [];
    const others = ordered.slice(1, 8);
    const checks = others.map(() => 'AND EXISTS (SELECT 1 FROM search_grams o WHERE o.gram = ? AND o.doc = g.doc)').join(' ');
    return this.#statement(`SELECT ${columns} FROM search_grams g JOIN search_docs d ON d.id = g.doc JOIN turns t ON t.id = d.turn_id
      WHERE g.gram = ? ${checks} AND instr(d.folded, ?) > 0 ORDER BY g.doc DESC LIMIT ${SEARCH_LIMIT}`)
      .all(ordered[0]!.gram, ...others.map((other) => other.gram), wanted) as unknown as CandidateRow[];
  }
}

interface CandidateRow {
  id: number; turn_id: string; position: number; folded: string; thread_id: string; turn_position: number; question: string;
}

/** Text around the first match, with every match in it marked. */
export function snippetOf(original: string, folded: string, wanted: string): string[] {
  // The item may have changed since it was indexed (a crash between the two): then the folded
  // text is the one shown, it matches for sure.
  const [text, lower] = fold(original) === folded ? [original, folded] : [folded, folded];
  const first = Math.max(0, lower.indexOf(wanted));
  const start = Math.max(0, first - SNIPPET_CONTEXT);
  const end = Math.min(text.length, first + wanted.length + SNIPPET_CONTEXT * 2);
  const parts: string[] = [];
  let at = start;
  for (let found = lower.indexOf(wanted, start); found !== -1 && found + wanted.length <= end; found = lower.indexOf(wanted, found + wanted.length)) {
    parts.push(text.slice(at, found), text.slice(found, found + wanted.length));
    at = found + wanted.length;
  }
  parts.push(text.slice(at, end));
  if (start > 0) parts[0] = `…${parts[0]!.trimStart()}`;
  if (end < text.length) parts[parts.length - 1] = `${parts.at(-1)!.trimEnd()}…`;
  return parts;
}

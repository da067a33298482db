// The index where the SQLite in this Node.js has FTS5: its trigram tokenizer, contentless. It keeps
// no copy of the words: we hand it each row's words folded by fold(), so its own case folding
// sees what the search text's folding saw, and rows leave it by their id alone (contentless_delete).
// It keeps no positions either (detail = 'none'): a third of the size; includes() checks adjacency.
import { DatabaseSync, type StatementSync } from 'node:sqlite';
import { spread, type BackendKind, type Candidates, type Doc, type IndexBackend } from './indexBackend.ts';
import { preparedOnce } from './prepared.ts';
import { retireTable } from './retired.ts';

const TABLE = 'search_fts5';
/** At most this many rows are handed on at a time: a common word is in most of them. */
const BATCH = 200;
/** One or two characters that begin more trigrams than this are every row's (see candidates). */
const COMMON_START = 24;
// FTS5 merges the segments of its index by itself in bursts that grow with it (a tenth of a second
// on a store of years); with that off, each write merges a little of it instead.
const MERGE_PAGES = 40;
// The end mark makes the last two characters begin a trigram too, so text of one or two
// characters is found through the trigrams it begins.
const END = '\u0001\u0001';

let here: boolean | undefined;

/** Whether the SQLite in this Node.js has FTS5 with the trigram tokenizer. */
export function hasFts5(): boolean {
  if (here === undefined) {
    const probe = new DatabaseSync(':memory:');
    try {
      probe.exec("CREATE VIRTUAL TABLE probe USING fts5(text, tokenize = 'trigram')");
      here = true;
    } catch {
      here = false;
    } finally {
      probe.close();
    }
  }
  return here;
}

/**
 * Retires an FTS5 table: its triggers go, and its big shadow tables are renamed to be emptied in
 * the background. The virtual table itself can be dropped only with FTS5 at hand; without it, it
 * stays, with the two small tables FTS5 reads to drop it, until an FTS5 index is made where it stood.
 */
export function retireFts5(db: DatabaseSync, table: string, triggers: readonly string[]): void {
  for (const trigger of triggers) db.exec(`DROP TRIGGER IF EXISTS "${trigger}"`);
  retireTable(db, `${table}_data`);
  retireTable(db, `${table}_docsize`);
  if (hasFts5()) db.exec(`DROP TABLE IF EXISTS "${table}"`);
}

/** What the first search index kept in FTS5, dropped where it is found. */
export const FIRST_FTS5 = { table: 'search_fts', triggers: ['search_fts_insert', 'search_fts_delete', 'search_fts_update'] };

class Fts5Index implements IndexBackend {
  readonly #db: DatabaseSync;
  readonly #statement: (sql: string) => StatementSync;
  #vocabulary = false;

  constructor(db: DatabaseSync) {
    this.#db = db;
    this.#statement = preparedOnce(db);
  }

  put(docs: readonly Doc[]): void {
    const insert = this.#statement(`INSERT INTO ${TABLE} (rowid, words) VALUES (?, ?)`);
    for (const doc of docs) insert.run(doc.id, doc.folded + END);
    this.#statement(`INSERT INTO ${TABLE} (${TABLE}, rank) VALUES ('merge', ${MERGE_PAGES})`).run();
  }

  forget(id: number): void {
    this.#statement(`DELETE FROM ${TABLE} WHERE rowid = ?`).run(id);
  }

  candidates(wanted: string, below: number): Candidates | null {
    const chars = [...wanted];
    let query: string;
    if (chars.length <= 2) {
      // Text that begins many trigrams is common: the newest rows hold it sooner than FTS5 goes
      // through all of them.
      const terms = this.#termsFrom(chars);
      if (terms.length > COMMON_START) return null;
      if (terms.length === 0) return { ids: [], next: null };
      query = terms.map(quoted).join(' OR ');
    } else {
      const grams = [...new Set(Array.from({ length: chars.length - 2 }, (_, at) => chars.slice(at, at + 3).join('')))];
      query = spread(grams).map(quoted).join(' ');
    }
    const ids = (this.#statement(`SELECT rowid AS id FROM ${TABLE} WHERE ${TABLE} MATCH ? AND rowid < ? ORDER BY rowid DESC LIMIT ${BATCH}`)
      .all(query, below) as { id: number }[]).map((row) => row.id);
    return { ids, next: ids.length < BATCH ? null : ids.at(-1)! };
  }

  /** The trigrams the index has that begin with these characters. */
  #termsFrom(start: string[]): string[] {
    if (!this.#vocabulary) {
      this.#db.exec(`CREATE VIRTUAL TABLE IF NOT EXISTS temp.search_vocab USING fts5vocab(main, '${TABLE}', 'row')`);
      this.#vocabulary = true;
    }
    const end = above(start);
    const terms = end === null
      ? this.#statement(`SELECT term FROM temp.search_vocab WHERE term >= ? LIMIT ${COMMON_START + 1}`).all(start.join(''))
      : this.#statement(`SELECT term FROM temp.search_vocab WHERE term >= ? AND term < ? LIMIT ${COMMON_START + 1}`).all(start.join(''), end);
    return (terms as { term: string }[]).map((row) => row.term);
  }
}

/**
 * The least string above every string that begins with these characters, in code point order
 * (UTF-8's, which SQLite compares); null when they are all U+10FFFF and nothing is above.
 */
function above(start: string[]): string | null {
  for (let i = start.length - 1; i >= 0; i -= 1) {
    const next = start[i]!.codePointAt(0)! + 1;
    // A lone surrogate would reach SQLite as U+FFFD, far above where it stands.
    if (next <= 0x10ffff) return start.slice(0, i).join('') + String.fromCodePoint(next === 0xd800 ? 0xe000 : next);
  }
  return null;
}

/** Each trigram goes to FTS5 as a quoted string: the search text is never query syntax. */
const quoted = (term: string) => `"${term.replaceAll('"', '""')}"`;

const TRIGGER = 'search_fts5_forget';

export const fts5: BackendKind = {
  name: 'fts5',
  create(db) {
    // Names left by an index retired where FTS5 was missing, and by the first search index.
    db.exec(`DROP TABLE IF EXISTS ${TABLE}; DROP TABLE IF EXISTS ${FIRST_FTS5.table};`);
    db.exec(`
      CREATE VIRTUAL TABLE ${TABLE} USING fts5(words, content = '', contentless_delete = 1, detail = 'none', tokenize = 'trigram');
      INSERT INTO ${TABLE} (${TABLE}, rank) VALUES ('automerge', 0);
      INSERT INTO ${TABLE} (${TABLE}, rank) VALUES ('crisismerge', 64);
      CREATE TRIGGER ${TRIGGER} AFTER DELETE ON search_docs BEGIN
        DELETE FROM ${TABLE} WHERE rowid = old.id;
      END;
    `);
  },
  retire: (db) => retireFts5(db, TABLE, [TRIGGER]),
  open: (db) => new Fts5Index(db),
};

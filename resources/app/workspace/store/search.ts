// Full-text search over every question, answer, reasoning and command of every thread.
//
// The words are kept once, case-folded, in search_docs (one row a question or item, gone with its
// turn by the foreign key). Two interchangeable indexes sit over it: SQLite's FTS5 with the trigram
// tokenizer where the SQLite in this Node.js has it, and otherwise a table of trigrams of our own.
// Text has no spaces in Chinese, hence trigrams (substrings) rather than words. Both indexes only
// narrow the rows down to those holding every trigram of the search text (two characters: any
// trigram they begin; one character is looked for by a scan); the last word is always instr() on
// the folded text, so the two give the same answers. The search text is never syntax: each trigram
// goes to FTS5 as a quoted string, and everything else as a bound parameter.
//
// A row deleted by plain SQL (a thread and its turns) leaves the FTS5 index by its triggers, and
// our own index by the store's next search or write, which a trigger leaves it a note for.
// search_state names the index a store has; a store last used by a Node.js without FTS5 (or with
// it) has its index built anew for the other one when it is opened.
import { DatabaseSync, type StatementSync } from 'node:sqlite';
import type { Item, SearchHit } from '../model.ts';
import { preparedOnce } from './prepared.ts';

export type SearchBackend = 'fts5' | 'own';

/** At most this many hits, newest first. */
export const SEARCH_LIMIT = 50;
/** Search text longer than this is refused: nobody types it, and a scan of it would be long. */
export const SEARCH_MAX_LENGTH = 200;
const QUESTION = -1;
const SNIPPET_CONTEXT = 40;
/** Two characters that begin more trigrams than this are looked for by a scan (see #candidates). */
const COMMON_PAIR = 24;

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

const GRAM = 2 ** 16;
/** Rows of our own index cover this many consecutive search_docs ids each (a power of two). */
const BLOCK = 4096;
const BLOCK_BITS = 12;

/**
 * The trigrams of folded text as integers (three UTF-16 units), each once. The text is padded
 * with two NULs, so one and two characters begin a trigram wherever they stand, the last two too:
 * two-character search text is a range of trigrams.
 */
function trigrams(folded: string): Set<number> {
  const grams = new Set<number>();
  const padded = `${folded}\0\0`;
  for (let at = 0; at + 3 <= padded.length; at += 1) {
    grams.add(padded.charCodeAt(at) * GRAM * GRAM + padded.charCodeAt(at + 1) * GRAM + padded.charCodeAt(at + 2));
  }
  return grams;
}

/** Places in a block, as a row of our own index keeps them: two bytes each, in no order. */
const placesOf = (blob: Uint8Array) => new Uint16Array(blob.buffer.slice(blob.byteOffset, blob.byteOffset + blob.byteLength));
const blobOf = (places: Iterable<number>) => new Uint8Array(Uint16Array.from(places).buffer);

/** The search tables, made once by a migration; filled from the items already kept. */
export function createSearchTables(db: DatabaseSync): void {
  db.exec(`
    CREATE TABLE search_docs (
      id INTEGER PRIMARY KEY,
      turn_id TEXT NOT NULL REFERENCES turns (id) ON DELETE CASCADE,
      position INTEGER NOT NULL,
      folded TEXT NOT NULL,
      -- What FTS5 indexes: the end mark makes the last two characters begin a trigram too.
      marked TEXT GENERATED ALWAYS AS (folded || char(1)) VIRTUAL,
      UNIQUE (turn_id, position)
    ) STRICT;
    CREATE TABLE search_state (backend TEXT NOT NULL) STRICT;
    -- Our own index: for a trigram and a block of ids, the places in the block holding it.
    CREATE TABLE search_grams (gram INTEGER NOT NULL, block INTEGER NOT NULL, places BLOB NOT NULL, PRIMARY KEY (block, gram)) STRICT, WITHOUT ROWID;
    -- Rows our own index must still forget (SQL alone cannot edit its rows): the store does, before
    -- it next searches or writes.
    CREATE TABLE search_forgotten (doc INTEGER PRIMARY KEY, folded TEXT NOT NULL) STRICT;
    CREATE TRIGGER search_grams_forget AFTER DELETE ON search_docs WHEN (SELECT backend FROM search_state) = 'own' BEGIN
      INSERT OR REPLACE INTO search_forgotten (doc, folded) VALUES (old.id, old.folded);
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

// FTS5 finds rows holding every trigram of the text (it keeps no positions: a third of the size),
// or for two characters any trigram they begin; instr() keeps those holding the text itself.
const FTS5_SCHEMA = `
  CREATE VIRTUAL TABLE search_fts USING fts5(marked, content = 'search_docs', content_rowid = 'id', tokenize = 'trigram', detail = 'none');
  CREATE TRIGGER search_fts_insert AFTER INSERT ON search_docs BEGIN
    INSERT INTO search_fts (rowid, marked) VALUES (new.id, new.folded || char(1));
  END;
  CREATE TRIGGER search_fts_delete AFTER DELETE ON search_docs BEGIN
    INSERT INTO search_fts (search_fts, rowid, marked) VALUES ('delete', old.id, old.folded || char(1));
  END;
  CREATE TRIGGER search_fts_update AFTER UPDATE OF folded ON search_docs BEGIN
    INSERT INTO search_fts (search_fts, rowid, marked) VALUES ('delete', old.id, old.folded || char(1));
    INSERT INTO search_fts (rowid, marked) VALUES (new.id, new.folded || char(1));
  END;
  INSERT INTO search_fts (search_fts) VALUES ('rebuild');
`;

export class SearchIndex {
  readonly backend: SearchBackend;
  readonly #db: DatabaseSync;
  readonly #statement: (sql: string) => StatementSync;
  #vocabulary = false;

  private constructor(db: DatabaseSync, backend: SearchBackend) {
    this.#db = db;
    this.#statement = preparedOnce(db);
    this.backend = backend;
  }

  /**
   * The index of this store, built for the backend wanted (FTS5 where there is one) if it was last
   * kept by the other, or never; call inside a transaction.
   */
  static attach(db: DatabaseSync, wanted: SearchBackend = hasFts5() ? 'fts5' : 'own'): SearchIndex {
    const index = new SearchIndex(db, wanted);
    const kept = db.prepare('SELECT backend FROM search_state').get() as { backend: SearchBackend } | undefined;
    if (kept?.backend === wanted) return index;
    // The FTS5 table cannot be dropped without FTS5; without its triggers nothing touches it.
    db.exec(`DELETE FROM search_grams; DELETE FROM search_forgotten; DELETE FROM search_state;
      DROP TRIGGER IF EXISTS search_fts_insert; DROP TRIGGER IF EXISTS search_fts_delete; DROP TRIGGER IF EXISTS search_fts_update;`);
    if (wanted === 'fts5') {
      db.exec('DROP TABLE IF EXISTS search_fts;');
      db.exec(FTS5_SCHEMA);
    } else {
      index.#build();
    }
    db.prepare('INSERT INTO search_state (backend) VALUES (?)').run(wanted);
    return index;
  }

  /** The trigrams FTS5 has that begin with these two characters, for a query of any of them. */
  #termsFrom(pair: string[]): string[] {
    if (!this.#vocabulary) {
      this.#db.exec("CREATE VIRTUAL TABLE IF NOT EXISTS temp.search_vocab USING fts5vocab(main, 'search_fts', 'row')");
      this.#vocabulary = true;
    }
    const end = pair[0]! + String.fromCodePoint(pair[1]!.codePointAt(0)! + 1);
    return (this.#statement(`SELECT term FROM temp.search_vocab WHERE term >= ? AND term < ? LIMIT ${COMMON_PAIR + 1}`).all(pair.join(''), end) as
      { term: string }[]).map((row) => row.term);
  }

  /** Our own index from scratch, a block at a time: each row written once. */
  #build(): void {
    const docs = this.#db.prepare('SELECT id, folded FROM search_docs WHERE id >= ? AND id < ?');
    const last = (this.#db.prepare('SELECT coalesce(max(id), -1) AS id FROM search_docs').get() as { id: number }).id;
    const insert = this.#db.prepare('INSERT INTO search_grams (gram, block, places) VALUES (?, ?, ?)');
    for (let block = 0; block <= last >> BLOCK_BITS; block += 1) {
      const places = new Map<number, number[]>();
      for (const doc of docs.all(block * BLOCK, (block + 1) * BLOCK) as { id: number; folded: string }[]) {
        for (const gram of trigrams(doc.folded)) {
          const list = places.get(gram);
          if (list) list.push(doc.id & (BLOCK - 1));
          else places.set(gram, [doc.id & (BLOCK - 1)]);
        }
      }
      for (const [gram, list] of places) insert.run(gram, block, blobOf(list));
    }
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
    this.forget();
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
      this.#dropGrams(id, [...before].filter((gram) => !now.has(gram)));
      for (const gram of before) now.delete(gram);
    }
    const add = this.#statement(`INSERT INTO search_grams (gram, block, places) VALUES (?, ?, ?)
      ON CONFLICT (block, gram) DO UPDATE SET places = CAST(places || excluded.places AS BLOB)`);
    const place = blobOf([id & (BLOCK - 1)]);
    for (const gram of now) add.run(gram, id >> BLOCK_BITS, place);
  }

  #dropGrams(id: number, grams: Iterable<number>): void {
    const read = this.#statement('SELECT places FROM search_grams WHERE gram = ? AND block = ?');
    const write = this.#statement('UPDATE search_grams SET places = ? WHERE gram = ? AND block = ?');
    const remove = this.#statement('DELETE FROM search_grams WHERE gram = ? AND block = ?');
    const block = id >> BLOCK_BITS;
    const place = id & (BLOCK - 1);
    for (const gram of grams) {
      const row = read.get(gram, block) as { places: Uint8Array } | undefined;
      if (!row) continue;
      const left = placesOf(row.places).filter((other) => other !== place);
      if (left.length === 0) remove.run(gram, block);
      else write.run(blobOf(left), gram, block);
    }
  }

  /** Takes deleted rows out of our own index (the triggers of the FTS5 one did already). */
  forget(): void {
    if (this.backend === 'fts5') return;
    const gone = this.#statement('SELECT doc, folded FROM search_forgotten').all() as { doc: number; folded: string }[];
    if (gone.length === 0) return;
    for (const { doc, folded } of gone) this.#dropGrams(doc, trigrams(folded));
    this.#statement('DELETE FROM search_forgotten').run();
  }

  /** The newest places holding this text, any case; none for blank text. */
  search(text: string): SearchHit[] {
    // A NUL pads our own trigrams; nobody searches for one.
    const wanted = fold(text.trim()).replaceAll(/[\0\x01]/g, '');
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
    if (this.backend === 'own' && wanted.length >= 2) return this.#ownCandidates(wanted, select);
    const chars = [...wanted];
    // A pair that begins many trigrams is a common one: a scan from the newest rows finds it sooner
    // than FTS5 goes through all of them.
    const terms = this.backend === 'fts5' && chars.length === 2 ? this.#termsFrom(chars) : [];
    if (this.backend === 'fts5' && (chars.length >= 3 || (chars.length === 2 && terms.length <= COMMON_PAIR))) {
      const query = chars.length >= 3 ? ftsQuery(chars) : terms.map(quoted).join(' OR ');
      if (query === '') return [];
      return this.#statement(`SELECT ${columns} FROM search_fts f JOIN search_docs d ON d.id = f.rowid JOIN turns t ON t.id = d.turn_id
        WHERE search_fts MATCH ? AND instr(d.folded, ?) > 0 ORDER BY f.rowid DESC LIMIT ${SEARCH_LIMIT}`)
        .all(query, wanted) as unknown as CandidateRow[];
    }
    return this.#statement(`${select} WHERE instr(d.folded, ?) > 0 ORDER BY d.id DESC LIMIT ${SEARCH_LIMIT}`)
      .all(wanted) as unknown as CandidateRow[];
  }

  /** Block by block from the newest, the places holding every trigram of the text, checked against it. */
  #ownCandidates(wanted: string, select: string): CandidateRow[] {
    try {
      this.forget();
    } catch {
      // A store that cannot be written now: the check below still leaves deleted rows out.
    }
    // Candidates are checked a block at a time in one statement: a common word has thousands.
    const check = this.#statement(`SELECT value AS id FROM json_each(?)
      WHERE (SELECT instr(folded, ?) FROM search_docs WHERE id = value) > 0`);
    const last = (this.#statement('SELECT coalesce(max(id), -1) AS id FROM search_docs').get() as { id: number }).id;
    const found: number[] = [];
    const lookups = this.#lookups(wanted);
    // How many of the trigrams so far each place in the block holds.
    const counts = new Uint8Array(BLOCK);
    for (let block = last >> BLOCK_BITS; block >= 0 && found.length < SEARCH_LIMIT; block -= 1) {
      counts.fill(0);
      let held = 0;
      for (const [step, lookup] of lookups.entries()) {
        held = 0;
        for (const row of lookup(block)) {
          for (const place of placesOf(row.places)) {
            if (counts[place] !== step) continue;
            counts[place] = step + 1;
            held += 1;
          }
        }
        if (held === 0) break;
      }
      if (held === 0) continue;
      const ids: number[] = [];
      for (let place = BLOCK - 1; place >= 0; place -= 1) if (counts[place] === lookups.length) ids.push(block * BLOCK + place);
      for (const row of check.all(JSON.stringify(ids), wanted) as { id: number }[]) found.push(row.id);
    }
    const one = this.#statement(`${select} WHERE d.id = ?`);
    return found.sort((a, b) => b - a).slice(0, SEARCH_LIMIT).map((id) => one.get(id) as unknown as CandidateRow);
  }

  /** For each of (a spread of) the text's trigrams, how to read its rows in a block. */
  #lookups(wanted: string): ((block: number) => { places: Uint8Array }[])[] {
    if (wanted.length === 2) {
      const low = wanted.charCodeAt(0) * GRAM * GRAM + wanted.charCodeAt(1) * GRAM;
      const range = this.#statement('SELECT places FROM search_grams WHERE gram >= ? AND gram < ? AND block = ?');
      return [(block) => range.all(low, low + GRAM, block) as { places: Uint8Array }[]];
    }
    const some = spread([...trigrams(wanted)].filter((gram) => gram % GRAM !== 0));
    const one = this.#statement('SELECT places FROM search_grams WHERE gram = ? AND block = ?');
    return some.map((gram) => (block) => one.all(gram, block) as { places: Uint8Array }[]);
  }
}

const quoted = (term: string) => `"${term.replaceAll('"', '""')}"`;

/** A spread of the text's trigrams, each one quoted FTS5 string: rows holding all of them. */
function ftsQuery(chars: string[]): string {
  const grams = [...new Set(Array.from({ length: chars.length - 2 }, (_, at) => chars.slice(at, at + 3).join('')))];
  return spread(grams).map(quoted).join(' ');
}

/** Eight from end to end narrow about as well as all of them, at a fraction of the lookups; instr() does the rest. */
function spread<T>(all: T[]): T[] {
  return all.length <= 8 ? all : Array.from({ length: 8 }, (_, at) => all[Math.round((at * (all.length - 1)) / 7)]!);
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

// The index where the SQLite in this Node.js has no FTS5: a table of our own that keeps, for each
// trigram and block of row ids, the places in the block whose words hold it (places.ts).
//
// SQL alone cannot edit its rows, so a thread deleted by plain SQL leaves a note: before a turn
// goes, a trigger copies the text of its rows aside (search_forgotten), and the index takes their
// trigrams out before it next writes or searches.
import type { DatabaseSync, StatementSync } from 'node:sqlite';
import { spread, type BackendKind, type Candidates, type Doc, type IndexBackend } from './indexBackend.ts';
import { fold, wordsOf } from './words.ts';
import { preparedOnce } from './prepared.ts';
import { retireTable } from './retired.ts';
import { addPlaces, BLOCK, packPlaces, unpackPlaces } from './places.ts';
import type { Item } from '../model.ts';

const GRAM = 2 ** 16;
const ADD_PLACES = 'search_add_places';

const blockOf = (id: number) => Math.floor(id / BLOCK);
const placeOf = (id: number) => id % BLOCK;

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

class OwnIndex implements IndexBackend {
  readonly #statement: (sql: string) => StatementSync;

  constructor(db: DatabaseSync) {
    this.#statement = preparedOnce(db);
    // In the upsert: the row is found once, not read and then written.
    db.function(ADD_PLACES, { deterministic: true }, (kept, added) => addPlaces(kept as Uint8Array, unpackPlaces(added as Uint8Array)));
  }

  put(docs: readonly Doc[]): void {
    this.#purge();
    // A build puts many rows of one block at once: each trigram of the block is written once.
    const places = new Map<string, number[]>();
    for (const doc of docs) {
      for (const gram of trigrams(doc.folded)) {
        const key = `${blockOf(doc.id)}:${gram}`;
        const list = places.get(key);
        if (list) list.push(placeOf(doc.id));
        else places.set(key, [placeOf(doc.id)]);
      }
    }
    const add = this.#statement(`INSERT INTO search_grams (block, gram, places) VALUES (?, ?, ?)
      ON CONFLICT (block, gram) DO UPDATE SET places = ${ADD_PLACES}(places, excluded.places)`);
    for (const [key, list] of places) {
      const [block, gram] = key.split(':').map(Number) as [number, number];
      add.run(block, gram, packPlaces(list));
    }
  }

  forget(id: number): void {
    this.#purge();
    const row = this.#statement(`SELECT d.position, t.question, i.body FROM search_docs d JOIN turns t ON t.id = d.turn_id
      LEFT JOIN items i ON i.turn_id = d.turn_id AND i.position = d.position WHERE d.id = ?`).get(id) as
      { position: number; question: string; body: string | null } | undefined;
    if (row) this.#drop(id, wordsIn(row.position < 0 ? row.question : null, row.body));
  }

  #drop(id: number, words: string | null): void {
    if (words === null) return;
    const read = this.#statement('SELECT places FROM search_grams WHERE block = ? AND gram = ?');
    const write = this.#statement('UPDATE search_grams SET places = ? WHERE block = ? AND gram = ?');
    const remove = this.#statement('DELETE FROM search_grams WHERE block = ? AND gram = ?');
    const block = blockOf(id);
    const place = placeOf(id);
    for (const gram of trigrams(fold(words))) {
      const row = read.get(block, gram) as { places: Uint8Array } | undefined;
      if (!row) continue;
      const left = unpackPlaces(row.places).filter((other) => other !== place);
      if (left.length === 0) remove.run(block, gram);
      else write.run(packPlaces(left), block, gram);
    }
  }

  /** Takes out the rows plain SQL deleted. */
  #purge(): void {
    const gone = this.#statement('SELECT doc, question, body FROM search_forgotten').all() as
      { doc: number; question: string | null; body: string | null }[];
    if (gone.length === 0) return;
    for (const row of gone) this.#drop(row.doc, wordsIn(row.question, row.body));
    this.#statement('DELETE FROM search_forgotten').run();
  }

  candidates(wanted: string, below: number): Candidates | null {
    try {
      this.#purge();
    } catch {
      // A store that cannot be written now: the check of each candidate still leaves deleted rows out.
    }
    const highest = this.#statement('SELECT id FROM search_docs WHERE id < ? ORDER BY id DESC LIMIT 1').get(below) as { id: number } | undefined;
    const lowest = this.#statement('SELECT id FROM search_docs ORDER BY id LIMIT 1').get() as { id: number } | undefined;
    if (!highest || !lowest) return { ids: [], next: null };
    const lookups = this.#lookups(wanted);
    // How many of the trigrams so far each place in the block holds.
    const counts = new Uint8Array(BLOCK);
    for (let block = blockOf(highest.id); block >= blockOf(lowest.id); block -= 1) {
      counts.fill(0);
      let held = 0;
      for (const [step, lookup] of lookups.entries()) {
        held = 0;
        for (const row of lookup(block)) {
          for (const place of unpackPlaces(row.places)) {
            if (counts[place] !== step) continue;
            counts[place] = step + 1;
            held += 1;
          }
        }
        if (held === 0) break;
      }
      if (held === 0) continue;
      const ids: number[] = [];
      for (let place = BLOCK - 1; place >= 0; place -= 1) {
        const id = block * BLOCK + place;
        if (counts[place] === lookups.length && id < below) ids.push(id);
      }
      return { ids, next: block * BLOCK };
    }
    return { ids: [], next: null };
  }

  /** For each of (a spread of) the text's trigrams, how to read its rows in a block. */
  #lookups(wanted: string): ((block: number) => { places: Uint8Array }[])[] {
    if (wanted.length <= 2) {
      // The trigrams the text begins: a range of them.
      const width = wanted.length === 1 ? GRAM * GRAM : GRAM;
      const low = wanted.charCodeAt(0) * GRAM * GRAM + (wanted.length === 2 ? wanted.charCodeAt(1) * GRAM : 0);
      const range = this.#statement('SELECT places FROM search_grams WHERE gram >= ? AND gram < ? AND block = ?');
      return [(block) => range.all(low, low + width, block) as { places: Uint8Array }[]];
    }
    const some = spread([...trigrams(wanted)].filter((gram) => gram % GRAM !== 0));
    const one = this.#statement('SELECT places FROM search_grams WHERE gram = ? AND block = ?');
    return some.map((gram) => (block) => one.all(gram, block) as { places: Uint8Array }[]);
  }
}

/** A row's words from what its turn keeps: the question, or the item's JSON. */
function wordsIn(question: string | null, body: string | null): string | null {
  if (question !== null) return question;
  return body === null ? null : wordsOf(JSON.parse(body) as Item);
}

const TRIGGER = 'search_own_forget';

export const own: BackendKind = {
  name: 'own',
  create(db) {
    db.exec(`
      -- WITHOUT ROWID: the key is kept once, in the rows themselves, and no row is long enough to spill.
      CREATE TABLE search_grams (block INTEGER NOT NULL, gram INTEGER NOT NULL, places BLOB NOT NULL, PRIMARY KEY (block, gram)) STRICT, WITHOUT ROWID;
      CREATE TABLE search_forgotten (doc INTEGER PRIMARY KEY, question TEXT, body TEXT) STRICT;
      -- Before the turn goes, while its rows still say what they held.
      CREATE TRIGGER ${TRIGGER} BEFORE DELETE ON turns BEGIN
        INSERT OR REPLACE INTO search_forgotten (doc, question, body)
          SELECT d.id, CASE WHEN d.position < 0 THEN old.question END, i.body FROM search_docs d
            LEFT JOIN items i ON i.turn_id = d.turn_id AND i.position = d.position WHERE d.turn_id = old.id;
      END;
    `);
  },
  retire(db) {
    db.exec(`DROP TRIGGER IF EXISTS ${TRIGGER}`);
    retireTable(db, 'search_grams');
    retireTable(db, 'search_forgotten');
  },
  open: (db) => new OwnIndex(db),
};

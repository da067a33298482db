// What an index under search does: keep the trigrams of folded words by row, and narrow a search
// to the rows that may hold the text. It never decides a hit (fold() and includes() on the text
// where it is kept do), so two backends over the same rows give the same answers.
import type { DatabaseSync } from 'node:sqlite';

export type BackendName = 'fts5' | 'own';

/** A question or item going into the index: its row in search_docs and its folded words. */
export interface Doc {
  id: number;
  folded: string;
}

/** Rows that may hold the text, newest first, and where to look next (null: nowhere). */
export interface Candidates {
  ids: number[];
  next: number | null;
}

export interface IndexBackend {
  /** Indexes rows new to it. */
  put(docs: readonly Doc[]): void;
  /** Takes a row out; called while its text is still the one indexed. */
  forget(id: number): void;
  /** Rows below this id that may hold the folded text; null when this text cannot be narrowed. */
  candidates(wanted: string, below: number): Candidates | null;
}

/** A backend as a store meets it: its tables' life, and the index over them. */
export interface BackendKind {
  readonly name: BackendName;
  /** Its tables and triggers, empty; in the transaction that starts a new index. */
  create(db: DatabaseSync): void;
  /** Puts its tables out of the way, to be emptied in the background; runs without its SQLite module too. */
  retire(db: DatabaseSync): void;
  open(db: DatabaseSync): IndexBackend;
}

/** Eight trigrams from end to end narrow about as well as all of them, at a fraction of the lookups. */
export function spread<T>(all: T[]): T[] {
  return all.length <= 8 ? all : Array.from({ length: 8 }, (_, at) => all[Math.round((at * (all.length - 1)) / 7)]!);
}

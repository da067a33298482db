// The store's schema, one migration per version. A migration runs once, in the same transaction
// as the bump of user_version, so a database is always at exactly one version.
import type { DatabaseSync } from 'node:sqlite';
import { FIRST_FTS5, retireFts5 } from './fts5Index.ts';
import { retireTable } from './retired.ts';
import { own } from './ownIndex.ts';

export type Migration = (db: DatabaseSync) => void;

export const migrations: readonly Migration[] = [
  // 1: threads of turns of items; an item is kept as the JSON the page is sent.
  (db) => db.exec(`
    CREATE TABLE threads (
      id TEXT PRIMARY KEY,
      title TEXT NOT NULL,
      folder TEXT NOT NULL,
      codex_thread_id TEXT,
      created_at INTEGER NOT NULL,
      updated_at INTEGER NOT NULL
    ) STRICT;
    CREATE INDEX threads_by_update ON threads (updated_at DESC);
    CREATE TABLE turns (
      id TEXT PRIMARY KEY,
      thread_id TEXT NOT NULL REFERENCES threads (id) ON DELETE CASCADE,
      position INTEGER NOT NULL,
      question TEXT NOT NULL,
      status TEXT NOT NULL,
      error TEXT,
      usage TEXT,
      started_at INTEGER NOT NULL,
      ended_at INTEGER,
      UNIQUE (thread_id, position)
    ) STRICT;
    CREATE TABLE items (
      turn_id TEXT NOT NULL REFERENCES turns (id) ON DELETE CASCADE,
      position INTEGER NOT NULL,
      status TEXT NOT NULL,
      body TEXT NOT NULL,
      PRIMARY KEY (turn_id, position)
    ) STRICT, WITHOUT ROWID;
  `),
  // 2: threads can be pinned and archived; the list is read a page at a time in its display order.
  (db) => db.exec(`
    ALTER TABLE threads ADD COLUMN pinned INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE threads ADD COLUMN archived INTEGER NOT NULL DEFAULT 0;
    CREATE INDEX threads_by_place ON threads (archived, pinned, updated_at DESC, id);
  `),
  // 3: the model and reasoning effort chosen for each thread, the files each question brought,
  // and the service's own settings (the last choice, which the next thread starts with).
  (db) => db.exec(`
    ALTER TABLE threads ADD COLUMN model TEXT;
    ALTER TABLE threads ADD COLUMN effort TEXT;
    ALTER TABLE turns ADD COLUMN attachments TEXT;
    CREATE TABLE settings (key TEXT PRIMARY KEY, value TEXT NOT NULL) STRICT;
  `),
  // 4: a search index that kept a lower-cased copy of every text, filled here, in the upgrade.
  // Version 5 retires it; a store older than 4 never needs it made.
  () => {},
  // 5: search reads the words where the thread keeps them, and its index is built in the
  // background (search.ts); the first index's tables are emptied there too. The text a running
  // item gains is kept beside its JSON (tails.ts).
  (db) => {
    db.exec('DROP TRIGGER IF EXISTS search_grams_forget; DROP TABLE IF EXISTS search_state;');
    retireFts5(db, FIRST_FTS5.table, FIRST_FTS5.triggers);
    for (const table of ['search_docs', 'search_grams', 'search_forgotten']) retireTable(db, table);
    db.exec(`
      CREATE TABLE search_state (backend TEXT NOT NULL, total INTEGER NOT NULL) STRICT;
      CREATE TABLE item_tails (
        turn_id TEXT NOT NULL REFERENCES turns (id) ON DELETE CASCADE,
        position INTEGER NOT NULL,
        part INTEGER NOT NULL,
        at INTEGER NOT NULL,
        text TEXT NOT NULL,
        PRIMARY KEY (turn_id, position, part, at)
      ) STRICT;
    `);
  },
  // 6: what Codex may do in each thread without asking; threads made before could write in
  // their folder, as they still can.
  (db) => db.exec(`ALTER TABLE threads ADD COLUMN permission TEXT NOT NULL DEFAULT 'write';`),
  // 7: Codex's own id for each turn (a rollback or a branch names the turn to Codex), how full the
  // model's context is after a thread's last request, and the questions queued behind a running turn.
  (db) => db.exec(`
    ALTER TABLE turns ADD COLUMN codex_turn_id TEXT;
    ALTER TABLE threads ADD COLUMN context TEXT;
    CREATE TABLE queued (
      id TEXT PRIMARY KEY,
      thread_id TEXT NOT NULL REFERENCES threads (id) ON DELETE CASCADE,
      text TEXT NOT NULL,
      queued_at INTEGER NOT NULL
    ) STRICT;
    CREATE INDEX queued_by_thread ON queued (thread_id, queued_at);
  `),
  // 8: which turn last made or changed each file of a thread's folder, and the size and time it
  // left the file with: a file that differs now was changed since, outside any turn. A turn rolled
  // back takes its files' records with it.
  (db) => db.exec(`
    CREATE TABLE turn_files (
      thread_id TEXT NOT NULL,
      path TEXT NOT NULL,
      turn_id TEXT NOT NULL REFERENCES turns (id) ON DELETE CASCADE,
      size INTEGER NOT NULL,
      changed_at INTEGER NOT NULL,
      PRIMARY KEY (thread_id, path)
    ) STRICT, WITHOUT ROWID;
    CREATE INDEX turn_files_by_turn ON turn_files (turn_id);
  `),
  // 9: our own index keeps its places packed (places.ts); one kept as before is retired, and the
  // next open builds the new one in the background.
  (db) => {
    if (db.prepare("SELECT 1 FROM search_state WHERE backend = 'own'").get() === undefined) return;
    own.retire(db);
    db.exec('DELETE FROM search_state');
  },
];

// Tables the store no longer uses. Dropping a big table frees every page of it in one statement (a
// second or more for an index of years of work), so a retired table is only renamed where it is
// found, and emptied later a slice at a time, between the page's requests; once empty it drops at once.
import type { DatabaseSync } from 'node:sqlite';

const PREFIX = 'retired_';

const exists = (db: DatabaseSync, table: string) =>
  db.prepare("SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name = ?").get(table) !== undefined;

/** Renames the table out of the way, if there is one by this name; in a transaction. */
export function retireTable(db: DatabaseSync, table: string): void {
  if (!exists(db, table)) return;
  // A store retired from twice before its first retirement is emptied keeps both.
  let number = 0;
  while (exists(db, `${PREFIX}${number}_${table}`)) number += 1;
  db.exec(`ALTER TABLE "${table}" RENAME TO "${PREFIX}${number}_${table}"`);
}

/** Whether any retired table is left. */
export function anyRetired(db: DatabaseSync): boolean {
  return db.prepare(`SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name GLOB '${PREFIX}*' LIMIT 1`).get() !== undefined;
}

/** Deletes up to this many rows of one retired table, or drops it if it is empty; false when none is left. */
export function emptyRetired(db: DatabaseSync, rows: number): boolean {
  const found = db.prepare(`SELECT name FROM sqlite_schema WHERE type = 'table' AND name GLOB '${PREFIX}*' LIMIT 1`).get() as
    { name: string } | undefined;
  if (!found) return false;
  const table = `"${found.name}"`;
  const { wr } = db.prepare('SELECT wr FROM pragma_table_list WHERE name = ?').get(found.name) as { wr: number };
  const key = wr === 1
    ? (db.prepare('SELECT name FROM pragma_table_info(?) WHERE pk > 0 ORDER BY pk').all(found.name) as { name: string }[])
      .map((column) => `"${column.name}"`).join(', ')
    : 'rowid';
  const deleted = db.prepare(`DELETE FROM ${table} WHERE (${key}) IN (SELECT ${key} FROM ${table} LIMIT ?)`).run(rows).changes;
  if (Number(deleted) === 0) db.exec(`DROP TABLE ${table}`);
  return true;
}

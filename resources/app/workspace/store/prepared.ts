// Statements are prepared once per database: the store runs the same few on every batch.
import type { DatabaseSync, StatementSync } from 'node:sqlite';

export function preparedOnce(db: DatabaseSync): (sql: string) => StatementSync {
  const statements = new Map<string, StatementSync>();
  return (sql) => {
    let statement = statements.get(sql);
    if (!statement) {
      statement = db.prepare(sql);
      statements.set(sql, statement);
    }
    return statement;
  };
}

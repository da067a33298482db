// A process as /proc/<pid>/stat names it: what tells it from a later one given the same id.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { parseStat } from '../../../resources/app/workspace/codex/commands.ts';

test('a stat line gives the parent (field 4) and the start time (field 22), whatever the command name holds', () => {
  const fields = Array.from({ length: 50 }, (_, i) => `f${i + 3}`);
  fields[1] = '7';
  for (const name of ['node', 'a b) S 9 (c']) {
    assert.deepEqual(parseStat(42, `42 (${name}) ${fields.join(' ')}`), { pid: 42, ppid: 7, started: 'f22' }, name);
  }
});

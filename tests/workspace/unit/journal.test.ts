// The journal on a virtual clock and a real store: when it writes, what it writes of a growing
// item, and how it carries on after a failed write.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { Journal } from '../../../resources/app/workspace/research/journal.ts';
import { StoreError, ThreadStore, type Batch } from '../../../resources/app/workspace/store/store.ts';
import type { Item, TurnHead } from '../../../resources/app/workspace/model.ts';
import { VirtualClock } from '../../harness/clock.ts';

// The promises as the README makes them, not the constants that keep them.
const FLUSH_INTERVAL_MS = 250;
const RETRY_INTERVAL_MS = 2_000;

const head: TurnHead = { id: 'u0', threadId: 't1', position: 0, question: 'q', status: 'running', error: null, usage: null, startedAt: 0, endedAt: null };

/** A journal on a store whose writes are recorded, and refused while `failing` is set. */
function journalFixture() {
  const store = ThreadStore.open(':memory:');
  store.createThread({ id: 't1', title: 'T', folder: 't1', createdAt: 0 }, head);
  const clock = new VirtualClock();
  const fixture: { failing: boolean; writes: { at: number; batch: Batch }[]; reports: (string | null)[] } = { failing: false, writes: [], reports: [] };
  const recording = Object.create(store, {
    commit: {
      value: (batch: Batch) => {
        fixture.writes.push({ at: clock.now(), batch: structuredClone(batch) });
        if (fixture.failing) throw new StoreError('full', 'database or disk is full');
        store.commit(batch);
      },
    },
  }) as ThreadStore;
  const journal = new Journal(recording, clock, (error) => fixture.reports.push(error ? error.reason : null));
  const kept = () => store.readThread('t1')!.turns[0]!.items;
  return { fixture, clock, journal, kept };
}

test('what streams in is written a quarter second after the first change, an item that only grew as the text it gained', async () => {
  const { fixture, clock, journal, kept } = journalFixture();
  const items: Item[] = [
    { kind: 'answer', position: 0, status: 'running', text: 'Hel' },
    { kind: 'reasoning', position: 1, status: 'running', parts: ['a'] },
    { kind: 'command', position: 2, status: 'running', command: 'ls', output: '', dropped: 0, exitCode: null, durationMs: null },
  ];
  journal.item('u0', items[0]!);
  // A later change joins the write the first one set, however soon.
  await clock.advance(100);
  for (const item of items.slice(1)) journal.item('u0', item);
  await clock.advance(FLUSH_INTERVAL_MS - 101);
  assert.deepEqual(fixture.writes.map((write) => write.at), []);
  await clock.advance(1);
  const [answer, reasoning, command] = items as [Item & { kind: 'answer' }, Item & { kind: 'reasoning' }, Item & { kind: 'command' }];
  // As the live turn does: a reasoning part or an output gains the text, then the journal is
  // told; an answer's is the journal's alone.
  journal.grew('u0', answer, 0, 3, 'lo ');
  journal.grew('u0', answer, 0, 6, 'world');
  reasoning.parts[0] += 'b';
  journal.grew('u0', reasoning, 0, 1, 'b');
  reasoning.parts.push('c');
  journal.grew('u0', reasoning, 1, 0, 'c');
  command.output += 'out\n';
  journal.grew('u0', command, 0, 0, 'out\n');
  await clock.advance(FLUSH_INTERVAL_MS);
  assert.deepEqual(fixture.writes.map((write) => [write.at, write.batch.items.length, write.batch.tails?.map((tail) => [tail.position, tail.part, tail.at, tail.text])]), [
    [FLUSH_INTERVAL_MS, 3, []],
    [2 * FLUSH_INTERVAL_MS, 0, [[0, 0, 3, 'lo world'], [1, 0, 1, 'b'], [1, 1, 0, 'c'], [2, 0, 0, 'out\n']]],
  ]);
  assert.deepEqual(kept(), [{ ...answer, text: 'Hello world' }, reasoning, command]);
});

test('a failed write is said once, tried again every two seconds with what came meanwhile, and nothing is lost', async () => {
  const { fixture, clock, journal, kept } = journalFixture();
  const answer: Item & { kind: 'answer' } = { kind: 'answer', position: 0, status: 'running', text: 'one' };
  journal.item('u0', answer);
  journal.flush();
  fixture.failing = true;
  journal.grew('u0', answer, 0, 3, ' two');
  await clock.advance(FLUSH_INTERVAL_MS);
  // Long enough to be written as a tail of its own.
  const three = ` three${'.'.repeat(40_000)}`;
  journal.grew('u0', answer, 0, 7, three);
  await clock.advance(RETRY_INTERVAL_MS - 1);
  fixture.failing = false;
  assert.deepEqual([fixture.writes.map((write) => write.at), fixture.reports], [[0, FLUSH_INTERVAL_MS], ['full']]);
  await clock.advance(1);
  assert.deepEqual([fixture.writes.map((write) => write.at), fixture.reports], [[0, FLUSH_INTERVAL_MS, FLUSH_INTERVAL_MS + RETRY_INTERVAL_MS], ['full', null]]);
  assert.deepEqual(kept(), [{ ...answer, text: `one two${three}` }]);
  assert.equal(journal.pending, false);
});

// The folders the pages' files panels show, watched on a virtual clock: one watcher per folder
// however many pages show it, gone with the last of them and with its thread; changes told once
// for a burst and no oftener than the gap; a folder the system will not watch looked at instead.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { FolderWatches, NOTICE_GAP_MS, NOTICE_MS, SLOW_LOOK_MS } from '../../../resources/app/workspace/files/folderWatch.ts';
import { VirtualClock } from '../../harness/clock.ts';
import type { PageEvent } from '../../../resources/app/workspace/model.ts';

function watches(refuse: Set<string> = new Set()) {
  const clock = new VirtualClock();
  const told: string[] = [];
  const open = new Map<string, { changed: () => void; failed: () => void }>();
  const looks = new Map<string, string>();
  const folders = new FolderWatches({
    clock,
    publish: (event: PageEvent) => told.push(event.type === 'folderChanged' ? `${clock.now()} ${event.threadId}:${event.path}` : event.type),
    watch: (path, changed, failed) => {
      if (refuse.has(path)) throw new Error('ENOSPC');
      open.set(path, { changed, failed });
      return { close: () => open.delete(path) };
    },
    look: (path) => looks.get(path) ?? '',
  });
  return { clock, told, open, looks, folders };
}

test('a folder is watched once while any page shows it, a burst told once and no oftener than the gap, and nothing once it is not shown', async () => {
  const { clock, told, open, folders } = watches();
  folders.show('p1', 't', '', '/t');
  folders.show('p2', 't', '', '/t');
  folders.show('p2', 't', 'out', '/t/out');
  assert.deepEqual([...open.keys()], ['/t', '/t/out']);
  for (let i = 0; i < 5; i += 1) open.get('/t')!.changed();
  await clock.advance(100);
  open.get('/t')!.changed();
  await clock.advance(1000);
  assert.deepEqual(told, [`${NOTICE_MS} t:`, `${NOTICE_MS + NOTICE_GAP_MS} t:`]);

  folders.forget('p1');
  assert.deepEqual([...open.keys()], ['/t/out']);
  folders.forgetThread('t');
  assert.deepEqual([open.size, folders.size], [0, 0]);
  folders.forget('p2');
});

test('a folder the system will not watch, or stops watching, is looked at instead, and told of only when what it holds has changed', async () => {
  const { clock, told, open, looks, folders } = watches(new Set(['/full']));
  looks.set('/full', 'a');
  looks.set('/t', 'a');
  folders.show('p1', 'full', '', '/full');
  folders.show('p2', 't', '', '/t');
  open.get('/t')!.failed();
  await clock.advance(SLOW_LOOK_MS * 2);
  looks.set('/full', 'b');
  looks.set('/t', 'b');
  await clock.advance(SLOW_LOOK_MS + NOTICE_MS);
  assert.deepEqual(told, [`${SLOW_LOOK_MS * 3 + NOTICE_MS} full:`, `${SLOW_LOOK_MS * 3 + NOTICE_MS} t:`]);
  folders.closeAll();
  looks.set('/t', 'c');
  await clock.advance(SLOW_LOOK_MS * 2);
  assert.equal(told.length, 2);
});

// The benchmark's store of years of work (fill.ts) as an older version left it, upgraded: what the
// store weighs without search and with each index, how long the service's opening of it (what
// the page waits for) takes, and how long the index's build in the background takes, slice by
// slice. The older store is made by the code of the version before: its first search index, a
// lower-cased copy of every text, is what the upgrade retires.
//
//   node --experimental-strip-types bench/workspace/upgrade.ts [--backend fts5|own] [--from COMMIT] [--service]
//
// --service: in place of the store in this process, the built service on a copy of the older
// store, as the page meets it: from its start to its first answer, then a search asked every
// 100 ms until the index is built, each timed.
//
// Run it with the oldest Node.js too: its SQLite has no FTS5, so there it builds our own index.
// The older stores are made once (with FTS5) and kept beside the filled store.
import { execFileSync } from 'node:child_process';
import { copyFileSync, existsSync, mkdirSync, renameSync, rmSync } from 'node:fs';
import { loadavg } from 'node:os';
import { join } from 'node:path';
import { parseArgs } from 'node:util';
import { DatabaseSync } from 'node:sqlite';
import { hasFts5 } from '../../resources/app/workspace/store/fts5Index.ts';
import type { BackendName } from '../../resources/app/workspace/store/indexBackend.ts';
import { fakeCodex, SOURCE, startService, temporaryFolder } from '../../tests/harness/service.ts';
import { filledStore } from './fill.ts';
import { median, quantile } from './figures.ts';
import { openTimed, pagesOf as pages, sliceFigures, slicesDone } from './slices.ts';

const { values } = parseArgs({
  options: {
    backend: { type: 'string' },
    // The last commit whose store kept the first search index (schema version 4).
    from: { type: 'string', default: '967bea3' },
    service: { type: 'boolean', default: false },
  },
});
const log = (line: string) => console.log(`[load ${loadavg().map((value) => value.toFixed(1)).join(' ')}] ${line}`);
const mb = (bytes: number) => `${(bytes / 2 ** 20).toFixed(0)} MB`;

/** The filled store with no search at all, as version 3 kept it, compacted. */
function bare(from: string, to: string): void {
  copyFileSync(from, to);
  const db = new DatabaseSync(to);
  const names = (type: string) => (db.prepare('SELECT name FROM sqlite_schema WHERE type = ? AND name NOT LIKE \'sqlite_%\'').all(type) as { name: string }[])
    .map((row) => row.name);
  for (const trigger of names('trigger')) db.exec(`DROP TRIGGER "${trigger}"`);
  // Virtual tables first: their shadow tables go with them.
  for (const table of names('table').filter((name) => /^search_fts/.test(name) && !/_(data|idx|docsize|config|content)$/.test(name))) db.exec(`DROP TABLE "${table}"`);
  for (const table of names('table').filter((name) => /^(search_|retired_)|^(item_tails|queued)$/.test(name))) db.exec(`DROP TABLE IF EXISTS "${table}"`);
  // What versions after 4 added to the tables version 3 had: the upgrade adds it again.
  db.exec('ALTER TABLE threads DROP COLUMN permission; ALTER TABLE threads DROP COLUMN context; ALTER TABLE turns DROP COLUMN codex_turn_id');
  db.exec('PRAGMA user_version = 3; VACUUM');
  db.close();
}

/** The version-3 store opened by the code of the version before, which fills its first search index. */
async function firstIndex(from: string, to: string): Promise<number> {
  const old = temporaryFolder('lm-bench-old-');
  try {
    execFileSync('sh', ['-c', `git -C "${SOURCE}" archive ${values.from} resources/app/workspace | tar -x -C "${old}"`]);
    copyFileSync(from, to);
    const { ThreadStore: OldStore } = await import(join(old, 'resources/app/workspace/store/store.ts')) as { ThreadStore: { open(path: string): { close(): void } } };
    const began = performance.now();
    OldStore.open(to).close();
    return performance.now() - began;
  } finally {
    rmSync(old, { recursive: true, force: true });
  }
}

const filled = filledStore(log);
const made = `${filled.folder}-older`;
const version3 = join(made, 'version3.db');
const version4 = join(made, 'version4.db');
if (!existsSync(version4)) {
  const making = `${made}.making-${process.pid}`;
  mkdirSync(making, { recursive: true });
  bare(join(filled.folder, 'workspace.db'), join(making, 'version3.db'));
  const took = await firstIndex(join(making, 'version3.db'), join(making, 'version4.db'));
  log(`the first search index made in ${(took / 1000).toFixed(1)} s by ${values.from}'s code`);
  renameSync(making, made);
}
const fresh = pages(join(filled.folder, 'workspace.db'));
const without = pages(version3).used;
const first = pages(version4).used;
log(`without search (version 3, compacted): ${mb(without)}; with the first index (version 4): ${mb(first)} in use, ${((first / without - 1) * 100).toFixed(0)} % more`);
log(`filled through this version's store from the start (FTS5): ${mb(fresh.used)} in use, ${((fresh.used / without - 1) * 100).toFixed(0)} % more`);

const backends: BackendName[] = values.service ? [] : values.backend ? [values.backend as BackendName] : hasFts5() ? ['fts5', 'own'] : ['own'];
for (const backend of backends) {
  const folder = temporaryFolder('lm-bench-upgrade-');
  const path = join(folder, 'workspace.db');
  copyFileSync(version4, path);
  const { store, slices, cpu, began, opened } = openTimed(path, backend);
  const searched = performance.now();
  const early = store.search('checkpoint');
  const firstSearch = performance.now() - searched;
  const seen: string[] = [];
  for (let quarter = 1; ; ) {
    const { done, total } = store.search('\0').indexed;
    if (done >= quarter * total / 4 && quarter <= 4) {
      seen.push(`${quarter * 25} % at ${((performance.now() - began) / 1000).toFixed(1)} s`);
      quarter += 1;
    }
    if (done >= total && slices.length > 0) break;
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
  const indexed = performance.now() - began;
  // Whatever work is left (retired tables go first, so there should be none) runs until a slice finds none.
  await slicesDone(slices);
  const finished = performance.now() - began - 500;
  store.close();
  const after = pages(path);
  log(`${backend} (Node.js ${process.version}): opened in ${opened.toFixed(0)} ms; a search then ${firstSearch.toFixed(0)} ms (${early.results.length} hits, ${early.indexed.done} of ${early.indexed.total} turns indexed); `
    + `turns indexed in ${(indexed / 1000).toFixed(1)} s (${seen.join(', ')}), the last slice by ${(finished / 1000).toFixed(1)} s; `
    + `${sliceFigures(slices, cpu)}; `
    + `store ${mb(after.used)} in use (${((after.used / without - 1) * 100).toFixed(0)} % more than without search), file ${mb(after.file)}`);
  rmSync(folder, { recursive: true, force: true });
}

if (values.service) {
  const folder = temporaryFolder('lm-bench-upgrade-');
  const fake = temporaryFolder('lm-bench-fake-');
  copyFileSync(version4, join(folder, 'workspace.db'));
  const began = performance.now();
  // A service that cannot start (resources older than the source) leaves no copy of the store behind.
  const service = await startService({ codexPath: fakeCodex(fake), dataFolder: folder }).catch((error: unknown) => {
    for (const each of [folder, fake]) rmSync(each, { recursive: true, force: true });
    throw error;
  });
  const listening = performance.now() - began;
  const answers: number[] = [];
  let answered = 0;
  let built = 0;
  let progress = { done: 0, total: 1 };
  try {
    while (progress.done < progress.total) {
      const asked = performance.now();
      const answer = await service.request('GET', '/api/search?q=checkpoint');
      if (answer.status !== 200) throw new Error(`search: ${answer.status}`);
      answers.push(performance.now() - asked);
      answered ||= performance.now() - began;
      progress = (answer.body as { indexed: typeof progress }).indexed;
      await new Promise((resolve) => setTimeout(resolve, 100));
    }
    built = performance.now() - began;
  } finally {
    service.child.kill('SIGTERM');
    await service.exited;
    for (const each of [folder, fake]) rmSync(each, { recursive: true, force: true });
  }
  log(`the service (Node.js ${process.version}) on the version-4 store: listening after ${listening.toFixed(0)} ms, its first search answered ${answered.toFixed(0)} ms after its start; `
    + `the index built ${(built / 1000).toFixed(1)} s after it; ${answers.length} searches meanwhile: median ${median(answers).toFixed(1)} ms, p99 ${quantile(answers, 0.99).toFixed(1)} ms, longest ${Math.max(...answers).toFixed(1)} ms`);
}

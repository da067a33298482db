// The workspace's benchmarks: streaming latency into the page, a long answer, start to health
// against the status-page service, memory over a long thread, and opening a long thread; on a
// store of years of work (fill.ts), the thread list, search, a 2,000-item thread and the page's
// heap; fifty pages on one turn; a branch of a 500-turn thread and guidance for a running turn. Prints what it measures as it goes, then one table. Figures only:
// nothing here fails on timing.
//
//   node --experimental-strip-types bench/workspace/main.ts [--only first,long,...,files] [--quick] [--profile DIR] [--app DIR] [--refill]
//
// fill: make the big store anew (--refill) or report the cached one; list, search, thread, heap:
// on that store; fifty: 49 event-stream clients and a stalled one on one turn; fifty-tabs: the
// same with 49 Chromium tabs; branch: a 500-turn thread branched, with an empty and a 1 GiB folder;
// steer: guidance sent → the model's request carrying it; files: a thread's files in the page (results.ts).
//
// --app runs another copy of resources/app in place of the shipped one, to compare a change.
// Uses the fixed port 18765 (the launcher's), so scripts/bench-workspace.sh runs it in a network
// namespace of its own.
import { execFileSync } from 'node:child_process';
import { cpus, loadavg } from 'node:os';
import { mkdirSync } from 'node:fs';
import { resolve } from 'node:path';
import { parseArgs } from 'node:util';
import { CODEX, SOURCE } from '../../tests/harness/service.ts';
import { printTable, type Figure } from './figures.ts';
import { streamingFigures } from './streaming.ts';
import { startFigures } from './start.ts';
import { memoryFigures } from './memory.ts';
import { openingFigures } from './opening.ts';
import { filledStore } from './fill.ts';
import { largeFigures, type LargeSection } from './large.ts';
import { fiftyFigures } from './fifty.ts';
import { iterateFigures } from './iterate.ts';
import { resultsFigures } from './results.ts';

const SECTIONS = ['first', 'long', 'start', 'memory', 'open', 'fill', 'list', 'search', 'thread', 'heap', 'fifty', 'fifty-tabs', 'branch', 'steer', 'files'] as const;
const LARGE: readonly LargeSection[] = ['list', 'search', 'thread', 'heap'];
type Section = (typeof SECTIONS)[number];

const { values } = parseArgs({
  options: {
    only: { type: 'string' },
    quick: { type: 'boolean', default: false },
    profile: { type: 'string' },
    app: { type: 'string' },
    refill: { type: 'boolean', default: false },
  },
});
const wanted = new Set((values.only ?? SECTIONS.join(',')).split(',').map((name) => name.trim()));
for (const name of wanted) if (!SECTIONS.includes(name as Section)) throw new Error(`unknown section ${name}; known: ${SECTIONS.join(', ')}`);
const quick = values.quick;
const profile = values.profile ? resolve(values.profile) : null;
const app = values.app ? resolve(values.app) : undefined;
if (profile) mkdirSync(profile, { recursive: true });

const begun = Date.now();
const elapsed = () => `${((Date.now() - begun) / 1000).toFixed(0).padStart(4)} s`;
const log = (line: string) => console.log(`[${elapsed()}] ${line}`);
const load = () => loadavg().map((value) => value.toFixed(2)).join(' ');
const version = (command: string, args: string[]) => {
  try {
    return execFileSync(command, args, { encoding: 'utf8', stdio: ['ignore', 'pipe', 'ignore'] }).trim();
  } catch {
    return 'unknown';
  }
};

console.log(`Node.js ${process.version}; ${version(process.env.LM_CHROMIUM ?? '/usr/bin/chromium', ['--version'])}; ${version(CODEX, ['--version'])}; ${cpus().length} cores`);
const changed = version('git', ['-C', SOURCE, 'status', '--porcelain', '--', 'resources/app']);
log(`app folder: ${app ?? 'the shipped one'}; commit ${version('git', ['-C', SOURCE, 'rev-parse', '--short', 'HEAD'])}, resources/app ${changed === '' ? 'as committed' : `with changes not committed:\n${changed}`}`);
log(`load average before: ${load()}`);

const figures: Figure[] = [];
const section = async (name: Section | Section[], run: () => Promise<Figure[]>) => {
  const names = Array.isArray(name) ? name : [name];
  if (!names.some((each) => wanted.has(each))) return;
  log(`== ${names.join(' and ')} (load average ${load()})`);
  figures.push(...await run());
};

await section(['first', 'long'], async () => {
  const all = await streamingFigures({
    firstRuns: !wanted.has('first') ? 0 : quick ? 1 : 3, firstTurns: quick ? 5 : 30, firstDeltas: 8, firstGapMs: 30,
    longRuns: !wanted.has('long') ? 0 : quick ? 1 : 5, longGapMs: 10, profile: wanted.has('long') ? profile : null, app, log,
  });
  return all.filter((figure) => (figure.name.startsWith('long answer') ? wanted.has('long') : wanted.has('first')));
});
await section('start', () => startFigures({ directRuns: quick ? 6 : 40, launcherRuns: quick ? 3 : 12, app, log }));
await section('memory', () => memoryFigures({ runs: quick ? 1 : 3, turns: quick ? 20 : 200, app, log }));
await section('open', async () => [
  ...await openingFigures({ runs: quick ? 4 : 20, items: 2000, profile, app, log }),
  // The same with a tenth of the items: what of the opening grows with the thread.
  ...await openingFigures({ runs: quick ? 2 : 8, items: 200, profile: null, app, log }),
]);

await section(['fill', ...LARGE], async () => {
  const filled = filledStore(log, values.refill);
  log(`store: ${filled.threads} threads, ${filled.turns} turns, ${filled.items} items, ${(filled.databaseBytes / 1048576).toFixed(0)} MB; filled in ${filled.fillSeconds.toFixed(1)} s when it was made (${filled.folder})`);
  const figures: Figure[] = wanted.has('fill') ? [
    { name: `fill ${filled.threads} threads, ${filled.items} items through ThreadStore`, unit: 's', runs: [[filled.fillSeconds]], note: 'when the cached store was made; --refill makes it anew' },
    { name: 'filled store on disk', unit: 'MB', runs: [[filled.databaseBytes / 1048576]], note: 'workspace.db; MB = 2^20 bytes' },
  ] : [];
  const sections = new Set(LARGE.filter((name) => wanted.has(name)));
  if (sections.size > 0) figures.push(...await largeFigures({ filled, sections, runs: quick ? 3 : 10, profile, app, log }));
  return figures;
});
await section('fifty', () => fiftyFigures({ clients: 'taps', runs: quick ? 1 : 3, app, log }));
await section('fifty-tabs', () => fiftyFigures({ clients: 'tabs', runs: 1, app, log }));
await section(['branch', 'steer'], () => iterateFigures({
  sections: new Set((['branch', 'steer'] as const).filter((name) => wanted.has(name))),
  turns: quick ? 50 : 500, branchRuns: quick ? 1 : 3, steers: quick ? 5 : 20, app, log,
}));
await section('files', () => resultsFigures({ runs: quick ? 2 : 5, app, log }));

log(`load average after: ${load()}`);
console.log();
printTable(figures);

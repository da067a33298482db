// Iterating on a thread, through the service as it ships, the real Codex and the stand-in model:
// a branch at the end of a 500-turn thread, with an empty folder and with a 1 GB one (the copy of
// that folder timed on its own beside it), and guidance sent to a running turn until the model's
// request carries it.
import { cp, rm, writeFile } from 'node:fs/promises';
import { randomBytes } from 'node:crypto';
import { rmSync } from 'node:fs';
import { join } from 'node:path';
import { codexHome, lastQuestion, reply, startStandIn, type ResponsesRequest, type Reply } from '../../tests/harness/standin.ts';
import { CODEX, startService, until, type EventStream, type Running } from '../../tests/harness/service.ts';
import type { Figure } from './figures.ts';

export interface IterateOptions {
  sections: Set<'branch' | 'steer'>;
  turns: number;
  branchRuns: number;
  steers: number;
  app?: string;
  log(line: string): void;
}

const GIB = 1 << 30;

const ended = (stream: EventStream, threadId: string) =>
  stream.events.filter((event) => event.type === 'threadSummary' && event.thread.id === threadId && !event.thread.running).length;

async function timed<T>(work: () => Promise<T>): Promise<[T, number]> {
  const began = performance.now();
  const result = await work();
  return [result, performance.now() - began];
}

/** A 1 GB file of bytes that no file system can make smaller. */
async function fillFolder(folder: string): Promise<void> {
  const chunk = randomBytes(64 << 20);
  await writeFile(join(folder, 'run-42.bin'), (async function* () { for (let i = 0; i < GIB / chunk.length; i += 1) yield chunk; })());
}

export async function iterateFigures(options: IterateOptions): Promise<Figure[]> {
  // Each long turn waits after its first words until the benchmark lets it go on.
  let release = () => {};
  let guidance = '';
  let guidanceAt = 0;
  const script = (request: ResponsesRequest): Reply => {
    const question = lastQuestion(request);
    if (guidance && question === guidance) guidanceAt = performance.now();
    if (question.startsWith('长任务')) {
      const held = new Promise<void>((resolve) => { release = resolve; });
      return { steps: [{ text: ['开始……', '完成。'], holdAfter: { index: 0, until: held } }] };
    }
    return reply.answer('好的。');
  };
  const standIn = await startStandIn(script);
  const home = codexHome(standIn);
  const service: Running = await startService({ codexPath: CODEX, app: options.app, env: { CODEX_HOME: home, STANDIN_KEY: 'stand-in-key' } });
  const all = service.stream();
  const figures: Figure[] = [];
  try {
    const post = async (path: string, body: object) => {
      const answer = await service.request('POST', path, body);
      if (answer.status >= 300) throw new Error(`${path}: ${answer.status} ${JSON.stringify(answer.body)}`);
      return answer.body;
    };
    const created = await post('/api/threads', { question: '第 1 轮' });
    const threadId: string = created.thread.id;
    // Deltas go only to the pages that have their thread open.
    const open = service.stream(threadId);
    await until('the first turn', () => ended(all, threadId) >= 1, 60_000);

    if (options.sections.has('steer')) {
      const samples: number[] = [];
      for (let run = 0; run < options.steers; run += 1) {
        const before = ended(all, threadId);
        const turn = await post(`/api/threads/${threadId}/turns`, { question: `长任务 ${run}` });
        await until('the first words', () => open.events.some((event) => event.type === 'delta' && event.turnId === turn.turn.id), 30_000);
        guidance = `改用 2023 年的数据 ${run}`;
        guidanceAt = 0;
        const sent = performance.now();
        const answer = await post(`/api/threads/${threadId}/steer`, { question: guidance });
        if (!answer.steered) throw new Error('the guidance was queued');
        await until('the guidance in a request', () => guidanceAt > 0, 30_000);
        samples.push(guidanceAt - sent);
        release();
        await until('the turn to end', () => ended(all, threadId) > before, 60_000);
      }
      options.log(`steer → the model's request carrying it: ${samples.map((value) => value.toFixed(1)).join(', ')} ms`);
      figures.push({ name: 'guidance sent → the stand-in\'s request carrying it', unit: 'ms', runs: [samples], note: 'POST /steer to the request\'s arrival at the stand-in' });
    }

    open.close();
    if (options.sections.has('branch')) {
      for (let turn = ended(all, threadId) + 1; turn <= options.turns; turn += 1) {
        await post(`/api/threads/${threadId}/turns`, { question: `第 ${turn} 轮` });
        await until(`turn ${turn} to end`, () => ended(all, threadId) >= turn, 60_000);
        if (turn % 100 === 0) options.log(`${turn} turns asked`);
      }
      const { body } = await service.request('GET', `/api/threads/${threadId}`);
      const folder: string = body.thread.folder;
      const last = options.turns - 1;
      const branches: string[] = [];
      const branch = async (): Promise<number> => {
        const [made, ms] = await timed(() => post(`/api/threads/${threadId}/branch`, { position: last, confirmed: true }));
        branches.push(made.thread.id);
        return ms;
      };
      const small: number[] = [];
      for (let run = 0; run < options.branchRuns; run += 1) small.push(await branch());
      options.log(`branch of ${options.turns} turns, empty folder: ${small.map((value) => value.toFixed(0)).join(', ')} ms`);
      await fillFolder(folder);
      const large: number[] = [];
      const copies: number[] = [];
      for (let run = 0; run < options.branchRuns; run += 1) {
        large.push(await branch());
        const target = join(service.dataFolder, `copy-${run}`);
        copies.push((await timed(() => cp(folder, target, { recursive: true })))[1]);
        await rm(target, { recursive: true, force: true });
        // Each branch's copy goes again, so the disk holds at most two.
        await rm(join(service.dataFolder, 'threads', branches.at(-1)!), { recursive: true, force: true });
      }
      options.log(`branch of ${options.turns} turns, 1 GiB folder: ${large.map((value) => value.toFixed(0)).join(', ')} ms; the folder copied alone: ${copies.map((value) => value.toFixed(0)).join(', ')} ms`);
      figures.push(
        { name: `branch at turn ${options.turns} of ${options.turns}, empty folder: request → usable branch`, unit: 'ms', runs: [small], note: 'fork in Codex, the turns copied in the store' },
        { name: `branch at turn ${options.turns} of ${options.turns}, 1 GiB folder: request → usable branch`, unit: 'ms', runs: [large] },
        { name: 'the same 1 GiB folder copied alone (fs.cp)', unit: 'ms', runs: [copies], note: 'the copy\'s share of the branch' },
      );
    }
  } finally {
    all.close();
    service.child.kill('SIGTERM');
    await service.exited;
    await standIn.close();
    for (const folder of [home, service.dataFolder]) rmSync(folder, { recursive: true, force: true });
  }
  return figures;
}

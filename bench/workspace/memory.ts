// The service's resident memory over a long thread: 200 turns asked one after another through the
// real Codex and the stand-in (short answers), with a page's event stream open on the thread as a
// browser would have it. Only the service's own process is counted: Codex is its child.
import { readFileSync, rmSync } from 'node:fs';
import { codexHome, lastQuestion, reply, startStandIn } from '../../tests/harness/standin.ts';
import { CODEX, startService, until, type EventStream } from '../../tests/harness/service.ts';
import type { Figure } from './figures.ts';

export interface MemoryOptions {
  runs: number;
  turns: number;
  /** The app folder to run; the shipped one when undefined. */
  app?: string;
  log(line: string): void;
}

/** VmRSS and VmHWM of a process, in MB (2^20 bytes), and its anonymous and file-backed parts. */
export function residentMemory(pid: number): { rss: number; peak: number; anon: number; file: number } {
  const status = readFileSync(`/proc/${pid}/status`, 'utf8');
  const field = (name: string) => Number(new RegExp(`^${name}:\\s+(\\d+) kB`, 'm').exec(status)?.[1] ?? Number.NaN) / 1024;
  return { rss: field('VmRSS'), peak: field('VmHWM'), anon: field('RssAnon'), file: field('RssFile') };
}

const settle = (ms: number) => new Promise((resolve) => setTimeout(resolve, ms));

function finishedTurns(stream: EventStream, threadId: string): number {
  return stream.events.filter((event) => event.type === 'threadSummary' && event.thread.id === threadId && !event.thread.running).length;
}

export async function memoryFigures(options: MemoryOptions): Promise<Figure[]> {
  const after: number[] = [];
  const baseline: number[] = [];
  const peaks: number[] = [];
  const anon: number[] = [];
  const curves: string[] = [];
  for (let run = 0; run < options.runs; run += 1) {
    const standIn = await startStandIn((request) => reply.answer(['好的，', `这是对「${lastQuestion(request).slice(0, 20)}」的简短回答。`]));
    const home = codexHome(standIn);
    const service = await startService({ codexPath: CODEX, app: options.app, env: { CODEX_HOME: home, STANDIN_KEY: 'stand-in-key' } });
    const pid = service.child.pid!;
    try {
      const all = service.stream();
      await until('Codex to be ready', () => all.events.some((event) => (event.type === 'service' || event.type === 'hello') && event.service.codex.state === 'ready'), 30_000);
      await settle(1000);
      const start = residentMemory(pid);
      baseline.push(start.rss);
      const created = await service.request('POST', '/api/threads', { question: '第 1 轮：简短回答' });
      if (created.status !== 201) throw new Error(`asking failed: ${created.status} ${JSON.stringify(created.body)}`);
      const threadId = created.body.thread.id as string;
      const open = service.stream(threadId);
      const curve: string[] = [`0: ${start.rss.toFixed(1)}`];
      for (let turn = 1; turn <= options.turns; turn += 1) {
        if (turn > 1) {
          const asked = await service.request('POST', `/api/threads/${threadId}/turns`, { question: `第 ${turn} 轮：简短回答` });
          if (asked.status !== 201) throw new Error(`turn ${turn}: ${asked.status} ${JSON.stringify(asked.body)}`);
        }
        await until(`turn ${turn} to end`, () => finishedTurns(all, threadId) >= turn, 60_000);
        if (turn % 50 === 0) curve.push(`${turn}: ${residentMemory(pid).rss.toFixed(1)}`);
      }
      const failed = open.events.filter((event) => event.type === 'turn' && event.turn.status === 'failed').length;
      if (failed > 0) throw new Error(`${failed} turns failed`);
      // Idle for a moment, as a user would read the last answer: what the service keeps, not what is in flight.
      await settle(3000);
      const end = residentMemory(pid);
      after.push(end.rss);
      peaks.push(end.peak);
      anon.push(end.anon);
      curves.push(curve.join(', '));
      options.log(`memory run ${run + 1}: ${options.turns} turns, resident ${start.rss.toFixed(1)} → ${end.rss.toFixed(1)} MB (anonymous ${end.anon.toFixed(1)}, file ${end.file.toFixed(1)}), peak ${end.peak.toFixed(1)} MB; by turn: ${curve.join(', ')}`);
      all.close();
      open.close();
    } finally {
      service.child.kill('SIGTERM');
      await service.exited;
      await standIn.close();
      for (const folder of [home, service.dataFolder]) rmSync(folder, { recursive: true, force: true });
    }
  }
  return [
    { name: `service resident after ${options.turns} turns`, unit: 'MB', runs: after.map((value) => [value]), goal: { limit: 75, atMost: true, text: '≤ 75 MB' }, note: `VmRSS of the service's own process, 3 s after the last turn; MB = 2^20 bytes` },
    { name: 'service resident before the first turn', unit: 'MB', runs: baseline.map((value) => [value]), note: 'Codex ready, a page connected' },
    { name: `service peak resident (VmHWM), ${options.turns} turns`, unit: 'MB', runs: peaks.map((value) => [value]) },
    { name: `service anonymous resident after ${options.turns} turns`, unit: 'MB', runs: anon.map((value) => [value]) },
  ];
}

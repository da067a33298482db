// From the model's delta to the page's DOM: the stand-in streams marked deltas to the real Codex,
// the service passes them on, and the real page in Chromium stamps each marker as it enters its
// DOM. A reader of the event stream in a thread of this process stamps the same deltas as they
// leave the service, which splits the latency into Codex plus service, and the page.
import { join } from 'node:path';
import { rmSync } from 'node:fs';
import { once } from 'node:events';
import { Worker } from 'node:worker_threads';
import { codexHome, lastQuestion, reply, startStandIn, type StandIn } from '../../tests/harness/standin.ts';
import { CODEX, startService, until, type EventStream, type Running } from '../../tests/harness/service.ts';
import type { PageEvent } from '../../resources/app/workspace/model.ts';
import { launchBrowser, type Page } from '../../tests/harness/browser.ts';
import { longAnswer, marker, shortAnswer } from './answers.ts';
import { clockOffset, now, probedPage, recorded, resetRecorded, type Recorded } from './inPage.ts';
import { median, type Figure } from './figures.ts';
import { profilePage, summarise } from './profile.ts';

export interface StreamingOptions {
  /** Runs of the short-answer figure, and measured turns in each. */
  firstRuns: number;
  firstTurns: number;
  /** Deltas per short answer and the pause between them. */
  firstDeltas: number;
  firstGapMs: number;
  /** Runs of the long answer, paced and back to back. */
  longRuns: number;
  longGapMs: number;
  /** A folder for CPU profiles of the page during one more long answer of each kind; null for none. */
  profile: string | null;
  /** The app folder to run; the shipped one when undefined. */
  app?: string;
  log(line: string): void;
}

interface Planned {
  deltas: string[];
  gapMs: number;
}

/** One delta's way: sent by the stand-in, read from the event stream here, in the page's DOM. */
export interface Passage {
  index: number;
  sent: number;
  stream: number | null;
  dom: number | null;
}

/** What the stream reader thread read: each event and when. */
interface Read {
  events: PageEvent[];
  times: number[];
}

class StreamReader {
  readonly #worker: Worker;

  constructor(url: string, threadId: string) {
    this.#worker = new Worker(new URL('./streamReader.ts', import.meta.url), { workerData: { url, threadId } });
  }

  async collect(): Promise<Read> {
    this.#worker.postMessage('collect');
    const [read] = await once(this.#worker, 'message') as [Read];
    return read;
  }

  async close(): Promise<void> {
    this.#worker.postMessage('close');
    await once(this.#worker, 'exit');
  }
}

class Bench {
  #tag = 0;
  offset = { offset: 0, uncertainty: 0 };

  readonly standIn: StandIn;
  readonly service: Running;
  readonly page: Page;
  /** What the stand-in answers to each question, shared with its script. */
  readonly plans: Map<string, Planned>;

  constructor(standIn: StandIn, service: Running, page: Page, plans: Map<string, Planned>) {
    this.standIn = standIn;
    this.service = service;
    this.page = page;
    this.plans = plans;
  }

  /** A question the stand-in answers with these deltas. */
  plan(make: (tag: number) => string[], gapMs: number): { question: string; deltas: string[] } {
    this.#tag += 1;
    const question = `基准问题 #${this.#tag}`;
    const deltas = make(this.#tag);
    this.plans.set(question, { deltas, gapMs });
    return { question, deltas };
  }

  async ask(question: string): Promise<void> {
    await this.page.fill('#question', question);
    await this.page.press('#question', 'Enter');
  }

  /**
   * A new thread, opened in the page, whose first (unmeasured) turn has finished; a stream to
   * wait on, and a reader that stamps.
   */
  async newThread(): Promise<{ id: string; stream: EventStream; reader: StreamReader }> {
    await this.page.click('#new-thread');
    await this.page.locator('#welcome').waitFor();
    await this.ask('先说一句话');
    await this.page.locator('.turn[data-status="completed"]').first().waitFor({ timeout: 30_000 });
    const id = decodeURIComponent(new URL(this.page.url()).hash.slice(1));
    const stream = this.service.stream(id);
    const reader = new StreamReader(this.service.url, id);
    await until('the event streams', async () => stream.events.length > 0 && (await reader.collect()).events.length > 0);
    return { id, stream, reader };
  }

  async turnDone(stream: EventStream, question: string): Promise<void> {
    await until(`the answer to ${question}`, () => stream.events.some((event) =>
      event.type === 'turn' && event.turn.question === question && event.turn.status !== 'running'), 60_000);
    const turn = stream.events.find((event) => event.type === 'turn' && event.turn.question === question && event.turn.status !== 'running');
    if (turn?.type === 'turn' && turn.turn.status !== 'completed') throw new Error(`turn ended ${turn.turn.status}: ${turn.turn.error}`);
  }

  passages(deltas: string[], stream: Read, page: Recorded): Passage[] {
    return deltas.map((delta, index) => {
      const word = /lm\d{3}x\d{4}/.exec(delta)![0];
      const sent = this.standIn.sentAt.get(delta);
      if (sent === undefined) throw new Error(`the stand-in never sent ${word}`);
      const read = stream.events.findIndex((event) => event.type === 'delta' && event.text.includes(word));
      const inDom = page.seen[word];
      return { index, sent, stream: read < 0 ? null : stream.times[read]!, dom: inDom === undefined ? null : inDom - this.offset.offset };
    });
  }
}

function script(plans: Map<string, Planned>) {
  return (request: Parameters<Parameters<typeof startStandIn>[0]>[0]) => {
    const plan = plans.get(lastQuestion(request));
    return plan ? reply.answer(plan.deltas, plan.gapMs) : reply.answer('好的。');
  };
}

const latencies = (passages: Passage[], from: 'sent' | 'stream', to: 'stream' | 'dom') =>
  passages.filter((p) => p[to] !== null && p[from] !== null).map((p) => p[to]! - p[from]!);

export async function streamingFigures(options: StreamingOptions): Promise<Figure[]> {
  const plans = new Map<string, Planned>();
  const standIn = await startStandIn(script(plans));
  const home = codexHome(standIn);
  const service = await startService({ codexPath: CODEX, app: options.app, env: { CODEX_HOME: home, STANDIN_KEY: 'stand-in-key' } });
  // Each stream opened on the service waits for its exit; there is one per thread here.
  service.child.setMaxListeners(0);
  const browser = await launchBrowser();
  try {
    const { page, problems } = await probedPage(browser, service.url);
    const bench = new Bench(standIn, service, page, plans);
    bench.offset = await clockOffset(page);
    options.log(`page clock minus ours: ${bench.offset.offset.toFixed(2)} ms ± ${bench.offset.uncertainty.toFixed(2)}`);

    // ---- short answers: the first delta of each turn, and every delta ----
    const first: number[][] = [];
    const every: number[][] = [];
    const firstToStream: number[][] = [];
    const firstStreamToDom: number[][] = [];
    for (let run = 0; run < options.firstRuns; run += 1) {
      const { stream, reader } = await bench.newThread();
      const turns: { deltas: string[] }[] = [];
      for (let turn = 0; turn < options.firstTurns; turn += 1) {
        const { question, deltas } = bench.plan((tag) => shortAnswer(tag, options.firstDeltas), options.firstGapMs);
        await bench.ask(question);
        await bench.turnDone(stream, question);
        turns.push({ deltas });
      }
      await new Promise((resolve) => setTimeout(resolve, 200));
      const seen = await recorded(page);
      const read = await reader.collect();
      const passages = turns.map(({ deltas }) => bench.passages(deltas, read, seen));
      const heads = passages.map((turn) => turn[0]!);
      first.push(latencies(heads, 'sent', 'dom'));
      firstToStream.push(latencies(heads, 'sent', 'stream'));
      firstStreamToDom.push(latencies(heads, 'stream', 'dom'));
      every.push(latencies(passages.flat(), 'sent', 'dom'));
      const missing = passages.flat().filter((p) => p.dom === null).length;
      await reader.close();
      options.log(`short answers, run ${run + 1}: first delta → DOM median ${median(first.at(-1)!).toFixed(1)} ms (n=${heads.length}), every delta ${median(every.at(-1)!).toFixed(1)} ms (n=${every.at(-1)!.length}${missing ? `, ${missing} never seen` : ''})`);
      stream.close();
    }

    // ---- the long answer: 20,000 characters in 500 deltas ----
    const long: Record<string, { last: number[]; all: number[][]; longest: number[]; over50: number[]; handler: number[]; settle: number[]; early: number[][]; late: number[][] }> = {};
    for (const [label, gapMs] of [['paced', options.longGapMs], ['back to back', 0]] as const) {
      const figures = { last: [] as number[], all: [] as number[][], longest: [] as number[], over50: [] as number[], handler: [] as number[], settle: [] as number[], early: [] as number[][], late: [] as number[][] };
      long[label] = figures;
      for (let run = 0; run < options.longRuns; run += 1) {
        const { stream, reader } = await bench.newThread();
        await resetRecorded(page);
        const { question, deltas } = bench.plan((tag) => longAnswer(tag), gapMs);
        await bench.ask(question);
        await bench.turnDone(stream, question);
        await new Promise((resolve) => setTimeout(resolve, 500));
        const seen = await recorded(page);
        const passages = bench.passages(deltas, await reader.collect(), seen);
        await reader.close();
        const begun = passages[0]!.sent + bench.offset.offset;
        const ended = now() + bench.offset.offset;
        const tasks = seen.longTasks.filter((task) => task.start + task.duration >= begun && task.start <= ended);
        const handlers = seen.handlers.filter((handler) => handler.start >= begun);
        const lastPassage = passages.at(-1)!;
        if (lastPassage.dom === null) throw new Error('the last delta never reached the DOM');
        figures.last.push(lastPassage.dom - lastPassage.sent);
        figures.all.push(latencies(passages, 'sent', 'dom'));
        figures.early.push(latencies(passages.slice(0, 50), 'sent', 'dom'));
        figures.late.push(latencies(passages.slice(-50), 'sent', 'dom'));
        figures.longest.push(Math.max(0, ...tasks.map((task) => task.duration)));
        figures.over50.push(tasks.filter((task) => task.duration > 50).length);
        const deltaHandlers = handlers.filter((handler) => handler.kind === 'delta');
        figures.handler.push(Math.max(0, ...deltaHandlers.map((handler) => handler.duration)));
        const items = handlers.filter((handler) => handler.kind === 'item');
        figures.settle.push(Math.max(0, ...items.map((handler) => handler.duration)));
        options.log(`long answer (${label}), run ${run + 1}: last delta → DOM ${figures.last.at(-1)!.toFixed(1)} ms, longest task ${figures.longest.at(-1)!.toFixed(0)} ms (${tasks.length} over 50 ms), slowest delta handler ${figures.handler.at(-1)!.toFixed(1)} ms, slowest item handler ${figures.settle.at(-1)!.toFixed(1)} ms, observer total ${seen.observerCost.reduce((a, b) => a + b, 0).toFixed(0)} ms`);
        stream.close();
      }
    }
    if (options.profile) {
      for (const [label, gapMs] of [['paced', options.longGapMs], ['back-to-back', 0]] as const) {
        const { stream, reader } = await bench.newThread();
        await reader.close();
        const file = join(options.profile, `page-long-answer-${label}.cpuprofile`);
        const { profile } = await profilePage(page, file, async () => {
          const { question } = bench.plan((tag) => longAnswer(tag), gapMs);
          await bench.ask(question);
          await bench.turnDone(stream, question);
          await new Promise((resolve) => setTimeout(resolve, 500));
        });
        options.log(`page profile, long answer ${label} (${file}):\n${summarise(profile)}`);
        stream.close();
      }
    }
    if (problems.length > 0) options.log(`page problems: ${[...new Set(problems)].join('; ')}`);
    const paced = long.paced!;
    const burst = long['back to back']!;
    const pacedNote = `500 deltas of 40 characters, ${options.longGapMs} ms apart`;
    return [
      {
        name: 'first delta → DOM (short answers)', unit: 'ms', runs: first, goal: { limit: 15, atMost: true, text: 'median ≤ 15 ms' },
        note: `${options.firstTurns} turns per run, each ${options.firstDeltas} deltas ${options.firstGapMs} ms apart; of it, stand-in → event stream here ${median(firstToStream.flat()).toFixed(1)} ms, event stream → page DOM ${median(firstStreamToDom.flat()).toFixed(1)} ms (medians); clock offset ±${bench.offset.uncertainty.toFixed(2)} ms`,
      },
      { name: 'every delta → DOM (short answers)', unit: 'ms', runs: every },
      { name: 'long answer: last delta → DOM', unit: 'ms', runs: paced.last.map((value) => [value]), goal: { limit: 50, atMost: true, text: '≤ 50 ms' }, statistic: 'max', note: pacedNote },
      { name: 'long answer: every delta → DOM', unit: 'ms', runs: paced.all },
      { name: 'long answer: deltas 1–50 → DOM', unit: 'ms', runs: paced.early },
      { name: 'long answer: deltas 451–500 → DOM', unit: 'ms', runs: paced.late },
      { name: 'long answer: longest long task (0: none over 50 ms)', unit: 'ms', runs: paced.longest.map((value) => [value]), statistic: 'max', goal: { limit: 50, atMost: true, text: 'none over 50 ms' }, note: `Chromium reports tasks over 50 ms only; long tasks per run: ${paced.over50.join(', ')}; the slowest handler of one event below is the longest task's lower bound` },
      { name: 'long answer: slowest delta handler', unit: 'ms', runs: paced.handler.map((value) => [value]), statistic: 'max' },
      { name: 'long answer: final item handler (settle)', unit: 'ms', runs: paced.settle.map((value) => [value]), statistic: 'max' },
      { name: 'long answer back to back: last delta → DOM', unit: 'ms', runs: burst.last.map((value) => [value]), statistic: 'max', note: 'the same 500 deltas with no pause: what the page keeps up with' },
      { name: 'long answer back to back: longest long task', unit: 'ms', runs: burst.longest.map((value) => [value]), statistic: 'max', note: `long tasks over 50 ms per run: ${burst.over50.join(', ')}` },
    ];
  } finally {
    await browser.close();
    service.child.kill('SIGTERM');
    await service.exited;
    await standIn.close();
    for (const folder of [home, service.dataFolder]) rmSync(folder, { recursive: true, force: true });
  }
}

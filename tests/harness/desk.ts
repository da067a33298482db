// The research desk on a scripted Codex, a real store and a virtual clock, for the tests of what
// it asks Codex, what the page and the store get, and what it refuses.
import { join } from 'node:path';
import { ResearchDesk, type Question } from '../../resources/app/workspace/research/desk.ts';
import { ThreadStore } from '../../resources/app/workspace/store/store.ts';
import { routeNotifications } from '../../resources/app/workspace/codex/protocol.ts';
import type { PageEvent } from '../../resources/app/workspace/model.ts';
import { VirtualClock } from './clock.ts';
import { temporaryFolder } from './service.ts';

/** Codex as the test scripts it: each method answers, fails, or waits for the test. */
export class ScriptedCodex {
  calls: [string, any][] = [];
  handlers: Record<string, (params: any) => unknown> = {
    'thread/start': () => ({ thread: { id: `codex-${this.paramsOf('thread/start').length}` } }),
    'thread/resume': () => ({}),
    'turn/start': () => ({ turn: { id: `turn-${this.paramsOf('turn/start').length}` } }),
    'turn/interrupt': () => ({}),
  };

  async request<T>(method: string, params: unknown): Promise<T> {
    this.calls.push([method, params]);
    return (await this.handlers[method]!(params)) as T;
  }

  methods = () => this.calls.map(([method]) => method);
  paramsOf = (method: string) => this.calls.filter(([m]) => m === method).map(([, params]) => params);

  /** Holds the method's answers back until the release this returns is called. */
  hold(method: string): () => void {
    const answer = this.handlers[method]!;
    let release!: () => void;
    const held = new Promise<void>((resolve) => { release = resolve; });
    this.handlers[method] = async (params) => { await held; return answer(params); };
    return release;
  }
}

/** A desk on a real store; commit, when given, stands between the desk and the store's writes. */
export function deskFixture(options: { commit?: (write: () => void) => void; dataFolder?: string } = {}) {
  const dataFolder = options.dataFolder ?? temporaryFolder('lm-desk-');
  const realStore = ThreadStore.open(join(dataFolder, 'workspace.db'));
  const store = new Proxy(realStore, {
    get: (target, key) => (key === 'commit' && options.commit
      ? (batch: never) => options.commit!(() => target.commit(batch))
      : (Reflect.get(target, key, target) as () => unknown).bind(target)),
  });
  const codex = new ScriptedCodex();
  const clock = new VirtualClock();
  const storage: (string | null)[] = [];
  const events: PageEvent[] = [];
  const desk = new ResearchDesk({
    store, codex, dataFolder, home: dataFolder, uid: process.getuid!(), clock, publish: (event) => events.push(event), endCommands: async () => {},
    reportStorage: (error) => storage.push(error ? error.reason : null),
  });
  const route = routeNotifications({ account: () => {}, turn: (notification) => desk.turns.onNotification(notification) });
  /** Codex's notification for the turn it is running in this Codex thread. */
  const notify = (method: string, params: object, codexThread = 'codex-1', turn = 'turn-1') =>
    route(method, { threadId: codexThread, turnId: turn, ...params });
  const answers = (id: string) => desk.threads.thread(id)!.turns.map((turn) => turn.items.map((item) => item.kind === 'answer' && item.text));
  return { desk, store: realStore, codex, clock, storage, events, dataFolder, notify, answers };
}

export const asked = (text: string): Question => ({ text, attachments: [], draft: null, choice: null, folder: null });

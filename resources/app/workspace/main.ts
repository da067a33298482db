// The workspace: the store, Codex, the research desk, the event stream and the routes, wired
// together once the entry is listening.
import { join } from 'node:path';
import { homedir } from 'node:os';
import { fileURLToPath } from 'node:url';
import type { IncomingMessage, ServerResponse } from 'node:http';
import type { Duplex } from 'node:stream';
import { CodexAppServer } from './codex/appServer.ts';
import { endThreadCommands, killSurvivors, treeOf } from './codex/commands.ts';
import { QUESTION_LIMIT_BYTES, ResearchDesk, TITLE_LIMIT, describeStorage } from './research/desk.ts';
import { StoreError, ThreadStore } from './store/store.ts';
import { EventHub } from './http/events.ts';
import { PeerGate } from './http/security.ts';
import { systemLookup } from './http/peer.ts';
import { StaticFiles } from './http/static.ts';
import { createRoutes, createUpgrade, type RouteDeps } from './http/routes.ts';
import { systemClock, type Clock } from './clock.ts';
import { texts } from './texts.ts';
import { AccountDesk } from './account/accountDesk.ts';
import type { Account, Choice, ModelOption, ServiceState } from './model.ts';
import { readModels, resolveChoice } from './codex/models.ts';
import { ATTACHMENT_LIMIT, FILE_LIMIT_BYTES, FILE_LIMIT_TEXT, sweepDrafts } from './files/uploads.ts';
import { SEARCH_MAX_LENGTH } from './store/search.ts';
import { RpcError } from './codex/rpc.ts';
import { Refusal } from './refusal.ts';

export interface Boot {
  port: number;
  startedAt: number;
  env: NodeJS.ProcessEnv;
  /** The service's version, which Codex is told as the client's. */
  version: string;
  say(line: string): void;
  complain(line: string): void;
  clock?: Clock;
}

export interface Workspace {
  handle(request: IncomingMessage, response: ServerResponse): Promise<void>;
  /** A page opening its event stream. */
  upgrade(request: IncomingMessage, socket: Duplex, head: Buffer): Promise<void>;
  /** Ends running turns, stops Codex and closes the store. */
  stop(): Promise<void>;
}

const PUBLIC = fileURLToPath(new URL('../public', import.meta.url));

function openStore(dataFolder: string, say: (line: string) => void): { store: ThreadStore; problem: string | null } {
  try {
    const store = ThreadStore.open(join(dataFolder, 'workspace.db'));
    const cut = store.recover(texts.turnCutByServiceEnd, Date.now());
    if (cut > 0) say(`marked ${cut} turn(s) cut short by the previous run's end as interrupted`);
    return { store, problem: null };
  } catch (error) {
    // The page still works, keeping nothing, and says so; what is on disk is left as it is.
    const problem = error instanceof StoreError ? describeStorage(error) : String(error);
    say(`the store in ${dataFolder} cannot be used (${error instanceof Error ? error.message : String(error)}); nothing will be kept`);
    return { store: ThreadStore.open(':memory:'), problem };
  }
}

export function startWorkspace(boot: Boot): Workspace {
  const clock = boot.clock ?? systemClock;
  const { env } = boot;
  // Thread folders, the store and whatever Codex writes are the user's alone.
  process.umask(0o077);
  const dataFolder = env.LANTERNMOOR_DATA_DIR || join(homedir(), '.local', 'share', 'Lanternmoor Pro');
  const command = env.LANTERNMOOR_CODEX_PATH ?? '';
  const { store, problem } = openStore(dataFolder, boot.say);
  sweepDrafts(dataFolder, Date.now());
  /** What Codex offered when a page last asked; it decides what a thread's choice comes to. */
  let catalog: { models: ModelOption[]; codexDefault: Choice } | null = null;
  const hub = new EventHub();
  const state: ServiceState = {
    codex: { state: 'idle', version: null },
    account: null,
    signIn: { state: 'idle', outcome: null, offerDeviceCode: false },
    limits: null,
    storage: problem,
    about: {
      version: boot.version,
      address: `http://127.0.0.1:${boot.port}/`, dataFolder, codexPath: command, node: process.version, startedAt: boot.startedAt,
    },
    rules: {
      titleChars: TITLE_LIMIT, fileBytes: FILE_LIMIT_BYTES, attachments: ATTACHMENT_LIMIT, searchChars: SEARCH_MAX_LENGTH,
      questionBytes: QUESTION_LIMIT_BYTES,
      refusals: {
        titleTooLong: texts.titleTooLong(TITLE_LIMIT), fileTooLarge: texts.fileTooLarge(FILE_LIMIT_TEXT),
        tooManyFiles: texts.tooManyFiles(ATTACHMENT_LIMIT), searchTooLong: texts.searchTooLong(SEARCH_MAX_LENGTH),
        questionTooLong: texts.tooLarge,
      },
    },
  };
  const publishService = () => hub.publish({ type: 'service', service: state });

  const codex = new CodexAppServer({
    command, env, clock, clientVersion: boot.version,
    onState: (codexState) => {
      state.codex = codexState;
      publishService();
      if (codexState.state === 'ready') void account.refresh();
    },
    onNotification: (method, params) => {
      if (!account.onNotification(method, params)) desk.onNotification(method, params);
    },
    onExit: () => {
      account.onCodexExit();
      desk.onCodexExit();
    },
  });

  const account = new AccountDesk({
    codex, clock,
    changed: (view) => {
      Object.assign(state, view);
      publishService();
    },
  });

  const desk = new ResearchDesk({
    store, codex, dataFolder, clock,
    publish: (event) => hub.publish(event),
    endCommands: (pid, threadId) => endThreadCommands(pid, threadId, clock),
    resolveChoice: (choice) => resolveChoice(choice, catalog),
    reportStorage: (error) => {
      const next = problem ?? (error ? describeStorage(error) : null);
      if (error) boot.complain(`writing to the store failed: ${error.message}`);
      if (next === state.storage) return;
      state.storage = next;
      publishService();
    },
  });

  const routeDeps: RouteDeps = {
    desk, account, hub, files: new StaticFiles(PUBLIC), gate: new PeerGate(systemLookup, process.getuid?.() ?? -1),
    service: () => state,
    pageConnected: () => {
      if (state.codex.state === 'starting') return;
      if (state.codex.state !== 'ready') {
        codex.connect().catch(() => {});
        return;
      }
      // Codex reads a sign-in made elsewhere (`codex login` in a terminal) only when it starts, so
      // a signed-out one is started anew on a page's reload, unless something runs through it:
      // a turn, or a sign-in from a page, whose callback listener would go with it.
      const signedOut = state.account?.signedIn === false && state.account.requiresSignIn;
      if (signedOut && !desk.busy && !account.signingIn) codex.restart().catch(() => {});
      else void account.refresh();
    },
    complain: boot.complain,
    models: async () => {
      try {
        catalog = await readModels(codex);
      } catch (error) {
        const reason = error instanceof RpcError ? texts.codexError(error.message) : error instanceof Error ? error.message : String(error);
        throw new Refusal(503, texts.modelsUnavailable(reason));
      }
      return { ...catalog, last: store.lastChoice() };
    },
    uploads: { dataFolder, threadFolder: (id) => store.codexPlace(id)?.folder ?? null },
  };
  const handle = createRoutes(routeDeps);

  return {
    handle,
    upgrade: createUpgrade(routeDeps),
    async stop() {
      hub.closeAll();
      await desk.shutdown();
      // Whatever Codex started and its end does not take along is ended after it.
      const pid = codex.pid;
      const tree = pid === null ? [] : await treeOf(pid).catch(() => []);
      await codex.stop();
      await killSurvivors(tree).catch(() => 0);
      store.close();
    },
  };
}

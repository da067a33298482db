// The workspace: the store, Codex, the research desk, the event stream and the routes, wired
// together once the entry is listening.
import { mkdtempSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import { homedir, tmpdir } from 'node:os';
import { fileURLToPath } from 'node:url';
import type { IncomingMessage, ServerResponse } from 'node:http';
import type { Duplex } from 'node:stream';
import { CodexAppServer } from './codex/appServer.ts';
import { endThreadCommands } from './codex/commands.ts';
import { routeNotifications } from './codex/protocol.ts';
import { Models } from './codex/models.ts';
import { QUESTION_LIMIT_BYTES, ResearchDesk } from './research/desk.ts';
import { TITLE_LIMIT } from './research/threads.ts';
import { describeStorage } from './research/storage.ts';
import { StoreError, ThreadStore } from './store/store.ts';
import { EventHub } from './http/events.ts';
import { FolderWatches } from './files/folderWatch.ts';
import { PeerGate } from './http/security.ts';
import { systemLookup } from './http/peer.ts';
import { StaticFiles } from './http/static.ts';
import { createRoutes } from './http/routes.ts';
import { createUpgrade } from './http/upgrade.ts';
import { sentenceOf } from './http/refusals.ts';
import { systemClock, type Clock } from './clock.ts';
import { texts } from './texts.ts';
import { AccountDesk } from './account/accountDesk.ts';
import type { ServiceState } from './model.ts';
import { ATTACHMENT_LIMIT, FILE_LIMIT_BYTES } from './files/uploads.ts';
import { sweepDrafts } from './files/drafts.ts';
import { openOnDesktop } from './files/desktop.ts';
import { SEARCH_MAX_LENGTH } from './store/search.ts';

export interface Boot {
  port: number;
  startedAt: number;
  env: NodeJS.ProcessEnv;
  /** The service's version (the package's), which Codex is told as the client's. */
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

interface Opened {
  store: ThreadStore;
  problem: string | null;
  /** The data folder holds what this service must not change (a newer version's, or a damaged store). */
  untouchable: boolean;
}

function openStore(dataFolder: string, say: (line: string) => void): Opened {
  try {
    const store = ThreadStore.open(join(dataFolder, 'workspace.db'));
    const cut = store.recover(texts.turnCutByServiceEnd, Date.now());
    if (cut > 0) say(`marked ${cut} turn(s) cut short by the previous run's end as interrupted`);
    return { store, problem: null, untouchable: false };
  } catch (error) {
    // The page still works, keeping nothing, and says so; what is on disk is left as it is.
    const problem = error instanceof StoreError ? describeStorage(error) : String(error);
    say(`the store in ${dataFolder} cannot be used (${error instanceof Error ? error.message : String(error)}); nothing will be kept`);
    const untouchable = error instanceof StoreError && (error.reason === 'newer' || error.reason === 'corrupt');
    return { store: ThreadStore.open(':memory:'), problem, untouchable };
  }
}

export function startWorkspace(boot: Boot): Workspace {
  const clock = boot.clock ?? systemClock;
  const { env } = boot;
  // Thread folders, the store and whatever Codex writes are the user's alone.
  process.umask(0o077);
  const dataFolder = env.LANTERNMOOR_DATA_DIR || join(homedir(), '.local', 'share', 'Lanternmoor Pro');
  const command = env.LANTERNMOOR_CODEX_PATH ?? '';
  const { store, problem, untouchable } = openStore(dataFolder, boot.say);
  // With nothing kept, the threads' folders and drafts are not kept either; one that cannot be
  // written is left to refuse them, as it says.
  const workFolder = untouchable ? mkdtempSync(join(tmpdir(), 'lanternmoor-')) : dataFolder;
  sweepDrafts(workFolder, Date.now());
  // The folders the pages' files panels show are watched only while a page shows one.
  const hub = new EventHub((page) => watches.forget(page));
  const watches = new FolderWatches({ clock, publish: (event) => hub.publish(event) });
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
        titleTooLong: sentenceOf('titleTooLong'), fileTooLarge: sentenceOf('fileTooLarge'),
        tooManyFiles: sentenceOf('tooManyFiles'), searchTooLong: sentenceOf('searchTooLong'), questionTooLong: sentenceOf('tooLarge'),
      },
    },
  };
  const publishService = () => hub.publish({ type: 'service', service: state });

  const codex = new CodexAppServer({
    command, env, clock, clientVersion: boot.version,
    onState: (codexState) => {
      state.codex = codexState;
      publishService();
      if (codexState.state !== 'ready') return;
      void account.refresh();
      models.refresh().catch(() => {});
    },
    onRequest: (method, params) => desk.approvals.request(method, params),
    onNotification: routeNotifications({
      account: (notification) => account.onNotification(notification),
      turn: (notification) => desk.turns.onNotification(notification),
    }),
    onExit: () => {
      account.onCodexExit();
      desk.turns.onCodexExit();
    },
  });
  const models = new Models(codex, () => codex.running);

  const account = new AccountDesk({
    codex, clock,
    changed: (view) => {
      Object.assign(state, view);
      publishService();
    },
  });

  const folderRules = { home: homedir(), dataFolder, uid: process.getuid?.() ?? -1 };
  const desk = new ResearchDesk({
    store, codex, clock, ...folderRules, dataFolder: workFolder,
    publish: (event) => {
      if (event.type === 'threadRemoved') watches.forgetThread(event.id);
      hub.publish(event);
    },
    endCommands: async (threadId) => {
      const pid = codex.pid;
      if (pid !== null) await endThreadCommands(pid, threadId, clock);
    },
    resolveChoice: (choice) => models.resolve(choice),
    reportStorage: (error) => {
      const next = problem ?? (error ? describeStorage(error) : null);
      if (error) boot.complain(`writing to the store failed: ${error.message}`);
      if (next === state.storage) return;
      state.storage = next;
      publishService();
    },
  });

  const gate = new PeerGate(systemLookup, process.getuid?.() ?? -1);
  const handle = createRoutes({
    desk, account, models, gate, files: new StaticFiles(PUBLIC), complain: boot.complain,
    uploads: { dataFolder: workFolder, threadFolder: (id) => desk.threads.attachmentsFolder(id) },
    lastChoice: () => store.lastChoice(), folderRules,
    openFolder: (path) => openOnDesktop(path, boot.complain),
    watches, pageOpen: (page) => hub.has(page),
  });
  const upgrade = createUpgrade({
    threads: desk.threads, hub, gate, complain: boot.complain,
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
      if (signedOut && !desk.turns.busy && !account.signingIn) codex.restart().catch(() => {});
      else void account.refresh();
    },
  });

  return {
    handle,
    upgrade,
    async stop() {
      hub.closeAll();
      watches.closeAll();
      await desk.turns.shutdown();
      await codex.stop();
      store.close();
      if (workFolder !== dataFolder) rmSync(workFolder, { recursive: true, force: true });
    },
  };
}

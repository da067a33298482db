// @ts-check
// The page's flow: which thread is open (the address says), the service's events drawn into the
// views, questions asked, asked again, steered, queued and stopped, threads branched, a long
// thread's turns fetched as the reader scrolls to them, and the account's requests. What it keeps
// is in its one state object.
import { eventsUrl } from './api.js';
import { texts } from './texts.js';

/** @typedef {import('../workspace/model.ts').PageEvent} PageEvent */
/** @typedef {import('../workspace/model.ts').ServiceState} ServiceState */
/** @typedef {import('../workspace/model.ts').Thread} Thread */
/** @typedef {import('../workspace/model.ts').Turn} Turn */
/** @typedef {import('../workspace/model.ts').TurnHead} TurnHead */
/** @typedef {import('../workspace/model.ts').SignInMethod} SignInMethod */
/** @typedef {import('./threadView.js').Prepared} Prepared */
/** @typedef {import('./threadView.js').Side} Side */
/**
 * @typedef {{
 *   thread: import('./threadView.js').ThreadView, ask: import('./askView.js').AskView,
 *   service: import('./serviceView.js').ServiceView, list: import('./threadList.js').ThreadList,
 *   attachments: import('./attachments.js').Attachments, picker: import('./models.js').ModelPicker,
 *   approvals: import('./approvalCards.js').ApprovalCards, permission: import('./permissionPicker.js').PermissionPicker,
 *   notices: import('./notices.js').Notices, ownFolder: import('./ownFolder.js').OwnFolder,
 *   queue: import('./queueView.js').QueueView,
 *   files: import('./filesPanel.js').FilesPanel,
 * }} Views
 */
/**
 * The service's requests and event stream, passed in so the flow can be followed without a browser.
 * @typedef {{
 *   getJson: typeof import('./api.js').getJson, postJson: typeof import('./api.js').postJson,
 *   connect: (address: () => string, onEvent: (event: PageEvent) => void, onConnection: (connected: boolean) => void) => { open(): void },
 * }} Api
 */
/** A page of turns and whether more lie beyond it, drawn ahead. @typedef {{ prepared: Prepared, more: boolean }} Page */
/**
 * @typedef {{
 *   service: ServiceState | null, connected: boolean,
 *   open: string | null, at: number | null,
 *   complaint: string,
 *   fetching: Record<Side, boolean>,
 *   ahead: Record<Side, { thread: string, edge: number, page: Promise<Page | null> } | null>,
 *   running: boolean, editing: string | null,
 * }} State
 */

/** @param {unknown} error */
const sentence = (error) => (error instanceof Error ? error.message : String(error));

/** @param {string} thread */
const threadPath = (thread) => `/api/threads/${encodeURIComponent(thread)}`;

export class Controller {
  /** @type {State} */
  #state = {
    service: null, connected: true,
    /** The open thread, and the turn it was opened at (a search hit's); null: its end. */
    open: null, at: null,
    /** Why the last account request failed, until the next one. */
    complaint: '',
    fetching: { before: false, after: false },
    /** The pages of turns beyond the drawn ones, fetched and drawn while the reader reads. */
    ahead: { before: null, after: null },
    /** Whether the open thread runs a turn: what is sent is guidance for it. */
    running: false,
    /** The thread whose last question the box holds to be asked again; null: none. */
    editing: null,
  };
  #views;
  #api;
  #socket;

  /** @param {Views} views @param {Api} api */
  constructor(views, api) {
    this.#views = views;
    this.#api = api;
    this.#socket = api.connect(() => this.#address(), (event) => this.#onEvent(event), (connected) => this.#connection(connected));
    views.thread.bindNear((side) => this.#drawNear(side));
    views.ask.bindAsk(() => void this.#ask());
    views.ask.bindStop(() => void this.#stop());
    views.ask.bindQueue(() => void this.#ask('queue'));
    views.ask.bindCancelEdit(() => {
      this.#edit(null);
      views.ask.clear();
    });
    views.thread.bindTurnActions({
      edit: (head) => this.#edit(head),
      retry: (head) => void this.#send(`${threadPath(head.threadId)}/redo`, {}),
      branch: (head) => void this.#branch(head),
    });
    views.list.bindNewThread(() => {
      if (location.hash) location.hash = '';
      else this.#openFromAddress();
    });
    views.service.bindAccount({
      signIn: (method) => this.#signIn(method),
      cancel: () => this.#account('cancel'),
      signOut: () => this.#account('sign-out'),
    });
  }

  /** The service's limits and their sentences, once it has said them. */
  get rules() {
    return this.#state.service?.rules ?? null;
  }

  start() {
    window.addEventListener('hashchange', () => this.#openFromAddress());
    this.#openFromAddress();
  }

  /** A queued question of the open thread edited, or taken out (null). @param {string} id @param {string | null} text */
  changeQueued(id, text) {
    if (this.#state.open) void this.#send(`${threadPath(this.#state.open)}/queue/change`, { id, question: text });
  }

  /** A queued question of the open thread asked now. @param {string} id */
  sendQueued(id) {
    if (this.#state.open) void this.#send(`${threadPath(this.#state.open)}/queue/send`, { id });
  }

  /** Opens a thread at a search hit's turn, again when it is the one open. @param {string} thread @param {number} turn */
  openHit(thread, turn) {
    const hash = `#${thread}/${turn}`;
    if (location.hash === hash) this.#openFromAddress();
    else location.hash = hash;
  }

  #openFromAddress() {
    // #thread, or #thread/turn for a search hit.
    const [thread, turn] = decodeURIComponent(location.hash.slice(1)).split('/');
    this.#views.ask.say('');
    this.#listen(thread || null, turn && /^\d+$/.test(turn) ? Number(turn) : null);
    if (!thread) this.#views.ask.focus();
  }

  /** @param {string | null} thread @param {number | null} at */
  #listen(thread, at) {
    this.#state.open = thread;
    this.#state.at = at;
    this.#socket.open();
  }

  #address() {
    const { open, at } = this.#state;
    const query = new URLSearchParams(open ? { thread: open } : {});
    if (open && at !== null) query.set('at', String(at));
    return eventsUrl(query);
  }

  /** @param {boolean} connected */
  #connection(connected) {
    if (this.#state.connected === connected) return;
    this.#state.connected = connected;
    this.#drawService();
  }

  #drawService() {
    const { service, connected, complaint } = this.#state;
    if (service) this.#views.service.draw(service, connected, complaint);
  }

  /** @param {ServiceState} service */
  #serviceChanged(service) {
    this.#state.service = service;
    this.#drawService();
    this.#views.picker.serviceChanged(service);
    this.#views.ask.rules(service.rules);
    this.#views.attachments.showRules(service.rules);
  }

  /** @param {Thread | null} thread */
  #show(thread) {
    const views = this.#views;
    this.#state.ahead = { before: null, after: null };
    views.thread.show(thread, this.#state.at);
    this.#running(thread?.running ?? false);
    if (this.#state.editing !== thread?.id) this.#edit(null);
    views.queue.show(thread?.queued ?? [], thread?.running ?? false);
    views.attachments.reset(thread?.id ?? null);
    views.picker.show(thread);
    views.files.thread(thread?.id ?? null);
    views.approvals.show(thread?.id ?? null, thread?.approvals ?? []);
    views.permission.show(thread?.id ?? null, thread?.permission ?? 'write');
  }

  /** The tab's title counts what runs and what waits for the user, over every thread this page has. */
  #drawCounts() {
    const { running, waiting } = this.#views.list.counts();
    this.#views.notices.title(running, waiting);
  }

  /** @param {PageEvent} event */
  #onEvent(event) {
    const views = this.#views;
    const state = this.#state;
    switch (event.type) {
      case 'hello':
        views.files.connected(event.page);
        this.#serviceChanged(event.service);
        if (state.open && !event.thread) {
          views.ask.say(event.notice ?? '');
          state.open = null;
          state.at = null;
          history.replaceState(null, '', location.pathname);
        }
        views.list.hello(event.threads, event.moreThreads ?? false, state.open);
        for (const thread of event.threads) views.notices.summary(thread, undefined);
        this.#drawCounts();
        this.#show(event.thread);
        return;
      case 'service':
        this.#serviceChanged(event.service);
        return;
      case 'threadSummary':
        views.notices.summary(event.thread, views.list.get(event.thread.id));
        views.list.update(event.thread);
        this.#drawCounts();
        if (event.thread.id !== state.open) return;
        views.thread.summary(event.thread);
        this.#running(event.thread.running);
        return;
      case 'threadUsage':
        if (event.threadId === state.open) views.thread.usage(event.usage);
        return;
      case 'threadRemoved':
        views.list.remove(event.id);
        this.#drawCounts();
        if (event.id !== state.open) return;
        // Deleted here or in another page: this page goes back to the welcome, and says why.
        history.replaceState(null, '', location.pathname);
        this.#listen(null, null);
        this.#show(null);
        views.ask.say(texts.threadDeleted);
        return;
      case 'threadPermission':
        if (event.threadId === state.open) views.permission.show(event.threadId, event.permission);
        return;
      case 'approval':
        views.approvals.add(event.approval);
        views.notices.approval(event.approval, views.list.get(event.approval.threadId)?.title ?? '');
        return;
      case 'approvalEnded':
        views.approvals.remove(event.id);
        return;
      case 'turn':
        if (event.turn.threadId === state.open) views.thread.turn(event.turn);
        return;
      case 'turnRemoved':
        if (event.threadId === state.open) views.thread.removeTurn(event.turnId);
        return;
      case 'folderChanged':
        views.files.changed(event.threadId, event.path);
        return;
      case 'queue':
        if (event.threadId === state.open) views.queue.show(event.queued, state.running);
        return;
      case 'context':
        if (event.threadId === state.open) views.thread.context(event.context);
        return;
      case 'item':
        if (event.threadId === state.open) views.thread.item(event.turnId, event.item, event.streamed === true);
        return;
      case 'delta':
        if (event.threadId === state.open) views.thread.delta(event.turnId, event.position, event.field, event.part, event.text);
        return;
    }
  }

  /** @param {boolean} running */
  #running(running) {
    this.#state.running = running;
    this.#views.ask.running(running);
    this.#views.queue.running(running);
  }

  /** The open thread's last question into the box, to be asked again; null: editing ends. @param {TurnHead | null} head */
  #edit(head) {
    this.#state.editing = head?.threadId ?? null;
    this.#views.ask.edit(head?.question ?? null);
  }

  /**
   * What the box holds: guidance for the running turn, a question queued behind it (how: 'queue'),
   * the last question asked again, or a question.
   * @param {'ask' | 'queue'} [how]
   */
  async #ask(how = 'ask') {
    const { ask } = this.#views;
    const state = this.#state;
    const question = ask.question;
    if (question.trim() === '' || !ask.ready || !state.open) return this.#question();
    if (how === 'queue') return this.#send(`${threadPath(state.open)}/queue`, { question }, true);
    if (state.running) return this.#send(`${threadPath(state.open)}/steer`, { question }, true);
    if (state.editing === state.open) {
      this.#edit(null);
      return this.#send(`${threadPath(state.open)}/redo`, { question }, true);
    }
    return this.#question();
  }

  /**
   * A request about the open thread; its failure is said below the box, and its notice (guidance
   * that came too late, and was queued) too. cleared: the box's text went with it.
   * @param {string} path @param {object} body @param {boolean} [cleared]
   */
  async #send(path, body, cleared = false) {
    const { ask, thread } = this.#views;
    ask.sending(true);
    ask.say('');
    try {
      const answer = await this.#api.postJson(path, body);
      if (cleared) ask.clear();
      ask.say(answer.notice ?? '');
      thread.followEnd();
    } catch (error) {
      ask.say(sentence(error));
    } finally {
      ask.sending(false);
    }
  }

  /** A branch at the turn, opened once made; a large folder is copied only once the user agrees. @param {TurnHead} head */
  async #branch(head) {
    const { ask } = this.#views;
    ask.say(texts.branching);
    try {
      const path = `${threadPath(head.threadId)}/branch`;
      let answer = await this.#api.postJson(path, { position: head.position });
      if (answer.confirm) {
        if (!window.confirm(answer.confirm)) return ask.say('');
        answer = await this.#api.postJson(path, { position: head.position, confirmed: true });
      }
      ask.say('');
      location.hash = answer.thread.id;
    } catch (error) {
      ask.say(sentence(error));
    }
  }

  async #question() {
    const { ask, thread, attachments, picker } = this.#views;
    const state = this.#state;
    const question = ask.question;
    if (question.trim() === '' || !ask.ready) return;
    ask.sending(true);
    ask.say('');
    try {
      // A thread opened at a search hit shows the new turn at its end, with the turns before it.
      if (state.open && thread.edge('after') !== null) {
        history.replaceState(null, '', `#${state.open}`);
        this.#listen(state.open, null);
      }
      const body = { question, ...(await attachments.extras()), ...picker.choice() };
      const folder = this.#views.ownFolder.folder;
      if (state.open) {
        await this.#api.postJson(`${threadPath(state.open)}/turns`, body);
      } else {
        location.hash = (await this.#api.postJson('/api/threads', folder ? { ...body, folder } : body)).thread.id;
        this.#views.ownFolder.sent();
      }
      attachments.sent();
      picker.sent();
      ask.clear();
      thread.followEnd();
    } catch (error) {
      ask.say(sentence(error));
    } finally {
      ask.sending(false);
    }
  }

  async #stop() {
    const { ask } = this.#views;
    const thread = this.#state.open;
    if (!thread) return;
    ask.stopping(true);
    try {
      await this.#api.postJson(`${threadPath(thread)}/stop`, {});
    } catch (error) {
      ask.say(sentence(error));
    } finally {
      ask.stopping(false);
    }
  }

  /**
   * The turns before (or after) a position, drawn ahead; null when the thread is no longer open
   * once they come, or they could not be had (the sentinel asks again).
   * @param {string} thread @param {Side} side @param {number} position @returns {Promise<Page | null>}
   */
  async #page(thread, side, position) {
    try {
      /** @type {{ turns: Turn[], earlier?: boolean, later?: boolean }} */
      const page = await this.#api.getJson(`${threadPath(thread)}/turns?${side}=${position}`);
      if (this.#state.open !== thread) return null;
      const more = (side === 'before' ? page.earlier : page.later) ?? false;
      return { prepared: await this.#views.thread.prepare(page.turns), more: more && page.turns.length > 0 };
    } catch {
      return null;
    }
  }

  /**
   * Draws the page of turns before the earliest drawn (or after the latest), and fetches the one
   * beyond it meanwhile, so the reader scrolling on finds it ready.
   * @param {Side} side
   */
  async #drawNear(side) {
    const state = this.#state;
    const view = this.#views.thread;
    const thread = state.open;
    const edge = view.edge(side);
    if (!thread || edge === null || state.fetching[side]) return;
    state.fetching[side] = true;
    try {
      const ahead = state.ahead[side];
      state.ahead[side] = null;
      const page = await (ahead?.thread === thread && ahead.edge === edge ? ahead.page : this.#page(thread, side, edge));
      if (!page || state.open !== thread || view.edge(side) !== edge) return;
      await view.add(side, page.prepared, page.more);
      const next = view.edge(side);
      if (state.open === thread && next !== null) state.ahead[side] = { thread, edge: next, page: this.#page(thread, side, next) };
    } finally {
      state.fetching[side] = false;
    }
  }

  /** @param {SignInMethod} method */
  #signIn(method) {
    if (method === 'deviceCode') {
      this.#account('sign-in', { method });
      return;
    }
    // Opened now, while the click still counts as the user's, so no pop-up blocker stops it; it is
    // sent to the sign-in address once Codex has given one.
    const tab = window.open('about:blank', '_blank');
    if (tab) tab.opener = null;
    this.#account('sign-in', { method }, (answer) => {
      if (answer.signIn.state === 'browser' && tab) tab.location.href = answer.signIn.authUrl;
      else tab?.close();
    }, () => tab?.close());
  }

  /**
   * An account request; its failure is said in the sign-in banner until the next one.
   * @param {string} action @param {object} [body] @param {(answer: any) => void} [then] @param {() => void} [failed]
   */
  #account(action, body = {}, then, failed) {
    this.#state.complaint = '';
    this.#api.postJson(`/api/account/${action}`, body).then(then, (error) => {
      failed?.();
      this.#state.complaint = sentence(error);
      this.#drawService();
    });
  }
}

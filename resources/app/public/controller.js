// @ts-check
// The page's flow: which thread is open (the address says), the service's events drawn into the
// views, questions asked and answers stopped, a long thread's turns fetched as the reader scrolls
// to them, and the account's requests. What it keeps is in its one state object.
import { EventSocket } from './socket.js';
import { eventsUrl, getJson, postJson } from './api.js';
import { texts } from './texts.js';

/** @typedef {import('../workspace/model.ts').PageEvent} PageEvent */
/** @typedef {import('../workspace/model.ts').ServiceState} ServiceState */
/** @typedef {import('../workspace/model.ts').Thread} Thread */
/** @typedef {import('../workspace/model.ts').Turn} Turn */
/** @typedef {import('../workspace/model.ts').SignInMethod} SignInMethod */
/** @typedef {import('./threadView.js').Prepared} Prepared */
/** @typedef {import('./threadView.js').Side} Side */
/**
 * @typedef {{
 *   thread: import('./threadView.js').ThreadView, ask: import('./askView.js').AskView,
 *   service: import('./serviceView.js').ServiceView, list: import('./threadList.js').ThreadList,
 *   attachments: import('./attachments.js').Attachments, picker: import('./models.js').ModelPicker,
 *   files: import('./filesPanel.js').FilesPanel,
 * }} Views
 */
/** A page of turns and whether more lie beyond it, drawn ahead. @typedef {{ prepared: Prepared, more: boolean }} Page */
/**
 * @typedef {{
 *   service: ServiceState | null, connected: boolean,
 *   open: string | null, at: number | null,
 *   complaint: string,
 *   fetching: Record<Side, boolean>,
 *   ahead: Record<Side, { thread: string, edge: number, page: Promise<Page | null> } | null>,
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
  };
  #views;
  #socket;

  /** @param {Views} views */
  constructor(views) {
    this.#views = views;
    this.#socket = new EventSocket(() => this.#address(), (event) => this.#onEvent(event), (connected) => this.#connection(connected));
    views.thread.bindNear((side) => this.#drawNear(side));
    views.ask.bindAsk(() => void this.#ask());
    views.ask.bindStop(() => void this.#stop());
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
    views.ask.running(thread?.running ?? false);
    views.attachments.reset(thread?.id ?? null);
    views.picker.show(thread);
    views.files.thread(thread?.id ?? null, thread?.running ?? false);
  }

  /** @param {PageEvent} event */
  #onEvent(event) {
    const views = this.#views;
    const state = this.#state;
    switch (event.type) {
      case 'hello':
        this.#serviceChanged(event.service);
        if (state.open && !event.thread) {
          views.ask.say(event.notice ?? '');
          state.open = null;
          state.at = null;
          history.replaceState(null, '', location.pathname);
        }
        views.list.hello(event.threads, event.moreThreads ?? false, state.open);
        this.#show(event.thread);
        return;
      case 'service':
        this.#serviceChanged(event.service);
        return;
      case 'threadSummary':
        views.list.update(event.thread);
        if (event.thread.id !== state.open) return;
        views.thread.summary(event.thread);
        views.ask.running(event.thread.running);
        views.files.running(event.thread.running);
        return;
      case 'threadUsage':
        if (event.threadId === state.open) views.thread.usage(event.usage);
        return;
      case 'threadRemoved':
        views.list.remove(event.id);
        if (event.id !== state.open) return;
        // Deleted here or in another page: this page goes back to the welcome, and says why.
        history.replaceState(null, '', location.pathname);
        this.#listen(null, null);
        this.#show(null);
        views.ask.say(texts.threadDeleted);
        return;
      case 'turn':
        if (event.turn.threadId === state.open) views.thread.turn(event.turn);
        return;
      case 'item':
        if (event.threadId === state.open) views.thread.item(event.turnId, event.item);
        return;
      case 'delta':
        if (event.threadId === state.open) views.thread.delta(event.turnId, event.position, event.field, event.part, event.text);
        return;
    }
  }

  async #ask() {
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
      if (state.open) await postJson(`${threadPath(state.open)}/turns`, body);
      else location.hash = (await postJson('/api/threads', body)).thread.id;
      attachments.sent();
      picker.sent();
      ask.clear();
      thread.followEnd();
    } catch (error) {
      ask.say(sentence(error));
      ask.sending(false);
    }
  }

  async #stop() {
    const { ask } = this.#views;
    const thread = this.#state.open;
    if (!thread) return;
    ask.stopping(true);
    try {
      await postJson(`${threadPath(thread)}/stop`, {});
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
      const page = await getJson(`${threadPath(thread)}/turns?${side}=${position}`);
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
    postJson(`/api/account/${action}`, body).then(then, (error) => {
      failed?.();
      this.#state.complaint = sentence(error);
      this.#drawService();
    });
  }
}

// @ts-check
// The thread list: pinned threads first in a group of their own, then the rest newest first, and
// the archived ones in a view of their own. Years of threads are not all sent at once: the
// snapshot brings the pinned ones and the newest page, and older pages are fetched as the reader
// scrolls to the end. Entries stay `.thread-entry` buttons in display order, for the keyboard.
import { button, byId, element } from './dom.js';
import { texts } from './texts.js';
import { getJson } from './api.js';

/** @typedef {import('../workspace/model.ts').ThreadSummary} ThreadSummary */
/** @typedef {{ updatedAt: number, id: string }} Cursor */
/** @typedef {{ cursor: Cursor | null, more: boolean }} Paging */

/** The list's order: newest first, then by id, as the service pages it. @param {Cursor} a @param {Cursor} b */
const compare = (a, b) => b.updatedAt - a.updatedAt || (a.id < b.id ? -1 : a.id > b.id ? 1 : 0);

export class ThreadList {
  /** @type {Map<string, ThreadSummary>} */
  #threads = new Map();
  /** @type {Map<string, HTMLButtonElement>} */
  #entries = new Map();
  /** @type {{ main: Paging, archived: Paging }} */
  #paging = { main: { cursor: null, more: false }, archived: { cursor: null, more: true } };
  #view = /** @type {'main' | 'archived'} */ ('main');
  #open = /** @type {string | null} */ (null);
  #fetching = false;
  #nav;
  #toggle;
  #sentinel = element('div', 'list-more');
  #observer;

  /** @param {HTMLElement} nav */
  constructor(nav) {
    this.#nav = nav;
    this.#toggle = button('', 'archive-toggle', () => this.#switchView());
    this.#toggle.id = 'archived-toggle';
    nav.after(this.#toggle);
    // Fetching again while the sentinel stays in view: a short page may not push it out.
    this.#observer = new IntersectionObserver((seen) => {
      if (seen.some((entry) => entry.isIntersecting)) void this.#fetchMore();
    }, { root: nav, rootMargin: '0px 0px 400px 0px' });
  }

  /** @param {() => void} handler */
  bindNewThread(handler) {
    byId('new-thread').addEventListener('click', handler);
  }

  /**
   * A snapshot: the pinned threads and the newest page. What the page had read beyond that page
   * (its stream is opened again with each thread it opens) is kept, so the reader's place stays.
   * @param {ThreadSummary[]} threads @param {boolean} more @param {string | null} open
   */
  hello(threads, more, open) {
    const old = this.#threads;
    const main = this.#paging.main;
    this.#threads = new Map(threads.map((thread) => [thread.id, thread]));
    const end = threads.filter((thread) => !thread.pinned).at(-1) ?? null;
    const further = more && end && main.cursor && compare(main.cursor, end) > 0;
    this.#paging.main = further ? main : { cursor: end, more };
    for (const thread of old.values()) {
      if (this.#threads.has(thread.id)) continue;
      if (thread.archived || (further && !thread.pinned && end && compare(thread, end) > 0)) this.#threads.set(thread.id, thread);
    }
    this.#open = open;
    this.draw();
  }

  /** One thread changed: its entry moves to its place, or out of this view. @param {ThreadSummary} thread */
  update(thread) {
    this.#threads.set(thread.id, thread);
    this.draw();
  }

  /** A thread as this page has it; undefined when it has not loaded it. @param {string} id */
  get(id) {
    return this.#threads.get(id);
  }

  /** How many of the loaded threads run a turn, and how many wait for the user. */
  counts() {
    const threads = [...this.#threads.values()];
    return { running: threads.filter((thread) => thread.running).length, waiting: threads.filter((thread) => thread.waiting).length };
  }

  /** @param {string} id */
  remove(id) {
    this.#threads.delete(id);
    this.#entries.delete(id);
    this.draw();
  }

  /** Draws the view from what is loaded: nodes are kept per thread, only their order is set again. */
  draw() {
    const shown = [...this.#threads.values()]
      .filter((thread) => thread.archived === (this.#view === 'archived'))
      .sort(compare);
    /** @type {HTMLElement[]} */
    const nodes = [];
    if (this.#view === 'archived') {
      nodes.push(element('h2', 'thread-group', texts.archived), ...shown.map((thread) => this.#entry(thread)));
    } else {
      const pinned = shown.filter((thread) => thread.pinned);
      if (pinned.length > 0) {
        nodes.push(element('h2', 'thread-group', texts.pinned), ...pinned.map((thread) => this.#entry(thread)));
        nodes.push(element('h2', 'thread-group', texts.recent));
      }
      nodes.push(...shown.filter((thread) => !thread.pinned).map((thread) => this.#entry(thread)));
    }
    if (shown.length === 0 && !this.#paging[this.#view].more) {
      nodes.push(element('p', 'empty', this.#view === 'archived' ? texts.noArchived : texts.noThreads));
    }
    nodes.push(this.#sentinel);
    this.#nav.replaceChildren(...nodes);
    this.#toggle.textContent = this.#view === 'archived' ? texts.backToThreads : texts.showArchived;
    this.#toggle.setAttribute('aria-pressed', String(this.#view === 'archived'));
    this.#observer.unobserve(this.#sentinel);
    if (this.#paging[this.#view].more) this.#observer.observe(this.#sentinel);
  }

  /** @param {ThreadSummary} thread */
  #entry(thread) {
    let entry = this.#entries.get(thread.id);
    if (!entry) {
      entry = button('', 'thread-entry', () => {
        location.hash = thread.id;
      });
      entry.dataset.thread = thread.id;
      entry.append(element('span', 'title'), element('span', 'when'));
      this.#entries.set(thread.id, entry);
    }
    /** @type {HTMLElement} */ (entry.firstChild).textContent = thread.title;
    const live = thread.waiting ? element('span', 'live waiting', texts.waitingNow) : thread.running ? element('span', 'live', texts.answeringNow) : null;
    /** @type {HTMLElement} */ (entry.lastChild).replaceChildren(...(live ? [live] : []), texts.when(thread.updatedAt));
    entry.classList.toggle('pinned', thread.pinned);
    entry.classList.toggle('open', thread.id === this.#open);
    entry.setAttribute('aria-current', thread.id === this.#open ? 'page' : 'false');
    return entry;
  }

  #switchView() {
    this.#view = this.#view === 'main' ? 'archived' : 'main';
    this.draw();
    this.#nav.scrollTop = 0;
  }

  async #fetchMore() {
    const view = this.#view;
    const paging = this.#paging[view];
    if (this.#fetching || !paging.more) return;
    this.#fetching = true;
    try {
      const query = new URLSearchParams({ archived: view === 'archived' ? '1' : '0' });
      if (paging.cursor) {
        query.set('updated', String(paging.cursor.updatedAt));
        query.set('after', paging.cursor.id);
      }
      /** @type {{ threads: ThreadSummary[], more: boolean }} */
      const { threads, more } = await getJson(`/api/threads?${query}`);
      if (this.#paging[view] !== paging) return;
      for (const thread of threads) if (!this.#threads.has(thread.id)) this.#threads.set(thread.id, thread);
      paging.cursor = threads.at(-1) ?? paging.cursor;
      paging.more = more;
      this.draw();
    } catch {
      // The list stays as it is; the sentinel asks again when it next comes into view.
    } finally {
      this.#fetching = false;
    }
  }
}

// @ts-check
// The open thread (or the welcome, when none is): its head, and its turns with their items, drawn
// as the service's events come. A thread of years is drawn a page of turns at a time: the turns
// before (or after) what is drawn are asked for through bindNear* as the reader scrolls close.
import { byId, element } from './dom.js';
import { texts } from './texts.js';
import { ItemView, prepareItem } from './items.js';
import { ThreadActions } from './threadActions.js';

/** @typedef {import('../workspace/model.ts').Thread} Thread */
/** @typedef {import('../workspace/model.ts').ThreadSummary} ThreadSummary */
/** @typedef {import('../workspace/model.ts').Turn} Turn */
/** @typedef {import('../workspace/model.ts').TurnHead} TurnHead */
/** @typedef {import('../workspace/model.ts').Item} Item */
/** @typedef {import('../workspace/model.ts').Usage} Usage */
/** @typedef {import('../workspace/model.ts').Rules} Rules */
/** @typedef {import('./markdown.js').Markdown} Markdown */
/** @typedef {{ node: HTMLElement, items: HTMLElement, foot: HTMLElement, head: TurnHead }} TurnParts */
/** Turns with their items' Markdown drawn ahead (prepareTurns), by item key. @typedef {{ turns: Turn[], drawn: Map<string, DocumentFragment[]> }} Prepared */

/** Within this of the end, the reader is at the end. */
const END_SLACK_PX = 48;
/** How much drawing one frame takes, when a page of turns goes in. */
const FRAME_BUDGET_MS = 12;
/** When the browser says it is idle only this late, work goes on anyway. */
const IDLE_TIMEOUT_MS = 500;

/** @param {string} turnId @param {number} position */
const itemKey = (turnId, position) => `${turnId}/${position}`;

const nextFrame = () => new Promise((resolve) => requestAnimationFrame(resolve));

/** @returns {Promise<{ timeRemaining(): number }>} */
function idle() {
  if ('requestIdleCallback' in globalThis) return new Promise((resolve) => requestIdleCallback(resolve, { timeout: IDLE_TIMEOUT_MS }));
  // Without idle callbacks (Safari): a short slice after the tasks already waiting.
  return new Promise((resolve) => setTimeout(() => {
    const until = performance.now() + FRAME_BUDGET_MS;
    resolve({ timeRemaining: () => until - performance.now() });
  }, 0));
}

/**
 * The Markdown of these turns' final items rendered and sanitised in the browser's idle time, an
 * item or a few at a time: so scrolling never waits for it. @param {Turn[]} turns @param {Markdown} md
 * @returns {Promise<Prepared>}
 */
export async function prepareTurns(turns, md) {
  const items = turns.flatMap((turn) => turn.items.map((item) => ({ key: itemKey(turn.id, item.position), item })));
  /** @type {Map<string, DocumentFragment[]>} */
  const drawn = new Map();
  for (let next = 0; next < items.length;) {
    const deadline = await idle();
    do {
      const { key, item } = /** @type {{ key: string, item: Item }} */ (items[next]);
      drawn.set(key, prepareItem(item, md));
      next += 1;
    } while (next < items.length && deadline.timeRemaining() > 0);
  }
  return { turns, drawn };
}

const COPIED_MS = 1500;

/** Serves the copy buttons of every code block under root, with one listener. @param {HTMLElement} root */
function copyFromCodeBlocks(root) {
  root.addEventListener('click', async (event) => {
    const button = event.target instanceof Element ? event.target.closest('.copy-code') : null;
    const code = button?.parentElement?.querySelector('pre > code');
    if (!button || !code) return;
    try {
      await navigator.clipboard.writeText(code.textContent ?? '');
      button.textContent = texts.copied;
    } catch {
      button.textContent = texts.copyFailed;
    }
    setTimeout(() => { button.textContent = texts.copy; }, COPIED_MS);
  });
}

/** @param {TurnHead} head */
function footText(head) {
  if (head.status === 'running') return texts.answering;
  if (head.status === 'stopped') return texts.stopped;
  if (head.status === 'interrupted') return head.error ?? texts.interrupted;
  if (head.status === 'failed') return head.error ?? texts.failed;
  return head.usage ? texts.turnUsage(head.usage) : '';
}

/** The files a question brought, as the thread shows them. @param {string[]} names */
function attachmentList(names) {
  const list = element('ul', 'turn-attachments');
  list.setAttribute('aria-label', texts.attached);
  for (const name of names) list.append(element('li', 'chip', name));
  return list;
}

export class ThreadView {
  #md;
  #head = byId('thread-head');
  #title = byId('thread-title');
  #meta = byId('thread-meta');
  #usage = byId('thread-usage');
  #scroller = byId('scroller');
  #welcome = byId('welcome');
  #conversation = byId('conversation');
  /** @type {Map<string, TurnParts>} */
  #turns = new Map();
  /** @type {Map<string, ItemView>} */
  #items = new Map();
  // Present while turns before (after) the drawn ones are left to fetch.
  #top = element('div', 'sentinel');
  #bottom = element('div', 'sentinel');
  #following = true;
  #lastTop = 0;
  /** Counts the threads shown: a page of turns still going in stops once another is. */
  #shown = 0;

  #actions;

  /** @param {Markdown} md @param {() => Rules | null} rules the service's, once it has said them */
  constructor(md, rules) {
    this.#md = md;
    this.#actions = new ThreadActions({ node: this.#head, title: this.#title, more: byId('thread-more') }, rules);
    copyFromCodeBlocks(this.#conversation);
    // Narrow, the head is its title; the rest folds out from here.
    const more = byId('head-more');
    more.addEventListener('click', () => {
      const open = this.#head.classList.toggle('expanded');
      more.setAttribute('aria-expanded', String(open));
    });
    // Following the end: let go only when the reader scrolls up and away from it; content that
    // grows under the view moves no scroll position of its own.
    this.#scroller.addEventListener('scroll', () => {
      const top = this.#scroller.scrollTop;
      if (top < this.#lastTop || !this.#following) this.#following = this.#atEnd();
      this.#lastTop = top;
    }, { passive: true });
    // Following the end: held through every change of height (turns laid out at their real
    // height, an answer growing, the question box below growing or shrinking).
    const hold = new ResizeObserver(() => { if (this.#following) this.#toEnd(); });
    hold.observe(this.#conversation);
    hold.observe(this.#scroller);
  }

  /** Where the earliest drawn turn is while earlier ones are left to fetch; null otherwise. */
  get earliest() {
    return this.#top.isConnected ? this.#positionOf(this.#top.nextElementSibling) : null;
  }

  /** Where the latest drawn turn is while later ones are left to fetch; null once the newest is drawn. */
  get latest() {
    return this.#bottom.isConnected ? this.#positionOf(this.#bottom.previousElementSibling) : null;
  }

  /** @param {Element | null} node */
  #positionOf(node) {
    const id = node instanceof HTMLElement ? node.dataset.turn : undefined;
    return id === undefined ? null : this.#turns.get(id)?.head.position ?? null;
  }

  /** Draws these turns' Markdown ahead of need. @param {Turn[]} turns */
  prepare(turns) {
    return prepareTurns(turns, this.#md);
  }

  /** @param {() => Promise<void>} handler */
  bindNearStart(handler) {
    this.#drawNear(this.#top, handler, '600px 0px 0px 0px');
  }

  /** @param {() => Promise<void>} handler */
  bindNearEnd(handler) {
    this.#drawNear(this.#bottom, handler, '0px 0px 600px 0px');
  }

  /**
   * Calls handler whenever the sentinel comes near the view, and again while it stays there: a
   * short page may not push it out.
   * @param {HTMLElement} sentinel @param {() => Promise<void>} handler @param {string} rootMargin
   */
  #drawNear(sentinel, handler, rootMargin) {
    const observer = new IntersectionObserver((entries) => {
      if (!entries.some((entry) => entry.isIntersecting)) return;
      void handler().then(() => {
        if (!sentinel.isConnected) return;
        observer.unobserve(sentinel);
        observer.observe(sentinel);
      });
    }, { root: this.#scroller, rootMargin });
    observer.observe(sentinel);
  }

  /**
   * A thread drawn anew, at its end or at the turn in position at; the welcome for none.
   * @param {Thread | null} thread @param {number | null} at
   */
  show(thread, at) {
    this.#shown += 1;
    this.#turns.clear();
    this.#items.clear();
    this.#conversation.replaceChildren();
    this.#welcome.hidden = thread !== null;
    this.#head.hidden = thread === null;
    this.#following = true;
    if (!thread) {
      this.#actions.show(null);
      return;
    }
    this.summary(thread);
    this.#meta.textContent = texts.folder(thread.folder);
    this.usage(thread.usage);
    const fragment = document.createDocumentFragment();
    for (const turn of thread.turns) fragment.append(this.#drawTurn(turn));
    if (thread.earlier && thread.turns.length > 0) fragment.prepend(this.#top);
    if (thread.later && thread.turns.length > 0) fragment.append(this.#bottom);
    this.#conversation.append(fragment);
    this.#toEnd();
    if (at !== null) this.#bringIntoView(at);
  }

  /** The open thread's head, as it now is. @param {ThreadSummary} thread */
  summary(thread) {
    this.#actions.show(thread);
    this.#head.hidden = false;
    this.#title.textContent = thread.title;
  }

  /** @param {Usage | null} usage */
  usage(usage) {
    this.#usage.textContent = usage ? texts.threadUsage(usage) : '';
  }

  /** Brings the turn a search hit named into view and marks it for a moment. @param {number} position */
  #bringIntoView(position) {
    const turn = [...this.#turns.values()].find((each) => each.head.position === position);
    if (!turn) return;
    turn.node.scrollIntoView({ block: 'start' });
    this.#following = false;
    this.#lastTop = this.#scroller.scrollTop;
    turn.node.classList.remove('found');
    void turn.node.offsetWidth; // restarts the animation when the same turn is found again
    turn.node.classList.add('found');
  }

  /** The reader asked: the end is theirs to follow again. */
  followEnd() {
    this.#following = true;
    this.#toEnd();
  }

  #atEnd() {
    const scroller = this.#scroller;
    return scroller.scrollHeight - scroller.scrollTop - scroller.clientHeight < END_SLACK_PX;
  }

  #toEnd() {
    this.#scroller.scrollTop = this.#scroller.scrollHeight;
    this.#lastTop = this.#scroller.scrollTop;
  }

  /**
   * A turn began or changed. A new one is drawn at the end, unless later turns are left to fetch
   * (it comes with them).
   * @param {TurnHead} head
   */
  turn(head) {
    const isNew = !this.#turns.has(head.id);
    if (isNew && this.#bottom.isConnected) return;
    const parts = this.#turnParts(head);
    if (isNew) this.#conversation.append(parts.node);
  }

  /** @param {string} turnId @param {Item} item */
  item(turnId, item) {
    const turn = this.#turns.get(turnId);
    if (turn) this.#drawItem(turnId, item, turn.items);
  }

  /**
   * @param {string} turnId @param {number} position
   * @param {'text' | 'output'} field @param {number | undefined} part @param {string} text
   */
  delta(turnId, position, field, part, text) {
    this.#items.get(itemKey(turnId, position))?.append(field, part, text);
  }

  /** Turns before the drawn ones, newest first, keeping what the reader sees where it is. @param {Prepared} page @param {boolean} more */
  async prepend(page, more) {
    // A frame's worth at a time: a whole page of turns at once blocks scrolling for longer than
    // a reader will wait. One measurement and one scroll a frame: each forces a layout.
    const turns = page.turns.toReversed();
    const shown = this.#shown;
    while (turns.length > 0) {
      const fromEnd = this.#scroller.scrollHeight - this.#scroller.scrollTop;
      const began = performance.now();
      const fragment = document.createDocumentFragment();
      while (turns.length > 0 && performance.now() - began < FRAME_BUDGET_MS) {
        fragment.prepend(this.#drawTurn(/** @type {Turn} */ (turns.shift()), page.drawn));
      }
      this.#top.after(fragment);
      this.#scroller.scrollTop = this.#scroller.scrollHeight - fromEnd;
      this.#lastTop = this.#scroller.scrollTop;
      if (turns.length > 0) await nextFrame();
      if (shown !== this.#shown) return;
    }
    if (!more) this.#top.remove();
  }

  /** Turns after the drawn ones; the reader's view stays where it is. @param {Prepared} page @param {boolean} more */
  append(page, more) {
    const fragment = document.createDocumentFragment();
    for (const turn of page.turns) fragment.append(this.#drawTurn(turn, page.drawn));
    this.#bottom.before(fragment);
    if (!more) this.#bottom.remove();
  }

  /** @param {Turn} turn @param {Map<string, DocumentFragment[]>} [drawn] */
  #drawTurn(turn, drawn) {
    const parts = this.#turnParts(turn);
    for (const item of turn.items) this.#drawItem(turn.id, item, parts.items, drawn?.get(itemKey(turn.id, item.position)));
    return parts.node;
  }

  /** @param {TurnHead} head */
  #turnParts(head) {
    let parts = this.#turns.get(head.id);
    if (!parts) {
      const node = element('section', 'turn');
      node.dataset.turn = head.id;
      const question = node.appendChild(element('div', 'question', head.question));
      question.setAttribute('dir', 'auto');
      if (head.attachments) node.append(attachmentList(head.attachments));
      parts = { node, items: node.appendChild(element('div', 'items')), foot: node.appendChild(element('div', 'turn-foot')), head };
      this.#turns.set(head.id, parts);
    }
    parts.head = head;
    parts.node.dataset.status = head.status;
    parts.foot.textContent = footText(head);
    parts.foot.classList.toggle('error', head.status === 'failed' || head.status === 'interrupted');
    return parts;
  }

  /** @param {string} turnId @param {Item} item @param {HTMLElement} into @param {DocumentFragment[]} [drawn] */
  #drawItem(turnId, item, into, drawn) {
    const key = itemKey(turnId, item.position);
    const existing = this.#items.get(key);
    if (existing && existing.kind === item.kind) {
      existing.update(item);
      return;
    }
    const view = new ItemView(item, this.#md, drawn);
    this.#items.set(key, view);
    if (existing) existing.node.replaceWith(view.node);
    else into.append(view.node);
  }
}

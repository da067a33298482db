// @ts-check
// The open thread (or the welcome, when none is): its head, and its turns with their items, drawn
// as the service's events come. A thread of years is drawn a page of turns at a time: the turns
// before (or after) what is drawn are asked for through bindNear as the reader scrolls close, and
// those the reader has left far behind are folded away (folds.js).
import { button, byId, element } from './dom.js';
import { texts } from './texts.js';
import { ItemView, prepareItem } from './items.js';
import { CodeColours, copyFromCodeBlocks } from './code.js';
import { idle } from './idle.js';
import { ThreadActions } from './threadActions.js';
import { resolveLocal } from './localFiles.js';
import { TurnSources } from './sources.js';
import { Folds } from './folds.js';

/** @typedef {import('../workspace/model.ts').Thread} Thread */
/** @typedef {import('../workspace/model.ts').ThreadSummary} ThreadSummary */
/** @typedef {import('../workspace/model.ts').Turn} Turn */
/** @typedef {import('../workspace/model.ts').TurnHead} TurnHead */
/** @typedef {import('../workspace/model.ts').Item} Item */
/** @typedef {import('../workspace/model.ts').Usage} Usage */
/** @typedef {import('../workspace/model.ts').Context} Context */
/** What a turn's own buttons do. @typedef {{ edit(head: TurnHead): void, retry(head: TurnHead): void, branch(head: TurnHead): void }} TurnActions */
/** @typedef {import('../workspace/model.ts').Rules} Rules */
/** @typedef {import('./markdown.js').Markdown} Markdown */
/** @typedef {{ node: HTMLElement, items: HTMLElement, sources: TurnSources, foot: HTMLElement, head: TurnHead }} TurnParts */
/** Before the drawn turns, or after them. @typedef {'before' | 'after'} Side */
/** Turns with their items' Markdown drawn ahead (prepare), by item key. @typedef {{ turns: Turn[], drawn: Map<string, DocumentFragment[]> }} Prepared */

/** From this share of the model's context on, the thread's head warns. */
const CONTEXT_WARNING = 0.8;
/** Within this of the end, the reader is at the end. */
const END_SLACK_PX = 48;
/** How much drawing one frame takes, when a page of turns goes in. */
const FRAME_BUDGET_MS = 12;
/** @param {string} turnId @param {number} position */
const itemKey = (turnId, position) => `${turnId}/${position}`;

const nextFrame = () => new Promise((resolve) => requestAnimationFrame(resolve));

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
  #context = byId('thread-context');
  #scroller = byId('scroller');
  #welcome = byId('welcome');
  #conversation = byId('conversation');
  /** @type {Map<string, TurnParts>} */
  #turns = new Map();
  /** @type {Map<string, ItemView>} */
  #items = new Map();
  /** Present while turns before (after) the drawn ones are left to fetch. */
  #sentinels = { before: element('div', 'sentinel'), after: element('div', 'sentinel') };
  #following = true;
  #lastTop = 0;
  #folds = new Folds(this.#scroller, this.#conversation);
  /** Counts the threads shown: a page of turns still going in stops once another is. */
  #shown = 0;

  #actions;
  #colours = new CodeColours();
  /** @type {TurnActions | null} */
  #turnActions = null;

  /** The open thread's id, whose folder an answer's relative paths name. */
  #threadId = '';
  #openFile;

  /**
   * @param {Markdown} md @param {() => Rules | null} rules the service's, once it has said them
   * @param {(thread: string, path: string) => void} openFile shows a file of the thread's folder
   */
  constructor(md, rules, openFile) {
    this.#md = md;
    this.#openFile = openFile;
    this.#actions = new ThreadActions({ node: this.#head, title: this.#title, more: byId('thread-more') }, rules);
    copyFromCodeBlocks(this.#conversation);
    // Narrow, the head is its title; the rest folds out from here.
    const more = byId('head-more');
    more.addEventListener('click', () => {
      const open = this.#head.classList.toggle('expanded');
      more.setAttribute('aria-expanded', String(open));
    });
    // Following the end: held through every change of height (turns laid out at their real
    // height, an answer growing, the question box below growing or shrinking), and let go only
    // when the reader scrolls up and away from it. Judging by position alone would let go of it
    // whenever content grew before the view caught up.
    this.#scroller.addEventListener('scroll', () => {
      const top = this.#scroller.scrollTop;
      if (top < this.#lastTop || !this.#following) this.#following = this.#atEnd();
      this.#lastTop = top;
      this.#folds.soon();
    }, { passive: true });
    const hold = new ResizeObserver(() => { if (this.#following) this.#toEnd(); });
    hold.observe(this.#conversation);
    hold.observe(this.#scroller);
  }

  /**
   * Where the earliest drawn turn is (before) while earlier ones are left to fetch, or the latest
   * (after) while later ones are; null once there is nothing more that way.
   * @param {Side} side
   */
  edge(side) {
    const sentinel = this.#sentinels[side];
    if (!sentinel.isConnected) return null;
    return this.#positionOf(this.#folds.edgeOf(side === 'before' ? sentinel.nextElementSibling : sentinel.previousElementSibling, side));
  }

  /** @param {Element | null} node */
  #positionOf(node) {
    const id = node instanceof HTMLElement ? node.dataset.turn : undefined;
    return id === undefined ? null : this.#turns.get(id)?.head.position ?? null;
  }

  /**
   * The Markdown of these turns' final items rendered and sanitised in the browser's idle time, a
   * piece at a time, ahead of need: so scrolling never waits for it.
   * @param {Turn[]} turns @returns {Promise<Prepared>}
   */
  async prepare(turns) {
    /** @type {Map<string, DocumentFragment[]>} */
    const drawn = new Map();
    let deadline = await idle();
    for (const turn of turns) {
      for (const item of turn.items) {
        const work = prepareItem(item, this.#md);
        for (;;) {
          if (deadline.timeRemaining() <= 0) deadline = await idle();
          const step = work.next();
          if (!step.done) continue;
          drawn.set(itemKey(turn.id, item.position), step.value);
          break;
        }
      }
    }
    return { turns, drawn };
  }

  /**
   * Calls handler whenever the start (or end) of what is drawn comes near the view while more lie
   * beyond it, and again while it stays there: a short page may not push it out.
   * @param {(side: Side) => Promise<void>} handler
   */
  bindNear(handler) {
    for (const side of /** @type {Side[]} */ (['before', 'after'])) {
      const sentinel = this.#sentinels[side];
      const observer = new IntersectionObserver((entries) => {
        if (!entries.some((entry) => entry.isIntersecting)) return;
        void handler(side).then(() => {
          if (!sentinel.isConnected) return;
          observer.unobserve(sentinel);
          observer.observe(sentinel);
        });
      }, { root: this.#scroller, rootMargin: side === 'before' ? '600px 0px 0px 0px' : '0px 0px 600px 0px' });
      observer.observe(sentinel);
    }
  }

  /**
   * A thread drawn anew, at its end or at the turn in position at; the welcome for none.
   * @param {Thread | null} thread @param {number | null} at
   */
  show(thread, at) {
    this.#shown += 1;
    this.#turns.clear();
    this.#items.clear();
    this.#folds.clear();
    this.#conversation.replaceChildren();
    this.#welcome.hidden = thread !== null;
    this.#head.hidden = thread === null;
    this.#following = true;
    if (!thread) {
      this.#actions.show(null);
      return;
    }
    this.#threadId = thread.id;
    this.summary(thread);
    this.#meta.textContent = thread.ownFolder ? `${texts.folder(thread.folder)} · ${texts.ownFolderNote}` : texts.folder(thread.folder);
    this.usage(thread.usage);
    this.context(thread.context);
    const fragment = document.createDocumentFragment();
    for (const turn of thread.turns) fragment.append(this.#drawTurn(turn));
    if (thread.earlier && thread.turns.length > 0) fragment.prepend(this.#sentinels.before);
    if (thread.later && thread.turns.length > 0) fragment.append(this.#sentinels.after);
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

  /** How full the model's context is; a warning once it is nearly full. @param {Context | null} context */
  context(context) {
    this.#context.textContent = context ? texts.context(context) : '';
    const full = context?.window ? context.used / context.window >= CONTEXT_WARNING : false;
    this.#context.classList.toggle('full', full);
    this.#context.title = full ? texts.contextFull : '';
  }

  /** What the buttons of each turn do: the last one edited or retried, any one branched from. @param {TurnActions} actions */
  bindTurnActions(actions) {
    this.#turnActions = actions;
  }

  /** The turn is gone from the thread (it was asked again). @param {string} turnId */
  removeTurn(turnId) {
    const parts = this.#turns.get(turnId);
    if (!parts) return;
    this.#folds.remove(parts.node);
    this.#turns.delete(turnId);
    for (const key of [...this.#items.keys()]) if (key.startsWith(`${turnId}/`)) this.#items.delete(key);
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
    if (isNew && this.#sentinels.after.isConnected) return;
    const parts = this.#turnParts(head);
    if (isNew) this.#conversation.append(parts.node);
  }

  /**
   * @param {string} turnId @param {Item} item
   * @param {boolean} [streamed] its text left out, being what the deltas brought: the text drawn is kept
   */
  item(turnId, item, streamed = false) {
    const turn = this.#turns.get(turnId);
    if (!turn) return;
    let shown = item;
    if (streamed && (item.kind === 'answer' || item.kind === 'plan')) {
      const drawn = this.#items.get(itemKey(turnId, item.position));
      if (drawn?.kind === item.kind) shown = { ...item, text: drawn.block(0).text };
    }
    this.#drawItem(turnId, shown, turn.items);
  }

  /**
   * @param {string} turnId @param {number} position
   * @param {'text' | 'output'} field @param {number | undefined} part @param {string} text
   */
  delta(turnId, position, field, part, text) {
    this.#items.get(itemKey(turnId, position))?.append(field, part, text);
  }

  /**
   * Turns before (or after) the drawn ones; what the reader sees stays where it is.
   * @param {Side} side @param {Prepared} page @param {boolean} more whether more lie beyond them
   */
  async add(side, page, more) {
    const shown = this.#shown;
    if (side === 'before') await this.#prepend(page, shown);
    else this.#sentinels.after.before(...page.turns.map((turn) => this.#drawTurn(turn, page.drawn)));
    if (!more && shown === this.#shown) this.#sentinels[side].remove();
  }

  /**
   * Newest first, a frame's worth at a time: a whole page of turns at once blocks scrolling for
   * longer than a reader will wait. One measurement and one scroll a frame: each forces a layout.
   * @param {Prepared} page @param {number} shown the thread they are for
   */
  async #prepend(page, shown) {
    const turns = page.turns.toReversed();
    while (turns.length > 0) {
      const fromEnd = this.#scroller.scrollHeight - this.#scroller.scrollTop;
      const began = performance.now();
      const fragment = document.createDocumentFragment();
      while (turns.length > 0 && performance.now() - began < FRAME_BUDGET_MS) {
        fragment.prepend(this.#drawTurn(/** @type {Turn} */ (turns.shift()), page.drawn));
      }
      this.#sentinels.before.after(fragment);
      this.#scroller.scrollTop = this.#scroller.scrollHeight - fromEnd;
      this.#lastTop = this.#scroller.scrollTop;
      if (turns.length > 0) await nextFrame();
      if (shown !== this.#shown) return;
    }
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
      const items = node.appendChild(element('div', 'items'));
      const sources = new TurnSources();
      node.append(sources.node);
      parts = { node, items, sources, foot: node.appendChild(element('div', 'turn-foot')), head };
      node.append(this.#actionsFor(parts));
      this.#turns.set(head.id, parts);
    }
    parts.head = head;
    parts.node.dataset.status = head.status;
    parts.foot.textContent = footText(head);
    parts.foot.classList.toggle('error', head.status === 'failed' || head.status === 'interrupted');
    return parts;
  }

  /**
   * A turn's buttons; which of them show (editing only the thread's last turn, retrying only one
   * that did not complete, none while it runs) the style sheet decides from where the turn is and its status.
   * @param {TurnParts} parts
   */
  #actionsFor(parts) {
    const bar = element('div', 'turn-actions');
    /** @param {string} text @param {string} className @param {keyof TurnActions} action @param {string} [hint] */
    const add = (text, className, action, hint) => {
      const node = bar.appendChild(button(text, `turn-action ${className}`, () => this.#turnActions?.[action](parts.head)));
      if (hint) node.title = hint;
    };
    add(texts.editLast, 'last-only edit', 'edit', texts.editLastHint);
    add(texts.retry, 'last-only retry', 'retry');
    add(texts.branch, 'branch', 'branch', texts.branchHint);
    return bar;
  }

  /** @param {string} turnId @param {Item} item @param {HTMLElement} into @param {DocumentFragment[]} [drawn] */
  #drawItem(turnId, item, into, drawn) {
    const key = itemKey(turnId, item.position);
    const existing = this.#items.get(key);
    if (existing && existing.kind === item.kind) {
      existing.update(item);
      this.#resolveLinks(turnId, item, existing.node);
      return;
    }
    const view = new ItemView(item, this.#md, this.#colours, drawn);
    this.#items.set(key, view);
    if (existing) existing.node.replaceWith(view.node);
    else into.append(view.node);
    this.#resolveLinks(turnId, item, view.node);
  }

  /**
   * A final answer's relative paths, made images and links where they name the thread's files; its
   * web links, and the pages a search opened, among the turn's sources.
   * @param {string} turnId @param {Item} item @param {HTMLElement} node
   */
  #resolveLinks(turnId, item, node) {
    const sources = this.#turns.get(turnId)?.sources;
    if (item.kind === 'webSearch' && item.url) sources?.add(item.url);
    if (item.kind !== 'answer' || item.status === 'running') return;
    sources?.cited(node);
    const thread = this.#threadId;
    void resolveLocal(node, thread, '', (path) => this.#openFile(thread, path));
  }
}

// @ts-check
// Runs of turns far from the view, taken out of the page for one placeholder of their height each,
// and put back as the reader comes near. content-visibility spares the browser laying out a far
// turn, not keeping it: every frame's style, pre-paint, hit tests and intersection checks still go
// through each turn in the page, and a thread of years scrolled to its top holds hundreds.
import { element } from './dom.js';
import { idle } from './idle.js';

/** Farther than this from the view, a turn is folded away. */
const FAR_PX = 4000;
/** Nearer than this, a fold opens; less than FAR_PX, so what opens is not folded again at once. */
const NEAR_PX = 2500;
/** Fewer far turns than this are left in the page: a placeholder for two or three saves nothing. */
const MIN_RUN = 8;

/** A folded turn, and its height when it was folded. @typedef {{ node: HTMLElement, height: number }} Folded */

export class Folds {
  #scroller;
  #conversation;
  /** Each placeholder's turns, in order. @type {Map<Element, Folded[]>} */
  #folded = new Map();
  #near;
  #pending = false;

  /** @param {HTMLElement} scroller @param {HTMLElement} conversation */
  constructor(scroller, conversation) {
    this.#scroller = scroller;
    this.#conversation = conversation;
    this.#near = new IntersectionObserver((entries) => {
      for (const entry of entries) if (entry.isIntersecting) this.#open(entry.target);
    }, { root: scroller, rootMargin: `${NEAR_PX}px 0px` });
  }

  /** The thread was drawn anew: its placeholders went with the old one's turns. */
  clear() {
    this.#near.disconnect();
    this.#folded.clear();
  }

  /**
   * Folds what is far from the view, in idle time: measuring the turns after the frame has laid
   * them out costs nothing, and the scroll that made them far must not wait for it.
   */
  soon() {
    if (this.#pending) return;
    this.#pending = true;
    void idle().then(() => {
      this.#pending = false;
      this.#fold();
    });
  }

  /**
   * The turn at the start (or end) of what node stands for: itself, or a placeholder's first (last).
   * @param {Element | null} node @param {'before' | 'after'} side
   */
  edgeOf(node, side) {
    const folded = node ? this.#folded.get(node) : undefined;
    if (!folded) return node;
    return (side === 'before' ? folded[0] : folded.at(-1))?.node ?? null;
  }

  /** A turn leaves the thread, folded or not. @param {HTMLElement} node */
  remove(node) {
    node.remove();
    for (const [placeholder, folded] of this.#folded) {
      const at = folded.findIndex((each) => each.node === node);
      if (at < 0) continue;
      folded.splice(at, 1);
      if (folded.length > 0) this.#place(placeholder, folded);
      else this.#drop(placeholder);
      return;
    }
  }

  #fold() {
    const view = this.#scroller.getBoundingClientRect();
    const [from, to] = [view.top - FAR_PX, view.bottom + FAR_PX];
    const last = this.#conversation.lastElementChild;
    // Everything measured before anything moves: a measurement after a change lays the page out again.
    const far = [...this.#conversation.children].map((child) => {
      const folded = this.#folded.get(child);
      if (folded) return { child, folded, turn: false };
      // The last turn stays: the style sheet shows its buttons for being the last child. A running one grows.
      if (!(child instanceof HTMLElement) || !child.classList.contains('turn') || child === last || child.dataset.status === 'running') return null;
      const { top, bottom, height } = child.getBoundingClientRect();
      return bottom < from || top > to ? { child, folded: [{ node: child, height }], turn: true } : null;
    });
    /** @type {{ child: Element, folded: Folded[], turn: boolean }[]} */
    let run = [];
    for (const each of [...far, null]) {
      if (each) {
        run.push(each);
        continue;
      }
      // A lone placeholder is one already; one beside a far turn, or another placeholder, takes it in.
      const turns = run.filter((one) => one.turn).length;
      if (turns >= MIN_RUN || (turns < run.length && run.length > 1)) {
        run[0]?.child.before(this.#placeholder(run.flatMap((one) => one.folded)));
        for (const { child, turn } of run) {
          if (turn) child.remove();
          else this.#drop(child);
        }
      }
      run = [];
    }
  }

  /**
   * Opens the part of a placeholder near the view; what lies beyond stays folded, in placeholders
   * of their own, which the observer reports afresh as the reader comes to them.
   * @param {Element} placeholder
   */
  #open(placeholder) {
    const folded = this.#folded.get(placeholder);
    if (!folded || !placeholder.isConnected) return;
    const view = this.#scroller.getBoundingClientRect();
    const [from, to] = [view.top - NEAR_PX, view.bottom + NEAR_PX];
    /** @type {[Folded[], Folded[], Folded[]]} */
    const [before, near, after] = [[], [], []];
    let top = placeholder.getBoundingClientRect().top;
    for (const each of folded) {
      const bottom = top + each.height;
      (bottom < from ? before : top > to ? after : near).push(each);
      top = bottom;
    }
    if (near.length === 0) return;
    const part = (/** @type {Folded[]} */ turns) => (turns.length > 0 ? [this.#placeholder(turns)] : []);
    placeholder.replaceWith(...part(before), ...near.map((each) => each.node), ...part(after));
    this.#drop(placeholder);
  }

  /** @param {Folded[]} folded */
  #placeholder(folded) {
    const placeholder = element('div', 'folded');
    this.#place(placeholder, folded);
    this.#near.observe(placeholder);
    return placeholder;
  }

  /** @param {Element} placeholder @param {Folded[]} folded */
  #place(placeholder, folded) {
    this.#folded.set(placeholder, folded);
    /** @type {HTMLElement} */ (placeholder).style.height = `${folded.reduce((sum, each) => sum + each.height, 0)}px`;
  }

  /** @param {Element} placeholder */
  #drop(placeholder) {
    this.#near.unobserve(placeholder);
    this.#folded.delete(placeholder);
    placeholder.remove();
  }
}

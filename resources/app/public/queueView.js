// @ts-check
// The questions queued behind the open thread's running turn, above the question box: each can
// be edited or taken out until it goes, and sent at once when no turn runs (one that was stopped
// leaves them waiting for the user's word).
import { button, element } from './dom.js';
import { texts } from './texts.js';

/** @typedef {import('../workspace/model.ts').Queued} Queued */
/** @typedef {{ change(id: string, text: string | null): void, send(id: string): void }} QueueActions */

export class QueueView {
  #node;
  #actions;
  /** @type {Queued[]} */
  #queued = [];
  #running = false;
  /** The one being edited, whose row stays an input while the queue is redrawn. @type {string | null} */
  #editing = null;

  /** @param {HTMLElement} node @param {QueueActions} actions */
  constructor(node, actions) {
    this.#node = node;
    this.#actions = actions;
  }

  /** @param {Queued[]} queued @param {boolean} running */
  show(queued, running) {
    this.#queued = queued;
    this.#running = running;
    if (!queued.some((question) => question.id === this.#editing)) this.#editing = null;
    this.#draw();
  }

  /** @param {boolean} running */
  running(running) {
    if (running === this.#running) return;
    this.#running = running;
    this.#draw();
  }

  #draw() {
    this.#node.hidden = this.#queued.length === 0;
    const title = element('div', '', texts.queuedTitle);
    this.#node.replaceChildren(title, ...this.#queued.map((question) => this.#row(question)));
  }

  /** @param {Queued} question */
  #row(question) {
    const row = element('div', 'queued-item');
    row.dataset.queued = question.id;
    if (this.#editing === question.id) {
      const input = element('input');
      input.value = question.text;
      const save = () => {
        this.#editing = null;
        this.#actions.change(question.id, input.value);
      };
      input.addEventListener('keydown', (event) => {
        if (event.isComposing || event.keyCode === 229) return;
        if (event.key === 'Enter') save();
        else if (event.key === 'Escape') {
          this.#editing = null;
          this.#draw();
        }
      });
      row.append(input, button(texts.queuedSave, 'turn-action', save));
      queueMicrotask(() => input.focus());
      return row;
    }
    row.append(element('span', 'queued-text', question.text), button(texts.queuedEdit, 'turn-action', () => {
      this.#editing = question.id;
      this.#draw();
    }));
    if (!this.#running) row.append(button(texts.queuedSendNow, 'turn-action', () => this.#actions.send(question.id)));
    row.append(button(texts.queuedCancel, 'turn-action', () => this.#actions.change(question.id, null)));
    return row;
  }
}

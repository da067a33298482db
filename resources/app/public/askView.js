// @ts-check
// The question box and its bar: sending, stopping, and the one line that says why something
// failed. While a turn runs, what is sent is guidance for it, or queued as the next question;
// while the last question is edited, what is sent replaces it. The box grows with its text up to
// a limit, and scrolls only beyond it.
import { byId } from './dom.js';
import { texts } from './texts.js';

/** @typedef {import('../workspace/model.ts').Rules} Rules */

const TALLEST_PX = 240;

export class AskView {
  #form = /** @type {HTMLFormElement} */ (byId('ask'));
  #question = /** @type {HTMLTextAreaElement} */ (byId('question'));
  #send = /** @type {HTMLButtonElement} */ (byId('send'));
  #stop = /** @type {HTMLButtonElement} */ (byId('stop'));
  #queue = /** @type {HTMLButtonElement} */ (byId('queue-send'));
  #editing = byId('editing');
  #cancelEdit = byId('cancel-edit');
  /** @type {Rules | null} */
  #rules = null;
  #running = false;
  #error = byId('ask-error');
  #hint = byId('ask-hint');

  constructor() {
    this.#question.addEventListener('input', () => this.#fit());
    this.#fit();
  }

  /** @param {() => void} handler */
  bindAsk(handler) {
    this.#form.addEventListener('submit', (event) => {
      event.preventDefault();
      handler();
    });
    this.#question.addEventListener('keydown', (event) => {
      // Enter that ends an input method's composition picks the characters; it does not send.
      if (event.key !== 'Enter' || event.shiftKey || event.isComposing || event.keyCode === 229) return;
      event.preventDefault();
      handler();
    });
  }

  /** @param {() => void} handler */
  bindQueue(handler) {
    this.#queue.addEventListener('click', handler);
  }

  /** @param {() => void} handler */
  bindCancelEdit(handler) {
    this.#cancelEdit.addEventListener('click', handler);
  }

  /** The last question put in the box to be edited, or the editing ended (null). @param {string | null} question */
  edit(question) {
    this.#editing.hidden = question === null;
    if (question === null) return;
    this.#question.value = question;
    this.#fit();
    this.focus();
  }

  /** @param {() => void} handler */
  bindStop(handler) {
    this.#stop.addEventListener('click', handler);
  }

  get question() {
    return this.#question.value;
  }

  /** Whether a question can be sent now. */
  get ready() {
    return !this.#send.disabled;
  }

  /** The question went. */
  clear() {
    this.#question.value = '';
    this.#fit();
  }

  focus() {
    this.#question.focus();
  }

  /** While the thread answers, it is stopped, guided or queued for, rather than asked. @param {boolean} running */
  running(running) {
    this.#running = running;
    this.#stop.hidden = !running;
    this.#queue.hidden = !running;
    this.#send.textContent = running ? texts.steer : texts.send;
    this.#showHint();
  }

  /** @param {boolean} sending */
  sending(sending) {
    this.#send.disabled = sending;
    this.#queue.disabled = sending;
  }

  /** @param {boolean} stopping */
  stopping(stopping) {
    this.#stop.disabled = stopping;
  }

  /** Why something failed, in one sentence; '' when nothing did. @param {string} sentence */
  say(sentence) {
    this.#error.textContent = sentence;
  }

  /** @param {Rules} rules */
  rules(rules) {
    this.#rules = rules;
    this.#showHint();
  }

  #showHint() {
    this.#hint.textContent = this.#running ? texts.steerHint : this.#rules ? texts.ask(texts.fileLimit(this.#rules.fileBytes)) : '';
  }

  #fit() {
    const box = this.#question;
    box.style.height = 'auto';
    // The height set is the border box's: scrollHeight leaves the borders out.
    const borders = box.offsetHeight - box.clientHeight;
    const tall = box.scrollHeight + borders > TALLEST_PX;
    box.style.height = `${tall ? TALLEST_PX : box.scrollHeight + borders}px`;
    box.style.overflowY = tall ? 'auto' : 'hidden';
  }
}

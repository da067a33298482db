// @ts-check
// Being told when something is done while looking elsewhere: the tab's title counts the threads
// whose turn runs and those that wait for the user, and while the page is hidden a desktop
// notification says which thread ended a long turn or waits for an answer; clicking it opens that
// thread. The browser is asked for permission only from the button the user clicks, never on load.
import { byId } from './dom.js';
import { texts } from './texts.js';

/** @typedef {import('../workspace/model.ts').ThreadSummary} ThreadSummary */
/** @typedef {import('../workspace/model.ts').Approval} Approval */

/** A turn shorter than this is watched, not waited for: its end is not worth a notification. */
export const LONG_TURN_MS = 10_000;

const supported = () => 'Notification' in window;

export class Notices {
  #button = /** @type {HTMLButtonElement} */ (byId('notify'));
  #base = document.title;
  /** When this page saw each running thread's turn start (or, opened meanwhile, found it running). @type {Map<string, number>} */
  #since = new Map();
  #open;

  /** @param {(thread: string) => void} open opens a thread */
  constructor(open) {
    this.#open = open;
    this.#button.addEventListener('click', () => void this.#ask());
    this.#drawButton();
  }

  /** @param {number} running @param {number} waiting */
  title(running, waiting) {
    document.title = texts.tabTitle(this.#base, running, waiting);
  }

  /** A thread as it now is; before, as this page had it. @param {ThreadSummary} thread @param {ThreadSummary | undefined} before */
  summary(thread, before) {
    if (thread.running) {
      if (!this.#since.has(thread.id)) this.#since.set(thread.id, Date.now());
      return;
    }
    const since = this.#since.get(thread.id);
    this.#since.delete(thread.id);
    if (before?.running && since !== undefined && Date.now() - since > LONG_TURN_MS) this.#notify(thread.title, texts.notifyEnded, thread.id);
  }

  /** @param {Approval} approval @param {string} title the thread's */
  approval(approval, title) {
    this.#notify(title, texts.notifyWaiting(approval.command ?? approval.files.join('、')), approval.threadId);
  }

  /** @param {string} title @param {string} body @param {string} thread */
  #notify(title, body, thread) {
    if (!document.hidden || !supported() || Notification.permission !== 'granted') return;
    const shown = new Notification(title, { body, tag: thread });
    shown.addEventListener('click', () => {
      window.focus();
      this.#open(thread);
      shown.close();
    });
  }

  async #ask() {
    await Notification.requestPermission();
    this.#drawButton();
  }

  #drawButton() {
    const permission = supported() ? Notification.permission : 'denied';
    this.#button.hidden = !supported() || permission === 'granted';
    this.#button.disabled = permission === 'denied';
    this.#button.textContent = permission === 'denied' ? texts.notifyBlockedShort : texts.notify;
    this.#button.title = permission === 'denied' ? texts.notifyBlocked : texts.notifyOn;
  }
}

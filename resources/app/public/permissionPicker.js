// @ts-check
// The open thread's permission level, chosen in its head: what Codex may do there without asking,
// from the thread's next question on. What the service then publishes sets every page's picker.
import { element } from './dom.js';
import { texts } from './texts.js';
import { postJson } from './api.js';

/** @typedef {import('../workspace/model.ts').Permission} Permission */

/** @param {unknown} error */
const sentence = (error) => (error instanceof Error ? error.message : String(error));

export class PermissionPicker {
  #select = element('select', 'permission');
  #note = element('span', 'thread-note');
  /** @type {string | null} */
  #thread = null;
  /** @type {Permission} */
  #permission = 'write';

  /** @param {HTMLElement} into */
  constructor(into) {
    this.#select.id = 'permission';
    this.#select.setAttribute('aria-label', texts.permission);
    this.#select.title = texts.permissionHint;
    for (const [value, label] of Object.entries(texts.permissions)) {
      const option = element('option', '', label);
      option.value = value;
      this.#select.append(option);
    }
    this.#select.addEventListener('change', () => void this.#change());
    this.#note.setAttribute('role', 'alert');
    const line = element('label', 'permission-line', `${texts.permission}：`);
    line.append(this.#select);
    into.append(line, this.#note);
  }

  /** @param {string | null} thread @param {Permission} permission */
  show(thread, permission) {
    if (thread !== this.#thread) this.#note.textContent = '';
    this.#thread = thread;
    this.#permission = permission;
    this.#select.value = permission;
  }

  async #change() {
    const thread = this.#thread;
    if (!thread) return;
    this.#note.textContent = '';
    try {
      await postJson(`/api/threads/${encodeURIComponent(thread)}/permission`, { permission: this.#select.value });
    } catch (error) {
      this.#select.value = this.#permission;
      this.#note.textContent = sentence(error);
    }
  }
}

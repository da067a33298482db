// @ts-check
// What can be done to the open thread from its head: the title edited in place, pin, archive,
// export as a Markdown file, delete. Each change goes to the service with what this page saw, so
// of two pages changing the same thread one wins and the other is told why in a sentence; what
// the service then publishes redraws every page, this one included.
import { button, element } from './dom.js';
import { texts } from './texts.js';
import { download, postJson } from './api.js';

/** @typedef {import('../workspace/model.ts').ThreadSummary} ThreadSummary */
/** @typedef {import('../workspace/model.ts').Rules} Rules */

/** @param {unknown} error */
const sentence = (error) => (error instanceof Error ? error.message : String(error));

export class ThreadActions {
  /** @type {ThreadSummary | null} */
  #thread = null;
  #title;
  #rules;
  #input = element('input', 'title-edit');
  #note = element('span', 'thread-note');
  #pin = button(texts.pin, 'thread-action');
  #archive = button(texts.archive, 'thread-action');
  #export = button(texts.export, 'thread-action');
  #delete = button(texts.delete, 'thread-action danger');
  #confirm = element('div', 'confirm-delete');

  /**
   * @param {{ node: HTMLElement, title: HTMLElement, more: HTMLElement }} head where the title is, and where the actions go
   * @param {() => Rules | null} rules the service's, once it has said them
   */
  constructor(head, rules) {
    const { title } = head;
    this.#title = title;
    this.#rules = rules;
    title.tabIndex = 0;
    title.title = texts.renameHint;
    title.addEventListener('click', () => this.#startRename());
    title.addEventListener('keydown', (event) => {
      if (event.key === 'Enter') this.#startRename();
    });
    this.#input.hidden = true;
    this.#input.setAttribute('aria-label', texts.titleLabel);
    this.#input.addEventListener('keydown', (event) => {
      if (event.isComposing || event.keyCode === 229) return;
      if (event.key === 'Enter') {
        event.preventDefault();
        void this.#rename();
      } else if (event.key === 'Escape') {
        this.#endRename();
      }
    });
    this.#input.addEventListener('blur', () => {
      if (!this.#input.hidden && !this.#input.disabled) this.#endRename();
    });
    title.after(this.#input);
    this.#note.setAttribute('role', 'alert');
    const confirmYes = button(texts.deleteForGood, 'thread-action danger');
    const confirmNo = button(texts.cancel, 'thread-action');
    this.#confirm.append(element('span', '', texts.deleteQuestion), confirmYes, confirmNo);
    this.#confirm.hidden = true;
    const bar = element('div', 'thread-actions');
    bar.append(this.#pin, this.#archive, this.#export, this.#delete);
    head.more.append(bar, this.#confirm);
    head.node.append(this.#note);

    this.#pin.addEventListener('click', () => this.#change('pin', { pinned: !this.#thread?.pinned }));
    this.#archive.addEventListener('click', () => this.#change('archive', { archived: !this.#thread?.archived }));
    this.#export.addEventListener('click', () => void this.#download());
    this.#delete.addEventListener('click', () => {
      this.#confirm.hidden = false;
      confirmNo.focus();
    });
    confirmNo.addEventListener('click', () => {
      this.#confirm.hidden = true;
    });
    confirmYes.addEventListener('click', () => {
      this.#confirm.hidden = true;
      this.#change('delete', {});
    });
  }

  /** The open thread as it is now; null when none is open. @param {ThreadSummary | null} thread */
  show(thread) {
    const other = thread?.id !== this.#thread?.id;
    this.#thread = thread;
    if (other) {
      this.#endRename();
      this.#confirm.hidden = true;
      this.#note.textContent = '';
    }
    if (!thread) return;
    this.#pin.textContent = thread.pinned ? texts.unpin : texts.pin;
    this.#archive.textContent = thread.archived ? texts.unarchive : texts.archive;
  }

  #startRename() {
    if (!this.#thread) return;
    this.#note.textContent = '';
    this.#input.value = this.#thread.title;
    this.#input.dataset.from = this.#thread.title;
    const rules = this.#rules();
    if (rules) this.#input.maxLength = rules.titleChars * 2; // characters outside the BMP count twice here
    this.#title.hidden = true;
    this.#input.hidden = false;
    this.#input.focus();
    this.#input.select();
  }

  #endRename() {
    this.#input.hidden = true;
    this.#input.disabled = false;
    this.#title.hidden = false;
  }

  async #rename() {
    const thread = this.#thread;
    if (!thread) return;
    // Checked here first so the reader learns the limit while typing; an empty title is the
    // service's to refuse.
    const title = this.#input.value.replace(/\s+/g, ' ').trim();
    const rules = this.#rules();
    if (rules && [...title].length > rules.titleChars) {
      this.#note.textContent = rules.refusals.titleTooLong;
      return;
    }
    this.#input.disabled = true;
    try {
      await postJson(`/api/threads/${encodeURIComponent(thread.id)}/title`, { title, from: this.#input.dataset.from });
      this.#note.textContent = '';
      this.#endRename();
      this.#title.focus();
    } catch (error) {
      this.#note.textContent = sentence(error);
      this.#input.disabled = false;
      this.#input.focus();
    }
  }

  /** @param {'pin' | 'archive' | 'delete'} action @param {object} body */
  async #change(action, body) {
    const thread = this.#thread;
    if (!thread) return;
    this.#note.textContent = '';
    try {
      await postJson(`/api/threads/${encodeURIComponent(thread.id)}/${action}`, body);
    } catch (error) {
      if (this.#thread?.id === thread.id) this.#note.textContent = sentence(error);
    }
  }

  /** The service names the file; the page only hands the bytes to the browser's downloads. */
  async #download() {
    const thread = this.#thread;
    if (!thread) return;
    this.#note.textContent = '';
    await download(`/api/threads/${encodeURIComponent(thread.id)}/export`).catch((error) => {
      this.#note.textContent = sentence(error);
    });
  }
}

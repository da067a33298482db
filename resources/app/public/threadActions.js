// @ts-check
// What can be done to the open thread from its head: the title edited in place, pin, archive,
// export as a Markdown file, delete. Each change goes to the service with what this page saw, so
// of two pages changing the same thread one wins and the other is told why in a sentence; what
// the service then publishes redraws every page, this one included.
import { element } from './items.js';

/** @typedef {import('../workspace/model.ts').ThreadSummary} ThreadSummary */
/** @typedef {(path: string, body: unknown) => Promise<any>} Post */

/** The same limit the service keeps; checked here first so the reader learns it while typing. */
const TITLE_LIMIT = 100;

/** @param {string} text @param {string} className */
function button(text, className) {
  const node = /** @type {HTMLButtonElement} */ (element('button', className, text));
  node.type = 'button';
  return node;
}

/** The name in a Content-Disposition header (its UTF-8 form when given). @param {string | null} header */
function fileNameOf(header) {
  const utf8 = /filename\*=UTF-8''([^;]+)/i.exec(header ?? '');
  if (utf8) return decodeURIComponent(utf8[1]);
  return /filename="([^"]+)"/.exec(header ?? '')?.[1] ?? 'thread.md';
}

export class ThreadActions {
  /** @type {ThreadSummary | null} */
  #thread = null;
  #title;
  #post;
  #input = /** @type {HTMLInputElement} */ (element('input', 'title-edit'));
  #note = element('span', 'thread-note');
  #pin = button('置顶', 'thread-action');
  #archive = button('归档', 'thread-action');
  #export = button('导出', 'thread-action');
  #delete = button('删除', 'thread-action danger');
  #confirm = element('div', 'confirm-delete');

  /** @param {HTMLElement} head @param {HTMLElement} title @param {Post} post */
  constructor(head, title, post) {
    this.#title = title;
    this.#post = post;
    title.tabIndex = 0;
    title.title = '点击改名';
    title.addEventListener('click', () => this.#startRename());
    title.addEventListener('keydown', (event) => {
      if (event.key === 'Enter') this.#startRename();
    });
    this.#input.hidden = true;
    this.#input.setAttribute('aria-label', '线程标题');
    this.#input.maxLength = TITLE_LIMIT * 2; // characters outside the BMP count twice here
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
    const confirmYes = button('删除线程和文件夹', 'thread-action danger');
    const confirmNo = button('取消', 'thread-action');
    this.#confirm.append(element('span', '', '删除这个线程、它的全部对话和它的文件夹？此操作无法撤销。'), confirmYes, confirmNo);
    this.#confirm.hidden = true;
    const bar = element('div', 'thread-actions');
    bar.append(this.#pin, this.#archive, this.#export, this.#delete);
    head.append(bar, this.#confirm, this.#note);

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
    this.#pin.textContent = thread.pinned ? '取消置顶' : '置顶';
    this.#archive.textContent = thread.archived ? '取消归档' : '归档';
  }

  #startRename() {
    if (!this.#thread) return;
    this.#note.textContent = '';
    this.#input.value = this.#thread.title;
    this.#input.dataset.from = this.#thread.title;
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
    const title = this.#input.value.replace(/\s+/g, ' ').trim();
    if (title === '') {
      this.#note.textContent = '标题不能为空。';
      return;
    }
    if ([...title].length > TITLE_LIMIT) {
      this.#note.textContent = `标题太长了：请不要超过 ${TITLE_LIMIT} 个字。`;
      return;
    }
    this.#input.disabled = true;
    try {
      await this.#post(`/api/threads/${encodeURIComponent(thread.id)}/title`, { title, from: this.#input.dataset.from });
      this.#note.textContent = '';
      this.#endRename();
      this.#title.focus();
    } catch (error) {
      this.#note.textContent = error instanceof Error ? error.message : String(error);
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
      await this.#post(`/api/threads/${encodeURIComponent(thread.id)}/${action}`, body);
    } catch (error) {
      if (this.#thread?.id === thread.id) this.#note.textContent = error instanceof Error ? error.message : String(error);
    }
  }

  /** The service names the file; the page only hands the bytes to the browser's downloads. */
  async #download() {
    const thread = this.#thread;
    if (!thread) return;
    this.#note.textContent = '';
    try {
      const answer = await fetch(`/api/threads/${encodeURIComponent(thread.id)}/export`);
      if (!answer.ok) {
        const refusal = await answer.json().catch(() => ({}));
        throw new Error(refusal.error ?? `导出失败（${answer.status}）。`);
      }
      const url = URL.createObjectURL(await answer.blob());
      const link = /** @type {HTMLAnchorElement} */ (element('a'));
      link.href = url;
      link.download = fileNameOf(answer.headers.get('Content-Disposition'));
      link.click();
      setTimeout(() => URL.revokeObjectURL(url), 60_000);
    } catch (error) {
      this.#note.textContent = error instanceof Error && error.message !== 'Failed to fetch' ? error.message : '无法连接工作区服务。';
    }
  }
}

// @ts-check
// Files the user brings to the next question: dropped anywhere on the page, pasted into the
// question, or chosen with the paper clip. Each is uploaded at once (into the open thread's folder,
// or the page's draft folder for a question that starts a thread) and shown as a chip under the
// question box until it is sent or taken back.
import { element } from './items.js';

export const FILE_LIMIT_BYTES = 50 * 1024 * 1024;
export const FILE_LIMIT_TEXT = '每个文件最多 50 MB';

/** The files a question brought, as the thread shows them. @param {string[]} names */
export function attachmentList(names) {
  const list = element('ul', 'turn-attachments');
  list.setAttribute('aria-label', '附件');
  for (const name of names) list.append(element('li', 'chip', name));
  return list;
}

/** @typedef {{ name: string, node: HTMLElement, upload: Promise<string | null> }} Chip */

export class Attachments {
  /** The page's own draft folder: files for a question that has no thread yet. */
  #draft = crypto.randomUUID();
  /** @type {string | null} */
  #thread = null;
  /** @type {Chip[]} */
  #chips = [];
  #list;
  #note;
  #report;

  /**
   * @param {{ list: HTMLElement, note: HTMLElement, button: HTMLElement, input: HTMLInputElement, question: HTMLElement,
   *   report(message: string): void }} parts
   */
  constructor(parts) {
    this.#list = parts.list;
    this.#note = parts.note;
    this.#report = parts.report;
    parts.button.title = `添加文件（${FILE_LIMIT_TEXT}），也可以把文件拖到页面上或粘贴进来`;
    parts.button.addEventListener('click', () => parts.input.click());
    parts.input.addEventListener('change', () => {
      this.add([...(parts.input.files ?? [])]);
      parts.input.value = '';
    });
    parts.question.addEventListener('paste', (event) => {
      const files = [...(event.clipboardData?.files ?? [])];
      if (files.length === 0) return;
      event.preventDefault();
      this.add(files);
    });
    const carriesFiles = (/** @type {DragEvent} */ event) => event.dataTransfer?.types.includes('Files') ?? false;
    document.addEventListener('dragover', (event) => {
      if (!carriesFiles(event)) return;
      event.preventDefault();
      document.body.classList.add('dropping');
    });
    document.addEventListener('dragleave', (event) => {
      if (event.relatedTarget === null) document.body.classList.remove('dropping');
    });
    document.addEventListener('drop', (event) => {
      document.body.classList.remove('dropping');
      if (!carriesFiles(event)) return;
      event.preventDefault();
      this.add([...(event.dataTransfer?.files ?? [])]);
    });
  }

  /**
   * Another thread (or none) is open: what was brought for the one before stays in its folder. The
   * same one again (the event stream reconnected) keeps the chips. @param {string | null} thread
   */
  reset(thread) {
    if (thread !== this.#thread) this.#clear(thread);
  }

  /** @param {string | null} thread */
  #clear(thread) {
    this.#thread = thread;
    this.#chips = [];
    this.#list.replaceChildren();
    this.#note.textContent = '';
  }

  /** @param {File[]} files */
  add(files) {
    this.#note.textContent = '';
    for (const file of files) {
      if (file.size > FILE_LIMIT_BYTES) {
        this.#report(`“${file.name}”太大了：${FILE_LIMIT_TEXT}。`);
        continue;
      }
      this.#upload(file);
    }
  }

  /** @param {File} file */
  #upload(file) {
    const node = element('span', 'chip uploading');
    const label = node.appendChild(element('span', 'name', file.name));
    const remove = node.appendChild(element('button', 'remove', '×'));
    remove.setAttribute('type', 'button');
    remove.setAttribute('aria-label', `移除 ${file.name}`);
    this.#list.append(node);
    /** @type {Record<string, string>} */
    const place = this.#thread ? { thread: this.#thread } : { draft: this.#draft };
    /** @type {Chip} */
    const chip = { name: file.name, node, upload: Promise.resolve(null) };
    chip.upload = fetch(`/api/uploads?${new URLSearchParams(place)}`, {
      method: 'POST',
      headers: { 'Content-Type': 'application/octet-stream', 'X-File-Name': encodeURIComponent(file.name) },
      body: file,
    }).then(async (answer) => {
      const result = await answer.json().catch(() => ({}));
      if (!answer.ok) throw new Error(result.error ?? `上传“${file.name}”失败（${answer.status}）。`);
      chip.name = result.name;
      label.textContent = result.name;
      node.classList.remove('uploading');
      if (result.name !== file.name) this.#note.textContent = `已有同名文件，“${file.name}”改名为“${result.name}”。`;
      return /** @type {string} */ (result.name);
    }).catch((error) => {
      this.#drop(chip);
      this.#report(error instanceof Error && error.message !== 'Failed to fetch' ? error.message : `上传“${file.name}”失败：无法连接工作区服务。`);
      return null;
    });
    this.#chips.push(chip);
    remove.addEventListener('click', async () => {
      this.#drop(chip);
      if ((await chip.upload) === null) return;
      await fetch('/api/uploads/remove', {
        method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify({ ...place, name: chip.name }),
      }).catch(() => {});
    });
  }

  /** @param {Chip} chip */
  #drop(chip) {
    this.#chips = this.#chips.filter((one) => one !== chip);
    chip.node.remove();
  }

  /** What the next question carries, once every upload has ended. */
  async extras() {
    const names = (await Promise.all(this.#chips.map((chip) => chip.upload))).filter((name) => name !== null);
    return names.length === 0 ? {} : { attachments: names, ...(this.#thread ? {} : { draft: this.#draft }) };
  }

  /** The question went: its files are the thread's now. */
  sent() {
    this.#clear(this.#thread);
  }
}

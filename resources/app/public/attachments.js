// @ts-check
// Files the user brings to the next question: dropped anywhere on the page, pasted into the
// question, or chosen with the paper clip. Each is uploaded at once (into the open thread's folder,
// or the page's draft folder for a question that starts a thread) and shown as a chip under the
// question box until it is sent or taken back. What is said about them (a refusal, a new name)
// is said beside them, and goes when the next files come.
import { button, element } from './dom.js';
import { texts } from './texts.js';
import { postJson, upload } from './api.js';

/** @typedef {import('../workspace/model.ts').Rules} Rules */
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
  #button;
  #rules;

  /**
   * @param {{ list: HTMLElement, note: HTMLElement, button: HTMLElement, input: HTMLInputElement, question: HTMLElement }} parts
   * @param {() => Rules | null} rules the service's, once it has said them
   */
  constructor(parts, rules) {
    this.#list = parts.list;
    this.#note = parts.note;
    this.#button = parts.button;
    this.#rules = rules;
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

  /** The limit the paper clip names. @param {Rules} rules */
  showRules(rules) {
    this.#button.title = texts.attachHint(texts.fileLimit(rules.fileBytes));
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
    this.#say('', false);
  }

  /** @param {string} sentence @param {boolean} refusal */
  #say(sentence, refusal) {
    this.#note.textContent = sentence;
    this.#note.classList.toggle('refusal', refusal);
  }

  /** @param {File[]} files */
  add(files) {
    this.#say('', false);
    const rules = this.#rules();
    for (const file of files) {
      if (rules && file.size > rules.fileBytes) this.#say(texts.fileRefused(file.name, rules.refusals.fileTooLarge), true);
      else if (rules && this.#chips.length >= rules.attachments) this.#say(rules.refusals.tooManyFiles, true);
      else this.#upload(file);
    }
  }

  /** @param {File} file */
  #upload(file) {
    const node = element('span', 'chip uploading');
    const label = node.appendChild(element('span', 'name', file.name));
    const remove = node.appendChild(button('×', 'remove'));
    remove.setAttribute('aria-label', texts.remove(file.name));
    this.#list.append(node);
    /** @type {Record<string, string>} */
    const place = this.#thread ? { thread: this.#thread } : { draft: this.#draft };
    /** @type {Chip} */
    const chip = { name: file.name, node, upload: Promise.resolve(null) };
    chip.upload = upload(place, file).then((name) => {
      chip.name = name;
      label.textContent = name;
      remove.setAttribute('aria-label', texts.remove(name));
      node.classList.remove('uploading');
      if (name !== file.name) this.#say(texts.renamedFile(file.name, name), false);
      return name;
    }, (/** @type {Error} */ error) => {
      this.#drop(chip);
      this.#say(texts.fileRefused(file.name, error.message), true);
      return null;
    });
    this.#chips.push(chip);
    remove.addEventListener('click', async () => {
      this.#drop(chip);
      if ((await chip.upload) === null) return;
      await postJson('/api/uploads/remove', { ...place, name: chip.name }).catch(() => {});
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

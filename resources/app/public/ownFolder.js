// @ts-check
// "Research in my folder": a folder the user already has, typed as a whole path or found in a
// small browser the service offers (folders only, from the home folder), becomes the working
// folder of the next new thread; it is offered where a new thread starts. The service judges
// the folder when the thread is made.
import { button, byId, element } from './dom.js';
import { texts } from './texts.js';
import { getJson } from './api.js';

/** @typedef {import('../workspace/model.ts').FolderListing} FolderListing */

/** @param {unknown} error */
const sentence = (error) => (error instanceof Error ? error.message : String(error));

export class OwnFolder {
  #dialog = /** @type {HTMLDialogElement} */ (byId('folder-dialog'));
  #path = /** @type {HTMLInputElement} */ (byId('folder-path'));
  #list = byId('folder-list');
  #note = byId('folder-note');
  #up = /** @type {HTMLButtonElement} */ (byId('folder-up'));
  #chosenLine = byId('own-folder');
  /** @type {string | null} */
  #parent = null;
  /** @type {string | null} */
  #chosen = null;
  /** Which look at a folder is the latest. */
  #browsing = 0;

  constructor() {
    byId('folder-browse').addEventListener('click', () => void this.#browse(this.#path.value));
    this.#path.addEventListener('keydown', (event) => {
      if (event.key !== 'Enter' || event.isComposing) return;
      event.preventDefault();
      void this.#browse(this.#path.value);
    });
    this.#up.addEventListener('click', () => void this.#browse(this.#parent ?? ''));
    byId('folder-choose').addEventListener('click', () => this.#choose(this.#path.value.trim()));
    byId('folder-cancel').addEventListener('click', () => this.#dialog.close());
    this.#chosenLine.append(element('span'), button(texts.ownFolderOff, 'thread-action', () => this.#choose(null)));
    byId('own-folder-open').addEventListener('click', () => {
      this.#note.textContent = '';
      this.#dialog.showModal();
      void this.#browse(this.#chosen ?? '');
    });
  }

  /** The folder the next new thread works in; null: one of its own. */
  get folder() {
    return this.#chosen;
  }

  /** The thread it was for is made. */
  sent() {
    this.#choose(null);
  }

  /** @param {string | null} path */
  #choose(path) {
    if (path === '') return;
    this.#chosen = path;
    this.#chosenLine.hidden = path === null;
    /** @type {HTMLElement} */ (this.#chosenLine.firstChild).textContent = path === null ? '' : texts.inOwnFolder(path);
    if (this.#dialog.open) this.#dialog.close();
  }

  /** @param {string} path the home folder when empty */
  async #browse(path) {
    const asked = ++this.#browsing;
    const typed = this.#path.value;
    this.#note.textContent = '';
    try {
      /** @type {FolderListing} */
      const listing = await getJson(`/api/folders?${new URLSearchParams({ path: path.trim() })}`);
      // A later look, or a path typed while this one was on its way, is what the user wants now.
      if (asked !== this.#browsing || this.#path.value !== typed) return;
      this.#path.value = listing.path;
      this.#parent = listing.parent;
      this.#up.disabled = listing.parent === null;
      this.#list.replaceChildren(...listing.folders.map((name) => {
        const item = element('li');
        item.append(button(name, 'folder-entry', () => void this.#browse(`${listing.path.replace(/\/$/, '')}/${name}`)));
        return item;
      }));
      if (listing.folders.length === 0) this.#list.append(element('li', 'empty', texts.noFolders));
      if (listing.more) this.#note.textContent = texts.moreFolders(listing.folders.length);
    } catch (error) {
      if (asked === this.#browsing) this.#note.textContent = sentence(error);
    }
  }
}

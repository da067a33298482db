// @ts-check
// The open thread's files, beside the thread (over it in a narrow window): its folder's entries,
// folders opened in place, each file opened in the preview. The folder is read a window of
// entries at a time, the one in view first, and only the rows in view exist, so a folder of ten
// thousand files lists as fast as one of ten. The service watches the folder shown
// while the panel is open and says on the event stream when it changed; closed, nothing is watched.
import { button, byId, element } from './dom.js';
import { texts } from './texts.js';
import { getJson, postJson } from './api.js';

/** @typedef {import('../workspace/model.ts').Entry} Entry */

/** Each row's height, as app.css gives it: the rows in view are found by arithmetic, not layout. */
const ROW_PX = 40;
/** Rows made beyond the view on either side, so a fast scroll shows no gap. */
const SPARE_ROWS = 8;
/** Entries asked for at once: a screenful many times over, a small answer to read. */
const WINDOW = 200;

/** @param {string} thread */
export const filesPath = (thread) => `/api/threads/${encodeURIComponent(thread)}`;

/** The address of a file of the thread. @param {string} thread @param {string} path @param {boolean} [download] */
export const fileUrl = (thread, path, download = false) =>
  `${filesPath(thread)}/file?${new URLSearchParams(download ? { path, download: '1' } : { path })}`;

/** @param {unknown} error */
const sentence = (error) => (error instanceof Error ? error.message : String(error));

export class FilesPanel {
  #panel = byId('files-panel');
  #toggle = /** @type {HTMLButtonElement} */ (byId('files-toggle'));
  #where = byId('files-where');
  #note = byId('files-note');
  #rows = byId('files-rows');
  #space = element('div', 'files-space');
  /** @type {string | null} */
  #thread = null;
  #path = '';
  /** The folder's entries by their place in it, those of the windows read so far. @type {(Entry | undefined)[]} */
  #entries = [];
  /** The windows asked for since the folder was last read, by their first entry's place. */
  #windows = new Set();
  /** The rows in view, by index: one still in view after a scroll is not made again. */
  /** @type {Map<number, HTMLButtonElement>} */
  #made = new Map();
  /** This page's event stream, by its name, which the service watches the folder shown for. */
  #page = '';
  /** The thread and folder the service watches for this page. @type {{ page: string, thread: string, path: string } | null} */
  #watched = null;
  #frame = 0;
  /** Counts the folders asked for: an answer for one asked before the last is dropped. */
  #asked = 0;
  #open;

  /** @param {(thread: string, path: string) => void} open shows a file */
  constructor(open) {
    this.#open = open;
    this.#rows.append(this.#space);
    this.#rows.addEventListener('scroll', () => {
      if (this.#frame === 0) this.#frame = requestAnimationFrame(() => this.#drawRows());
    }, { passive: true });
    this.#toggle.addEventListener('click', () => this.#show(this.#panel.hidden !== false));
    byId('files-close').addEventListener('click', () => this.#show(false));
    byId('files-up').addEventListener('click', () => this.#go(this.#path.split('/').slice(0, -1).join('/')));
    byId('files-reveal').addEventListener('click', () => {
      if (this.#thread) postJson(`${filesPath(this.#thread)}/reveal`, { path: this.#path }).catch((error) => this.#say(sentence(error)));
    });
  }

  /** The event stream is open anew, under this name: what was watched for the last one is not. @param {string} page */
  connected(page) {
    this.#page = page;
    this.#watched = null;
  }

  /** Another thread is open (or none): its folder's top, if the panel is open. @param {string | null} thread */
  thread(thread) {
    this.#thread = thread;
    this.#path = '';
    this.#entries = [];
    this.#toggle.hidden = thread === null;
    if (thread) /** @type {HTMLAnchorElement} */ (byId('files-archive')).href = `${filesPath(thread)}/archive`;
    if (thread === null) this.#show(false);
    this.refresh();
  }

  /** Something in a folder of a thread has changed: read again if it is the one shown. @param {string} thread @param {string} path */
  changed(thread, path) {
    if (thread === this.#thread && path === this.#path) this.refresh();
  }

  /** Asks for the folder shown again, if the panel is open. */
  refresh() {
    if (this.#panel.hidden || !this.#thread) return;
    void this.#load(this.#thread, this.#path);
  }

  /** @param {boolean} shown */
  #show(shown) {
    this.#panel.hidden = !shown;
    this.#toggle.setAttribute('aria-expanded', String(shown));
    document.querySelector('.layout')?.classList.toggle('files-open', shown);
    if (!shown) void this.#watch(null, null);
    this.refresh();
  }

  /**
   * Has the service watch this folder of the thread for this page (none: null), before it is read,
   * so no change between the two goes unsaid. A page whose stream is down is watched for anew on
   * its next hello.
   * @param {string | null} thread @param {string | null} path
   */
  async #watch(thread, path) {
    const was = this.#watched;
    const page = this.#page;
    if (page === '' || (was?.page === page && was.thread === thread && was.path === path) || (was === null && thread === null)) return;
    try {
      if (thread !== null && path !== null) await postJson(`${filesPath(thread)}/watch`, { page, path });
      else if (was) await postJson(`${filesPath(was.thread)}/watch`, { page, path: null });
      this.#watched = thread !== null && path !== null ? { page, thread, path } : null;
    } catch {
      // Unwatched, the panel still lists what is there each time it is opened.
    }
  }

  /** @param {string} path */
  #go(path) {
    this.#path = path;
    this.#entries = [];
    this.#rows.scrollTop = 0;
    this.refresh();
  }

  /** The folder read anew, from the window in view. @param {string} thread @param {string} path */
  async #load(thread, path) {
    const asked = ++this.#asked;
    await this.#watch(thread, path);
    const from = Math.floor(this.#rows.scrollTop / ROW_PX / WINDOW) * WINDOW;
    try {
      const answer = await this.#read(thread, path, from);
      if (asked !== this.#asked) return;
      this.#entries = new Array(answer.total);
      this.#windows = new Set([from]);
      this.#take(answer);
      this.#say(answer.total === 0 ? texts.filesEmpty : '');
    } catch (error) {
      if (asked !== this.#asked) return;
      this.#entries = [];
      this.#say(sentence(error));
    }
    this.#where.textContent = path === '' ? texts.filesTop : `${texts.filesTop} / ${path.replaceAll('/', ' / ')}`;
    byId('files-up').hidden = path === '';
    this.#space.style.height = `${this.#entries.length * ROW_PX}px`;
    this.#space.replaceChildren();
    this.#made.clear();
    this.#drawRows();
  }

  /** @param {string} thread @param {string} path @param {number} from @returns {Promise<{ total: number, from: number, entries: Entry[] }>} */
  #read(thread, path, from) {
    return getJson(`${filesPath(thread)}/files?${new URLSearchParams({ path, from: String(from), count: String(WINDOW) })}`);
  }

  /** @param {{ from: number, entries: Entry[] }} answer */
  #take(answer) {
    answer.entries.forEach((entry, index) => { if (answer.from + index < this.#entries.length) this.#entries[answer.from + index] = entry; });
  }

  /** A window of the folder scrolled into view before it was read. @param {number} from */
  async #readWindow(from) {
    const thread = this.#thread;
    const asked = this.#asked;
    if (!thread || this.#windows.has(from)) return;
    this.#windows.add(from);
    try {
      const answer = await this.#read(thread, this.#path, from);
      if (asked !== this.#asked) return;
      // The folder changed meanwhile: what was read is out of place, so it is read again whole.
      if (answer.total !== this.#entries.length) {
        this.refresh();
        return;
      }
      this.#take(answer);
      this.#drawRows();
    } catch {
      if (asked === this.#asked) this.#windows.delete(from);
    }
  }

  /** @param {string} words */
  #say(words) {
    this.#note.textContent = words;
  }

  /** Only the rows in view, and a few either side; those not read yet are asked for. */
  #drawRows() {
    this.#frame = 0;
    const first = Math.max(0, Math.floor(this.#rows.scrollTop / ROW_PX) - SPARE_ROWS);
    const last = Math.min(this.#entries.length, Math.ceil((this.#rows.scrollTop + this.#rows.clientHeight) / ROW_PX) + SPARE_ROWS);
    /** @type {Map<number, HTMLButtonElement>} */
    const made = new Map();
    for (let index = first; index < last; index += 1) {
      const entry = this.#entries[index];
      if (!entry) {
        void this.#readWindow(index - (index % WINDOW));
        continue;
      }
      made.set(index, this.#made.get(index) ?? this.#row(entry, index));
    }
    // Rows that stay are left where they are: moving them all each frame costs a style and layout
    // pass over every row in view.
    for (const [index, row] of this.#made) if (!made.has(index)) row.remove();
    for (const row of made.values()) if (!row.isConnected) this.#space.append(row);
    this.#made = made;
  }

  /** @param {Entry} entry @param {number} index */
  #row(entry, index) {
    const path = this.#path === '' ? entry.name : `${this.#path}/${entry.name}`;
    const row = button('', `file-row ${entry.kind}`, () => {
      if (entry.kind === 'folder') this.#go(path);
      else if (entry.kind === 'file' && this.#thread) this.#open(this.#thread, path);
    });
    row.style.top = `${index * ROW_PX}px`;
    row.disabled = entry.kind === 'link';
    const origin = entry.user ? texts.uploadedByYou : entry.turn === null ? '' : entry.changedSince ? texts.changedAfterTurn(entry.turn) : texts.madeInTurn(entry.turn);
    row.append(
      element('span', 'file-name', entry.kind === 'folder' ? `${entry.name}/` : entry.name),
      element('span', 'file-origin', origin),
      element('span', 'file-info', entry.kind === 'file' ? `${texts.size(entry.size)} · ${texts.when(entry.changedAt)}` : entry.kind === 'link' ? texts.fileLink : texts.when(entry.changedAt)),
    );
    row.title = entry.name;
    return row;
  }
}

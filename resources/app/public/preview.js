// @ts-check
// A file of the thread's folder, shown over the page: Markdown as answers are drawn, images as
// images, CSV and TSV as a table of their first rows, JSON as a tree that folds, text and code
// coloured as in answers; a PDF opens in the browser's own viewer, in a tab of its own. Nothing a
// file holds ever becomes the page's HTML but what markdown-it renders and DOMPurify lets through.
import { byId, element } from './dom.js';
import { texts } from './texts.js';
import { getText } from './api.js';
import { safeFragment } from './sanitize.js';
import { fileUrl } from './filesPanel.js';
import { resolveLocal } from './localFiles.js';

/** @typedef {import('./markdown.js').Markdown} Markdown */
/** @typedef {import('./code.js').CodeColours} CodeColours */

/** How much of a file is read for a preview: enough for many screens, never a whole large file. */
const TEXT_BYTES = 1 << 20;
const TABLE_BYTES = 64 << 10;
const TABLE_ROWS = 200;
/** Colouring costs a pass over the whole text: a longer one is shown plain. */
const COLOUR_BYTES = 200 << 10;
/** A notebook keeps its figures inside it: read whole up to this. */
const NOTEBOOK_BYTES = 16 << 20;
/** Levels of a JSON tree open at first. */
const OPEN_LEVELS = 2;

const IMAGES = new Set(['png', 'jpg', 'jpeg', 'gif', 'webp', 'svg']);
const LANGUAGES = /** @type {Record<string, string>} */ ({
  py: 'python', r: 'r', jl: 'julia', js: 'javascript', mjs: 'javascript', ts: 'typescript', sh: 'bash', sql: 'sql',
  c: 'c', h: 'c', cpp: 'cpp', hpp: 'cpp', java: 'java', go: 'go', rs: 'rust', tex: 'latex', html: 'xml', htm: 'xml',
  xml: 'xml', css: 'css', yaml: 'yaml', yml: 'yaml', toml: 'ini', ini: 'ini', cfg: 'ini', m: 'matlab', bib: 'latex',
});
const TEXTS = new Set(['txt', 'text', 'log', ...Object.keys(LANGUAGES)]);
const NUMBER = /^[+-]?(\d+([.,]\d*)?|[.,]\d+)([eE][+-]?\d+)?%?$/;

/** @param {string} path */
const extensionOf = (path) => /\.([^./]+)$/.exec(path)?.[1]?.toLowerCase() ?? '';
/** @param {string} path */
const folderOf = (path) => path.split('/').slice(0, -1).join('/');

/**
 * The global a classic script sets, loaded once when first needed: Papa Parse ships no module.
 * @type {Promise<any> | null}
 */
let papa = null;
function csvParser() {
  papa ??= new Promise((resolve, reject) => {
    const script = element('script');
    script.src = '/vendor/papaparse/papaparse.min.js';
    script.addEventListener('load', () => resolve(/** @type {any} */ (globalThis).Papa));
    script.addEventListener('error', () => {
      papa = null;
      reject(new Error(texts.unreachable));
    });
    document.head.append(script);
  });
  return papa;
}

export class Preview {
  #dialog = /** @type {HTMLDialogElement} */ (byId('preview'));
  #name = byId('preview-name');
  #note = byId('preview-note');
  #body = byId('preview-body');
  #download = /** @type {HTMLAnchorElement} */ (byId('preview-download'));
  #md;
  #colours;
  /** Counts the files shown: what comes for one shown before the last is dropped. */
  #shown = 0;

  /** @param {Markdown} md @param {CodeColours} colours */
  constructor(md, colours) {
    this.#md = md;
    this.#colours = colours;
    byId('preview-close').addEventListener('click', () => this.#dialog.close());
    // Esc closes the preview, and only that: reaching the page's keys it would stop a running turn.
    this.#dialog.addEventListener('keydown', (event) => {
      if (event.key === 'Escape') event.stopPropagation();
    });
    this.#dialog.addEventListener('close', () => {
      // The event comes a task after the close: a file opened meanwhile is not the one closed.
      if (this.#dialog.open) return;
      this.#shown += 1;
      this.#body.replaceChildren();
    });
  }

  /** Shows a file of the thread's folder. @param {string} thread @param {string} path */
  async show(thread, path) {
    const shown = ++this.#shown;
    this.#name.textContent = path;
    this.#note.textContent = '';
    this.#download.href = fileUrl(thread, path, true);
    this.#body.replaceChildren();
    if (!this.#dialog.open) this.#dialog.showModal();
    try {
      const drawn = await this.#draw(thread, path);
      if (shown === this.#shown) this.#body.replaceChildren(drawn);
    } catch (error) {
      if (shown === this.#shown) this.#note.textContent = error instanceof Error ? error.message : String(error);
    }
  }

  /** @param {string} thread @param {string} path @returns {Promise<Node>} */
  async #draw(thread, path) {
    const extension = extensionOf(path);
    const url = fileUrl(thread, path);
    if (IMAGES.has(extension)) {
      const image = element('img', 'preview-image');
      image.src = url;
      image.alt = path;
      return image;
    }
    if (extension === 'pdf') {
      const open = element('a', 'preview-open', texts.openPdf);
      open.href = url;
      open.target = '_blank';
      open.rel = 'noopener noreferrer';
      return open;
    }
    if (extension === 'md' || extension === 'markdown') return this.#markdown(thread, path, url);
    if (extension === 'csv' || extension === 'tsv') return this.#table(url, extension === 'tsv' ? '\t' : ',');
    if (extension === 'ipynb') return this.#notebook(url);
    if (extension === 'json') return this.#json(url);
    if (TEXTS.has(extension)) return this.#code(url, LANGUAGES[extension] ?? '');
    this.#note.textContent = texts.noPreview;
    return document.createDocumentFragment();
  }

  /** @param {string} url */
  async #read(url, limit = TEXT_BYTES) {
    const read = await getText(url, limit);
    if (!read.whole) this.#note.textContent = texts.previewCut(limit, read.size);
    return read;
  }

  /** @param {string} thread @param {string} path @param {string} url */
  async #markdown(thread, path, url) {
    const { text } = await this.#read(url);
    const article = element('article', 'markdown preview-markdown');
    article.append(safeFragment(this.#md.render(text)));
    this.#colours.watch(article);
    void resolveLocal(article, thread, folderOf(path), (file) => void this.show(thread, file));
    return article;
  }

  /** @param {string} url @param {string} language */
  async #code(url, language) {
    const { text } = await this.#read(url);
    const box = element('div', 'markdown');
    const code = box.appendChild(element('div', 'code-block')).appendChild(element('pre')).appendChild(element('code', '', text));
    if (language && text.length <= COLOUR_BYTES) {
      code.className = `language-${language}`;
      this.#colours.watch(box);
    }
    return box;
  }

  /** The first rows, read with a CSV parser (quotes, separators and line breaks inside fields). @param {string} url @param {string} delimiter */
  async #table(url, delimiter) {
    const [read, parser] = await Promise.all([getText(url, TABLE_BYTES), csvParser()]);
    // A whole file is read whole, to count its rows; of a cut one only the rows shown, and its
    // last row, cut with it, is dropped.
    /** @type {{ data: string[][], errors: { message: string }[] }} */
    const parsed = parser.parse(read.text, { delimiter, skipEmptyLines: true, ...(read.whole ? {} : { preview: TABLE_ROWS + 2 }) });
    const rows = read.whole || parsed.data.length > TABLE_ROWS + 1 ? parsed.data : parsed.data.slice(0, -1);
    const [head = [], ...body] = rows;
    const bodyRows = body.slice(0, TABLE_ROWS);
    this.#note.textContent = read.whole ? texts.tableRows(bodyRows.length, body.length) : texts.tableStart(bodyRows.length, read.size);
    if (read.whole && parsed.errors.length > 0) this.#note.textContent += ` ${texts.tableProblem(parsed.errors[0]?.message ?? '')}`;
    const table = element('table', 'preview-table');
    const headRow = table.appendChild(element('thead')).appendChild(element('tr'));
    for (const cell of head) headRow.append(element('th', '', cell));
    const tbody = table.appendChild(element('tbody'));
    for (const row of bodyRows) {
      const line = tbody.appendChild(element('tr'));
      for (const cell of row) line.append(element('td', NUMBER.test(cell.trim()) ? 'number' : '', cell));
    }
    const box = element('div', 'table-box');
    box.append(table);
    return box;
  }

  /** A notebook, read only: its Markdown drawn as answers are, its code and its outputs' text and images. @param {string} url */
  async #notebook(url) {
    const read = await this.#read(url, NOTEBOOK_BYTES);
    /** @type {{ cells?: NotebookCell[], metadata?: { kernelspec?: { language?: string } } }} */
    let notebook;
    try {
      notebook = JSON.parse(read.text);
    } catch {
      this.#note.textContent = texts.notJsonFile;
      return this.#code(url, 'json');
    }
    const language = notebook.metadata?.kernelspec?.language ?? 'python';
    const article = element('article', 'markdown preview-markdown');
    for (const cell of notebook.cells ?? []) {
      if (cell.cell_type === 'markdown') {
        article.append(safeFragment(this.#md.render(joined(cell.source))));
        continue;
      }
      const code = element('code', `language-${language}`, joined(cell.source));
      article.appendChild(element('div', 'code-block')).appendChild(element('pre')).append(code);
      for (const output of cell.outputs ?? []) article.append(outputOf(output));
    }
    this.#colours.watch(article);
    return article;
  }

  /** @param {string} url */
  async #json(url) {
    const read = await this.#read(url);
    if (!read.whole) return this.#code(url, 'json');
    try {
      return tree(JSON.parse(read.text), 0);
    } catch {
      this.#note.textContent = texts.notJsonFile;
      return this.#code(url, 'json');
    }
  }
}

/** @typedef {{ cell_type: string, source: string | string[], outputs?: NotebookOutput[] }} NotebookCell */
/** @typedef {{ output_type: string, text?: string | string[], data?: Record<string, string | string[]>, ename?: string, evalue?: string }} NotebookOutput */

/** A notebook's text: a string, or the list of lines it is kept as. @param {string | string[] | undefined} text */
const joined = (text) => (Array.isArray(text) ? text.join('') : text ?? '');

/** A code cell's output as text, or as the PNG or JPEG image it holds. @param {NotebookOutput} output @returns {Node} */
function outputOf(output) {
  const data = output.data ?? {};
  for (const type of ['image/png', 'image/jpeg']) {
    if (!data[type]) continue;
    const image = element('img', 'preview-image');
    image.src = `data:${type};base64,${joined(data[type]).replace(/\s/g, '')}`;
    return image;
  }
  const text = output.output_type === 'error' ? `${output.ename}: ${output.evalue}` : joined(output.text ?? data['text/plain']);
  return element('pre', 'notebook-output', text);
}

/** A JSON value as a tree whose objects and arrays fold. @param {unknown} value @param {number} level @returns {Node} */
function tree(value, level) {
  if (value === null || typeof value !== 'object') {
    return element('span', `json-${value === null ? 'null' : typeof value}`, JSON.stringify(value));
  }
  const entries = Array.isArray(value) ? value.map((each, index) => /** @type {[string, unknown]} */ ([String(index), each])) : Object.entries(value);
  const fold = element('details', 'json-fold');
  fold.open = level < OPEN_LEVELS;
  fold.append(element('summary', 'json-summary', Array.isArray(value) ? texts.jsonArray(entries.length) : texts.jsonObject(entries.length)));
  const list = fold.appendChild(element('ul', 'json-members'));
  for (const [key, member] of entries) {
    const item = list.appendChild(element('li'));
    item.append(element('span', 'json-key', Array.isArray(value) ? `${key}: ` : `${JSON.stringify(key)}: `), tree(member, level + 1));
  }
  return fold;
}

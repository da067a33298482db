// @ts-check
// The search box over every thread: while it holds text its hits stand in place of the thread
// list, each opening its thread at the turn that matched. A hit's snippet is stored Markdown, cut
// anywhere: it is shown as it reads, drawn as text nodes and <mark> elements, never as markup.
import { button, element } from './dom.js';
import { texts } from './texts.js';
import { getJson } from './api.js';
import { readSnippet, searchRefusal } from './searchText.js';

/** @typedef {import('../workspace/model.ts').SearchHit} SearchHit */
/** @typedef {import('../workspace/model.ts').SearchAnswer} SearchAnswer */
/** @typedef {import('../workspace/model.ts').Rules} Rules */
/** @typedef {import('./markdown.js').Markdown} Markdown */

export class SearchBox {
  /** @type {AbortController | null} */
  #pending = null;
  #parts;
  #md;
  #rules;
  #open;

  /**
   * @param {{ input: HTMLInputElement, results: HTMLElement, threads: HTMLElement }} parts
   * @param {Markdown} md
   * @param {() => Rules | null} rules the service's, once it has said them
   * @param {(threadId: string, turnPosition: number) => void} open
   */
  constructor(parts, md, rules, open) {
    this.#parts = parts;
    this.#md = md;
    this.#rules = rules;
    this.#open = open;
    parts.input.addEventListener('input', () => void this.#search());
    parts.input.addEventListener('keydown', (event) => {
      if (event.key !== 'Escape') return;
      event.preventDefault();
      parts.input.value = '';
      this.#clear();
    });
  }

  #clear() {
    this.#pending?.abort();
    this.#pending = null;
    this.#parts.results.hidden = true;
    this.#parts.results.replaceChildren();
    this.#parts.threads.hidden = false;
  }

  /** @param {Node[]} nodes */
  #show(nodes) {
    this.#parts.threads.hidden = true;
    this.#parts.results.hidden = false;
    this.#parts.results.replaceChildren(...nodes);
  }

  /** @param {SearchHit} hit */
  #hit(hit) {
    const entry = button('', 'search-result', () => this.#open(hit.threadId, hit.turnPosition));
    entry.dataset.thread = hit.threadId;
    entry.dataset.turn = String(hit.turnPosition);
    const snippet = element('span', 'snippet');
    snippet.setAttribute('dir', 'auto');
    readSnippet(this.#md, hit.snippet).forEach((part, at) => snippet.append(at % 2 === 1 ? element('mark', '', part) : part));
    entry.append(element('span', 'title', hit.title), snippet);
    return entry;
  }

  async #search() {
    const text = this.#parts.input.value;
    if (text.trim() === '') {
      this.#clear();
      return;
    }
    this.#pending?.abort();
    const refusal = searchRefusal(text, this.#rules());
    if (refusal) {
      this.#show([element('p', 'empty', refusal)]);
      return;
    }
    const controller = new AbortController();
    this.#pending = controller;
    try {
      /** @type {SearchAnswer} */
      const { results, indexed } = await getJson(`/api/search?q=${encodeURIComponent(text)}`, controller.signal);
      if (controller.signal.aborted) return;
      // While an upgraded store's index is still being built, the hits are those of the part built.
      const partial = indexed.done < indexed.total ? [element('p', 'empty', texts.indexBuilding(indexed.done / indexed.total))] : [];
      const found = results.length === 0 ? [element('p', 'empty', texts.nothingFound(text.trim()))] : results.map((hit) => this.#hit(hit));
      this.#show([...partial, ...found]);
    } catch (error) {
      if (controller.signal.aborted) return;
      this.#show([element('p', 'empty', error instanceof Error ? error.message : String(error))]);
    }
  }
}

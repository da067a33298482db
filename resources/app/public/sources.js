// @ts-check
// The web pages a turn drew on, under it as "来源": those Codex opened while it searched, and the
// links its answers cite, each once, each a link out that tells the other site nothing.
import { element } from './dom.js';
import { texts } from './texts.js';
import { isWebAddress } from './markdown.js';

/** One address however it was written: without its fragment or a trailing slash. @param {string} url */
const sameAs = (url) => url.replace(/#.*$/, '').replace(/\/$/, '');

/** @param {string} url */
function domainOf(url) {
  try {
    return new URL(url).hostname;
  } catch {
    return url;
  }
}

export class TurnSources {
  node = element('div', 'sources');
  #list = element('ol');
  /** @type {Set<string>} */
  #seen = new Set();

  constructor() {
    this.node.append(element('span', 'label', texts.sources), this.#list);
    this.node.hidden = true;
  }

  /** @param {string} url @param {string} [title] a domain stands for a page with none */
  add(url, title) {
    const key = sameAs(url);
    if (!isWebAddress(url) || this.#seen.has(key)) return;
    this.#seen.add(key);
    const link = element('a', '', title?.trim() || domainOf(url));
    link.href = url;
    link.target = '_blank';
    link.rel = 'noopener noreferrer';
    link.title = url;
    this.#list.appendChild(element('li')).append(link);
    this.node.hidden = false;
  }

  /** The links an answer as drawn cites (the sanitiser left only web addresses as links). @param {Element} answer */
  cited(answer) {
    for (const link of answer.querySelectorAll('a[href]:not(.local-file)')) this.add(link.getAttribute('href') ?? '', link.textContent ?? '');
  }
}

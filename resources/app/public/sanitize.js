// @ts-check
// Every piece of HTML made from an answer passes through DOMPurify after it is rendered, and every
// link opens in a new tab, without telling the other site where it came from.
// DOMPurify's browser build: loaded for its effect, it puts DOMPurify on the global object.
import './vendor/dompurify/purify.min.js';
import { isWebAddress } from './markdown.js';

/**
 * The part of DOMPurify used here.
 * @type {{
 *   sanitize(html: string, config: { RETURN_DOM_FRAGMENT: true, FORBID_ATTR: string[], ADD_TAGS: string[] }): DocumentFragment,
 *   addHook(entry: 'afterSanitizeAttributes', hook: (node: Element) => void): void,
 * }}
 */
const purifier = /** @type {any} */ (globalThis).DOMPurify;

purifier.addHook('afterSanitizeAttributes', (node) => {
  if (node.nodeName !== 'A') return;
  const href = node.getAttribute('href') ?? '';
  if (isWebAddress(href)) {
    node.setAttribute('target', '_blank');
    node.setAttribute('rel', 'noopener noreferrer');
  } else {
    // The Markdown makes no other link; should one come, it is its words, unwrapped below.
    node.removeAttribute('href');
  }
});

/**
 * @param {string} html
 * @returns {DocumentFragment}
 */
export function safeFragment(html) {
  // KaTeX's MathML keeps its TeX source in <semantics><annotation>, which browsers do not show.
  const fragment = purifier.sanitize(html, { RETURN_DOM_FRAGMENT: true, FORBID_ATTR: ['style'], ADD_TAGS: ['semantics', 'annotation'] });
  for (const link of fragment.querySelectorAll('a:not([href])')) link.replaceWith(...link.childNodes);
  return fragment;
}

// @ts-check
// The few ways the page makes and finds elements.
import { texts } from './texts.js';

/**
 * @template {keyof HTMLElementTagNameMap} K
 * @param {K} tag
 * @param {string} [className]
 * @param {string} [text]
 * @returns {HTMLElementTagNameMap[K]}
 */
export function element(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = text;
  return node;
}

/** A button that is never a form's submit. @param {string} text @param {string} className @param {() => void} [action] */
export function button(text, className, action) {
  const node = element('button', className, text);
  node.type = 'button';
  if (action) node.addEventListener('click', action);
  return node;
}

/**
 * One of index.html's elements, which are all there before any script runs.
 * @template {HTMLElement} [T=HTMLElement]
 * @param {string} id
 * @returns {T}
 */
export function byId(id) {
  return /** @type {T} */ (document.getElementById(id));
}

/** Where index.html's elements take their words from: data-text and its kin name a key of texts. */
const FILLED = /** @type {const} */ ([['text', null], ['label', 'aria-label'], ['placeholder', 'placeholder'], ['title', 'title']]);

/** Gives index.html's elements their words. */
export function fillTexts() {
  const words = /** @type {Record<string, unknown>} */ (texts);
  for (const [key, attribute] of FILLED) {
    for (const node of document.querySelectorAll(`[data-${key}]`)) {
      const word = String(words[/** @type {HTMLElement} */ (node).dataset[key] ?? '']);
      if (attribute) node.setAttribute(attribute, word);
      else node.textContent = word;
    }
  }
}

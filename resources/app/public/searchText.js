// @ts-check
// What the search box decides about text without a page around it: what it refuses before asking
// the service, and how a hit's snippet reads.
import { plainText } from './markdown.js';

/** @typedef {import('../workspace/model.ts').Rules} Rules */
/** @typedef {import('./markdown.js').Markdown} Markdown */

// Private-use characters around each match while the snippet's Markdown is read: they survive
// parsing as the text they stand in.
const OPEN = '\uE000';
const CLOSE = '\uE001';

/**
 * The snippet as it reads, as plain and matching pieces (odd ones the matches, as they came).
 * @param {Markdown} md @param {string[]} snippet @returns {string[]}
 */
export function readSnippet(md, snippet) {
  const marked = snippet.map((part, at) => (at % 2 === 1 ? `${OPEN}${part}${CLOSE}` : part)).join('');
  return plainText(md, marked).split(new RegExp(`${OPEN}|${CLOSE}`));
}

/**
 * Why this text cannot be searched for, counted as the service counts it; null when it can. A
 * text too long to be sent at all gets the same sentence as one a character too long.
 * @param {string} text @param {Rules | null} rules
 */
export function searchRefusal(text, rules) {
  return rules && [...text].length > rules.searchChars ? rules.refusals.searchTooLong : null;
}

// @ts-check
// Markdown for answers, rendered as it streams: the blocks that can no longer change are rendered
// once and kept; only the last block, still growing, is rendered again as text arrives. Rendering
// the whole answer on every delta would cost time growing with the square of its length.
import markdownit from './vendor/markdown-it/markdown-it.esm.min.mjs';
import { mathPlugin } from './math.js';

/** @typedef {ReturnType<typeof markdownit>} Markdown */
/**
 * @typedef {{
 *   type: string, content: string, attrs: [string, string][] | null,
 *   attrGet(name: string): string | null, attrJoin(name: string, value: string): void,
 * }} Token
 */

/** The page's Markdown: no raw HTML from answers, links made clickable, images shown as links. */
export function createMarkdown() {
  const md = markdownit({ html: false, linkify: true, breaks: false });
  md.use(mathPlugin);
  // The page loads nothing from elsewhere; an image in an answer becomes a link to it.
  // Column alignment as a class: a style attribute is refused by the page's policy.
  md.core.ruler.push('alignment_classes', (/** @type {{ tokens: Token[] }} */ state) => {
    for (const token of state.tokens) {
      if (token.type !== 'th_open' && token.type !== 'td_open') continue;
      const align = /^text-align:(left|center|right)$/.exec(token.attrGet('style') ?? '')?.[1];
      if (!align) continue;
      token.attrs = (token.attrs ?? []).filter(([name]) => name !== 'style');
      token.attrJoin('class', `align-${align}`);
    }
  });
  md.renderer.rules.image = (/** @type {Token[]} */ tokens, /** @type {number} */ index) => {
    const token = tokens[index];
    const source = md.utils.escapeHtml(token?.attrGet('src') ?? '');
    const alt = md.utils.escapeHtml(token?.content || source);
    return `<a href="${source}">${alt}</a>`;
  };
  return md;
}

/**
 * How much of text (from its start) is made of blocks that later text cannot change: every
 * top-level block but the last, among whole lines only. A line still arriving can be anything:
 * the "1" that becomes "10. ten" continues the list above it, which must not be settled yet.
 * @param {Markdown} md
 * @param {string} text
 * @returns {number}
 */
export function settledLength(md, text) {
  const whole = text.slice(0, text.lastIndexOf('\n') + 1);
  let last = -1;
  let count = 0;
  for (const token of md.parse(whole, {})) {
    if (token.level !== 0 || token.nesting === -1 || !token.map) continue;
    count += 1;
    last = token.map[0];
  }
  if (count < 2) return 0;
  let offset = 0;
  for (let line = 0; line < last; line += 1) offset = whole.indexOf('\n', offset) + 1;
  return offset;
}

/**
 * The HTML of a growing text, kept as settled chunks plus the growing rest.
 * Feed it text as it comes; it says which new chunk became settled and what the rest renders to.
 */
export class StreamingMarkdown {
  /** @param {Markdown} md */
  constructor(md) {
    this.md = md;
    /** Everything received so far. */
    this.text = '';
    /** Where the settled part of text ends. */
    this.settled = 0;
  }

  /**
   * @param {string} more
   * @returns {{ settledHtml: string, restHtml: string }} newly settled blocks, and the rest whole
   */
  append(more) {
    this.text += more;
    const rest = this.text.slice(this.settled);
    const cut = settledLength(this.md, rest);
    const settledHtml = cut > 0 ? this.md.render(rest.slice(0, cut)) : '';
    this.settled += cut;
    return { settledHtml, restHtml: this.md.render(this.text.slice(this.settled)) };
  }
}

// @ts-check
// Markdown for answers, rendered as it streams: the blocks that can no longer change are rendered
// once and kept; only the last block, still growing, is rendered again as text arrives. Rendering
// the whole answer on every delta would cost time growing with the square of its length.
import markdownit from './vendor/markdown-it/markdown-it.esm.min.mjs';
import { mathPlugin } from './math.js';
import { texts } from './texts.js';

/** @typedef {ReturnType<typeof markdownit>} Markdown */
/**
 * @typedef {{
 *   type: string, tag: string, content: string, info: string, attrs: [string, string][] | null, children: Token[] | null,
 *   attrGet(name: string): string | null, attrJoin(name: string, value: string): void,
 * }} Token
 */

/**
 * A code block's HTML, in a box with its copy button; coloured later, near the view (code.js).
 * @param {(text: string) => string} escape @param {string} code @param {string} language
 */
function codeBlockHtml(escape, code, language) {
  const named = language ? ` class="language-${escape(language)}"` : '';
  return `<div class="code-block"><button type="button" class="copy-code" title="${texts.copyCode}">${texts.copy}</button>`
    + `<pre><code${named}>${escape(code)}</code></pre></div>\n`;
}

/**
 * Only web addresses are links: "#…" would open another thread of this page, and the rest
 * (mailto:, file:, javascript:) have no business being one click away. @param {string} href
 */
export const isWebAddress = (href) => /^https?:/i.test(href);

/**
 * A path with no scheme that does not start at a root: maybe a file of the thread's folder, which
 * localFiles.js finds out once the Markdown is drawn. @param {string} href
 */
const isRelativePath = (href) => href !== '' && !/^[a-z][a-z\d+.-]*:/i.test(href) && !/^[/\\#?]/.test(href);

/** The page's Markdown: no raw HTML from answers, links made clickable, images shown as links. */
export function createMarkdown() {
  const md = markdownit({ html: false, linkify: true, breaks: false });
  md.use(mathPlugin);
  // Every link target is accepted here and refused below unless it is a web address: a refused
  // one then reads as its words, where markdown-it's own refusal would leave its source showing.
  md.validateLink = () => true;
  // A relative path becomes a marked span, which the page makes a link once it knows the file is there.
  md.core.ruler.push('web_links_only', (/** @type {{ tokens: Token[] }} */ state) => {
    for (const inline of state.tokens) {
      const children = inline.children ?? [];
      for (const [index, token] of children.entries()) {
        if (token.type !== 'link_open') continue;
        const href = token.attrGet('href') ?? '';
        if (isWebAddress(href)) continue;
        token.attrs = isRelativePath(href) ? [['data-local', href]] : null;
        if (!token.attrs) continue;
        token.tag = 'span';
        // Links do not nest: the next close is this one's.
        const close = children.slice(index).find((each) => each.type === 'link_close');
        if (close) close.tag = 'span';
      }
    }
  });
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
  // The page loads nothing from elsewhere: a remote image becomes a link to it. One with a relative
  // path is marked, and drawn once the page knows it is a file of the thread's folder.
  md.renderer.rules.image = (/** @type {Token[]} */ tokens, /** @type {number} */ index) => {
    const token = /** @type {Token} */ (tokens[index]);
    const source = token.attrGet('src') ?? '';
    const alt = md.utils.escapeHtml(token.content || source);
    if (isWebAddress(source)) return `<a href="${md.utils.escapeHtml(source)}">${alt}</a>`;
    return isRelativePath(source) ? `<span class="local-image" data-local="${md.utils.escapeHtml(source)}">${alt}</span>` : alt;
  };
  md.renderer.rules.fence = (/** @type {Token[]} */ tokens, /** @type {number} */ index) => {
    const token = /** @type {Token} */ (tokens[index]);
    return codeBlockHtml(md.utils.escapeHtml, token.content, token.info.trim().split(/\s+/)[0] ?? '');
  };
  md.renderer.rules.code_block = (/** @type {Token[]} */ tokens, /** @type {number} */ index) =>
    codeBlockHtml(md.utils.escapeHtml, /** @type {Token} */ (tokens[index]).content, '');
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
 * The HTML of text in runs of top-level blocks of about size characters each, which together are
 * its whole HTML: parsed whole, so references resolve as in one render, and cut only between
 * top-level blocks, which render on their own.
 * @param {Markdown} md @param {string} text @param {number} size
 * @returns {Generator<string>}
 */
export function* htmlInPieces(md, text, size) {
  const env = {};
  /** @type {Token[] & { level: number, nesting: number }[]} */
  const tokens = md.parse(text, env);
  let from = 0;
  let length = 0;
  for (let at = 0; at < tokens.length; at += 1) {
    const token = /** @type {Token & { level: number, nesting: number }} */ (tokens[at]);
    if (length >= size && token.level === 0 && token.nesting !== -1) {
      yield md.renderer.render(tokens.slice(from, at), md.options, env);
      [from, length] = [at, 0];
    }
    length += token.content.length;
  }
  yield md.renderer.render(tokens.slice(from), md.options, env);
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

/**
 * Markdown as it reads: its text without its marks (headings' #, emphasis, links' targets, code
 * fences, table rules), blocks apart by a space. Table rows may come cut from their table, so
 * their bars and rules go before parsing.
 * @param {Markdown} md @param {string} source
 */
export function plainText(md, source) {
  const untabled = source.split('\n')
    .filter((line) => !/^[\s|:-]*-[\s|:-]*$/.test(line))
    .map((line) => (/^\s*\|/.test(line) || /\|\s*$/.test(line) ? line.replaceAll('|', ' ') : line))
    .join('\n');
  /** @type {string[]} */
  const words = [];
  for (const token of /** @type {Token[]} */ (md.parse(untabled, {}))) {
    if (token.type === 'inline') {
      for (const child of token.children ?? []) {
        if (child.type === 'softbreak' || child.type === 'hardbreak') words.push(' ');
        else if (child.type === 'text' || child.type === 'code_inline' || child.type === 'math_inline' || child.type === 'image') words.push(child.content);
      }
      words.push(' ');
    } else if (token.type === 'fence' || token.type === 'code_block' || token.type === 'math_block') {
      words.push(token.content, ' ');
    }
  }
  return words.join('').replace(/\s+/g, ' ').trim();
}

// @ts-check
// Mathematics in answers, as models write it: $…$ and \(…\) inline, $$…$$ and \[…\] displayed.
// KaTeX writes MathML only: its HTML output positions every glyph with a style attribute, which
// the page's policy refuses; MathML needs none, and the browser lays it out with a math font.
// KaTeX's minified browser build: loaded for its effect, it puts katex on the global object.
import './vendor/katex/katex.min.js';

/** The part of KaTeX used here. @type {{ renderToString(source: string, options: object): string }} */
const katex = /** @type {any} */ (globalThis).katex;

/**
 * @typedef {{ content: string, markup: string, info: string, map: [number, number] | null, block: boolean }} MathToken
 * @typedef {{
 *   src: string, pos: number, posMax: number, push(type: string, tag: string, nesting: number): MathToken,
 * }} InlineState
 * @typedef {{
 *   src: string, bMarks: number[], eMarks: number[], tShift: number[], sCount: number[], blkIndent: number,
 *   line: number, isEmpty(line: number): boolean, push(type: string, tag: string, nesting: number): MathToken,
 * }} BlockState
 * @typedef {{
 *   inline: { ruler: { before(name: string, rule: string, fn: (state: InlineState, silent: boolean) => boolean): void } },
 *   block: { ruler: { before(name: string, rule: string, fn: (state: BlockState, start: number, end: number, silent: boolean) => boolean, options: { alt: string[] }): void } },
 *   renderer: { rules: Record<string, (tokens: MathToken[], index: number) => string> },
 *   utils: { escapeHtml(text: string): string },
 * }} MarkdownLike
 */

/** Opening and closing marks; the longer "$$" is tried before "$". */
const INLINE = /** @type {const} */ ([['$$', '$$', true], ['\\[', '\\]', true], ['\\(', '\\)', false], ['$', '$', false]]);
const BLOCK = /** @type {const} */ ([['$$', '$$'], ['\\[', '\\]']]);

const SPACE = /\s/;
const DIGIT = /\d/;

/**
 * Where the single "$" that closes one opened at start is, or -1. Like pandoc's rule, so that
 * prices stay prices: "$" opens only before a non-space, and closes only after a non-space and
 * before a non-digit ("$5 and $10" has no closing mark).
 * @param {string} src @param {number} start @param {number} max
 */
function closingDollar(src, start, max) {
  const first = src[start + 1];
  if (first === undefined || SPACE.test(first) || first === '$') return -1;
  for (let at = src.indexOf('$', start + 1); at !== -1 && at < max; at = src.indexOf('$', at + 1)) {
    const before = src[at - 1] ?? '';
    if (before === '\\' || SPACE.test(before)) continue;
    if (DIGIT.test(src[at + 1] ?? '')) continue;
    return at;
  }
  return -1;
}

/** @param {InlineState} state @param {boolean} silent */
function inlineMath(state, silent) {
  const { src, pos, posMax } = state;
  for (const [open, close, display] of INLINE) {
    if (!src.startsWith(open, pos)) continue;
    const end = open === '$' ? closingDollar(src, pos, posMax) : src.indexOf(close, pos + open.length);
    if (end === -1 || end + close.length > posMax) continue;
    const content = src.slice(pos + open.length, end);
    if (content.trim() === '') continue;
    if (!silent) {
      const token = state.push('math_inline', 'math', 0);
      token.content = content;
      token.markup = open;
      token.info = close;
      token.block = display;
    }
    state.pos = end + close.length;
    return true;
  }
  return false;
}

/**
 * A displayed formula: "$$…$$" on one line, or a line that is only "$$" (or "\[") up to a line
 * that ends with the closing mark. One still open (an answer that is still arriving) runs to the
 * next blank line or the end, the way an open code fence runs to the end: so the lines after it
 * never mean one thing before the closing mark arrives and another after.
 * @param {BlockState} state @param {number} startLine @param {number} endLine @param {boolean} silent
 */
function blockMath(state, startLine, endLine, silent) {
  // markdown-it keeps one entry per line in these, for every line up to endLine.
  const at = (/** @type {number[]} */ list, /** @type {number} */ line) => /** @type {number} */ (list[line]);
  if (at(state.sCount, startLine) - state.blkIndent >= 4) return false;
  const lineText = (/** @type {number} */ line) => state.src.slice(at(state.bMarks, line) + at(state.tShift, line), at(state.eMarks, line)).trim();
  const first = lineText(startLine);
  const marks = BLOCK.find(([open]) => first.startsWith(open));
  if (!marks) return false;
  const [open, close] = marks;
  let content;
  let last = startLine;
  let closed = true;
  if (first.length > open.length + close.length && first.endsWith(close)) {
    content = first.slice(open.length, -close.length);
  } else if (first === open) {
    const lines = [];
    closed = false;
    for (let line = startLine + 1; line < endLine; line += 1) {
      if (state.isEmpty(line) || at(state.sCount, line) < state.blkIndent) break;
      const text = lineText(line);
      last = line;
      if (text.endsWith(close)) {
        lines.push(text.slice(0, -close.length));
        closed = true;
        break;
      }
      lines.push(text);
    }
    content = lines.join('\n');
  } else {
    return false;
  }
  if (silent) return true;
  state.line = last + 1;
  const token = state.push('math_block', 'math', 0);
  token.content = content;
  token.markup = open;
  token.info = closed ? close : '';
  token.block = true;
  token.map = [startLine, state.line];
  return true;
}

/**
 * KaTeX's MathML for this formula, or its source as plain text where KaTeX cannot read it: half a
 * formula, while it streams in, shows as what has arrived so far, never as an error.
 * @param {MarkdownLike} md @param {MathToken} token @param {boolean} display
 */
function renderMath(md, token, display) {
  try {
    return katex.renderToString(token.content, { displayMode: display, output: 'mathml', throwOnError: true, strict: 'ignore' });
  } catch {
    const source = display && token.markup.length > 0 && token.content.includes('\n')
      ? `${token.markup}\n${token.content}\n${token.info}` : `${token.markup}${token.content}${token.info}`;
    return `<span class="math-source">${md.utils.escapeHtml(source)}</span>`;
  }
}

/** @param {MarkdownLike} md */
export function mathPlugin(md) {
  // Before escapes: markdown-it would take "\(" for an escaped parenthesis.
  md.inline.ruler.before('escape', 'math_inline', inlineMath);
  md.block.ruler.before('fence', 'math_block', blockMath, { alt: ['paragraph', 'reference', 'blockquote', 'list'] });
  md.renderer.rules.math_inline = (tokens, index) => {
    const token = /** @type {MathToken} */ (tokens[index]);
    return renderMath(md, token, token.block);
  };
  md.renderer.rules.math_block = (tokens, index) => `<div class="math-display">${renderMath(md, /** @type {MathToken} */ (tokens[index]), true)}</div>\n`;
}

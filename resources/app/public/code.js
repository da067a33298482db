// @ts-check
// Code blocks in answers, each in a box with a copy button. Coloured by language as part of the
// answer's HTML, so one sanitising pass covers the colours too; only blocks that have settled are
// coloured (the growing rest of a streaming answer is drawn plain: colouring it would redo the
// work every frame).
import hljs from './vendor/highlight.js/highlight.min.js';
import { texts } from './texts.js';

/** @type {{ getLanguage(name: string): unknown, highlight(code: string, options: { language: string, ignoreIllegals: boolean }): { value: string } }} */
const highlighter = hljs;

/**
 * A code block's HTML: the code escaped, or coloured when asked for and its language is known
 * (only a named one: guessing costs a pass of every grammar over the block).
 * @param {(text: string) => string} escape @param {string} code @param {string} language @param {boolean} colour
 */
export function codeBlockHtml(escape, code, language, colour) {
  const coloured = colour && language !== '' && Boolean(highlighter.getLanguage(language));
  const body = coloured ? highlighter.highlight(code, { language, ignoreIllegals: true }).value : escape(code);
  const classes = [language && `language-${escape(language)}`, coloured && 'hljs'].filter(Boolean).join(' ');
  return `<div class="code-block"><button type="button" class="copy-code" title="${texts.copyCode}">${texts.copy}</button>`
    + `<pre><code${classes ? ` class="${classes}"` : ''}>${body}</code></pre></div>\n`;
}

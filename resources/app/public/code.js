// @ts-check
// Code blocks in answers: coloured by language and given a copy button, once each, when their
// block has settled; colouring a block that is still growing would redo the work on every delta.
// A block is coloured when it comes near the view: a long thread scrolled through holds far more
// code than anyone looks at, and colouring all of it as it is drawn made scrolling stall.
import hljs from './vendor/highlight.js/highlight.min.js';
import { safeFragment } from './sanitize.js';

/** @type {{ getLanguage(name: string): unknown, highlight(code: string, options: { language: string, ignoreIllegals: boolean }): { value: string } }} */
const highlighter = hljs;

const COPIED_MS = 1500;

/** @param {HTMLButtonElement} button @param {HTMLElement} code */
async function copy(button, code) {
  try {
    await navigator.clipboard.writeText(code.textContent ?? '');
    button.textContent = '已复制';
  } catch {
    button.textContent = '复制失败';
  }
  setTimeout(() => { button.textContent = '复制'; }, COPIED_MS);
}

/** @param {HTMLElement} code */
function colour(code) {
  // Only a named language is coloured: guessing costs a pass of every grammar over the block.
  const language = /\blanguage-([\w+#.-]+)/.exec(code.className)?.[1];
  if (!language || !highlighter.getLanguage(language)) return;
  const { value } = highlighter.highlight(code.textContent ?? '', { language, ignoreIllegals: true });
  code.replaceChildren(safeFragment(value));
  code.classList.add('hljs');
}

const nearView = new IntersectionObserver((entries) => {
  for (const entry of entries) {
    if (!entry.isIntersecting) continue;
    nearView.unobserve(entry.target);
    colour(/** @type {HTMLElement} */ (entry.target));
  }
}, { rootMargin: '600px 0px' });

/**
 * Colours the code blocks under root that are not yet, and puts each in a box with a copy button.
 * @param {ParentNode} root
 */
export function decorateCode(root) {
  for (const code of root.querySelectorAll('pre > code')) {
    const pre = /** @type {HTMLElement} */ (code.parentElement);
    if (pre.parentElement?.classList.contains('code-block')) continue;
    nearView.observe(code);
    const box = document.createElement('div');
    box.className = 'code-block';
    const button = document.createElement('button');
    button.type = 'button';
    button.className = 'copy-code';
    button.textContent = '复制';
    button.title = '复制代码';
    button.addEventListener('click', () => void copy(button, /** @type {HTMLElement} */ (code)));
    pre.replaceWith(box);
    box.append(button, pre);
  }
}

// @ts-check
// Code blocks in answers: their copy buttons, and their colours by language, given once a block
// comes near the view, in idle time. A long thread holds far more code than anyone looks at, and a
// reader scrolling fast passes most of it: colouring all of it as it is drawn (and sanitising what
// the colouring wrote, and laying out its many spans) made scrolling stall.
import hljs from './vendor/highlight.js/highlight.min.js';
import { texts } from './texts.js';
import { safeFragment } from './sanitize.js';
import { idle } from './idle.js';

/** @type {{ getLanguage(name: string): unknown, highlight(code: string, options: { language: string, ignoreIllegals: boolean }): { value: string } }} */
const highlighter = hljs;

const COPIED_MS = 1500;

/** Serves the copy buttons of every code block under root, with one listener. @param {HTMLElement} root */
export function copyFromCodeBlocks(root) {
  root.addEventListener('click', async (event) => {
    const button = event.target instanceof Element ? event.target.closest('.copy-code') : null;
    const code = button?.parentElement?.querySelector('pre > code');
    if (!button || !code) return;
    try {
      await navigator.clipboard.writeText(code.textContent ?? '');
      button.textContent = texts.copied;
    } catch {
      button.textContent = texts.copyFailed;
    }
    setTimeout(() => { button.textContent = texts.copy; }, COPIED_MS);
  });
}

/** Colours the code blocks that come near the view, once each. */
export class CodeColours {
  /** @type {HTMLElement[]} */
  #waiting = [];
  #draining = false;
  #near = new IntersectionObserver((entries) => {
    for (const entry of entries) {
      if (!entry.isIntersecting) continue;
      this.#near.unobserve(entry.target);
      this.#waiting.push(/** @type {HTMLElement} */ (entry.target));
    }
    void this.#drain();
  }, { rootMargin: '600px 0px' });

  /** Watches the code blocks under root that are not coloured yet. @param {ParentNode} root */
  watch(root) {
    for (const code of root.querySelectorAll('pre > code[class^="language-"]:not(.hljs)')) this.#near.observe(code);
  }

  async #drain() {
    if (this.#draining) return;
    this.#draining = true;
    while (this.#waiting.length > 0) {
      const deadline = await idle();
      do colour(/** @type {HTMLElement} */ (this.#waiting.shift()));
      while (this.#waiting.length > 0 && deadline.timeRemaining() > 0);
    }
    this.#draining = false;
  }
}

/** @param {HTMLElement} code */
function colour(code) {
  // Only a named language is coloured: guessing costs a pass of every grammar over the block.
  const language = code.className.slice('language-'.length);
  if (!code.isConnected || !highlighter.getLanguage(language)) return;
  const { value } = highlighter.highlight(code.textContent ?? '', { language, ignoreIllegals: true });
  code.replaceChildren(safeFragment(value));
  code.classList.add('hljs');
}

// @ts-check
// The search box over every thread: while it holds text its hits stand in place of the thread
// list, each opening its thread at the turn that matched. Hits are stored text: they are drawn
// as text nodes and <mark> elements, never as markup.
import { element } from './items.js';

/** @typedef {import('../workspace/model.ts').SearchHit} SearchHit */
/** @typedef {import('../workspace/model.ts').SearchAnswer} SearchAnswer */

/**
 * @param {{ input: HTMLInputElement, results: HTMLElement, threads: HTMLElement }} ui
 * @param {(threadId: string, turnPosition: number) => void} open
 */
export function startSearch(ui, open) {
  /** @type {AbortController | null} */
  let pending = null;

  function clear() {
    pending?.abort();
    pending = null;
    ui.results.hidden = true;
    ui.results.replaceChildren();
    ui.threads.hidden = false;
  }

  /** @param {SearchHit} hit */
  function drawHit(hit) {
    const entry = element('button', 'search-result');
    entry.type = 'button';
    entry.dataset.thread = hit.threadId;
    entry.dataset.turn = String(hit.turnPosition);
    const snippet = element('span', 'snippet');
    snippet.setAttribute('dir', 'auto');
    hit.snippet.forEach((part, at) => snippet.append(at % 2 === 1 ? element('mark', '', part) : part));
    entry.append(element('span', 'title', hit.title), snippet);
    entry.addEventListener('click', () => open(hit.threadId, hit.turnPosition));
    return entry;
  }

  async function search() {
    const text = ui.input.value;
    if (text.trim() === '') {
      clear();
      return;
    }
    pending?.abort();
    const controller = new AbortController();
    pending = controller;
    try {
      const answer = await fetch(`/api/search?q=${encodeURIComponent(text)}`, { signal: controller.signal });
      /** @type {Partial<SearchAnswer> & { error?: string }} */
      const body = await answer.json().catch(() => ({}));
      if (controller.signal.aborted) return;
      ui.threads.hidden = true;
      ui.results.hidden = false;
      if (!answer.ok || !body.results) {
        ui.results.replaceChildren(element('p', 'empty', body.error ?? `搜索失败了（${answer.status}）。`));
      } else {
        // While an upgraded store's index is still being built, the hits are those of the part built.
        const { done, total } = body.indexed ?? { done: 0, total: 0 };
        const partial = done < total ? [element('p', 'empty', `搜索索引还在建立（${Math.floor((done / total) * 100)}%），暂时只能找到已建好的部分。`)] : [];
        const found = body.results.length === 0 ? [element('p', 'empty', `没有找到“${text.trim()}”。`)] : body.results.map(drawHit);
        ui.results.replaceChildren(...partial, ...found);
      }
    } catch (error) {
      if (controller.signal.aborted) return;
      ui.results.hidden = false;
      ui.threads.hidden = true;
      ui.results.replaceChildren(element('p', 'empty', '无法连接工作区服务。'));
    }
  }

  ui.input.addEventListener('input', () => void search());
  ui.input.addEventListener('keydown', (event) => {
    if (event.key !== 'Escape') return;
    event.preventDefault();
    ui.input.value = '';
    clear();
  });
}

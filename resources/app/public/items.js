// @ts-check
// How each kind of item looks, and how it takes what streams into it.
import { StreamingMarkdown, htmlInPieces } from './markdown.js';
import { safeFragment } from './sanitize.js';
import { element } from './dom.js';
import { texts } from './texts.js';

/** @typedef {import('../workspace/model.ts').Item} Item */
/** @typedef {import('./markdown.js').Markdown} Markdown */
/** @typedef {import('./code.js').CodeColours} CodeColours */

// Drawing the growing rest again costs a parse and a sanitising pass: text that arrives in a
// burst (many deltas in one network read) is drawn once a frame, not once a delta.
const FRAME_MS = 16;

/**
 * The texts of an item's Markdown blocks, in order, once the item is final; none while it runs.
 * @param {Item} item
 */
function finalTexts(item) {
  if (item.status === 'running') return [];
  if (item.kind === 'answer' || item.kind === 'plan') return [item.text];
  if (item.kind === 'reasoning') return item.parts;
  return [];
}

/** About this much Markdown is rendered and sanitised in one piece of work ahead of need. */
const PIECE_CHARS = 2000;

/**
 * The sanitised drawing of a final item's Markdown blocks, made ahead of need, away from the
 * reader's scrolling (rendering and sanitising are most of what drawing an item costs), in pieces
 * small enough to fit the moments the browser is idle: it yields between them.
 * @param {Item} item @param {Markdown} md @returns {Generator<void, DocumentFragment[]>}
 */
export function* prepareItem(item, md) {
  const drawn = [];
  for (const text of finalTexts(item)) {
    const fragment = document.createDocumentFragment();
    for (const html of htmlInPieces(md, text, PIECE_CHARS)) {
      fragment.append(safeFragment(html));
      yield;
    }
    drawn.push(fragment);
  }
  return drawn;
}

/** Markdown in a container, drawn as it streams, checked once more when it is final. */
class MarkdownBlock {
  /** @param {Markdown} md @param {CodeColours} colours @param {HTMLElement} container */
  constructor(md, colours, container) {
    this.md = md;
    this.colours = colours;
    this.container = container;
    this.stream = new StreamingMarkdown(md);
    /** Received but not drawn yet. */
    this.pending = '';
    this.frame = 0;
    this.drawnAt = -Infinity;
    /** The nodes of the growing rest, replaced on every draw. @type {ChildNode[]} */
    this.rest = [];
    /** What is drawn: the settled chunks' HTML, and the rest's. */
    this.settledHtml = '';
    this.restHtml = '';
    this.final = false;
  }

  get text() {
    return this.stream.text + this.pending;
  }

  /** @param {string} more */
  append(more) {
    if (more === '' || this.final) return;
    this.pending += more;
    if (this.frame !== 0) return;
    // After a quiet moment the new words show at once; while they keep coming, once a frame.
    if (performance.now() - this.drawnAt >= FRAME_MS) this.draw();
    else this.frame = requestAnimationFrame(() => {
      this.frame = 0;
      this.draw();
    });
  }

  draw() {
    if (this.pending === '') return;
    const { settledHtml, restHtml } = this.stream.append(this.pending);
    this.pending = '';
    for (const node of this.rest) node.remove();
    if (settledHtml) {
      const settled = safeFragment(settledHtml);
      this.colours.watch(settled);
      this.container.append(settled);
    }
    const fragment = safeFragment(restHtml);
    this.rest = [...fragment.childNodes];
    this.container.append(fragment);
    this.settledHtml += settledHtml;
    this.restHtml = restHtml;
    this.drawnAt = performance.now();
  }

  /** Starts over with this text, still growing. @param {string} text */
  reset(text) {
    cancelAnimationFrame(this.frame);
    this.frame = 0;
    this.container.replaceChildren();
    this.stream = new StreamingMarkdown(this.md);
    this.pending = '';
    this.rest = [];
    this.settledHtml = '';
    this.restHtml = '';
    this.final = false;
    this.append(text);
  }

  /**
   * The text is final: drawn whole, once, unless streaming drew exactly that already (streaming
   * draws each block on its own, which the whole can draw otherwise: a reference defined later).
   * A drawing prepared ahead is taken as it is.
   * @param {string} text @param {DocumentFragment} [prepared]
   */
  settle(text, prepared) {
    if (this.final && text === this.text) return;
    cancelAnimationFrame(this.frame);
    this.frame = 0;
    const whole = prepared ? '' : this.md.render(text);
    const drawn = !prepared && this.pending === '' && text === this.stream.text && this.settledHtml + this.restHtml === whole;
    if (!drawn) this.container.replaceChildren(prepared ?? safeFragment(whole));
    this.colours.watch(this.container);
    this.stream = new StreamingMarkdown(this.md);
    this.stream.text = text;
    this.stream.settled = text.length;
    this.pending = '';
    this.settledHtml = whole;
    this.restHtml = '';
    this.rest = [];
    this.final = true;
  }
}

/**
 * The view of one item: built from its first state, then kept up to date.
 */
export class ItemView {
  /**
   * @param {Item} item @param {Markdown} md @param {CodeColours} colours
   * @param {DocumentFragment[]} [prepared] from prepareItem, for a final item
   */
  constructor(item, md, colours, prepared = []) {
    this.md = md;
    this.colours = colours;
    this.kind = item.kind;
    this.node = element('div', `item ${item.kind}`);
    /** @type {MarkdownBlock[]} */
    this.blocks = [];
    /** @type {HTMLElement | null} */
    this.output = null;
    /** @type {HTMLElement | null} */
    this.state = null;
    this.build(item);
    this.update(item, prepared);
  }

  /** @param {Item} item */
  build(item) {
    switch (item.kind) {
      case 'answer':
        this.node.classList.add('markdown');
        this.blocks.push(new MarkdownBlock(this.md, this.colours, this.node));
        break;
      case 'reasoning': {
        this.node.append(element('div', 'label', texts.reasoning));
        break;
      }
      case 'plan':
        this.node.append(element('div', 'label', texts.plan));
        this.blocks.push(new MarkdownBlock(this.md, this.colours, this.node.appendChild(element('div', 'markdown'))));
        break;
      case 'command': {
        const details = element('details');
        const summary = element('summary');
        summary.append(element('span', 'label', texts.command), element('code', 'command-line', item.command));
        this.state = summary.appendChild(element('span', 'state'));
        this.output = element('pre', 'output');
        details.append(summary, this.output);
        this.node.append(details);
        break;
      }
      case 'webSearch':
        this.node.append(element('span', 'label', texts.webSearch), element('span', 'query', item.query));
        break;
      case 'tool':
        this.node.append(element('span', 'label', texts.tool), element('code', '', item.name));
        break;
      case 'fileChange': {
        const details = element('details');
        this.state = details.appendChild(element('summary'));
        this.output = details.appendChild(element('div', 'changes'));
        this.node.append(details);
        break;
      }
      case 'notice':
        this.node.classList.add(item.level);
        this.node.textContent = item.text;
        break;
      case 'guidance':
        this.node.append(element('span', 'label', texts.guidance), element('span', 'guidance-text', item.text));
        this.node.setAttribute('dir', 'auto');
        break;
    }
  }

  /** The item's whole state, as it now is. @param {Item} item @param {DocumentFragment[]} [prepared] */
  update(item, prepared = []) {
    this.node.dataset.status = item.status;
    const final = item.status !== 'running';
    switch (item.kind) {
      case 'answer':
      case 'plan':
        this.settleOrGrow(0, item.text, final, prepared[0]);
        break;
      case 'reasoning':
        item.parts.forEach((part, index) => this.settleOrGrow(index, part, final, prepared[index]));
        break;
      case 'command': {
        const output = /** @type {HTMLElement} */ (this.output);
        if (output.textContent !== item.output) output.textContent = item.output;
        const exit = item.exitCode === null ? '' : texts.exitCode(item.exitCode);
        const dropped = item.dropped > 0 ? texts.dropped(item.dropped) : '';
        const took = item.durationMs === null ? '' : texts.duration(item.durationMs);
        const parts = item.status === 'running' ? [texts.itemStatus.running, dropped] : [exit || texts.itemStatus[item.status], took, dropped];
        /** @type {HTMLElement} */ (this.state).textContent = parts.filter(Boolean).join(' · ');
        this.node.classList.toggle('nonzero', item.exitCode !== null && item.exitCode !== 0);
        break;
      }
      case 'fileChange': {
        /** @type {HTMLElement} */ (this.state).textContent = texts.fileChanges(item.changes.length, texts.itemStatus[item.status]);
        const list = /** @type {HTMLElement} */ (this.output);
        list.replaceChildren(...item.changes.map((change) => {
          const entry = element('div', 'change');
          entry.append(element('div', 'path', texts.changedFile(texts.change[change.change], change.path)), element('pre', 'diff', change.diff));
          return entry;
        }));
        break;
      }
      case 'webSearch':
      case 'tool':
      case 'notice':
      case 'guidance':
        break;
    }
  }

  /**
   * Text appended to the item: its answer, a reasoning part, a command's output.
   * @param {'text' | 'output'} field @param {number | undefined} part @param {string} text
   */
  append(field, part, text) {
    if (field === 'output') {
      const output = /** @type {HTMLElement} */ (this.output);
      const last = output.lastChild;
      if (last instanceof Text) last.appendData(text);
      else output.append(text);
      return;
    }
    this.block(part ?? 0).append(text);
  }

  /** @param {number} index */
  block(index) {
    while (this.blocks.length <= index) {
      this.blocks.push(new MarkdownBlock(this.md, this.colours, this.node.appendChild(element('div', 'markdown part'))));
    }
    return /** @type {MarkdownBlock} */ (this.blocks[index]);
  }

  /** @param {number} index @param {string} text @param {boolean} final @param {DocumentFragment} [prepared] */
  settleOrGrow(index, text, final, prepared) {
    const block = this.block(index);
    if (final) block.settle(text, prepared);
    else if (text.startsWith(block.text)) block.append(text.slice(block.text.length));
    else block.reset(text);
  }
}

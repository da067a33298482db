// @ts-check
// How each kind of item looks, and how it takes what streams into it.
import { StreamingMarkdown } from './markdown.js';
import { safeFragment } from './sanitize.js';
import { decorateCode } from './code.js';

/** @typedef {import('../workspace/model.ts').Item} Item */
/** @typedef {import('./markdown.js').Markdown} Markdown */

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

// Drawing the growing rest again costs a parse and a sanitising pass: text that arrives in a
// burst (many deltas in one network read) is drawn once a frame, not once a delta.
const FRAME_MS = 16;

/** Markdown in a container, drawn as it streams, checked once more when it is final. */
class MarkdownBlock {
  /** @param {Markdown} md @param {HTMLElement} container */
  constructor(md, container) {
    this.md = md;
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
      decorateCode(settled);
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
   * The text is final: drawn whole, once, unless streaming drew exactly that already. (Streaming
   * draws each block on its own, which the whole can draw otherwise: a reference defined later.)
   * @param {string} text
   */
  settle(text) {
    if (this.final && text === this.text) return;
    cancelAnimationFrame(this.frame);
    this.frame = 0;
    const whole = this.md.render(text);
    const drawn = this.pending === '' && text === this.stream.text && this.settledHtml + this.restHtml === whole;
    if (!drawn) this.container.replaceChildren(safeFragment(whole));
    decorateCode(this.container);
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

const STATUS_TEXT = { running: '运行中……', completed: '已完成', failed: '失败', stopped: '已停止' };

/** @param {number | null} ms */
function duration(ms) {
  if (ms === null) return '';
  return ms < 1000 ? `${ms} 毫秒` : `${(ms / 1000).toFixed(1)} 秒`;
}

/**
 * The view of one item: built from its first state, then kept up to date.
 */
export class ItemView {
  /** @param {Item} item @param {Markdown} md */
  constructor(item, md) {
    this.md = md;
    this.kind = item.kind;
    this.node = element('div', `item ${item.kind}`);
    /** @type {MarkdownBlock[]} */
    this.blocks = [];
    /** @type {HTMLElement | null} */
    this.output = null;
    /** @type {HTMLElement | null} */
    this.state = null;
    this.build(item);
    this.update(item);
  }

  /** @param {Item} item */
  build(item) {
    switch (item.kind) {
      case 'answer':
        this.node.classList.add('markdown');
        this.blocks.push(new MarkdownBlock(this.md, this.node));
        break;
      case 'reasoning': {
        this.node.append(element('div', 'label', '思考'));
        break;
      }
      case 'plan':
        this.node.append(element('div', 'label', '计划'));
        this.blocks.push(new MarkdownBlock(this.md, this.node.appendChild(element('div', 'markdown'))));
        break;
      case 'command': {
        const details = element('details');
        const summary = element('summary');
        summary.append(element('span', 'label', '命令'), element('code', 'command-line', item.command));
        this.state = summary.appendChild(element('span', 'state'));
        this.output = element('pre', 'output');
        details.append(summary, this.output);
        this.node.append(details);
        break;
      }
      case 'webSearch':
        this.node.append(element('span', 'label', '网页搜索'), element('span', 'query', item.query));
        break;
      case 'tool':
        this.node.append(element('span', 'label', '调用工具'), element('code', '', item.name));
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
    }
  }

  /** The item's whole state, as it now is. @param {Item} item */
  update(item) {
    this.node.dataset.status = item.status;
    switch (item.kind) {
      case 'answer':
        this.settleOrGrow(0, item.text, item.status !== 'running');
        break;
      case 'plan':
        this.settleOrGrow(0, item.text, item.status !== 'running');
        break;
      case 'reasoning':
        item.parts.forEach((part, index) => this.settleOrGrow(index, part, item.status !== 'running'));
        break;
      case 'command': {
        const output = /** @type {HTMLElement} */ (this.output);
        if (output.textContent !== item.output) output.textContent = item.output;
        const exit = item.exitCode === null ? '' : `退出码 ${item.exitCode}`;
        const dropped = item.dropped > 0 ? `另有 ${item.dropped} 个字符的输出未保留` : '';
        const parts = item.status === 'running' ? [STATUS_TEXT.running, dropped] : [exit || STATUS_TEXT[item.status], duration(item.durationMs), dropped];
        /** @type {HTMLElement} */ (this.state).textContent = parts.filter(Boolean).join(' · ');
        this.node.classList.toggle('nonzero', item.exitCode !== null && item.exitCode !== 0);
        break;
      }
      case 'fileChange': {
        const names = { add: '新建', delete: '删除', update: '修改' };
        /** @type {HTMLElement} */ (this.state).textContent = `修改文件 ${item.changes.length} 个 · ${STATUS_TEXT[item.status]}`;
        const list = /** @type {HTMLElement} */ (this.output);
        list.replaceChildren(...item.changes.map((change) => {
          const entry = element('div', 'change');
          entry.append(element('div', 'path', `${names[change.change]}：${change.path}`), element('pre', 'diff', change.diff));
          return entry;
        }));
        break;
      }
      case 'webSearch':
      case 'tool':
      case 'notice':
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
      this.blocks.push(new MarkdownBlock(this.md, this.node.appendChild(element('div', 'markdown part'))));
    }
    return /** @type {MarkdownBlock} */ (this.blocks[index]);
  }

  /** @param {number} index @param {string} text @param {boolean} final */
  settleOrGrow(index, text, final) {
    const block = this.block(index);
    if (final) block.settle(text);
    else if (text.startsWith(block.text)) block.append(text.slice(block.text.length));
    else block.reset(text);
  }
}

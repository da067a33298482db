// Reading an answer and moving about the page: mathematics, coloured code with its copy button,
// links, tables, the thread's usage, the shortcuts, the question box, every text's contrast in
// the light and the dark look, and a window as narrow as a phone's.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { lastQuestion, reply, type ResponsesRequest } from '../../harness/standin.ts';
import { WORKSPACE } from '../../harness/launcher.ts';
import { ask, opened } from '../../harness/world.ts';
import type { Page } from '../../harness/browser.ts';
import { until } from '../../harness/service.ts';

// A string, a comment, a built-in and numbers besides the keywords: the contrast check reads each colour.
const CODE = 'def area(r):\n    """圆的面积"""  # 半径\n    return 3.14 * r ** 2 + len([r])\n';
// Cut so that formulas arrive in halves: "$$\\frac{1}{" must never show an error.
const ANSWER = [
  '面积是 $\\pi r', '^2$，价格 $5 和 $10 不是公式。\n\n$$\n\\frac{1}{', '2}\n$$\n\n```python\n', CODE, '```\n\n',
  '[文档](https://example.com/doc) [脚本](javascript:alert(1)) [邮件](mailto:a@example.com) [本页](#x)\n\n',
  `| ${Array.from({ length: 12 }, (_, i) => `很长的列标题-${i}`).join(' | ')} |\n|${'---|'.repeat(12)}\n| ${'值 | '.repeat(12)}\n`,
];

function script(request: ResponsesRequest) {
  const question = lastQuestion(request);
  if (question.includes('公式')) return reply.answer(ANSWER, 30);
  if (question.includes('慢慢')) return reply.answer(Array.from({ length: 300 }, (_, i) => `第${i}句。`), 100);
  return reply.answer('好的。');
}

// Every text against what is behind it, as Chromium computes both: WCAG's contrast ratio of its
// colour (and its placeholder's) over the first opaque background below it, translucent ones and
// opacity blended in. Large text needs 3:1, the rest 4.5:1; disabled controls need none.
const LOW_CONTRAST = `(() => {
  const pen = document.createElement('canvas').getContext('2d', { willReadFrequently: true });
  const rgba = (colour) => {
    pen.clearRect(0, 0, 1, 1);
    pen.fillStyle = colour;
    pen.fillRect(0, 0, 1, 1);
    const [r, g, b, a] = pen.getImageData(0, 0, 1, 1).data;
    return [r, g, b, a / 255];
  };
  const over = ([r, g, b, a], [R, G, B]) => [r * a + R * (1 - a), g * a + G * (1 - a), b * a + B * (1 - a), 1];
  const behind = (node) => {
    const layers = [];
    for (let at = node; at; at = at.parentElement) {
      const layer = rgba(getComputedStyle(at).backgroundColor);
      if (layer[3] > 0) layers.push(layer);
      if (layer[3] === 1) break;
    }
    return layers.reduceRight((below, layer) => over(layer, below), [255, 255, 255, 1]);
  };
  const opacity = (node) => { let value = 1; for (let at = node; at; at = at.parentElement) value *= Number(getComputedStyle(at).opacity); return value; };
  const luminance = (rgb) => rgb.slice(0, 3).map((v) => v / 255).map((v) => (v <= 0.04045 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4))
    .reduce((sum, v, i) => sum + v * [0.2126, 0.7152, 0.0722][i], 0);
  const ratio = (x, y) => { const [a, b] = [luminance(x), luminance(y)].sort((p, q) => q - p); return (a + 0.05) / (b + 0.05); };
  const low = [];
  const check = (node, colour, text) => {
    const style = getComputedStyle(node);
    const size = parseFloat(style.fontSize);
    const needed = size >= 24 || (size >= 18.66 && Number(style.fontWeight) >= 700) ? 3 : 4.5;
    const background = behind(node);
    const [r, g, b, a] = rgba(colour);
    const value = ratio(over([r, g, b, a * opacity(node)], background), background);
    if (value < needed) low.push(text.trim().slice(0, 24) + ' ' + value.toFixed(2) + ' (' + colour + ')');
  };
  const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  const seen = new Set();
  for (let text = walker.nextNode(); text; text = walker.nextNode()) {
    const node = text.parentElement;
    if (!text.data.trim() || seen.has(node) || !node.checkVisibility() || node.closest(':disabled')) continue;
    seen.add(node);
    check(node, getComputedStyle(node).color, text.data);
  }
  for (const box of document.querySelectorAll('input[placeholder], textarea[placeholder]')) {
    if (box.value === '' && box.checkVisibility()) check(box, getComputedStyle(box, '::placeholder').color, box.placeholder);
  }
  return low;
})()`;

async function contrastInBothLooks(page: Page) {
  for (const colorScheme of ['light', 'dark'] as const) {
    await page.emulateMedia({ colorScheme });
    assert.deepEqual(await page.evaluate(LOW_CONTRAST), [], `below WCAG AA in the ${colorScheme} look`);
  }
  await page.emulateMedia({ colorScheme: 'light' });
}

/** The table's tallest header in lines, and whether its narrowest cell is a few words wide (5 em). */
const tableShape = (page: Page) => page.evaluate<[number, boolean]>(`(() => {
  const table = document.querySelector('.answer table');
  const inner = (cell) => { const style = getComputedStyle(cell); return cell.clientHeight - parseFloat(style.paddingTop) - parseFloat(style.paddingBottom); };
  const lines = [...table.querySelectorAll('th')].map((th) => Math.round(inner(th) / parseFloat(getComputedStyle(th).lineHeight)));
  const ems = [...table.querySelectorAll('td')].map((td) => td.clientWidth / parseFloat(getComputedStyle(td).fontSize));
  return [Math.max(...lines), Math.min(...ems) >= 5];
})()`);

/** The question box's height, and whether it scrolls (headless Chromium hides the scrollbar it would show). */
const questionBox = (page: Page) => page.evaluate<{ height: number; scrolls: boolean }>(`(() => {
  const box = document.getElementById('question');
  return { height: box.offsetHeight, scrolls: getComputedStyle(box).overflowY !== 'hidden' && box.scrollHeight > box.clientHeight };
})()`);

const numbers = (text: string | null) => [...(text ?? '').matchAll(/输入 (\d+)/g)].map((match) => Number(match[1]));
const hash = (page: Page) => page.evaluate<string>('decodeURIComponent(location.hash.slice(1))');
const sidebarRight = (page: Page) => page.locator('.sidebar').evaluate((node) => node.getBoundingClientRect().right);

test('an answer reads well, the shortcuts do what they say, and a narrow window keeps it all', async (t) => {
  const { page, finish } = await opened(t, script);
  await page.context().grantPermissions(['clipboard-read', 'clipboard-write'], { origin: WORKSPACE });

  const turn = await ask(page, '写一个公式和代码');
  await turn.locator('.turn-foot').getByText('本轮用量').waitFor();
  const answer = turn.locator('.answer');
  // Which text is a formula: the markdown tests; here, that the page draws one.
  assert.equal(await answer.locator('.math-display math[display="block"] mfrac').count(), 1);
  // Code is coloured once it is near the view, when the page is idle.
  await answer.locator('code.hljs').waitFor();
  assert.deepEqual(await answer.locator('code.hljs .hljs-keyword').allTextContents(), ['def', 'return']);

  await answer.locator('.copy-code').click();
  await answer.locator('.copy-code').getByText('已复制').waitFor();
  assert.equal(await page.evaluate('navigator.clipboard.readText()'), CODE);

  // Only the web address is a link, and it opens in a tab of its own; the rest are their words.
  assert.deepEqual(await answer.locator('a').evaluateAll((links) => links.map((link) => [link.getAttribute('href'), link.getAttribute('target'), link.getAttribute('rel')])),
    [['https://example.com/doc', '_blank', 'noopener noreferrer']]);
  assert.match(await answer.textContent() ?? '', /文档 脚本 邮件 本页/);

  // Wide tables keep one line a header and a few words a cell, and scroll in their own box.
  assert.deepEqual(await tableShape(page), [1, true]);
  await page.locator('#keys summary').click();
  await contrastInBothLooks(page);

  // The question box grows with its text up to a limit, and only then scrolls.
  const boxes = [];
  for (const text of ['一', '一\n二\n三\n四', '行\n'.repeat(40)]) {
    await page.fill('#question', text);
    boxes.push(await questionBox(page));
  }
  assert.deepEqual(boxes.map((box) => box.scrolls), [false, false, true]);
  assert.ok(boxes[0]!.height < boxes[1]!.height && boxes[1]!.height < boxes[2]!.height && boxes[2]!.height <= 240, JSON.stringify(boxes));
  await page.fill('#question', '');

  // The thread's usage is its turns' together, and follows each turn that ends.
  const second = await ask(page, '再来一个');
  await second.locator('.turn-foot').getByText('本轮用量').waitFor();
  const perTurn = numbers((await page.locator('.turn-foot').allTextContents()).join(' '));
  await until('the thread usage to count both turns', async () => numbers(await page.locator('#thread-usage').textContent())[0] === perTurn[0]! + perTurn[1]!);
  const first = await hash(page);

  // Shortcuts: a new thread, the thread list in its order, the search box, stopping.
  await page.keyboard.press('Control+Shift+O');
  await page.locator('#welcome').waitFor();
  const slow = await ask(page, '请慢慢回答');
  await slow.locator('.answer').getByText('第3句').waitFor();
  await page.locator('#about summary').click();
  await contrastInBothLooks(page);
  await page.locator('#question').focus();
  await page.keyboard.press('Escape');
  // What came before the stop stays, as the real Codex leaves it.
  await slow.locator('.turn-foot').getByText('已停止').waitFor();
  assert.match(await slow.locator('.answer').textContent() ?? '', /^第0句。第1句。第2句。第3句。/);
  const order = await page.locator('#threads .thread-entry').evaluateAll((entries) => entries.map((entry) => entry.getAttribute('data-thread')));
  assert.equal(order.length, 2);
  assert.equal(await hash(page), order[0]);
  await page.keyboard.press('Alt+ArrowDown');
  await until('the next thread to open', async () => (await hash(page)) === order[1]);
  assert.equal(order[1], first);
  await page.keyboard.press('Alt+ArrowUp');
  await until('the previous thread to open', async () => (await hash(page)) === order[0]);
  await page.keyboard.press('Control+KeyK');
  assert.equal(await page.evaluate('document.activeElement.id'), 'search');

  // 420 pixels wide: nothing but the table scrolls sideways, the head is one line that folds out
  // the rest, the list folds, opens and closes.
  await page.setViewportSize({ width: 420, height: 800 });
  await page.evaluate(`location.hash = ${JSON.stringify(first)}`);
  await answer.locator('table').waitFor();
  await until('the list to fold away', async () => (await sidebarRight(page)) <= 0);
  assert.equal(await page.evaluate('document.documentElement.scrollWidth'), 420);
  assert.ok(await answer.locator('table').evaluate((table) => table.scrollWidth > table.clientWidth), 'the wide table scrolls in its own box');
  assert.deepEqual(await tableShape(page), [1, true]);
  assert.ok((await page.locator('#thread-head').boundingBox())!.height <= 60, 'the head is one line');
  assert.equal(await page.locator('.thread-actions').isVisible(), false);
  await page.click('#head-more');
  await page.locator('.thread-actions').waitFor();
  const send = await page.locator('#send').boundingBox();
  assert.ok(send && send.x + send.width <= 420);
  await page.click('#menu');
  await until('the list to show', async () => (await sidebarRight(page)) > 200);
  await page.locator('#threads .thread-entry').nth(0).click();
  await until('the list to fold after a choice', async () => (await hash(page)) === order[0] && (await sidebarRight(page)) <= 0);

  await finish();
});

// Reading an answer and moving about the page: mathematics, coloured code with its copy button,
// links, the thread's usage, the shortcuts, and a window as narrow as a phone's.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { lastQuestion, reply, type ResponsesRequest } from '../../harness/standin.ts';
import { Launcher, WORKSPACE } from '../../harness/launcher.ts';
import { ask, world } from '../../harness/world.ts';
import { openPage, type Page } from '../../harness/browser.ts';
import { until } from '../../harness/service.ts';

const CODE = 'def area(r):\n    return 3.14 * r ** 2\n';
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

const numbers = (text: string | null) => [...(text ?? '').matchAll(/输入 (\d+)/g)].map((match) => Number(match[1]));
const hash = (page: Page) => page.evaluate<string>('decodeURIComponent(location.hash.slice(1))');
const sidebarRight = (page: Page) => page.locator('.sidebar').evaluate((node) => node.getBoundingClientRect().right);

test('an answer reads well, the shortcuts do what they say, and a narrow window keeps it all', async (t) => {
  const { sandbox, browser } = await world(t, script);
  const launcher = await Launcher.ready(sandbox);
  const { page, problems } = await openPage(browser, WORKSPACE);
  await page.context().grantPermissions(['clipboard-read', 'clipboard-write'], { origin: WORKSPACE });

  const turn = await ask(page, '写一个公式和代码');
  await turn.locator('.turn-foot').getByText('本轮用量').waitFor();
  const answer = turn.locator('.answer');
  assert.equal(await answer.locator('math').count(), 2);
  assert.equal(await answer.locator('.math-display math[display="block"] mfrac').count(), 1);
  assert.match(await answer.locator('p').first().textContent() ?? '', /价格 \$5 和 \$10 不是公式/);
  assert.deepEqual(await answer.locator('code.hljs .hljs-keyword').allTextContents(), ['def', 'return']);

  await answer.locator('.copy-code').click();
  await answer.locator('.copy-code').getByText('已复制').waitFor();
  assert.equal(await page.evaluate('navigator.clipboard.readText()'), CODE);

  // Only the web address is a link, and it opens in a tab of its own; the rest are their words.
  assert.deepEqual(await answer.locator('a').evaluateAll((links) => links.map((link) => [link.getAttribute('href'), link.getAttribute('target'), link.getAttribute('rel')])),
    [['https://example.com/doc', '_blank', 'noopener noreferrer']]);
  assert.match(await answer.textContent() ?? '', /文档 \[脚本\]\(javascript:alert\(1\)\) 邮件 本页/);

  // The thread's usage is its turns' together, and follows each turn that ends.
  const second = await ask(page, '再来一个');
  await second.locator('.turn-foot').getByText('本轮用量').waitFor();
  const perTurn = numbers((await page.locator('.turn-foot').allTextContents()).join(' '));
  await until('the thread usage to count both turns', async () => numbers(await page.locator('#thread-usage').textContent())[0] === perTurn[0]! + perTurn[1]!);
  const first = await hash(page);

  // Shortcuts: a new thread, the thread list in its order, the search box, stopping.
  await page.keyboard.press('Control+Shift+O');
  await page.locator('#welcome').waitFor();
  await ask(page, '请慢慢回答');
  await page.locator('#stop').waitFor();
  await page.locator('#question').focus();
  await page.keyboard.press('Escape');
  await page.locator('.turn-foot').getByText('已停止').waitFor();
  const order = await page.locator('#threads .thread-entry').evaluateAll((entries) => entries.map((entry) => entry.getAttribute('data-thread')));
  assert.equal(order.length, 2);
  assert.equal(await hash(page), order[0]);
  await page.keyboard.press('Alt+ArrowDown');
  await until('the next thread to open', async () => (await hash(page)) === order[1]);
  assert.equal(order[1], first);
  await page.keyboard.press('Alt+ArrowUp');
  await until('the previous thread to open', async () => (await hash(page)) === order[0]);
  // The search box comes with the search; the shortcut only needs one to be there.
  await page.evaluate(`document.getElementById('search') ?? document.getElementById('threads').before(
    Object.assign(document.createElement('input'), { id: 'search', type: 'search' }))`);
  await page.keyboard.press('Control+KeyK');
  assert.equal(await page.evaluate('document.activeElement.id'), 'search');

  // 420 pixels wide: nothing but the table scrolls sideways, the list folds, opens and closes.
  await page.setViewportSize({ width: 420, height: 800 });
  await page.evaluate(`location.hash = ${JSON.stringify(first)}`);
  await answer.locator('table').waitFor();
  await until('the list to fold away', async () => (await sidebarRight(page)) <= 0);
  assert.equal(await page.evaluate('document.documentElement.scrollWidth'), 420);
  assert.ok(await answer.locator('table').evaluate((table) => table.scrollWidth > table.clientWidth), 'the wide table scrolls in its own box');
  const send = await page.locator('#send').boundingBox();
  assert.ok(send && send.x + send.width <= 420);
  await page.click('#menu');
  await until('the list to show', async () => (await sidebarRight(page)) > 200);
  await page.locator('#threads .thread-entry').nth(0).click();
  await until('the list to fold after a choice', async () => (await hash(page)) === order[0] && (await sidebarRight(page)) <= 0);

  assert.deepEqual(problems, []);
  await launcher.quit();
});

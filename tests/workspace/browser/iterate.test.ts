// Iterating on a thread as a user does, with the real Codex through the stand-in model: the last
// question edited and asked again, a branch at the first of three turns, guidance for a running
// turn, and a question queued behind one. What Codex asks the model shows what history it holds.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { lastQuestion, reply, type ResponsesRequest } from '../../harness/standin.ts';
import { ask, opened } from '../../harness/world.ts';
import { until } from '../../harness/service.ts';

/** The user's own messages in a request to the model, Codex's context notes left out. */
const asked = (request: ResponsesRequest) => request.input
  .filter((entry) => entry.role === 'user')
  .map((entry) => (entry.content ?? []).map((part) => part.text ?? '').join(''))
  .filter((text) => !text.startsWith('<'));

// A long turn waits after its first words until the test lets it go on.
let release = () => {};
let held = Promise.resolve();
const holdNext = () => { held = new Promise<void>((resolve) => { release = resolve; }); };

function script(request: ResponsesRequest) {
  const question = lastQuestion(request);
  if (question.startsWith('长任务')) return { steps: [{ text: ['开始分析……', `${question}完成。`], holdAfter: { index: 0, until: held } }] };
  return reply.answer(`答：${question}`);
}

test('edit and ask again, branch, steer, queue: the model sees the history the page shows', async (t) => {
  const { standIn, page, finish } = await opened(t, script, { settings: ['model_context_window = 100000'] });
  const lastRequest = () => asked(standIn.requests.at(-1)!);

  await ask(page, '问题一');
  await page.getByText('答：问题一').waitFor();
  await ask(page, '问题二，措辞不好');
  await page.locator('.turn-foot').nth(1).getByText('本轮用量').waitFor();
  assert.match(await page.locator('#thread-context').textContent() ?? '', /^上下文：已用 \d+%/);

  // The last question edited: the old turn goes, in Codex's history too, and the new one takes its place.
  await page.locator('.turn').nth(1).locator('.edit').click();
  assert.equal(await page.inputValue('#question'), '问题二，措辞不好');
  await page.fill('#question', '问题二，改好了');
  await page.press('#question', 'Enter');
  await page.getByText('答：问题二，改好了').waitFor();
  assert.deepEqual(lastRequest(), ['问题一', '问题二，改好了']);
  assert.equal(await page.locator('.turn').count(), 2);
  await ask(page, '问题三');
  await page.locator('.turn-foot').nth(2).getByText('本轮用量').waitFor();
  const original = page.url();

  // A branch at the first of three turns: the branch's model sees one earlier turn, the old thread's all three.
  await page.locator('.turn').first().locator('.branch').click();
  await until('the branch open', () => page.url() !== original);
  await page.locator('#thread-title').getByText('从第 1 轮分支').waitFor();
  await ask(page, '分支里的问题');
  await page.getByText('答：分支里的问题').waitFor();
  assert.deepEqual(lastRequest(), ['问题一', '分支里的问题']);
  await page.goto(original);
  await ask(page, '原线程的问题');
  await page.getByText('答：原线程的问题').waitFor();
  assert.deepEqual(lastRequest(), ['问题一', '问题二，改好了', '问题三', '原线程的问题']);

  // Guidance for a running turn reaches the model within that turn, and is shown where it was given.
  holdNext();
  const before = standIn.requests.length;
  const longTurn = await ask(page, '长任务：分析数据');
  await longTurn.getByText('开始分析').waitFor();
  await page.fill('#question', '用 2023 年的数据');
  await page.press('#question', 'Enter');
  await longTurn.locator('.guidance').getByText('用 2023 年的数据').waitFor();
  release();
  await longTurn.locator('.turn-foot').getByText('本轮用量').waitFor();
  assert.ok(standIn.requests.slice(before).some((request) => asked(request).slice(-2).join('|') === '长任务：分析数据|用 2023 年的数据'));

  // A queued question waits for the running turn, is shown until then, and is asked once after it.
  holdNext();
  const queuedBehind = await ask(page, '长任务：第二次');
  await queuedBehind.getByText('开始分析').waitFor();
  await page.fill('#question', '之后再问的事');
  await page.click('#queue-send');
  await page.locator('#queued').getByText('之后再问的事').waitFor();
  release();
  await page.getByText('答：之后再问的事').waitFor();
  await page.locator('#queued').waitFor({ state: 'hidden' });
  assert.equal(standIn.requests.filter((request) => lastQuestion(request) === '之后再问的事').length, 1);

  await finish();
});

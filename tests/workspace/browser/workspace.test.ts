// The workspace as a user meets it: the real launcher starts the service, the real Codex answers
// through the stand-in model, and Debian's Chromium shows it. Start, ask, watch the answer stream
// in, run a command, stop, quit; find an old answer in a long thread. (Many pages on one answer,
// what a restart finds and a reload's snapshot: the service's own tests; what a reconnection and
// an address open: the controller's; what history a follow-up carries: iterating.)
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { commandOutput, lastQuestion, reply, type ResponsesRequest } from '../../harness/standin.ts';
import { WORKSPACE } from '../../harness/launcher.ts';
import { ask, newThread, opened } from '../../harness/world.ts';
import type { Page } from '../../harness/browser.ts';
import { until } from '../../harness/service.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';
import type { ThreadStore } from '../../../resources/app/workspace/store/store.ts';
import type { TurnHead } from '../../../resources/app/workspace/model.ts';

const FIRST_ANSWER = [
  '## SQLite 是什么\n\n', 'SQLite 是一个**嵌入式**数据库。', '\n\n- 无需服务器\n', '- 单个文件\n\n', '```sql\nSELECT ', "'hello';\n```\n",
  '\n| 项 | 大小 |\n|:--|--:|\n| 页 | 4096 |\n',
];

// The first answer pauses after its second delta until the test has seen that much of it.
let release!: () => void;
const halfway = new Promise<void>((resolve) => { release = resolve; });

function script(request: ResponsesRequest) {
  const question = lastQuestion(request);
  const output = commandOutput(request);
  if (output !== null) return reply.answer(`命令已运行，输出是：${output.includes('命令输出-42') ? '命令输出-42' : '（没有看到）'}`);
  if (question.includes('介绍')) return { steps: [{ reasoning: '**想一想** 该从哪里讲起' }, { text: FIRST_ANSWER, holdAfter: { index: 1, until: halfway } }] };
  if (question.includes('很慢的命令')) return reply.command('echo started; sleep 300');
  if (question.includes('命令')) return reply.command('echo 命令输出-42', '先运行命令');
  if (question.includes('401')) return reply.unauthorized();
  if (question.includes('模型')) return reply.missingModel();
  return reply.answer('好的。');
}

const foot = (turn: ReturnType<Page['locator']>) => turn.locator('.turn-foot');

/**
 * One step of a walk through a thread: null while a fold of far turns is in view (the page opens
 * it as the view comes near); else the turns in the page and whether the thread's end (step 1)
 * or start (-1) is reached. Until it is, the view moves on by a screen, less a little: every turn
 * passes through a view.
 */
const walkStep = (page: Page, step: number) => page.locator('#scroller').evaluate((scroller, step) => {
  const view = scroller.getBoundingClientRect();
  const folds = [...scroller.querySelectorAll('.folded')].map((fold) => fold.getBoundingClientRect());
  if (folds.some((fold) => fold.bottom > view.top && fold.top < view.bottom)) return null;
  const turns = [...scroller.querySelectorAll('.turn .question')].map((question) => Number(question.textContent!.split(' ')[1]));
  const more = scroller.querySelector(`#conversation > .sentinel:${step > 0 ? 'last' : 'first'}-child`) !== null;
  const done = !more && (step > 0 ? scroller.scrollTop + scroller.clientHeight >= scroller.scrollHeight - 1 : scroller.scrollTop === 0);
  if (!done) scroller.scrollTop += step * (scroller.clientHeight - 40);
  return { turns, done };
}, step);

test('start, ask, stream, run a command, stop, quit: nothing lost, nothing left running', async (t) => {
  const { sandbox, page, finish } = await opened(t, script);
  assert.deepEqual(sandbox.opened(), [WORKSPACE]);

  // Enter that picks characters in an input method does not send; Shift+Enter is a new line.
  const sent: string[] = [];
  page.on('request', (request) => { if (request.method() === 'POST') sent.push(request.url()); });
  await page.fill('#question', '用 Markdown');
  // A request the handler starts is reported before the dispatch returns: none may be.
  await page.locator('#question').dispatchEvent('keydown', { key: 'Enter', isComposing: true });
  await page.press('#question', 'Shift+Enter');
  await page.locator('#question').pressSequentially('介绍一下 SQLite');
  assert.deepEqual(sent, []);
  assert.equal(await page.inputValue('#question'), '用 Markdown\n介绍一下 SQLite');

  // The answer streams in: part of it is on the page while Codex is still answering.
  await page.press('#question', 'Enter');
  await page.locator('.turn').first().waitFor();
  const first = page.locator('.turn').first();
  assert.equal(await first.locator('.question').textContent(), '用 Markdown\n介绍一下 SQLite');
  await first.locator('.answer').getByText('嵌入式').waitFor();
  assert.equal(await foot(first).textContent(), 'Codex 正在回答……');
  assert.equal(await first.locator('.answer').getByText('单个文件').count(), 0, 'the end of the answer is not there yet');
  release();
  await foot(first).getByText('本轮用量').waitFor();
  assert.deepEqual(await first.locator('.answer :is(h2, li, pre, td), .reasoning strong').allTextContents(),
    ['想一想', 'SQLite 是什么', '无需服务器', '单个文件', "SELECT 'hello';\n", '页', '4096']);

  // A command: a block that opens on its output and exit code.
  const withCommand = await ask(page, '运行一个命令');
  await withCommand.locator('.answer').getByText('命令已运行，输出是：命令输出-42').waitFor();
  await withCommand.locator('.command summary').click();
  assert.match(await withCommand.locator('.command .output').textContent() ?? '', /命令输出-42/);
  assert.match(await withCommand.locator('.command .state').textContent() ?? '', /^退出码 0/);

  // Stop while a command runs: the command ends too.
  const slowCommand = await ask(page, '运行一个很慢的命令');
  await slowCommand.locator('.command .state').getByText('运行中').waitFor();
  const threadId = decodeURIComponent(new URL(page.url()).hash.slice(1));
  // A process may end between being listed and being read: it is no longer running either way.
  const environ = (pid: number) => { try { return readFileSync(`/proc/${pid}/environ`, 'utf8'); } catch { return ''; } };
  const marked = () => sandbox.leftovers().filter((pid) => environ(pid).includes(`LANTERNMOOR_THREAD=${threadId}`));
  await until('the command to run', () => marked().length > 0);
  await page.click('#stop');
  await foot(slowCommand).getByText('已停止').waitFor();
  await until('the command to end', () => marked().length === 0);

  // Failures are said where they happened, in one sentence.
  await newThread(page);
  const unauthorized = await ask(page, '401 请回答');
  await foot(unauthorized).getByText(texts.unauthorized).waitFor({ timeout: 30_000 });
  await newThread(page);
  const missing = await ask(page, '不存在的模型');
  await foot(missing).getByText(texts.modelNotFound).waitFor();

  // Quitting the launcher leaves nothing of the workspace running.
  await finish();
  await until('nothing of the sandbox to run', () => sandbox.leftovers().length === 0);
});

test('a word from an old answer of a long thread of uneven turns is found, its hit opens the thread there, every turn comes once, in order, as the reader scrolls both ways, and the view follows an answer as it streams', async (t) => {
  let release!: () => void;
  const held = new Promise<void>((resolve) => { release = resolve; });
  const paragraphs = (count: number) => Array.from({ length: count }, (_, i) => `第 ${i} 段。${'内容 '.repeat(10 + (i * 37) % 90)}\n\n`);
  const head = (threadId: string, position: number): TurnHead => ({
    id: `${threadId}-${position}`, threadId, position, question: `问题 ${position}`, status: 'completed', error: null, usage: null,
    startedAt: position, endedAt: position,
  });
  const seed = (store: ThreadStore) => {
    store.createThread({ id: 'other', title: '另一个线程', folder: 'threads/other', createdAt: 0 }, head('other', 0));
    store.createThread({ id: 'long', title: '很长的线程', folder: 'threads/long', createdAt: 0 }, head('long', 0));
    for (let position = 0; position < 60; position += 1) {
      if (position > 0) store.addTurn(head('long', position));
      // Heights far from any guess, and the newest turn short after two long ones.
      const long = position % 7 === 0 || position === 57 || position === 58;
      const text = position === 12 ? '第 12 轮：萤火虫的 <b>Luciferin</b> 会发光。' : `第 ${position} 轮。\n\n${long ? paragraphs(40).join('') : '简短。'}`;
      store.commit({ turns: [], items: [{ turnId: `long-${position}`, item: { kind: 'answer', position: 0, status: 'completed', text } }] });
    }
  };
  const { page, finish } = await opened(t, () => ({ steps: [{ text: paragraphs(30), gapMs: 5, holdAfter: { index: 14, until: held } }] }), { seed, at: '#other' });
  const atEnd = (what: string) => until(what, () => page.locator('#scroller').evaluate((scroller) => scroller.scrollHeight - scroller.scrollTop - scroller.clientHeight < 2));

  await page.fill('#search', 'luciferin');
  const hit = page.locator('.search-result');
  await hit.waitFor();
  assert.equal(await page.locator('#threads').isVisible(), false, 'hits stand in place of the thread list');
  assert.deepEqual([await hit.count(), await hit.locator('.title').textContent(), await hit.locator('mark').allTextContents()],
    [1, '很长的线程', ['Luciferin']]);
  assert.match((await hit.locator('.snippet').textContent())!, /萤火虫的 <b>Luciferin<\/b> 会发光/, 'stored text is shown as text');
  await hit.click();
  const found = page.locator('.turn.found');
  await found.waitFor();
  assert.equal(await found.locator('.question').textContent(), '问题 12');
  const [view, box] = [await page.locator('#scroller').boundingBox(), await found.boundingBox()];
  // The view scrolls by whole pixels, the turns lie at fractions of one.
  assert.ok(box!.y > view!.y - 1 && box!.y < view!.y + view!.height, 'the turn that matched is in view');

  // A screen at a time to the end and back to the start: the turns in the page each time, in order.
  const seen: number[][] = [];
  for (const step of [1, -1]) {
    await until(`the walk to reach the thread's ${step > 0 ? 'end' : 'start'}`, async () => {
      const view = await walkStep(page, step);
      if (view) seen.push(view.turns);
      return view?.done;
    });
  }
  assert.deepEqual([seen.every((turns) => turns.every((turn, i) => i === 0 || turn > turns[i - 1]!)), [...new Set(seen.flat())].sort((a, b) => a - b)],
    [true, Array.from({ length: 60 }, (_, i) => i)], 'every turn drawn, once and in order');

  // The thread carries on from there, and the view follows the new answer to its end.
  const streaming = await ask(page, '再写一段很长的');
  await streaming.locator('.answer').getByText('第 14 段').waitFor();
  await atEnd('the view to follow the answer as it streams');
  release();
  await streaming.locator('.turn-foot').getByText('本轮用量').waitFor();
  await atEnd('the view to stay at the end of the answer');
  assert.equal(await page.locator('.turn').last().locator('.question').textContent(), '再写一段很长的');
  await page.press('#search', 'Escape');
  assert.deepEqual([await page.inputValue('#search'), await page.locator('#threads').isVisible(), await hit.count()], ['', true, 0]);

  await finish();
});

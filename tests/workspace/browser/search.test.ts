// Finding a thread: a word from an old answer of a long thread is found from the search box, and
// its hit opens the thread at that turn, from where the reader scrolls both ways and can carry on.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync } from 'node:fs';
import { join } from 'node:path';
import { reply } from '../../harness/standin.ts';
import { Launcher, WORKSPACE } from '../../harness/launcher.ts';
import { ask, world } from '../../harness/world.ts';
import { openPage } from '../../harness/browser.ts';
import { ThreadStore } from '../../../resources/app/workspace/store/store.ts';
import type { TurnHead } from '../../../resources/app/workspace/model.ts';

test('a word from an old answer is found, and its hit opens the thread there, with the turns before and after it', async (t) => {
  const { sandbox, browser } = await world(t, () => reply.answer('接着说。'));
  mkdirSync(sandbox.dataFolder, { recursive: true, mode: 0o700 });
  const store = ThreadStore.open(join(sandbox.dataFolder, 'workspace.db'));
  const head = (threadId: string, position: number): TurnHead => ({
    id: `${threadId}-${position}`, threadId, position, question: `问题 ${position}`, status: 'completed', error: null, usage: null,
    startedAt: position, endedAt: position,
  });
  store.createThread({ id: 'other', title: '另一个线程', folder: 'threads/other', createdAt: 0 }, head('other', 0));
  store.createThread({ id: 'long', title: '很长的线程', folder: 'threads/long', createdAt: 0 }, head('long', 0));
  for (let position = 0; position < 60; position += 1) {
    if (position > 0) store.addTurn(head('long', position));
    const text = position === 12 ? '第 12 轮：萤火虫的 <b>Luciferin</b> 会发光。' : `第 ${position} 轮。\n\n${'内容 '.repeat(120)}`;
    store.commit({ turns: [], items: [{ turnId: `long-${position}`, item: { kind: 'answer', position: 0, status: 'completed', text } }] });
  }
  store.close();
  const launcher = await Launcher.ready(sandbox);
  const { page, problems } = await openPage(browser, `${WORKSPACE}#other`);

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
  assert.ok(box!.y >= view!.y && box!.y < view!.y + view!.height, 'the turn that matched is in view');

  // Down to the newest turn, then up to the first: every turn once, in order.
  for (const [end, toward] of [['问题 59', 'bottom'], ['问题 0', 'top']] as const) {
    for (let scrolls = 0; (await page.locator('.turn .question').getByText(end, { exact: true }).count()) === 0 && scrolls < 40; scrolls += 1) {
      await page.locator('#scroller').evaluate((scroller, where) => { scroller.scrollTop = where === 'top' ? 0 : scroller.scrollHeight; }, toward);
      await page.waitForTimeout(100);
    }
  }
  assert.deepEqual(await page.locator('.turn .question').allTextContents(), Array.from({ length: 60 }, (_, i) => `问题 ${i}`));

  // The thread carries on from there: a new question and its answer come at its end.
  const next = await ask(page, '然后呢？');
  await next.locator('.answer').getByText('接着说。').waitFor();
  assert.equal(await page.locator('.turn').last().locator('.question').textContent(), '然后呢？');

  await page.press('#search', 'Escape');
  assert.deepEqual([await page.inputValue('#search'), await page.locator('#threads').isVisible(), await hit.count()], ['', true, 0]);
  assert.deepEqual(problems, []);
  await launcher.quit();
});

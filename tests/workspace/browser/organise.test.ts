// Organising threads as a reader does, in two pages on the same thread: rename in place (and lose
// a race with the other page), pin, archive, export to a downloaded Markdown file, delete.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { commandOutput, lastQuestion, reply, type ResponsesRequest } from '../../harness/standin.ts';
import { WORKSPACE } from '../../harness/launcher.ts';
import { ask, newThread, opened } from '../../harness/world.ts';
import { openPage, type Page } from '../../harness/browser.ts';
import type { ThreadStore } from '../../../resources/app/workspace/store/store.ts';
import { LIST_PAGE } from '../../../resources/app/workspace/research/threads.ts';

function script(request: ResponsesRequest) {
  const output = commandOutput(request);
  if (output !== null) return reply.answer(`页大小是 ${output.includes('页大小-4096') ? '4096' : '？'} 字节。`);
  if (lastQuestion(request).includes('页大小')) return reply.command('echo 页大小-4096');
  return reply.answer('好的。');
}

const order = (page: Page) => page.locator('.thread-entry').evaluateAll((entries) => entries.map((entry) => entry.getAttribute('data-thread')));

async function rename(page: Page, title: string, key = 'Enter') {
  await page.click('#thread-title');
  await page.fill('.title-edit', title);
  await page.press('.title-edit', key);
}

test('rename, pin, archive, export and delete round-trip, and a second page is told what the first did', async (t) => {
  // Older threads than one page of the list holds.
  const older = LIST_PAGE + 20;
  const seed = (store: ThreadStore) => {
    for (let i = 0; i < older; i += 1) {
      store.createThread({ id: `old-${i}`, title: `旧线程 ${i}`, folder: `threads/old-${i}`, createdAt: 1_000_000 - i }, {
        id: `old-turn-${i}`, threadId: `old-${i}`, position: 0, question: '旧问题', status: 'completed', error: null, usage: null, startedAt: 1_000_000 - i, endedAt: 1_000_000 - i,
      });
    }
  };
  const { browser, page, finish } = await opened(t, script, { seed });

  // The list comes a page at a time as the reader scrolls; opening a thread keeps what was read.
  await page.locator('.thread-entry').nth(LIST_PAGE - 1).waitFor();
  assert.equal(await page.locator('.thread-entry').count(), LIST_PAGE);
  const pages: string[] = [];
  page.on('request', (request) => { if (request.url().includes('/api/threads?')) pages.push(request.url()); });
  await page.locator('.thread-entry').last().scrollIntoViewIfNeeded();
  await page.locator(`.thread-entry[data-thread="old-${older - 1}"]`).click();
  await page.locator(`.thread-entry.open[data-thread="old-${older - 1}"]`).waitFor();
  assert.equal(await page.locator('.thread-entry').count(), older);
  assert.equal(pages.length, 1, 'the second page is not fetched again');
  await newThread(page);
  await ask(page, 'SQLite 的页大小是多少？');
  await page.locator('.answer').getByText('页大小是 4096 字节').waitFor();
  const id = decodeURIComponent(new URL(page.url()).hash.slice(1));
  const other = await openPage(browser, `${WORKSPACE}#${id}`);
  await other.page.locator('.answer').first().waitFor();

  // Escape leaves the title as it was; Enter saves it, in every page.
  await rename(page, '不要这个', 'Escape');
  assert.equal(await page.textContent('#thread-title'), 'SQLite 的页大小是多少？');
  // The other page starts editing from the title it sees; this page renames first and wins.
  await other.page.click('#thread-title');
  await other.page.fill('.title-edit', '另一个页面的标题');
  await rename(page, '页大小研究');
  await other.page.locator(`.thread-entry[data-thread="${id}"] .title`).getByText('页大小研究').waitFor();
  await other.page.press('.title-edit', 'Enter');
  await other.page.locator('.thread-note').getByText('这个线程刚被另一个页面改名为“页大小研究”').waitFor();
  assert.deepEqual(other.problems.filter((problem) => !problem.includes('409')), []);

  // Pinned: first in the list, in its own group, though another thread is newer.
  await newThread(page);
  await ask(page, '另一个问题');
  const newer = decodeURIComponent(new URL(page.url()).hash.slice(1));
  assert.deepEqual((await order(page)).slice(0, 2), [newer, id]);
  await page.click(`.thread-entry[data-thread="${id}"]`);
  await page.getByRole('button', { name: '置顶', exact: true }).click();
  await page.getByRole('button', { name: '取消置顶' }).waitFor();
  assert.deepEqual((await order(page)).slice(0, 2), [id, newer]);
  assert.equal(await page.locator('.thread-group').first().textContent(), '已置顶');

  // Archived: out of the main list, in the archived view.
  await page.getByRole('button', { name: '归档', exact: true }).click();
  await page.getByRole('button', { name: '取消归档' }).waitFor();
  assert.deepEqual((await order(page)).slice(0, 2), [newer, 'old-0']);
  await page.click('#archived-toggle');
  assert.deepEqual(await order(page), [id]);
  await page.click('#archived-toggle');

  // Exported: one Markdown file named after the title (what it holds: the export's own tests).
  const [download] = await Promise.all([page.waitForEvent('download'), page.getByRole('button', { name: '导出' }).click()]);
  assert.equal(download.suggestedFilename(), '页大小研究.md');

  // Deleted after one confirmation: the page goes back to the welcome and says why (every page on
  // the thread is told alike; the folder's going: the desk's own tests).
  await page.getByRole('button', { name: '删除', exact: true }).click();
  await page.getByRole('button', { name: '取消', exact: true }).click();
  assert.equal(await page.locator('.confirm-delete').isHidden(), true);
  await page.getByRole('button', { name: '删除', exact: true }).click();
  await page.getByRole('button', { name: '删除线程和文件夹' }).click();
  await page.locator('#welcome').waitFor();
  await page.locator('#ask-error').getByText('这个研究线程已被删除。').waitFor();
  assert.equal(await page.locator(`.thread-entry[data-thread="${id}"]`).count(), 0);
  await finish();
});

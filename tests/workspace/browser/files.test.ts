// Files and the model choice as a user meets them: a text file dropped on the page and an image
// chosen with the paper clip reach Codex (the stand-in sees the file named and the image itself),
// the chosen model and effort reach it too, and all of it is still there after a reload. A file
// refused on the way is said beside the files until the next ones come; a renamed one is named
// as it now is.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { lastQuestion, reply, type ResponsesRequest } from '../../harness/standin.ts';
import { WORKSPACE } from '../../harness/launcher.ts';
import { ask, newThread, opened } from '../../harness/world.ts';
import { openPage } from '../../harness/browser.ts';
import { FILE_LIMIT_BYTES } from '../../../resources/app/workspace/files/uploads.ts';

// A 1×1 PNG: Codex reads the image it is given, so it must be a real one.
const PNG = Buffer.from('iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8BQDwAEhQGAhKmMIQAAAABJRU5ErkJggg==', 'base64');

test('an attached text file and image and the chosen model reach Codex, and the thread keeps them', async (t) => {
  const requests: ResponsesRequest[] = [];
  const { sandbox, browser, page, finish } = await opened(t, (request) => {
    requests.push(request);
    return reply.answer('看到了。');
  });

  // Nothing chosen yet: the picker says what Codex itself would use (its configuration's model).
  await page.locator('#model:not([hidden])').waitFor();
  assert.equal(await page.locator('#model option:checked').textContent(), '默认（stand-in）');
  await page.selectOption('#model', 'gpt-6-luna');
  await page.selectOption('#effort', 'high');

  // Written as text: the tests are checked without the browser's types.
  const drop = async (file: string) => page.dispatchEvent('#scroller', 'drop', { dataTransfer: await page.evaluateHandle(`(() => {
    const transfer = new DataTransfer();
    transfer.items.add(${file});
    return transfer;
  })()`) });
  await drop(`new File([new ArrayBuffer(${FILE_LIMIT_BYTES + 1})], '太大.bin')`);
  await page.getByText('太大.bin').waitFor();
  await drop(`new File(['第一行\\n'], '笔记.txt', { type: 'text/plain' })`);
  await page.locator('#attachments .chip:not(.uploading)').waitFor();
  assert.equal(await page.getByText('太大.bin').count(), 0, 'the refusal went when the next file came');
  await page.setInputFiles('#attach-input', { name: '笔记.txt', mimeType: 'text/plain', buffer: Buffer.from('另一份\n') });
  await page.getByRole('button', { name: '移除 笔记 (2).txt' }).click();
  await page.setInputFiles('#attach-input', { name: '图.png', mimeType: 'image/png', buffer: PNG });
  await page.locator('#attachments .chip:not(.uploading)').nth(1).waitFor();

  const turn = await ask(page, '请看附件');
  await turn.locator('.answer').getByText('看到了。').waitFor();
  const sent = requests.at(-1)!;
  assert.match(lastQuestion(sent), /请看附件[\s\S]*“笔记\.txt”、“图\.png”/);
  const parts = sent.input.flatMap((entry) => entry.content ?? []);
  assert.ok(parts.some((part) => part.type === 'input_image'), 'the image goes to the model as an image');
  assert.equal(sent.model, 'gpt-6-luna');
  assert.equal((sent.reasoning as { effort?: string } | undefined)?.effort, 'high');
  assert.equal(await page.locator('#attachments .chip').count(), 0, 'sent files leave the question box');

  const threadId = decodeURIComponent(new URL(page.url()).hash.slice(1));
  const folder = join(sandbox.dataFolder, 'threads', threadId);
  assert.equal(readFileSync(join(folder, '笔记.txt'), 'utf8'), '第一行\n');
  assert.deepEqual(readFileSync(join(folder, '图.png')), PNG);

  // A reload shows the files with the question, and the thread's choice.
  await page.reload();
  await page.locator('.turn .turn-attachments').waitFor();
  assert.deepEqual(await page.locator('.turn .turn-attachments .chip').allTextContents(), ['笔记.txt', '图.png']);
  await page.locator('#model:not([hidden])').waitFor();
  assert.equal(await page.inputValue('#model'), 'gpt-6-luna');

  // The next thread starts with the last choice, which the service keeps for every page.
  const other = (await openPage(browser, WORKSPACE)).page;
  await other.locator('#model:not([hidden])').waitFor();
  assert.equal(await other.inputValue('#model'), 'gpt-6-luna');
  assert.equal(await other.inputValue('#effort'), 'high');
  await newThread(page);
  await finish();
});

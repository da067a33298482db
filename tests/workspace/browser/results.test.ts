// What a turn produces, as a user meets it: the real Codex runs a command that writes a table, a
// figure, a report and two files with script in them into the thread's folder, and answers with
// the figure and a citation after a web search. The files show in the panel while the turn still
// runs, each preview shows what it should, the figure is drawn inside the answer, the sources are
// listed, and no file's script runs. (How each file goes out, and the archive: the service's own tests.)
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { commandOutput } from '../../harness/standin.ts';
import { ask, opened } from '../../harness/world.ts';
import { until } from '../../harness/service.ts';

const PNG = 'iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8BQDwAEhQGAhKmMIQAAAABJRU5ErkJggg==';
const SCRIPT = '<script>top.document.title = "ran"</script>';
const COMMAND = [
  `printf 'x,y,备注\\n1,2.5,"第一行\\n换行"\\n2,4.1,"含,逗号"\\n' > data.csv`,
  `echo ${PNG} | base64 -d > plot.png`,
  `printf '# 报告\\n\\n![图](plot.png)\\n' > report.md`,
  `printf '%s' '${SCRIPT}' > page.html`,
  `printf '%s' '<svg xmlns="http://www.w3.org/2000/svg">${SCRIPT}</svg>' > figure.svg`,
  `printf 'a,b\\n1,"no end\\n' > broken.csv`,
].join(' && ');

test('a turn\'s files: listed as they come, previewed, drawn in the answer, its sources listed', async (t) => {
  let release = () => {};
  const seen = new Promise<void>((resolve) => { release = resolve; });
  const { page, finish } = await opened(t, (request) => (commandOutput(request) === null
    ? { steps: [{ openedPage: 'https://example.org/data' }, { command: COMMAND }] }
    // The answer waits until the test has seen the files in the panel: the turn runs until then.
    : { steps: [{ text: ['拟合完成。', '\n\n![图](plot.png) 与 ![越界](../../workspace.db)\n\n参考 [论文](https://example.com/paper)。'], holdAfter: { index: 0, until: seen } }] }));
  // Asked from here: the page's policy refuses the eval a polling in the page would need.
  const drawn = (selector: string) => until(`${selector} drawn`, () => page.evaluate(`document.querySelector(${JSON.stringify(selector)})?.naturalWidth === 1`));

  const turn = await ask(page, '拟合这些数据并画图');
  await page.click('#files-toggle');
  await page.locator('.file-row', { hasText: 'data.csv' }).waitFor();
  await turn.locator('.answer').getByText('拟合完成。').waitFor();
  assert.equal(await page.locator('#stop').isVisible(), true, 'listed while the turn runs');
  release();

  const figure = turn.locator('img.figure');
  await drawn('.turn img.figure');
  assert.equal(await figure.count(), 1, 'a path out of the folder stays text');
  assert.match(await turn.locator('.answer').innerText(), /越界/);
  assert.deepEqual(await turn.locator('.sources a').allTextContents(), ['example.org', '论文']);
  assert.deepEqual(await turn.locator('.sources a').evaluateAll((links) => links.map((link) => `${link.getAttribute('target')} ${link.getAttribute('rel')}`)),
    ['_blank noopener noreferrer', '_blank noopener noreferrer']);

  const open = async (name: string) => {
    if (await page.locator('#preview[open]').count() > 0) await page.click('#preview-close');
    await page.locator('.file-row', { hasText: name }).click();
  };
  await open('data.csv');
  await page.locator('.preview-table').waitFor();
  assert.deepEqual(await page.locator('.preview-table td').allTextContents(), ['1', '2.5', '第一行\n换行', '2', '4.1', '含,逗号']);
  assert.equal(await page.locator('.preview-table td.number').count(), 4);
  await open('broken.csv');
  await page.locator('#preview-note', { hasText: '表格有格式问题' }).waitFor();
  await open('report.md');
  await drawn('.preview-markdown img.figure');
  await open('page.html');
  await page.locator('.preview-body code', { hasText: SCRIPT }).waitFor();
  await open('figure.svg');
  await page.locator('.preview-image').waitFor();

  // The previews showed every file as data: none of their script ran here.
  assert.notEqual(await page.title(), 'ran');
  await finish();
});

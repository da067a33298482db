// What a turn produces, as a user meets it: the real Codex runs a command that writes a table, a
// figure, a report and two files with script in them into the thread's folder, and answers with
// the figure and a citation after a web search. The files show in the panel while the turn still
// runs, each preview shows what it should, the figure is drawn inside the answer, the sources are
// listed, no file's script runs, and the folder downloads as one archive of the same files.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readdirSync, readFileSync } from 'node:fs';
import { join, relative } from 'node:path';
import { commandOutput } from '../../harness/standin.ts';
import { Launcher, WORKSPACE } from '../../harness/launcher.ts';
import { ask, world } from '../../harness/world.ts';
import { openPage } from '../../harness/browser.ts';
import { temporaryFolder, until } from '../../harness/service.ts';

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

/** Every file below a folder, by its relative path. */
const tree = (root: string) => readdirSync(root, { recursive: true, withFileTypes: true }).filter((entry) => entry.isFile())
  .map((entry) => join(relative(root, entry.parentPath), entry.name)).sort();

test('a turn\'s files: listed as they come, previewed, drawn in the answer, its sources listed, downloaded whole', async (t) => {
  let release = () => {};
  const seen = new Promise<void>((resolve) => { release = resolve; });
  const { sandbox, browser } = await world(t, (request) => (commandOutput(request) === null
    ? { steps: [{ openedPage: 'https://example.org/data' }, { command: COMMAND }] }
    // The answer waits until the test has seen the files in the panel: the turn runs until then.
    : { steps: [{ text: ['拟合完成。', '\n\n![图](plot.png) 与 ![越界](../../workspace.db)\n\n参考 [论文](https://example.com/paper)。'], holdAfter: { index: 0, until: seen } }] }));
  const launcher = await Launcher.ready(sandbox);
  const { page, problems } = await openPage(browser, WORKSPACE);
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

  // Saved, never run: opened by itself an HTML file is text, and an SVG only downloads.
  const threadId = decodeURIComponent(new URL(page.url()).hash.slice(1));
  const file = (path: string) => `${WORKSPACE}api/threads/${threadId}/file?path=${path}`;
  const other = await browser.newPage();
  const html = await other.goto(file('page.html'));
  assert.equal(html?.headers()['content-type'], 'text/plain; charset=utf-8');
  const [download] = await Promise.all([other.waitForEvent('download'), other.goto(file('figure.svg')).catch(() => null)]);
  assert.equal(download.suggestedFilename(), 'figure.svg');
  assert.notEqual(await other.title(), 'ran');
  assert.notEqual(await page.title(), 'ran');

  const archive = await page.evaluate(async (url) => [...new Uint8Array(await (await fetch(url)).arrayBuffer())], `/api/threads/${threadId}/archive`);
  const unpacked = temporaryFolder('lm-archive-');
  execFileSync('tar', ['-xzf', '-', '-C', unpacked], { input: Buffer.from(archive) });
  const folder = join(sandbox.dataFolder, 'threads', threadId);
  assert.deepEqual(tree(unpacked), tree(folder));
  for (const path of tree(folder)) assert.deepEqual(readFileSync(join(unpacked, path)), readFileSync(join(folder, path)), path);
  assert.deepEqual(problems, []);
  await launcher.quit();
});

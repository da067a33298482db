// What Codex may do and what it asks, as a user meets them with the real Codex and its own
// sandbox: a command that must leave the sandbox waits for a person (once, for the thread, or no),
// said in the tab's title and, while the page is hidden, by a desktop notification; a thread in
// a folder of the user's own starts read only, so a write there fails until the user allows it.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync, mkdirSync } from 'node:fs';
import { join } from 'node:path';
import { commandOutput, lastQuestion, reply, type Reply, type ResponsesRequest } from '../../harness/standin.ts';
import { Launcher, WORKSPACE } from '../../harness/launcher.ts';
import { ask, newThread, world } from '../../harness/world.ts';
import { until } from '../../harness/service.ts';

// Beside the sandbox's home, and gone with it.
const folders = { outside: '', mine: '' };

// The question names the file to make: by a command outside the thread's folder (asking first), by a
// command in it, or by a patch in it; the answer says whether it could be written.
function script(request: ResponsesRequest): Reply {
  const output = commandOutput(request);
  if (output !== null) return reply.answer(/No such file|Read-only|rejected/i.test(output) ? '没能写入。' : '写好了。');
  const [verb, name] = lastQuestion(request).split(' ');
  if (verb === 'outside') return { steps: [{ command: `touch ${join(folders.outside, name!)}`, escalate: '要在线程文件夹之外写一个文件' }] };
  if (verb === 'patch') return { steps: [{ command: `apply_patch <<'EOF'\n*** Begin Patch\n*** Add File: ${name}\n+x\n*** End Patch\nEOF` }] };
  return { steps: [{ command: `touch ${name}` }] };
}

test('a command beyond the sandbox waits for a person, once or for the whole thread; an own folder is read only, a patch there is refused, until writing is allowed', async (t) => {
  const { sandbox, browser } = await world(t, script);
  for (const name of ['outside', 'mine'] as const) mkdirSync(folders[name] = join(sandbox.root, name));
  const launcher = await Launcher.ready(sandbox);
  const context = await browser.newContext({ viewport: { width: 1200, height: 800 } });
  await context.grantPermissions(['notifications'], { origin: WORKSPACE.replace(/\/$/, '') });
  // The page is told it is hidden, and what it shows as a notification is kept to be read.
  await context.addInitScript(`
    const shown = [];
    Object.assign(window, { shown, hidden: false });
    Object.defineProperty(document, 'hidden', { get: () => window.hidden });
    window.Notification = class extends Notification {
      constructor(title, options) {
        super(title, options);
        shown.push(title + ': ' + (options?.body ?? ''));
      }
    };
  `);
  const page = await context.newPage();
  await page.goto(WORKSPACE);

  await page.evaluate('window.hidden = true');
  const first = await ask(page, 'outside once.txt');
  const card = page.locator('.approval');
  await card.waitFor();
  assert.match(await card.textContent() ?? '', /touch .*once\.txt[\s\S]*要在线程文件夹之外写一个文件/);
  // The title follows the thread's summary, which comes just after the card.
  await until('the title to count the waiting thread', async () => (await page.title()).startsWith('(1) [1 待确认] '));
  assert.match(await page.locator('.thread-entry .waiting').textContent() ?? '', /等你确认/);
  assert.deepEqual(await page.evaluate('window.shown'),
    ['outside once.txt: Codex 在等你允许：touch ' + join(folders.outside, 'once.txt')]);
  await page.evaluate('window.hidden = false');
  await card.getByRole('button', { name: '允许一次' }).click();
  await first.getByText('写好了。').waitFor();

  const allowed = await ask(page, 'outside thread.txt');
  await card.getByRole('button', { name: '本线程都允许' }).click();
  await allowed.getByText('写好了。').waitFor();
  // Allowed for the thread: not asked again.
  await (await ask(page, 'outside unasked.txt')).getByText('写好了。').waitFor();
  // The answer may be on the page before its turn ends.
  await until('the title to count nothing', async () => (await page.title()) === 'Lanternmoor Pro · 研究工作区');

  // A folder of the user's own: read only at first, and the user's choice to allow writing.
  await newThread(page);
  // The browser's first look at the home folder answers after the path is typed: what was typed stands.
  let release = () => {};
  const held = new Promise<void>((resolve) => { release = resolve; });
  let looked = () => {};
  const asked = new Promise<void>((resolve) => { looked = resolve; });
  await page.route('**/api/folders?*', async (route) => {
    looked();
    await held;
    await route.continue();
  }, { times: 1 });
  await page.getByRole('button', { name: '在我的文件夹中研究' }).click();
  await asked;
  await page.fill('#folder-path', folders.mine);
  const answered = page.waitForResponse(/\/api\/folders\?/);
  release();
  await answered;
  await page.getByRole('button', { name: '在这个文件夹中研究' }).click();
  const refused = await ask(page, 'here made.txt');
  await refused.getByText('没能写入。').waitFor();
  assert.equal(await page.inputValue('#permission'), 'read');
  // A patch at "只读" is a file change to approve, which the user refuses.
  const denied = await ask(page, 'patch denied.txt');
  assert.match(await card.locator('dd').first().textContent() ?? '', /denied\.txt$/);
  await card.getByRole('button', { name: '拒绝' }).click();
  await denied.getByText('没能写入。').waitFor();
  await Promise.all([page.waitForResponse(/\/permission$/), page.selectOption('#permission', 'write')]);
  const made = await ask(page, 'here made.txt');
  await made.getByText('写好了。').waitFor();
  assert.ok(existsSync(join(folders.mine, 'made.txt')));
  await context.close();
  await launcher.quit();
});

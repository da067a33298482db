// Signing Codex in from the page, through the real launcher and the real Codex, against a
// stand-in ChatGPT sign-in the test scripts (who signs in, on which plan, with what usage): the
// sign-in tab, a cancel that leaves nothing listening, a second page that sees the same sign-in,
// success shown without a reload, sign-out, the device code when the callback port is taken, and
// a sign-in made in a terminal seen after a reload.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { createServer, connect, type Server } from 'node:net';
import { once } from 'node:events';
import { spawnSync } from 'node:child_process';
import { join } from 'node:path';
import { lastQuestion, reply } from '../../harness/standin.ts';
import { startSignInStandIn } from '../../harness/signin-standin.ts';
import { WORKSPACE } from '../../harness/launcher.ts';
import { ask, opened } from '../../harness/world.ts';
import { openPage } from '../../harness/browser.ts';
import { until } from '../../harness/service.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';

// The browser sign-in's callback ports (the second is Codex's fallback); the test runs in a
// network namespace of its own, so taking them disturbs nobody.
const CALLBACK_PORTS = [1455, 1457];

const listening = (port: number) => new Promise<boolean>((resolve) => {
  const socket = connect(port, '127.0.0.1');
  socket.once('connect', () => { socket.destroy(); resolve(true); });
  socket.once('error', () => resolve(false));
});

test('sign in from the page, see the account, its plan and usage, sign out; a taken callback port offers the device code', async (t) => {
  const signIn = await startSignInStandIn({ email: 'ada@example.com', plan: 'plus', usedPercent: 37, userCode: 'QX7F-29KD', dawdle: true });
  t.after(() => signIn.close());
  const { sandbox, browser, page, finish } = await opened(t, (request) => reply.answer(`收到：${lastQuestion(request)}`), {
    signedOut: true, settings: [`chatgpt_base_url = "${signIn.url}/backend-api"`],
    prepare: (sandbox) => { sandbox.env.CODEX_APP_SERVER_LOGIN_ISSUER = signIn.url; },
  });
  const banner = page.locator('.banner.sign-in');

  // The sign-in opens in a tab of its own; the user leaves it there, and cancels.
  const tab = page.context().waitForEvent('page');
  await banner.getByRole('button', { name: '使用 ChatGPT 登录' }).click();
  const signInTab = await tab;
  await signInTab.waitForURL(`${signIn.url}/oauth/authorize?**`);
  await banner.getByText('请在新打开的标签页中登录 ChatGPT').waitFor();
  assert.equal(await listening(1455), true);
  // Another page, or this one reloaded, shows the same sign-in and can end it.
  const { page: second } = await openPage(browser, WORKSPACE);
  await second.locator('.banner.sign-in').getByRole('button', { name: '取消登录' }).click();
  await banner.getByText(texts.signInCancelled).waitFor();
  await until('Codex to stop listening for the callback', async () => !(await listening(1455)));
  await signInTab.close();
  await second.close();

  // This time the user signs in: the banner goes by itself, the account shows who and which plan.
  signIn.script.dawdle = false;
  const again = page.context().waitForEvent('page');
  await banner.getByRole('button', { name: '使用 ChatGPT 登录' }).click();
  await (await again).waitForURL('http://127.0.0.1:1455/success?**');
  await banner.waitFor({ state: 'detached' });
  const account = page.locator('#account');
  await account.getByText('5 小时用量：已用 37%').waitFor();
  assert.deepEqual(await account.locator('.account-name, .account-plan').allTextContents(), ['ada@example.com', 'Plus']);
  // With the account shown and a panel open too, the thread list keeps most of the sidebar.
  await page.locator('#about summary').click();
  const [list, sidebar] = [await page.locator('#threads').boundingBox(), await page.locator('.sidebar').boundingBox()];
  assert.ok(list!.height > sidebar!.height / 2, `the list is ${list!.height} of ${sidebar!.height} px`);
  await (await ask(page, '登录以后能提问吗')).locator('.answer').getByText('收到：登录以后能提问吗').waitFor();

  // Signed out, the banner is back.
  page.once('dialog', (dialog) => void dialog.accept());
  await account.getByRole('button', { name: '退出登录' }).click();
  await banner.getByRole('button', { name: '使用 ChatGPT 登录' }).waitFor();
  assert.equal(await account.isHidden(), true);

  // With the callback ports taken by another program, the device code is offered instead.
  const takers: Server[] = [];
  for (const port of CALLBACK_PORTS) {
    const taker = createServer((socket) => socket.destroy()).listen(port, '127.0.0.1');
    await once(taker, 'listening');
    takers.push(taker);
  }
  t.after(() => { for (const taker of takers) taker.close(); });
  const refused = page.context().waitForEvent('page');
  await banner.getByRole('button', { name: '使用 ChatGPT 登录' }).click();
  await banner.getByText(texts.signInPortTaken).waitFor({ timeout: 15_000 });
  await until('the blank sign-in tab to close', async () => (await refused).isClosed());
  await banner.getByRole('button', { name: '改用设备码登录' }).click();
  await banner.locator('.sign-in-code').getByText('QX7F-29KD').waitFor();
  assert.equal(await banner.getByRole('link', { name: `${signIn.url}/codex/device` }).getAttribute('href'), `${signIn.url}/codex/device`);
  await banner.getByRole('button', { name: '取消登录' }).click();
  await banner.getByText(texts.signInCancelled).waitFor();

  // Signed in from a terminal instead: the page, reloaded, sees it.
  const login = spawnSync(join(sandbox.bin, 'codex'), ['login', '--with-api-key'], {
    input: 'sk-stand-in\n', env: { PATH: `${sandbox.bin}:/usr/bin:/bin`, HOME: sandbox.home, CODEX_HOME: sandbox.codexHome },
  });
  assert.equal(login.status, 0, String(login.stderr));
  await page.reload();
  await page.locator('#about summary').click();
  await page.locator('#about-list').getByText('API 密钥').waitFor();
  assert.equal(await page.locator('.banner').count(), 0);
  await finish();
});

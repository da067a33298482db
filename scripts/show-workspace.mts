// Screenshots of the workspace for the README, made the way a user sees it: the real launcher,
// the real Codex answering through the stand-in model, Debian's Chromium. Run by
// scripts/show-workspace.sh, which gives it a network namespace of its own.
import { join } from 'node:path';
import { codexHome, commandOutput, lastQuestion, reply, startStandIn, type ResponsesRequest } from '../tests/workspace/support/standin.ts';
import { Launcher, Sandbox, WORKSPACE } from '../tests/workspace/support/launcher.ts';
import { launchBrowser, openPage } from '../tests/workspace/support/browser.ts';
import { SOURCE } from '../tests/workspace/support/service.ts';

const shots = join(SOURCE, 'docs/screenshots');

const ANSWER = `## WAL 与回滚日志

SQLite 有两种主要的日志模式，区别在于**写入先落在哪里**：

| 模式 | 写入 | 读写并发 |
|---|---|---|
| 回滚日志（DELETE） | 先备份原页，再改数据库文件 | 写时阻塞读 |
| WAL | 追加到 \`-wal\` 文件，检查点时合并 | 读写互不阻塞 |

对研究记录这类“边写边读”的场景，WAL 更合适：

- 崩溃后最多丢失最后一个未提交的事务；
- 读者总能看到一致的快照。

\`\`\`sql
PRAGMA journal_mode = WAL;
PRAGMA synchronous = FULL;
\`\`\`
`;

function script(request: ResponsesRequest) {
  if (commandOutput(request) !== null) return { steps: [{ text: ANSWER.match(/[^\n]*\n?/g)!.filter(Boolean), gapMs: 20 }] };
  if (lastQuestion(request).includes('WAL')) {
    return reply.command("python3 -c \"import sqlite3; print('SQLite', sqlite3.sqlite_version)\"", '**查看本机的 SQLite 版本**，再比较两种日志模式。');
  }
  return reply.answer('好的。');
}

const standIn = await startStandIn(script);
const browser = await launchBrowser();
try {
  const sandbox = new Sandbox((folder) => codexHome(standIn, { folder }));
  const launcher = await Launcher.ready(sandbox);
  const { page } = await openPage(browser, WORKSPACE, { width: 1280, height: 860 });
  await page.fill('#question', '比较 SQLite 的 WAL 模式和回滚日志模式，哪种更适合保存研究记录？');
  await page.press('#question', 'Enter');
  await page.locator('.turn-foot').getByText('本轮用量').waitFor();
  await page.locator('.command summary').click();
  await page.locator('#question').blur();
  await page.screenshot({ path: join(shots, 'workspace-thread.png') });
  // Search over both threads, its hit in the answer opened.
  await page.click('#new-thread');
  await page.fill('#question', '检查点多久发生一次？wal 文件会一直变大吗？');
  await page.press('#question', 'Enter');
  await page.locator('.turn-foot').getByText('本轮用量').waitFor();
  await page.fill('#search', 'wal');
  await page.locator('.search-result').nth(2).waitFor();
  await page.locator('.search-result').filter({ hasText: '两种主要的日志模式' }).click();
  await page.locator('.turn.found').waitFor();
  await page.screenshot({ path: join(shots, 'workspace-search.png') });
  await launcher.quit();

  const signedOut = new Sandbox((folder) => codexHome(standIn, { folder, signedOut: true }));
  const second = await Launcher.ready(signedOut);
  const { page: banner } = await openPage(browser, WORKSPACE, { width: 1280, height: 560 });
  await banner.locator('.banner').waitFor();
  await banner.locator('#about summary').click();
  await banner.screenshot({ path: join(shots, 'workspace-signed-out.png') });
  await second.quit();
} finally {
  await browser.close();
  await standIn.close();
}
console.log(`saved ${['workspace-thread.png', 'workspace-search.png', 'workspace-signed-out.png'].map((name) => join(shots, name)).join(', ')}`);

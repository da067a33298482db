// Screenshots of the workspace for the README, made the way a user sees it: the real launcher,
// the real Codex answering through the stand-in model, Debian's Chromium. Run by
// scripts/show-workspace.sh, which gives it a network namespace of its own.
import { join } from 'node:path';
import { execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { codexHome, commandOutput, lastQuestion, reply, startStandIn, type ResponsesRequest } from '../tests/harness/standin.ts';
import { Launcher, Sandbox, WORKSPACE } from '../tests/harness/launcher.ts';
import { launchBrowser, openPage, type Page } from '../tests/harness/browser.ts';
import { SOURCE, until } from '../tests/harness/service.ts';
import { startSignInStandIn } from '../tests/harness/signin-standin.ts';

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

const MATH_ANSWER = String.raw`## 圆的面积

把圆切成 $n$ 个扇形，拼成近似的平行四边形：底约为 $\pi r$，高为 $r$，所以

$$
A = \lim_{n\to\infty} \pi r \cdot r = \pi r^2
$$

用积分也得到同样的结果：\( A = \int_{-r}^{r} 2\sqrt{r^2 - x^2}\,dx = \pi r^2 \)。

${'```'}python
import math

def circle_area(r: float) -> float:
    """圆的面积：πr²"""
    return math.pi * r ** 2

print(circle_area(2.0))  # 12.566...
${'```'}
`;

// A small analysis: a command writes the data, the fit, a report and the figure (drawn here with
// ImageMagick, copied in by the command), and the answer shows the figure and cites a page.
const made = mkdtempSync(join(tmpdir(), 'lm-figure-'));
const points = Array.from({ length: 40 }, (_, i) => [i + 1, 2.1 * (i + 1) + 0.3 + Math.sin(i + 1) * 1.5] as const);
const toX = (x: number) => 50 + x * 13;
const toY = (y: number) => 330 - y * 3.4;
execFileSync('convert', ['-size', '620x360', 'xc:white', '-stroke', '#888', '-draw', 'line 50,330 600,330', '-draw', 'line 50,330 50,20',
  '-stroke', '#1f3a5f', '-strokewidth', '3', '-draw', `line ${toX(0)},${toY(0.3)} ${toX(41)},${toY(2.1 * 41 + 0.3)}`, '-strokewidth', '1',
  '-stroke', '#b36b00', '-fill', '#d99a1e', ...points.flatMap(([x, y]) => ['-draw', `circle ${toX(x)},${toY(y)} ${toX(x) + 4},${toY(y)}`]),
  join(made, 'plot.png')]);
const ANALYSIS = [
  `cp ${join(made, 'plot.png')} plot.png`,
  `awk 'BEGIN { print "x,y,拟合值,残差"; for (i = 1; i <= 40; i++) { y = 2.1 * i + 0.3 + sin(i) * 1.5; f = 2.1 * i + 0.3; printf "%d,%.3f,%.3f,%.3f\\n", i, y, f, y - f } }' > data.csv`,
  `printf 'import numpy as np\\n\\ndata = np.loadtxt("data.csv", delimiter=",", skiprows=1)\\nprint(np.polyfit(data[:, 0], data[:, 1], 1))\\n' > fit.py`,
  `printf '# 拟合报告\\n\\n线性拟合 $y = 2.1x + 0.3$，残差在 ±1.5 以内。\\n\\n![拟合结果](plot.png)\\n\\n数据见 [data.csv](data.csv)。\\n' > report.md`,
].join(' && ');
const FIT_ANSWER = '拟合完成：斜率 **2.1**，截距 **0.3**，残差在 ±1.5 以内。\n\n![拟合结果](plot.png)\n\n'
  + '完整的报告在 [report.md](report.md)，数据在 [data.csv](data.csv)。方法参考 [最小二乘法](https://example.com/least-squares)。\n';

// A long turn waits after its first words until the pictures of it are taken.
let release = () => {};
const held = new Promise<void>((resolve) => { release = resolve; });

function script(request: ResponsesRequest) {
  if (lastQuestion(request).includes('画图并写一份报告')) {
    return commandOutput(request) === null
      ? { steps: [{ openedPage: 'https://example.org/data' }, { command: ANALYSIS }] }
      : reply.answer(FIT_ANSWER.match(/[^\n]*\n?/g)!.filter(Boolean), 20);
  }
  if (commandOutput(request) !== null && lastQuestion(request).includes('pandas')) return reply.answer('没有得到联网的允许，改用标准库读取。');
  if (lastQuestion(request).includes('pandas')) {
    return { steps: [{ command: 'pip install --user pandas', escalate: '需要联网下载 Python 包 pandas，用来读取实验数据。' }] };
  }
  if (lastQuestion(request).startsWith('重新跑')) return { steps: [{ text: ['正在用 2022 年的数据重新拟合……\n\n', '拟合完成。'], holdAfter: { index: 0, until: held } }] };
  // Codex takes guidance by asking the model again at once, with the guidance added.
  if (lastQuestion(request).includes('2023')) return { steps: [{ text: ['好的，改用 2023 年的数据重新拟合……', '拟合完成。'], holdAfter: { index: 0, until: held } }] };
  if (lastQuestion(request).includes('面积')) return reply.answer(MATH_ANSWER.match(/[^\n]*\n?/g)!.filter(Boolean), 20);
  if (commandOutput(request) !== null) return { steps: [{ text: ANSWER.match(/[^\n]*\n?/g)!.filter(Boolean), gapMs: 20 }] };
  if (lastQuestion(request).includes('WAL')) {
    return reply.command("python3 -c \"import sqlite3; print('SQLite', sqlite3.sqlite_version)\"", '**查看本机的 SQLite 版本**，再比较两种日志模式。');
  }
  return reply.answer('好的。');
}

/** Asks in the open page and waits for the whole answer, its code coloured (that waits for an idle moment). */
async function answered(page: Page, question: string) {
  await page.fill('#question', question);
  await page.press('#question', 'Enter');
  const turn = page.locator('.turn', { has: page.locator('.question', { hasText: question }) }).last();
  await turn.locator('.turn-foot').getByText('本轮用量').waitFor();
  if (await turn.locator('pre > code[class^="language-"]').count() > 0) await turn.locator('code.hljs').first().waitFor();
}

const standIn = await startStandIn(script);
const browser = await launchBrowser();
try {
  const sandbox = new Sandbox((folder) => codexHome(standIn, { folder }));
  const launcher = await Launcher.ready(sandbox);
  const { page } = await openPage(browser, WORKSPACE, { width: 1280, height: 860 });
  await answered(page, '比较 SQLite 的 WAL 模式和回滚日志模式，哪种更适合保存研究记录？');
  await page.locator('.command summary').click();
  await page.locator('#question').blur();
  await page.screenshot({ path: join(shots, 'workspace-thread.png') });
  // Search over both threads, its hit in the answer opened.
  await page.click('#new-thread');
  await answered(page, '检查点多久发生一次？wal 文件会一直变大吗？');
  await page.fill('#search', 'wal');
  await page.locator('.search-result').nth(2).waitFor();
  await page.locator('.search-result').filter({ hasText: '两种主要的日志模式' }).click();
  await page.locator('.turn.found').waitFor();
  await page.screenshot({ path: join(shots, 'workspace-search.png') });
  await page.fill('#search', '');

  // What Codex asks to be allowed, as a card at the thread's end; then the folder browser.
  await page.click('#new-thread');
  await page.fill('#question', '安装 pandas，汇总 run-42 的实验结果');
  await page.press('#question', 'Enter');
  await page.locator('.approval').waitFor();
  await page.locator('#question').blur();
  await page.screenshot({ path: join(shots, 'workspace-approval.png') });
  await page.locator('.approval').getByRole('button', { name: '拒绝' }).click();
  await page.locator('.turn-foot').getByText('本轮用量').waitFor();
  for (const folder of ['experiments/run-42', 'experiments/run-43', 'papers', 'notes']) mkdirSync(join(sandbox.home, folder), { recursive: true });
  await page.click('#new-thread');
  await page.click('#own-folder-open');
  await page.locator('.folder-entry').filter({ hasText: 'experiments' }).click();
  await page.locator('.folder-entry').filter({ hasText: 'run-42' }).waitFor();
  await page.screenshot({ path: join(shots, 'workspace-own-folder.png') });
  await page.click('#folder-cancel');

  // Mathematics and code, in the light and the dark look; then a window as narrow as a phone's.
  await page.click('#new-thread');
  await page.locator('#welcome').waitFor();
  await answered(page, '推导圆的面积公式，并给出计算它的代码');
  await page.locator('#keys summary').click();
  await page.locator('#question').blur();
  await page.screenshot({ path: join(shots, 'workspace-reading-light.png') });
  await page.emulateMedia({ colorScheme: 'dark' });
  await page.screenshot({ path: join(shots, 'workspace-reading-dark.png') });
  await page.emulateMedia({ colorScheme: 'light' });
  await page.setViewportSize({ width: 420, height: 860 });
  await page.waitForTimeout(300);
  await page.screenshot({ path: join(shots, 'workspace-narrow.png') });
  await page.click('#menu');
  await page.waitForTimeout(300);
  await page.screenshot({ path: join(shots, 'workspace-narrow-list.png') });

  // A small analysis: its files beside the thread, its figure in the answer, its table previewed.
  await page.setViewportSize({ width: 1280, height: 860 });
  await page.locator('#keys summary').click();
  await page.click('#new-thread');
  await page.locator('#welcome').waitFor();
  await answered(page, '拟合 data.csv 里的数据，画图并写一份报告');
  await page.click('#files-toggle');
  await page.locator('.file-row', { hasText: 'report.md' }).waitFor();
  await until('the figure drawn', () => page.evaluate("document.querySelector('.turn img.figure')?.complete"));
  await page.locator('#question').blur();
  await page.screenshot({ path: join(shots, 'workspace-files.png') });
  await page.locator('.file-row', { hasText: 'data.csv' }).click();
  await page.locator('.preview-table').waitFor();
  await page.screenshot({ path: join(shots, 'workspace-csv.png') });
  await launcher.quit();

  // A thread branched at its first turn, and in it a running turn given guidance, with a question queued behind it.
  const iterating = new Sandbox((folder) => codexHome(standIn, { folder, settings: ['model_context_window = 200000'] }));
  const third = await Launcher.ready(iterating);
  const { page: branched } = await openPage(browser, WORKSPACE, { width: 1280, height: 860 });
  await answered(branched, '实验 run-42 的数据该用哪种模型拟合？');
  await answered(branched, '换成对数尺度会怎样？');
  await answered(branched, '把残差画出来');
  await branched.locator('.turn').first().locator('.branch').click();
  await branched.locator('#thread-title').getByText('分支').waitFor();
  await branched.fill('#question', '重新跑一遍拟合，这次只用线性模型');
  await branched.press('#question', 'Enter');
  await branched.getByText('正在用 2022 年的数据').waitFor();
  await branched.fill('#question', '再比较两种模型的 AIC');
  await branched.click('#queue-send');
  await branched.locator('#queued .queued-item').waitFor();
  await branched.fill('#question', '用 2023 年的数据');
  await branched.press('#question', 'Enter');
  await branched.getByText('改用 2023 年的数据重新拟合').waitFor();
  await branched.locator('#question').blur();
  await branched.locator('.turn').first().hover();
  await branched.screenshot({ path: join(shots, 'workspace-branch.png') });
  release();
  await third.quit();

  // Signed out, then signed in through a stand-in ChatGPT sign-in.
  const signIn = await startSignInStandIn({ email: 'ada@example.com', plan: 'plus', usedPercent: 37 });
  const signedOut = new Sandbox((folder) => codexHome(standIn, { folder, signedOut: true, settings: [`chatgpt_base_url = "${signIn.url}/backend-api"`] }));
  signedOut.env.CODEX_APP_SERVER_LOGIN_ISSUER = signIn.url;
  const second = await Launcher.ready(signedOut);
  const { page: banner } = await openPage(browser, WORKSPACE, { width: 1280, height: 560 });
  await banner.locator('.banner.sign-in button').first().waitFor();
  await banner.screenshot({ path: join(shots, 'workspace-signed-out.png') });
  const tab = banner.context().waitForEvent('page');
  await banner.locator('.banner.sign-in button').first().click();
  const signInTab = await tab;
  await signInTab.waitForURL('http://127.0.0.1:1455/success?**');
  await signInTab.close();
  await banner.locator('#account .limit').waitFor();
  await banner.screenshot({ path: join(shots, 'workspace-signed-in.png') });
  await second.quit();
  await signIn.close();
} finally {
  await browser.close();
  await standIn.close();
}
console.log(`saved workspace-thread, -search, -approval, -own-folder, -branch, -reading-light, -reading-dark, -narrow, -narrow-list, -files, -csv, -signed-out and -signed-in in ${shots}`);

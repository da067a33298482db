// Lanternmoor Pro workspace service.
//
// Started by the launcher as `node --experimental-strip-types server.mjs` with the working directory
// set to this folder; everything it prints lands in the run log. Plain Node.js, no packages, so it
// runs from the shipped resources as they are.

import { createServer } from 'node:http';
import { existsSync, statSync } from 'node:fs';

const APP_ID = 'lanternmoor-local-pro';
const HOST = '127.0.0.1';
const DEFAULT_PORT = 18765;
// Beyond this a hung connection must not keep the process alive after a stop request.
const STOP_GRACE_MS = 1000;

const stamp = () => new Date().toISOString().replace(/\.\d{3}Z$/, 'Z');
const say = (line) => process.stdout.write(`[${stamp()}] ${line}\n`);
const complain = (line) => process.stderr.write(`[${stamp()}] ${line}\n`);

function parsePort(text) {
  if (text === undefined || text === '') return DEFAULT_PORT;
  if (!/^\d{1,5}$/.test(text)) return null;
  const port = Number(text);
  return port >= 1 && port <= 65535 ? port : null;
}

const port = parsePort(process.env.LANTERNMOOR_PORT);
if (port === null) {
  complain(`workspace service cannot start: LANTERNMOOR_PORT is not a port number: ${JSON.stringify(process.env.LANTERNMOOR_PORT)}`);
  process.exit(1);
}

const settings = {
  appDir: process.env.LANTERNMOOR_APP_DIR || process.cwd(),
  dataDir: process.env.LANTERNMOOR_DATA_DIR || '',
  codexPath: process.env.LANTERNMOOR_CODEX_PATH || '',
};
const startedAt = stamp();

function escapeHtml(value) {
  return String(value).replace(/[&<>"']/g, (c) => ({
    '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', "'": '&#39;',
  })[c]);
}

function describeCodex(path) {
  if (!path) return { text: '未提供', ok: false };
  try {
    return statSync(path).isFile()
      ? { text: '已找到', ok: true }
      : { text: '不是文件', ok: false };
  } catch {
    return { text: '找不到该文件', ok: false };
  }
}

function describeFolder(path) {
  if (!path) return { text: '未提供', ok: false };
  return existsSync(path) ? { text: '已存在', ok: true } : { text: '尚未创建', ok: false };
}

function row(label, value, state) {
  const shown = value ? `<code>${escapeHtml(value)}</code>` : '<span class="muted">（未设置）</span>';
  const badge = state ? ` <span class="badge ${state.ok ? 'ok' : 'warn'}">${escapeHtml(state.text)}</span>` : '';
  return `<tr><th scope="row">${escapeHtml(label)}</th><td>${shown}${badge}</td></tr>`;
}

function workspacePage() {
  const codex = describeCodex(settings.codexPath);
  const data = describeFolder(settings.dataDir);
  const address = `http://${HOST}:${port}/`;
  return `<!doctype html>
<html lang="zh-CN">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Lanternmoor Pro · 研究工作区</title>
<style>
  :root { color-scheme: light dark; --fg: #1d2330; --muted: #667085; --bg: #f6f7f9; --card: #fff; --line: #e3e6ea; --ok: #137a3a; --warn: #a15c00; }
  @media (prefers-color-scheme: dark) { :root { --fg: #e6e8ec; --muted: #98a2b3; --bg: #14171c; --card: #1d2128; --line: #2c323b; --ok: #4cc27a; --warn: #f0a640; } }
  * { box-sizing: border-box; }
  body { margin: 0; font: 15px/1.6 system-ui, "Noto Sans CJK SC", "PingFang SC", "Microsoft YaHei", sans-serif; color: var(--fg); background: var(--bg); }
  main { max-width: 760px; margin: 48px auto; padding: 0 20px; }
  h1 { font-size: 24px; margin: 0 0 4px; }
  .status { display: inline-flex; align-items: center; gap: 8px; color: var(--ok); font-weight: 600; margin: 8px 0 24px; }
  .dot { width: 10px; height: 10px; border-radius: 50%; background: var(--ok); }
  section { background: var(--card); border: 1px solid var(--line); border-radius: 10px; padding: 18px 20px; margin-bottom: 18px; }
  h2 { font-size: 16px; margin: 0 0 12px; }
  table { width: 100%; border-collapse: collapse; }
  th { text-align: left; font-weight: 500; color: var(--muted); width: 8.5em; vertical-align: top; padding: 6px 12px 6px 0; }
  td { padding: 6px 0; word-break: break-all; }
  code { font: 13px/1.5 ui-monospace, "DejaVu Sans Mono", monospace; }
  .muted { color: var(--muted); }
  .badge { display: inline-block; font-size: 12px; border-radius: 999px; padding: 0 8px; margin-left: 6px; border: 1px solid currentColor; }
  .badge.ok { color: var(--ok); } .badge.warn { color: var(--warn); }
  p { margin: 0 0 8px; }
</style>
</head>
<body>
<main>
  <h1>Lanternmoor Pro 研究工作区</h1>
  <div class="status"><span class="dot"></span>服务正在本机运行</div>
  <section>
    <h2>本机服务</h2>
    <table>
      ${row('工作区地址', address)}
      ${row('数据文件夹', settings.dataDir, data)}
      ${row('Codex 工具', settings.codexPath, codex)}
      ${row('应用文件夹', settings.appDir)}
      ${row('Node.js', process.version)}
      ${row('启动时间', startedAt)}
    </table>
  </section>
  <section>
    <h2>使用提示</h2>
    <p>工作区只在这台电脑上运行，只接受来自本机（127.0.0.1）的访问。</p>
    <p>Codex 需要用你自己的 ChatGPT 账户登录：在终端运行 <code>codex</code>，选择使用 ChatGPT 登录即可，无需 API 密钥。</p>
    <p>要停止服务，请在 Lanternmoor 托盘菜单中选择“退出 Lanternmoor”。运行日志位于数据文件夹中的 <code>server.log</code>。</p>
  </section>
</main>
</body>
</html>
`;
}

function healthBody() {
  return JSON.stringify({
    appId: APP_ID,
    status: 'ok',
    pid: process.pid,
    startedAt,
    node: process.version,
  });
}

// A page on another origin could reach this service through DNS rebinding; only loopback names
// are answered.
function hostAllowed(hostHeader) {
  if (hostHeader === undefined) return true;
  const name = hostHeader.replace(/:\d+$/, '').toLowerCase();
  return name === '127.0.0.1' || name === 'localhost' || name === '[::1]';
}

const COMMON_HEADERS = {
  'Cache-Control': 'no-store',
  'X-Content-Type-Options': 'nosniff',
};

function send(req, res, status, type, body, extra = {}) {
  const bytes = Buffer.from(body, 'utf8');
  res.writeHead(status, {
    ...COMMON_HEADERS,
    'Content-Type': type,
    'Content-Length': bytes.length,
    ...extra,
  });
  res.end(req.method === 'HEAD' ? undefined : bytes);
}

function handle(req, res) {
  if (!hostAllowed(req.headers.host)) {
    send(req, res, 421, 'text/plain; charset=utf-8', 'Misdirected Request\n');
    return;
  }
  let path;
  try {
    path = new URL(req.url ?? '/', 'http://localhost').pathname;
  } catch {
    send(req, res, 400, 'text/plain; charset=utf-8', 'Bad Request\n');
    return;
  }
  const known = path === '/' || path === '/api/health';
  if (!known) {
    send(req, res, 404, 'text/plain; charset=utf-8', 'Not Found\n');
    return;
  }
  if (req.method !== 'GET' && req.method !== 'HEAD') {
    send(req, res, 405, 'text/plain; charset=utf-8', 'Method Not Allowed\n', { Allow: 'GET, HEAD' });
    return;
  }
  if (path === '/api/health') {
    send(req, res, 200, 'application/json; charset=utf-8', healthBody());
  } else {
    send(req, res, 200, 'text/html; charset=utf-8', workspacePage(), {
      'Content-Security-Policy': "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'",
    });
  }
}

say(`workspace service starting (pid ${process.pid})`);
const server = createServer(handle);

server.on('error', (error) => {
  complain(`workspace service could not listen on http://${HOST}:${port}/: ${error.message}`);
  process.exit(1);
});

server.listen(port, HOST, () => {
  say(`workspace service listening on http://${HOST}:${port}/`);
});

let stopping = false;
function stop(signal) {
  if (stopping) return;
  stopping = true;
  const finish = () => {
    say(`workspace service stopped (${signal})`);
    process.exit(0);
  };
  setTimeout(finish, STOP_GRACE_MS).unref();
  server.close(finish);
  // Browsers keep connections alive; without this close() would wait for them to time out.
  server.closeAllConnections();
}

process.on('SIGTERM', () => stop('SIGTERM'));
process.on('SIGINT', () => stop('SIGINT'));

// Lanternmoor Pro workspace service.
//
// Started by the launcher as `node --experimental-strip-types server.mjs` with the working directory
// set to this folder; everything it prints lands in the run log. Plain Node.js, no packages, so it
// runs from the shipped resources as they are.
//
// This entry listens at once and answers the health check itself: the workspace behind it is
// TypeScript, whose first load holds Node.js's event loop for a quarter of a second or more. It is
// loaded once the first health answer is on its way (the launcher is waiting for that one), when
// a page asks for something first, or a second after the start, whichever comes first; requests
// that come before it is loaded wait for it.

import { createServer, STATUS_CODES } from 'node:http';
import { readFileSync } from 'node:fs';
import { entryTexts } from './workspace/entryTexts.mjs';

const APP_ID = 'lanternmoor-local-pro';
// The package's version is the one version: the build reads it too, for the installed package's.
const { version: VERSION } = JSON.parse(readFileSync(new URL('./package.json', import.meta.url), 'utf8'));
const HOST = '127.0.0.1';
const DEFAULT_PORT = 18765;
// The launcher waits 3 s after SIGTERM; everything is stopped well before that.
const STOP_LIMIT_MS = 1500;
const LOAD_AT_LATEST_MS = 1000;

const stamp = () => new Date().toISOString().replace(/\.\d{3}Z$/, 'Z');
const say = (line) => process.stdout.write(`[${stamp()}] ${line}\n`);
const complain = (line) => process.stderr.write(`[${stamp()}] ${line}\n`);

// Node.js announces once per start that SQLite is experimental; the version in use is a deliberate
// choice, and the notice would be noise in the user's run log. Other warnings pass.
const emitWarning = process.emitWarning;
process.emitWarning = function (warning, ...rest) {
  const type = typeof rest[0] === 'string' ? rest[0] : rest[0]?.type;
  if (type === 'ExperimentalWarning' && /^SQLite is an experimental feature/.test(String(warning))) return;
  return emitWarning.call(process, warning, ...rest);
};

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

const startedAt = Date.now();

function healthBody() {
  return JSON.stringify({
    appId: APP_ID,
    status: 'ok',
    pid: process.pid,
    startedAt: new Date(startedAt).toISOString().replace(/\.\d{3}Z$/, 'Z'),
    node: process.version,
    version: VERSION,
  });
}

// A page on another origin could reach this service through DNS rebinding; only the loopback
// names with our port are answered.
function hostAllowed(hostHeader) {
  const host = (hostHeader ?? '').toLowerCase();
  return host === `${HOST}:${port}` || host === `localhost:${port}`;
}

function send(req, res, status, body, extra = {}) {
  const bytes = Buffer.from(body, 'utf8');
  res.writeHead(status, {
    'Cache-Control': 'no-store',
    'X-Content-Type-Options': 'nosniff',
    'Content-Type': 'application/json; charset=utf-8',
    'Content-Length': bytes.length,
    ...extra,
  });
  res.end(req.method === 'HEAD' ? undefined : bytes);
}

let workspace = null;
let loading = null;

function load() {
  if (!loading) {
    loading = import('./workspace/main.ts').then((module) => {
      workspace = module.startWorkspace({ port, startedAt, env: process.env, version: VERSION, say, complain });
      return workspace;
    });
    loading.catch((error) => complain(`the workspace could not be loaded: ${error?.stack ?? error}`));
  }
  return loading;
}

function handle(req, res) {
  if (!hostAllowed(req.headers.host)) {
    send(req, res, 421, JSON.stringify({ error: entryTexts.foreignHost }));
    return;
  }
  if ((req.url ?? '').split('?')[0] === '/api/health') {
    if (req.method === 'GET' || req.method === 'HEAD') send(req, res, 200, healthBody());
    else send(req, res, 405, JSON.stringify({ error: entryTexts.methodNotAllowed }), { Allow: 'GET, HEAD' });
    res.once('finish', () => setImmediate(load));
    return;
  }
  if (workspace) {
    void workspace.handle(req, res);
    return;
  }
  load().then(
    (loaded) => loaded.handle(req, res),
    () => send(req, res, 503, JSON.stringify({ error: entryTexts.notLoaded })),
  );
}

// A page's event stream is a WebSocket: the same host rule, then the workspace decides.
function upgrade(req, socket, head) {
  socket.on('error', () => socket.destroy());
  const refuse = (status, message) => {
    const body = Buffer.from(JSON.stringify({ error: message }), 'utf8');
    socket.end(`HTTP/1.1 ${status} ${STATUS_CODES[status]}\r\nContent-Type: application/json; charset=utf-8\r\n`
      + `Content-Length: ${body.length}\r\nConnection: close\r\n\r\n${body}`);
  };
  if (!hostAllowed(req.headers.host)) {
    refuse(421, entryTexts.foreignHost);
    return;
  }
  load().then(
    (loaded) => loaded.upgrade(req, socket, head),
    () => refuse(503, entryTexts.notLoaded),
  ).catch((error) => {
    complain(`a page's event stream failed: ${error?.stack ?? error}`);
    socket.destroy();
  });
}

say(`workspace service starting (pid ${process.pid})`);
const server = createServer({ noDelay: true }, handle);
server.on('upgrade', upgrade);

// A head over Node.js's limit never reaches a route. The one request a page makes that long is a
// search, whose own sentence is the answer, rather than a bare 431.
server.on('clientError', (error, socket) => {
  if (error.code !== 'HPE_HEADER_OVERFLOW' || !socket.writable) {
    socket.destroy();
    return;
  }
  const body = JSON.stringify({ error: entryTexts.searchTooLong() });
  socket.end(`HTTP/1.1 400 Bad Request\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: ${Buffer.byteLength(body)}\r\nConnection: close\r\n\r\n${body}`);
});

server.on('error', (error) => {
  complain(`workspace service could not listen on http://${HOST}:${port}/: ${error.message}`);
  process.exit(1);
});

server.listen(port, HOST, () => {
  say(`workspace service listening on http://${HOST}:${port}/`);
  setTimeout(load, LOAD_AT_LATEST_MS).unref();
});

let stopping = false;
async function stop(signal) {
  if (stopping) return;
  stopping = true;
  const finish = () => {
    say(`workspace service stopped (${signal})`);
    process.exit(0);
  };
  setTimeout(finish, STOP_LIMIT_MS).unref();
  server.close();
  try {
    // Not loaded yet: there is nothing of it to stop, and no reason to load it now.
    await (await loading?.catch(() => null))?.stop();
  } catch (error) {
    complain(`stopping the workspace failed: ${error?.stack ?? error}`);
  }
  // Browsers keep connections alive; without this the process would wait for them to time out.
  server.closeAllConnections();
  finish();
}

process.on('SIGTERM', () => stop('SIGTERM'));
process.on('SIGINT', () => stop('SIGINT'));

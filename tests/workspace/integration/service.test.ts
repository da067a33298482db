// The service as the launcher runs it (a child Node.js on server.mjs), against a scripted
// app-server: what it refuses, what the page is told when Codex cannot serve, and what survives
// the service's own end, polite or not.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { chmodSync, readdirSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { DatabaseSync } from 'node:sqlite';
import { texts } from '../../../resources/app/workspace/texts.ts';
import { MINIMUM_CODEX_VERSION } from '../../../resources/app/workspace/codex/appServer.ts';
import { fakeCodex, isRunning, NODE, startService, temporaryFolder, until, type Running } from '../support/service.ts';

async function withService(env: NodeJS.ProcessEnv, work: (service: Running, log: string) => Promise<void>, codexPath?: string) {
  const folder = temporaryFolder('lm-fake-');
  const log = join(folder, 'methods.log');
  const service = await startService({ codexPath: codexPath ?? fakeCodex(folder), env: { ...env, FAKE_CODEX_LOG: log } });
  try {
    await work(service, log);
  } finally {
    service.child.kill('SIGKILL');
    await service.exited;
  }
}

const methods = (log: string) => {
  try {
    return readFileSync(log, 'utf8').trim().split('\n');
  } catch {
    return [];
  }
};

function snapshotOf(service: Running) {
  const db = new DatabaseSync(join(service.dataFolder, 'workspace.db'), { readOnly: true });
  const counts = ['threads', 'turns', 'items'].map((table) => db.prepare(`SELECT count(*) AS n FROM ${table}`).get()!.n);
  db.close();
  let folders: string[] = [];
  try {
    folders = readdirSync(join(service.dataFolder, 'threads'));
  } catch {
    // none made yet
  }
  return { counts, folders };
}

test('refused requests: the status, a Chinese sentence for the page, no CORS, and nothing written', async () => {
  await withService({ FAKE_CODEX_DIE: 'never-finishes' }, async (service) => {
    const page = service.page();
    const first = await service.request('POST', '/api/threads', { question: 'first' });
    assert.equal(first.status, 201);
    const id = first.body.thread.id as string;
    await page.wait('threadSummary', (event) => !event.thread.running);
    const running = await service.request('POST', `/api/threads/${id}/turns`, { question: 'second' });
    assert.equal(running.status, 201);
    // The running turn's streamed item is written a moment later; the refusals come after that.
    await until('the running turn\'s item to be kept', () => snapshotOf(service).counts[2] === 2);
    const before = snapshotOf(service);
    const other = { origin: 'http://evil.example' };
    const cases: [string, string, string, unknown, Record<string, string>, number, string][] = [
      ['a body that is not JSON', 'POST', '/api/threads', '{"question":', {}, 400, texts.notJson],
      ['a body that is JSON but not an object', 'POST', '/api/threads', '"question"', {}, 400, texts.notJson],
      ['a question that is not text', 'POST', '/api/threads', { question: 42 }, {}, 400, texts.emptyQuestion],
      ['a stop in a thread that does not exist', 'POST', '/api/threads/2020-01-01-deadbeef/stop', {}, {}, 404, texts.noSuchThread],
      ['a form post', 'POST', '/api/threads', 'question=hi', { 'content-type': 'application/x-www-form-urlencoded' }, 400, texts.needsJson],
      ['a question over 1 MiB', 'POST', '/api/threads', { question: 'x'.repeat((1 << 20) + 1) }, {}, 413, texts.tooLarge],
      ['a body far over the limit', 'POST', '/api/threads', { question: 'x'.repeat(8 << 20) }, {}, 413, texts.tooLarge],
      ['an unknown thread', 'POST', '/api/threads/2020-01-01-deadbeef/turns', { question: 'hi' }, {}, 404, texts.noSuchThread],
      ['a second question while one runs', 'POST', `/api/threads/${id}/turns`, { question: 'third' }, {}, 409, texts.turnRunning],
      ['another origin', 'POST', '/api/threads', { question: 'hi' }, other, 403, texts.foreignOrigin],
      ['no origin at all', 'POST', '/api/threads', { question: 'hi' }, { origin: '' }, 403, texts.foreignOrigin],
      ['another origin stopping a turn', 'POST', `/api/threads/${id}/stop`, {}, other, 403, texts.foreignOrigin],
      ['a preflight', 'OPTIONS', '/api/threads', undefined, { origin: 'http://evil.example', 'access-control-request-method': 'POST' }, 405, texts.methodNotAllowed],
      ['another host name', 'GET', '/', undefined, { host: 'evil.example' }, 421, '只接受通过 127.0.0.1 或 localhost 访问工作区。'],
      ['a path out of the page\'s folder', 'GET', '/vendor/../../server.mjs', undefined, {}, 404, texts.notFound],
      ['an encoded path out of the page\'s folder', 'GET', '/%2e%2e/server.mjs', undefined, {}, 404, texts.notFound],
    ];
    for (const [what, method, path, body, headers, status, message] of cases) {
      const answer = await service.request(method, path, body, headers);
      assert.deepEqual([answer.status, answer.body.error], [status, message], what);
      assert.equal([...answer.headers.keys()].some((name) => name.startsWith('access-control-')), false, what);
    }
    assert.deepEqual(snapshotOf(service), before);
  });
});

test('the page comes with a policy that allows no inline or outside script, and its own files only', async () => {
  await withService({}, async (service) => {
    const page = await service.request('GET', '/');
    assert.equal(page.status, 200);
    const policy = page.headers.get('content-security-policy') ?? '';
    assert.match(policy, /script-src 'self'(;|$)/);
    assert.match(policy, /default-src 'none'/);
    assert.doesNotMatch(page.body, /<script(?![^>]*\bsrc=)/, 'no inline script');
    for (const asset of ['/app.js', '/vendor/markdown-it/markdown-it.esm.min.mjs', '/vendor/dompurify/purify.min.js']) {
      const answer = await service.request('GET', asset);
      assert.deepEqual([answer.status, answer.headers.get('content-type')], [200, 'text/javascript; charset=utf-8'], asset);
    }
  });
});

test('another user account of this machine is refused, even from loopback', { skip: process.getuid?.() !== 0 && 'needs root to act as another user' }, async () => {
  await withService({}, async (service) => {
    const fetchAs = (uid: number) => new Promise<string>((resolve) => {
      const script = `fetch(${JSON.stringify(`${service.url}api/threads`)}).then(async (r) => console.log(r.status, (await r.json()).error ?? ''))`;
      const child = spawn(NODE, ['-e', script], { uid, gid: uid });
      let out = '';
      child.stdout.on('data', (chunk) => { out += chunk; });
      child.on('exit', () => resolve(out.trim()));
    });
    assert.equal(await fetchAs(65534), `403 ${texts.foreignUser}`);
    assert.equal(await fetchAs(0), '200');
  });
});

test('a Codex that cannot serve is named in one sentence; the service and its health answer go on', async () => {
  const folder = temporaryFolder('lm-codex-');
  const notExecutable = join(folder, 'codex-plain-file');
  writeFileSync(notExecutable, '#!/bin/sh\n');
  chmodSync(notExecutable, 0o644);
  const rows: [string, NodeJS.ProcessEnv, string | undefined, string][] = [
    ['missing', {}, join(folder, 'no-such-codex'), texts.codexMissing(join(folder, 'no-such-codex'))],
    ['not executable', {}, notExecutable, texts.codexNotExecutable(notExecutable)],
    ['too old', { FAKE_CODEX_VERSION: '0.100.9' }, undefined, texts.codexTooOld('0.100.9', MINIMUM_CODEX_VERSION)],
    ['of no version we can read', { FAKE_CODEX_VERSION: 'garbage' }, undefined, texts.codexUnknownVersion],
  ];
  for (const [what, env, path, message] of rows) {
    await withService(env, async (service) => {
      const page = service.page();
      const event = await page.wait('service', (e) => e.service.codex.state === 'unavailable');
      assert.equal(event.service.codex.state === 'unavailable' && event.service.codex.message, message, what);
      const asked = await service.request('POST', '/api/threads', { question: 'hello?' });
      assert.equal(asked.status, 201, what);
      const turn = await page.wait('threadSummary', (e) => !e.thread.running);
      const thread = await service.request('GET', `/api/threads/${turn.thread.id}`);
      assert.deepEqual([thread.body.thread.turns[0].status, thread.body.thread.turns[0].error], ['failed', message], what);
      assert.equal((await service.request('GET', '/api/health')).status, 200, what);
    }, path);
  }
});

test('an app-server that dies mid-turn: the turn says so, the next question starts Codex again', async () => {
  await withService({ FAKE_CODEX_DIE: 'mid-turn' }, async (service, log) => {
    const created = await service.request('POST', '/api/threads', { question: 'one' });
    const page = service.page(created.body.thread.id);
    const cut = await page.wait('turn', (e) => e.turn.status !== 'running');
    assert.deepEqual([cut.turn.status, cut.turn.error], ['interrupted', texts.turnCutByCodexExit]);
    await page.wait('service', (e) => e.service.codex.state === 'unavailable');
    assert.equal((await service.request('POST', `/api/threads/${created.body.thread.id}/turns`, { question: 'two' })).status, 201);
    await until('the thread to be resumed in a second app-server', () => methods(log).includes('thread/resume'));
    assert.deepEqual(methods(log).filter((m) => m.startsWith('thread/') || m === 'initialize'), ['initialize', 'thread/start', 'initialize', 'thread/resume']);
  });
});

test('a kill in the middle of an answer: the next start shows it up to the kill, marked interrupted, finished turns whole', async () => {
  const folder = temporaryFolder('lm-fake-');
  const env = { FAKE_CODEX_DIE: 'never-finishes', FAKE_CODEX_LOG: join(folder, 'log') };
  const first = await startService({ codexPath: fakeCodex(folder), env });
  const created = await first.request('POST', '/api/threads', { question: 'finished' });
  const id = created.body.thread.id as string;
  const page = first.page(id);
  await page.wait('turn', (e) => e.turn.status === 'completed');
  await first.request('POST', `/api/threads/${id}/turns`, { question: 'cut' });
  const cut = await page.wait('delta', (e) => e.text === 'partial answer' && e.turnId !== created.body.turn.id);
  const store = new DatabaseSync(join(first.dataFolder, 'workspace.db'), { readOnly: true });
  await until('what streamed to be written', () => store.prepare('SELECT 1 FROM items WHERE turn_id = ?').get(cut.turnId));
  store.close();
  first.child.kill('SIGKILL');
  await first.exited;

  const again = await startService({ codexPath: fakeCodex(folder), env, dataFolder: first.dataFolder });
  try {
    const thread = (await again.request('GET', `/api/threads/${id}`)).body.thread;
    assert.deepEqual(thread.turns.map((turn: any) => [turn.question, turn.status, turn.items.map((item: any) => [item.text, item.status])]), [
      ['finished', 'completed', [['partial answer', 'completed']]],
      ['cut', 'interrupted', [['partial answer', 'stopped']]],
    ]);
    assert.equal(thread.turns[1].error, texts.turnCutByServiceEnd);
  } finally {
    again.child.kill('SIGKILL');
    await again.exited;
  }
  const db = new DatabaseSync(join(first.dataFolder, 'workspace.db'));
  assert.equal(db.prepare('PRAGMA integrity_check').get()!.integrity_check, 'ok');
  db.close();
});

test('a stop request on SIGTERM: running turns are kept as interrupted, and the app-server is gone', async () => {
  await withService({ FAKE_CODEX_DIE: 'never-finishes' }, async (service, log) => {
    const created = await service.request('POST', '/api/threads', { question: 'finished' });
    const page = service.page(created.body.thread.id);
    await page.wait('turn', (e) => e.turn.status === 'completed');
    await service.request('POST', `/api/threads/${created.body.thread.id}/turns`, { question: 'running' });
    await page.wait('delta', (e) => e.turnId !== created.body.turn.id);
    const appServer = await until('the app-server', () => childrenOf(service.child.pid!)[0]);
    service.child.kill('SIGTERM');
    assert.deepEqual(await service.exited, [0, null]);
    assert.match(service.output(), /workspace service stopped \(SIGTERM\)\n$/);
    assert.equal(isRunning(appServer), false);
    assert.ok(methods(log).includes('turn/interrupt'));
    const db = new DatabaseSync(join(service.dataFolder, 'workspace.db'), { readOnly: true });
    assert.deepEqual(db.prepare('SELECT status FROM turns ORDER BY position').all().map((row) => row.status), ['completed', 'interrupted']);
    db.close();
  });
});

test('a data folder that cannot be written: the page says so, questions are refused, health answers', async () => {
  const parent = temporaryFolder('lm-data-');
  const dataFolder = join(parent, 'data');
  writeFileSync(dataFolder, 'a file where the folder should be');
  const folder = temporaryFolder('lm-fake-');
  const service = await startService({ codexPath: fakeCodex(folder), dataFolder });
  try {
    const page = service.page();
    const hello = await page.wait('hello');
    assert.equal(hello.service.storage, texts.storageUnwritable);
    const asked = await service.request('POST', '/api/threads', { question: 'hi' });
    assert.deepEqual([asked.status, asked.body.error], [503, texts.storeUnavailable(texts.storageUnwritable)]);
    assert.equal((await service.request('GET', '/api/health')).status, 200);
    assert.equal(readFileSync(dataFolder, 'utf8'), 'a file where the folder should be');
  } finally {
    service.child.kill('SIGKILL');
    await service.exited;
  }
});

function childrenOf(pid: number): number[] {
  try {
    return readFileSync(`/proc/${pid}/task/${pid}/children`, 'utf8').trim().split(/\s+/).filter(Boolean).map(Number);
  } catch {
    return [];
  }
}

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
import { fakeCodex, isRunning, NODE, startService, temporaryFolder, until, type Running } from '../../harness/service.ts';

async function withService(env: NodeJS.ProcessEnv, work: (service: Running, methods: () => string[]) => Promise<void>, options: { codexPath?: string; dataFolder?: string } = {}) {
  const folder = temporaryFolder('lm-fake-');
  const log = join(folder, 'methods.log');
  const service = await startService({ codexPath: options.codexPath ?? fakeCodex(folder), dataFolder: options.dataFolder, env: { ...env, FAKE_CODEX_LOG: log } });
  const methods = () => { try { return readFileSync(log, 'utf8').trim().split('\n'); } catch { return []; } };
  try {
    await work(service, methods);
  } finally {
    service.child.kill('SIGKILL');
    await service.exited;
  }
}

const query = (service: Running, sql: string) => {
  const db = new DatabaseSync(join(service.dataFolder, 'workspace.db'), { readOnly: true });
  try { return db.prepare(sql).all(); } finally { db.close(); }
};

const APPROVAL = '00000000-0000-4000-8000-000000000000';

/** A finished turn, then a second that streams its first words and never ends, both written down. */
async function twoTurns(service: Running) {
  const created = await service.request('POST', '/api/threads', { question: 'finished' });
  const id: string = created.body.thread.id;
  // Read back, not awaited on a stream: the turn may end before a page could connect.
  await until('the first turn to end', async () => (await service.request('GET', `/api/threads/${id}`)).body.thread.turns[0].status === 'completed');
  const second = await service.request('POST', `/api/threads/${id}/turns`, { question: 'cut' });
  await until('the running turn\'s item to be kept', () => query(service, `SELECT 1 FROM items WHERE turn_id = '${second.body.turn.id}'`).length);
  return id;
}

test('refused requests: the status, a Chinese sentence for the page, no CORS, and nothing written', async () => {
  await withService({ FAKE_CODEX_DIE: 'never-finishes' }, async (service) => {
    const id = await twoTurns(service);
    const kept = () => [query(service, 'SELECT (SELECT count(*) FROM turns) t, (SELECT count(*) FROM items) i'), readdirSync(join(service.dataFolder, 'threads'))];
    const before = kept();
    // A page's event stream, opened as a WebSocket.
    const stream = (headers: Record<string, string> = {}) => ({
      upgrade: 'websocket', connection: 'Upgrade', 'sec-websocket-key': 'dGhlIHNhbXBsZSBub25jZQ==', 'sec-websocket-version': '13',
      origin: `http://127.0.0.1:${service.port}`, ...headers,
    });
    const cases: [string, string, string, unknown, Record<string, string>, number, string | undefined][] = [
      ['a body that is not JSON', 'POST', '/api/threads', '{"question":', {}, 400, texts.notJson],
      ['JSON that is not an object', 'POST', '/api/threads', '"question"', {}, 400, texts.notJson],
      ['a question that is not text', 'POST', '/api/threads', { question: 42 }, {}, 400, texts.emptyQuestion],
      ['a form post', 'POST', '/api/threads', 'question=hi', { 'content-type': 'application/x-www-form-urlencoded' }, 400, texts.needsJson],
      ['a question over 1 MiB', 'POST', '/api/threads', { question: 'x'.repeat((1 << 20) + 1) }, {}, 413, texts.tooLarge],
      ['a body far over the limit', 'POST', '/api/threads', { question: 'x'.repeat(8 << 20) }, {}, 413, texts.tooLarge],
      ['an unknown thread', 'POST', '/api/threads/2020-01-01-deadbeef/turns', { question: 'hi' }, {}, 404, texts.noSuchThread],
      ['a stop in an unknown thread', 'POST', '/api/threads/2020-01-01-deadbeef/stop', {}, {}, 404, texts.noSuchThread],
      ['a second question while one runs', 'POST', `/api/threads/${id}/turns`, { question: 'third' }, {}, 409, texts.turnRunning],
      ['a branch at no turn', 'POST', `/api/threads/${id}/branch`, { position: -1 }, {}, 400, texts.badPosition],
      ['a queued question no longer queued', 'POST', `/api/threads/${id}/queue/change`, { id: 'sent', question: 'x' }, {}, 404, texts.noSuchQueued],
      ['another origin', 'POST', '/api/threads', { question: 'hi' }, { origin: 'http://evil.example' }, 403, texts.foreignOrigin],
      ['no origin at all', 'POST', '/api/threads', { question: 'hi' }, { origin: '' }, 403, texts.foreignOrigin],
      ['a DELETE from another site', 'DELETE', '/api/threads', undefined, { origin: 'http://evil.example' }, 403, texts.foreignOrigin],
      ['a preflight', 'OPTIONS', '/api/threads', undefined, { origin: 'http://evil.example' }, 405, texts.methodNotAllowed],
      ['another host name', 'GET', '/', undefined, { host: 'evil.example' }, 421, texts.foreignHost],
      ['another port of the loopback address', 'GET', '/api/threads', undefined, { host: '127.0.0.1:1' }, 421, texts.foreignHost],
      ['a name that only begins as the service\'s', 'GET', '/api/threads', undefined, { host: `127.0.0.1:${service.port}0` }, 421, texts.foreignHost],
      ['localhost, in any case, is the service\'s own', 'GET', '/api/threads', undefined, { host: `LocalHost:${service.port}` }, 200, undefined],
      ['a page on another local port', 'POST', '/api/threads', { question: 'hi' }, { origin: 'http://127.0.0.1:1' }, 403, texts.foreignOrigin],
      ['plain text, which any form can send', 'POST', '/api/threads', '{"question":"hi"}', { 'content-type': 'text/plain' }, 400, texts.needsJson],
      ['an upload sent as text', 'POST', '/api/uploads?draft=abcdefgh', 'x', { 'content-type': 'text/plain', 'x-file-name': 'a.txt' }, 400, texts.fileNeedsBytes],
      ['an event stream from a page on another local port', 'GET', '/api/events', undefined, stream({ origin: 'http://127.0.0.1:1' }), 403, texts.foreignOrigin],
      ['a path out of the page\'s folder', 'GET', '/%2e%2e/server.mjs', undefined, {}, 404, texts.notFound],
      // Far over a request head's limit too, where Node would answer a bare 431.
      ['search text of 100,000 characters', 'GET', `/api/search?q=${encodeURIComponent('字'.repeat(100_000))}`, undefined, {}, 400, texts.searchTooLong(200)],
      ['200 characters outside the BMP are not over the limit', 'GET', `/api/search?q=${encodeURIComponent('𝄞'.repeat(200))}`, undefined, {}, 200, undefined],
      ['search text over the limit', 'GET', `/api/search?q=${encodeURIComponent('字'.repeat(201))}`, undefined, {}, 400, texts.searchTooLong(200)],
      ['an event stream with no origin', 'GET', '/api/events', undefined, stream({ origin: '' }), 403, texts.foreignOrigin],
      ['an event stream at another host name', 'GET', '/api/events', undefined, stream({ host: 'evil.example' }), 421, texts.foreignHost],
      ['an event stream of another version', 'GET', '/api/events', undefined, stream({ 'sec-websocket-version': '8' }), 426, texts.notWebSocket],
      ['an event stream not asked with GET', 'POST', '/api/events', undefined, stream(), 405, texts.methodNotAllowed],
      ['an event stream as a plain request', 'GET', '/api/events', undefined, {}, 426, texts.notWebSocket],
      ['turns after no position', 'GET', `/api/threads/${id}/turns?after=-1`, undefined, {}, 400, texts.badPosition],
      ['a title that is not text', 'POST', `/api/threads/${id}/title`, { from: 'finished', title: 42 }, {}, 400, texts.emptyTitle],
      ['an approval answered from another origin', 'POST', `/api/threads/${id}/approvals/${APPROVAL}`, { decision: 'once' }, { origin: 'http://evil.example' }, 403, texts.foreignOrigin],
      ['an approval that waits no more', 'POST', `/api/threads/${id}/approvals/${APPROVAL}`, { decision: 'once' }, {}, 409, texts.approvalGone],
      ['an answer that is none', 'POST', `/api/threads/${id}/approvals/${APPROVAL}`, { decision: 'always' }, {}, 400, texts.badDecision],
      ['a permission level that is none', 'POST', `/api/threads/${id}/permission`, { permission: 'root' }, {}, 400, texts.badPermission],
    ];
    for (const [what, method, path, body, headers, status, message] of cases) {
      const answer = await service.request(method, path, body, headers);
      assert.deepEqual([answer.status, answer.body.error], [status, message], what);
      assert.equal([...answer.headers.keys()].some((name) => name.startsWith('access-control-')), false, what);
    }
    assert.deepEqual(kept(), before);
    // Search text is text, whatever SQL or FTS5 would make of it.
    for (const [text, threads] of [['"finished" * NEAR(-\'%_\\', []], ['FINISHED', [id]]] as const) {
      const answer = await service.request('GET', `/api/search?q=${encodeURIComponent(text)}`);
      assert.deepEqual([answer.status, answer.body.results.map((hit: { threadId: string }) => hit.threadId)], [200, threads], text);
    }
  });
});

test('reading the models, which any site can make a browser do, does not start Codex; the page comes with a policy that allows no inline or outside script, and its scripts as scripts', async () => {
  await withService({}, async (service, methods) => {
    const models = await service.request('GET', '/api/models');
    assert.deepEqual([models.status, methods()], [503, []]);
    const page = await service.request('GET', '/');
    assert.match(page.headers.get('content-security-policy') ?? '', /^default-src 'none'; script-src 'self';/);
    assert.doesNotMatch(page.body, /<script(?![^>]*\bsrc=)/, 'no inline script');
    const module = await service.request('GET', '/vendor/markdown-it/markdown-it.esm.min.mjs');
    assert.equal(module.headers.get('content-type'), 'text/javascript; charset=utf-8');
  });
});

test('another user account of this machine is refused, even from loopback', { skip: process.getuid?.() !== 0 && 'needs root to act as another user' }, async () => {
  await withService({}, async (service) => {
    const fetchAs = (uid: number) => new Promise<string>((resolve) => {
      const script = `fetch(${JSON.stringify(`${service.url}api/threads`)}).then(async (r) => console.log(r.status, (await r.json()).error ?? ''))`;
      let out = '';
      spawn(NODE, ['-e', script], { uid, gid: uid }).on('exit', () => resolve(out.trim())).stdout!.on('data', (chunk) => { out += chunk; });
    });
    assert.equal(await fetchAs(65534), `403 ${texts.foreignUser}`);
    assert.equal(await fetchAs(0), '200');
  });
});

test('a Codex that cannot serve is named in one sentence, where the turn failed too; the health answer goes on', async () => {
  const folder = temporaryFolder('lm-codex-');
  const notExecutable = join(folder, 'codex-plain-file');
  writeFileSync(notExecutable, '#!/bin/sh\n');
  chmodSync(notExecutable, 0o644);
  const rows: [NodeJS.ProcessEnv, string | undefined, string][] = [
    [{}, join(folder, 'no-such-codex'), texts.codexMissing(join(folder, 'no-such-codex'))],
    [{}, notExecutable, texts.codexNotExecutable(notExecutable)],
    [{ FAKE_CODEX_VERSION: '0.100.9' }, undefined, texts.codexTooOld('0.100.9', MINIMUM_CODEX_VERSION)],
    [{ FAKE_CODEX_VERSION: 'garbage' }, undefined, texts.codexUnknownVersion],
  ];
  for (const [env, codexPath, message] of rows) {
    await withService(env, async (service) => {
      const page = service.stream();
      const event = await page.wait('service', (e) => e.service.codex.state === 'unavailable');
      assert.equal(event.service.codex.state === 'unavailable' && event.service.codex.message, message);
      const asked = await service.request('POST', '/api/threads', { question: 'hello?' });
      await page.wait('threadSummary', (e) => !e.thread.running);
      const [turn] = (await service.request('GET', `/api/threads/${asked.body.thread.id}`)).body.thread.turns;
      assert.deepEqual([turn.status, turn.error], ['failed', message]);
      assert.equal((await service.request('GET', '/api/health')).status, 200);
    }, { codexPath });
  }
});

test('an app-server that dies mid-turn: the turn says so, the next question starts Codex again', async () => {
  await withService({ FAKE_CODEX_DIE: 'mid-turn' }, async (service, methods) => {
    const created = await service.request('POST', '/api/threads', { question: 'one' });
    // Read back, not awaited on a stream: Codex may be gone before a page could connect.
    const cut = await until('the turn to end', async () => {
      const [turn] = (await service.request('GET', `/api/threads/${created.body.thread.id}`)).body.thread.turns;
      return turn.status !== 'running' && turn;
    });
    assert.deepEqual([cut.status, cut.error], ['interrupted', texts.turnCutByCodexExit]);
    await service.request('POST', `/api/threads/${created.body.thread.id}/turns`, { question: 'two' });
    await until('the thread to be resumed in a second app-server', () => methods().includes('thread/resume'));
    assert.deepEqual(methods().filter((m) => m.startsWith('thread/') || m === 'initialize'), ['initialize', 'thread/start', 'initialize', 'thread/resume']);
  });
});

test('a kill in the middle of an answer: the next start shows it up to the kill, marked interrupted, finished turns whole', async () => {
  const dataFolder = temporaryFolder('lm-data-');
  let id = '';
  await withService({ FAKE_CODEX_DIE: 'never-finishes' }, async (service) => { id = await twoTurns(service); }, { dataFolder });
  await withService({}, async (service) => {
    const thread = (await service.request('GET', `/api/threads/${id}`)).body.thread;
    assert.deepEqual(thread.turns.map((turn: any) => [turn.status, turn.error, turn.items.map((item: any) => [item.text, item.status])]), [
      ['completed', null, [['partial answer', 'completed']]],
      ['interrupted', texts.turnCutByServiceEnd, [['partial answer', 'stopped']]],
    ]);
    assert.equal(query(service, 'PRAGMA integrity_check')[0]!.integrity_check, 'ok');
  }, { dataFolder });
});

test('on SIGTERM, running turns are interrupted and kept so, and the app-server is gone', async () => {
  await withService({ FAKE_CODEX_DIE: 'never-finishes' }, async (service, methods) => {
    await twoTurns(service);
    const [appServer] = readFileSync(`/proc/${service.child.pid}/task/${service.child.pid}/children`, 'utf8').trim().split(' ').map(Number);
    service.child.kill('SIGTERM');
    assert.deepEqual(await service.exited, [0, null]);
    assert.equal(isRunning(appServer!), false);
    assert.ok(methods().includes('turn/interrupt'));
    assert.deepEqual(query(service, 'SELECT status FROM turns ORDER BY position').map((row) => row.status), ['completed', 'interrupted']);
  });
});

test('a store of a newer version: a question is answered, and nothing of it is left in the data folder', async () => {
  const dataFolder = temporaryFolder('lm-data-');
  const newer = new DatabaseSync(join(dataFolder, 'workspace.db'));
  newer.exec('PRAGMA user_version = 999');
  newer.close();
  await withService({}, async (service) => {
    assert.equal((await service.request('POST', '/api/threads', { question: 'hi' })).status, 201);
    assert.deepEqual(readdirSync(dataFolder), ['workspace.db']);
  }, { dataFolder });
});

test('a data folder that cannot be written: the page says so, questions are refused, health answers', async () => {
  const dataFolder = join(temporaryFolder('lm-data-'), 'data');
  writeFileSync(dataFolder, 'a file where the folder should be');
  await withService({}, async (service) => {
    assert.equal((await service.stream().wait('hello')).service.storage, texts.storageUnwritable);
    const asked = await service.request('POST', '/api/threads', { question: 'hi' });
    assert.deepEqual([asked.status, asked.body.error], [503, texts.storeUnavailable(texts.storageUnwritable)]);
    assert.equal((await service.request('GET', '/api/health')).status, 200);
    assert.equal(readFileSync(dataFolder, 'utf8'), 'a file where the folder should be');
  }, { dataFolder });
});

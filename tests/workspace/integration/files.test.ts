// A thread's files through the running service. Uploads: a file over the limit leaves nothing
// behind, no name reaches outside the thread's folder, a taken name (or a planted link) is never
// written over, and a draft's files become the new thread's. Downloads: each goes out with a type
// from its name and a policy that keeps whatever it holds from running on the page's origin, in
// the ranges asked for; a page showing the folder is told of a change in it; a deleted thread's
// files are gone with it.
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdirSync, readdirSync, readFileSync, symlinkSync, writeFileSync, type Dirent } from 'node:fs';
import { join, relative } from 'node:path';
import { request as httpRequest } from 'node:http';
import { connect } from 'node:net';
import { texts } from '../../../resources/app/workspace/texts.ts';
import { FILE_LIMIT_BYTES, FILE_LIMIT_TEXT } from '../../../resources/app/workspace/files/uploads.ts';
import { fakeCodex, startService, temporaryFolder, until, type Running } from '../../harness/service.ts';

let service: Running;
before(async () => { service = await startService({ codexPath: fakeCodex(temporaryFolder('lm-fake-')) }); });
after(async () => {
  service.child.kill('SIGKILL');
  await service.exited;
});

const upload = (service: Running, place: string, name: string, body: string, headers: Record<string, string> = {}) =>
  service.request('POST', `/api/uploads?${place}`, body, { 'content-type': 'application/octet-stream', 'x-file-name': name, ...headers });

/** Every path below the folder the filter keeps, the store left out, so a test sees anything written anywhere. */
const below = (folder: string, keep: (entry: Dirent) => boolean = () => true) => readdirSync(folder, { recursive: true, withFileTypes: true })
  .filter(keep).map((entry) => relative(folder, join(entry.parentPath, entry.name))).filter((path) => !path.startsWith('workspace.db')).sort();

/** A body sent in chunks with no stated length, stopped at the first byte the service will not take. */
function streamed(service: Running, place: string, bytes: number): Promise<number | string> {
  return new Promise((resolve) => {
    const outgoing = httpRequest({
      host: '127.0.0.1', port: service.port, method: 'POST', path: `/api/uploads?${place}`,
      headers: { host: `127.0.0.1:${service.port}`, origin: service.url.slice(0, -1), 'content-type': 'application/octet-stream', 'x-file-name': 'big.bin' },
    }, (response) => { response.resume(); resolve(response.statusCode!); });
    outgoing.on('error', (error: NodeJS.ErrnoException) => resolve(error.code ?? 'error'));
    const write = (left: number): void => {
      if (left <= 0) outgoing.end();
      else if (outgoing.write(Buffer.alloc(1 << 20, 7))) write(left - (1 << 20));
      else outgoing.once('drain', () => write(left - (1 << 20)));
    };
    write(bytes);
  });
}

test('uploads: limits, names and links, and a draft moved into its thread', async () => {
  const created = await service.request('POST', '/api/threads', { question: 'first' });
  const id: string = created.body.thread.id;
  const thread = `thread=${id}`;
  const folder = join(service.dataFolder, 'threads', id);
  const outside = join(service.dataFolder, 'outside.txt');
  writeFileSync(outside, 'keep me');
  symlinkSync(outside, join(folder, 'planted.txt'));
  const before = below(service.dataFolder);

  const refusals: [string, Promise<{ status: number; body: any }>, number, string][] = [
    ['a name that climbs out', upload(service, thread, '..%2F..%2Fescape.txt', 'x'), 400, texts.fileNameHasSlash],
    ['a stated length over the limit', upload(service, thread, 'big.bin', 'x', { 'content-length': String(FILE_LIMIT_BYTES + 1) }), 413, texts.fileTooLarge(FILE_LIMIT_TEXT)],
    ['a draft token that climbs out', upload(service, 'draft=..%2F..%2Fthreads', 'x.txt', 'x'), 400, texts.badDraft],
    ['an unknown thread', upload(service, 'thread=2020-01-01-deadbeef', 'x.txt', 'x'), 404, texts.noSuchThread],
    ['a form post of a file', upload(service, thread, 'x.txt', 'x', { 'content-type': 'multipart/form-data; boundary=x' }), 400, texts.fileNeedsBytes],
    ['another origin', upload(service, thread, 'x.txt', 'x', { origin: 'http://evil.example' }), 403, texts.foreignOrigin],
    ['a removal that climbs out', service.request('POST', '/api/uploads/remove', { thread: id, name: '../../outside.txt' }), 400, texts.fileNameHasSlash],
  ];
  for (const [what, answer, status, message] of refusals) assert.deepEqual([(await answer).status, (await answer).body.error], [status, message], what);
  // Streamed past the limit without a stated length: stopped there, the partial file removed.
  const over = await streamed(service, thread, FILE_LIMIT_BYTES + (4 << 20));
  assert.ok(over === 413 || over === 'ECONNRESET' || over === 'EPIPE', String(over));
  assert.deepEqual(below(service.dataFolder), before);

  // One name at once twice, and a name a link was planted under: each gets a name of its own.
  const same = await Promise.all(['甲', '乙'].map((body) => upload(service, thread, encodeURIComponent('报告.txt'), body)));
  assert.deepEqual(same.map((answer) => answer.body.name).sort(), ['报告 (2).txt', '报告.txt']);
  assert.deepEqual(['报告.txt', '报告 (2).txt'].map((name) => readFileSync(join(folder, name), 'utf8')).sort(), ['乙', '甲']);
  assert.equal((await upload(service, thread, 'planted.txt', 'new')).body.name, 'planted (2).txt');
  assert.equal(readFileSync(outside, 'utf8'), 'keep me');

  // A question that starts a thread takes its files from the page's draft folder.
  const draft = 'draft-0123456789';
  assert.equal((await upload(service, `draft=${draft}`, 'notes.md', '# 笔记')).status, 201);
  const second = await service.request('POST', '/api/threads', { question: 'with a file', attachments: ['notes.md'], draft });
  assert.deepEqual(second.body.turn.attachments, ['notes.md']);
  assert.equal(readFileSync(join(service.dataFolder, 'threads', second.body.thread.id, 'notes.md'), 'utf8'), '# 笔记');
  assert.deepEqual(readdirSync(join(service.dataFolder, 'drafts', draft)), []);
  const missing = await service.request('POST', `/api/threads/${id}/turns`, { question: 'again', attachments: ['notes.md'] });
  assert.deepEqual([missing.status, missing.body.error], [409, texts.fileMissing('notes.md')]);

  // A client gone midway (a page closed during an upload) is one line in the log, not a fault's stack.
  const client = connect(service.port, '127.0.0.1');
  client.write(`POST /api/uploads?${thread}&gone HTTP/1.1\r\nhost: 127.0.0.1:${service.port}\r\norigin: http://127.0.0.1:${service.port}\r\n`
    + 'content-type: application/octet-stream\r\nx-file-name: gone.txt\r\ncontent-length: 1000\r\n\r\npart');
  await until('the upload to begin', () => readdirSync(folder).some((name) => name.endsWith('.part')));
  client.destroy();
  await until('the log to say so', () => service.output().includes('&gone'));
  assert.doesNotMatch(service.output(), /\n\s+at /);
  await until('the part to go', () => !readdirSync(folder).some((name) => name.endsWith('.part')));
});

test('files go out typed by their names, sandboxed, never as a page of this origin, and in ranges', async () => {
  const id: string = (await service.request('POST', '/api/threads', { question: 'files' })).body.thread.id;
  const folder = join(service.dataFolder, 'threads', id);
  const script = '<script>parent.document.title = "ran"</script>';
  const files: Record<string, string> = {
    'page.html': script, 'figure.svg': `<svg xmlns="http://www.w3.org/2000/svg">${script}</svg>`, 'plot.png': 'png bytes',
    'paper.pdf': '%PDF-1.4', 'blob.bin': script, 'report 报告 #?%.md': '# 报告', 'empty.csv': '',
  };
  for (const [name, body] of Object.entries(files)) writeFileSync(join(folder, name), body);
  const get = (path: string, headers: Record<string, string> = {}) =>
    service.request('GET', `/api/threads/${id}/file?${new URLSearchParams({ path })}`, undefined, headers);

  const text = 'text/plain; charset=utf-8';
  const rows: [string, string, string][] = [
    ['page.html', text, 'inline'], ['figure.svg', 'image/svg+xml', 'attachment'], ['plot.png', 'image/png', 'inline'],
    ['paper.pdf', 'application/pdf', 'inline'], ['blob.bin', 'application/octet-stream', 'attachment'],
    ['report 报告 #?%.md', text, 'inline'], ['empty.csv', text, 'inline'],
  ];
  for (const [name, type, disposition] of rows) {
    const answer = await get(name);
    assert.deepEqual([answer.status, answer.headers.get('content-type'), answer.headers.get('content-disposition')?.split(';')[0]],
      [200, type, disposition], name);
    assert.equal(answer.headers.get('x-content-type-options'), 'nosniff', name);
    const policy = answer.headers.get('content-security-policy') ?? '';
    assert.match(policy, /default-src 'none'/, name);
    if (name !== 'paper.pdf') assert.match(policy, /^sandbox;/, name);
    assert.equal(answer.body, files[name], name);
  }

  const part = await get('page.html', { range: 'bytes=8-13' });
  assert.deepEqual([part.status, part.body, part.headers.get('content-range')], [206, 'parent', `bytes 8-13/${script.length}`]);
  // Listed, then deleted before it is read: said in a sentence.
  const gone = await get('deleted meanwhile.txt');
  assert.deepEqual([gone.status, gone.body.error], [404, texts.noSuchFile]);

  // The whole folder as one archive, which unpacks to the same files; a planted link stays out.
  const deep = join(folder, '结果', '子 文件夹 '.repeat(12).trim());
  mkdirSync(deep, { recursive: true });
  writeFileSync(join(deep, '很长的名字'.repeat(12) + '.bin'), Buffer.alloc(70_000, 5));
  symlinkSync('/etc/passwd', join(folder, 'passwd'));
  const archive = await new Promise<Buffer>((resolve) => httpRequest({
    host: '127.0.0.1', port: service.port, path: `/api/threads/${id}/archive`, headers: { host: `127.0.0.1:${service.port}` },
  }, async (response) => resolve(Buffer.concat(await response.toArray()))).end());
  const unpacked = temporaryFolder('lm-unpacked-');
  execFileSync('tar', ['-xzf', '-', '-C', unpacked], { input: archive });
  const tree = (root: string) => below(root, (entry) => !entry.isDirectory());
  assert.deepEqual(tree(unpacked), tree(folder).filter((path) => path !== 'passwd'));
  for (const path of tree(unpacked)) assert.deepEqual(readFileSync(join(unpacked, path)), readFileSync(join(folder, path)), path);

  // A page showing the folder is told when a file is written in it; a link, or a page with no stream, is refused.
  const stream = service.stream(id);
  const { page } = await stream.wait('hello');
  const watch = (body: object) => service.request('POST', `/api/threads/${id}/watch`, body).then((answer) => answer.status);
  assert.deepEqual([await watch({ page, path: 'passwd' }), await watch({ page: 'gone', path: '' }), await watch({ page, path: '' })], [404, 404, 200]);
  writeFileSync(join(folder, 'new.txt'), 'new');
  await stream.wait('folderChanged', (event) => event.threadId === id && event.path === '');
  stream.close();

  await service.request('POST', `/api/threads/${id}/delete`, {});
  for (const path of [`/api/threads/${id}/files`, `/api/threads/${id}/file?path=plot.png`]) {
    const gone = await service.request('GET', path);
    assert.deepEqual([gone.status, gone.body.error], [404, texts.noSuchThread], path);
  }
});

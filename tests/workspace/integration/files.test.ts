// A thread's files through the running service: each goes out with a type from its name and a
// policy that keeps whatever it holds from running on the page's origin, in the ranges asked for;
// a deleted thread's files are gone with it.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdirSync, readdirSync, readFileSync, symlinkSync, writeFileSync } from 'node:fs';
import { join, relative } from 'node:path';
import { request as httpRequest } from 'node:http';
import { texts } from '../../../resources/app/workspace/texts.ts';
import { fakeCodex, startService, temporaryFolder } from '../../harness/service.ts';

test('files go out typed by their names, sandboxed, never as a page of this origin, and in ranges', async () => {
  const service = await startService({ codexPath: fakeCodex(temporaryFolder('lm-fake-')) });
  try {
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
    assert.equal((await get('page.html', { range: 'bytes=999-' })).status, 416);
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
    const tree = (root: string) => readdirSync(root, { recursive: true, withFileTypes: true }).filter((entry) => !entry.isDirectory())
      .map((entry) => join(relative(root, entry.parentPath), entry.name)).sort();
    assert.deepEqual(tree(unpacked), tree(folder).filter((path) => path !== 'passwd'));
    for (const path of tree(unpacked)) assert.deepEqual(readFileSync(join(unpacked, path)), readFileSync(join(folder, path)), path);

    await service.request('POST', `/api/threads/${id}/delete`, {});
    for (const path of [`/api/threads/${id}/files`, `/api/threads/${id}/file?path=plot.png`]) {
      const gone = await service.request('GET', path);
      assert.deepEqual([gone.status, gone.body.error], [404, texts.noSuchThread], path);
    }
  } finally {
    service.child.kill('SIGKILL');
    await service.exited;
  }
});

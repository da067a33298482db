// The rules for files a question brings and the model it asks for: which names are taken as they
// are, which are refused and why, how a taken name is numbered, and what a choice comes to.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readdirSync, symlinkSync } from 'node:fs';
import { join } from 'node:path';
import { checkAttachments, checkName, numbered, saveUpload } from '../../../resources/app/workspace/files/uploads.ts';
import { answerOf } from '../../../resources/app/workspace/http/refusals.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';
import { temporaryFolder } from '../../harness/service.ts';
import { fileNameOf } from '../../../resources/app/workspace/http/parse.ts';
import { resolveChoice } from '../../../resources/app/workspace/codex/models.ts';
import { Refusal } from '../../../resources/app/workspace/refusal.ts';

const outcome = (decide: () => string) => {
  try {
    return decide();
  } catch (error) {
    return error instanceof Refusal ? `refused: ${error.reason}` : `threw: ${String(error)}`;
  }
};

test('a file name is taken as the user gave it, or refused with the reason', () => {
  const rows: [string, string][] = [
    ['报告.pdf', '报告.pdf'],
    ['.bashrc', '.bashrc'],
    ['...', '...'],
    ['a\u0301.txt', '\u00e1.txt'],
    ['', 'refused: fileNameEmpty'],
    ['../etc/passwd', 'refused: fileNameHasSlash'],
    ['a\\b.txt', 'refused: fileNameHasSlash'],
    ['..', 'refused: fileNameReserved'],
    ['.', 'refused: fileNameReserved'],
    ['a\u0000.txt', 'refused: fileNameHasControl'],
    ['two\nlines.txt', 'refused: fileNameHasControl'],
    ['del\u007f', 'refused: fileNameHasControl'],
    ['c1\u0085', 'refused: fileNameHasControl'],
    ['汉'.repeat(66) + '.t', '汉'.repeat(66) + '.t'],
    ['汉'.repeat(67), 'refused: fileNameTooLong'],
  ];
  for (const [raw, expected] of rows) assert.equal(outcome(() => checkName(raw)), expected, JSON.stringify(raw));
});

test('a question brings at most 20 files', () => {
  const names = (count: number) => Array.from({ length: count }, (_, i) => `${i}.txt`);
  const folder = temporaryFolder('lm-upload-');
  assert.deepEqual([20, 21].map((count) => outcome(() => checkAttachments(folder, names(count)).join())), ['refused: fileMissing', 'refused: tooManyFiles']);
});

test('a name in its header is percent-encoded UTF-8, decoded before the rule', () => {
  const rows: [string | undefined, string][] = [
    [encodeURIComponent('报告 (1).pdf'), '报告 (1).pdf'],
    ['..%2Fx', 'refused: fileNameHasSlash'],
    ['%E6%8A', 'refused: fileNameUnreadable'],
    [undefined, 'refused: fileNameMissing'],
  ];
  for (const [header, expected] of rows) assert.equal(outcome(() => fileNameOf(header)), expected, String(header));
});

test('an upload the disk has no room for is told as a full disk (503), and leaves no part behind', async () => {
  const folder = temporaryFolder('lm-upload-');
  async function* body() {
    yield Buffer.from('first part');
    throw Object.assign(new Error('ENOSPC: no space left on device, write'), { code: 'ENOSPC' });
  }
  const error = await saveUpload(body(), folder, 'a.txt').catch((caught: unknown) => caught);
  assert.deepEqual(answerOf(error), { status: 503, message: texts.storeUnavailable(texts.storageFull) });
  assert.deepEqual(readdirSync(folder), []);
});

test('a folder replaced by a link is refused, and nothing is written where it leads', async () => {
  const [outside, data] = [temporaryFolder('lm-outside-'), temporaryFolder('lm-upload-')];
  symlinkSync(outside, join(data, 'draft'));
  async function* body() { yield Buffer.from('x'); }
  const error = await saveUpload(body(), join(data, 'draft'), 'a.txt').catch((caught: unknown) => caught);
  assert.deepEqual([answerOf(error)?.status, readdirSync(outside)], [409, []]);
});

test('a taken name is numbered before its extension', () => {
  const rows: [string, number, string][] = [
    ['报告.pdf', 1, '报告.pdf'], ['报告.pdf', 2, '报告 (2).pdf'], ['archive.tar.gz', 3, 'archive.tar (3).gz'],
    ['README', 2, 'README (2)'], ['.bashrc', 2, '.bashrc (2)'],
  ];
  for (const [name, n, expected] of rows) assert.equal(numbered(name, n), expected);
});

test('a choice comes to a model Codex offers and an effort that model supports', () => {
  const catalog = {
    models: [{ id: 'a', name: 'A', efforts: ['low', 'high'], defaultEffort: 'low' }, { id: 'b', name: 'B', efforts: [], defaultEffort: null }],
    codexDefault: { model: 'own', effort: 'medium' },
  };
  const rows: [string | null, string | null, string | null, string | null][] = [
    ['a', 'high', 'a', 'high'],
    ['a', null, 'a', 'low'],
    ['a', 'ultra', 'a', 'low'],
    ['gone', 'high', 'own', 'high'],
    [null, null, 'own', 'medium'],
    [null, 'low', 'own', 'low'],
    ['b', 'high', 'b', null],
  ];
  for (const [model, effort, wantModel, wantEffort] of rows) {
    assert.deepEqual(resolveChoice({ model, effort }, catalog), { model: wantModel, effort: wantEffort }, `${model}/${effort}`);
  }
  assert.deepEqual(resolveChoice({ model: 'gone', effort: 'x' }, null), { model: 'gone', effort: 'x' });
});

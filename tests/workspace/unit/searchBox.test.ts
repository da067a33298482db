// The search box's own part: what it refuses before asking the service (as the service counts), and
// hits' snippets, stored Markdown cut anywhere, shown as they read with their matches kept apart.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import '../../harness/pageGlobals.ts';
import { createMarkdown } from '../../../resources/app/public/markdown.js';
import { readSnippet, searchRefusal } from '../../../resources/app/public/searchText.js';
import type { Rules } from '../../../resources/app/workspace/model.ts';

const rules = { searchChars: 200, refusals: { searchTooLong: '太长了' } } as Rules;

test('a search longer than the service takes gets its sentence, however long, counted in characters', () => {
  const rows: [string, string | null][] = [
    ['x'.repeat(200), null], ['x'.repeat(201), '太长了'], ['x'.repeat(100_000), '太长了'],
    ['😀'.repeat(200), null], ['😀'.repeat(201), '太长了'],
  ];
  for (const [text, refusal] of rows) assert.equal(searchRefusal(text, rules), refusal, `${text.length} code units`);
  assert.equal(searchRefusal('x'.repeat(100_000), null), null, 'before the service has said its rules, it decides');
});

test('a snippet reads as its text, its matches kept apart', () => {
  const md = createMarkdown();
  const rows: [string[], string[]][] = [
    [['## 比较 **结论**：', 'WAL', ' 更合适。'], ['比较 结论：', 'WAL', ' 更合适。']],
    [['见 [文档](https://example.com/', 'wal', ') 与 `', 'wal', '` 和 *斜体*'], ['见 文档 与 ', 'wal', ' 和 斜体']],
    [['| 模式 | 写入 |\n|---|---|\n| ', 'WAL', ' | 追加 |'], ['模式 写入 ', 'WAL', ' 追加']],
    [['页 | 4096 |\n| ', 'wal', ' | 8192 |'], ['页 4096 ', 'wal', ' 8192']],
    [['```sql\nPRAGMA journal_mode = ', 'WAL', ';\n```'], ['PRAGMA journal_mode = ', 'WAL', ';']],
    [['萤火虫的 <b>', 'Luciferin', '</b> 会发光'], ['萤火虫的 <b>', 'Luciferin', '</b> 会发光']],
  ];
  for (const [snippet, read] of rows) assert.deepEqual(readSnippet(md, snippet), read, JSON.stringify(snippet));
});

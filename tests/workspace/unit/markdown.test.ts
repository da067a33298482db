// Streaming Markdown draws each settled block once and only the growing rest again. For every
// way an answer can be cut into deltas, what streaming drew must be what the whole text draws:
// otherwise the page would show one thing while streaming and another once the answer is final.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import '../../harness/pageGlobals.ts';
import { createMarkdown, htmlInPieces, StreamingMarkdown } from '../../../resources/app/public/markdown.js';

const md = createMarkdown();

const ANSWERS: Record<string, string> = {
  headings: '# 标题\n\n正文第一段。\n\n## 第二节\n\nSetext 标题\n===\n\n段落\n---\n\n最后一段',
  lists: '要点：\n\n- 一\n- 二\n  继续\n\n- 松散的三\n\n1. first\n2. second\n\n   indented paragraph\n3. third\n\n10. ten\n11. eleven\n\n后记',
  nested: '- outer\n  - inner\n    - innermost\n  - inner two\n- outer two\n\n> quote\nlazy line\n> > nested quote\n\nafter',
  code: 'Run:\n\n```sh\nnpm install\n\n\necho "done"\n```\n\n~~~python\ndef f():\n    return 1\n~~~\n\n    indented code\n\n    more of it\n\nend',
  unclosed: 'Here:\n\n```js\nconst a = 1;\n\nconst b = 2;\n',
  table: '| 名称 | 说明 |\n|---|:---:|\n| a | `x` |\n| b | **y** |\n\n表后的段落',
  inline: '**粗体**跨\n行，*斜体*，`code`，[链接](https://example.com "title")，<https://example.com>，https://auto.example/path。\n\n***\n\n结束。',
  hostile: '<script>alert(1)</script>\n\n<img src=x onerror=alert(1)>\n\n[x](javascript:alert(1)) ![pic](https://example.com/a.png)',
  rules: 'a\n\n---\n\nb\n\n* * *\n\n- - -\n\nc',
  math: '设 $x^2$ 与 \\(y\\)，价格 $5 和 $10。\n$$\n\\frac{1}{2}\n\n# 不在公式里\n\n\\[\na + b\n# 标题\n\\]\n- 项 $$\\sqrt{2}$$\n\n$$\\frac{1}{\n\n$$ 不是公式\n\n$$\n\\frac{a}{',
  blank: '\n\n\npara after blanks\n\n\n\n\nfinal\n',
};

/** Renders text delivered in these pieces the way the page does: settled chunks, then the rest. */
function streamed(pieces: string[]): string {
  const stream = new StreamingMarkdown(md);
  let settled = '';
  let rest = '';
  for (const piece of pieces) {
    const drawn = stream.append(piece);
    settled += drawn.settledHtml;
    rest = drawn.restHtml;
  }
  return settled + rest;
}

/** A fixed sequence of piece lengths, so every run cuts the same way. */
function* lengths(seed: number): Generator<number> {
  let state = seed;
  for (;;) {
    state = (state * 1103515245 + 12345) % 2 ** 31;
    yield 1 + (state % 17);
  }
}

for (const [name, text] of Object.entries(ANSWERS)) {
  test(`${name}: streamed in two pieces at every cut, and in many small ones, it draws as the whole does`, () => {
    const whole = md.render(text);
    for (let cut = 0; cut <= text.length; cut += 1) {
      assert.equal(streamed([text.slice(0, cut), text.slice(cut)]), whole, `cut at ${cut}: ${JSON.stringify(text.slice(0, cut))}`);
    }
    for (const seed of [1, 2, 3, 4, 5]) {
      const pieces: string[] = [];
      const sizes = lengths(seed);
      for (let at = 0; at < text.length;) {
        const size = sizes.next().value!;
        pieces.push(text.slice(at, at + size));
        at += size;
      }
      assert.equal(streamed(pieces), whole, `seed ${seed}`);
    }
  });
}

test('drawn ahead in pieces, cut at every top-level block, an answer is its whole HTML', () => {
  const references = '见 [文档][doc] 与 [另一篇][]。\n\n中间一段。\n\n[doc]: https://example.com/doc\n[另一篇]: https://example.com/other\n';
  for (const [name, text] of Object.entries({ ...ANSWERS, references })) {
    assert.equal([...htmlInPieces(md, text, 1)].join(''), md.render(text), name);
  }
});

test('answers keep no raw HTML or style, and images become links, since the page loads nothing from elsewhere', () => {
  assert.match(md.render('| a | b |\n|:--|--:|\n| 1 | 2 |\n'), /<th class="align-left">a<\/th>\n<th class="align-right">b<\/th>/);
  assert.doesNotMatch(md.render(ANSWERS.table!), /style=/);
  const html = md.render(ANSWERS.hostile!);
  assert.doesNotMatch(html, /<script|<img|href="javascript:/);
  assert.match(html, /&lt;script&gt;/);
  assert.match(html, /<a href="https:\/\/example.com\/a.png">pic<\/a>/);
  // A link the page refuses reads as its words, not as its source.
  assert.match(html, /<a>x<\/a>/);
  // A relative path is only marked, for the page to ask whether it names a file of the thread;
  // a path from the root or with a scheme is words and asks nothing.
  const rows: [string, string][] = [
    ['![图](<out/fig 1.png>)', '<span class="local-image" data-local="out/fig%201.png">图</span>'],
    ['[报告](./report.md)', '<span data-local="./report.md">报告</span>'],
    ['[x](/etc/passwd) ![y](file:///etc/passwd) [z](#top)', '<a>x</a> y <a>z</a>'],
  ];
  for (const [text, expected] of rows) assert.equal(md.renderInline(text), expected, text);
});

test('mathematics is drawn where a formula is meant, and text stays text where it is not', () => {
  const rows: [string, 'math' | 'text' | 'source'][] = [
    ['面积 $x^2$', 'math'], ['\\(a+b\\)', 'math'], ['\\[a+b\\]', 'math'], ['$$\n\\int_0^1 x\\,dx\n$$', 'math'],
    ['$5 和 $10', 'text'], ['$ x$ 与 $x $', 'text'], ['`$x$`', 'text'], ['\\$x$', 'text'], ['$x$5', 'text'],
    ['$$\n\\frac{1}{', 'source'], ['$\\frac{1}{$', 'source'],
  ];
  for (const [text, expected] of rows) {
    const html = md.render(text);
    const drawn = /<math/.test(html) ? 'math' : /class="math-source"/.test(html) ? 'source' : 'text';
    assert.equal(drawn, expected, text);
  }
  assert.match(md.render('$$\n\\frac{1}{'), /\$\$\\frac\{1\}\{/);
});

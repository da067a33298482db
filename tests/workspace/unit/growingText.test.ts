// Growing text in small chunks, so that every way a delta can meet a chunk's end is met: the text
// read back is the text appended, and its length counts as a string's does.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { ChunkPool, GrowingText } from '../../../resources/app/workspace/research/growingText.ts';

const cases: { name: string; deltas: string[] }[] = [
  { name: 'ASCII filling a chunk exactly, then more', deltas: ['12345678', '9'] },
  { name: 'a CJK character that does not fit the chunk\'s last bytes', deltas: ['123456', '中文', '字'] },
  { name: 'an emoji\'s surrogate pair at the chunk\'s end', deltas: ['1234567', '😀x', '😀😀'] },
  { name: 'one delta over several chunks, mixed', deltas: ['a', `${'中😀b'.repeat(10)}`, '', 'é'] },
];

test('what was appended is read back whole, whatever chunk ends it crossed', () => {
  for (const { name, deltas } of cases) {
    const text = new GrowingText(new ChunkPool(8, 4));
    let whole = '';
    for (const delta of deltas) {
      text.append(delta);
      whole += delta;
      // Read between deltas too: the journal reads a text that is still growing.
      assert.deepEqual([text.toString(), text.length], [whole, whole.length], name);
    }
  }
});

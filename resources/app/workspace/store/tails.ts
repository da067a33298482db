// The text a running item gained since its JSON was last written, kept beside it: a flush writes
// what came in its quarter second, not the whole of a long answer again. An item written whole
// (it settled, or changed otherwise) takes its tails in.
import type { Item } from '../model.ts';

/** Text that follows the first `at` characters of one growing part of an item. */
export interface ItemTail {
  turnId: string;
  position: number;
  /** A reasoning item's part; 0 for the one growing text of the others. */
  part: number;
  at: number;
  text: string;
}

/**
 * Puts tails, in order of part and place, in the item. Each run of tails that follow one another
 * is joined first: a part sliced after each tail was copied whole each time, a gigabyte for the
 * tails of a running 12 MiB answer read back for a page.
 */
export function applyTails(item: Item, tails: readonly Omit<ItemTail, 'turnId' | 'position'>[]): void {
  for (let index = 0; index < tails.length;) {
    const { part, at } = tails[index]!;
    const run: string[] = [];
    let end = at;
    for (; index < tails.length && tails[index]!.part === part && tails[index]!.at === end; index += 1) {
      run.push(tails[index]!.text);
      end += tails[index]!.text.length;
    }
    applyTail(item, part, at, run.join(''));
  }
}

/** Puts a tail's text in its place in the item, after the first `at` characters of its part. */
function applyTail(item: Item, part: number, at: number, text: string): void {
  switch (item.kind) {
    case 'answer':
    case 'plan':
      item.text = item.text.slice(0, at) + text;
      return;
    case 'reasoning':
      while (item.parts.length <= part) item.parts.push('');
      item.parts[part] = item.parts[part]!.slice(0, at) + text;
      return;
    case 'command':
      item.output = item.output.slice(0, at) + text;
      return;
  }
}

// What search sees of a thread: the words of each question and item, folded to one case, and the
// snippet shown around a match. Both indexes and the check that decides a hit use these alone, so
// they cannot disagree on what a text holds.
import type { Item } from '../model.ts';

const SNIPPET_CONTEXT = 40;

/**
 * Lower case, one UTF-16 unit for one, so an offset in the folded text is the same offset in the
 * original (a snippet is cut from the original where the folded one matched).
 */
export function fold(text: string): string {
  const lower = text.toLowerCase();
  // Lowering never shortens a character, so equal lengths mean every one kept its length.
  if (lower.length === text.length) return lower;
  let out = '';
  for (const char of text) {
    const low = char.toLowerCase();
    out += low.length === char.length ? low : char;
  }
  return out;
}

/** The words of an item a reader may look for; null for items without any. */
export function wordsOf(item: Item): string | null {
  switch (item.kind) {
    case 'answer':
    case 'plan':
    case 'notice':
    case 'guidance':
      return item.text;
    case 'reasoning':
      return item.parts.join('\n');
    case 'command':
      return `${item.command}\n${item.output}`;
    case 'webSearch':
      return item.query;
    default:
      return null;
  }
}

let foldedFromOthers: Set<string> | undefined;

/**
 * A LIKE pattern that every kept text holding the folded text matches (a question as it is, an
 * item as its JSON), for SQLite to pass over the rest before fold() and includes() are run on
 * them. SQLite's LIKE ignores case in ASCII alone, so a character that other ones fold onto (é
 * from É, k from the Kelvin sign) may be any character; one JSON escapes may be any characters.
 */
export function likePattern(wanted: string): string {
  if (!foldedFromOthers) {
    foldedFromOthers = new Set();
    for (let code = 0x80; code <= 0x10ffff; code += 1) {
      if (code >= 0xd800 && code <= 0xdfff) continue;
      const char = String.fromCodePoint(code);
      const low = char.toLowerCase();
      if (low !== char && low.length === char.length) foldedFromOthers.add(low);
    }
  }
  let pattern = '%';
  for (const char of wanted) {
    const code = char.codePointAt(0)!;
    if (char === '"' || char === '\\' || code < 0x20 || (code >= 0xd800 && code <= 0xdfff)) pattern += '%';
    else if (char === '%' || char === '_') pattern += `\\${char}`;
    else if (foldedFromOthers.has(char)) pattern += '_';
    else pattern += char;
  }
  return `${pattern}%`;
}

/** Text around the first match, with every match in it marked; folded is fold(text). */
export function snippetOf(text: string, folded: string, wanted: string): string[] {
  const first = Math.max(0, folded.indexOf(wanted));
  const start = Math.max(0, first - SNIPPET_CONTEXT);
  const end = Math.min(text.length, first + wanted.length + SNIPPET_CONTEXT * 2);
  const parts: string[] = [];
  let at = start;
  for (let found = folded.indexOf(wanted, start); found !== -1 && found + wanted.length <= end; found = folded.indexOf(wanted, found + wanted.length)) {
    parts.push(text.slice(at, found), text.slice(found, found + wanted.length));
    at = found + wanted.length;
  }
  parts.push(text.slice(at, end));
  if (start > 0) parts[0] = `…${parts[0]!.trimStart()}`;
  if (end < text.length) parts[parts.length - 1] = `${parts.at(-1)!.trimEnd()}…`;
  return parts;
}

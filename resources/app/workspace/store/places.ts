// The places in one block of row ids that hold a trigram, as a row of our own index keeps them.
// Most trigrams are in a few rows of a block: the gaps between their places, seven bits a byte,
// take one or two bytes each. A trigram in more than about one row in eight takes one bit a place
// instead. Either way no row outgrows what a page keeps in line, so none spills over pages.

/** Rows of the index cover this many consecutive ids each. */
export const BLOCK = 4096;
// A bitmap is told apart by its length alone: a list of gaps this long or longer is kept as one.
const BITMAP_BYTES = BLOCK / 8;

/** Places (0 to BLOCK - 1), in any order, as a row's blob. */
export function packPlaces(places: Iterable<number>): Uint8Array {
  const sorted = Uint16Array.from(places).sort();
  const gaps: number[] = [];
  gapsOf(sorted, gaps);
  if (gaps.length < BITMAP_BYTES) return Uint8Array.from(gaps);
  const bitmap = new Uint8Array(BITMAP_BYTES);
  for (const place of sorted) bitmap[place >> 3]! |= 1 << (place & 7);
  return bitmap;
}

/** Appends the gaps of ascending places to out; the last place, after which the next gap counts. */
function gapsOf(sorted: Uint16Array, out: number[], previous = -1): number {
  for (const place of sorted) {
    if (place === previous) continue;
    const gap = place - previous - 1;
    if (gap < 0x80) out.push(gap);
    else out.push(0x80 | (gap >> 7), gap & 0x7f);
    previous = place;
  }
  return previous;
}

/**
 * A row's places with these added. A build writes every row of a block many times over, each
 * time with places below those it holds (it numbers rows downwards): those go in front of the
 * row's bytes, which are not read; a bitmap takes them bit by bit.
 */
export function addPlaces(blob: Uint8Array, places: readonly number[]): Uint8Array {
  if (blob.length === BITMAP_BYTES) {
    const bitmap = blob.slice();
    for (const place of places) bitmap[place >> 3]! |= 1 << (place & 7);
    return bitmap;
  }
  const added = Uint16Array.from(places).sort();
  // The first gap counts from -1: it is the first place.
  const width = (blob[0] ?? 0) & 0x80 ? 2 : 1;
  const first = width === 2 ? ((blob[0]! & 0x7f) << 7) | blob[1]! : blob[0] ?? -1;
  if (added.length > 0 && added[added.length - 1]! < first) {
    const head: number[] = [];
    const last = gapsOf(added, head);
    gapsOf(Uint16Array.of(first), head, last);
    if (head.length + blob.length - width < BITMAP_BYTES) {
      const joined = new Uint8Array(head.length + blob.length - width);
      joined.set(head);
      joined.set(blob.subarray(width), head.length);
      return joined;
    }
  }
  return packPlaces([...unpackPlaces(blob), ...added]);
}

/** A row's places, ascending. */
export function unpackPlaces(blob: Uint8Array): number[] {
  const places: number[] = [];
  if (blob.length === BITMAP_BYTES) {
    for (let byte = 0; byte < BITMAP_BYTES; byte += 1) {
      for (let bits = blob[byte]!; bits !== 0; bits &= bits - 1) places.push(byte * 8 + 31 - Math.clz32(bits & -bits));
    }
    return places;
  }
  let previous = -1;
  for (let at = 0; at < blob.length; at += 1) {
    let gap = blob[at]!;
    if (gap & 0x80) gap = ((gap & 0x7f) << 7) | blob[(at += 1)]!;
    previous += gap + 1;
    places.push(previous);
  }
  return places;
}

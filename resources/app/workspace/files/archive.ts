// A thread's folder as one download: a gzip-compressed tar stream (POSIX pax), written file by
// file as it is read, never whole in memory. Names longer than a tar header holds, or not plain
// ASCII, go in a pax header before their file, as UTF-8.
import { constants } from 'node:fs';
import { open } from 'node:fs/promises';
import { Readable } from 'node:stream';
import { everyFile } from './results.ts';

const BLOCK = 512;
const CHUNK = 64 << 10;

function octal(value: number, width: number): string {
  return value.toString(8).padStart(width - 1, '0');
}

/** One 512-byte ustar header. */
function header(name: string, size: number, mtime: number, type: '0' | 'x'): Buffer {
  const block = Buffer.alloc(BLOCK);
  block.write(name, 0, 100, 'utf8');
  block.write(octal(type === 'x' ? 0o644 : 0o600, 8), 100, 'ascii');
  block.write(octal(0, 8), 108, 'ascii');
  block.write(octal(0, 8), 116, 'ascii');
  block.write(octal(size, 12), 124, 'ascii');
  block.write(octal(Math.floor(mtime / 1000), 12), 136, 'ascii');
  block.write(type, 156, 'ascii');
  block.write('ustar\u000000', 257, 'ascii');
  // The checksum is taken with its own field as blanks.
  block.fill(' ', 148, 156);
  let sum = 0;
  for (const byte of block) sum += byte;
  block.write(`${octal(sum, 7)}\u0000 `, 148, 'ascii');
  return block;
}

const padding = (size: number) => Buffer.alloc((BLOCK - (size % BLOCK)) % BLOCK);

/** A pax record, whose length, in bytes, counts its own digits. */
function paxRecord(key: string, value: string): string {
  const body = ` ${key}=${value}\n`;
  const bytes = Buffer.byteLength(body);
  let length = bytes;
  while (length !== bytes + String(length).length) length = bytes + String(length).length;
  return `${length}${body}`;
}

/** The headers that go before a file: a pax header when its name needs one. */
function headersOf(path: string, size: number, mtime: number): Buffer[] {
  const plain = /^[\x20-\x7e]*$/.test(path) && path.length <= 100;
  if (plain) return [header(path, size, mtime, '0')];
  const pax = Buffer.from(paxRecord('path', path), 'utf8');
  const short = `pax/${path.replace(/[^\x20-\x7e]/g, '_').slice(-90)}`;
  return [header(short, pax.length, mtime, 'x'), pax, padding(pax.length), header(short, size, mtime, '0')];
}

/**
 * The tar of every plain file below the folder. Each file gives exactly the bytes its header
 * states: one that grew meanwhile is cut there, one that shrank is filled out with zeros.
 */
export function folderTar(folder: string): Readable {
  async function* blocks(): AsyncGenerator<Buffer> {
    for await (const { path, absolute, stats } of everyFile(folder)) {
      // A file swapped for a link (or anything else) since it was listed is left out.
      const handle = await open(absolute, constants.O_RDONLY | constants.O_NOFOLLOW | constants.O_NONBLOCK).catch(() => null);
      if (!handle) continue;
      try {
        if ((await handle.stat()).ino !== stats.ino) continue;
        const size = stats.size;
        yield* headersOf(path, size, stats.mtimeMs);
        let left = size;
        while (left > 0) {
          const { buffer, bytesRead } = await handle.read({ buffer: Buffer.alloc(Math.min(CHUNK, left)), position: size - left });
          if (bytesRead === 0) {
            yield Buffer.alloc(left);
            break;
          }
          left -= bytesRead;
          yield buffer.subarray(0, bytesRead);
        }
        yield padding(size);
      } finally {
        await handle.close();
      }
    }
    yield Buffer.alloc(BLOCK * 2);
  }
  return Readable.from(blocks(), { objectMode: false });
}

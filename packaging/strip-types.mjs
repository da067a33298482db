// The shipped form of one of the service's modules, written at build time: its types stripped by
// Node.js's own stripper, the one `--experimental-strip-types` runs. Done at every start instead,
// that stripper stays loaded and keeps the source it read for the life of the service (tens of
// MB). Types become blanks, so every line and column is where the source has it and a stack trace
// points into the TypeScript; relative imports of .ts files name the .js written beside them.
//   node strip-types.mjs SOURCE OUTPUT
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { stripTypeScriptTypes } from 'node:module';
import { dirname } from 'node:path';

const [source, output] = process.argv.slice(2);
const text = readFileSync(source, 'utf8');
const stripped = source.endsWith('.ts') ? stripTypeScriptTypes(text, { mode: 'strip' }) : text;
const shipped = stripped.replace(/(\bfrom\s*|\bimport\s*\(?\s*)(['"])(\.{1,2}\/[^'"\n]*)\.ts\2/g, '$1$2$3.js$2');
// Anything else that names a module of ours by its .ts would load the stripper after all.
const left = /(['"])\.{1,2}\/[^'"\n]*\.ts\1/.exec(shipped);
if (left) {
  console.error(`${source}: ${left[0]} is not an import this build rewrites`);
  process.exit(1);
}
mkdirSync(dirname(output), { recursive: true });
writeFileSync(output, shipped);

#!/usr/bin/env bash
# Fetches the page's libraries at their pinned versions from the npm registry and copies the files
# the page loads, with every licence they carry, into resources/app/public/vendor/. The result is
# committed; run this only to change a version, then read the diff.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
vendor="$root/resources/app/public/vendor"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

markdown_it=15.0.3
dompurify=3.4.18
katex=0.19.1
highlight=11.12.0
papaparse=5.7.1

npm install --no-save --no-audit --no-fund --no-package-lock --loglevel=error --prefix "$work" \
  "markdown-it@$markdown_it" "dompurify@$dompurify" "katex@$katex" "@highlightjs/cdn-assets@$highlight" \
  "papaparse@$papaparse"
modules="$work/node_modules"

rm -rf "$vendor"
mkdir -p "$vendor/markdown-it" "$vendor/dompurify" "$vendor/katex" "$vendor/highlight.js" "$vendor/papaparse"
cp "$modules/markdown-it/dist/browser/markdown-it.esm.min.mjs" "$vendor/markdown-it/"
cp "$modules/markdown-it/LICENSE" "$vendor/markdown-it/LICENSE.txt"
# The browser bundle carries these packages inside it.
for bundled in entities linkify-it mdurl uc.micro punycode.js; do
  licence=$(find "$modules/$bundled" -maxdepth 1 -iname 'licen[cs]e*' | head -n 1)
  cp "$licence" "$vendor/markdown-it/LICENSE.$bundled.txt"
done
cp "$modules/dompurify/dist/purify.min.js" "$vendor/dompurify/"
cp "$modules/dompurify/LICENSE" "$vendor/dompurify/LICENSE.txt"
# KaTeX writes MathML only (its HTML output needs style attributes the page's policy refuses), so
# neither its style sheet nor its fonts are loaded: the browser draws MathML with a system math font.
cp "$modules/katex/dist/katex.min.js" "$vendor/katex/"
cp "$modules/katex/LICENSE" "$vendor/katex/LICENSE.txt"
# The build with the common languages, as an ES module; a light and a dark theme.
cp "$modules/@highlightjs/cdn-assets/es/highlight.min.js" "$vendor/highlight.js/"
cp "$modules/@highlightjs/cdn-assets/styles/github.min.css" "$vendor/highlight.js/"
cp "$modules/@highlightjs/cdn-assets/styles/github-dark.min.css" "$vendor/highlight.js/"
cp "$modules/@highlightjs/cdn-assets/LICENSE" "$vendor/highlight.js/LICENSE.txt"
# CSV and TSV previews. Its bundle is a script that sets a global, not a module: the page loads it
# with a script element when the first table is previewed.
cp "$modules/papaparse/papaparse.min.js" "$vendor/papaparse/"
cp "$modules/papaparse/LICENSE" "$vendor/papaparse/LICENSE.txt"

{
  echo "The page's libraries, as fetched by scripts/vendor-page-libraries.sh (not edited):"
  for package in markdown-it entities linkify-it mdurl uc.micro punycode.js dompurify katex @highlightjs/cdn-assets papaparse; do
    node -e "const p=require('$modules/$package/package.json'); console.log('- ' + p.name + ' ' + p.version + ' (' + (p.license || '') + ')')"
  done
} >"$vendor/VERSIONS.txt"
echo "vendored into $vendor:"
cat "$vendor/VERSIONS.txt"

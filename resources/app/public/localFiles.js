// @ts-check
// Relative paths in Markdown (an answer's ![图](plot.png), a report's [数据](data/x.csv)) name files
// of the thread's folder. The Markdown marks them (markdown.js); once drawn, the service is asked
// which of them are files there, and those become images drawn inline or links to the preview.
// A path that climbs out of the folder is never asked about: it stays text.
import { element } from './dom.js';
import { getJson } from './api.js';
import { fileUrl, filesPath } from './filesPanel.js';

const IMAGES = /\.(png|jpe?g|gif|webp|svg)$/i;

/**
 * The path relative to the thread's folder that a reference written in a file of this folder
 * names, or null when it leaves the folder or is no path at all.
 * @param {string} base the folder of the file holding it ('' for an answer) @param {string} written
 */
export function localPath(base, written) {
  let decoded;
  try {
    decoded = decodeURIComponent(written.replace(/[?#].*$/, ''));
  } catch {
    return null;
  }
  if (decoded === '' || decoded.startsWith('/') || decoded.includes('\\') || decoded.includes('\0')) return null;
  const parts = base === '' ? [] : base.split('/');
  for (const part of decoded.split('/')) {
    if (part === '' || part === '.') continue;
    if (part !== '..') parts.push(part);
    else if (parts.pop() === undefined) return null;
  }
  return parts.length === 0 ? null : parts.join('/');
}

/**
 * Turns the marked references under root into images or links, for those that are files of the
 * thread's folder; the rest stay their words.
 * @param {ParentNode} root @param {string} thread @param {string} base @param {(path: string) => void} open
 */
export async function resolveLocal(root, thread, base, open) {
  const refs = [...root.querySelectorAll('span[data-local]')].map((node) => {
    const path = localPath(base, node.getAttribute('data-local') ?? '');
    node.removeAttribute('data-local');
    return { node, path };
  }).filter(/** @returns {ref is { node: Element, path: string }} */ (ref) => ref.path !== null);
  if (refs.length === 0) return;
  const query = new URLSearchParams(refs.map((ref) => ['path', ref.path]));
  /** @type {{ files: string[] }} */
  const answer = await getJson(`${filesPath(thread)}/which?${query}`).catch(() => ({ files: [] }));
  const files = new Set(answer.files);
  for (const { node, path } of refs) {
    if (!files.has(path) || !node.isConnected) continue;
    const link = element('a', 'local-file');
    link.href = fileUrl(thread, path);
    link.addEventListener('click', (event) => {
      event.preventDefault();
      open(path);
    });
    if (node.classList.contains('local-image') && IMAGES.test(path)) {
      const image = link.appendChild(element('img', 'figure'));
      image.src = fileUrl(thread, path);
      image.alt = node.textContent ?? '';
      image.loading = 'lazy';
    } else {
      link.append(...node.childNodes);
    }
    node.replaceWith(link);
  }
}

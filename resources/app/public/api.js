// @ts-check
// Every request the page makes of the service. An answer that is not ok becomes an Error with the
// service's own sentence for it; a service that cannot be reached, one with the page's sentence
// for that. A request given up on (its signal aborted) rejects with the browser's AbortError.
import { texts } from './texts.js';

/** @param {string} path @param {RequestInit} [init] */
async function request(path, init) {
  /** @type {Response} */
  let answer;
  try {
    answer = await fetch(path, init);
  } catch (error) {
    if (init?.signal?.aborted) throw error;
    throw new Error(texts.unreachable);
  }
  if (answer.ok) return answer;
  /** @type {{ error?: string }} */
  const refusal = await answer.json().catch(() => ({}));
  throw new Error(refusal.error ?? texts.refused(answer.status));
}

/** A body that stops arriving is a service gone. @template T @param {Promise<T>} reading */
const whole = (reading) => reading.catch(() => { throw new Error(texts.unreachable); });

/** @param {string} path @param {AbortSignal} [signal] @returns {Promise<any>} */
export async function getJson(path, signal) {
  return whole((await request(path, { signal })).json());
}

/** @param {string} path @param {unknown} body @returns {Promise<any>} */
export async function postJson(path, body) {
  const answer = await request(path, { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) });
  return whole(answer.json());
}

/**
 * A file into a thread's folder or a draft's; the name it was given there.
 * @param {Record<string, string>} place @param {File} file @returns {Promise<string>}
 */
export async function upload(place, file) {
  const answer = await request(`/api/uploads?${new URLSearchParams(place)}`, {
    method: 'POST',
    headers: { 'Content-Type': 'application/octet-stream', 'X-File-Name': encodeURIComponent(file.name) },
    body: file,
  });
  return (await whole(answer.json())).name;
}

/** The name in a Content-Disposition header (its UTF-8 form when given). @param {string | null} header */
function fileNameOf(header) {
  const utf8 = /filename\*=UTF-8''([^;]+)/i.exec(header ?? '');
  if (utf8) return decodeURIComponent(utf8[1] ?? '');
  return /filename="([^"]+)"/.exec(header ?? '')?.[1] ?? 'download';
}

/** A file the service names, handed to the browser's downloads. @param {string} path */
export async function download(path) {
  const answer = await request(path);
  const url = URL.createObjectURL(await whole(answer.blob()));
  const link = document.createElement('a');
  link.href = url;
  link.download = fileNameOf(answer.headers.get('Content-Disposition'));
  link.click();
  setTimeout(() => URL.revokeObjectURL(url), 60_000);
}

/**
 * The start of a file as text, at most limit bytes of it; whole says whether that was all of it.
 * A multi-byte character cut at the limit reads as one replacement character at the end.
 * @param {string} path @param {number} limit @returns {Promise<{ text: string, whole: boolean, size: number }>}
 */
export async function getText(path, limit) {
  const answer = await request(path, { headers: { Range: `bytes=0-${limit - 1}` } });
  const bytes = await whole(answer.arrayBuffer());
  const size = Number(/\/(\d+)$/.exec(answer.headers.get('Content-Range') ?? '')?.[1] ?? bytes.byteLength);
  return { text: new TextDecoder().decode(bytes), whole: bytes.byteLength >= size, size };
}

/** The address of the service's event stream. @param {URLSearchParams} query */
export function eventsUrl(query) {
  const search = query.toString();
  return `ws://${location.host}/api/events${search ? `?${search}` : ''}`;
}

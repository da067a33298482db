// A thread as one Markdown file: its questions with the files they carried, answers, commands with
// their output and the files Codex changed, in the order they happened. Reasoning and tool calls
// stay out: they are working notes, not the research.
import { texts } from '../texts.ts';
import type { Item, Thread, Turn } from '../model.ts';

const FILE_NAME_LENGTH = 80;
// Made when a thread is exported, not when the service loads: a formatter draws ICU's locale data
// into the service's memory for good (8 MB), which few runs ever need.
const when = (date: number) => new Intl.DateTimeFormat('zh-CN', { dateStyle: 'medium', timeStyle: 'short', hour12: false }).format(date);

/** A fence longer than any run of backticks inside, so no output can close it early. */
function fenced(text: string, language = ''): string {
  const longest = Math.max(0, ...[...text.matchAll(/`+/g)].map((run) => run[0].length));
  const fence = '`'.repeat(Math.max(3, longest + 1));
  return `${fence}${language}\n${text.endsWith('\n') || text === '' ? text : `${text}\n`}${fence}`;
}

function quoted(text: string): string {
  return text.split('\n').map((line) => (line === '' ? '>' : `> ${line}`)).join('\n');
}

function itemMarkdown(item: Item): string | null {
  switch (item.kind) {
    case 'answer':
      return item.text.trim() === '' ? null : item.text.trim();
    case 'command': {
      const output = item.dropped > 0 ? `${item.output}\n${texts.exportDropped(item.dropped)}` : item.output;
      return `**${texts.exportCommand(item.exitCode)}**\n\n${fenced(`$ ${item.command}\n${output}`, 'console')}`;
    }
    case 'fileChange':
      return [`**${texts.exportFiles}**`, ...item.changes.map((change) =>
        `- ${texts.exportChange[change.change]} \`${change.path}\`${change.diff.trim() === '' ? '' : `\n\n${fenced(change.diff, 'diff')}`}`)].join('\n\n');
    case 'webSearch':
      return `*${texts.exportSearch(item.query)}*`;
    case 'plan':
      return item.text.trim() === '' ? null : item.text.trim();
    case 'notice':
      return quoted(item.text);
    case 'guidance':
      return texts.exportGuidance(item.text);
    case 'reasoning':
    case 'tool':
      return null;
  }
}

/** The pages a turn drew on: those its searches opened, and the web links its answers cite; each once. */
function sourcesOf(turn: Turn): Map<string, string> {
  const sources = new Map<string, string>();
  const add = (url: string, title: string) => {
    if (!sources.has(url)) sources.set(url, title.trim() || new URL(url).hostname);
  };
  for (const item of turn.items) {
    if (item.kind === 'webSearch' && item.url && URL.canParse(item.url)) add(item.url, '');
    if (item.kind !== 'answer') continue;
    for (const [, title = '', url = ''] of item.text.matchAll(/\[([^\]\n]*)\]\((https?:\/\/[^\s)]+)\)/g)) if (URL.canParse(url)) add(url, title);
  }
  return sources;
}

function turnMarkdown(turn: Turn): string {
  const parts = [`## ${texts.exportQuestion(turn.position + 1)}`, quoted(turn.question)];
  const files = turn.attachments ?? [];
  if (files.length > 0) parts.push([`**${texts.exportAttachments}**`, ...files.map((name) => `- \`${name}\``)].join('\n'));
  parts.push(`### ${texts.exportAnswer}`);
  for (const item of turn.items) {
    const text = itemMarkdown(item);
    if (text !== null) parts.push(text);
  }
  const sources = sourcesOf(turn);
  if (sources.size > 0) parts.push(`**${texts.exportSources}**`, [...sources].map(([url, title]) => `- [${title.replaceAll(']', '\\]')}](${url})`).join('\n'));
  if (turn.status !== 'completed') parts.push(`*${texts.exportUnfinished(turn.error ?? turn.status)}*`);
  return parts.join('\n\n');
}

/** The thread, and links to the files of its folder by their paths relative to it (beside which the export belongs). */
export function threadMarkdown(thread: Pick<Thread, 'title' | 'createdAt' | 'updatedAt' | 'turns'>, files: readonly string[] = []): string {
  const head = `# ${thread.title}\n\n${texts.exportHeading(when(thread.createdAt), when(thread.updatedAt))}`;
  const listed = files.map((path) => `- [${path.replace(/[[\]\\]/g, '\\$&')}](${path.split('/').map(encodeURIComponent).join('/')})`);
  const tail = listed.length === 0 ? [] : [`## ${texts.exportFolder}`, listed.join('\n')];
  return `${[head, ...thread.turns.map(turnMarkdown), ...tail].join('\n\n')}\n`;
}

/**
 * The file's name, from the title: nothing a file system or a shell treats specially, no leading
 * dot, short enough for any file system; the thread id when nothing of the title is left.
 */
export function exportFileName(title: string, threadId: string, extension = '.md'): string {
  const cleaned = title
    .replace(/[\u0000-\u001f\u007f/\\:*?"<>|]/g, ' ')
    .replace(/\s+/g, ' ')
    .replace(/^[\s.]+|[\s.]+$/g, '');
  const name = [...cleaned].slice(0, FILE_NAME_LENGTH).join('').trim();
  return `${name === '' ? threadId : name}${extension}`;
}

/** Content-Disposition for a download: the UTF-8 name for browsers, the id (plain ASCII) for the rest. */
export function attachment(name: string, threadId: string): string {
  return disposition('attachment', name, `${threadId}.md`);
}

/** Content-Disposition with the UTF-8 name for browsers, and a plain ASCII one for the rest. */
export function disposition(kind: 'attachment' | 'inline', name: string, fallback: string): string {
  const encoded = encodeURIComponent(name).replace(/['()*]/g, (char) => `%${char.charCodeAt(0).toString(16).toUpperCase()}`);
  return `${kind}; filename="${fallback}"; filename*=UTF-8''${encoded}`;
}

// Codex's items and errors as the page shows them.
import { texts } from '../texts.ts';
import type { CodexItem, CodexTokenBreakdown, CodexTurnError } from './protocol.ts';
import type { Item, ItemStatus, Usage } from '../model.ts';

/** How much of one command's output is kept; the rest is counted, not kept. */
export const OUTPUT_LIMIT = 1 << 20;

function statusOf(status: string | undefined): ItemStatus {
  if (status === 'inProgress') return 'running';
  if (status === 'failed' || status === 'declined') return 'failed';
  return 'completed';
}

/** The command as the model wrote it, without the login shell Codex wraps it in. */
function commandText(item: Extract<CodexItem, { type: 'commandExecution' }>): string {
  const actions = item.commandActions ?? [];
  if (actions.length === 1 && typeof actions[0]!.command === 'string') return actions[0]!.command;
  return item.command;
}

export function keepOutput(output: string): { output: string; dropped: number } {
  return output.length <= OUTPUT_LIMIT
    ? { output, dropped: 0 }
    : { output: output.slice(0, OUTPUT_LIMIT), dropped: output.length - OUTPUT_LIMIT };
}

/**
 * The page's item for a Codex item at this position, or null for items the page does not show
 * (the user's own message, which the turn's question already is, and Codex's bookkeeping).
 */
export function toItem(codex: CodexItem, position: number): Item | null {
  switch (codex.type) {
    case 'agentMessage': {
      const item = codex as Extract<CodexItem, { type: 'agentMessage' }>;
      return { kind: 'answer', position, status: 'running', text: item.text ?? '' };
    }
    case 'reasoning': {
      const item = codex as Extract<CodexItem, { type: 'reasoning' }>;
      return { kind: 'reasoning', position, status: 'running', parts: [...(item.summary ?? [])] };
    }
    case 'commandExecution': {
      const item = codex as Extract<CodexItem, { type: 'commandExecution' }>;
      return {
        kind: 'command', position, status: statusOf(item.status), command: commandText(item),
        ...keepOutput(item.aggregatedOutput ?? ''), exitCode: item.exitCode ?? null, durationMs: item.durationMs ?? null,
      };
    }
    case 'webSearch': {
      const item = codex as Extract<CodexItem, { type: 'webSearch' }>;
      const query = item.query || item.action?.query || item.action?.url || '';
      const url = item.action?.url;
      return { kind: 'webSearch', position, status: 'running', query, ...(url ? { url } : {}) };
    }
    case 'fileChange': {
      const item = codex as Extract<CodexItem, { type: 'fileChange' }>;
      const changes = (item.changes ?? []).map((change) => ({ path: change.path, change: change.kind.type, diff: change.diff }));
      return { kind: 'fileChange', position, status: statusOf(item.status), changes };
    }
    case 'mcpToolCall': {
      const item = codex as Extract<CodexItem, { type: 'mcpToolCall' }>;
      return { kind: 'tool', position, status: statusOf(item.status), name: `${item.server}.${item.tool}` };
    }
    case 'dynamicToolCall': {
      const item = codex as Extract<CodexItem, { type: 'dynamicToolCall' }>;
      return { kind: 'tool', position, status: statusOf(item.status), name: item.tool };
    }
    case 'plan': {
      const item = codex as Extract<CodexItem, { type: 'plan' }>;
      return { kind: 'plan', position, status: 'running', text: item.text ?? '' };
    }
    default:
      return null;
  }
}

/** Codex's completed item laid over what streaming built: Codex's word is final; `whole` is what streamed, where it has none. */
export function completeItem(current: Item, codex: CodexItem, whole = () => current): Item {
  const final = toItem(codex, current.position);
  if (!final || final.kind !== current.kind) return { ...whole(), status: 'completed' } as Item;
  const done = (final.status === 'running' ? { ...final, status: 'completed' } : final) as Item;
  // Codex leaves the aggregate out when the command's output was streamed in full.
  if (done.kind === 'command' && current.kind === 'command' && done.output === '') {
    return { ...done, output: current.output, dropped: current.dropped };
  }
  return done;
}

export function usageOf(total: CodexTokenBreakdown, base: CodexTokenBreakdown | null): Usage {
  const minus = (key: keyof CodexTokenBreakdown) => Math.max(0, total[key] - (base?.[key] ?? 0));
  return {
    input: minus('inputTokens'), cachedInput: minus('cachedInputTokens'), output: minus('outputTokens'),
    reasoning: minus('reasoningOutputTokens'), total: minus('totalTokens'),
  };
}

const KNOWN: Record<string, string> = {
  unauthorized: texts.unauthorized,
  modelNotFound: texts.modelNotFound,
  usageLimitExceeded: texts.usageLimit,
  sessionBudgetExceeded: texts.usageLimit,
  contextWindowExceeded: texts.contextWindow,
  httpConnectionFailed: texts.connectionFailed,
  responseStreamConnectionFailed: texts.connectionFailed,
  responseStreamDisconnected: texts.connectionFailed,
  serverOverloaded: texts.overloaded,
  rateLimitExceeded: texts.overloaded,
};

/** One sentence for the page from what Codex reported. */
export function describeError(error: CodexTurnError): string {
  const info = error.codexErrorInfo;
  const key = typeof info === 'string' ? info : info && typeof info === 'object' ? Object.keys(info)[0] : undefined;
  if (key === 'responseTooManyFailedAttempts' || key === 'httpConnectionFailed') {
    const status = (info as Record<string, { httpStatusCode?: number | null }>)[key]?.httpStatusCode;
    if (status === 401) return texts.unauthorized;
  }
  if (key && KNOWN[key]) return KNOWN[key];
  return texts.codexError(error.message);
}

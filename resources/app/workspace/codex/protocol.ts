// The part of Codex's app-server protocol (stable methods and fields only) this service reads.
// The generated schema of the installed version is the reference:
// `codex app-server generate-ts --out DIR`.

export interface CodexTurnError {
  message: string;
  codexErrorInfo?: string | Record<string, unknown> | null;
}

export type CodexItem =
  | { type: 'userMessage'; id: string }
  | { type: 'agentMessage'; id: string; text: string }
  | { type: 'reasoning'; id: string; summary: string[] }
  | {
    type: 'commandExecution'; id: string; command: string;
    commandActions?: { command?: string }[];
    status: 'inProgress' | 'completed' | 'failed' | 'declined';
    aggregatedOutput: string | null; exitCode: number | null; durationMs: number | null;
  }
  | { type: 'webSearch'; id: string; query?: string | null; action?: { query?: string | null; url?: string | null } | null }
  | {
    type: 'fileChange'; id: string; status: 'inProgress' | 'completed' | 'failed' | 'declined';
    changes: { path: string; kind: { type: 'add' | 'delete' | 'update' }; diff: string }[];
  }
  | { type: 'mcpToolCall'; id: string; server: string; tool: string; status: 'inProgress' | 'completed' | 'failed' }
  | { type: 'dynamicToolCall'; id: string; tool: string; status: string }
  | { type: 'plan'; id: string; text: string }
  | { type: string; id: string };

export interface CodexTokenBreakdown {
  totalTokens: number;
  inputTokens: number;
  cachedInputTokens: number;
  outputTokens: number;
  reasoningOutputTokens: number;
}

/** The notifications a turn is made of, by method. */
export interface TurnNotifications {
  'turn/started': { threadId: string; turn: { id: string } };
  'item/started': { threadId: string; turnId: string; item: CodexItem };
  'item/completed': { threadId: string; turnId: string; item: CodexItem };
  'item/agentMessage/delta': { threadId: string; turnId: string; itemId: string; delta: string };
  'item/reasoning/summaryPartAdded': { threadId: string; turnId: string; itemId: string; summaryIndex: number };
  'item/reasoning/summaryTextDelta': { threadId: string; turnId: string; itemId: string; summaryIndex: number; delta: string };
  'item/commandExecution/outputDelta': { threadId: string; turnId: string; itemId: string; delta: string };
  'thread/tokenUsage/updated': { threadId: string; turnId: string; tokenUsage: { total: CodexTokenBreakdown; last: CodexTokenBreakdown } };
  'error': { threadId: string; turnId: string; error: CodexTurnError; willRetry: boolean };
  'turn/completed': {
    threadId: string;
    turn: { id: string; status: 'completed' | 'interrupted' | 'failed' | 'inProgress'; error: CodexTurnError | null };
  };
}

export type TurnNotification = { [M in keyof TurnNotifications]: { method: M; params: TurnNotifications[M] } }[keyof TurnNotifications];

export function isTurnNotification(method: string, params: unknown): boolean {
  return TURN_METHODS.has(method) && typeof params === 'object' && params !== null
    && typeof (params as { threadId?: unknown }).threadId === 'string';
}

const TURN_METHODS = new Set<string>([
  'turn/started', 'item/started', 'item/completed', 'item/agentMessage/delta', 'item/reasoning/summaryPartAdded',
  'item/reasoning/summaryTextDelta', 'item/commandExecution/outputDelta', 'thread/tokenUsage/updated', 'error',
  'turn/completed',
] satisfies (keyof TurnNotifications)[]);

export const SANDBOX = 'workspace-write';
export const APPROVAL_POLICY = 'never';

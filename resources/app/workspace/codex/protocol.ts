// The part of Codex's app-server protocol this service speaks (stable methods, and only the fields
// it uses), both ways: what it asks Codex and the answers, and what Codex tells it unasked. The
// generated schema of the installed version is the reference: `codex app-server generate-ts --out DIR`.

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

export type CodexSandboxMode = 'read-only' | 'workspace-write';

/** What a turn's commands may touch; Codex's own sandbox enforces it. */
export type CodexSandboxPolicy =
  | { type: 'readOnly'; networkAccess: boolean }
  | { type: 'workspaceWrite'; writableRoots: string[]; networkAccess: boolean; excludeTmpdirEnvVar: boolean; excludeSlashTmp: boolean };

/** How a Codex thread works: in its folder, asking before it goes beyond its sandbox. */
export interface CodexThreadSettings {
  cwd?: string | null;
  approvalPolicy?: 'on-request' | null;
  sandbox?: CodexSandboxMode | null;
  config?: Record<string, string> | null;
}

export type CodexInput = { type: 'text'; text: string; text_elements: [] } | { type: 'localImage'; path: string };

export interface CodexModel {
  id: string;
  displayName: string;
  hidden: boolean;
  supportedReasoningEfforts: { reasoningEffort: string }[];
  defaultReasoningEffort: string;
  isDefault: boolean;
}

export interface CodexAccount {
  account: null | { type: string; email?: string | null; planType?: string | null };
  requiresOpenaiAuth: boolean;
}

export type CodexLogin =
  | { type: 'chatgpt'; loginId: string; authUrl: string }
  | { type: 'chatgptDeviceCode'; loginId: string; verificationUrl: string; userCode: string };

export interface CodexRateWindow { usedPercent: number; windowDurationMins: number | null; resetsAt: number | null }
export interface CodexRateLimits { primary: CodexRateWindow | null; secondary: CodexRateWindow | null }

type Nothing = Record<string, never>;

/** What this service asks of Codex, by method: the parameters it sends and the answer it reads. */
export interface CodexRequests {
  'initialize': {
    params: { clientInfo: { name: string; title: string; version: string }; capabilities: { experimentalApi: boolean } };
    result: { userAgent: string };
  };
  'thread/start': { params: CodexThreadSettings; result: { thread: { id: string } } };
  'thread/resume': { params: CodexThreadSettings & { threadId: string }; result: { thread: { id: string } } };
  'turn/start': {
    params: {
      threadId: string; input: CodexInput[]; model?: string; effort?: string;
      approvalPolicy: 'on-request'; sandboxPolicy: CodexSandboxPolicy;
    };
    result: { turn: { id: string } };
  };
  'turn/interrupt': { params: { threadId: string; turnId: string }; result: Nothing };
  'turn/steer': { params: { threadId: string; expectedTurnId: string; input: CodexInput[] }; result: { turnId: string } };
  'thread/fork': { params: CodexThreadSettings & { threadId: string; lastTurnId: string }; result: { thread: { id: string } } };
  /** The thread's history before this turn (0.169 has it; 0.146 has only thread/rollback). */
  'thread/revert': { params: { threadId: string; beforeTurnId: string }; result: unknown };
  /** The thread's history without its last turns (0.146; gone by 0.169). */
  'thread/rollback': { params: { threadId: string; numTurns: number }; result: unknown };
  'model/list': { params: { cursor?: string }; result: { data: CodexModel[]; nextCursor: string | null } };
  'config/read': { params: Nothing; result: { config: { model: string | null; model_reasoning_effort: string | null } } };
  'account/read': { params: Nothing; result: CodexAccount };
  'account/login/start': { params: { type: CodexLogin['type'] }; result: CodexLogin };
  'account/login/cancel': { params: { loginId: string }; result: { status: string } };
  'account/logout': { params: Nothing; result: Nothing };
  'account/rateLimits/read': { params: Nothing; result: { rateLimits: CodexRateLimits } };
}

export type CodexMethod = keyof CodexRequests;

/** Codex as everything that asks it something sees it. */
export interface CodexPort {
  request<M extends CodexMethod>(method: M, params: CodexRequests[M]['params'], timeoutMs?: number): Promise<CodexRequests[M]['result']>;
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
  'thread/tokenUsage/updated': {
    threadId: string; turnId: string;
    tokenUsage: { total: CodexTokenBreakdown; last: CodexTokenBreakdown; modelContextWindow?: number | null };
  };
  'error': { threadId: string; turnId: string; error: CodexTurnError; willRetry: boolean };
  'turn/completed': {
    threadId: string;
    turn: { id: string; status: 'completed' | 'interrupted' | 'failed' | 'inProgress'; error: CodexTurnError | null };
  };
}

/** The account's notifications, by method: who is signed in, a sign-in's end, the usage limits. */
export interface AccountNotifications {
  'account/updated': Record<string, unknown>;
  'account/login/completed': { loginId: string | null; success: boolean; error: string | null };
  'account/rateLimits/updated': { rateLimits: CodexRateLimits };
}

/** Codex asking before it goes beyond its sandbox, by method: what it sends and the decision it reads. */
export interface ApprovalRequests {
  'item/commandExecution/requestApproval': {
    params: {
      threadId: string; turnId: string; itemId: string; reason?: string | null;
      command?: string | null; cwd?: string | null; commandActions?: { command?: string }[] | null;
    };
    result: { decision: CodexDecision };
  };
  'item/fileChange/requestApproval': {
    params: { threadId: string; turnId: string; itemId: string; reason?: string | null; grantRoot?: string | null };
    result: { decision: CodexDecision };
  };
}

export type CodexDecision = 'accept' | 'acceptForSession' | 'decline' | 'cancel';
type Request<Map> = { [M in keyof Map]: { method: M; params: Map[M] extends { params: infer P } ? P : never } }[keyof Map];
export type ApprovalRequest = Request<ApprovalRequests>;

const APPROVAL_METHODS = new Set<string>(['item/commandExecution/requestApproval', 'item/fileChange/requestApproval'] satisfies (keyof ApprovalRequests)[]);

export function isApprovalRequest(message: CodexMessage): message is ApprovalRequest {
  return APPROVAL_METHODS.has(message.method) && isObject(message.params) && typeof message.params.threadId === 'string'
    && typeof message.params.turnId === 'string';
}

type Notification<Map> = { [M in keyof Map]: { method: M; params: Map[M] } }[keyof Map];
export type TurnNotification = Notification<TurnNotifications>;
export type AccountNotification = Notification<AccountNotifications>;

/** A notification as it comes off the wire, before anyone has looked at it. */
export interface CodexMessage {
  method: string;
  params: unknown;
}

const TURN_METHODS = new Set<string>([
  'turn/started', 'item/started', 'item/completed', 'item/agentMessage/delta', 'item/reasoning/summaryPartAdded',
  'item/reasoning/summaryTextDelta', 'item/commandExecution/outputDelta', 'thread/tokenUsage/updated', 'error',
  'turn/completed',
] satisfies (keyof TurnNotifications)[]);

const ACCOUNT_METHODS = new Set<string>([
  'account/updated', 'account/login/completed', 'account/rateLimits/updated',
] satisfies (keyof AccountNotifications)[]);

const isObject = (value: unknown): value is Record<string, unknown> => typeof value === 'object' && value !== null;

// A turn's notification is sorted by its thread before anything else of it is read.
export function isTurnNotification(message: CodexMessage): message is TurnNotification {
  return TURN_METHODS.has(message.method) && isObject(message.params) && typeof message.params.threadId === 'string';
}

export function isAccountNotification(message: CodexMessage): message is AccountNotification {
  return ACCOUNT_METHODS.has(message.method) && isObject(message.params);
}

export interface NotificationReaders {
  account(notification: AccountNotification): void;
  turn(notification: TurnNotification): void;
}

/** Each notification to the one who reads it; those nobody reads (Codex says much) go nowhere. */
export function routeNotifications(readers: NotificationReaders): (method: string, params: unknown) => void {
  return (method, params) => {
    const message = { method, params };
    if (isTurnNotification(message)) readers.turn(message);
    else if (isAccountNotification(message)) readers.account(message);
  };
}

export const APPROVAL_POLICY = 'on-request';

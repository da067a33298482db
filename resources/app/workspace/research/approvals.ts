// What Codex asks a person to allow while its turn waits: a card on every page, answered by the
// first person to decide on any of them, declined when nobody has within ten minutes, and let go
// when its turn ends. Nothing is ever allowed but by a person's click: "allow for this thread" is
// one, and holds for what that thread asks later, until the service ends or its level changes.
import { randomUUID } from 'node:crypto';
import { Refusal } from '../refusal.ts';
import { RpcError } from '../codex/rpc.ts';
import { isApprovalRequest, type ApprovalRequest, type CodexDecision } from '../codex/protocol.ts';
import { texts } from '../texts.ts';
import type { Clock, Timer } from '../clock.ts';
import type { Approval, ApprovalDecision, PageEvent } from '../model.ts';

export const APPROVAL_LIMIT_MS = 10 * 60_000;

const DECISIONS: Record<ApprovalDecision, CodexDecision> = { once: 'accept', thread: 'acceptForSession', decline: 'decline' };

export interface ApprovalsOptions {
  clock: Clock;
  publish(event: PageEvent): void;
  /** The running turn of this Codex thread, by the workspace's ids, and the files its item would change; null when none runs here. */
  turnOf(codexThreadId: string, codexItemId: string): { threadId: string; turnId: string; files: string[] } | null;
  /** Says in the thread's running turn what became of a request. */
  note(threadId: string, text: string): void;
  /** Whether the thread waits for a person has changed. */
  waitingChanged(threadId: string): void;
}

interface Pending {
  approval: Approval;
  decide(decision: CodexDecision): void;
  timer: Timer;
}

function describe(request: ApprovalRequest, turn: { threadId: string; turnId: string; files: string[] }, now: number): Approval {
  const base = { id: randomUUID(), ...turn, reason: request.params.reason ?? null, askedAt: now };
  if (request.method === 'item/fileChange/requestApproval') {
    return { ...base, kind: 'fileChange', command: null, cwd: request.params.grantRoot ?? null };
  }
  const { command, commandActions, cwd } = request.params;
  // The parsed command reads as the model wrote it; the whole one carries the shell it runs in.
  const words = commandActions?.map((action) => action.command).filter((each) => typeof each === 'string').join(' && ');
  return { ...base, kind: 'command', command: words || command || '', cwd: cwd ?? null };
}

const whatOf = (approval: Approval) => approval.command ?? approval.files.join('、');

export class Approvals {
  readonly #options: ApprovalsOptions;
  readonly #pending = new Map<string, Pending>();
  readonly #allowed = new Set<string>();

  constructor(options: ApprovalsOptions) {
    this.#options = options;
  }

  /** Codex's request to this client, answered once decided; anything but an approval is not ours to grant. */
  request(method: string, params: unknown): Promise<{ decision: CodexDecision }> {
    const message = { method, params };
    if (!isApprovalRequest(message)) throw new RpcError(-32601, `${method} is not supported by this client`);
    const turn = this.#options.turnOf(message.params.threadId, message.params.itemId);
    if (!turn) return Promise.resolve({ decision: 'decline' });
    if (this.#allowed.has(turn.threadId)) return Promise.resolve({ decision: 'acceptForSession' });
    const { clock, publish } = this.#options;
    const approval = describe(message, turn, clock.now());
    const first = !this.waiting(turn.threadId);
    return new Promise((resolve) => {
      const timer = clock.after(APPROVAL_LIMIT_MS, () => {
        this.#end(approval.id, 'decline');
        this.#options.note(approval.threadId, texts.approvalExpired(whatOf(approval)));
      });
      this.#pending.set(approval.id, { approval, decide: (decision) => resolve({ decision }), timer });
      publish({ type: 'approval', approval });
      if (first) this.#options.waitingChanged(turn.threadId);
    });
  }

  /** A person's answer; refused once the request waits no more (answered, declined at the limit, its turn ended). */
  answer(threadId: string, id: string, decision: ApprovalDecision): void {
    const pending = this.#pending.get(id);
    if (pending?.approval.threadId !== threadId) throw new Refusal('approvalGone');
    // What the thread keeps of a card is what a person refused or allowed beyond the request itself.
    if (decision === 'decline') this.#options.note(threadId, texts.approvalDeclined(whatOf(pending.approval)));
    if (decision !== 'thread') {
      this.#end(id, DECISIONS[decision]);
      return;
    }
    this.#options.note(threadId, texts.approvalForThread);
    this.#allowed.add(threadId);
    for (const approval of this.forThread(threadId)) this.#end(approval.id, DECISIONS.thread);
  }

  forThread(threadId: string): Approval[] {
    return [...this.#pending.values()].map((pending) => pending.approval).filter((approval) => approval.threadId === threadId);
  }

  waiting(threadId: string): boolean {
    return this.forThread(threadId).length > 0;
  }

  /** The thread's turn ended: what it asked is no longer anyone's to answer. */
  turnEnded(threadId: string): void {
    for (const approval of this.forThread(threadId)) this.#end(approval.id, 'cancel');
  }

  /** The thread's level changed: what was allowed for it is asked again. */
  forgetAllowed(threadId: string): void {
    this.#allowed.delete(threadId);
  }

  #end(id: string, decision: CodexDecision): void {
    const pending = this.#pending.get(id);
    if (!pending) return;
    const { threadId } = pending.approval;
    this.#pending.delete(id);
    pending.timer.cancel();
    pending.decide(decision);
    this.#options.publish({ type: 'approvalEnded', threadId, id });
    if (!this.waiting(threadId)) this.#options.waitingChanged(threadId);
  }
}

// The Codex account as the pages see it: who is signed in, on which plan, how much of the usage
// limits is used, and the ChatGPT sign-in started from a page. Codex runs the sign-in (its browser
// callback listener, or the device code); this keeps one at a time, ends it on cancel, time-out
// or Codex's exit, and tells every page where it stands.
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { CodexUnavailable } from '../codex/appServer.ts';
import type { AccountNotification, AccountNotifications, CodexAccount, CodexPort, CodexRateLimits, CodexRateWindow } from '../codex/protocol.ts';
import type { Clock, Timer } from '../clock.ts';
import type { Account, SignIn, SignInMethod, UsageLimits, UsageWindow } from '../model.ts';

/**
 * How long a sign-in may wait for the user: under Codex's own ten minutes for the browser
 * sign-in, so the page says it ran out of time rather than relaying Codex's failure.
 */
export const SIGN_IN_LIMIT_MS = 9 * 60_000;
const READ_LIMIT_MS = 10_000;

export interface AccountView {
  account: Account | null;
  signIn: SignIn;
  limits: UsageLimits | null;
}

export interface AccountDeskOptions {
  codex: CodexPort;
  clock: Clock;
  changed(view: AccountView): void;
}

function planName(plan: string | null | undefined): string | null {
  if (!plan || plan === 'unknown') return null;
  return plan.charAt(0).toUpperCase() + plan.slice(1);
}

export function accountOf(answer: CodexAccount): Account {
  const { account } = answer;
  if (!account) return { signedIn: false, requiresSignIn: answer.requiresOpenaiAuth === true };
  if (account.type === 'chatgpt') {
    const email = account.email || null;
    const plan = planName(account.planType);
    return { signedIn: true, chatgpt: true, email, plan, label: texts.accountLabel(email || 'ChatGPT', plan) };
  }
  return { signedIn: true, chatgpt: false, email: null, plan: null, label: account.type === 'apiKey' ? texts.apiKeyAccount : account.type };
}

function windowOf(window: CodexRateWindow | null | undefined): UsageWindow | null {
  if (!window || typeof window.usedPercent !== 'number') return null;
  return {
    usedPercent: window.usedPercent,
    windowMinutes: window.windowDurationMins ?? null,
    resetsAt: typeof window.resetsAt === 'number' ? window.resetsAt * 1000 : null,
  };
}

/** Codex's refusals are English sentences; its own unavailability is already one of ours. */
function detailOf(error: unknown): string {
  return error instanceof Error ? error.message : String(error);
}

const IDLE: SignIn = { state: 'idle', outcome: null, offerDeviceCode: false };

export class AccountDesk {
  readonly #codex: CodexPort;
  readonly #clock: Clock;
  readonly #changed: (view: AccountView) => void;
  #account: Account | null = null;
  #signIn: SignIn = IDLE;
  #limits: UsageLimits | null = null;
  /** The running sign-in's id at Codex; null while it is being started or none runs. */
  #loginId: string | null = null;
  #starting: Promise<SignIn> | null = null;
  #deadline: Timer | null = null;
  /** Only the newest read of the account counts: an older answer may come after a sign-out. */
  #reads = 0;

  constructor(options: AccountDeskOptions) {
    this.#codex = options.codex;
    this.#clock = options.clock;
    this.#changed = options.changed;
  }

  get view(): AccountView {
    return { account: this.#account, signIn: this.#signIn, limits: this.#limits };
  }

  get signingIn(): boolean {
    return this.#signIn.state !== 'idle';
  }

  /** Reads the account again, and its usage limits when it has them. */
  async refresh(): Promise<void> {
    const read = ++this.#reads;
    let account: Account;
    try {
      account = accountOf(await this.#codex.request('account/read', {}, READ_LIMIT_MS));
    } catch {
      return; // Codex's state, shown elsewhere, says why
    }
    if (read !== this.#reads) return;
    this.#account = account;
    if (!account.signedIn || !account.chatgpt) this.#limits = null;
    this.#publish();
    if (account.signedIn && account.chatgpt) await this.#readLimits(read);
  }

  /** Starts a sign-in, or hands back the one running when it is of the same kind. */
  start(method: SignInMethod): Promise<SignIn> {
    const running = this.#signIn;
    if (running.state === 'starting' && running.method === method) return this.#starting!;
    if (running.state === (method === 'browser' ? 'browser' : 'deviceCode')) return Promise.resolve(running);
    this.#end(null);
    this.#starting = this.#start(method).finally(() => {
      this.#starting = null;
    });
    return this.#starting;
  }

  cancel(): SignIn {
    if (this.signingIn) this.#end(texts.signInCancelled);
    return this.#signIn;
  }

  async signOut(): Promise<void> {
    this.#end(null);
    try {
      await this.#codex.request('account/logout', {}, READ_LIMIT_MS);
    } catch (error) {
      throw new Refusal('signOutFailed', detailOf(error));
    }
    await this.refresh();
  }

  onNotification(notification: AccountNotification): void {
    switch (notification.method) {
      case 'account/updated':
        void this.refresh();
        return;
      case 'account/login/completed':
        this.#completed(notification.params);
        return;
      case 'account/rateLimits/updated':
        this.#mergeLimits(notification.params.rateLimits);
        return;
    }
  }

  /** Codex has ended, and its sign-in listener with it. */
  onCodexExit(): void {
    // Nothing to cancel at Codex; asking would only start a new one.
    this.#loginId = null;
    if (this.signingIn) this.#end(texts.signInCodexExited);
  }

  async #start(method: SignInMethod): Promise<SignIn> {
    const mine = { state: 'starting', method } as const;
    this.#signIn = mine;
    this.#publish();
    let answer;
    try {
      answer = await this.#codex.request('account/login/start', { type: method === 'browser' ? 'chatgpt' : 'chatgptDeviceCode' }, READ_LIMIT_MS);
    } catch (error) {
      if (this.#signIn !== mine) return this.#signIn;
      const portTaken = method === 'browser' && /already in use|address in use/i.test(detailOf(error));
      const outcome = portTaken ? texts.signInPortTaken
        : error instanceof CodexUnavailable ? error.message : texts.signInFailed(detailOf(error));
      this.#signIn = { state: 'idle', outcome, offerDeviceCode: portTaken };
      this.#publish();
      return this.#signIn;
    }
    if (this.#signIn !== mine) {
      // Cancelled (or ended by Codex's exit) while Codex was starting it: its listener goes too.
      this.#cancelAtCodex(answer.loginId);
      return this.#signIn;
    }
    this.#loginId = answer.loginId;
    this.#signIn = answer.type === 'chatgpt'
      ? { state: 'browser', authUrl: answer.authUrl }
      : { state: 'deviceCode', verificationUrl: answer.verificationUrl, userCode: answer.userCode };
    this.#deadline = this.#clock.after(SIGN_IN_LIMIT_MS, () => this.#end(texts.signInTimedOut));
    this.#publish();
    return this.#signIn;
  }

  #completed(params: AccountNotifications['account/login/completed']): void {
    // One this desk ended already (cancelled, replaced, timed out) has said how it ended.
    if (this.#loginId === null || params.loginId !== this.#loginId) return;
    this.#loginId = null;
    this.#deadline?.cancel();
    this.#deadline = null;
    this.#signIn = params.success ? IDLE : { state: 'idle', outcome: texts.signInFailed(params.error || texts.signInUnknownReason), offerDeviceCode: false };
    this.#publish();
    if (params.success) void this.refresh();
  }

  /** Ends the running sign-in here and at Codex, saying so in outcome (null: silently). */
  #end(outcome: string | null): void {
    if (!this.signingIn) return;
    this.#deadline?.cancel();
    this.#deadline = null;
    if (this.#loginId !== null) this.#cancelAtCodex(this.#loginId);
    this.#loginId = null;
    this.#signIn = outcome === null ? IDLE : { state: 'idle', outcome, offerDeviceCode: false };
    this.#publish();
  }

  #cancelAtCodex(loginId: string): void {
    // Gone already when Codex has exited or finished it: nothing is left listening either way.
    this.#codex.request('account/login/cancel', { loginId }, READ_LIMIT_MS).catch(() => {});
  }

  async #readLimits(read: number): Promise<void> {
    try {
      const answer = await this.#codex.request('account/rateLimits/read', {}, READ_LIMIT_MS);
      if (read !== this.#reads) return;
      this.#limits = null;
      this.#mergeLimits(answer.rateLimits);
    } catch {
      // Codex reports none for this account: the page shows none.
    }
  }

  /** Updates are sparse: a window they leave out keeps what was known of it. */
  #mergeLimits(limits: CodexRateLimits | undefined): void {
    if (!limits || !this.#account?.signedIn) return;
    const primary = windowOf(limits.primary) ?? this.#limits?.primary ?? null;
    const secondary = windowOf(limits.secondary) ?? this.#limits?.secondary ?? null;
    this.#limits = primary || secondary ? { primary, secondary } : null;
    this.#publish();
  }

  #publish(): void {
    this.#changed(this.view);
  }
}

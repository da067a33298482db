// The sign-in on a scripted Codex and a virtual clock: one sign-in at a time, and each way it ends
// leaves nothing listening at Codex and one sentence for the pages.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { AccountDesk, SIGN_IN_LIMIT_MS } from '../../../resources/app/workspace/account/accountDesk.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';
import type { AccountView } from '../../../resources/app/workspace/account/accountDesk.ts';
import { VirtualClock, settle } from '../../harness/clock.ts';
import { ScriptedCodex } from '../../harness/desk.ts';

const BROWSER = { type: 'chatgpt', loginId: 'login-1', authUrl: 'http://issuer.invalid/oauth/authorize' };

/** What Codex answers about the account, before a test changes it. */
const signInCodex = () => Object.assign(new ScriptedCodex(), { handlers: {
  'account/read': () => ({ account: null, requiresOpenaiAuth: true }),
  'account/login/start': (params) => (params.type === 'chatgpt' ? BROWSER
    : { type: 'chatgptDeviceCode', loginId: 'login-2', verificationUrl: 'http://issuer.invalid/codex/device', userCode: 'ABCD-1234' }),
  'account/login/cancel': () => ({ status: 'canceled' }),
} as ScriptedCodex['handlers'] });
const cancels = (codex: ScriptedCodex) => codex.paramsOf('account/login/cancel').map((params) => params.loginId);

function fixture() {
  const codex = signInCodex();
  const clock = new VirtualClock();
  const views: AccountView[] = [];
  const desk = new AccountDesk({ codex, clock, changed: (view) => views.push(view) });
  return { codex, clock, desk, views };
}

const ended = (outcome: string | null, offerDeviceCode = false) => ({ state: 'idle', outcome, offerDeviceCode });

test('each way a running browser sign-in ends: what Codex is told and the one sentence shown', async (t) => {
  const cases: { name: string; end(f: ReturnType<typeof fixture>): Promise<void> | void; outcome: string | null; cancelled: string[] }[] = [
    { name: 'cancelled by the user', end: ({ desk }) => void desk.cancel(), outcome: texts.signInCancelled, cancelled: ['login-1'] },
    { name: 'timed out', end: ({ clock }) => clock.advance(SIGN_IN_LIMIT_MS), outcome: texts.signInTimedOut, cancelled: ['login-1'] },
    {
      name: 'failed at Codex',
      end: ({ desk }) => void desk.onNotification({ method: 'account/login/completed', params: { loginId: 'login-1', success: false, error: 'Token exchange failed' } }),
      outcome: texts.signInFailed('Token exchange failed'), cancelled: [],
    },
    { name: 'Codex exited', end: ({ desk }) => desk.onCodexExit(), outcome: texts.signInCodexExited, cancelled: [] },
    {
      name: 'succeeded',
      end: ({ desk }) => void desk.onNotification({ method: 'account/login/completed', params: { loginId: 'login-1', success: true, error: null } }),
      outcome: null, cancelled: [],
    },
  ];
  for (const { name, end, outcome, cancelled } of cases) {
    await t.test(name, async () => {
      const f = fixture();
      assert.deepEqual(await f.desk.start('browser'), { state: 'browser', authUrl: BROWSER.authUrl });
      await f.clock.advance(SIGN_IN_LIMIT_MS - 1);
      assert.equal(f.desk.view.signIn.state, 'browser');
      await end(f);
      await settle();
      assert.deepEqual(f.desk.view.signIn, ended(outcome));
      assert.deepEqual(cancels(f.codex), cancelled);
      // Codex's own word on a sign-in already ended here changes nothing, nor does the clock.
      f.desk.onNotification({ method: 'account/login/completed', params: { loginId: 'login-1', success: false, error: 'Login was not completed' } });
      await f.clock.advance(SIGN_IN_LIMIT_MS);
      assert.deepEqual(f.desk.view.signIn, ended(outcome));
      assert.deepEqual(cancels(f.codex), cancelled);
    });
  }
});

test('a second start while one runs hands back the same sign-in; another kind replaces it at Codex', async () => {
  const { codex, desk } = fixture();
  const release = codex.hold('account/login/start');
  const first = desk.start('browser');
  const second = desk.start('browser');
  release();
  assert.deepEqual(await second, await first);
  assert.deepEqual(await desk.start('browser'), { state: 'browser', authUrl: BROWSER.authUrl });
  assert.equal(codex.paramsOf('account/login/start').length, 1);
  assert.equal((await desk.start('deviceCode')).state, 'deviceCode');
  assert.deepEqual(cancels(codex), ['login-1']);
});

test('a sign-in cancelled while Codex starts it is cancelled at Codex once Codex names it', async () => {
  const { codex, desk } = fixture();
  const release = codex.hold('account/login/start');
  const started = desk.start('browser');
  await settle();
  assert.deepEqual(desk.cancel(), ended(texts.signInCancelled));
  assert.deepEqual(cancels(codex), []);
  release();
  assert.deepEqual(await started, ended(texts.signInCancelled));
  assert.deepEqual(cancels(codex), ['login-1']);
});

test('usage limits: a sparse update keeps the window it leaves out; a sign-out drops them', async () => {
  const { codex, desk } = fixture();
  const window = (usedPercent: number, windowDurationMins: number) => ({ usedPercent, windowDurationMins, resetsAt: 1000 });
  codex.handlers['account/read'] = () => ({ account: { type: 'chatgpt', email: 'ada@example.com', planType: 'plus' }, requiresOpenaiAuth: true });
  codex.handlers['account/rateLimits/read'] = () => ({ rateLimits: { primary: window(10, 300), secondary: window(20, 10_080) } });
  await desk.refresh();
  desk.onNotification({ method: 'account/rateLimits/updated', params: { rateLimits: { primary: window(55, 300), secondary: null } } });
  assert.deepEqual(desk.view.limits, {
    primary: { usedPercent: 55, windowMinutes: 300, resetsAt: 1_000_000 },
    secondary: { usedPercent: 20, windowMinutes: 10_080, resetsAt: 1_000_000 },
  });
  codex.handlers['account/logout'] = () => ({});
  codex.handlers['account/read'] = () => ({ account: null, requiresOpenaiAuth: true });
  await desk.signOut();
  assert.deepEqual(desk.view, { account: { signedIn: false, requiresSignIn: true }, signIn: ended(null), limits: null });
});

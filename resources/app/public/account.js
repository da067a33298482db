// @ts-check
// The Codex account in the page: the sign-in banner while Codex is signed out or a sign-in runs,
// and the account's section in the sidebar (who, which plan, the usage limits, sign out). What
// they show comes from the service's state, so every page shows the same sign-in.
import { element } from './items.js';

/** @typedef {import('../workspace/model.ts').ServiceState} ServiceState */
/** @typedef {import('../workspace/model.ts').SignIn} SignIn */
/** @typedef {import('../workspace/model.ts').UsageWindow} UsageWindow */

const clock = new Intl.DateTimeFormat('zh-CN', { month: 'numeric', day: 'numeric', hour: '2-digit', minute: '2-digit' });

/** The sentence a failed request of this module leaves in the banner until the next draw. */
let complaint = '';
/** @type {(() => void) | null} */
let redraw = null;

/** @param {string} action @param {unknown} body */
async function post(action, body) {
  const answer = await fetch(`/api/account/${action}`, {
    method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body),
  });
  const result = await answer.json().catch(() => ({}));
  if (!answer.ok) throw new Error(result.error ?? `工作区服务拒绝了这个请求（${answer.status}）。`);
  return result;
}

/** @param {Promise<unknown>} request */
function reporting(request) {
  complaint = '';
  request.catch((error) => {
    complaint = error instanceof Error && error.message !== 'Failed to fetch' ? error.message : '无法连接工作区服务。';
    redraw?.();
  });
}

function signInWithBrowser() {
  // Opened now, while the click still counts as the user's, so no pop-up blocker stops it; it is
  // sent to the sign-in address once Codex has given one.
  const tab = window.open('about:blank', '_blank');
  if (tab) tab.opener = null;
  reporting(post('sign-in', { method: 'browser' }).then(
    (/** @type {{ signIn: SignIn }} */ { signIn }) => {
      if (signIn.state === 'browser' && tab) tab.location.href = signIn.authUrl;
      else tab?.close();
    },
    (error) => {
      tab?.close();
      throw error;
    },
  ));
}

/** @param {string} text @param {string} className @param {() => void} action */
function button(text, className, action) {
  const node = element('button', className, text);
  node.type = 'button';
  node.addEventListener('click', action);
  return node;
}

/** @param {string} href @param {string} text */
function outLink(href, text) {
  const link = element('a', '', text);
  link.href = href;
  link.target = '_blank';
  link.rel = 'noopener noreferrer';
  return link;
}

/** The sign-in banner, or null when Codex needs none. @param {ServiceState} service @param {() => void} draw */
export function signInBanner(service, draw) {
  redraw = draw;
  const { signIn, account } = service;
  const signedOut = account !== null && !account.signedIn && account.requiresSignIn;
  if (signIn.state === 'idle' && !signedOut) return null;
  const banner = element('div', 'banner warning sign-in');
  const text = banner.appendChild(element('p', 'sign-in-text'));
  const actions = element('div', 'sign-in-actions');
  const cancel = () => button('取消登录', 'sign-in-cancel', () => reporting(post('cancel', {})));
  if (signIn.state === 'idle') {
    text.textContent = signIn.outcome ? `${signIn.outcome} ` : '';
    text.append('Codex 还没有登录，登录后才能提问。');
    actions.append(button('使用 ChatGPT 登录', 'sign-in-start', signInWithBrowser));
    if (signIn.offerDeviceCode) actions.append(button('改用设备码登录', 'sign-in-device', () => reporting(post('sign-in', { method: 'deviceCode' }))));
  } else if (signIn.state === 'starting') {
    text.textContent = '正在启动登录……';
    actions.append(cancel());
  } else if (signIn.state === 'browser') {
    text.append('请在新打开的标签页中登录 ChatGPT，完成后这里会自动更新。没有看到标签页？');
    text.append(outLink(signIn.authUrl, '再次打开登录页'));
    actions.append(cancel());
  } else {
    text.append('请在浏览器中打开 ', outLink(signIn.verificationUrl, signIn.verificationUrl), '，登录后输入这个一次性代码：');
    text.append(element('code', 'sign-in-code', signIn.userCode));
    actions.append(cancel());
  }
  banner.append(actions);
  if (complaint) banner.append(element('p', 'sign-in-complaint', complaint));
  return banner;
}

/** @param {UsageWindow} window */
function windowName(window) {
  const minutes = window.windowMinutes;
  if (minutes === null) return '用量';
  if (minutes === 10_080) return '每周用量';
  if (minutes % 1440 === 0) return `${minutes / 1440} 天用量`;
  if (minutes % 60 === 0) return `${minutes / 60} 小时用量`;
  return `${minutes} 分钟用量`;
}

/** @param {UsageWindow} window */
function limitRow(window) {
  const used = Math.min(100, Math.max(0, Math.round(window.usedPercent)));
  const row = element('div', 'limit');
  const label = `${windowName(window)}：已用 ${used}%${window.resetsAt ? `，${clock.format(window.resetsAt)} 重置` : ''}`;
  const meter = element('meter', 'limit-meter');
  meter.min = 0;
  meter.max = 100;
  meter.high = 80;
  meter.value = used;
  meter.setAttribute('aria-label', label);
  row.append(element('span', 'limit-label', label), meter);
  return row;
}

/** The sidebar's account section. @param {HTMLElement} into @param {ServiceState} service */
export function drawAccount(into, service) {
  const { account, limits } = service;
  if (!account?.signedIn) {
    into.replaceChildren();
    into.hidden = true;
    return;
  }
  into.hidden = false;
  const who = element('div', 'account-who');
  who.append(element('span', 'account-name', account.email ?? account.label));
  if (account.plan) who.append(element('span', 'account-plan', account.plan));
  const rows = [limits?.primary, limits?.secondary].flatMap((window) => (window ? [limitRow(window)] : []));
  const signOut = button('退出登录', 'sign-out', () => {
    if (confirm('退出 Codex 的登录？退出后需要重新登录才能提问。')) reporting(post('sign-out', {}));
  });
  into.replaceChildren(who, ...rows, signOut);
}

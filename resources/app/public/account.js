// @ts-check
// The Codex account in the page: the sign-in banner while Codex is signed out or a sign-in runs,
// and the account's section in the sidebar (who, which plan, the usage limits, sign out). What
// they show comes from the service's state, so every page shows the same sign-in; what their
// buttons do is the controller's.
import { button, element } from './dom.js';
import { texts } from './texts.js';

/** @typedef {import('../workspace/model.ts').ServiceState} ServiceState */
/** @typedef {import('../workspace/model.ts').SignInMethod} SignInMethod */
/** @typedef {import('../workspace/model.ts').UsageWindow} UsageWindow */
/** @typedef {{ signIn(method: SignInMethod): void, cancel(): void, signOut(): void }} AccountActions */

/** @param {string} href @param {string} text */
function outLink(href, text) {
  const link = element('a', '', text);
  link.href = href;
  link.target = '_blank';
  link.rel = 'noopener noreferrer';
  return link;
}

/**
 * The sign-in banner, or null when Codex needs none.
 * @param {ServiceState} service @param {string} complaint why the last request of the banner failed @param {AccountActions} actions
 */
export function signInBanner(service, complaint, actions) {
  const { signIn, account } = service;
  const signedOut = account !== null && !account.signedIn && account.requiresSignIn;
  if (signIn.state === 'idle' && !signedOut) return null;
  const banner = element('div', 'banner warning sign-in');
  const text = banner.appendChild(element('p', 'sign-in-text'));
  const buttons = element('div', 'sign-in-actions');
  const cancel = () => button(texts.cancelSignIn, 'sign-in-cancel', () => actions.cancel());
  if (signIn.state === 'idle') {
    text.textContent = signIn.outcome ? `${signIn.outcome} ` : '';
    text.append(texts.notSignedIn);
    buttons.append(button(texts.signInWithChatGpt, 'sign-in-start', () => actions.signIn('browser')));
    if (signIn.offerDeviceCode) buttons.append(button(texts.signInWithCode, 'sign-in-device', () => actions.signIn('deviceCode')));
  } else if (signIn.state === 'starting') {
    text.textContent = texts.signInStarting;
    buttons.append(cancel());
  } else if (signIn.state === 'browser') {
    text.append(texts.signInInTab, outLink(signIn.authUrl, texts.signInAgain));
    buttons.append(cancel());
  } else {
    text.append(texts.signInOpen, outLink(signIn.verificationUrl, signIn.verificationUrl), texts.signInCode);
    text.append(element('code', 'sign-in-code', signIn.userCode));
    buttons.append(cancel());
  }
  banner.append(buttons);
  if (complaint) banner.append(element('p', 'sign-in-complaint', complaint));
  return banner;
}

/** @param {UsageWindow} window */
function limitRow(window) {
  const used = Math.min(100, Math.max(0, Math.round(window.usedPercent)));
  const row = element('div', 'limit');
  const label = texts.usageLimit(texts.usageWindow(window.windowMinutes), used, window.resetsAt);
  const meter = element('meter', 'limit-meter');
  meter.min = 0;
  meter.max = 100;
  meter.high = 80;
  meter.value = used;
  meter.setAttribute('aria-label', label);
  row.append(element('span', 'limit-label', label), meter);
  return row;
}

/** The sidebar's account section. @param {HTMLElement} into @param {ServiceState} service @param {AccountActions} actions */
export function drawAccount(into, service, actions) {
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
  const signOut = button(texts.signOut, 'sign-out', () => {
    if (confirm(texts.signOutQuestion)) actions.signOut();
  });
  into.replaceChildren(who, ...rows, signOut);
}

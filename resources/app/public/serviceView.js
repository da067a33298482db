// @ts-check
// What the page says about the service itself: the banners (the connection lost, Codex or the
// data folder unusable, the sign-in), the account's section and the "about" panel.
import { byId, element } from './dom.js';
import { texts } from './texts.js';
import { drawAccount, signInBanner } from './account.js';

/** @typedef {import('../workspace/model.ts').ServiceState} ServiceState */
/** @typedef {import('./account.js').AccountActions} AccountActions */

export class ServiceView {
  #banners = byId('banners');
  #about = byId('about-list');
  #account = byId('account');
  /** @type {AccountActions} */
  #actions = { signIn() {}, cancel() {}, signOut() {} };

  /** @param {AccountActions} actions */
  bindAccount(actions) {
    this.#actions = actions;
  }

  /**
   * @param {ServiceState} service @param {boolean} connected
   * @param {string} complaint why the last sign-in request failed, or ''
   */
  draw(service, connected, complaint) {
    /** @type {string[]} */
    const errors = [];
    if (!connected) errors.push(texts.disconnected);
    if (service.codex.state === 'unavailable') errors.push(service.codex.message);
    if (service.storage) errors.push(service.storage);
    this.#banners.replaceChildren(...errors.map((text) => element('div', 'banner error', text)));
    const signIn = signInBanner(service, complaint, this.#actions);
    if (signIn) this.#banners.append(signIn);
    drawAccount(this.#account, service, this.#actions);

    const { about, codex, account } = service;
    const rows = texts.aboutRows;
    /** @type {[string, string][]} */
    const shown = [
      [rows.address, about.address],
      [rows.dataFolder, about.dataFolder],
      [rows.codex, (codex.version ? texts.codexVersion(about.codexPath, codex.version) : about.codexPath) || texts.noCodexPath],
      [rows.account, account?.signedIn ? account.label : account ? texts.signedOut : texts.noAccount],
      [rows.node, about.node],
      [rows.startedAt, texts.startedAt(about.startedAt)],
    ];
    this.#about.replaceChildren(...shown.flatMap(([term, value]) => [element('dt', '', term), element('dd', '', value)]));
  }
}

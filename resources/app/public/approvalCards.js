// @ts-check
// What the open thread's running turn asks a person to allow, as cards at the thread's end: what
// Codex wants to run, where and why, and the three answers. A card goes when the service says the
// request waits no more, whichever page answered it; an answer that came too late is said on it.
import { button, byId, element } from './dom.js';
import { texts } from './texts.js';
import { postJson } from './api.js';

/** @typedef {import('../workspace/model.ts').Approval} Approval */
/** @typedef {import('../workspace/model.ts').ApprovalDecision} ApprovalDecision */

/** @param {unknown} error */
const sentence = (error) => (error instanceof Error ? error.message : String(error));

export class ApprovalCards {
  #node = byId('approvals');
  /** @type {string | null} */
  #thread = null;
  /** @type {Map<string, HTMLElement>} */
  #cards = new Map();

  /** The open thread's requests, drawn anew. @param {string | null} thread @param {Approval[]} approvals */
  show(thread, approvals) {
    this.#thread = thread;
    this.#cards.clear();
    this.#node.replaceChildren();
    for (const approval of approvals) this.add(approval);
  }

  /** @param {Approval} approval */
  add(approval) {
    if (approval.threadId !== this.#thread || this.#cards.has(approval.id)) return;
    const card = this.#card(approval);
    this.#cards.set(approval.id, card);
    this.#node.append(card);
  }

  /** @param {string} id */
  remove(id) {
    this.#cards.get(id)?.remove();
    this.#cards.delete(id);
  }

  /** @param {Approval} approval */
  #card(approval) {
    const card = element('section', 'approval');
    card.dataset.approval = approval.id;
    card.setAttribute('role', 'alertdialog');
    card.append(element('h2', '', texts.approvalTitle));
    const facts = element('dl');
    /** @param {string} term @param {string} value @param {string} [className] */
    const fact = (term, value, className) => facts.append(element('dt', '', term), element('dd', className, value));
    if (approval.kind === 'command') fact(texts.approvalCommand, approval.command ?? '', 'command-line');
    else fact(texts.approvalFileChange, approval.files.join('\n'), 'command-line');
    if (approval.cwd) fact(texts.approvalWhere, approval.cwd);
    if (approval.reason) fact(texts.approvalWhy, approval.reason);
    const note = element('p', 'approval-note');
    note.setAttribute('role', 'alert');
    const answers = element('div', 'approval-answers');
    /** @type {[ApprovalDecision, string, string][]} */
    const choices = [['once', texts.allowOnce, 'allow'], ['thread', texts.allowThread, 'allow'], ['decline', texts.decline, 'danger']];
    for (const [decision, label, className] of choices) {
      const answer = button(label, `thread-action ${className}`, () => void this.#decide(approval, decision, answers, note));
      answer.dataset.decision = decision;
      answers.append(answer);
    }
    card.append(facts, answers, note);
    return card;
  }

  /** @param {Approval} approval @param {ApprovalDecision} decision @param {HTMLElement} answers @param {HTMLElement} note */
  async #decide(approval, decision, answers, note) {
    const buttons = [...answers.querySelectorAll('button')];
    for (const each of buttons) each.disabled = true;
    note.textContent = '';
    try {
      await postJson(`/api/threads/${encodeURIComponent(approval.threadId)}/approvals/${approval.id}`, { decision });
    } catch (error) {
      note.textContent = sentence(error);
      for (const each of buttons) each.disabled = false;
    }
  }
}

// @ts-check
// The model and reasoning effort for the open thread (or the next one), from what Codex offers.
// "Default" is Codex's own choice; the last choice made starts the next thread.
import { texts } from './texts.js';
import { getJson } from './api.js';

/** @typedef {import('../workspace/model.ts').Choice} Choice */
/** @typedef {import('../workspace/model.ts').ModelCatalog} ModelCatalog */
/** @typedef {import('../workspace/model.ts').ServiceState} ServiceState */

/** @param {string | null} effort */
const effortLabel = (effort) => (effort ? texts.effortNames[effort] ?? effort : texts.noEffort);

export class ModelPicker {
  /** @type {ModelCatalog | null} */
  #catalog = null;
  #loading = false;
  /** The choice of what is open: a thread's, or the next thread's. @type {Choice} */
  #choice = { model: null, effort: null };
  /** @type {Choice | null} the open thread's; null for a question that will start one */
  #thread = null;
  #model;
  #effort;
  #note;

  /** @param {{ model: HTMLSelectElement, effort: HTMLSelectElement, note: HTMLElement }} parts */
  constructor(parts) {
    this.#model = parts.model;
    this.#effort = parts.effort;
    this.#note = parts.note;
    this.#model.hidden = true;
    this.#effort.hidden = true;
    this.#model.addEventListener('change', () => {
      this.#choice = { model: this.#model.value || null, effort: null };
      this.#note.textContent = '';
      this.#draw();
    });
    this.#effort.addEventListener('change', () => {
      this.#choice = { ...this.#choice, effort: this.#effort.value || null };
    });
  }

  /** Codex's models are asked for once Codex runs. @param {ServiceState} service */
  serviceChanged(service) {
    if (service.codex.state !== 'ready' || this.#catalog || this.#loading) return;
    this.#loading = true;
    getJson('/api/models').then((catalog) => {
      this.#catalog = catalog;
      this.show(this.#thread);
    }, () => {}).finally(() => {
      this.#loading = false;
    });
  }

  /** What is open now: a thread's choice, or null for the next thread. @param {Choice | null} thread */
  show(thread) {
    this.#thread = thread;
    this.#note.textContent = '';
    this.#choice = thread ? { model: thread.model, effort: thread.effort } : { ...(this.#catalog?.last ?? { model: null, effort: null }) };
    const catalog = this.#catalog;
    if (catalog && this.#choice.model && !catalog.models.some((model) => model.id === this.#choice.model)) {
      this.#note.textContent = texts.modelGone(this.#choice.model);
      this.#choice = { model: null, effort: null };
    }
    this.#draw();
  }

  /** What the next question asks for; nothing until the models are known. @returns {Partial<Choice>} */
  choice() {
    return this.#catalog ? { ...this.#choice } : {};
  }

  /** The question went with this choice: the service keeps it for the next thread too. */
  sent() {
    if (this.#catalog) this.#catalog.last = { ...this.#choice };
  }

  #draw() {
    const catalog = this.#catalog;
    this.#model.hidden = !catalog;
    this.#effort.hidden = !catalog;
    if (!catalog) return;
    const byId = new Map(catalog.models.map((model) => [model.id, model]));
    const fallback = catalog.codexDefault.model;
    const defaultName = fallback ? byId.get(fallback)?.name ?? fallback : texts.codexSettings;
    this.#model.replaceChildren(new Option(texts.defaultModel(defaultName), ''),
      ...catalog.models.map((model) => new Option(model.name, model.id)));
    this.#model.value = this.#choice.model ?? '';
    const model = byId.get(this.#choice.model ?? fallback ?? '');
    const ownDefault = this.#choice.model ? model?.defaultEffort ?? null : catalog.codexDefault.effort ?? model?.defaultEffort ?? null;
    const efforts = model?.efforts ?? [];
    this.#effort.replaceChildren(new Option(texts.defaultEffort(effortLabel(ownDefault)), ''),
      ...efforts.map((effort) => new Option(texts.effortChoice(effortLabel(effort)), effort)));
    if (this.#choice.effort && !efforts.includes(this.#choice.effort)) this.#choice = { ...this.#choice, effort: null };
    this.#effort.value = this.#choice.effort ?? '';
    this.#effort.disabled = efforts.length === 0;
  }
}

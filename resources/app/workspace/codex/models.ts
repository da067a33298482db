// The models Codex offers and the one it uses when none is chosen: read once Codex is ready, kept,
// read again when a page opens the model picker; every turn's model is decided by what is kept.
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { RpcError } from './rpc.ts';
import type { CodexModel, CodexPort, CodexRequests } from './protocol.ts';
import type { Choice, ModelOption } from '../model.ts';

// model/list pages its answer; a catalogue longer than this many pages is not a picker's.
const PAGE_LIMIT = 20;
const TIMEOUT_MS = 10_000;

export interface Catalogue {
  models: ModelOption[];
  codexDefault: Choice;
}

function optionOf(model: CodexModel): ModelOption {
  return {
    id: model.id,
    name: model.displayName || model.id,
    efforts: model.supportedReasoningEfforts.map((effort) => effort.reasoningEffort),
    defaultEffort: model.defaultReasoningEffort,
  };
}

/**
 * Every model the picker offers, and Codex's default: the model of its configuration, which
 * model/list's own default does not know of (a provider of the user's own).
 */
async function readCatalogue(codex: CodexPort): Promise<Catalogue> {
  const listed: CodexModel[] = [];
  let cursor: string | null = null;
  for (let page = 0; page < PAGE_LIMIT; page += 1) {
    const answer: CodexRequests['model/list']['result'] = await codex.request('model/list', cursor ? { cursor } : {}, TIMEOUT_MS);
    listed.push(...answer.data);
    cursor = answer.nextCursor;
    if (!cursor) break;
  }
  const config = await codex.request('config/read', {}, TIMEOUT_MS).catch(() => null);
  const marked = listed.find((model) => model.isDefault);
  const model = config?.config.model ?? marked?.id ?? null;
  const effort = config?.config.model_reasoning_effort ?? listed.find((one) => one.id === model)?.defaultReasoningEffort ?? null;
  return { models: listed.filter((one) => !one.hidden).map(optionOf), codexDefault: { model, effort } };
}

/**
 * What Codex is to use for a thread's choice: a model Codex no longer offers gives way to its
 * default, and an effort the model does not support to the model's own. Without a catalogue
 * (Codex could not say) the choice goes as it is.
 */
export function resolveChoice(choice: Choice, catalogue: Catalogue | null): Choice {
  if (!catalogue) return choice;
  const offered = catalogue.models.find((one) => one.id === choice.model);
  const model = offered ? choice.model : catalogue.codexDefault.model;
  const option = offered ?? catalogue.models.find((one) => one.id === model);
  const fallback = option ? option.defaultEffort : catalogue.codexDefault.effort;
  const supported = choice.effort !== null && (!option || option.efforts.includes(choice.effort));
  return { model, effort: supported ? choice.effort : fallback };
}

export class Models {
  readonly #codex: CodexPort;
  readonly #running: () => boolean;
  #kept: Catalogue | null = null;
  #reading: Promise<Catalogue> | null = null;

  /** running: whether an app-server runs or is starting, which asking Codex only joins. */
  constructor(codex: CodexPort, running: () => boolean) {
    this.#codex = codex;
    this.#running = running;
  }

  /** For a page: any site can make a browser ask this, so it never starts Codex. */
  read(): Promise<Catalogue> {
    if (this.#running()) return this.refresh();
    if (this.#kept) return Promise.resolve(this.#kept);
    return Promise.reject(new Refusal('modelsUnavailable', texts.codexNotRunning));
  }

  /** Asks Codex anew (or joins the reading under way) and keeps what it says. */
  refresh(): Promise<Catalogue> {
    this.#reading ??= readCatalogue(this.#codex).then(
      (catalogue) => {
        this.#kept = catalogue;
        return catalogue;
      },
      (error: unknown) => {
        const detail = error instanceof RpcError ? texts.codexError(error.message) : error instanceof Error ? error.message : String(error);
        throw new Refusal('modelsUnavailable', detail);
      },
    ).finally(() => {
      this.#reading = null;
    });
    return this.#reading;
  }

  /** The choice as Codex is to take it; a reading under way (Codex has just started) is waited for. */
  async resolve(choice: Choice): Promise<Choice> {
    await this.#reading?.catch(() => {});
    return resolveChoice(choice, this.#kept);
  }
}

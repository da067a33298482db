// The models Codex offers and the one it uses when none is chosen, as the model picker shows them.
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import type { Choice, ModelOption } from '../model.ts';

interface ListedModel {
  id: string;
  displayName?: string;
  hidden?: boolean;
  supportedReasoningEfforts?: { reasoningEffort: string }[];
  defaultReasoningEffort?: string | null;
  isDefault?: boolean;
}

export interface ModelsPort {
  request<T>(method: string, params: unknown, timeoutMs?: number): Promise<T>;
}

// model/list pages its answer; a catalogue longer than this many pages is not a picker's.
const PAGE_LIMIT = 20;
const TIMEOUT_MS = 10_000;
const MODEL = /^[\w.:/@+-]{1,100}$/;
const EFFORT = /^[a-z]{1,20}$/;

function optionOf(model: ListedModel): ModelOption {
  return {
    id: model.id,
    name: model.displayName || model.id,
    efforts: (model.supportedReasoningEfforts ?? []).map((effort) => effort.reasoningEffort),
    defaultEffort: model.defaultReasoningEffort ?? null,
  };
}

/**
 * Every model the picker offers, and Codex's default: the model of its configuration, which
 * model/list's own default does not know of (a provider of the user's own).
 */
export async function readModels(codex: ModelsPort): Promise<{ models: ModelOption[]; codexDefault: Choice }> {
  const listed: ListedModel[] = [];
  let cursor: string | null = null;
  for (let page = 0; page < PAGE_LIMIT; page += 1) {
    const answer: { data: ListedModel[]; nextCursor: string | null } =
      await codex.request('model/list', cursor ? { cursor } : {}, TIMEOUT_MS);
    listed.push(...answer.data);
    cursor = answer.nextCursor;
    if (!cursor) break;
  }
  const config = await codex.request<{ config?: { model?: string | null; model_reasoning_effort?: string | null } }>(
    'config/read', {}, TIMEOUT_MS).catch(() => null);
  const marked = listed.find((model) => model.isDefault);
  const model = config?.config?.model ?? marked?.id ?? null;
  const effort = config?.config?.model_reasoning_effort ?? listed.find((one) => one.id === model)?.defaultReasoningEffort ?? null;
  return { models: listed.filter((one) => !one.hidden).map(optionOf), codexDefault: { model, effort } };
}

/** The choice a question carries; names only, as Codex itself judges whether it has them. */
export function choiceOf(body: { model?: unknown; effort?: unknown }): Choice {
  const { model = null, effort = null } = body;
  if (model !== null && (typeof model !== 'string' || !MODEL.test(model))) throw new Refusal(400, texts.badChoice);
  if (effort !== null && (typeof effort !== 'string' || !EFFORT.test(effort))) throw new Refusal(400, texts.badChoice);
  return { model, effort };
}

/**
 * What Codex is to use for a thread's choice: a model Codex no longer offers gives way to its
 * default, and an effort the model does not support to the model's own. Without a catalogue
 * (no page has asked for one yet) the choice goes as it is.
 */
export function resolveChoice(choice: Choice, catalog: { models: ModelOption[]; codexDefault: Choice } | null): Choice {
  if (!catalog) return choice;
  const offered = catalog.models.find((one) => one.id === choice.model);
  const model = offered ? choice.model : catalog.codexDefault.model;
  const option = offered ?? catalog.models.find((one) => one.id === model);
  const fallback = option ? option.defaultEffort : catalog.codexDefault.effort;
  const supported = choice.effort !== null && (!option || option.efforts.includes(choice.effort));
  return { model, effort: supported ? choice.effort : fallback };
}

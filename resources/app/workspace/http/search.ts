// The search request: the text as typed, any characters at all, answered with the newest hits.
import { Refusal } from '../refusal.ts';
import { texts } from '../texts.ts';
import { SEARCH_MAX_LENGTH } from '../store/search.ts';
import type { SearchAnswer } from '../model.ts';
import type { ResearchDesk } from '../research/desk.ts';

export function searchAnswer(desk: ResearchDesk, text: string): SearchAnswer {
  if ([...text].length > SEARCH_MAX_LENGTH) throw new Refusal(400, texts.searchTooLong(SEARCH_MAX_LENGTH));
  return desk.search(text);
}

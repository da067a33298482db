// The one place a refusal becomes an answer: its HTTP status and the sentence the page shows.
// The store's failures to keep a change are answered here too.
import { Refusal, type RefusalReason } from '../refusal.ts';
import { texts } from '../texts.ts';
import { StoreError } from '../store/store.ts';
import { describeStorage } from '../research/storage.ts';
import { TITLE_LIMIT } from '../research/threads.ts';
import { SEARCH_MAX_LENGTH } from '../store/search.ts';
import { ATTACHMENT_LIMIT, FILE_LIMIT_TEXT, NAME_LIMIT_BYTES } from '../files/uploads.ts';

type Answer = [status: number, sentence: string | ((detail: string) => string)];

const ANSWERS: Record<RefusalReason, Answer> = {
  notFound: [404, texts.notFound],
  methodNotAllowed: [405, texts.methodNotAllowed],
  notJson: [400, texts.notJson],
  needsJson: [400, texts.needsJson],
  tooLarge: [413, texts.tooLarge],
  foreignOrigin: [403, texts.foreignOrigin],
  foreignUser: [403, texts.foreignUser],
  notWebSocket: [426, texts.notWebSocket],
  badHandshake: [400, texts.notWebSocket],
  fileNeedsBytes: [400, texts.fileNeedsBytes],
  badPosition: [400, texts.badPosition],
  badChoice: [400, texts.badChoice],
  badSignInMethod: [400, texts.badSignInMethod],
  needsFlag: [400, texts.needsFlag],
  emptyQuestion: [400, texts.emptyQuestion],
  noSuchThread: [404, texts.noSuchThread],
  turnRunning: [409, texts.turnRunning],
  stopping: [503, texts.stopping],
  emptyTitle: [400, texts.emptyTitle],
  titleTooLong: [400, texts.titleTooLong(TITLE_LIMIT)],
  renamedElsewhere: [409, texts.renamedElsewhere],
  deleteWhileUnsaved: [503, texts.deleteWhileUnsaved],
  searchTooLong: [400, texts.searchTooLong(SEARCH_MAX_LENGTH)],
  busyThread: [409, texts.busyThread],
  noTurnToRedo: [409, texts.noTurnToRedo],
  redoUnsupported: [501, texts.redoUnsupported],
  redoFailed: [502, texts.redoFailed],
  noSuchTurn: [404, texts.noSuchTurn],
  unknownTurn: [409, texts.unknownTurn],
  changeWhileUnsaved: [503, texts.changeWhileUnsaved],
  branchFailed: [500, texts.branchFailed],
  noSuchQueued: [404, texts.noSuchQueued],
  fileTooLarge: [413, texts.fileTooLarge(FILE_LIMIT_TEXT)],
  fileNameMissing: [400, texts.fileNameMissing],
  fileNameUnreadable: [400, texts.fileNameUnreadable],
  fileNameEmpty: [400, texts.fileNameEmpty],
  fileNameHasSlash: [400, texts.fileNameHasSlash],
  fileNameHasControl: [400, texts.fileNameHasControl],
  fileNameReserved: [400, texts.fileNameReserved],
  fileNameTooLong: [400, texts.fileNameTooLong(NAME_LIMIT_BYTES)],
  fileMissing: [409, texts.fileMissing],
  tooManyFiles: [400, texts.tooManyFiles(ATTACHMENT_LIMIT)],
  folderUnsafe: [409, texts.folderUnsafe],
  badDraft: [400, texts.badDraft],
  badPermission: [400, texts.badPermission],
  badDecision: [400, texts.badDecision],
  approvalGone: [409, texts.approvalGone],
  folderNotAbsolute: [400, texts.folderNotAbsolute],
  folderMissing: [400, texts.folderMissing],
  folderNotFolder: [400, texts.folderNotFolder],
  folderForbidden: [400, texts.folderForbidden],
  folderNotYours: [403, texts.folderNotYours],
  noSuchFile: [404, texts.noSuchFile],
  badRange: [416, texts.badRange],
  signOutFailed: [502, texts.signOutFailed],
  modelsUnavailable: [503, texts.modelsUnavailable],
};

/** The sentence for a refusal of this reason. */
export function sentenceOf(reason: RefusalReason, detail = ''): string {
  const [, sentence] = ANSWERS[reason];
  return typeof sentence === 'string' ? sentence : sentence(detail);
}

export function refusalAnswer(refusal: Refusal): { status: number; message: string } {
  return { status: ANSWERS[refusal.reason][0], message: sentenceOf(refusal.reason, refusal.detail) };
}

/** The status and sentence for what a request ran into; null for a fault of the service's own. */
export function answerOf(error: unknown): { status: number; message: string } | null {
  if (error instanceof Refusal) return refusalAnswer(error);
  if (error instanceof StoreError) return { status: 503, message: texts.storeUnavailable(describeStorage(error)) };
  return null;
}

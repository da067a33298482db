// What the workspace will not do, and why. Whoever refuses names the reason only: the HTTP edge
// (http/refusals.ts) alone turns it into a status and a sentence.
export type RefusalReason =
  // The request itself.
  | 'notFound' | 'methodNotAllowed' | 'notJson' | 'needsJson' | 'tooLarge' | 'foreignOrigin' | 'foreignUser'
  | 'notWebSocket' | 'badHandshake' | 'fileNeedsBytes' | 'badPosition' | 'badChoice' | 'badSignInMethod' | 'needsFlag'
  // Threads and their questions.
  | 'emptyQuestion' | 'noSuchThread' | 'turnRunning' | 'stopping' | 'emptyTitle' | 'titleTooLong' | 'renamedElsewhere'
  | 'deleteWhileUnsaved' | 'searchTooLong' | 'badPermission' | 'busyThread' | 'noTurnToRedo' | 'redoUnsupported' | 'redoFailed' | 'noSuchTurn'
  | 'unknownTurn' | 'changeWhileUnsaved' | 'branchFailed' | 'noSuchQueued'
  // What Codex asks a person to allow.
  | 'badDecision' | 'approvalGone'
  // A folder of the user's own.
  | 'folderNotAbsolute' | 'folderMissing' | 'folderNotFolder' | 'folderForbidden' | 'folderNotYours'
  // Files a question brings.
  | 'fileTooLarge' | 'fileNameMissing' | 'fileNameUnreadable' | 'fileNameEmpty' | 'fileNameHasSlash'
  | 'fileNameHasControl' | 'fileNameReserved' | 'fileNameTooLong' | 'fileMissing' | 'tooManyFiles' | 'folderUnsafe'
  | 'badDraft'
  // The files in a thread's folder.
  | 'noSuchFile' | 'badRange'
  // Codex.
  | 'signOutFailed' | 'modelsUnavailable';

export class Refusal extends Error {
  readonly reason: RefusalReason;
  /** What the sentence names: the title another page gave, the missing file, Codex's own words. */
  readonly detail: string;

  constructor(reason: RefusalReason, detail = '') {
    super(detail === '' ? reason : `${reason}: ${detail}`);
    this.reason = reason;
    this.detail = detail;
  }
}

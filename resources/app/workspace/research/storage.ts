// What the user is told when the data folder cannot keep what happens: the store's failures, and
// a thread's folder that cannot be made or filled, told alike.
import { texts } from '../texts.ts';
import { StoreError } from '../store/store.ts';

export function describeStorage(error: StoreError): string {
  switch (error.reason) {
    case 'full': return texts.storageFull;
    case 'unwritable': return texts.storageUnwritable;
    case 'corrupt': return texts.storageCorrupt;
    case 'newer': return texts.storageNewer;
    case 'other': return texts.storageOther(error.message);
  }
}

/** A file system's refusal in the data folder, as the store's own failure of that kind. */
export function storageError(error: unknown): StoreError {
  if (error instanceof StoreError) return error;
  const full = (error as NodeJS.ErrnoException).code === 'ENOSPC';
  return new StoreError(full ? 'full' : 'unwritable', error instanceof Error ? error.message : String(error), { cause: error });
}

// The upload requests: a file's bytes into a thread's folder or a page's draft folder, and a file
// the page has not sent yet taken back.
import { Refusal } from '../refusal.ts';
import { FILE_LIMIT_BYTES, removeUpload, saveUpload, uploadFolder, type UploadFolders } from '../files/uploads.ts';
import { fileNameOf, readFields, uploadPlaceOf } from './parse.ts';
import { created, ok, type Handler } from './router.ts';

/** POST /api/uploads?thread=ID or ?draft=TOKEN, the name in X-File-Name, the bytes as the body. */
export function uploadFile(folders: UploadFolders): Handler {
  return async ({ request, response, url }) => {
    const name = fileNameOf(request.headers['x-file-name']);
    // A browser states the length of a file it sends: one too big is refused before a byte is read,
    // and the connection is not used again (what is left of the body would be read as the next request).
    if (Number(request.headers['content-length']) > FILE_LIMIT_BYTES) {
      response.setHeader('Connection', 'close');
      throw new Refusal('fileTooLarge');
    }
    const query = url.searchParams;
    const folder = uploadFolder(folders, uploadPlaceOf(query.get('thread') ?? undefined, query.get('draft') ?? undefined), true);
    try {
      return created({ name: await saveUpload(request, folder, name) });
    } catch (error) {
      // What was not read of a body over the limit is not read at all: the connection goes with it.
      if (error instanceof Refusal && error.reason === 'fileTooLarge') {
        response.setHeader('Connection', 'close');
        response.once('finish', () => request.destroy());
      }
      throw error;
    }
  };
}

/** POST /api/uploads/remove {thread or draft, name}. */
export function takeBackFile(folders: UploadFolders): Handler {
  return async ({ request }) => {
    const { thread, draft, name } = await readFields(request);
    await removeUpload(uploadFolder(folders, uploadPlaceOf(thread, draft), false), typeof name === 'string' ? name : '');
    return ok({});
  };
}

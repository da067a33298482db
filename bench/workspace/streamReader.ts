// A page's event stream read in a thread of its own, so the stamps of when each event left the
// service are not held back by whatever this process's main thread is doing (the stand-in, the
// browser's driver). The main thread asks for what was read with 'collect'.
import { parentPort, workerData } from 'node:worker_threads';
import { EventStream } from '../../tests/harness/service.ts';

const { url, threadId } = workerData as { url: string; threadId: string | null };
const stream = new EventStream(Number(new URL(url).port), threadId);
parentPort!.on('message', (message: 'collect' | 'close') => {
  if (message === 'collect') {
    parentPort!.postMessage({ events: stream.events, times: stream.times });
    return;
  }
  stream.close();
  parentPort!.close();
});

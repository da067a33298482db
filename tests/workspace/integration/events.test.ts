// Pages on one running turn, one of which stops reading: it is let go once it lags too far, so what
// the service queues for it stays bounded, and the other pages get every delta in order. A few
// readers show it; fifty are the benchmark's (each reader here is parsed by this one process, and
// fifty of them starved on a loaded machine fell as far behind as the stalled page).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { connect } from 'node:net';
import { MAX_QUEUED_BYTES } from '../../../resources/app/workspace/http/events.ts';
import { fakeCodex, startService, Tap, temporaryFolder, until, upgradeRequest } from '../../harness/service.ts';

// A stalled page's connection absorbs about 4 MiB in the kernel's buffers before anything queues
// in the service; the turn streams well beyond that plus the hub's limit, slowly enough (about
// 1.6 MB a second) that a page that reads falls that far behind only if starved for seconds.
const DELTAS = 192;
const SIZE = 64 << 10;

test('pages follow one turn; the one that stops reading is dropped, the others get every delta', { timeout: 120_000 }, async () => {
  assert.ok(DELTAS * SIZE > MAX_QUEUED_BYTES + (6 << 20));
  const service = await startService({ codexPath: fakeCodex(temporaryFolder('lm-fake-')), env: { FAKE_CODEX_STREAM: `${DELTAS}x${SIZE}x40` } });
  try {
    const created = await service.request('POST', '/api/threads', { question: 'first' });
    const id: string = created.body.thread.id;
    await service.stream(id).wait('turn', (event) => event.turn.status === 'completed');

    const readers = Array.from({ length: 4 }, () => new Tap(service.port, id));
    const stalled = connect(service.port, '127.0.0.1');
    stalled.write(upgradeRequest(service.port, `/api/events?thread=${id}`));
    let unread = '';
    await new Promise<void>((resolve) => stalled.once('data', (chunk) => { unread += chunk; stalled.pause(); resolve(); }));
    await until('every page\'s snapshot', () => readers.every((tap) => tap.events.length > 0));

    await service.request('POST', `/api/threads/${id}/turns`, { question: 'stream' });
    const over = (tap: Tap) => tap.ended || tap.events.some((event) => event.type === 'threadSummary' && !event.thread.running);
    await until('every reading page to see the turn end', () => readers.every(over), 90_000);
    for (const tap of readers) {
      assert.equal(tap.ended, false, 'a reading page was dropped');
      assert.deepEqual(tap.heads.map((head) => Number(head.split(':')[0])), [Number.NaN, ...Array(DELTAS).keys()]);
    }
    // Read now, the stalled page's stream stops short: the service closed it in mid-turn.
    let closed = false;
    stalled.on('data', (chunk) => { unread += chunk; }).on('close', () => { closed = true; }).on('error', () => {});
    stalled.resume();
    await until('the stalled page\'s stream to end', () => closed);
    assert.ok(unread.includes('"text":"0:') && !unread.includes(`"text":"${DELTAS - 1}:`), 'the stalled page was cut off while the turn ran');
  } finally {
    service.child.kill('SIGKILL');
    await service.exited;
  }
});

// The gate every request and event stream passes: only a connection whose socket this user owns.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import type { Socket } from 'node:net';
import { PeerGate } from '../../../resources/app/workspace/http/security.ts';

test('a connection is let in only when its owner is known to be this user', async () => {
  const rows: [string, () => Promise<number | null>, boolean][] = [
    ['this user', async () => 1000, true],
    ['another user', async () => 1001, false],
    ['root', async () => 0, false],
    ['nobody found', async () => null, false],
    ['the lookup failed', async () => { throw new Error('EACCES'); }, false],
  ];
  for (const [what, lookup, allowed] of rows) {
    const socket = { remoteAddress: '127.0.0.1', remotePort: 50000, localAddress: '127.0.0.1', localPort: 18765 } as Socket;
    assert.equal(await new PeerGate(lookup, 1000).allows(socket), allowed, what);
  }
});

// Which account a loopback connection comes from. The Linux way (/proc/net/tcp) is what the
// service's own tests go through; the macOS way (lsof) is tried here on real connections, from
// this account and from another, as lsof on Linux reports them the same.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { createServer, type Socket } from 'node:net';
import { once } from 'node:events';
import { lsofLookup, procNetLookup, type PeerLookup } from '../../../resources/app/workspace/http/peer.ts';
import { NODE } from '../../harness/service.ts';

async function ownerOfConnectionFrom(uid: number | null, lookup: PeerLookup, host = '127.0.0.1'): Promise<number | null> {
  const server = createServer().listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address() as import('node:net').AddressInfo;
  const accepted = once(server, 'connection') as Promise<[Socket]>;
  const client = spawn(NODE, ['-e', `require('node:net').connect(${port}, '${host}'); setTimeout(() => {}, 30000)`],
    uid === null ? {} : { uid, gid: uid });
  try {
    const [socket] = await accepted;
    return await lookup(
      { address: socket.remoteAddress!, port: socket.remotePort! },
      { address: socket.localAddress!, port: socket.localPort! },
    );
  } finally {
    client.kill('SIGKILL');
    server.close();
  }
}

test('lsof: a connection is its owner\'s (another account\'s, when this one may act as another), not the listener\'s', async () => {
  const other = process.getuid!() === 0 ? 65534 : null;
  assert.equal(await ownerOfConnectionFrom(other, lsofLookup), other ?? process.getuid!());
});

test('/proc/net/tcp6: a connection from an IPv6 socket to the IPv4 address is its owner\'s', async () => {
  assert.equal(await ownerOfConnectionFrom(null, procNetLookup, '::ffff:127.0.0.1'), process.getuid!());
});

test('a connection that is gone by the time it is looked up belongs to nobody', async () => {
  for (const lookup of [procNetLookup, lsofLookup]) {
    assert.equal(await lookup({ address: '127.0.0.1', port: 1 }, { address: '127.0.0.1', port: 2 }), null);
  }
});

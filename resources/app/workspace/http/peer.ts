// Which user account a loopback connection comes from. The service makes Codex run commands as
// its own user, so only that user's programs may talk to it. Linux shows every TCP socket with its
// owner in /proc/net/tcp; on macOS, lsof shows the sockets of the caller's own processes only, so
// a connection it cannot find (another user's) counts as foreign.
import { readFile } from 'node:fs/promises';
import { execFile } from 'node:child_process';
import { promisify } from 'node:util';

export interface Endpoint {
  address: string;
  port: number;
}

/**
 * /proc/net/tcp's form of an IPv4 endpoint (tcp6's of an IPv4-mapped one): the address in
 * little-endian words, both in hex.
 */
export function procNetForm(endpoint: Endpoint): string {
  const mapped = endpoint.address.startsWith('::ffff:');
  const octets = endpoint.address.slice(mapped ? 7 : 0).split('.').map(Number);
  const ipv4 = octets.reverse().map((octet) => octet.toString(16).padStart(2, '0')).join('');
  // /proc/net/tcp6 lists an address as four 32-bit words, each in the machine's (little-endian) order.
  const address = mapped ? `0000000000000000FFFF0000${ipv4}` : ipv4;
  return `${address}:${endpoint.port.toString(16).padStart(4, '0')}`.toUpperCase();
}

/** The owner of the socket at `peer` connected to `local`, as /proc/net/tcp lists it; null if absent. */
export function ownerInProcNet(table: string, peer: Endpoint, local: Endpoint): number | null {
  const want = [procNetForm(peer), procNetForm(local)];
  for (const line of table.split('\n').slice(1)) {
    const fields = line.trim().split(/\s+/);
    // sl local_address rem_address st tx:rx tr:when retrnsmt uid ...
    if (fields[1] === want[0] && fields[2] === want[1]) {
      const uid = Number(fields[7]);
      return Number.isInteger(uid) ? uid : null;
    }
  }
  return null;
}

/**
 * From lsof -F pun output (a `p<pid>` line starts a process, `u<uid>` names its owner, each `n`
 * line one of its sockets), the owner of the socket whose name is peer->local.
 */
export function ownerInLsof(output: string, peer: Endpoint, local: Endpoint): number | null {
  const name = `n${peer.address}:${peer.port}->${local.address}:${local.port}`;
  let uid: number | null = null;
  for (const line of output.split('\n')) {
    if (line.startsWith('u')) uid = Number(line.slice(1));
    else if (line === name) return uid;
  }
  return null;
}

const run = promisify(execFile);

export type PeerLookup = (peer: Endpoint, local: Endpoint) => Promise<number | null>;

const mappedTo6 = (endpoint: Endpoint): Endpoint => ({ ...endpoint, address: `::ffff:${endpoint.address}` });

// A client's IPv6 socket reaches the IPv4 listener from an IPv4-mapped address, and is listed
// among the IPv6 sockets.
export const procNetLookup: PeerLookup = async (peer, local) =>
  ownerInProcNet(await readFile('/proc/net/tcp', 'utf8'), peer, local)
  ?? ownerInProcNet(await readFile('/proc/net/tcp6', 'utf8').catch(() => ''), mappedTo6(peer), mappedTo6(local));

export const lsofLookup: PeerLookup = async (peer, local) => {
  try {
    const { stdout } = await run('lsof', ['-n', '-P', '-F', 'pun', `-iTCP@${peer.address}:${peer.port}`]);
    return ownerInLsof(stdout, peer, local);
  } catch {
    return null;
  }
};

export const systemLookup: PeerLookup = process.platform === 'linux' ? procNetLookup : lsofLookup;

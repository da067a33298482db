// A thread's permission level as Codex's own sandbox: what its commands may touch, set on every
// turn, so a level changed between two questions holds from the next one.
import type { CodexSandboxMode, CodexSandboxPolicy } from '../codex/protocol.ts';
import type { Permission } from '../model.ts';

export const PERMISSIONS: readonly Permission[] = ['read', 'write', 'network'];

export function isPermission(value: unknown): value is Permission {
  return typeof value === 'string' && (PERMISSIONS as readonly string[]).includes(value);
}

/** The sandbox a Codex thread is started or resumed with; each turn then says its own policy. */
export function sandboxModeOf(permission: Permission): CodexSandboxMode {
  return permission === 'read' ? 'read-only' : 'workspace-write';
}

/** The working folder is the only one a writing turn may write in (besides the temporary ones). */
export function sandboxPolicyOf(permission: Permission): CodexSandboxPolicy {
  if (permission === 'read') return { type: 'readOnly', networkAccess: false };
  return { type: 'workspaceWrite', writableRoots: [], networkAccess: permission === 'network', excludeTmpdirEnvVar: false, excludeSlashTmp: false };
}

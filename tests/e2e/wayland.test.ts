// The desktop surface on a real Wayland compositor (Weston, headless) with no X server at all. Weston
// takes no input from outside, so what the launcher shows is read from the compositor's own log of
// the requests its clients make.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { join } from 'node:path';
import { Launcher, readText, sandboxFor } from '../harness/launcher.ts';
import { westonCompositor } from '../harness/desktop.ts';
import { until } from '../harness/service.ts';

test('the window comes up, and losing the compositor stops the service first', async (t) => {
  // A session's own naming, and an absolute socket path as the only variable.
  for (const absolute of [false, true]) {
    await t.test(absolute ? 'absolute socket path' : 'socket in the runtime folder', async (t) => {
      const { compositor, runtime, socket, titles } = await westonCompositor(t);
      const sandbox = sandboxFor(t);
      Object.assign(sandbox.env, absolute ? { WAYLAND_DISPLAY: join(runtime, socket) } : { WAYLAND_DISPLAY: socket, XDG_RUNTIME_DIR: runtime });
      const launcher = await Launcher.ready(sandbox);
      await until('the window', () => titles().includes('Lanternmoor Pro'));
      compositor.kill('SIGTERM');
      // 1: Qt's own status for a broken display connection.
      assert.equal(await launcher.ended(sandbox), 1);
      assert.ok(readText(sandbox.log).endsWith('stopped (SIGTERM)\n'), readText(sandbox.log) + launcher.output);
    });
  }
});

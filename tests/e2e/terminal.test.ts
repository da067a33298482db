// What crosses processes, in the terminal surface: quits while starting, refusals, launchers started together.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync } from 'node:fs';
import { join } from 'node:path';
import { Launcher, OPENED, RUNNING, sandboxFor, STARTING } from '../harness/launcher.ts';
import { until } from '../harness/service.ts';

test('a quit during the Node.js search leaves nothing running', async (t) => {
  // The version probe is no owned service, and is stopped all the same. It sleeps past the
  // harness's patience, so one left running fails the wait for the sandbox to stop.
  const sandbox = sandboxFor(t, undefined, { node: null });
  sandbox.script('bin/node', `echo $$ > ${sandbox.root}/node.pid\nexec /bin/sleep 600`);
  const launcher = new Launcher(sandbox);
  await until('the version probe', () => existsSync(join(sandbox.root, 'node.pid')));
  launcher.child.kill('SIGTERM');
  assert.equal(await launcher.ended(sandbox), 0);
  assert.deepEqual([launcher.lines(), sandbox.opened()], [[STARTING], []]);
});

test('a display that cannot be opened gives the terminal, and a refusal leaves nothing', async (t) => {
  for (const display of [{ DISPLAY: ':97' }, { WAYLAND_DISPLAY: 'wayland-97', XDG_RUNTIME_DIR: '/tmp' }]) {
    await t.test(Object.keys(display)[0]!, async (t) => {
      const sandbox = sandboxFor(t, undefined, { node: null });
      Object.assign(sandbox.env, display);
      const launcher = new Launcher(sandbox);
      await launcher.expect(STARTING, '请先安装 Node.js', null, '[1] 查看安装说明  [2] 退出');
      launcher.child.stdin!.end();
      assert.equal(await launcher.ended(sandbox), 0);
      assert.deepEqual([sandbox.opened(), existsSync(sandbox.dataFolder)], [[], false]);
    });
  }
});

test('launchers started together hand over to one service', async (t) => {
  for (let attempt = 0; attempt < 20; attempt += 1) {
    await t.test(`attempt ${attempt}`, async (t) => {
      const sandbox = sandboxFor(t);
      const pair = [new Launcher(sandbox), new Launcher(sandbox)];
      const loser = await until('one launcher to end', () => pair.find((launcher) => launcher.child.exitCode !== null));
      const winner = pair.find((launcher) => launcher !== loser)!;
      await winner.expect(STARTING, RUNNING, OPENED);
      assert.deepEqual([loser.child.exitCode, loser.lines(), winner.child.exitCode], [0, [STARTING, OPENED], null]);
      winner.child.kill('SIGTERM');
      // The service the loser may have launched is gone too.
      assert.equal(await winner.ended(sandbox), 0);
    });
  }
});

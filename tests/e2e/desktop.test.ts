// The desktop surface as users meet it, on an Xvfb of its own, with the trayer tray host and without.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { Launcher, readText, sandboxFor, WORKSPACE } from '../harness/launcher.ts';
import { XDisplay } from '../harness/desktop.ts';
import { until } from '../harness/service.ts';

/** Relative luminance, as contrast ratios use it. */
function luminance(r: number, g: number, b: number): number {
  const [lr, lg, lb] = [r, g, b].map((c) => (c <= 10 ? c / 255 / 12.92 : ((c / 255 + 0.055) / 1.055) ** 2.4)) as [number, number, number];
  return 0.2126 * lr + 0.7152 * lg + 0.0722 * lb;
}

test('without a tray a window carries the menu, and closing it or losing the display stops the service first', async (t) => {
  for (const loseDisplay of [false, true]) {
    await t.test(loseDisplay ? 'the display is lost' : 'the window is closed', async (t) => {
      const display = await XDisplay.start(t);
      const sandbox = sandboxFor(t);
      sandbox.env.DISPLAY = display.name;
      const launcher = await Launcher.ready(sandbox);
      const window = await display.window('^Lanternmoor Pro$');
      if (loseDisplay) {
        display.server.kill('SIGTERM');
      } else {
        display.xdotool('windowfocus', '--sync', window, 'key', 'ctrl+o');
        await until('the workspace opened again', () => sandbox.opened().length === 2);
        await display.close(window);
      }
      // 1: Qt's own status for a broken display connection.
      assert.equal(await launcher.ended(sandbox), loseDisplay ? 1 : 0);
      assert.ok(readText(sandbox.log).endsWith('stopped (SIGTERM)\n'), readText(sandbox.log));
    });
  }
});

test('the tray menu takes its keys, and the icon stands out on any panel', async (t) => {
  for (const panel of ['222222', 'eeeeee']) {
    await t.test(`panel #${panel}`, async (t) => {
      const display = await XDisplay.start(t);
      const tray = await display.trayer(t, panel);
      const sandbox = sandboxFor(t);
      sandbox.env.DISPLAY = display.name;
      const launcher = await Launcher.ready(sandbox);
      await until('the icon to dock', () => display.geometry(tray).WIDTH > 8);
      const { X: x } = display.geometry(tray);
      const [r, g, b] = Buffer.from(panel, 'hex');
      const background = luminance(r!, g!, b!);
      const ratio = Math.max(...display.pixels(32, 32, x, 0).map(([, , r, g, b]) => luminance(r!, g!, b!))
        .map((l) => (Math.max(l, background) + 0.05) / (Math.min(l, background) + 0.05)));
      assert.ok(ratio > 7, `the icon's best contrast on #${panel} is only ${ratio.toFixed(1)}`);
      for (const key of ['ctrl+o', 'ctrl+q']) {
        // The menu holds the keyboard; an icon just docked may miss a click.
        await until('the menu to open', () => {
          display.xdotool('mousemove', x + 12, 16, 'click', 1);
          return display.xdotool('search', '--onlyvisible', '--classname', 'lanternmoor').some((w) => display.geometry(w).WIDTH > 100);
        });
        display.xdotool('key', key);
        await until(`${key} to be done`, () => sandbox.opened().length === 2);
      }
      assert.equal(await launcher.ended(sandbox), 0);
      assert.deepEqual(sandbox.opened(), [WORKSPACE, WORKSPACE]);
    });
  }
});

test('the two-button alert is wide, and answered by Enter, Escape and closing', async (t) => {
  for (const [key, guide] of [['Return', true], ['Escape', false], [null, false]] as const) {
    await t.test(key ?? 'closed', async (t) => {
      const display = await XDisplay.start(t);
      const sandbox = sandboxFor(t, undefined, { node: null });
      sandbox.env.DISPLAY = display.name;
      const launcher = new Launcher(sandbox);
      const alert = await display.window('请先安装 Node.js');
      assert.ok(display.geometry(alert).WIDTH >= 420);
      if (key) display.xdotool('windowfocus', '--sync', alert, 'key', key);
      else await display.close(alert);
      assert.equal(await launcher.ended(sandbox), 0);
      assert.deepEqual(sandbox.opened().map((url) => url.endsWith('.html')), guide ? [true] : []);
    });
  }
});

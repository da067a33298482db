// The desktop surface where the tray is a StatusNotifier host (KDE Plasma, GNOME with the AppIndicator
// extension, most Wayland panels): here xfce4-panel's system tray on an Xvfb, in a session bus of its own.
// What the panel was told is read over D-Bus, as any host reads it; what it draws, from the screen.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { Launcher, sandboxFor } from '../harness/launcher.ts';
import { busProperty, busStrings, statusNotifierHost, WATCHER, XDisplay } from '../harness/desktop.ts';
import { until } from '../harness/service.ts';

const ITEM = 'org.kde.StatusNotifierItem';
const AMBER = [0xff, 0xc8, 0x57];  // the icon's letters

test('the item follows the presentation and its menu works', async (t) => {
  const display = await XDisplay.start(t);
  const bus = await statusNotifierHost(t, display);
  const sandbox = sandboxFor(t);
  Object.assign(sandbox.env, { DISPLAY: display.name, DBUS_SESSION_BUS_ADDRESS: bus });
  const launcher = new Launcher(sandbox);
  const registered = await until('the item', () => {
    const items = busStrings(busProperty(bus, WATCHER, '/StatusNotifierWatcher', WATCHER, 'RegisteredStatusNotifierItems'));
    return items.length > 0 && items;
  });
  assert.equal(registered.length, 1, String(registered));
  const [owner, path] = [registered[0]!.slice(0, registered[0]!.indexOf('/')), registered[0]!.slice(registered[0]!.indexOf('/'))];
  await until('the workspace to open', () => sandbox.opened().length === 1);
  // Set after the item was up: the host is told of every change.
  await until('the running tooltip', () => busStrings(busProperty(bus, owner, path, ITEM, 'ToolTip'))[1] === 'Lanternmoor Pro · 正在本机运行');

  // The panel draws the icon and, on a right click, the menu it was handed. From its end upwards,
  // the separator and the greyed header are passed over: quit, data folder, guide, workspace.
  const icon = await until('the panel to show our icon', () => {
    const amber = display.pixels(1024, 32, 0, 0).filter(([, , ...rgb]) => rgb.every((c, i) => Math.abs(c - AMBER[i]!) < 24));
    return amber.length > 0 && [0, 1].map((axis) => Math.floor(amber.reduce((sum, pixel) => sum + pixel[axis]!, 0) / amber.length));
  });
  // The tray runs in a helper process of the panel's, which draws the menu.
  const panelWindows = () => new Set(display.xdotool('search', '--onlyvisible', '--classname', '^(xfce4-panel|wrapper-2.0)$'));
  for (const [ups, done] of [[4, () => sandbox.opened().length === 2], [1, () => launcher.child.exitCode !== null]] as const) {
    const before = panelWindows();
    display.xdotool('mousemove', ...icon, 'click', 3);
    await until('the panel to open a menu', () => [...panelWindows()].some((window) => !before.has(window)));
    display.xdotool('sleep', 0.3, 'key', ...Array<string>(ups).fill('Up'), 'Return');
    await until('the entry to be done', done);
  }
  assert.equal(await launcher.ended(sandbox), 0);
});

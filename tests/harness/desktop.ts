// Desktops for the launcher to meet, each of the test's own and gone with it: an X server (Xvfb)
// with or without a tray host, a session bus with a StatusNotifier host (xfce4-panel), a Wayland
// compositor (Weston, headless). Driven and read through Debian's command-line tools: xdotool,
// ImageMagick's import, dbus-send.
import { execFileSync, spawn, type ChildProcess } from 'node:child_process';
import { once } from 'node:events';
import { copyFileSync, mkdirSync, rmSync, statSync } from 'node:fs';
import { connect } from 'node:net';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import type { Readable } from 'node:stream';
import { readText } from './launcher.ts';
import { temporaryFolder, until } from './service.ts';

const quiet = { stdio: 'ignore' } as const;

/** What cleans up after the caller: a test's context, or a benchmark's round. */
export interface Scope {
  after(cleanup: () => unknown): void;
}

/** Started now, killed (and waited for) when the test ends. */
function daemon(t: Scope, command: string, args: string[], options: Parameters<typeof spawn>[2] = quiet): ChildProcess {
  const child = spawn(command, args, options);
  const exited = once(child, 'exit');
  t.after(async () => {
    if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
    await exited;
  });
  return child;
}

async function firstLine(input: Readable): Promise<string> {
  const reader = createInterface({ input });
  const [line] = await once(reader, 'line') as [string];
  reader.close();
  return line.trim();
}

export class XDisplay {
  server!: ChildProcess;
  /** As DISPLAY names it. */
  name = '';

  /** An Xvfb that picks a free display number itself. */
  static async start(t: Scope): Promise<XDisplay> {
    const display = new XDisplay();
    // Without -noreset the server starts over whenever its last client leaves, as the launcher's
    // own check of the display does just before Qt connects; Qt's connection then failed now and then.
    display.server = daemon(t, 'Xvfb', ['-displayfd', '3', '-screen', '0', '1024x600x24', '-nolisten', 'tcp', '-noreset'],
      { stdio: ['ignore', 'ignore', 'ignore', 'pipe'] });
    display.name = `:${await firstLine(display.server.stdio[3] as Readable)}`;
    return display;
  }

  /** The trayer tray host along the top edge, its panel this colour; the panel's window. */
  async trayer(t: Scope, tint: string): Promise<string> {
    daemon(t, 'trayer', ['--edge', 'top', '--align', 'right', '--widthtype', 'request', '--height', '32', '--transparent', 'true',
      '--alpha', '0', '--tint', `0x${tint}`], { ...quiet, env: { ...process.env, DISPLAY: this.name } });
    return (await until('the tray host', () => this.xdotool('search', '--classname', '^panel$')[0]));
  }

  /** Its words of output; none when it fails, or hangs on a window that went as it looked. */
  xdotool(...args: (string | number)[]): string[] {
    try {
      return execFileSync('xdotool', args.map(String), { env: { ...process.env, DISPLAY: this.name }, encoding: 'utf8', stdio: 'pipe',
        timeout: 5_000 }).split(/\s+/).filter(Boolean);
    } catch {
      return [];
    }
  }

  geometry(window: string): { X: number; Y: number; WIDTH: number; HEIGHT: number } {
    return Object.fromEntries(this.xdotool('getwindowgeometry', '--shell', window).map((line) => line.split('='))
      .map(([key, value]) => [key, Number(value)])) as never;
  }

  /** The first visible window whose name matches. */
  window(name: string, timeoutMs?: number): Promise<string> {
    return until(`a window ${name}`, () => this.xdotool('search', '--onlyvisible', '--name', name)[0], timeoutMs);
  }

  /** The colour of every pixel of this part of the screen, as [x, y, r, g, b]. */
  pixels(width: number, height: number, x: number, y: number): number[][] {
    const text = execFileSync('import', ['-display', this.name, '-window', 'root', '-crop', `${width}x${height}+${x}+${y}`, 'txt:-'],
      { encoding: 'utf8', maxBuffer: 64 << 20 });
    return [...text.matchAll(/^(\d+),(\d+):.*srgb\((\d+),(\d+),(\d+)\)/gm)].map((match) => match.slice(1).map(Number));
  }

  /**
   * The request a window manager sends when the user closes a window: a WM_DELETE_WINDOW client
   * message, spoken in the X protocol itself, since no command-line tool sends one without a
   * window manager running. Little-endian, as the machines this runs on.
   */
  async close(window: string): Promise<void> {
    const words = (...values: number[]) => Buffer.from(new Uint32Array(values).buffer);
    const internAtom = (name: string) => Buffer.concat([words(16 | ((2 + Math.ceil(name.length / 4)) << 16), name.length),
      Buffer.from(name.padEnd(Math.ceil(name.length / 4) * 4, '\0'), 'latin1')]);
    const socket = connect(`/tmp/.X11-unix/X${this.name.slice(1)}`);
    let received = Buffer.alloc(0);
    socket.on('data', (chunk) => { received = Buffer.concat([received, chunk]); });
    const receivedAtLeast = (bytes: number) => until('the X server', () => received.length >= bytes);
    // Protocol 11.0 without authorization, which Xvfb does not ask for.
    socket.write(Buffer.concat([words(0x6c | (11 << 16), 0, 0), internAtom('WM_PROTOCOLS'), internAtom('WM_DELETE_WINDOW')]));
    await receivedAtLeast(8);
    const setup = 8 + received.readUInt16LE(6) * 4;
    await receivedAtLeast(setup + 64);
    const [protocols, deleteWindow] = [received.readUInt32LE(setup + 8), received.readUInt32LE(setup + 40)];
    // SendEvent of a ClientMessage, then GetInputFocus, whose reply says the event went out.
    socket.write(words(25 | (11 << 16), Number(window), 0, 33 | (32 << 8), Number(window), protocols, deleteWindow, 0, 0, 0, 0, 43 | (1 << 16)));
    await receivedAtLeast(setup + 96);
    socket.destroy();
  }
}

/** A D-Bus session of its own with xfce4-panel hosting StatusNotifier items on this display. */
export async function statusNotifierHost(t: Scope, display: XDisplay): Promise<string> {
  const home = temporaryFolder('lm-session-');
  t.after(() => rmSync(home, { recursive: true, force: true }));
  const settings = join(home, '.config/xfce4/xfconf/xfce-perchannel-xml');
  mkdirSync(settings, { recursive: true });
  // One panel along the top edge holding only the system tray.
  copyFileSync(new URL('xfce4-panel.xml', import.meta.url), join(settings, 'xfce4-panel.xml'));
  // The bus starts the panel's settings service itself, so it is given the session's folders too.
  const session = { ...process.env, HOME: home, XDG_CONFIG_HOME: join(home, '.config'), XDG_CACHE_HOME: join(home, '.cache'),
    XDG_DATA_HOME: join(home, '.local/share'), DISPLAY: display.name };
  const bus = daemon(t, 'dbus-run-session', ['--', 'sh', '-c', 'echo "$DBUS_SESSION_BUS_ADDRESS"; exec sleep 600'],
    { env: session, stdio: ['ignore', 'pipe', 'ignore'], detached: true });
  // The bus daemon is the session's child, not the test's: the whole group goes.
  t.after(() => { try { process.kill(-bus.pid!, 'SIGKILL'); } catch { /* gone already */ } });
  const address = await firstLine(bus.stdout!);
  daemon(t, 'xfce4-panel', ['--disable-wm-check'], { ...quiet, env: { ...session, DBUS_SESSION_BUS_ADDRESS: address } });
  await until('the panel to host items', () => busProperty(address, WATCHER, '/StatusNotifierWatcher', WATCHER, 'IsStatusNotifierHostRegistered')
    .includes('boolean true'));
  return address;
}

export const WATCHER = 'org.kde.StatusNotifierWatcher';

/** A property as dbus-send prints it; empty while its owner is not on the bus. */
export function busProperty(address: string, owner: string, path: string, iface: string, name: string): string {
  try {
    return execFileSync('dbus-send', [`--bus=${address}`, '--print-reply', `--dest=${owner}`, path, 'org.freedesktop.DBus.Properties.Get',
      `string:${iface}`, `string:${name}`], { encoding: 'utf8', stdio: 'pipe' });
  } catch {
    return '';
  }
}

/** The string values of what dbus-send printed, in order. */
export const busStrings = (printed: string) => [...printed.matchAll(/^\s*string "(.*)"$/gm)].map((match) => match[1]!);

/** Weston, headless, in a runtime folder of its own; it logs every request its clients make. */
export async function westonCompositor(t: Scope): Promise<{ compositor: ChildProcess; runtime: string; socket: string; titles(): string[] }> {
  const runtime = temporaryFolder('lm-wayland-');
  t.after(() => rmSync(runtime, { recursive: true, force: true }));
  const log = join(runtime, 'weston.log');
  const socket = 'wayland-lm';
  const compositor = daemon(t, 'weston', ['--backend=headless-backend.so', '--use-pixman', `--socket=${socket}`, '--width=1024',
    '--height=600', '--idle-time=0', '--logger-scopes=log,proto', `--log=${log}`], { ...quiet, env: { ...process.env, XDG_RUNTIME_DIR: runtime } });
  await until('the compositor', () => { try { return statSync(join(runtime, socket)).isSocket(); } catch { return false; } });
  return { compositor, runtime, socket, titles: () => [...readText(log).matchAll(/xdg_toplevel@\d+\.set_title\("(.*)"\)/g)].map((match) => match[1]!) };
}

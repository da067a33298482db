// The Debian package built from this build: its files, the unpacked program and service at work, lintian.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { readdirSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import { Launcher, OPENED, RUNNING, sandboxFor, STARTING, WORKSPACE } from '../harness/launcher.ts';
import { BUILD, SOURCE } from '../harness/service.ts';

const run = (command: string, ...args: string[]) => execFileSync(command, args, { encoding: 'utf8', cwd: BUILD, maxBuffer: 16 << 20 });

const packages = () => readdirSync(BUILD).filter((name) => /^lanternmoor-pro_.*_amd64\.deb$/.test(name)).map((name) => join(BUILD, name));

test('the package installs what runs and passes the checks', async (t) => {
  // An earlier version's package, left in the build folder by its build, is none of this one's.
  for (const earlier of packages()) rmSync(earlier);
  run('cpack', '-G', 'DEB');
  const [deb, ...others] = packages();
  assert.deepEqual(others, []);
  // Every shipped resource: the service with its types stripped, its page and its libraries, the guide.
  const resources = readdirSync(join(SOURCE, 'resources'), { recursive: true, withFileTypes: true }).filter((entry) => entry.isFile())
    .map((entry) => join(entry.parentPath, entry.name).slice(join(SOURCE, 'resources/').length).replace(/\.ts$/, '.js'));
  const expected = Object.fromEntries([['bin/lanternmoor-pro', '-rwxr-xr-x'], ...['applications/lanternmoor-pro.desktop',
    'icons/hicolor/scalable/apps/lanternmoor-pro.svg', 'doc/lanternmoor-pro/copyright', 'doc/lanternmoor-pro/changelog.gz',
    ...resources.map((path) => `lanternmoor-pro/${path}`)].map((path) => [`share/${path}`, '-rw-r--r--'])]);
  const listed = run('dpkg-deb', '-c', deb!).trim().split('\n').filter((line) => !line.startsWith('d')).map((line) => line.split(/\s+/));
  assert.deepEqual(Object.fromEntries(listed.map((fields) => [fields.at(-1)!.replace('./usr/', ''), fields[0]])), expected);
  const fields = run('dpkg-deb', '-f', deb!, 'Depends', 'Suggests');
  for (const needed of ['libqt6widgets6 (>=', 'libqt6svg6', 'xdg-utils', '\nSuggests: nodejs (>= 22.13)']) assert.ok(fields.includes(needed), fields);

  // The unpacked program finds the service beside it, and that service loads the page.
  const sandbox = sandboxFor(t);
  run('dpkg-deb', '-x', deb!, join(sandbox.root, 'root'));
  const launcher = new Launcher(sandbox, join(sandbox.root, 'root/usr/bin/lanternmoor-pro'));
  await launcher.expect(STARTING, RUNNING, OPENED);
  const page = await fetch(WORKSPACE);
  assert.deepEqual([page.status, (await page.text()).includes('<html')], [200, true]);
  launcher.child.kill('SIGTERM');
  assert.equal(await launcher.ended(sandbox), 0);

  const lint = spawnSync('lintian', ['--tag-display-limit', '0', deb!], { encoding: 'utf8' }).stdout;
  assert.doesNotMatch(lint, /^[EW]: (?!.*no-manual-page)/m, lint);
  assert.equal(spawnSync('desktop-file-validate', [join(sandbox.root, 'root/usr/share/applications/lanternmoor-pro.desktop')],
    { encoding: 'utf8' }).stdout, '');
});

"""The launcher's own service: start, hand-over to a second copy, and every way of quitting."""

import json
import os
import re
import signal
import time
from datetime import datetime, timedelta, timezone

from harness import (OPENED, RUNNING, STARTING, WORKSPACE_URL, LauncherCase, health_pid, process_state, read,
                     wait_until)

STAMP = re.compile(r"\n\[(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)\] Lanternmoor Pro launcher started\n")

# Serves health but shrugs off SIGTERM, so only the forced stop can end it.
STUBBORN_SERVICE = """
import { createServer } from 'node:http';
process.on('SIGTERM', () => console.log('stubborn service ignores SIGTERM'));
createServer((req, res) => res.writeHead(200, { 'Content-Type': 'application/json' })
  .end(JSON.stringify({ appId: 'lanternmoor-local-pro', pid: process.pid }))).listen(18765, '127.0.0.1');
"""

# Never answers; reports what it was started with, so the launch contract can be checked.
REPORTING_SERVICE = """
import { fstatSync, statSync } from 'node:fs';
const env = Object.fromEntries(Object.entries(process.env).filter(
  ([name]) => name.startsWith('LANTERNMOOR_') || name === 'PATH' || name === 'LM_E2E_INHERITED'));
const stdinIsNull = fstatSync(0).isCharacterDevice() && fstatSync(0).rdev === statSync('/dev/null').rdev;
console.log('REPORT ' + JSON.stringify({ pid: process.pid, argv: process.argv.slice(1), execArgv: process.execArgv,
  cwd: process.cwd(), stdinIsNull, env }));
console.error('a line on standard error');
setInterval(() => {}, 1000);
"""


class LifecycleTests(LauncherCase):

    def test_start_then_quit_on_each_termination_signal(self):
        # The data location and an earlier log ride along with the signals, as each needs a full start.
        for number, data_home, earlier in [(signal.SIGTERM, None, ""), (signal.SIGINT, "absolute", "an earlier run\n"),
                                           (signal.SIGHUP, "relative/data", "")]:
            with self.row(number.name):
                box = self.sandbox()
                if data_home:  # a relative one must be ignored
                    box.env["XDG_DATA_HOME"] = str(box.root / "xdg") if data_home == "absolute" else data_home
                if earlier:
                    box.data_folder.mkdir(parents=True, mode=0o755)
                    box.data_folder.chmod(0o755)
                    box.log.write_text(earlier)
                    box.log.chmod(0o644)
                started = datetime.now(timezone.utc)
                launcher, pid = self.start_ready(box)
                self.assertTrue(wait_until(lambda: read(box.browsed).splitlines() == [WORKSPACE_URL], 5),
                                f"BROWSER was called with {read(box.browsed).splitlines()}")
                log = read(box.log)
                self.assertTrue(log.startswith(earlier), "an earlier log must be kept byte for byte")
                stamp = STAMP.match(log, len(earlier))
                self.assertIsNotNone(stamp, "the stamp must directly follow what was there")
                # UTC although the launcher runs with TZ 8 hours east of it.
                self.assertLess(abs(datetime.fromisoformat(stamp[1]) - started), timedelta(seconds=30))
                self.assertIn("workspace service listening on " + WORKSPACE_URL, log[stamp.end():])
                self.assertEqual(box.data_folder.stat().st_mode & 0o777, 0o700)
                self.assertEqual(box.log.stat().st_mode & 0o777, 0o600)

                launcher.send_signal(number)
                self.assert_ended(launcher, box, 10)
                self.assert_gone(pid)
                self.assertEqual(launcher.lines(), [STARTING, RUNNING, OPENED])
                self.assertTrue(read(box.log).endswith("workspace service stopped (SIGTERM)\n"))

    def test_second_launcher_hands_over_to_the_running_service(self):
        box = self.sandbox()
        first, pid = self.start_ready(box)
        log_before = box.log.read_bytes()

        second = self.launch(box)
        self.assertEqual(second.wait(10), 0)
        self.assertEqual(second.lines(), [STARTING, OPENED])
        self.assertEqual(box.log.read_bytes(), log_before, "a hand-over must not touch the log")
        self.assertTrue(wait_until(lambda: read(box.browsed).splitlines() == [WORKSPACE_URL] * 2, 5))

        time.sleep(0.3)  # room for the first launcher to react, which it must not
        self.assertIsNone(first.poll())
        self.assertNotIn(process_state(pid), (None, "Z"))
        self.assertEqual(health_pid(), pid)
        self.assertEqual(first.lines(), [STARTING, RUNNING, OPENED], "the first launcher must not notice the second")

    def test_quit_while_the_service_starts(self):
        box = self.sandbox()
        executable = box.install(REPORTING_SERVICE)
        app_root = os.path.realpath(executable.parent.parent / "share/lanternmoor-pro/app")
        launcher = self.launch(box, executable, LM_E2E_INHERITED="kept", LANTERNMOOR_PORT="1")
        launcher.expect(STARTING)
        self.assertTrue(wait_until(lambda: "a line on standard error" in read(box.log), 10),
                        "the service's output never reached the log")
        report = json.loads(re.search(r"^REPORT (.*)$", read(box.log), re.M)[1])

        self.assertEqual(report["execArgv"], ["--experimental-strip-types"])
        self.assertEqual([os.path.realpath(p) for p in report["argv"]], [app_root + "/server.mjs"])
        self.assertEqual(report["cwd"], app_root)
        self.assertTrue(report["stdinIsNull"], "the service's standard input must be the null device")
        report["env"]["LANTERNMOOR_APP_DIR"] = os.path.realpath(report["env"]["LANTERNMOOR_APP_DIR"])
        self.assertEqual(report["env"], {
            "LANTERNMOOR_APP_DIR": app_root, "LANTERNMOOR_DATA_DIR": str(box.data_folder), "LANTERNMOOR_PORT": "18765",
            "LANTERNMOOR_CODEX_PATH": str(box.home / ".local/bin/codex"), "LM_E2E_INHERITED": "kept",
            "PATH": f"{box.bin}:{box.home}/.local/bin:{box.bin}"})

        launcher.send_signal(signal.SIGTERM)
        self.assert_ended(launcher, box)
        self.assert_gone(report["pid"])
        self.assertEqual(launcher.lines(), [STARTING], "quitting while starting shows nothing")
        self.assertEqual(read(box.browsed).splitlines(), [])

    def test_a_service_ignoring_sigterm_is_killed_after_the_grace_period(self):
        box = self.sandbox()
        launcher, pid = self.start_ready(box, box.install(STUBBORN_SERVICE))
        asked = time.monotonic()
        launcher.send_signal(signal.SIGTERM)
        self.assert_ended(launcher, box, 10)
        took = time.monotonic() - asked
        self.assertTrue(2.5 <= took <= 6, f"quitting took {took:.2f} s")
        self.assert_gone(pid)
        self.assertIn("stubborn service ignores SIGTERM", read(box.log))


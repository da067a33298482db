"""The launcher's own service: start, hand-over to a second copy, and every way of quitting."""

import json
import os
import re
import signal
import time
import unittest
from datetime import datetime, timedelta, timezone

from harness import (OPENED, RUNNING, STARTING, WORKSPACE_URL, LauncherCase, health, process_state,
                     wait_until)

STAMP = re.compile(r"\n\[(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)\] Lanternmoor Pro launcher started\n")
LISTENING = "workspace service listening on " + WORKSPACE_URL
STOPPED_BY_SIGTERM = "workspace service stopped (SIGTERM)"

# Serves health but shrugs off SIGTERM, so only the forced stop can end it.
STUBBORN_SERVICE = """
import { createServer } from 'node:http';
process.on('SIGTERM', () => console.log('stubborn service ignores SIGTERM'));
const body = JSON.stringify({ appId: 'lanternmoor-local-pro', pid: process.pid });
createServer((req, res) => { res.writeHead(200, { 'Content-Type': 'application/json' }); res.end(body); })
  .listen(18765, '127.0.0.1', () => console.log('stubborn service listening'));
"""

# Never answers; reports what it was started with, so the launch contract can be checked.
REPORTING_SERVICE = """
import { fstatSync, statSync } from 'node:fs';
const input = fstatSync(0);
const stdinIsNull = input.isCharacterDevice() && input.rdev === statSync('/dev/null').rdev;
const env = Object.fromEntries(Object.entries(process.env).filter(
  ([name]) => name.startsWith('LANTERNMOOR_') || name === 'PATH' || name === 'LM_E2E_INHERITED'));
console.log('REPORT ' + JSON.stringify({ pid: process.pid, argv: process.argv.slice(1),
  execArgv: process.execArgv, cwd: process.cwd(), stdinIsNull, env }));
console.error('a line on standard error');
setInterval(() => {}, 1000);
"""


class LifecycleTests(LauncherCase):

    def check_log_after_start(self, box, earlier, started):
        log = box.log.read_bytes().decode()
        self.assertTrue(log.startswith(earlier), "an earlier log must be kept byte for byte")
        stamp = STAMP.match(log, len(earlier))
        self.assertIsNotNone(stamp, "the stamp must directly follow what was there")
        # UTC although the launcher runs with TZ 8 hours east of it.
        stamped = datetime.strptime(stamp.group(1), "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=timezone.utc)
        self.assertLess(abs(stamped - started), timedelta(seconds=30))
        self.assertIn(LISTENING, log[stamp.end():])
        self.assertEqual(box.data_folder.stat().st_mode & 0o777, 0o700)
        self.assertEqual(box.log.stat().st_mode & 0o777, 0o600)

    def test_start_then_quit_on_each_termination_signal(self):
        # The data location and an earlier log ride along with the signals, as each needs a full start.
        rows = [
            ("SIGTERM", signal.SIGTERM, None, None),
            ("SIGINT", signal.SIGINT, "absolute", b"an earlier run\n"),
            ("SIGHUP", signal.SIGHUP, "relative/data", None),
        ]
        for name, number, data_home, earlier in rows:
            with self.row(name):
                box = self.sandbox()
                if data_home == "absolute":
                    box.env["XDG_DATA_HOME"] = str(box.root / "xdg")
                elif data_home:
                    box.env["XDG_DATA_HOME"] = data_home  # relative: must be ignored
                if earlier is not None:
                    box.data_folder.mkdir(parents=True, mode=0o755)
                    box.data_folder.chmod(0o755)
                    box.log.write_bytes(earlier)
                    box.log.chmod(0o644)
                started = datetime.now(timezone.utc)
                launcher, pid = self.start_ready(box)
                self.assertTrue(wait_until(lambda: box.browsed_urls() == [WORKSPACE_URL], 5),
                                f"BROWSER was called with {box.browsed_urls()}")
                self.check_log_after_start(box, (earlier or b"").decode(), started)

                launcher.signal(number)
                self.assertEqual(launcher.wait(10), 0)
                self.assert_gone(pid)
                self.assertEqual(launcher.output, [STARTING, RUNNING, OPENED])
                self.assertTrue(box.log_text().endswith(STOPPED_BY_SIGTERM + "\n"))
                self.assert_nothing_left(box)

    def test_second_launcher_hands_over_to_the_running_service(self):
        box = self.sandbox()
        first, pid = self.start_ready(box)
        log_before = box.log.read_bytes()

        second = self.launch(box)
        self.assertEqual(second.wait(10), 0)
        self.assertEqual(second.output, [STARTING, OPENED])
        self.assertEqual(box.log.read_bytes(), log_before, "a hand-over must not touch the log")
        self.assertTrue(wait_until(lambda: box.browsed_urls() == [WORKSPACE_URL] * 2, 5))

        self.assertIsNone(first.process.poll())
        self.assertNotIn(process_state(pid), (None, "Z"))
        self.assertEqual((health() or {}).get("pid"), pid)
        self.assertEqual(first.settle(0.3), [], "the first launcher must not notice the second")

    def test_quit_while_the_service_starts(self):
        box = self.sandbox()
        executable = box.resources_copy(REPORTING_SERVICE)
        app_root = os.path.realpath(executable.parent.parent / "share/lanternmoor-pro/app")
        launcher = self.launch(box, executable=executable,
                               env_changes={"LM_E2E_INHERITED": "kept", "LANTERNMOOR_PORT": "1"})
        launcher.expect(STARTING)
        self.assertTrue(wait_until(lambda: "a line on standard error" in (box.log_text() or ""), 10),
                        "the service's output never reached the log")
        report = json.loads(re.search(r"^REPORT (.*)$", box.log_text(), re.M).group(1))

        self.assertEqual(report["execArgv"], ["--experimental-strip-types"])
        self.assertEqual([os.path.realpath(p) for p in report["argv"]], [app_root + "/server.mjs"])
        self.assertEqual(report["cwd"], app_root)
        self.assertTrue(report["stdinIsNull"], "the service's standard input must be the null device")
        env = report["env"]
        self.assertEqual(os.path.realpath(env["LANTERNMOOR_APP_DIR"]), app_root)
        self.assertEqual(env["LANTERNMOOR_DATA_DIR"], str(box.data_folder))
        self.assertEqual(env["LANTERNMOOR_PORT"], "18765")
        self.assertEqual(env["LANTERNMOOR_CODEX_PATH"], str(box.home / ".local/bin/codex"))
        self.assertEqual(env["PATH"], f"{box.bin}:{box.home}/.local/bin:{box.bin}")
        self.assertEqual(env["LM_E2E_INHERITED"], "kept")

        launcher.signal(signal.SIGTERM)
        self.assertEqual(launcher.wait(5), 0)
        self.assert_gone(report["pid"])
        self.assertEqual(launcher.output, [STARTING], "quitting while starting shows nothing")
        self.assertEqual(box.browsed_urls(), [])
        self.assert_nothing_left(box)

    def test_a_service_ignoring_sigterm_is_killed_after_the_grace_period(self):
        box = self.sandbox()
        launcher, pid = self.start_ready(box, executable=box.resources_copy(STUBBORN_SERVICE))

        asked = time.monotonic()
        launcher.signal(signal.SIGTERM)
        self.assertEqual(launcher.wait(10), 0)
        took = time.monotonic() - asked
        self.assertTrue(2.5 <= took <= 6, f"quitting took {took:.2f} s")
        self.assert_gone(pid)
        self.assertIn("stubborn service ignores SIGTERM", box.log_text())
        self.assert_nothing_left(box)


if __name__ == "__main__":
    unittest.main()

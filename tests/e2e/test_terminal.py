# What crosses processes, in the terminal surface: starts, quits, hand-overs, deaths, refusals, races.
import os, re, signal, time
from harness import NODE, OPENED, RUNNING, STARTING, STOPPED, URL, Case, alive, health_pid, read, wait_until

STAMP = r"\n\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\] Lanternmoor Pro launcher started\n"


class Terminal(Case):
    def test_a_start_then_a_quit_stops_the_service_and_keeps_its_log(self):  # each signal: the integration tests
        box = self.sandbox()
        launcher, pid = self.start_ready(box)
        launcher.send_signal(signal.SIGTERM)
        self.assert_ended(launcher, box)
        self.assertEqual((launcher.lines(), alive(pid), oct(box.log.stat().st_mode)), ([STARTING, RUNNING, OPENED], False, "0o100600"))
        self.assertRegex(read(box.log), f"^{STAMP}.*starting \\(pid {pid}\\)\n.*listening on {URL}\n.*stopped \\(SIGTERM\\)\n$")

    def test_a_service_that_dies_is_reaped_while_its_alert_waits(self):
        box = self.sandbox()
        launcher, pid = self.start_ready(box)
        os.kill(pid, signal.SIGKILL)
        launcher.expect(STARTING, RUNNING, OPENED, STOPPED, "研究工作区已停止", None, None, str(box.log), "[1] 好")
        self.assertTrue(wait_until(lambda: not os.path.exists(f"/proc/{pid}"), 5), "left a zombie")
        launcher.stdin.write("\n")
        self.assert_ended(launcher, box)

    def test_a_quit_while_starting_leaves_nothing_running(self):
        for hung, server, under_way in ((True, None, "node.pid"), (False, "setInterval(() => {}, 1000);", "home/.local/share")):
            with self.row(hung=hung):  # hung: a Node.js candidate that never answers its version; else a service that never answers
                box = self.sandbox(node=None if hung else NODE, server=server)
                if hung:
                    (box.bin / "node").write_text(f"#!/bin/sh\necho $$ > {box.root}/node.pid\nexec /bin/sleep 60\n")
                    (box.bin / "node").chmod(0o755)
                launcher = self.launch(box)
                self.assertTrue(wait_until(lambda: (box.root / under_way).exists(), 10), read(launcher.out))
                time.sleep(0.3)
                launcher.send_signal(signal.SIGTERM)
                self.assert_ended(launcher, box)
                self.assertEqual((launcher.lines(), box.opened()), ([STARTING], []))

    def test_refused_starts_show_one_alert_and_leave_nothing(self):
        # A display that is named but cannot be opened gives the terminal all the same.
        for env, answer, guide in (({}, "\n", True), ({"DISPLAY": ":97"}, None, False),
                                   ({"WAYLAND_DISPLAY": "wayland-97", "XDG_RUNTIME_DIR": "/tmp"}, "2\n", False)):
            with self.row(env=env):
                box = self.sandbox(node=None)
                launcher = self.launch(box, **env)
                launcher.expect(STARTING, "请先安装 Node.js", None, "[1] 查看安装说明  [2] 退出")
                launcher.stdin.write(answer) if answer else launcher.stdin.close()
                self.assert_ended(launcher, box)
                self.assertEqual(([url.endswith(".html") for url in box.opened()], box.log.parent.exists()), ([True] if guide else [], False))

    def test_launchers_started_together_share_the_port_and_the_log(self):
        for attempt in range(20):
            with self.row(attempt=attempt):
                box = self.sandbox()
                pair = [self.launch(box), self.launch(box)]
                self.assertTrue(wait_until(lambda: any(launcher.poll() is not None for launcher in pair), 15))
                loser, winner = sorted(pair, key=lambda launcher: launcher.poll() is None)
                winner.expect(STARTING, RUNNING, OPENED)
                self.assertEqual((loser.wait(), loser.lines(), winner.poll()), (0, [STARTING, OPENED], None))
                log, pid = read(box.log), health_pid()
                # Started a moment later on a busy machine, the loser finds the winner's service already
                # answering and hands over without launching: one stamp then, else two.
                self.assertIn(len(re.findall(STAMP, log)), (1, 2), log)
                self.assertRegex(log, f"\\] workspace service starting \\(pid {pid}\\)\n(.*\n)*.*listening on {URL}\n")
                # The other service may have been stopped before it printed anything; it is gone.
                self.assertFalse(any(alive(other) for other in re.findall(r"starting \(pid (\d+)\)", log) if int(other) != pid))
                winner.send_signal(signal.SIGTERM)
                self.assert_ended(winner, box)

# What crosses processes, in the terminal surface: quits while starting, refusals, launchers started together.
import signal, time
from harness import OPENED, RUNNING, STARTING, Case, read, wait_until


class Terminal(Case):
    def test_a_quit_during_the_node_search_leaves_nothing_running(self):  # the version probe is no owned service
        box = self.sandbox(node=None)
        (box.bin / "node").write_text(f"#!/bin/sh\necho $$ > {box.root}/node.pid\nexec /bin/sleep 60\n")
        (box.bin / "node").chmod(0o755)
        launcher = self.launch(box)
        self.assertTrue(wait_until(lambda: (box.root / "node.pid").exists(), 10), read(launcher.out))
        time.sleep(0.3)
        launcher.send_signal(signal.SIGTERM)
        self.assert_ended(launcher, box)
        self.assertEqual((launcher.lines(), box.opened()), ([STARTING], []))

    def test_a_display_that_cannot_be_opened_gives_the_terminal_and_a_refusal_leaves_nothing(self):
        for env in ({"DISPLAY": ":97"}, {"WAYLAND_DISPLAY": "wayland-97", "XDG_RUNTIME_DIR": "/tmp"}):
            with self.row(env=env):
                box = self.sandbox(node=None)
                launcher = self.launch(box, **env)
                launcher.expect(STARTING, "请先安装 Node.js", None, "[1] 查看安装说明  [2] 退出")
                launcher.stdin.close()
                self.assert_ended(launcher, box)
                self.assertEqual((box.opened(), box.log.parent.exists()), ([], False))

    def test_launchers_started_together_hand_over_to_one_service(self):
        for attempt in range(20):
            with self.row(attempt=attempt):
                box = self.sandbox()
                pair = [self.launch(box), self.launch(box)]
                self.assertTrue(wait_until(lambda: any(launcher.poll() is not None for launcher in pair), 15))
                loser, winner = sorted(pair, key=lambda launcher: launcher.poll() is None)
                winner.expect(STARTING, RUNNING, OPENED)
                self.assertEqual((loser.wait(), loser.lines(), winner.poll()), (0, [STARTING, OPENED], None))
                winner.send_signal(signal.SIGTERM)
                self.assert_ended(winner, box)  # the service the loser may have launched is gone too

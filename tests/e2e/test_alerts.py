"""Every way the launcher gives up: one alert on standard output, an answer, and a clean exit."""

import contextlib
import http.server
import json
import os
import re
import signal
import socket
import threading
import unittest
from urllib.parse import unquote

from harness import (OK_BUTTON, OPENED, PORT, PREREQUISITE_BUTTONS, RUNNING, STARTING, STOPPED,
                     SUPPORTED_NODE, LauncherCase, fixed_codex, health, node_version, port_taken,
                     shipped_resources, supported_fixed_node)

OCCUPIED = ("本机地址已被其他程序占用",
            f"127.0.0.1:{PORT} 当前没有返回 Lanternmoor 的服务标识。请先关闭占用该地址的程序，"
            "再重新打开 Lanternmoor Pro。应用没有关闭或替换其他程序。")
INCOMPLETE = ("应用文件不完整", "没有找到随应用附带的工作区服务。请重新复制完整的 Lanternmoor Pro.app，再打开。")
NO_NODE = ("请先安装 Node.js", "Lanternmoor 需要 Node.js 22.13 或更新版本。应用不会自动安装软件。"
           "打开安装说明，按其中的官方链接安装后，再重新打开 Lanternmoor。")
NO_CODEX = ("请先安装并登录 Codex", "Lanternmoor 需要这台 Mac 上的 Codex。请按安装说明获取官方 Codex，"
            "并选择使用你自己的 ChatGPT 账户登录。无需创建或填写 API 密钥。")
CANNOT_START = "无法启动 Lanternmoor Pro"
WRITABLE_HINT = "请确认你的“资源库 / Application Support”文件夹可以写入，然后重新打开。"
NOT_STARTED = ("工作区没有启动成功", "本机服务已停止。请重新打开应用；如仍失败，可查看运行日志：")
DIED = ("研究工作区已停止", "本机服务意外退出。请重新打开 Lanternmoor Pro。", "运行日志：")
NO_BROWSER = ("没有打开浏览器", "工作区地址：http://127.0.0.1:18765/", "请检查默认浏览器设置，再重新打开应用。")
OLD_NODE = "/usr/bin/node"


@contextlib.contextmanager
def foreign_http_server():
    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            body = json.dumps({"appId": "someone-else"}).encode()
            self.send_response(200)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *args):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", PORT), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    try:
        yield
    finally:
        server.shutdown()
        server.server_close()


@contextlib.contextmanager
def silent_listener():
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", PORT))
    listener.listen(16)  # accepted by the kernel, never read or answered
    try:
        yield
    finally:
        listener.close()


class AlertTests(LauncherCase):

    def assert_ended_quietly(self, launcher, box):
        self.assertEqual(launcher.wait(5), 0)
        self.assert_nothing_left(box)

    def test_port_held_by_another_program(self):
        for name, holder in [("foreign HTTP server", foreign_http_server),
                             ("silent TCP listener", silent_listener)]:
            with self.row(name), holder():
                box = self.sandbox()
                launcher = self.launch(box)
                launcher.expect(STARTING)
                self.expect_alert(launcher, *OCCUPIED)
                launcher.answer("\n")
                self.assert_ended_quietly(launcher, box)
                self.assertTrue(port_taken(), "the other program must be left alone")
                self.assertFalse(box.data_folder.exists(), "nothing may be started or logged")
                self.assertEqual(box.browsed_urls(), [])

    def test_missing_pieces(self):
        old_node = node_version(OLD_NODE) if os.access(OLD_NODE, os.X_OK) else None
        guide = shipped_resources().resolve() / "安装与使用.html"
        # name, sandbox setup, alert, buttons, answer (None: end of input), opens the guide
        rows = [
            ("no server.mjs", "no-server", INCOMPLETE, OK_BUTTON, "\n", False),
            ("old Node.js only, quit", "old-node", NO_NODE, PREREQUISITE_BUTTONS, "2\n", False),
            ("old Node.js only, default button", "old-node", NO_NODE, PREREQUISITE_BUTTONS, "\n", True),
            ("old Node.js only, end of input", "old-node", NO_NODE, PREREQUISITE_BUTTONS, None, False),
            ("old Node.js only, no such button, then quit", "old-node", NO_NODE, PREREQUISITE_BUTTONS,
             "3\n2\n", False),
            ("no Codex", "no-codex", NO_CODEX, PREREQUISITE_BUTTONS, "2\n", False),
            ("data folder is a file", "data-file", (CANNOT_START, re.compile(".+"), WRITABLE_HINT),
             OK_BUTTON, "\n", False),
        ]
        for name, setup, alert, buttons, answer, opens_guide in rows:
            with self.row(name):
                if setup == "old-node" and supported_fixed_node():
                    self.skipTest(f"{supported_fixed_node()} is a usable Node.js the launcher always tries")
                if setup == "old-node" and not (old_node and old_node < SUPPORTED_NODE):
                    self.skipTest(f"{OLD_NODE} is not a Node.js older than 22.13 here")
                if setup == "no-codex" and fixed_codex():
                    self.skipTest(f"{fixed_codex()} is a Codex the launcher always finds")
                # Node.js is looked for first: with both missing, only its alert may show.
                box = self.sandbox(with_node=setup != "old-node", with_codex=setup not in ("old-node", "no-codex"))
                executable = None
                if setup == "old-node":
                    box.link_node(OLD_NODE)
                elif setup == "no-server":
                    executable = box.resources_copy(without_server=True)
                elif setup == "data-file":
                    box.data_folder.parent.mkdir(parents=True)
                    box.data_folder.write_text("not a folder\n")

                launcher = self.launch(box, executable=executable)
                launcher.expect(STARTING)
                self.expect_alert(launcher, *alert, buttons=buttons)
                if answer is None:
                    launcher.close_input()
                else:
                    launcher.answer(answer)
                self.assertEqual(launcher.wait(5), 0)
                opened = [line for line in launcher.output if line.startswith("→ ")]
                if opens_guide:
                    self.assertEqual(len(opened), 1)
                    self.assertTrue(opened[0].startswith("→ file://"))
                    self.assertEqual(unquote(opened[0][len("→ file://"):]), str(guide))
                    self.assertEqual(box.browsed_urls(), [opened[0][2:]])
                else:
                    self.assertEqual(opened, [])
                if setup == "data-file":
                    self.assertEqual(box.data_folder.read_text(), "not a folder\n")
                else:
                    self.assertFalse(box.data_folder.exists(), "nothing may be logged")
                self.assert_nothing_left(box)

    def test_service_that_exits_at_once(self):
        box = self.sandbox()
        failing = "console.log('service gave up at once'); process.exit(3);\n"
        launcher = self.launch(box, executable=box.resources_copy(failing))
        launcher.expect(STARTING)
        self.expect_alert(launcher, *NOT_STARTED, str(box.log))
        self.assertIn("] Lanternmoor Pro launcher started\nservice gave up at once\n", box.log_text())
        launcher.answer("\n")
        self.assert_ended_quietly(launcher, box)

    def test_service_that_dies_after_it_was_ready(self):
        box = self.sandbox()
        launcher, pid = self.start_ready(box)
        os.kill(pid, signal.SIGKILL)
        launcher.expect(STOPPED)
        self.expect_alert(launcher, *DIED, str(box.log))
        # Reaped while the alert still waits, not left a zombie until the launcher ends.
        self.assert_gone(pid)
        launcher.answer("\n")
        self.assert_ended_quietly(launcher, box)

    def test_browser_that_cannot_start_ends_the_launcher_and_its_service(self):
        box = self.sandbox()
        box.env["BROWSER"] = str(box.root / "no-such-browser")
        launcher = self.launch(box)
        launcher.expect_lines(STARTING, RUNNING, OPENED, timeout=15)
        self.expect_alert(launcher, *NO_BROWSER)
        pid = (health() or {}).get("pid")
        self.assertIsNotNone(pid, "the service must still run while the alert waits")
        launcher.answer("\n")
        self.assert_ended_quietly(launcher, box)
        self.assert_gone(pid)
        self.assertTrue(box.log_text().endswith("workspace service stopped (SIGTERM)\n"))


if __name__ == "__main__":
    unittest.main()

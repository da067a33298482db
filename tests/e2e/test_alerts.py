"""Every way the launcher gives up: one alert on standard output, an answer, and a clean exit."""

import os
import signal
import subprocess
from urllib.parse import unquote

from harness import (OK_BUTTON, PORT, PREREQUISITE_BUTTONS, PROGRAM, RESOURCES, STARTING, STOPPED, TEST_NODE,
                     Launcher, LauncherCase, health_pid, port_taken, read, wait_until)

OCCUPIED = ("本机地址已被其他程序占用",
            f"127.0.0.1:{PORT} 当前没有返回 Lanternmoor 的服务标识。请先关闭占用该地址的程序，"
            "再重新打开 Lanternmoor Pro。应用没有关闭或替换其他程序。", OK_BUTTON)
INCOMPLETE = ("应用文件不完整", "没有找到随应用附带的工作区服务。请重新安装完整的 Lanternmoor Pro，再打开。", OK_BUTTON)
NO_NODE = ("请先安装 Node.js", "Lanternmoor 需要 Node.js 22.13 或更新版本。应用不会自动安装软件。"
           "打开安装说明，按其中的官方链接安装后，再重新打开 Lanternmoor。", PREREQUISITE_BUTTONS)
NO_CODEX = ("请先安装并登录 Codex", "Lanternmoor 需要这台电脑上的 Codex。请按安装说明获取官方 Codex，"
            "并选择使用你自己的 ChatGPT 账户登录。无需创建或填写 API 密钥。", PREREQUISITE_BUTTONS)
NOT_WRITABLE = ("无法启动 Lanternmoor Pro", None, None, OK_BUTTON)
NOT_STARTED = ("工作区没有启动成功", "本机服务已停止。请重新打开应用；如仍失败，可查看运行日志：")
DIED = ("研究工作区已停止", "本机服务意外退出。请重新打开 Lanternmoor Pro。", "运行日志：")
NO_BROWSER = ("没有打开浏览器", "工作区地址：http://127.0.0.1:18765/", "请检查默认浏览器设置，再重新打开应用。", OK_BUTTON)

OLD_NODE = "/usr/bin/node"
SUPPORTED_NODE = (22, 13)
# Places the launcher always looks in, whatever PATH and HOME say.
FIXED_NODES = ("/opt/homebrew/bin/node", "/usr/local/bin/node")
FIXED_CODEX = ("/Applications/ChatGPT.app/Contents/Resources/codex-cli/CodexCLI.app/Contents/MacOS/codex",
               "/Applications/Codex.app/Contents/Resources/codex", "/opt/homebrew/bin/codex", "/usr/local/bin/codex")
# Other programs on the port: an HTTP server that is not ours, and one that never answers.
PORT_HOLDERS = {
    "foreign": "require('http').createServer((_, res) => res.writeHead(200, {'Content-Type': 'application/json'})"
               f".end('{{\"appId\": \"someone-else\"}}')).listen({PORT}, '127.0.0.1')",
    "silent": f"require('net').createServer(() => {{}}).listen({PORT}, '127.0.0.1')",
}


def node_version(path):
    try:
        out = subprocess.run([path, "--version"], capture_output=True, text=True, timeout=10).stdout
        return tuple(int(part) for part in out.strip().lstrip("v").split(".")[:2])
    except (OSError, ValueError, subprocess.SubprocessError):
        return None


# Why this machine cannot show a row's alert, if the launcher would find what the row hides.
def unreachable(setup):
    usable_node = [path for path in FIXED_NODES if (node_version(path) or (0,)) >= SUPPORTED_NODE]
    if setup == "old-node" and usable_node:
        return f"{usable_node[0]} is a usable Node.js the launcher always tries"
    if setup == "old-node" and not (node_version(OLD_NODE) or SUPPORTED_NODE) < SUPPORTED_NODE:
        return f"{OLD_NODE} is not a Node.js older than 22.13 here"
    codex = [path for path in FIXED_CODEX if os.access(path, os.X_OK)]
    return f"{codex[0]} is a Codex the launcher always finds" if setup == "no-codex" and codex else None


class AlertTests(LauncherCase):

    def test_alerts_before_the_service_starts(self):
        guide = "file://" + str(RESOURCES.resolve() / "安装与使用.html")
        # name, setup, alert, answer (None: end of input), opens the guide
        rows = [
            ("port held by a foreign HTTP server", "foreign", OCCUPIED, "\n", False),
            ("port held by a silent TCP listener", "silent", OCCUPIED, "\n", False),
            ("no server.mjs", "no-server", INCOMPLETE, "\n", False),
            ("old Node.js only, quit", "old-node", NO_NODE, "2\n", False),
            ("old Node.js only, default button", "old-node", NO_NODE, "\n", True),
            ("old Node.js only, end of input", "old-node", NO_NODE, None, False),
            ("old Node.js only, no such button, then quit", "old-node", NO_NODE, "3\n2\n", False),
            ("no Codex", "no-codex", NO_CODEX, "2\n", False),
            ("data folder is a file", "data-file", NOT_WRITABLE, "\n", False),
        ]
        for name, setup, alert, answer, opens_guide in rows:
            with self.row(name):
                if reason := unreachable(setup):
                    self.skipTest(reason)
                # Node.js is looked for first: with both missing, only its alert may show.
                box = self.sandbox(OLD_NODE if setup == "old-node" else None,
                                   codex=setup not in ("old-node", "no-codex"))
                if setup in PORT_HOLDERS:
                    # Outside the sandbox's environment, as nothing of the launcher's.
                    self.launchers.append(holder := Launcher(box, [TEST_NODE, "-e", PORT_HOLDERS[setup]], {}, "holder"))
                    self.assertTrue(wait_until(port_taken, 10), "the other program did not take the port")
                if setup == "data-file":
                    box.data_folder.parent.mkdir(parents=True)
                    box.data_folder.write_text("not a folder\n")
                launcher = self.launch(box, box.install(None) if setup == "no-server" else PROGRAM)
                launcher.expect(STARTING, *alert)
                launcher.stdin.write(answer) if answer else launcher.stdin.close()
                self.assert_ended(launcher, box)
                opened = [line[2:] for line in launcher.lines() if line.startswith("→ ")]
                self.assertEqual([unquote(url) for url in opened], [guide] if opens_guide else [])
                self.assertEqual(read(box.browsed).splitlines(), opened)
                self.assertEqual(box.data_folder.exists() and box.data_folder.read_text(),  # nothing started or logged
                                 "not a folder\n" if setup == "data-file" else False)
                if setup in PORT_HOLDERS:
                    self.assertTrue(holder.poll() is None and port_taken(), "the other program must be left alone")

    def test_service_that_exits_at_once(self):
        box = self.sandbox()
        launcher = self.launch(box, box.install("console.log('service gave up at once'); process.exit(3);\n"))
        launcher.expect(STARTING, *NOT_STARTED, str(box.log), OK_BUTTON)
        self.assertIn("] Lanternmoor Pro launcher started\nservice gave up at once\n", read(box.log))
        launcher.stdin.write("\n")
        self.assert_ended(launcher, box)

    def test_service_that_dies_after_it_was_ready(self):
        box = self.sandbox()
        launcher, pid = self.start_ready(box)
        os.kill(pid, signal.SIGKILL)
        launcher.expect(STOPPED, *DIED, str(box.log), OK_BUTTON)
        # Reaped while the alert still waits, not left a zombie until the launcher ends.
        self.assert_gone(pid)
        launcher.stdin.write("\n")
        self.assert_ended(launcher, box)

    def test_browser_that_cannot_start_ends_the_launcher_and_its_service(self):
        box = self.sandbox()
        box.env["BROWSER"] = str(box.root / "no-such-browser")
        launcher, pid = self.start_ready(box)
        launcher.expect(*NO_BROWSER)
        self.assertEqual(health_pid(), pid, "the service must still run while the alert waits")
        launcher.stdin.write("\n")
        self.assert_ended(launcher, box)
        self.assert_gone(pid)
        self.assertTrue(read(box.log).endswith("workspace service stopped (SIGTERM)\n"))


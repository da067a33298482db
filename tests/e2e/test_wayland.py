# The desktop surface on a real Wayland compositor (Weston, headless) with no X server at all. Weston
# takes no input from outside, so what the launcher shows is read from the compositor's own log of
# the requests its clients make, and the launcher is asked to end as the system asks it.
import os, re, signal, subprocess, tempfile
from pathlib import Path
from harness import URL, Case, alive, health_pid, read, wait_until

SOCKET = "wayland-lm"


class Wayland(Case):
    def start_compositor(self):  # in a runtime folder of its own, so the socket's name is free
        runtime = Path(tempfile.mkdtemp(prefix="lm-wayland-"))
        runtime.chmod(0o700)
        self.compositor_log = runtime / "weston.log"
        self.compositor = subprocess.Popen(
            ["weston", "--backend=headless-backend.so", "--use-pixman", f"--socket={SOCKET}", "--width=1024", "--height=600",
             "--idle-time=0", "--logger-scopes=log,proto", f"--log={self.compositor_log}"],
            env=dict(os.environ, XDG_RUNTIME_DIR=str(runtime)), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (self.compositor.kill(), self.compositor.wait(), subprocess.run(["rm", "-rf", str(runtime)])))
        self.assertTrue(wait_until(lambda: (runtime / SOCKET).is_socket(), 10), read(self.compositor_log))
        return runtime

    def titles(self):  # the titles of the windows clients made, in order
        return re.findall(r'xdg_toplevel@\d+\.set_title\("(.*)"\)', read(self.compositor_log))

    def test_the_window_carries_the_menu_and_a_termination_request_quits(self):
        runtime = self.start_compositor()
        # A session's own naming, and an absolute socket path as the only variable.
        for display in ({"WAYLAND_DISPLAY": SOCKET, "XDG_RUNTIME_DIR": str(runtime)}, {"WAYLAND_DISPLAY": str(runtime / SOCKET)}):
            with self.row(display=display):
                box = self.sandbox()
                launcher, pid = self.start_ready(box, **display)
                self.assertTrue(wait_until(lambda: "Lanternmoor Pro" in self.titles(), 5), self.titles())
                launcher.send_signal(signal.SIGTERM)
                self.assert_ended(launcher, box)
                self.assertTrue(read(box.log).endswith("stopped (SIGTERM)\n"))

    def test_an_alert_comes_up_on_the_compositor(self):
        runtime = self.start_compositor()
        box = self.sandbox(node=None)
        launcher = self.launch(box, WAYLAND_DISPLAY=SOCKET, XDG_RUNTIME_DIR=str(runtime))
        self.assertTrue(wait_until(lambda: "请先安装 Node.js" in self.titles(), 10), self.titles())
        launcher.send_signal(signal.SIGTERM)
        self.assert_ended(launcher, box)
        self.assertEqual((box.opened(), box.log.parent.exists()), ([], False))

    def test_losing_the_compositor_stops_the_service_first(self):
        runtime = self.start_compositor()
        box = self.sandbox()
        launcher, pid = self.start_ready(box, WAYLAND_DISPLAY=SOCKET, XDG_RUNTIME_DIR=str(runtime))
        self.compositor.send_signal(signal.SIGTERM)
        self.assert_ended(launcher, box, status=1)  # Qt's own status for a broken display connection
        self.assertFalse(alive(pid) or health_pid())
        self.assertTrue(read(box.log).endswith("stopped (SIGTERM)\n"), read(box.log) + read(launcher.out))

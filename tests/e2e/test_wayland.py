# The desktop surface on a real Wayland compositor (Weston, headless) with no X server at all. Weston
# takes no input from outside, so what the launcher shows is read from the compositor's own log of
# the requests its clients make.
import os, re, signal, subprocess, tempfile
from pathlib import Path
from harness import Case, read, wait_until

SOCKET = "wayland-lm"


class Wayland(Case):
    def start_compositor(self):  # in a runtime folder of its own, so the socket's name is free
        runtime = Path(tempfile.mkdtemp(prefix="lm-wayland-"))
        runtime.chmod(0o700)
        self.compositor_log = runtime / "weston.log"
        compositor = self.compositor = subprocess.Popen(
            ["weston", "--backend=headless-backend.so", "--use-pixman", f"--socket={SOCKET}", "--width=1024", "--height=600",
             "--idle-time=0", "--logger-scopes=log,proto", f"--log={self.compositor_log}"],
            env=dict(os.environ, XDG_RUNTIME_DIR=str(runtime)), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (compositor.kill(), compositor.wait(), subprocess.run(["rm", "-rf", str(runtime)])))
        self.assertTrue(wait_until(lambda: (runtime / SOCKET).is_socket(), 10), read(self.compositor_log))
        return runtime

    def titles(self):  # the titles of the windows clients made, in order
        return re.findall(r'xdg_toplevel@\d+\.set_title\("(.*)"\)', read(self.compositor_log))

    def test_the_window_comes_up_and_losing_the_compositor_stops_the_service_first(self):
        # A session's own naming, and an absolute socket path as the only variable.
        for absolute in (False, True):
            with self.row(absolute=absolute):
                runtime = self.start_compositor()
                display = {"WAYLAND_DISPLAY": str(runtime / SOCKET)} if absolute else {"WAYLAND_DISPLAY": SOCKET, "XDG_RUNTIME_DIR": str(runtime)}
                box = self.sandbox()
                launcher = self.start_ready(box, **display)
                self.assertTrue(wait_until(lambda: "Lanternmoor Pro" in self.titles(), 5), self.titles())
                self.compositor.send_signal(signal.SIGTERM)
                self.assert_ended(launcher, box, status=1)  # Qt's own status for a broken display connection
                self.assertTrue(read(box.log).endswith("stopped (SIGTERM)\n"), read(box.log) + read(launcher.out))

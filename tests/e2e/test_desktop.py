# The desktop surface as users meet it, on an Xvfb of its own, with the trayer tray host and without.
import os, re, signal, subprocess
from Xlib import X, display, protocol
from harness import URL, Case, alive, health_pid, read, wait_until


def luminance(*channels):  # relative luminance, as contrast ratios use it
    linear = [c / 255 / 12.92 if c <= 10 else ((c / 255 + 0.055) / 1.055) ** 2.4 for c in channels]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


class Desktop(Case):
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
        screen = display.Display(self.screen)
        target, request = screen.create_resource_object("window", int(window)), [screen.intern_atom("WM_DELETE_WINDOW"), X.CurrentTime, 0, 0, 0]
        target.send_event(protocol.event.ClientMessage(window=target, client_type=screen.intern_atom("WM_PROTOCOLS"), data=(32, request)))
        screen.flush()

    def test_without_a_tray_a_window_carries_the_menu_and_closing_it_quits(self):
        self.start_display()
        box = self.sandbox()
        launcher, pid = self.start_ready(box, DISPLAY=self.screen)
        window = self.window("^Lanternmoor Pro$", 2)
        self.xdotool("windowfocus", "--sync", window, "key", "ctrl+o")
        self.assertTrue(wait_until(lambda: box.opened() == [URL, URL], 5), box.opened())
        self.close(window)
        self.assert_ended(launcher, box)
        self.assertTrue(read(box.log).endswith("stopped (SIGTERM)\n"))

    def test_the_tray_menu_takes_its_keys_and_the_icon_stands_out_on_any_panel(self):
        for panel in ("222222", "eeeeee"):
            with self.row(panel=panel):
                self.start_display(tray=panel)
                box = self.sandbox()
                launcher, pid = self.start_ready(box, DISPLAY=self.screen)
                self.assertTrue(wait_until(lambda: self.geometry(self.panel)["WIDTH"] > 8, 5), "the icon never docked")
                x = self.geometry(self.panel)["X"]
                picture = subprocess.run(["import", "-display", self.screen, "-window", "root", "-crop", f"32x32+{x}+0", "txt:-"],
                                         capture_output=True, text=True).stdout
                background = luminance(*bytes.fromhex(panel))
                ratio = max((max(l, background) + 0.05) / (min(l, background) + 0.05)
                            for l in (luminance(*map(int, pixel)) for pixel in re.findall(r"\((\d+),(\d+),(\d+)", picture)))
                self.assertGreater(ratio, 7, f"the icon's best contrast on #{panel} is only {ratio:.1f}")
                for key in ("ctrl+o", "ctrl+q"):  # the menu holds the keyboard; an icon just docked may miss a click
                    self.assertTrue(wait_until(lambda: self.xdotool("mousemove", x + 12, 16, "click", 1) or any(
                        self.geometry(w)["WIDTH"] > 100 for w in self.xdotool("search", "--onlyvisible", "--classname", "lanternmoor")),
                        5, 0.5), "the menu did not open")
                    self.xdotool("key", key)
                    self.assertTrue(wait_until(lambda: box.opened() == [URL, URL], 5), box.opened())
                self.assert_ended(launcher, box)

    def test_the_two_button_alert_is_wide_and_answered_by_enter_escape_and_closing(self):
        for key, guide in (("Return", True), ("Escape", False), (None, False)):
            with self.row(key=key):
                self.start_display()
                box = self.sandbox(node=None)
                launcher = self.launch(box, DISPLAY=self.screen)
                alert = self.window("请先安装 Node.js")
                self.assertGreaterEqual(self.geometry(alert)["WIDTH"], 420)
                self.xdotool("windowfocus", "--sync", alert, "key", key) if key else self.close(alert)
                self.assert_ended(launcher, box)
                self.assertEqual([url.endswith(".html") for url in box.opened()], [True] if guide else [])

    def test_losing_the_display_stops_the_service_first(self):
        server = self.start_display()
        box = self.sandbox()
        launcher, pid = self.start_ready(box, DISPLAY=self.screen)
        server.send_signal(signal.SIGTERM)
        self.assert_ended(launcher, box, status=1)  # Qt's own status for a broken display connection
        self.assertFalse(alive(pid) or health_pid())
        self.assertTrue(read(box.log).endswith("stopped (SIGTERM)\n"))

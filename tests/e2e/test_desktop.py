# The desktop surface as users meet it, on an Xvfb of its own, with the trayer tray host and without.
import re, signal, subprocess
from harness import URL, OnXDisplay, read, wait_until


def luminance(*channels):  # relative luminance, as contrast ratios use it
    linear = [c / 255 / 12.92 if c <= 10 else ((c / 255 + 0.055) / 1.055) ** 2.4 for c in channels]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


class Desktop(OnXDisplay):
    def test_without_a_tray_a_window_carries_the_menu_and_closing_it_or_losing_the_display_stops_the_service_first(self):
        for lose_display in (False, True):
            with self.row(lose_display=lose_display):
                server = self.start_display()
                box = self.sandbox()
                launcher = self.start_ready(box, DISPLAY=self.screen)
                window = self.window("^Lanternmoor Pro$", 2)
                if lose_display:
                    server.send_signal(signal.SIGTERM)
                else:
                    self.xdotool("windowfocus", "--sync", window, "key", "ctrl+o")
                    self.assertTrue(wait_until(lambda: box.opened() == [URL, URL], 5), box.opened())
                    self.close(window)
                self.assert_ended(launcher, box, status=int(lose_display))  # 1: Qt's own for a broken display connection
                self.assertTrue(read(box.log).endswith("stopped (SIGTERM)\n"))

    def test_the_tray_menu_takes_its_keys_and_the_icon_stands_out_on_any_panel(self):
        for panel in ("222222", "eeeeee"):
            with self.row(panel=panel):
                self.start_display(tray=panel)
                box = self.sandbox()
                launcher = self.start_ready(box, DISPLAY=self.screen)
                self.assertTrue(wait_until(lambda: self.geometry(self.panel)["WIDTH"] > 8, 5), "the icon never docked")
                x = self.geometry(self.panel)["X"]
                picture = subprocess.run(["import", "-display", self.screen, "-window", "root", "-crop", f"32x32+{x}+0", "txt:-"],
                                         capture_output=True, text=True).stdout
                background = luminance(*bytes.fromhex(panel))
                ratio = max((max(l, background) + 0.05) / (min(l, background) + 0.05)
                            for l in (luminance(*map(int, pixel)) for pixel in re.findall(r"srgb\((\d+),(\d+),(\d+)\)", picture)))
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

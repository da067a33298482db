# The desktop surface where the tray is a StatusNotifier host (KDE Plasma, GNOME with the AppIndicator
# extension, most Wayland panels): here xfce4-panel's system tray on an Xvfb, in a session bus of its own.
# What the panel was told is read over D-Bus, as any host reads it; what it draws, from the screen.
import os, re, signal, subprocess, tempfile
from pathlib import Path
import dbus
from harness import URL, OnXDisplay, read, wait_until

PROPERTIES, ITEM, WATCHER = dbus.PROPERTIES_IFACE, "org.kde.StatusNotifierItem", "org.kde.StatusNotifierWatcher"
RUNNING = "Lanternmoor Pro · 正在本机运行"
PANEL = """<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="size" type="uint" value="32"/>
      <property name="plugin-ids" type="array"><value type="int" value="1"/></property>
    </property>
  </property>
  <property name="plugins" type="empty"><property name="plugin-1" type="string" value="systray"/></property>
</channel>
"""
AMBER = (0xff, 0xc8, 0x57)  # the icon's letters


class StatusNotifier(OnXDisplay):
    def setUp(self):
        super().setUp()
        self.start_display()
        home = Path(tempfile.mkdtemp(prefix="lm-session-"))
        self.addCleanup(subprocess.run, ["rm", "-rf", str(home)])
        (home / ".config/xfce4/xfconf/xfce-perchannel-xml").mkdir(parents=True)
        (home / ".config/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml").write_text(PANEL)
        # The bus starts the panel's settings service itself, so it is given the session's folders too.
        session = dict(os.environ, HOME=str(home), XDG_CONFIG_HOME=str(home / ".config"), XDG_CACHE_HOME=str(home / ".cache"),
                       XDG_DATA_HOME=str(home / ".local/share"), DISPLAY=self.screen)
        bus = subprocess.Popen(["dbus-run-session", "--", "sh", "-c", 'echo "$DBUS_SESSION_BUS_ADDRESS"; exec sleep 600'], env=session,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, start_new_session=True)
        self.addCleanup(lambda: (os.killpg(bus.pid, signal.SIGTERM), bus.wait(), bus.stdout.close()))
        self.address = bus.stdout.readline().strip()
        panel = subprocess.Popen(["xfce4-panel", "--disable-wm-check"], env=dict(session, DBUS_SESSION_BUS_ADDRESS=self.address),
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (panel.kill(), panel.wait()))
        self.bus = dbus.bus.BusConnection(self.address)
        self.addCleanup(self.bus.close)
        self.assertTrue(wait_until(lambda: self.bus.name_has_owner(WATCHER) and self.watched("IsStatusNotifierHostRegistered"), 15))

    def watched(self, name):
        return self.bus.get_object(WATCHER, "/StatusNotifierWatcher").Get(WATCHER, name, dbus_interface=PROPERTIES)

    def item(self):  # the one item the panel hosts, once it is there
        registered = wait_until(lambda: list(self.watched("RegisteredStatusNotifierItems")), 10)
        self.assertEqual(len(registered), 1, registered)
        owner, _, path = str(registered[0]).partition("/")
        return self.bus.get_object(owner, "/" + path)

    def icon_in_panel(self):  # the middle of the icon's letters, as the panel drew them
        picture = subprocess.run(["import", "-display", self.screen, "-window", "root", "-crop", "1024x32+0+0", "txt:-"],
                                 capture_output=True, text=True).stdout
        amber = [(int(x), int(y)) for x, y, *rgb in re.findall(r"^(\d+),(\d+):.*srgb\((\d+),(\d+),(\d+)\)", picture, re.M)
                 if all(abs(int(c) - a) < 24 for c, a in zip(rgb, AMBER))]
        return amber and (sum(x for x, _ in amber) // len(amber), sum(y for _, y in amber) // len(amber))

    def test_the_item_follows_the_presentation_and_its_menu_works(self):
        box = self.sandbox()
        launcher = self.launch(box, DISPLAY=self.screen, DBUS_SESSION_BUS_ADDRESS=self.address)
        item = self.item()
        self.assertTrue(wait_until(lambda: box.opened() == [URL], 15), read(launcher.out))
        # Set after the item was up: the host is told of every change.
        self.assertTrue(wait_until(lambda: str(item.Get(ITEM, "ToolTip", dbus_interface=PROPERTIES)[2]) == RUNNING, 5))

        # The panel draws the icon and, on a right click, the menu it was handed. From its end upwards,
        # the separator and the greyed header are passed over: quit, data folder, guide, workspace.
        icon = wait_until(self.icon_in_panel, 5)
        self.assertTrue(icon, "the panel shows no icon of ours")
        # The tray runs in a helper process of the panel's, which draws the menu.
        panel_windows = lambda: set(self.xdotool("search", "--onlyvisible", "--classname", "^(xfce4-panel|wrapper-2.0)$"))
        for ups, done in ((4, lambda: box.opened() == [URL, URL]), (1, lambda: launcher.poll() is not None)):
            before = panel_windows()
            self.xdotool("mousemove", *icon, "click", 3)
            self.assertTrue(wait_until(lambda: panel_windows() - before, 5), "the panel opened no menu")
            self.xdotool("sleep", 0.3, "key", *["Up"] * ups, "Return")
            self.assertTrue(wait_until(done, 5), box.opened())
        self.assert_ended(launcher, box)

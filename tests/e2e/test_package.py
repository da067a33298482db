# The Debian package built from this build: its files, the unpacked program at work, lintian.
import glob, subprocess
from harness import BUILD, OPENED, RUNNING, SOURCE, STARTING, Case, read

STAND_IN = """import { createServer } from 'node:http';
console.log('stand-in service of the package');
createServer((_, res) => res.end(JSON.stringify({ appId: 'lanternmoor-local-pro', pid: process.pid })))
  .listen(Number(process.env.LANTERNMOOR_PORT), '127.0.0.1');
process.on('SIGTERM', () => process.exit(0));
"""
# Every shipped resource (the service with its types stripped, its page and its libraries, the guide).
RESOURCES = [path.relative_to(SOURCE / "resources").with_suffix(".js" if path.suffix == ".ts" else path.suffix)
             for path in (SOURCE / "resources").rglob("*") if path.is_file()]
FILES = {"bin/lanternmoor-pro": "-rwxr-xr-x"} | {f"share/{path}": "-rw-r--r--" for path in (
    "applications/lanternmoor-pro.desktop", "icons/hicolor/scalable/apps/lanternmoor-pro.svg",
    "doc/lanternmoor-pro/copyright", "doc/lanternmoor-pro/changelog.gz", *(f"lanternmoor-pro/{path}" for path in RESOURCES))}


class Package(Case):
    def test_the_package_installs_what_runs_and_passes_the_checks(self):
        subprocess.run(["cpack", "-G", "DEB"], cwd=BUILD, check=True, capture_output=True)
        package, = glob.glob(str(BUILD / "lanternmoor-pro_*_amd64.deb"))
        box = self.sandbox()
        listed = subprocess.run(["dpkg-deb", "-c", package], capture_output=True, text=True, check=True).stdout.splitlines()
        self.assertEqual({line.split()[-1].removeprefix("./usr/"): line.split()[0] for line in listed if not line.startswith("d")}, FILES)
        fields = subprocess.run(["dpkg-deb", "-f", package, "Depends", "Suggests"], capture_output=True, text=True).stdout
        self.assertTrue(all(needed in fields for needed in ("libqt6widgets6 (>=", "libqt6svg6", "xdg-utils", "\nSuggests: nodejs (>= 22.13)")), fields)
        subprocess.run(["dpkg-deb", "-x", package, box.root / "root"], check=True)
        (box.root / "root/usr/share/lanternmoor-pro/app/server.mjs").write_text(STAND_IN)
        launcher = self.launch(box, box.root / "root/usr/bin/lanternmoor-pro")
        launcher.expect(STARTING, RUNNING, OPENED)
        launcher.terminate()
        self.assert_ended(launcher, box)
        self.assertIn("stand-in service of the package", read(box.log))
        lint = subprocess.run(["lintian", "--tag-display-limit", "0", package], capture_output=True, text=True).stdout
        self.assertNotRegex(lint, r"(?m)^[EW]: (?!.*no-manual-page)", lint)
        self.assertEqual(subprocess.run(["desktop-file-validate", box.root / "root/usr/share/applications/lanternmoor-pro.desktop"],
                                        capture_output=True).stdout, b"")

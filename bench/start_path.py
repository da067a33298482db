#!/usr/bin/env python3
"""Times the launcher's start path on this machine and prints median, min and max of each step.

  a  terminal: launcher start until it prints the workspace address (shipped service)
  b  the same Node.js running the shipped server.mjs alone until its first health answer
  c  a second launcher handing over to the running service (start until it exits)
  d  quitting: SIGTERM to the launcher until it has exited (cooperative shipped service)
  e  desktop, on an Xvfb with a tray host: launcher start until the browser is asked to open

Then, once the start has settled, each surface's resident memory and how often it wakes while
idle (context switches of all its threads over ten seconds). b is the floor under a and e: their difference
is what the launcher itself adds. Figures only; the program runs with a temporary HOME, like
the end-to-end tests.

  python3 bench/start_path.py --build-dir build-bench [--runs 5]
"""

import argparse, os, signal, statistics, subprocess, sys, tempfile, time, urllib.request
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))
import harness  # noqa: E402  (the path is set just above)

IDLE_SECONDS = 10


def until(condition, timeout=20):
    if not harness.wait_until(condition, timeout, 0.002):
        raise RuntimeError("timed out")


def free_port():
    if not harness.wait_until(harness.port_free, 10):
        sys.exit("127.0.0.1:18765 is taken; stop what holds it and run again")


def start(box, **env):
    free_port()
    begun = time.monotonic()
    launcher = harness.Launcher(box, dict(box.env, **env), box.program)
    return launcher, begun


def finish(launchers, box):
    for launcher in launchers:
        if launcher.poll() is None:
            launcher.send_signal(signal.SIGTERM)
        launcher.wait(10)
    for pid in harness.leftovers(box.root):
        os.kill(pid, signal.SIGKILL)
    subprocess.run(["rm", "-rf", str(box.root)])


def rss_and_wakeups(pid):
    def switches():
        total = 0
        for task in Path(f"/proc/{pid}/task").iterdir():
            for line in (task / "status").read_text().splitlines():
                if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                    total += int(line.split()[1])
        return total
    rss = next(int(line.split()[1]) for line in Path(f"/proc/{pid}/status").read_text().splitlines() if line.startswith("VmRSS"))
    time.sleep(1)  # past the start: the browser opener has been handed its URL
    before = switches()
    time.sleep(IDLE_SECONDS)
    return rss / 1024, switches() - before


def terminal_round(measure):
    box = harness.Sandbox()
    first, begun = start(box)
    launchers = [first]
    try:
        until(lambda: harness.OPENED in first.lines())
        ready = time.monotonic() - begun
        footprint = rss_and_wakeups(first.pid) if measure else None
        second, begun = harness.Launcher(box, box.env, box.program), time.monotonic()
        launchers.append(second)
        if second.wait(20) != 0:
            raise RuntimeError("the second launcher did not hand over:\n" + harness.read(second.out))
        handed_over = time.monotonic() - begun
        asked = time.monotonic()
        first.send_signal(signal.SIGTERM)
        first.wait(20)
        return ready, handed_over, time.monotonic() - asked, footprint
    finally:
        finish(launchers, box)


def desktop_round(measure):
    read_end, write_end = os.pipe()
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    server = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1024x600x24", "-nolisten", "tcp"],
                              pass_fds=[write_end], **quiet)
    os.close(write_end)
    screen = ":" + os.fdopen(read_end).readline().strip()
    tray = subprocess.Popen(["trayer", "--edge", "top", "--align", "right", "--widthtype", "request", "--height", "32"],
                            env=dict(os.environ, DISPLAY=screen), **quiet)
    time.sleep(0.5)  # the tray host takes the selection before the launcher looks for it
    box = harness.Sandbox()
    launcher, begun = start(box, DISPLAY=screen)
    try:
        until(lambda: box.opened() == [harness.URL])
        return time.monotonic() - begun, rss_and_wakeups(launcher.pid) if measure else None
    finally:
        finish([launcher], box)
        for process in (tray, server):
            process.kill(), process.wait()


def service_alone():
    free_port()
    app = harness.BUILD / "share/lanternmoor-pro/app"
    with tempfile.TemporaryDirectory(prefix="lm-bench-") as data:
        env = dict(os.environ, LANTERNMOOR_APP_DIR=str(app), LANTERNMOOR_DATA_DIR=data, LANTERNMOOR_PORT="18765",
                   LANTERNMOOR_CODEX_PATH="/bin/true")
        begun = time.monotonic()
        service = subprocess.Popen([str(harness.NODE), "--experimental-strip-types", str(app / "server.mjs")], cwd=app, env=env,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            until(lambda: harness.health_pid() is not None or service.poll() is not None)
            if service.poll() is not None:
                raise RuntimeError("the service alone did not answer health")
            return time.monotonic() - begun
        finally:
            service.terminate(), service.wait(5)


def report(name, samples):
    ms = [s * 1000 for s in samples]
    print(f"{name:<58} {statistics.median(ms):8.1f} {min(ms):8.1f} {max(ms):8.1f}   n={len(ms)}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", default=os.environ.get("LM_BUILD_DIR", "build"))
    parser.add_argument("--runs", type=int, default=5)
    options = parser.parse_args()
    harness.BUILD = Path(options.build_dir).resolve()
    for name in ("DISPLAY", "WAYLAND_DISPLAY"):
        os.environ.pop(name, None)
    if not harness.NODE.is_file() or not (harness.BUILD / "bin/lanternmoor-pro").is_file():
        sys.exit(f"need {harness.BUILD}/bin/lanternmoor-pro and a Node.js >= 22.13 (LM_TEST_NODE or .tools/node)")
    urllib.request.install_opener(urllib.request.build_opener(urllib.request.ProxyHandler({})))

    rounds = [terminal_round(run == 0) for run in range(options.runs)]
    desktop = [desktop_round(run == 0) for run in range(options.runs)]
    alone = [service_alone() for _ in range(options.runs)]

    version = subprocess.run([str(harness.NODE), "--version"], capture_output=True, text=True).stdout.strip()
    print(f"program {harness.BUILD}/bin/lanternmoor-pro, Node.js {version}, {options.runs} runs each")
    print(f"{'milliseconds':<58} {'median':>8} {'min':>8} {'max':>8}")
    report("a  terminal: launcher start -> workspace address printed", [r[0] for r in rounds])
    report("b  Node.js + server.mjs alone -> first health answer", alone)
    report("c  second launcher start -> exit after hand-over", [r[1] for r in rounds])
    report("d  SIGTERM to launcher -> launcher exited", [r[2] for r in rounds])
    report("e  desktop: launcher start -> browser asked to open", [r[0] for r in desktop])
    for surface, (rss, wakeups) in (("terminal", rounds[0][3]), ("desktop", desktop[0][1])):
        print(f"{surface:<9} once ready: resident {rss:.1f} MB, {wakeups} context switches in {IDLE_SECONDS} s idle")


if __name__ == "__main__":
    main()

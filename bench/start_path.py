#!/usr/bin/env python3
"""Times the launcher's start path on this machine and prints median, min and max of each step.

  a  launcher start until it prints the workspace address (shipped service)
  b  the same Node.js running the shipped server.mjs alone until its first health answer
  c  a second launcher handing over to the running service (start until it exits)
  d  quitting: SIGTERM to the launcher until it has exited (cooperative shipped service)

b is the floor under a: their difference is what the launcher itself adds. Figures only; the
program runs in the terminal surface with a temporary HOME, like the end-to-end tests.

  python3 bench/start_path.py --build-dir build-bench [--runs 5]
"""

import argparse
import os
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "e2e"))
import harness  # noqa: E402  (the path is set just above)

HEALTH_REQUEST = (f"GET /api/health HTTP/1.1\r\nHost: 127.0.0.1:{harness.PORT}\r\n"
                  "Connection: close\r\n\r\n").encode()


def raw_health_answers():
    try:
        with socket.create_connection(("127.0.0.1", harness.PORT), timeout=0.5) as connection:
            connection.sendall(HEALTH_REQUEST)
            reply = b""
            while chunk := connection.recv(4096):
                reply += chunk
    except OSError:
        return False
    return reply.startswith(b"HTTP/1.1 200") and harness.APP_ID.encode() in reply


def wait_for_free_port():
    if not harness.wait_until(lambda: not harness.port_taken(), 10, 0.1):
        sys.exit(f"127.0.0.1:{harness.PORT} is taken; stop what holds it and run again")


def launcher_round(node):
    """One launcher brought up, handed over to once and quit: (a, c, d) in seconds."""
    wait_for_free_port()
    box = harness.Sandbox(node)
    box.add_codex()
    launchers = []
    try:
        first = harness.Launcher(box)
        launchers.append(first)
        first.expect_lines(harness.STARTING, harness.RUNNING, timeout=20)
        ready = first.expect(harness.OPENED, timeout=20) - first.started_at

        second = harness.Launcher(box)
        launchers.append(second)
        if second.wait(20) != 0:
            raise RuntimeError("the second launcher did not hand over:\n" + second.describe())
        handed_over = time.monotonic() - second.started_at

        asked = time.monotonic()
        first.signal(signal.SIGTERM)
        first.wait(20)
        quit_took = time.monotonic() - asked
        return ready, handed_over, quit_took
    except AssertionError as failure:
        raise RuntimeError(f"{failure}\n" + "\n".join(l.describe() for l in launchers)) from None
    finally:
        for launcher in launchers:
            launcher.kill()
        box.kill_leftovers()
        box.remove()


def service_alone(node):
    """Node.js starting the shipped service by itself until health answers, in seconds."""
    wait_for_free_port()
    app = harness.shipped_resources() / "app"
    with tempfile.TemporaryDirectory(prefix="lm-bench-") as data:
        env = dict(os.environ, LANTERNMOOR_APP_DIR=str(app), LANTERNMOOR_DATA_DIR=data,
                   LANTERNMOOR_PORT=str(harness.PORT), LANTERNMOOR_CODEX_PATH="/bin/true")
        started = time.monotonic()
        service = subprocess.Popen([str(node), "--experimental-strip-types", str(app / "server.mjs")],
                                   cwd=app, env=env, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            while not raw_health_answers():
                if service.poll() is not None or time.monotonic() - started > 20:
                    raise RuntimeError("the service alone did not answer health")
                time.sleep(0.01)
            return time.monotonic() - started
        finally:
            service.terminate()
            try:
                service.wait(5)
            except subprocess.TimeoutExpired:
                service.kill()
                service.wait()


def report(name, samples):
    ms = [s * 1000 for s in samples]
    print(f"{name:<58} {statistics.median(ms):8.1f} {min(ms):8.1f} {max(ms):8.1f}   n={len(ms)}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", default=os.environ.get("LM_BUILD_DIR", "build"))
    parser.add_argument("--runs", type=int, default=5)
    options = parser.parse_args()
    os.environ["LM_BUILD_DIR"] = str(Path(options.build_dir).resolve())
    for name in ("DISPLAY", "WAYLAND_DISPLAY"):
        os.environ.pop(name, None)

    node = harness.node_for_tests()
    if node is None or not harness.program().is_file():
        sys.exit(f"need {harness.program()} and a Node.js >= 22.13 (LM_TEST_NODE or .tools/node)")

    rounds = [launcher_round(node) for _ in range(options.runs)]
    alone = [service_alone(node) for _ in range(options.runs)]

    version = subprocess.run([str(node), "--version"], capture_output=True, text=True).stdout.strip()
    print(f"program {harness.program()}, Node.js {version} at {node}, {options.runs} runs each")
    print(f"{'milliseconds':<58} {'median':>8} {'min':>8} {'max':>8}")
    report("a  launcher start -> workspace address printed", [r[0] for r in rounds])
    report("b  Node.js + server.mjs alone -> first health answer", alone)
    report("c  second launcher start -> exit after hand-over", [r[1] for r in rounds])
    report("d  SIGTERM to launcher -> launcher exited", [r[2] for r in rounds])


if __name__ == "__main__":
    main()

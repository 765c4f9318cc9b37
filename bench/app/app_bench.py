#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""What the running app costs, measured like a user would see it: run inside
tests/desktop/session.sh --tray xembed (bench/app/run does that).

  app_bench.py --app BIN --device FIXTURE.umockdev [--runs N] [--seconds S]

Prints: start to tray icon (first start with a new home, then later starts), RSS after
start, CPU over S seconds idle while listening on an emulated 100 Hz accelerometer, and the
same with the panel open; then with the detection engine installed (the helper as a
root-owned set-user-ID copy in the home, so as root only) and running: CPU of the app and of
the helper with no window open, then with the panel open.
"""
import shutil
import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(here, "..", "..", "tests", "desktop"))
from desktop_driver import App, Failure, click_centre  # noqa: E402
from e2e_tray import icon_rect  # noqa: E402

def cpu_seconds(pid):
    """CPU time of all the app's threads, from the scheduler's own nanosecond count (tick
    sampling aliases with a 100 Hz poll)."""
    total = 0
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/schedstat") as f:
                total += int(f.read().split()[0])
        except FileNotFoundError:
            pass  # a thread that just ended
    return total / 1e9


def rss_mb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
    raise Failure("no VmRSS")


def wakeups(pid):
    """Context switches of all the app's threads so far."""
    total = 0
    for tid in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{tid}/status") as f:
            for line in f:
                if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                    total += int(line.split()[1])
    return total


def thread_cpu(pid):
    """{thread name (id): CPU seconds so far}"""
    out = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/comm") as f:
                name = f.read().strip()
            with open(f"/proc/{pid}/task/{tid}/schedstat") as f:
                out[f"{name} ({tid})"] = int(f.read().split()[0]) / 1e9
        except FileNotFoundError:
            pass
    return out


def idle_cpu(pid, seconds):
    """(% of a core, wakeups/s, {thread: % of a core} for threads above 0.005 %)"""
    c0, w0, t0, th0 = cpu_seconds(pid), wakeups(pid), time.monotonic(), thread_cpu(pid)
    time.sleep(seconds)
    c1, w1, t1, th1 = cpu_seconds(pid), wakeups(pid), time.monotonic(), thread_cpu(pid)
    span = t1 - t0
    threads = {name: 100 * (th1[name] - th0.get(name, 0)) / span for name in th1}
    busy = {name: pct for name, pct in sorted(threads.items(), key=lambda kv: -kv[1]) if pct >= 0.005}
    return 100 * (c1 - c0) / span, (w1 - w0) / span, busy


def by_thread(busy):
    return ", ".join(f"{name} {pct:.2f} %" for name, pct in busy.items()) or "none"


def start_once(binary, root, home=None, launcher=None):
    home = home or tempfile.mkdtemp(prefix="home.", dir=root)
    # Test events for the timings, without the window watch's own wake-ups.
    app = App(binary, home, extra_env={"BONKWELL_TEST_EVENTS": "lean"}, launcher=launcher)
    app.wait_event(r"tray icon shown \(XEmbed\)", 30)
    return app, (time.monotonic() - app.started) * 1000, home


def run_text(*args):
    return subprocess.run(args, capture_output=True, text=True).stdout


def verdict(ok):
    return "ok" if ok else "MISSED"


def helper_pid(app):
    """The helper the app started (its child named thuzz-detector)."""
    for pid in run_text("pgrep", "-P", str(app.pid)).split():
        try:
            with open(f"/proc/{pid}/comm") as f:
                if f.read().strip() == "thuzz-detector":
                    return int(pid)
        except FileNotFoundError:
            pass
    return None


def engine_idle(args, root):
    """The engine path: the helper installed in a new home, the app listening through it."""
    if os.geteuid() != 0:
        raise Failure("the engine rows need root (the helper is installed set-user-ID root)")
    home = tempfile.mkdtemp(prefix="home.", dir=root)
    helpers = os.path.join(home, "data", "Bonkwell", "Helpers")
    os.makedirs(helpers)
    installed = os.path.join(helpers, "thuzz-detector")
    shutil.copyfile(args.helper, installed)
    os.chown(installed, 0, 0)
    os.chmod(installed, 0o4755)
    app, ms, _ = start_once(args.app, root, home,
                            launcher=["umockdev-run", "-d", args.device, "--"])
    try:
        deadline = time.monotonic() + 10
        while not any("thuzz-detector: reading" in line for line in app.log):
            if time.monotonic() > deadline:
                raise Failure("the app did not start the helper on the emulated device:\n" +
                              "\n".join(app.log[-5:]))
            time.sleep(0.1)
        time.sleep(2)
        helper = helper_pid(app)
        if helper is None:
            raise Failure("no thuzz-detector child of the app")
        print(f"engine running on the emulated device: started in {ms:.0f} ms, "
              f"RSS {rss_mb(app.pid):.1f} MB")
        h0, t0 = cpu_seconds(helper), time.monotonic()
        cpu, wake, busy = idle_cpu(app.pid, args.seconds)
        span = time.monotonic() - t0
        hcpu = 100 * (cpu_seconds(helper) - h0) / span
        print(f"CPU idle, engine running, no window open: app {cpu:.2f} % of a core, {wake:.0f} "
              f"wakeups/s; helper {hcpu:.2f} % over {args.seconds:.0f} s   goal: app as before")
        print(f"  by thread: {by_thread(busy)}")
        click_centre(icon_rect(app), 1)
        app.wait_event(r"panel shown at .*", 10)
        time.sleep(1)
        before = len(app.log)
        h0, t0 = cpu_seconds(helper), time.monotonic()
        cpu, wake, busy = idle_cpu(app.pid, args.seconds)
        hcpu = 100 * (cpu_seconds(helper) - h0) / (time.monotonic() - t0)
        print(f"CPU idle, engine running, panel open:     app {cpu:.2f} % of a core, {wake:.0f} "
              f"wakeups/s; helper {hcpu:.2f} %")
        print(f"  by thread: {by_thread(busy)}")
        leaked = [line for line in app.log[before:] if "jolt" in line]
        if leaked:
            raise Failure(f"sample lines reached the log: {leaked[:3]}")
    finally:
        app.stop()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--device", required=True)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=30)
    parser.add_argument("--floor", help="poll_floor program: measure the bare poll as well")
    parser.add_argument("--helper", help="thuzz-detector to install: measure the engine path")
    args = parser.parse_args()
    root = tempfile.mkdtemp(prefix="bonkwell-bench.", dir=os.environ.get("BONKWELL_SESSION_DIR"))

    # Start to tray icon, and RSS once started (2 s after the icon, the panel never opened).
    times, sizes = [], []
    home = None
    for run in range(args.runs + 1):
        app, ms, home = start_once(args.app, root, home)
        time.sleep(2)
        rss = rss_mb(app.pid)
        app.stop()
        if run == 0:
            print(f"start to tray icon, first start (new home, packs copied): {ms:6.0f} ms, "
                  f"RSS {rss:.1f} MB")
        else:
            times.append(ms)
            sizes.append(rss)
    median_ms = statistics.median(times)
    print(f"start to tray icon, later starts: median {median_ms:.0f} ms "
          f"(min {min(times):.0f}, max {max(times):.0f}; {len(times)} runs)   goal <= 150 ms: "
          f"{verdict(median_ms <= 150)}")
    print(f"RSS after start: median {statistics.median(sizes):.1f} MB "
          f"(max {max(sizes):.1f})   goal <= 45 MB: {verdict(max(sizes) <= 45)}")

    # Listening on an emulated 100 Hz accelerometer (the helper not installed: in-process).
    app, ms, _ = start_once(args.app, root, launcher=["umockdev-run", "-d", args.device, "--"])
    try:
        if "Bonkwell: matched 1 accelerometer device(s)" not in app.log:
            time.sleep(1)
        if "Bonkwell: matched 1 accelerometer device(s)" not in app.log:
            raise Failure("the app did not find the emulated accelerometer")
        time.sleep(2)
        pid = app.pid
        print(f"listening on the emulated device: started in {ms:.0f} ms, "
              f"RSS {rss_mb(pid):.1f} MB")
        cpu, wake, busy = idle_cpu(pid, args.seconds)
        print(f"CPU idle, listening, panel closed: {cpu:.2f} % of a core, {wake:.0f} "
              f"wakeups/s over {args.seconds:.0f} s   goal <= 0.5 %: {verdict(cpu <= 0.5)}")
        print(f"  by thread: {by_thread(busy)}")
        click_centre(icon_rect(app), 1)
        app.wait_event(r"panel shown at .*", 10)
        time.sleep(1)
        cpu, wake, busy = idle_cpu(pid, args.seconds)
        print(f"CPU idle, listening, panel open:   {cpu:.2f} % of a core, {wake:.0f} "
              f"wakeups/s over {args.seconds:.0f} s   (RSS {rss_mb(pid):.1f} MB)")
        print(f"  by thread: {by_thread(busy)}")
    finally:
        app.stop()

    if args.helper:
        engine_idle(args, root)

    # The floor on this machine: a bare C loop polling the same emulated device at 100 Hz.
    if args.floor:
        floor = subprocess.Popen(["umockdev-run", "-d", args.device, "--", args.floor,
                                  "/sys/bus/iio/devices/iio:device0", "100"])
        try:
            time.sleep(2)
            kids = run_text("pgrep", "-P", str(floor.pid)).split() or [str(floor.pid)]
            target = int(kids[-1])
            cpu, wake, _ = idle_cpu(target, args.seconds)
            print(f"floor: a bare 100 Hz poll of the same emulated device: {cpu:.2f} % of a "
                  f"core, {wake:.0f} wakeups/s over {args.seconds:.0f} s")
        finally:
            floor.terminate()
            floor.wait(timeout=10)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        print(f"FAILED: {failure}", file=sys.stderr)
        sys.exit(1)

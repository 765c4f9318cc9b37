#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The whole chain, from a jolt of the accelerometer to a sound: run inside
session.sh --tray sni --sound.

  e2e_chain.py --app BIN --device FIXTURE.umockdev [--rest-z N --spike-z N --still-seconds S]

The app runs under umockdev-run on an emulated IIO accelerometer (polled through sysfs) with
the helper not installed, so it listens with the in-process detector. While the device is
still, nothing is counted and the null sink stays silent (also on a device whose length at rest
is not 1 g: the in-process reader learns what it reads at rest; start-up included, since the app
starts with an empty Today). A spike written to the emulated
device's raw Z value raises "Today" in the open panel and `todayCount` in the stored settings
by exactly one, and a sound reaches the null sink's monitor.
"""
import argparse
import array
import os
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from desktop_driver import App, Failure, StatusNotifierItem  # noqa: E402

RATE = 48000
# 16-bit samples: the clips peak far above this; the null sink's silence is exactly 0.
AUDIBLE = 300


class Recorder:
    """Records the null sink's monitor (mono, 16-bit, 48 kHz) into a file."""

    def __init__(self, path):
        self.path = path
        self.out = open(path, "wb")
        self.proc = subprocess.Popen(
            ["parec", "--device", os.environ["BONKWELL_SINK_MONITOR"], "--format=s16le",
             f"--rate={RATE}", "--channels=1", "--latency-msec=20", "--raw"],
            stdout=self.out, stderr=subprocess.PIPE)
        self.started = time.monotonic()
        # The monitor takes a moment (about 2 s here) before the first samples flow.
        deadline = self.started + 15
        while os.path.getsize(path) == 0:
            if self.proc.poll() is not None or time.monotonic() > deadline:
                raise Failure("parec recorded nothing from the null sink's monitor")
            time.sleep(0.05)

    def seconds(self):
        """Seconds of sound recorded."""
        return os.path.getsize(self.path) / 2 / RATE

    def stop(self):
        self.stopped = time.monotonic() - self.started
        if self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(timeout=5)
        self.out.close()
        if self.proc.returncode not in (0, -15, 143):
            raise Failure(f"parec failed: {self.proc.stderr.read().decode()}")

    def peak(self, start_s, end_s=None):
        samples = array.array("h")
        with open(self.path, "rb") as f:
            data = f.read()
        samples.frombytes(data[: len(data) // 2 * 2])
        first = int(start_s * RATE)
        last = len(samples) if end_s is None else min(len(samples), int(end_s * RATE))
        part = samples[first:last]
        return max((abs(v) for v in part), default=0), len(part) / RATE


def no_event(app, pattern, seconds):
    """True when no event matching `pattern` arrives within `seconds`."""
    try:
        app.wait_event(pattern, seconds)
    except Failure:
        return True
    return False


def stored_today(app, default):
    path = os.path.join(app.config, "Bonkwell", "BonkwellState.v1")
    if not os.path.exists(path):
        return default
    return int(app.snapshot()["todayCount"])


def raw_z_path(app):
    """The emulated device's raw Z file inside umockdev's sysfs tree."""
    with open(f"/proc/{app.pid}/environ", "rb") as f:
        env = dict(item.split(b"=", 1) for item in f.read().split(b"\0") if b"=" in item)
    root = env.get(b"UMOCKDEV_DIR")
    if not root:
        raise Failure("the app does not run in a umockdev testbed")
    path = os.path.join(root.decode(), "sys/bus/iio/devices/iio:device0/in_accel_z_raw")
    if not os.path.exists(path):
        raise Failure(f"no emulated accelerometer at {path}")
    return path


def write_in_place(path, value):
    # Like sysfs: the same file changes; the reader keeps its descriptor open.
    with open(path, "r+") as f:
        f.seek(0)
        f.truncate()
        f.write(value + "\n")


def run_chain(app, shots, recording, rest_z, spike_z, still_seconds):
    app.wait_event(r"tray icon shown \(StatusNotifierItem\)", 30)
    if "Bonkwell: matched 1 accelerometer device(s)" not in app.log:
        time.sleep(1)
        if "Bonkwell: matched 1 accelerometer device(s)" not in app.log:
            raise Failure("the in-process reader did not find the emulated accelerometer")
    z_path = raw_z_path(app)
    recorder = Recorder(os.path.join(shots, recording))
    try:
        item = StatusNotifierItem(os.environ["BONKWELL_SNI_LOG"])
        item.call("Activate", 640, 12)
        app.wait_event(r"panel shown at .*", 10)
        status = app.wait_event(r"panel text engineStatusLabel (.*)", 5).group(1)
        if status != "Helper not installed \u2014 Settings \u2192 General":
            raise Failure(f"the engine row says {status!r}, not that the helper is missing")
        today = int(app.wait_event(r"panel text todayCount (\d+)", 5).group(1))
        before = stored_today(app, today)
        if before != today:
            raise Failure(f"the panel shows Today {today}, the stored settings {before}")
        print(f"panel open: Today {today}; engine row: {status}")
        if today != 0:  # a fresh settings folder, so every slap counted came from the device
            raise Failure(f"a still device counted {today} slap(s) while the app started")

        # Still: no slap.
        if not no_event(app, r"panel text todayCount .*", still_seconds):
            raise Failure("a still device raised Today")
        if stored_today(app, today) != today:
            raise Failure("a still device changed todayCount")
        spike_at = time.monotonic() - recorder.started

        # One spike.
        write_in_place(z_path, spike_z)
        time.sleep(0.25)
        write_in_place(z_path, rest_z)
        shown = int(app.wait_event(r"panel text todayCount (\d+)", 5).group(1))
        if shown != today + 1:
            raise Failure(f"after one spike the panel shows Today {shown}, expected {today + 1}")
        if not no_event(app, r"panel text todayCount .*", 2.0):
            raise Failure("one spike raised Today more than once")
        stored = stored_today(app, None)
        if stored != today + 1:
            raise Failure(f"after one spike todayCount is {stored}, expected {today + 1}")
        print(f"still device: no slap; spike: Today {today} -> {shown} in the panel, "
              f"todayCount {stored} stored")
    finally:
        recorder.stop()

    # The recording begins a little after parec starts and ends when it stops: place the
    # spike in the file counting back from the end.
    total = recorder.seconds()
    spike_in_file = spike_at - (recorder.stopped - total)
    if spike_in_file < 1.5:
        raise Failure(f"only {max(spike_in_file, 0):.2f} s recorded before the spike")
    peak, length = recorder.peak(0, spike_in_file - 0.05)
    if peak > AUDIBLE:
        raise Failure(f"sound while the device was still (peak {peak})")
    print(f"silence while still: peak {peak} over {length:.1f} s")
    peak, length = recorder.peak(spike_in_file - 0.05)
    if peak <= AUDIBLE:
        raise Failure(f"no sound reached the null sink after the spike (peak {peak} over "
                      f"{length:.2f} s)")
    print(f"sound at the null sink's monitor after the spike: peak {peak} of 32767")


def sanitizer_reports(log):
    """Errors from an ASan/UBSan build, and leaks whose stack passes through our code (the
    sound server's and the D-Bus library's one-time allocations are theirs)."""
    reports = [line for line in log if "ERROR: AddressSanitizer" in line or "runtime error:" in line]
    block = []
    for line in log + [""]:
        if line.startswith(("Direct leak", "Indirect leak")) or not line.strip():
            if block and any("bonkwell" in frame for frame in block):
                reports.append("\n".join(block))
            block = [line] if line.strip() else []
        elif block:
            block.append(line)
    return reports


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--device", required=True)
    parser.add_argument("--shots", required=True)
    # The device's raw Z at rest, and a value about 0.2 g or more away from rest along Z.
    parser.add_argument("--rest-z", default="31")
    parser.add_argument("--spike-z", default="700")
    parser.add_argument("--still-seconds", type=float, default=2.5)
    args = parser.parse_args()
    for tool in ("umockdev-run", "parec"):
        if subprocess.run(["sh", "-c", f"command -v {tool}"], capture_output=True).returncode:
            print(f"FAILED: {tool} is missing (run scripts/install-deps)", file=sys.stderr)
            return 1
    os.makedirs(args.shots, exist_ok=True)
    home = tempfile.mkdtemp(prefix="bonkwell-home.", dir=os.environ.get("BONKWELL_SESSION_DIR"))
    app = App(args.app, home, launcher=["umockdev-run", "-d", args.device, "--"])
    try:
        try:
            # One recording per device, so that two of these runs never share a file.
            device = os.path.splitext(os.path.basename(args.device))[0]
            run_chain(app, args.shots, f"chain-null-sink-{device}.raw", args.rest_z,
                      args.spike_z, args.still_seconds)
        finally:
            app.stop()
        time.sleep(0.3)  # the last lines of stderr
        reports = sanitizer_reports(app.log)
        if reports:
            raise Failure("the sanitizers reported:\n" + "\n\n".join(reports[:3]))
    except Failure as failure:
        print(f"FAILED: {failure}", file=sys.stderr)
        print("app log:\n" + "\n".join(app.log[-60:]), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

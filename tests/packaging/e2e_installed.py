#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The installed package's main path, the way a user meets it: run as an ordinary user inside
tests/desktop/session.sh --tray xembed --sound (check-installed.sh does that, on a machine
where the package is installed, a fake IIO accelerometer is at --device and pkexec is allowed
for this user).

  e2e_installed.py --device DIR --home DIR --shots DIR

/usr/bin/bonkwell starts with the helper not installed and fills the user's sound folder from
/usr/share/bonkwell. In Settings → General, "Install detection engine" is pressed with the
mouse; the row turns to "Installed" with "Reinstall", the per-user copy is root:root 4755 with
the packaged content and the engine status reads "Engine running". A spike on the device
raises "Today" in the panel and `todayCount` in the stored settings by exactly one, and a sound
reaches the null sink. Killing the helper (pkexec kill, as an administrator would) shows
"Engine stopped"; the app keeps working: listening off and on starts the helper again and the
next spike is counted and heard. A second `bonkwell` exits 0 at once; "Quit Bonkwell" ends
the app.
"""
import argparse
import filecmp
import os
import re
import subprocess
import sys
import time

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(here, "..", "desktop"))
from desktop_driver import (App, Failure, click_centre, drive, geometry, keys,  # noqa: E402
                            run, screenshot, wait_window)
from e2e_chain import AUDIBLE, Recorder, no_event, write_in_place  # noqa: E402
from e2e_tray import icon_rect  # noqa: E402

APP = "/usr/bin/bonkwell"
PACKAGED = "/usr/libexec/bonkwell/Helpers/thuzz-detector"
PACKS = "/usr/share/bonkwell/SoundPacks"
REST_X = "0"
SPIKE_X = "3000"  # about 2 g sideways with the device's scale


def last_event(app, pattern):
    """The newest event matching `pattern` so far (the app reports places again as they
    change), or None."""
    for line in reversed(app.log):
        if line.startswith("bonkwell-event: "):
            m = re.fullmatch(pattern, line[len("bonkwell-event: "):])
            if m:
                return m
    return None


def wait_text(app, key, expected, timeout=15):
    """Waits until the named label or button shows `expected`."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        m = last_event(app, rf"text {re.escape(key)} (.*)")
        if m and m.group(1) == expected:
            return
        time.sleep(0.1)
    m = last_event(app, rf"text {re.escape(key)} (.*)")
    raise Failure(f"{key} shows {m.group(1) if m else 'nothing'!r}, not {expected!r}")


def button(app, key, settle=0.6):
    """Where the named button is once its window has settled on screen."""
    time.sleep(settle)
    m = last_event(app, rf"widget {re.escape(key)} at (.*)")
    if not m:
        raise Failure(f"no button {key} on screen")
    return geometry(m.group(1))


def clips(folder):
    return sum(1 for _, _, files in os.walk(folder) for f in files if f.endswith(".mp3"))


def helper_pids(app):
    out = run("pgrep", "-P", str(app.pid), "-x", "thuzz-detector", check=False)
    return [int(p) for p in out.split()]


def alive(pid):
    """True while the process runs (a zombie waiting for its reaper has ended)."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False


def spike(device):
    raw = os.path.join(device, "in_accel_x_raw")
    write_in_place(raw, SPIKE_X)
    time.sleep(0.15)
    write_in_place(raw, REST_X)


def open_panel(app, icon):
    click_centre(icon, 1)
    app.wait_event(r"panel shown at .*", 10)
    return int(app.wait_event(r"panel text todayCount (\d+)", 5).group(1))


def counted_once(app, recorder, device, today, what):
    """A spike raises Today by one, once, in the panel and the stored settings, and is heard."""
    at = time.monotonic()
    spike(device)
    shown = int(app.wait_event(r"panel text todayCount (\d+)", 10).group(1))
    if shown != today + 1:
        raise Failure(f"{what}: after one spike the panel shows Today {shown}, not {today + 1}")
    if not no_event(app, r"panel text todayCount .*", 2.0):
        raise Failure(f"{what}: one spike raised Today more than once")
    stored = int(app.snapshot()["todayCount"])
    if stored != today + 1:
        raise Failure(f"{what}: after one spike todayCount is {stored}, not {today + 1}")
    # Where the spike falls in the recording, counting back from its end.
    in_file = recorder.seconds() - (time.monotonic() - at)
    peak, length = recorder.peak(max(in_file - 0.05, 0))
    if peak <= AUDIBLE:
        raise Failure(f"{what}: no sound at the null sink after the spike (peak {peak} over "
                      f"{length:.2f} s)")
    print(f"{what}: Today {today} -> {shown} in the panel, todayCount {stored} stored, "
          f"sound at the null sink (peak {peak} of 32767)")
    return shown


def run_installed(args, app):
    app.wait_event(r"tray icon shown \(XEmbed\)", 30)
    icon = icon_rect(app)

    # The user's sound folder is filled from the package.
    packaged = clips(PACKS)
    user_packs = os.path.join(app.data, "Bonkwell", "SoundPacks")
    if packaged == 0 or clips(user_packs) != packaged:
        raise Failure(f"the user's sound folder holds {clips(user_packs)} clips, the package "
                      f"{packaged}")
    print(f"the user's sound folder was filled from the package ({packaged} clips)")

    # A second start reaches this one and exits 0 at once.
    began = time.monotonic()
    second = subprocess.run([APP], env=dict(os.environ, XDG_CONFIG_HOME=app.config,
                                            XDG_DATA_HOME=app.data),
                            capture_output=True, text=True, timeout=15)
    if second.returncode != 0:
        raise Failure(f"a second start exited {second.returncode}: {second.stderr[-400:]}")
    app.wait_event(r"panel shown at .*", 10)
    print(f"a second start opened the panel and exited 0 after "
          f"{(time.monotonic() - began) * 1000:.0f} ms")
    keys("Escape")
    app.wait_event(r"panel hidden", 5)

    # Settings → General: the helper is not installed yet.
    click_centre(icon, 3)
    app.wait_event(r"menu shown at .*", 5)
    time.sleep(0.3)
    keys("Down", "Down", "Return")
    app.wait_event(r"window shown Bonkwell Settings", 10)
    wait_window("Bonkwell Settings")
    wait_text(app, "settingsWindow/installEngineButton", "Install detection engine")
    before = last_event(app, r"text settingsWindow/engineStateLabel (.*)").group(1)
    if before == "Installed":
        raise Failure("the helper counts as installed before anything was installed")
    print(f"Settings → General before: {before!r}, button 'Install detection engine'")

    # Press the button; pkexec asks polkit, which lets this user through.
    click_centre(button(app, "settingsWindow/installEngineButton"))
    wait_text(app, "settingsWindow/engineStateLabel", "Installed", 60)
    wait_text(app, "settingsWindow/installEngineButton", "Reinstall", 5)
    copy = os.path.join(app.data, "Bonkwell", "Helpers", "thuzz-detector")
    st = os.stat(copy)
    mode = f"{st.st_uid}:{st.st_gid} {st.st_mode & 0o7777:o}"
    if mode != "0:0 4755":
        raise Failure(f"the per-user copy is {mode}, not root:root 4755")
    if not filecmp.cmp(copy, PACKAGED, shallow=False):
        raise Failure("the per-user copy differs from the packaged helper")
    wait_text(app, "settingsWindow/engineStatus", "Engine running", 15)
    print("pressed 'Install detection engine': the row reads 'Installed' with 'Reinstall', the "
          "copy is root:root 4755 as packaged, the status 'Engine running'")
    time.sleep(0.3)
    screenshot(os.path.join(args.shots, "installed-settings-general.png"))
    deadline = time.monotonic() + 10
    while not helper_pids(app):
        if time.monotonic() > deadline:
            raise Failure("the app runs no helper")
        time.sleep(0.1)
    # The helper reads the device once it has opened it.
    time.sleep(1.0)

    recorder = Recorder(os.path.join(args.shots, "installed-null-sink.raw"))
    try:
        today = open_panel(app, icon)
        today = counted_once(app, recorder, args.device, today, "through the installed helper")

        # The helper goes away; an administrator can end it, the user cannot.
        for pid in helper_pids(app):
            result = subprocess.run(["pkexec", "/bin/kill", "-KILL", str(pid)],
                                    capture_output=True, text=True, timeout=30)
            if result.returncode != 0:
                raise Failure(f"pkexec kill {pid} failed: {result.stderr.strip()}")
        wait_text(app, "settingsWindow/engineStatus", "Engine stopped", 10)
        wait_text(app, "panelPopup/engineStatusLabel", "Engine stopped", 5)
        if app.proc.poll() is not None:
            raise Failure(f"the app ended with the helper ({app.proc.returncode})")
        print("killing the helper: 'Engine stopped'; the app still runs")

        # It keeps working: listening off and on launches the helper again.
        m = last_event(app, r"panel widget listeningSwitch at (.*)")
        if not m:
            raise Failure("the panel reported no listening switch")
        switch = geometry(m.group(1))
        click_centre(switch)
        time.sleep(0.5)
        click_centre(switch)
        wait_text(app, "panelPopup/engineStatusLabel", "Engine running", 10)
        time.sleep(1.0)
        counted_once(app, recorder, args.device, today, "after the helper was restarted")
    finally:
        recorder.stop()

    keys("Escape")
    app.wait_event(r"panel hidden", 5)
    helpers = helper_pids(app)
    click_centre(icon, 3)
    app.wait_event(r"menu shown at .*", 5)
    time.sleep(0.3)
    keys("Up", "Return")
    code = app.wait_exit(15)
    if code != 0:
        raise Failure(f"the app exited with {code}")
    time.sleep(1.0)
    left = [pid for pid in helpers if alive(pid)]
    if left:
        raise Failure(f"the helper outlived the app: {left}")
    print("quit from the menu")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--device", required=True)
    parser.add_argument("--home", required=True, help="the user's folders go here")
    parser.add_argument("--shots", required=True)
    args = parser.parse_args()
    app = App(APP, args.home)
    return drive(app, run_installed, args, app)


if __name__ == "__main__":
    sys.exit(main())

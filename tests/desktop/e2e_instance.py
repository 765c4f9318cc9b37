#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""One copy per session, in a real X session: run inside session.sh.

  e2e_instance.py --app BIN --tray xembed|none

A second start while Bonkwell runs exits 0 within seconds and the running copy shows its
panel (xembed) or brings its window back (none); a third start with the panel already open
keeps it open. Only the first process is left running. After the first copy quits, a new
start runs normally (checked with the tray).
"""
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from desktop_driver import (App, Failure, drive, fresh_home, run, session_args,  # noqa: E402
                            wait_window)


def start_again(args, app, label):
    """Starts the app a further time with the first one's folders; returns its exit code."""
    env = dict(os.environ)
    env.update({"XDG_CONFIG_HOME": app.config, "XDG_DATA_HOME": app.data,
                "BONKWELL_TEST_EVENTS": "1", "QT_QPA_PLATFORM": "xcb"})
    began = time.monotonic()
    try:
        done = subprocess.run([args.app], env=env, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=15)
    except subprocess.TimeoutExpired:
        raise Failure(f"the {label} start did not exit within 15 s: a second copy is running")
    elapsed_ms = (time.monotonic() - began) * 1000
    print(f"{label} start exited {done.returncode} after {elapsed_ms:.0f} ms")
    if done.returncode != 0:
        raise Failure(f"the {label} start exited {done.returncode}: {done.stderr}")
    if "tray icon shown" in done.stderr or "window shown" in done.stderr:
        raise Failure(f"the {label} start showed its own tray icon or window: {done.stderr}")


def bonkwell_processes(binary):
    """The copies of the app in this session (other sessions may run tests beside us)."""
    ours = os.environ["XDG_RUNTIME_DIR"].encode()
    pids = []
    for pid in run("pgrep", "-u", str(os.getuid()), "-f", "-x", binary, check=False).split():
        try:
            with open(f"/proc/{pid}/environ", "rb") as f:
                env = f.read().split(b"\0")
        except OSError:
            continue  # ended meanwhile
        if b"XDG_RUNTIME_DIR=" + ours in env:
            pids.append(int(pid))
    return pids


def run_tray(args, app):
    app.wait_event(r"tray icon shown \(XEmbed\)", 20)
    start_again(args, app, "second")
    app.wait_event(r"panel shown at .*", 10)
    print("the running copy showed its panel")
    time.sleep(0.5)
    start_again(args, app, "third")
    time.sleep(0.5)
    if any(event.startswith("panel hidden") for _, event in list(app.events.queue)):
        raise Failure("a further start closed the open panel")
    return


def run_no_tray(args, app):
    app.wait_event(r"window shown Bonkwell", 45)
    wid = wait_window("Bonkwell")[0]
    run("xdotool", "windowminimize", wid)
    time.sleep(0.5)
    start_again(args, app, "second")
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        if "IsViewable" in run("xwininfo", "-id", wid, check=False):
            break
        time.sleep(0.2)
    else:
        raise Failure("the Bonkwell window did not come back after the second start")
    print("the running copy brought its window back")


def first_copy(args, app):
    (run_no_tray if args.tray == "none" else run_tray)(args, app)
    others = [pid for pid in bonkwell_processes(args.app) if pid != app.proc.pid]
    if others:
        raise Failure(f"more copies run besides the first: {others}")
    app.stop()
    if app.proc.returncode != 0:
        raise Failure(f"the first copy exited {app.proc.returncode}")


def normal_start(app):
    app.wait_event(r"tray icon shown \(XEmbed\)", 20)
    print("after the first copy ended, a new start came up normally")


def main():
    args = session_args("xembed", "none")
    home = fresh_home()
    app = App(args.app, home)
    code = drive(app, first_copy, args, app)
    if code != 0 or args.tray != "xembed":  # (without a tray a start waits 30 s for one first)
        return code
    # With the first copy gone the next start is a normal one.
    app = App(args.app, home)
    return drive(app, normal_start, app)


if __name__ == "__main__":
    sys.exit(main())

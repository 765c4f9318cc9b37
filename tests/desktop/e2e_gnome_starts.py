#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The app's item on GNOME Shell's AppIndicator extension, start after start: run inside
shells/gnome.sh --tray appindicator.

  e2e_gnome_starts.py --app BIN --starts N [--client wayland|x11] [--restarts M]

Starts the app N times in a row. Each time its item must show in the top bar with the app's
own image and still be there a few seconds later (the extension gives up on an item whose
basic properties it cannot read about a second after it registered), and the shell's log
must not say it gave up on it. Then, with the app running, the extension is turned off and
on again M times (what a user does in the Extensions app, and what happens when the shell
reloads its extensions): the item must come back each time without restarting the app.
Prints one line per start and the count; fails unless every start and every return showed
the item.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from checks import ShellLogs, wait_for  # noqa: E402
from desktop_driver import App, Failure  # noqa: E402
from gnome_shell import GnomeShell  # noqa: E402

INDICATOR_EXTENSION = "ubuntu-appindicators@ubuntu.com"
# What the extension writes when it drops an item.
GIVE_UP = ("While initalizing proxy", "Impossible to get basic properties",
           "not on bus anymore")
# How long an item must stay: the extension re-reads missing properties after 1 s, three
# times, and drops the item when that fails.
STAY_S = 4.0


def shell_log_since(path, offset):
    try:
        with open(path, errors="replace") as f:
            f.seek(offset)
            return f.read()
    except OSError:
        return ""


def log_size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return 0


def item_with_image(shell, pid):
    found = shell.indicator_of(pid)
    return found if found and found[1]["image"] else None


def one_start(shell, logs, args, home, n):
    shell_log = os.environ.get("BONKWELL_SHELL_LOG", "")
    offset = log_size(shell_log)
    platform = "wayland" if args.client == "wayland" else "xcb"
    app = App(args.app, home, {"QT_QPA_PLATFORM": platform})
    started = time.monotonic()
    try:
        app.wait_event(r"tray icon shown \(StatusNotifierItem\)", 20)
        key, _ = wait_for(lambda: item_with_image(shell, app.pid), 15,
                          f"start {n}: the app's item with its image in the top bar", logs)
        shown = time.monotonic() - started
        time.sleep(STAY_S)
        still = item_with_image(shell, app.pid)
        said = [line for line in shell_log_since(shell_log, offset).splitlines()
                if any(g in line for g in GIVE_UP)]
        if not still or said:
            raise Failure(f"start {n}: the item {key} went again"
                          + (f"; the shell's log: {said}" if said else ""))
        return shown, app, key
    except Failure:
        app.stop()
        raise


def set_extension(shell, on):
    enabled = [u for u in shell.eval("global.settings.get_strv('enabled-extensions')")
               if u != INDICATOR_EXTENSION]
    if on:
        enabled.append(INDICATOR_EXTENSION)
    subprocess.run(["gsettings", "set", "org.gnome.shell", "enabled-extensions",
                    json.dumps(enabled).replace('"', "'")], check=True, timeout=20)


def extension_state(shell):
    return shell.eval(f"Main.extensionManager.lookup('{INDICATOR_EXTENSION}')?.state ?? null")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--starts", type=int, default=20)
    parser.add_argument("--restarts", type=int, default=2)
    parser.add_argument("--client", default="wayland", choices=["wayland", "x11"])
    args = parser.parse_args()
    logs = ShellLogs(paths=[os.environ.get("BONKWELL_SHELL_LOG", "")])
    shell = GnomeShell()
    home = tempfile.mkdtemp(prefix="bonkwell-home.", dir=os.environ.get("BONKWELL_SESSION_DIR"))
    shown_ok, returned_ok, failures = 0, 0, []
    app = None
    try:
        for n in range(1, args.starts + 1):
            try:
                shown, app, key = one_start(shell, logs, args, home, n)
                shown_ok += 1
                print(f"start {n}: item {key} with its image after {shown:.2f} s, still there "
                      f"{STAY_S:.0f} s later", flush=True)
            except Failure as failure:
                failures.append(str(failure).splitlines()[0])
                print(f"start {n}: FAILED: {failure}", flush=True)
                continue
            if n < args.starts:
                app.stop()
                wait_for(lambda: shell.indicator_of(app.pid) is None, 10,
                         f"start {n}: the item leaving the top bar", logs)
                app = None
        if app is None:
            app, key = one_start(shell, logs, args, home, "for the extension restarts")[1:]
        for r in range(1, args.restarts + 1):
            set_extension(shell, False)
            wait_for(lambda: extension_state(shell) != 1, 10, "the extension turning off", logs)
            wait_for(lambda: shell.indicator_of(app.pid) is None, 10,
                     "the item leaving with the extension", logs)
            offset = log_size(logs.paths[0])
            set_extension(shell, True)
            try:
                wait_for(lambda: item_with_image(shell, app.pid), 20,
                         f"extension restart {r}: the item coming back", logs)
                time.sleep(STAY_S)
                said = [line for line in shell_log_since(logs.paths[0], offset).splitlines()
                        if any(g in line for g in GIVE_UP)]
                if not item_with_image(shell, app.pid) or said:
                    raise Failure(f"extension restart {r}: the item went again; {said}")
                returned_ok += 1
                print(f"extension restart {r}: the item is back", flush=True)
            except Failure as failure:
                failures.append(str(failure).splitlines()[0])
                print(f"extension restart {r}: FAILED: {failure}", flush=True)
    except Failure as failure:
        print(f"FAILED: {failure}", file=sys.stderr)
        return 1
    finally:
        if app:
            app.stop()
    print(f"the item showed on {shown_ok} of {args.starts} starts and came back on "
          f"{returned_ok} of {args.restarts} extension restarts", flush=True)
    return 0 if not failures else 1


if __name__ == "__main__":
    sys.exit(main())

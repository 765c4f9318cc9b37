#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The panel as a window, as an X11 client of a Wayland compositor gets it: run inside
session.sh --tray sni, with WAYLAND_DISPLAY set for the app so that it picks that style.

  e2e_panel_window.py --app BIN --shots DIR

Activate(x, y) from the D-Bus host opens the panel at that point as a dialog of fixed size
(minimum = maximum, so tiling compositors float it) that takes the keyboard; Escape, a click
elsewhere and a second activation close it, each told with its reason.
"""
import argparse
import os
import re
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from desktop_driver import (App, Failure, StatusNotifierItem, click, drive, find_windows,  # noqa: E402
                            geometry, keys, screenshot, window_property)


def open_panel(app, item):
    item.call("Activate", 640, 12)
    shown = geometry(app.wait_event(r"panel shown at (.*)", 5).group(1))
    app.wait_event(r"panel active", 5)
    return shown


def steps(args, app):
    app.wait_event(r"tray icon shown \(StatusNotifierItem\)", 20)
    item = StatusNotifierItem(os.environ["BONKWELL_SNI_LOG"])

    x, y, w, h = open_panel(app, item)
    if abs(x + w // 2 - 640) > 2 or y != 12:
        raise Failure(f"the panel opened at {(x, y, w, h)}, not at the click (640, 12)")
    time.sleep(0.3)
    screenshot(os.path.join(args.shots, "panel-window.png"))
    wids = find_windows("Bonkwell")
    if len(wids) != 1:
        raise Failure(f"expected one panel window, found {wids}")
    kind = window_property(wids[0], "_NET_WM_WINDOW_TYPE")
    if "_NET_WM_WINDOW_TYPE_DIALOG" not in kind:
        raise Failure(f"the panel window is not a dialog: {kind.strip()}")
    hints = window_property(wids[0], "WM_NORMAL_HINTS")
    smallest = re.search(r"minimum size: (\d+) by (\d+)", hints)
    largest = re.search(r"maximum size: (\d+) by (\d+)", hints)
    if not smallest or not largest or smallest.groups() != largest.groups():
        raise Failure(f"the panel window's size is not fixed: {hints.strip()}")
    if (int(smallest.group(1)), int(smallest.group(2))) != (w, h):
        raise Failure(f"the fixed size {smallest.groups()} is not the panel's {w}x{h}")
    print(f"panel window: a dialog of fixed size {w}x{h} at the click, with the keyboard")

    keys("Escape")
    app.wait_event(r"panel hidden by escape", 5)
    time.sleep(0.4)
    open_panel(app, item)
    time.sleep(0.3)
    click(200, 600)
    app.wait_event(r"panel hidden by focus-lost", 5)
    time.sleep(0.4)
    open_panel(app, item)
    item.call("Activate", 640, 12)
    app.wait_event(r"panel hidden by icon-click", 5)
    print("it closed on Escape, on a click elsewhere and on a second activation")

    item.click_menu("Quit Bonkwell")
    code = app.wait_exit(15)
    if code != 0:
        raise Failure(f"the app exited with {code}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--shots", required=True)
    args = parser.parse_args()
    home = tempfile.mkdtemp(prefix="bonkwell-home.", dir=os.environ.get("BONKWELL_SESSION_DIR"))
    # The X11 client of a Wayland compositor: no compositor is reached through this name.
    app = App(args.app, home, extra_env={"WAYLAND_DISPLAY": "bonkwell-test-no-such-display"})
    return drive(app, steps, args, app)


if __name__ == "__main__":
    sys.exit(main())

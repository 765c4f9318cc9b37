#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The "Show in taskbar" switch on a real X server: run inside session.sh.

  e2e_taskbar.py --app BIN --tray xembed|none

xembed: Settings, opened from the tray menu, carries _NET_WM_STATE_SKIP_TASKBAR; a click on
"Show in taskbar" takes it off the open window (the window manager's own record of the
state, as a taskbar reads it) and a second click puts it back.
none: the window that stands in for the tray never carries the hint: not when it appears,
not while the switch in Settings (opened from that window) goes on and off, not when it is
minimised, from where the taskbar brings it back.
"""
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from desktop_driver import (App, Failure, click_centre, drive, fresh_home, geometry,  # noqa: E402
                            keys, run, session_args, wait_window, window_property)
from e2e_tray import icon_rect  # noqa: E402

SKIP = "_NET_WM_STATE_SKIP_TASKBAR"


def skips_taskbar(wid):
    return SKIP in window_property(wid, "_NET_WM_STATE")


def wait_skip(wid, wanted, what, timeout=5):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if skips_taskbar(wid) == wanted:
            return
        time.sleep(0.1)
    state = window_property(wid, "_NET_WM_STATE").strip()
    raise Failure(f"{what}: expected the skip-taskbar hint to be "
                  f"{'set' if wanted else 'clear'} within {timeout} s; {state}")


def client_list():
    return run("xprop", "-root", "_NET_CLIENT_LIST")


def place(app, key, timeout=10, settle=1.0):
    """Where the widget "WINDOW/NAME" is on screen: the last place the app reports for it
    until the reports have been quiet for `settle` seconds (the window manager may still
    move a window that was just shown)."""
    pattern = rf"widget {key} at (.*)"
    rect = geometry(app.wait_event(pattern, timeout).group(1))
    while True:
        try:
            rect = geometry(app.wait_event(pattern, settle).group(1))
        except Failure:
            return rect


def settings_switch(app):
    """Where "Show in taskbar" is on screen, once the open Settings window reports it."""
    return place(app, "settingsWindow/showInTaskbarSwitch")


def toggle_and_check(app, switch, settings, others=()):
    """Switch on: Settings leaves its hint; off: it is back. `others` keep none throughout."""
    for wanted_skip, label in ((False, "switched on"), (True, "switched off")):
        click_centre(switch)
        wait_skip(settings, wanted_skip, f"Settings with \"Show in taskbar\" {label}")
        for wid, name in others:
            if skips_taskbar(wid):
                raise Failure(f"{name} left the taskbar when \"Show in taskbar\" was {label}")
        print(f"\"Show in taskbar\" {label}: Settings "
              f"{'hidden from' if wanted_skip else 'shown in'} the taskbar")


def run_tray(args, app):
    app.wait_event(r"tray icon shown \(XEmbed\)", 20)
    icon = icon_rect(app)
    click_centre(icon, 3)
    app.wait_event(r"menu shown at .*", 5)
    time.sleep(0.3)
    keys("Down", "Down", "Return")  # "Settings…"
    app.wait_event(r"window shown Bonkwell Settings", 10)
    settings = wait_window("Bonkwell Settings")[0]
    wait_skip(settings, True, "Settings as it opens (the switch starts off)")
    toggle_and_check(app, settings_switch(app), settings)


def run_no_tray(args, app):
    app.wait_event(r"window shown Bonkwell", 45)
    window = wait_window("Bonkwell")[0]
    time.sleep(0.5)
    if skips_taskbar(window):
        raise Failure("the Bonkwell window (no tray) is hidden from the taskbar: "
                      + window_property(window, "_NET_WM_STATE").strip())
    print("no tray: the Bonkwell window is in the taskbar")

    click_centre(place(app, "fallbackWindow/settingsButton"))
    app.wait_event(r"window shown Bonkwell Settings", 10)
    settings = wait_window("Bonkwell Settings")[0]
    wait_skip(settings, True, "Settings as it opens (the switch starts off)")
    toggle_and_check(app, settings_switch(app), settings, [(window, "the Bonkwell window")])

    # Minimised, it stays in the taskbar, and the taskbar's click brings it back.
    run("xdotool", "windowminimize", window)
    deadline = time.monotonic() + 5
    while "IsViewable" in run("xwininfo", "-id", window) and time.monotonic() < deadline:
        time.sleep(0.1)
    if "IsViewable" in run("xwininfo", "-id", window):
        raise Failure("the Bonkwell window did not minimise")
    if skips_taskbar(window):
        raise Failure("the minimised Bonkwell window is hidden from the taskbar")
    if format(int(window), "#x") not in client_list():
        raise Failure(f"the minimised Bonkwell window left the client list: {client_list()}")
    run("wmctrl", "-i", "-a", format(int(window), "#x"))
    deadline = time.monotonic() + 5
    while "IsViewable" not in run("xwininfo", "-id", window):
        if time.monotonic() > deadline:
            raise Failure("the taskbar's request did not bring the Bonkwell window back")
        time.sleep(0.1)
    print("no tray: minimised, the Bonkwell window stayed in the taskbar and came back")


def main():
    args = session_args("xembed", "none")
    home = fresh_home()
    app = App(args.app, home)
    return drive(app, run_no_tray if args.tray == "none" else run_tray, args, app)


if __name__ == "__main__":
    sys.exit(main())

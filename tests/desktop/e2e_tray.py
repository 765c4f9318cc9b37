#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The tray item end to end, in a real X session: run inside session.sh.

  e2e_tray.py --app BIN --tray xembed|sni|none --shots DIR

xembed/sni: the icon appears; a left click shows the panel; a right click (or the D-Bus
host's menu) opens Settings and Calibration, found by their titles; toggling listening in
the panel reaches the stored settings after the next save; "Quit Bonkwell" ends the app.
none: with no tray host the panel appears as a window titled "Bonkwell" within 3 s, and
closing it ends the app.
late: no tray host at first, so the window; then a D-Bus tray host comes up: the icon appears,
the window goes, and the app goes on from its icon.
Every window carries the app's icon (_NET_WM_ICON).
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from desktop_driver import (App, Failure, StatusNotifierItem, click, click_centre, drive,  # noqa: E402
                            geometry, keys, screenshot, wait_window, find_windows, run,
                            window_property)


def panel_widgets(app, pattern_timeout=10):
    """Waits for the panel and returns {name: (x, y, w, h)} of its named controls; fails
    unless the panel also said it has the keyboard ("panel active"). The panel's own
    rectangle is under the name "panel"."""
    shown = app.wait_event(r"panel shown at (.*)", pattern_timeout)
    widgets = {"panel": geometry(shown.group(1))}
    active = False
    deadline = time.monotonic() + 3
    while time.monotonic() < deadline:
        try:
            m = app.wait_event(r"panel (?:widget (\S+) at (.*)|active)", 0.5)
        except Failure:
            break
        if m.group(1) is None:
            active = True
        else:
            widgets[m.group(1)] = geometry(m.group(2))
    if "listeningSwitch" not in widgets:
        raise Failure(f"the panel reported no listening switch: {sorted(widgets)}")
    if not active:
        raise Failure("the panel did not get the keyboard (no 'panel active')")
    return widgets


def icon_rect(app):
    """The XEmbed icon's rectangle on screen: the app's small window docked in the tray."""
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        for wid in run("xdotool", "search", "--pid", str(app.pid), check=False).split():
            info = run("xwininfo", "-id", wid, check=False)
            if "IsViewable" not in info:
                continue
            values = {}
            for line in info.splitlines():
                line = line.strip()
                for key in ("Absolute upper-left X:", "Absolute upper-left Y:", "Width:", "Height:"):
                    if line.startswith(key):
                        values[key] = int(line.split(":")[1])
            if len(values) == 4 and values["Width:"] <= 64 and values["Height:"] <= 64:
                return (values["Absolute upper-left X:"], values["Absolute upper-left Y:"],
                        values["Width:"], values["Height:"])
        time.sleep(0.2)
    raise Failure("the tray icon window did not appear")


def expect_window_icon(title):
    wid = wait_window(title)[0]
    icon = window_property(wid, "_NET_WM_ICON")
    if "not found" in icon or "Icon (" not in icon:
        raise Failure(f"the window {title!r} has no icon: {icon.strip()[:200]}")


PIXBUF_CHECK = """
import sys, gi
gi.require_version("GdkPixbuf", "2.0")
from gi.repository import GdkPixbuf
pixbuf = GdkPixbuf.Pixbuf.new_from_file_at_size(sys.argv[1], 16, 16)
print(f"{pixbuf.get_width()}x{pixbuf.get_height()}")
"""


def tray_lightness(icon):
    """The lightness (0 to 1) of the tray just inside the icon's corner, on a screenshot."""
    x, y, _, _ = icon
    out = run("import", "-window", "root", "-crop", f"1x1+{x + 1}+{y + 1}", "-format",
              "%[fx:lightness]", "info:", timeout=30)
    return float(out.strip())


def expect_new_icon_on_colour_change(item):
    """KDE's colour scheme signal makes the item announce its icon again (NewIcon), so the
    panel draws the symbolic icon in its new colour."""
    monitor = subprocess.Popen(["dbus-monitor", "--session",
                                f"type='signal',sender='{item.service}',member='NewIcon'"],
                               stdout=subprocess.PIPE, text=True)
    try:
        time.sleep(0.5)  # the monitor's match rule is in place
        run("gdbus", "emit", "--session", "--object-path", "/KGlobalSettings", "--signal",
            "org.kde.KGlobalSettings.notifyChange", "0", "0")
        time.sleep(1)
    finally:
        monitor.terminate()
    if "member=NewIcon" not in monitor.communicate(timeout=10)[0]:
        raise Failure("the tray item did not announce a new icon after a colour scheme change")
    print("a colour scheme change makes the item announce its icon again")


def check_icon_variant(app, item, icon=None):
    """The icon says which variant it shows; a D-Bus host also gets the symbolic icon's name."""
    m = app.wait_event(r"tray icon theme (light|dark)", 5)
    print(f"tray icon variant: {m.group(1)}")
    if icon is not None:
        # XEmbed: once placed, the icon takes the variant for the tray behind it.
        expected = "dark" if tray_lightness(icon) < 0.5 else "light"
        if m.group(1) != expected:
            app.wait_event(rf"tray icon theme {expected}", 5)
        print(f"the XEmbed icon shows the variant for the {expected} tray behind it")
    if item is not None:
        out = run("gdbus", "call", "--session", "--dest", item.service, "--object-path",
                  item.path, "--method", "org.freedesktop.DBus.Properties.Get",
                  "org.kde.StatusNotifierItem", "IconName")
        if "com.bonkwell.Bonkwell-symbolic" not in out:
            raise Failure(f"the tray item names no symbolic icon: {out.strip()}")
        print("the D-Bus tray item names com.bonkwell.Bonkwell-symbolic")
        # Run from the build tree, the item tells the host where that icon is.
        out = run("gdbus", "call", "--session", "--dest", item.service, "--object-path",
                  item.path, "--method", "org.freedesktop.DBus.Properties.Get",
                  "org.kde.StatusNotifierItem", "IconThemePath")
        m = re.search(r"'([^']+)'", out)
        svg = "hicolor/symbolic/apps/com.bonkwell.Bonkwell-symbolic.svg"
        if not m or not os.path.exists(os.path.join(m.group(1), svg)):
            raise Failure(f"the tray item's icon theme path has no {svg}: {out.strip()}")
        # GTK panels (GNOME's extension, XFCE) load it through gdk-pixbuf, which must
        # recognise it as an SVG.
        loaded = run("/usr/bin/python3", "-c", PIXBUF_CHECK, os.path.join(m.group(1), svg),
                     check=False)
        if loaded.strip() != "16x16":
            raise Failure(f"gdk-pixbuf cannot load the symbolic icon: {loaded.strip()!r}")
        print("the symbolic icon loads as a GTK panel loads it")
        expect_new_icon_on_colour_change(item)


def run_tray(args, app):
    host = {"xembed": "XEmbed", "xembed-dark": "XEmbed", "sni": "StatusNotifierItem"}[args.tray]
    app.wait_event(rf"tray icon shown \({host}\)", 20)
    elapsed_ms = (time.monotonic() - app.started) * 1000
    print(f"tray icon shown {elapsed_ms:.0f} ms after start ({host})")
    drive_tray(args, app)


def drive_tray(args, app):

    if args.tray.startswith("xembed"):
        # The tray lays its icons out after embedding them: wait until ours stays put.
        icon, previous = icon_rect(app), None
        deadline = time.monotonic() + 5
        while icon != previous and time.monotonic() < deadline:
            time.sleep(0.3)
            previous, icon = icon, icon_rect(app)
        left_click = lambda: click_centre(icon, 1)  # noqa: E731
        item = None
    else:
        icon = None
        item = StatusNotifierItem(os.environ["BONKWELL_SNI_LOG"])
        left_click = lambda: item.call("Activate", 640, 12)  # noqa: E731
    check_icon_variant(app, item, icon)
    skipped = [line for line in app.log if "Skipped method" in line or "Unregistered" in line]
    if skipped:
        raise Failure(f"the app's D-Bus interfaces lack methods: {skipped}")

    # The panel opens on a left click and takes the keyboard.
    left_click()
    widgets = panel_widgets(app)
    if item is not None:
        # Opened where the host said the click was (640, 12): centred below that point.
        x, y, w, _ = widgets["panel"]
        if abs(x + w // 2 - 640) > 2 or y != 12:
            raise Failure(f"the panel opened at {widgets['panel']}, not at the click (640, 12)")
        print("the panel opened at the position the tray host passed with Activate")
    time.sleep(0.3)
    screenshot(os.path.join(args.shots, f"tray-{args.tray}-panel.png"))
    if find_windows("Bonkwell Settings"):
        raise Failure("Settings opened by a left click")

    # Listening off, then another setting so that the next save carries it.
    before = app.snapshot() if os.path.exists(os.path.join(app.config, "Bonkwell",
                                                            "BonkwellState.v1")) else None
    click_centre(widgets["listeningSwitch"])
    time.sleep(0.3)
    if "segment1" in widgets:
        click_centre(widgets["segment1"])  # mode: Escalation
    else:
        raise Failure(f"no mode segments among {sorted(widgets)}")
    time.sleep(0.5)
    stored = app.snapshot()
    if stored.get("listeningEnabled") is not False:
        raise Failure(f"listening switched off but the stored settings say {stored} (before: {before})")
    print("listening switch reached the stored settings")

    # Close the panel (Escape), then open Settings and Calibration from the context menu.
    keys("Escape")
    app.wait_event(r"panel hidden by escape", 5)
    if item is None:
        # Again, and a click elsewhere closes it.
        time.sleep(0.3)
        left_click()
        app.wait_event(r"panel shown at .*", 5)
        time.sleep(0.3)
        click(300, 500)
        app.wait_event(r"panel hidden by focus-lost", 5)
        print("the panel closed on Escape and on a click elsewhere")
    for label, title in (("Settings\u2026", "Bonkwell Settings"),
                         ("Calibration\u2026", "Bonkwell Calibration")):
        if item is None:
            click_centre(icon, 3)
            menu = geometry(app.wait_event(r"menu shown at (.*)", 5).group(1))
            expect_menu_at_icon(menu, icon)
            time.sleep(0.3)
            steps = {"Settings\u2026": ["Down", "Down"], "Calibration\u2026": ["Down", "Down", "Down"]}[label]
            keys(*steps, "Return")
        elif label == "Settings\u2026":
            item.click_menu(label)
        else:
            # As libdbusmenu (XFCE's tray) sends a click: in a group of events.
            item_id = next(i for i, text in item.menu_items() if text == label)
            run("gdbus", "call", "--session", "--dest", item.service, "--object-path",
                item.menu_path(), "--method", "com.canonical.dbusmenu.EventGroup",
                f"[({item_id}, 'clicked', <0>, uint32 0)]")
        app.wait_event(rf"window shown {title}", 10)
        wait_window(title)
        expect_window_icon(title)
        state = window_property(find_windows(title)[0], "_NET_WM_STATE")
        if "_NET_WM_STATE_SKIP_TASKBAR" not in state:
            raise Failure(f"{title} shows in the taskbar: {state.strip()}")
        time.sleep(0.3)
        screenshot(os.path.join(args.shots, f"tray-{args.tray}-{title.split()[-1].lower()}.png"))
    print("Settings and Calibration opened from the menu; neither is in the taskbar")

    # Quit from the menu.
    if item is None:
        click_centre(icon, 3)
        app.wait_event(r"menu shown at .*", 5)
        time.sleep(0.3)
        keys("Up", "Return")
    else:
        item.click_menu("Quit Bonkwell")
    code = app.wait_exit(15)
    if code != 0:
        raise Failure(f"the app exited with {code}")
    print("quit from the menu")


def expect_menu_at_icon(menu, icon):
    """The menu opens touching the icon (its corner or edge within a few pixels of it)."""
    mx, my, mw, mh = menu
    ix, iy, iw, ih = icon
    gap_x = max(ix - (mx + mw), mx - (ix + iw), 0)
    gap_y = max(iy - (my + mh), my - (iy + ih), 0)
    if gap_x > 8 or gap_y > 8:
        raise Failure(f"the menu opened at {menu}, away from the icon at {icon}")


def run_no_tray(args, app):
    app.wait_event(r"window shown Bonkwell", 10)
    elapsed = time.monotonic() - app.started
    print(f"no tray: the Bonkwell window was shown {elapsed:.1f} s after start")
    if elapsed > 3.0:
        raise Failure(f"the Bonkwell window took {elapsed:.1f} s (more than 3 s) to appear")
    wid = wait_window("Bonkwell")[0]
    expect_window_icon("Bonkwell")
    time.sleep(0.3)
    screenshot(os.path.join(args.shots, "no-tray-window.png"))
    if "IsViewable" not in run("xwininfo", "-id", wid):
        raise Failure("the fallback window is not on screen")
    run("wmctrl", "-c", "Bonkwell")
    code = app.wait_exit(15)
    if code != 0:
        raise Failure(f"the app exited with {code} after its window closed")
    print("no tray: the Bonkwell window appeared and closing it quit the app")


def run_late_tray(args, app):
    app.wait_event(r"window shown Bonkwell", 10)
    wait_window("Bonkwell")
    # Now a D-Bus tray host comes up, as an autostarted panel that lost the race would.
    scratch = tempfile.mkdtemp(prefix="late-sni.", dir=os.environ.get("BONKWELL_SESSION_DIR"))
    ready, log = os.path.join(scratch, "ready"), os.path.join(scratch, "sni.log")
    host = subprocess.Popen(["/usr/bin/python3", os.path.join(os.path.dirname(
        os.path.abspath(__file__)), "sni_host.py"), "--ready", ready, "--log", log])
    try:
        app.wait_event(r"tray icon shown \(StatusNotifierItem\)", 10)
        app.wait_event(r"window hidden Bonkwell", 5)
        deadline = time.monotonic() + 5
        while find_windows("Bonkwell") and time.monotonic() < deadline:
            time.sleep(0.1)
        if find_windows("Bonkwell"):
            raise Failure("the Bonkwell window stayed after the tray came")
        print("a tray host came later: the icon appeared and the window went")
        item = StatusNotifierItem(log)
        item.call("Activate", 640, 12)
        app.wait_event(r"panel shown at .*", 5)
        screenshot(os.path.join(args.shots, "tray-late-panel.png"))
        keys("Escape")
        app.wait_event(r"panel hidden by escape", 5)
        item.click_menu("Quit Bonkwell")
        code = app.wait_exit(15)
        if code != 0:
            raise Failure(f"the app exited with {code}")
        print("the panel opens from the late icon; quit from its menu")
    finally:
        host.terminate()
        host.wait(timeout=10)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--tray", required=True,
                        choices=["xembed", "xembed-dark", "sni", "none", "late"])
    parser.add_argument("--shots", required=True)
    args = parser.parse_args()
    home = tempfile.mkdtemp(prefix="bonkwell-home.", dir=os.environ.get("BONKWELL_SESSION_DIR"))
    app = App(args.app, home)
    steps = {"none": run_no_tray, "late": run_late_tray}.get(args.tray, run_tray)
    return drive(app, steps, args, app)


if __name__ == "__main__":
    sys.exit(main())

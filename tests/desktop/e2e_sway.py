#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The app as a Wayland client on sway, driven like a person would: run inside shells/sway.sh.

  e2e_sway.py --app BIN

With waybar (BONKWELL_BAR=waybar), each check passed or failed in a table at the end: the
icon appears in waybar's tray and stands out from the bar (3:1); a click on it opens the
panel as a compact floating window (never tiled, not stretched) with the keyboard; Escape, a
click elsewhere and a second click on the icon close it; the secondary texts read (4.5:1); a
right click opens the bar's menu at the icon, whose entries open Settings and Calibration;
"Quit Bonkwell" ends the app with status 0.
Without a bar: the Bonkwell window is on screen within 3 s of the start, and closing it ends
the app with status 0.
Clicks go through sway's seat cursor (a virtual pointer gives the headless seat a pointer),
keys through wtype, screenshots through grim into BONKWELL_SHOTS.
"""
import argparse
import json
import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from checks import (Checks, Image, ShellLogs, changed_columns, pad, changed_rect,  # noqa: E402
                    dominant_colour, fmt_rect, icon_contrast, opens_at, text_contrast, text_rows,
                    wait_event, wait_for, skip_events)
from desktop_driver import App, Failure, geometry, run  # noqa: E402
from e2e_shell_x11 import CAPTIONS, SECONDARY_TEXTS  # noqa: E402

# Where the pointer rests while the screen is compared: the bottom left corner.
REST = (2, 797)


def swaymsg(*args):
    return run("swaymsg", *args)


def move(x, y):
    swaymsg("seat", "-", "cursor", "set", str(x), str(y))


def click(x, y, button=1):
    move(x, y)
    time.sleep(0.15)
    swaymsg("seat", "-", "cursor", "press", f"button{button}")
    swaymsg("seat", "-", "cursor", "release", f"button{button}")


def click_centre(rect, button=1):
    x, y, w, h = rect
    click(x + w // 2, y + h // 2, button)


def keys(*names):
    args = []
    for name in names:
        args += ["-k", name]
    run("wtype", *args)


def tree():
    return json.loads(swaymsg("-t", "get_tree", "--raw"))


def windows(pid):
    """The app's windows that sway shows: [(node, floating)]."""
    found = []

    def walk(node, floating):
        if node.get("pid") == pid and node.get("visible"):
            found.append((node, floating))
        for child in node.get("nodes", []):
            walk(child, floating)
        for child in node.get("floating_nodes", []):
            walk(child, True)

    walk(tree(), False)
    return found


def content_rect(node):
    """The window's own area on screen, inside sway's border."""
    r, w = node["rect"], node["window_rect"]
    return (r["x"] + w["x"], r["y"] + w["y"], w["width"], w["height"])


def bar_strip():
    workspaces = json.loads(swaymsg("-t", "get_workspaces", "--raw"))
    focused = [w for w in workspaces if w.get("focused")] or workspaces
    r = focused[0]["rect"]
    if r["y"] <= 0:
        raise Failure(f"the bar reserves no space at the top (workspace at {r})")
    return (0, 0, 1280, r["y"])


class Session:
    def __init__(self):
        self.desktop = f"sway-{os.environ.get('BONKWELL_BAR', 'waybar')}"
        self.logs = ShellLogs(os.environ["BONKWELL_SHELL_LOGS"])
        self.checks = Checks(self.desktop)
        self.shots = os.environ["BONKWELL_SHOTS"]

    def shot(self, name):
        path = os.path.join(self.shots, f"{self.desktop}-{name}.png")
        run("grim", path, timeout=30)
        return path


def find_icon(session, strip, before):
    """waybar draws the icon itself: what changed in the bar since the app started, once it
    stops changing, on a spot that was bare bar before."""

    def bare_before(rect):
        pixels = before.pixels(rect)
        common = dominant_colour(pixels)
        return sum(1 for p in pixels if p == common) >= 0.9 * len(pixels)

    def settled():
        first = Image.load(session.shot("icon-probe"))
        time.sleep(0.4)
        second = Image.load(session.shot("icon-probe"))
        if changed_columns(first, second, strip):
            return None
        runs = [r for r in changed_columns(before, second, strip)
                if 6 <= r[2] <= 2 * strip[3] and r[3] >= 6 and bare_before(r)]
        return (runs, second) if runs else None

    runs, after = wait_for(settled, 15, "the icon drawn in the bar", session.logs, interval=0.2)
    os.remove(os.path.join(session.shots, f"{session.desktop}-icon-probe.png"))
    if len(runs) > 1:
        raise Failure("more than one new item in the bar: " + ", ".join(fmt_rect(r) for r in runs))
    return pad(runs[0], 2, strip), after


class Found(tuple):
    def describe(self):
        return f"icon at {fmt_rect(self[0])}"


def panel_window(app):
    """The panel's window: sway's node of the app that is not Settings or Calibration."""
    nodes = [(n, f) for n, f in windows(app.pid)
             if not (n.get("name") or "").startswith("Bonkwell ")]
    return nodes[0] if nodes else None


def open_panel(session, app, icon):
    if panel_window(app) is not None:
        # Left open by a check that failed: close it first so this one starts afresh.
        keys("Escape")
        wait_for(lambda: panel_window(app) is None, 5, "the panel left open to close", session.logs)
        time.sleep(0.4)  # a click right after the panel closed counts as that same close
    skip_events(app)
    time.sleep(0.5)  # not the same click as whatever closed it last
    click_centre(icon, 1)
    m = wait_event(app, r"panel shown at (.*)", 10, session.logs)
    app.panel_shown = app.last_event
    reported = geometry(m.group(1))
    node, floating = wait_for(lambda: panel_window(app), 5, "the panel's window in sway's tree",
                              session.logs)
    move(*REST)
    return reported, node, floating


def closed(session, app, reason):
    wait_event(app, r"panel hidden", 5, session.logs)
    try:
        said = wait_event(app, r"panel hidden by (\S+)", 2).group(1)
    except Failure:
        said = "(no reason given)"
    if said != reason:
        raise Failure(f"the panel closed, but by {said}, not by {reason}")
    wait_for(lambda: panel_window(app) is None, 5, "the panel's window to go", session.logs)
    return f"hidden by {said}"


def run_bar(session, app, strip, before):
    checks = session.checks

    def icon_appears():
        wait_event(app, r"tray icon shown \(StatusNotifierItem\)", 30, session.logs)
        return Found(find_icon(session, strip, before))

    found = checks.run("icon appears", icon_appears)
    if not found:
        for name in ("icon contrast", "panel opens on click", "panel floats, compact",
                     "panel focused", "secondary texts", "closes on Escape",
                     "closes on click outside", "closes on icon click", "menu at icon",
                     "menu opens Settings", "menu opens Calibration", "quit"):
            checks.skip(name, "no icon")
        return
    icon, image = found
    session.shot("icon")
    checks.run("icon contrast", icon_contrast, image, icon)

    opened = checks.run("panel opens on click", lambda: open_panel(session, app, icon))
    if opened:
        reported, node, floating = opened

        def floats():
            rect = content_rect(node)
            problems = []
            if not floating:
                problems.append("tiled")
            if rect[2] > reported[2] + 4 or rect[3] > reported[3] + 4 or rect[2] > 480 or rect[3] > 760:
                problems.append(f"stretched to {fmt_rect(rect)} (panel {reported[2]}x{reported[3]})")
            if problems:
                raise Failure(", ".join(problems))
            return f"floating at {fmt_rect(rect)}"

        checks.run("panel floats, compact", floats)
        widgets = {}
        deadline = time.monotonic() + 3
        while time.monotonic() < deadline and not all(
                k in widgets for k in SECONDARY_TEXTS + tuple(CAPTIONS)):
            try:
                m = wait_event(app, r"panel widget (\S+) at (.*)", 0.5)
                widgets[m.group(1)] = geometry(m.group(2))
            except Failure:
                pass

        def focused():
            wait_event(app, r"panel active", 5, session.logs, since=app.panel_shown)
            now = panel_window(app)
            if not now or not now[0].get("focused"):
                raise Failure("sway does not give the panel's window the keyboard focus")
            return "panel active, focused in sway"

        checks.run("panel focused", focused)
        time.sleep(0.3)
        shot = Image.load(session.shot("panel"))
        # Qt places widgets relative to where it thinks the window is; sway knows where it is.
        origin = content_rect(node)
        dx, dy = origin[0] - reported[0], origin[1] - reported[1]
        placed = {k: (x + dx, y + dy, w, h) for k, (x, y, w, h) in widgets.items()}
        checks.run("secondary texts", secondary_texts, shot, placed)
        keys("Escape")
        checks.run("closes on Escape", closed, session, app, "escape")
    else:
        for name in ("panel floats, compact", "panel focused", "secondary texts",
                     "closes on Escape"):
            checks.skip(name, "the panel did not open")

    def by_click_outside():
        reported, node, _ = open_panel(session, app, icon)
        time.sleep(0.3)
        x, y, w, h = content_rect(node)
        click(40 if x > 300 else 1200, 600)
        move(*REST)
        return closed(session, app, "focus-lost")

    def by_icon_click():
        open_panel(session, app, icon)
        time.sleep(0.3)
        click_centre(icon, 1)
        move(*REST)
        return closed(session, app, "icon-click")

    checks.run("closes on click outside", by_click_outside)
    time.sleep(0.3)
    checks.run("closes on icon click", by_icon_click)
    for label, title in (("Settings", "Bonkwell Settings"), ("Calibration", "Bonkwell Calibration")):
        checks.run(f"menu opens {label}", menu_entry, session, app, icon, f"{label}\u2026", title,
                   "menu at icon" if label == "Settings" else None)
    checks.run("quit", quit_from_menu, session, app, icon)


def secondary_texts(shot, widgets):
    measures = []
    for name in SECONDARY_TEXTS:
        if name not in widgets:
            raise Failure(f"the panel reported no {name}: {sorted(widgets)}")
        measures.append(text_contrast(shot, widgets[name], name))
    for value, caption in CAPTIONS.items():
        if value not in widgets:
            raise Failure(f"the panel reported no {value}")
        x, y, w, _ = widgets[value]
        measures.append(text_contrast(shot, (x, y - 15, w, 15), f"\"{caption}\" caption"))
    return measures


MENU = ("Open Bonkwell", "Settings\u2026", "Calibration\u2026", "Quit Bonkwell")


def open_menu(session, icon):
    """Right-clicks the icon; returns where the bar's menu is drawn (what changed on screen
    below the bar) and the screenshot with it."""
    move(*centre_of(icon))
    time.sleep(0.2)
    before = Image.load(session.shot("menu-probe"))
    click_centre(icon, 3)
    below = icon[1] + icon[3] + 2

    def drawn():
        time.sleep(0.2)
        after = Image.load(session.shot("menu-probe"))
        rect = changed_rect(before, after, (0, below, 1280, 800 - below))
        return (rect, after) if rect and rect[2] >= 60 and rect[3] >= 40 else None

    found = wait_for(drawn, 5, "the bar's menu after a right click on the icon", session.logs)
    os.remove(os.path.join(session.shots, f"{session.desktop}-menu-probe.png"))
    return found


def click_menu_entry(session, icon, label, place_check=None):
    """Opens the menu and clicks `label`: the menu's lines of text are its entries, in order
    (the bar's menu takes no keys: the bar never has the keyboard)."""
    menu, shot = open_menu(session, icon)
    if place_check:
        session.shot("menu")
        reason = opens_at(menu, icon)
        session.checks.record(place_check, reason is None, reason or f"menu at {fmt_rect(menu)}")
    # The menu may reach up into the bar: read it from the top of the screen, left of the icon.
    right = min(menu[0] + menu[2], icon[0])
    rows = text_rows(shot, (menu[0], 0, right - menu[0], menu[1] + menu[3]))
    if len(rows) != len(MENU):
        raise Failure(f"the menu at {fmt_rect(menu)} shows {len(rows)} lines, not the "
                      f"{len(MENU)} entries {MENU}")
    top, bottom = rows[MENU.index(label)]
    click(menu[0] + min(60, menu[2] // 2), (top + bottom) // 2)
    move(*REST)


def centre_of(rect):
    x, y, w, h = rect
    return (x + w // 2, y + h // 2)


def menu_entry(session, app, icon, label, title, place_check):
    click_menu_entry(session, icon, label, place_check)
    wait_event(app, rf"window shown {title}", 10, session.logs)
    wait_for(lambda: [n for n, _ in windows(app.pid) if n.get("name") == title], 10,
             f"a window titled {title!r} in sway's tree", session.logs)
    time.sleep(0.4)
    session.shot(title.split()[-1].lower())
    swaymsg(f'[pid={app.pid} title="^{title}$"]', "kill")
    wait_for(lambda: not [n for n, _ in windows(app.pid) if n.get("name") == title], 10,
             f"{title} to close", session.logs)
    return f"{title} opened"


def quit_from_menu(session, app, icon):
    click_menu_entry(session, icon, "Quit Bonkwell")
    code = app.wait_exit(15)
    if code != 0:
        raise Failure(f"the app exited with {code}")
    return "exit status 0"


def run_no_bar(session, app):
    checks = session.checks
    try:
        wait_event(app, r"window shown Bonkwell", 45)
        came = time.monotonic() - app.started
    except Failure:
        came = None
    node = None
    if came is not None:
        found = wait_for(lambda: [n for n, _ in windows(app.pid) if n.get("name") == "Bonkwell"],
                         3, "the Bonkwell window in sway's tree", session.logs)
        node = found[0]
    where = f" at {fmt_rect(content_rect(node))}" if node else ""
    checks.record("window within 3 s", came is not None and came <= 3.0,
                  f"the Bonkwell window came after {came:.1f} s{where}" if came is not None
                  else "no Bonkwell window within 45 s")
    if node is None:
        checks.skip("closing the window quits", "no window")
        return
    time.sleep(0.4)
    session.shot("window")

    def closing_quits():
        swaymsg(f'[pid={app.pid} title="^Bonkwell$"]', "kill")
        code = app.wait_exit(15)
        if code != 0:
            raise Failure(f"the app exited with {code} after its window closed")
        return "exit status 0"

    checks.run("closing the window quits", closing_quits)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    args = parser.parse_args()
    session = Session()
    bar = os.environ.get("BONKWELL_BAR", "waybar")
    move(*REST)
    strip = bar_strip() if bar != "none" else None
    time.sleep(0.2)
    before = Image.load(session.shot("desktop"))
    home = tempfile.mkdtemp(prefix="bonkwell-home.", dir=os.environ.get("BONKWELL_SESSION_DIR"))
    app = App(args.app, home, extra_env={"QT_QPA_PLATFORM": "wayland",
                                         "XDG_CONFIG_HOME": os.environ["XDG_CONFIG_HOME"],
                                         "XDG_DATA_HOME": os.environ["XDG_DATA_HOME"]})
    try:
        if strip:
            run_bar(session, app, strip, before)
        else:
            run_no_bar(session, app)
        session.checks.finish()
    except Failure as failure:
        print(f"FAILED: {failure}", file=sys.stderr)
        print("app log:\n" + "\n".join(app.log[-40:]), file=sys.stderr)
        print("shell log:\n" + session.logs.tail(), file=sys.stderr)
        return 1
    finally:
        app.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())

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
On a HiDPI output (BONKWELL_SCALE=2) also: the panel shows whole, its bottom row drawn inside
the window and on screen, and it keeps its logical size when the output goes back to scale 1.
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
from checks import (Image, changed_rect, fmt_rect, icon_contrast, opens_at, skip_events,  # noqa: E402
                    text_contrast, text_rows, wait_event, wait_for)
from desktop_driver import App, Failure, geometry, run  # noqa: E402
from shell_steps import (MENU, ShellSession, find_drawn_icon, hidden_by, menu_windows,  # noqa: E402
                         panel_widgets, quit_from_menu, run_app_checks, secondary_texts, skip_all)

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


class Session(ShellSession):
    def __init__(self):
        # The output's scale: screenshots are taken at 1 (one pixel a logical pixel, where
        # sway and the app say things are) unless a check needs the output's own pixels.
        self.scale = int(os.environ.get("BONKWELL_SCALE", "1"))
        desktop = f"sway-{os.environ.get('BONKWELL_BAR', 'waybar')}"
        if self.scale != 1:
            desktop += f"-scale{self.scale}"
        super().__init__(desktop, os.environ["BONKWELL_SHOTS"], os.environ["BONKWELL_SHELL_LOGS"])
        # The check the next menu records its place under (the first menu opened for an entry).
        self.place_check = None

    def capture(self, path):
        run("grim", "-s", "1", path, timeout=30)

    def full_image(self, name):
        """A screenshot in the output's own pixels (`scale` times the logical size)."""
        path = self.shot_path(name)
        run("grim", "-s", str(self.scale), path, timeout=30)
        return Image.load(path)

    def click_menu_entry(self, app, icon, label):
        click_menu_entry(self, icon, label)

    def has_window(self, app, title):
        return [n for n, _ in windows(app.pid) if n.get("name") == title]

    def close_window(self, app, title):
        swaymsg(f'[pid={app.pid} title="^{title}$"]', "kill")


def only_one(runs):
    if len(runs) > 1:
        raise Failure("more than one new item in the bar: " + ", ".join(fmt_rect(r) for r in runs))
    return runs[0]


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
    said = hidden_by(app, session.logs, (reason,))
    wait_for(lambda: panel_window(app) is None, 5, "the panel's window to go", session.logs)
    return f"hidden by {said}"


def run_bar(session, app, strip, before):
    checks = session.checks

    def icon_appears():
        wait_event(app, r"tray icon shown \(StatusNotifierItem\)", 30, session.logs)
        return find_drawn_icon(session, strip, before, "bar", only_one)

    found = checks.run("icon appears", icon_appears)
    if not found:
        skip_all(checks, ("icon contrast", "panel opens on click", "panel floats, compact",
                          "panel focused", "secondary texts", "closes on Escape",
                          "closes on click outside", "closes on icon click", "menu at icon",
                          "menu opens Settings", "menu opens Calibration", "quit"), "no icon")
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
        widgets = panel_widgets(app)

        def focused():
            wait_event(app, r"panel active", 5, session.logs, since=app.panel_shown)
            now = panel_window(app)
            if not now or not now[0].get("focused"):
                raise Failure("sway does not give the panel's window the keyboard focus")
            return "panel active, focused in sway"

        checks.run("panel focused", focused)
        time.sleep(0.3)
        # Texts are read in the output's own pixels: at scale 2 each logical pixel is four.
        shot = session.full_image("panel")
        placed = scaled(placed_widgets(node, reported, widgets), session.scale)
        if session.scale != 1:
            checks.run(f"whole panel at scale {session.scale}", whole_panel, session, node,
                       reported, widgets, shot)
        checks.run("secondary texts", secondary_texts, shot, placed)
        keys("Escape")
        checks.run("closes on Escape", closed, session, app, "escape")
    else:
        skip_all(checks, ("panel floats, compact", "panel focused", "secondary texts",
                          "closes on Escape"), "the panel did not open")

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
    session.place_check = "menu at icon"
    menu_windows(session, app, icon)
    if session.scale != 1:
        if opened:
            checks.run("same size at scale 1", same_size_at_scale_1, session, app, icon, opened[0])
        else:
            checks.skip("same size at scale 1", "the panel did not open")
    checks.run("quit", quit_from_menu, session, app, icon)


def placed_widgets(node, reported, widgets):
    """The panel's widgets where they are on screen: Qt places them relative to where it
    thinks the window is; sway knows where it is."""
    origin = content_rect(node)
    dx, dy = origin[0] - reported[0], origin[1] - reported[1]
    return {k: (x + dx, y + dy, w, h) for k, (x, y, w, h) in widgets.items()}


def scaled(rects, factor):
    return {k: tuple(v * factor for v in r) for k, r in rects.items()}


def inside(rect, within):
    x, y, w, h = rect
    ax, ay, aw, ah = within
    return ax <= x and ay <= y and x + w <= ax + aw and y + h <= ay + ah


def whole_panel(session, node, reported, widgets, shot):
    """On a HiDPI output the panel keeps its logical size and shows all of it: sway's window
    is as large as the panel, lies on the screen, every widget the panel reports lies inside
    it, and the bottom row (Quit, Settings) is drawn there on the screenshot."""
    window = content_rect(node)
    problems = []
    if (window[2], window[3]) != (reported[2], reported[3]):
        problems.append(f"sway's window is {window[2]}x{window[3]}, the panel {reported[2]}x{reported[3]}")
    if not inside(window, (0, 0, 1280, 800)):
        problems.append(f"the window at {fmt_rect(window)} reaches off the 1280x800 screen")
    outside = [k for k, r in widgets.items() if not inside(r, reported)]
    if outside:
        problems.append("outside the panel: " + ", ".join(f"{k} at {fmt_rect(widgets[k])}" for k in outside))
    if "quitButton" not in widgets:
        problems.append(f"the panel reported no quitButton: {sorted(widgets)}")
    if problems:
        raise Failure("; ".join(problems))
    x, y, w, h = scaled(placed_widgets(node, reported, {"q": widgets["quitButton"]}), session.scale)["q"]
    # Inside the button's frame: its label on its face (the face's shading is row by row, so
    # its most common colour is one of its rows).
    inset = 3 * session.scale
    label = (x + inset, y + inset, w - 2 * inset, h - 2 * inset)
    drawn = text_contrast(shot, label, "the bottom row's Quit button", minimum=3.0)
    if not drawn.ok:
        raise Failure(f"the bottom row is not drawn whole: {drawn}")
    return (f"{reported[2]}x{reported[3]} at {fmt_rect(window)}, Quit at "
            f"{fmt_rect(widgets['quitButton'])} inside it; {drawn}")


def same_size_at_scale_1(session, app, icon, size_at_scale):
    """The output goes back to scale 1 (1280x800, the same logical size) while the app runs;
    the panel opened again has the same logical size as on the HiDPI output."""
    swaymsg("output", "HEADLESS-1", "mode", "1280x800", "scale", "1")
    wait_for(lambda: all(o.get("scale") == 1.0 for o in json.loads(swaymsg("-t", "get_outputs", "--raw"))),
             5, "the output to go to scale 1", session.logs)
    time.sleep(0.5)
    reported, node, _ = open_panel(session, app, icon)
    window = content_rect(node)
    session.shot("panel-scale1")
    keys("Escape")
    closed(session, app, "escape")
    was = (size_at_scale[2], size_at_scale[3])
    if (reported[2], reported[3]) != was or (window[2], window[3]) != was:
        raise Failure(f"at scale 1 the panel is {reported[2]}x{reported[3]} (window "
                      f"{window[2]}x{window[3]}), at scale {session.scale} it was {was[0]}x{was[1]}")
    return f"{was[0]}x{was[1]} at scale {session.scale} and at scale 1"


def open_menu(session, icon):
    """Right-clicks the icon; returns where the bar's menu is drawn (what changed on screen
    below the bar) and the screenshot with it."""
    move(*centre_of(icon))
    time.sleep(0.2)
    before = session.image("menu-probe")
    click_centre(icon, 3)
    below = icon[1] + icon[3] + 2

    def drawn():
        time.sleep(0.2)
        after = session.image("menu-probe")
        rect = changed_rect(before, after, (0, below, 1280, 800 - below))
        return (rect, after) if rect and rect[2] >= 60 and rect[3] >= 40 else None

    found = wait_for(drawn, 5, "the bar's menu after a right click on the icon", session.logs)
    os.remove(os.path.join(session.shots, f"{session.desktop}-menu-probe.png"))
    return found


def click_menu_entry(session, icon, label):
    """Opens the menu and clicks `label`: the menu's lines of text are its entries, in order
    (the bar's menu takes no keys: the bar never has the keyboard)."""
    menu, shot = open_menu(session, icon)
    if session.place_check:
        session.shot("menu")
        reason = opens_at(menu, icon)
        session.checks.record(session.place_check, reason is None, reason or f"menu at {fmt_rect(menu)}")
        session.place_check = None
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
    before = session.image("desktop")
    home = tempfile.mkdtemp(prefix="bonkwell-home.", dir=os.environ.get("BONKWELL_SESSION_DIR"))
    app = App(args.app, home, extra_env={"QT_QPA_PLATFORM": "wayland",
                                         "XDG_CONFIG_HOME": os.environ["XDG_CONFIG_HOME"],
                                         "XDG_DATA_HOME": os.environ["XDG_DATA_HOME"]})
    if strip:
        return run_app_checks(session, app, run_bar, session, app, strip, before)
    return run_app_checks(session, app, run_no_bar, session, app)


if __name__ == "__main__":
    sys.exit(main())

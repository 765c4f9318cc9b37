#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The tray item on a real X11 desktop shell (KDE Plasma, XFCE), driven like a person would:
run inside shells/kde.sh or shells/xfce.sh.

  e2e_shell_x11.py --app BIN --shots DIR

Checks, each passed or failed in a table at the end: the icon appears in the shell's own
tray and stands out from the panel (3:1); a left click on it opens the panel at the icon,
with the keyboard; Escape and a click elsewhere close it; the secondary texts of the panel
read against it (4.5:1); a right click opens the menu at the icon, whose entries open Settings
and Calibration; "Quit Bonkwell" ends the app with status 0.
"""
import argparse
import os
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from checks import (Image, changed_columns, contrast_ratio, fmt_rect, icon_contrast, opens_at,  # noqa: E402
                    pad, skip_events, text_rows, wait_event, wait_for)
from desktop_driver import (App, Failure, click, click_centre, find_windows, geometry,  # noqa: E402
                            keys, run, screenshot)
from e2e_tray import icon_rect as xembed_icon_rect  # noqa: E402
from shell_steps import (MENU, Found, ShellSession, find_drawn_icon, hidden_by,  # noqa: E402
                         menu_windows, panel_widgets, quit_from_menu, run_app_checks,
                         secondary_texts, skip_all)


def panel_strip():
    """The shell's panel: the part of the screen outside the work area (x, y, w, h)."""
    out = run("xprop", "-root", "_NET_WORKAREA")
    if "=" not in out:
        raise Failure(f"the shell set no work area: {out.strip()}")
    values = out.split("=")[-1].split(",")
    x, y, w, h = (int(v) for v in values[:4])
    size = run("xdpyinfo").split("dimensions:")[1].split()[0]
    sw, sh = (int(v) for v in size.split("x"))
    if y > 0:
        return (0, 0, sw, y)
    if y + h < sh:
        return (0, y + h, sw, sh - y - h)
    if x > 0:
        return (0, 0, x, sh)
    if x + w < sw:
        return (x + w, 0, sw - x - w, sh)
    raise Failure(f"no panel reserves screen space (work area {x},{y} {w}x{h})")


def viewable_windows():
    """{id: (x, y, w, h)} of the mapped top-level windows."""
    out = run("xwininfo", "-root", "-children")
    found = {}
    for line in out.splitlines():
        line = line.strip()
        if not line.startswith("0x"):
            continue
        wid = line.split()[0]
        info = run("xwininfo", "-id", wid, check=False)
        if "IsViewable" not in info:
            continue
        values = {}
        for row in info.splitlines():
            row = row.strip()
            for key in ("Absolute upper-left X:", "Absolute upper-left Y:", "Width:", "Height:"):
                if row.startswith(key):
                    values[key] = int(row.split(":")[1])
        if len(values) == 4 and values["Width:"] > 1 and values["Height:"] > 1:
            found[wid] = (values["Absolute upper-left X:"], values["Absolute upper-left Y:"],
                          values["Width:"], values["Height:"])
    return found


class Session(ShellSession):
    def __init__(self, args):
        desktop = f"{os.environ['BONKWELL_SHELL']}-{os.environ['BONKWELL_THEME']}"
        if os.environ.get("BONKWELL_TRAY"):
            desktop += f"-{os.environ['BONKWELL_TRAY']}"
        super().__init__(desktop, args.shots, os.environ["BONKWELL_SHELL_LOGS"])
        self.menus = []  # (menu window, where the app said it showed it or None, why away)

    def capture(self, path):
        screenshot(path)

    def click_menu_entry(self, app, icon, label):
        click_menu_entry(self, app, icon, label)

    def has_window(self, app, title):
        return find_windows(title)

    def close_window(self, app, title):
        run("wmctrl", "-c", title)


def pick_nearest_end(session):
    def pick(runs):
        if len(runs) > 1:
            # Something else came up meanwhile (a task button for a window of the shell's own):
            # the tray sits at the panel's end, the task list before it.
            print("new in the panel: " + ", ".join(fmt_rect(r) for r in runs) +
                  "; taking the one nearest the end", flush=True)
            print(f"(see {session.shot('icon-candidates')})")
        return runs[-1]
    return pick


AFTER_ICON = ("icon contrast", "panel opens on click", "panel at icon", "panel focused",
              "secondary texts", "closes on Escape", "closes on click outside",
              "closes on icon click", "menu at icon", "menu opens Settings",
              "menu opens Calibration", "quit")


def desktop_before(session, strip):
    """The screen before the app starts, once the shell has drawn its panel (more than one
    colour) and the panel holds still between two looks (a task list still laying out, or a
    panel not yet painted, would pass for the icon later)."""
    last = {}

    def still():
        image = session.image("desktop")
        previous, last["image"] = last.get("image"), image
        drawn = len(set(image.pixels(strip))) > 1
        if previous is not None and drawn and not changed_columns(previous, image, strip):
            return image
        return None

    return wait_for(still, 30, "the shell's panel to be drawn and hold still", session.logs,
                    interval=0.5)


def run_checks(session, app, host, before, strip):
    checks = session.checks
    logs = session.logs

    def icon_appears():
        wait_event(app, rf"tray icon shown \({host}\)", 30, logs)
        if host == "XEmbed":
            # The tray docks the icon's window, then lays it out: wait until it sits still
            # inside the panel.
            last = {}

            def placed():
                rect = xembed_icon_rect(app)
                inside = pad(rect, 0, strip) == rect
                still = last.get("rect") == rect
                last["rect"] = rect
                return rect if inside and still else None

            rect = wait_for(placed, 15, "the icon's window to settle in the panel", logs, interval=0.3)
            time.sleep(0.3)
            return Found((rect, session.image("icon")))
        found = find_drawn_icon(session, strip, before, "panel", pick_nearest_end(session))
        session.shot("icon")
        return found

    found = checks.run("icon appears", icon_appears)
    if not found:
        skip_all(checks, AFTER_ICON, "no icon")
        return
    icon, image = found
    print(f"icon at {fmt_rect(icon)}")
    checks.run("icon contrast", icon_contrast, image, icon)

    shown = {}

    def open_panel():
        click_centre(icon, 1)
        m = wait_event(app, r"panel shown at (.*)", 10, logs)
        shown["at"] = app.last_event
        return geometry(m.group(1))

    panel = checks.run("panel opens on click", open_panel)
    if panel:
        checks.run("panel at icon", lambda: _no_reason(opens_at(panel, icon)) or fmt_rect(panel))
        widgets = panel_widgets(app)
        checks.run("panel focused", lambda: wait_event(app, r"panel active", 5, logs, since=shown["at"])
                   and "panel active")
        time.sleep(0.3)
        checks.run("secondary texts", secondary_texts, session.image("panel"), widgets)
        keys("Escape")
        checks.run("closes on Escape", closed, app, logs, "escape", panel)
    else:
        skip_all(checks, ("panel at icon", "panel focused", "secondary texts", "closes on Escape"),
                 "the panel did not open")

    def reopen(pause):
        """Opens the panel afresh with a click on the icon; returns where it is."""
        if not checks.passed("panel opens on click"):
            raise Failure("the panel did not open")
        skip_events(app)
        time.sleep(pause)
        click_centre(icon, 1)
        m = wait_event(app, r"panel shown at (.*)", 10, logs)
        time.sleep(pause - 0.1)
        return geometry(m.group(1))

    def close_by_click_outside():
        rect = reopen(0.4)
        # Somewhere on the desktop, away from the panel and the tray.
        click(40 if rect[0] > 300 else 1200, 500)
        return closed(app, logs, "focus-lost", rect)

    checks.run("closes on click outside", close_by_click_outside)

    def close_by_icon_click():
        rect = reopen(0.5)
        click_centre(icon, 1)
        # A popup that holds the pointer swallows that click: the tray never hears of it, and
        # to the app it is a click elsewhere. Either way it must close and stay closed.
        said = closed(app, logs, ("icon-click", "focus-lost"), rect)
        try:
            wait_event(app, r"panel shown at .*", 1)
        except Failure:
            return said
        raise Failure("the click on the icon closed the panel and opened it again")

    checks.run("closes on icon click", close_by_icon_click)

    checks.run("menu at icon", menu_places, session, app, icon)
    menu_windows(session, app, icon)
    if os.environ["BONKWELL_SHELL"] == "kde":
        checks.run("icon follows theme change", follow_theme, session, icon, image)
    checks.run("quit", quit_from_menu, session, app, icon)


def _no_reason(reason):
    if reason:
        raise Failure(reason)
    return None


def closed(app, logs, reason, rect=None):
    said = hidden_by(app, logs, reason if isinstance(reason, tuple) else (reason,))
    if rect is not None and rect in viewable_windows().values():
        raise Failure(f"the panel said it hid but is still on screen at {fmt_rect(rect)}")
    return f"hidden by {said}"


def open_menu(session, app, icon):
    """Right-clicks the icon; returns the menu window's rectangle (a new top-level window).
    Each menu is noted in `session.menus` with where it was and, when the app drew it (a host
    that asks the item to show its menu), where the app says it showed it."""
    skip_events(app)
    before = viewable_windows()
    click_centre(icon, 3)

    def menu_window():
        new = {w: r for w, r in viewable_windows().items() if w not in before}
        candidates = [r for r in new.values() if r[2] >= 60 and r[3] >= 40]
        return candidates[0] if candidates else None

    try:
        # Plasma, busy reloading its theme on a loaded machine, has taken over 5 s.
        menu = wait_for(menu_window, 15, "a menu window after a right click on the icon", session.logs)
    except Failure:
        print(f"(no menu: see {session.shot(f'menu-missing-{len(session.menus) + 1}')})")
        raise
    try:
        said = geometry(wait_event(app, r"menu shown at (.*)", 0.3).group(1))
    except Failure:
        said = None
    reason = opens_at(menu, icon) or (said and opens_at(said, icon))
    session.menus.append((menu, said, reason))
    if reason:
        session.shot(f"menu-away-{len(session.menus)}")
    return menu


def menu_tally(session):
    """One line on every menu the run opened: how many opened at the icon."""
    away = [reason for _, _, reason in session.menus if reason]
    drawn = sum(1 for _, said, _ in session.menus if said)
    line = (f"{session.desktop}: {len(session.menus) - len(away)} of {len(session.menus)} menus "
            f"opened at the icon ({drawn} drawn by the app)")
    return line + "".join(f"\n  away: {reason}" for reason in away)


KDE_THEMES = {"light": ("default", "BreezeLight"), "dark": ("breeze-dark", "BreezeDark")}


def follow_theme(session, icon, image):
    """Switches the running session to the other Breeze (as System Settings does) and waits
    for the panel to change; the icon must still stand out from it."""
    other = "light" if os.environ["BONKWELL_THEME"] == "dark" else "dark"
    plasma_theme, colours = KDE_THEMES[other]
    env = dict(os.environ, QT_QPA_PLATFORM="offscreen")
    for command in (["plasma-apply-desktoptheme", plasma_theme], ["plasma-apply-colorscheme", colours]):
        result = subprocess.run(command, capture_output=True, text=True, env=env, timeout=30)
        if result.returncode != 0:
            raise Failure(f"{' '.join(command)}: {result.stderr.strip() or result.stdout.strip()}")
    behind = icon_contrast(image, icon).back

    def repainted():
        shot = session.image(f"icon-{other}")
        measure = icon_contrast(shot, icon)
        return measure if contrast_ratio(measure.back, behind) > 1.5 else None

    first = wait_for(repainted, 20, f"the panel to turn {other}", session.logs, interval=0.3)
    # The app may take a moment longer than the panel to draw its new icon.
    deadline = time.monotonic() + 5
    measure = first
    while not measure.ok and time.monotonic() < deadline:
        time.sleep(0.3)
        measure = icon_contrast(session.image(f"icon-{other}"), icon)
    measure.what = f"after switching to {other}: {measure.what}"
    return measure


MENU_OPENS = 6


def menu_places(session, app, icon):
    """Opens the menu several times (a menu that opens away from the icon only now and then
    is still wrong); each must open at the icon."""
    first = len(session.menus)
    for n in range(MENU_OPENS):
        menu = open_menu(session, app, icon)
        time.sleep(0.3)
        if n == 0:
            session.shot("menu")
        keys("Escape")
        wait_for(lambda: menu not in viewable_windows().values(), 5, "the menu to close on Escape",
                 session.logs)
        time.sleep(0.2)
    opened = session.menus[first:]
    far = [reason for _, _, reason in opened if reason]
    if far:
        raise Failure(f"{len(far)} of {MENU_OPENS} menus opened away from the icon: " + "; ".join(far))
    return (f"{MENU_OPENS} of {MENU_OPENS} at the icon: " +
            ", ".join(fmt_rect(m) for m in sorted(set(m for m, _, _ in opened))))


def click_menu_entry(session, app, icon, label):
    """Opens the menu and clicks `label` with the pointer: the menu's lines of text are its
    entries, in order."""
    menu = open_menu(session, app, icon)
    time.sleep(0.4)
    path = session.shot("menu-probe")
    rows = text_rows(Image.load(path), menu)
    os.remove(path)
    if len(rows) != len(MENU):
        raise Failure(f"the menu at {fmt_rect(menu)} shows {len(rows)} lines, not the "
                      f"{len(MENU)} entries {MENU}")
    top, bottom = rows[MENU.index(label)]
    click(menu[0] + min(70, menu[2] // 3), (top + bottom) // 2)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--shots", required=True)
    args = parser.parse_args()
    os.makedirs(args.shots, exist_ok=True)
    session = Session(args)
    tray = os.environ.get("BONKWELL_TRAY", "sni")
    host = "XEmbed" if tray == "xembed" else "StatusNotifierItem"

    strip = panel_strip()
    print(f"{session.desktop}: panel at {fmt_rect(strip)}")
    before = desktop_before(session, strip)

    home = tempfile.mkdtemp(prefix="bonkwell-home.", dir=os.environ.get("BONKWELL_SESSION_DIR"))
    # The app reads the session's own settings (colours, theme), as it would when a user starts it.
    env = {"XDG_CONFIG_HOME": os.environ["XDG_CONFIG_HOME"],
           "XDG_DATA_HOME": os.environ["XDG_DATA_HOME"]}
    if tray == "xembed":
        env["DBUS_SESSION_BUS_ADDRESS"] = os.environ["BONKWELL_APP_BUS"]
    app = App(args.app, home, extra_env=env)
    status = run_app_checks(session, app, run_checks, session, app, host, before, strip)
    print(menu_tally(session))
    return status


if __name__ == "__main__":
    sys.exit(main())

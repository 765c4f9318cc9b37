# SPDX-License-Identifier: GPL-3.0-or-later
"""Steps the drivers of the real-shell desktop tests share (e2e_shell_x11.py on KDE and XFCE,
e2e_sway.py on sway).

A driver subclasses `ShellSession` with how its shell takes a screenshot, clicks a menu entry
and finds and closes a window; the steps here then read the same on every shell: the icon a
host draws itself, the panel's reported widgets and their texts, the menu entries that open
Settings and Calibration, "Quit Bonkwell", and the run of all checks around the app.
"""
import os
import sys
import time

from checks import (Checks, Image, ShellLogs, changed_columns, dominant_colour, fmt_rect, pad,
                    text_contrast, wait_event, wait_for)
from desktop_driver import Failure, geometry

# The panel's texts that must read against it, and the counters whose captions sit above them.
SECONDARY_TEXTS = ("sensitivityValue", "sensitivityHint", "volumeValue", "engineStatusLabel")
CAPTIONS = {"todayCount": "Today", "totalCount": "Total"}
# The tray menu's entries, top to bottom, as their lines of text show them.
MENU = ("Open Bonkwell", "Settings\u2026", "Calibration\u2026", "Quit Bonkwell")


class ShellSession:
    """One desktop's run: its name, the shell's logs, the table of checks and the screenshots
    (`shots`/DESKTOP-NAME.png)."""

    def __init__(self, desktop, shots, logs_folder):
        self.desktop = desktop
        self.shots = shots
        self.logs = ShellLogs(logs_folder)
        self.checks = Checks(desktop)

    def shot_path(self, name):
        return os.path.join(self.shots, f"{self.desktop}-{name}.png")

    def shot(self, name):
        path = self.shot_path(name)
        self.capture(path)
        return path

    def image(self, name):
        return Image.load(self.shot(name))

    # What each shell does its own way.
    def capture(self, path):
        raise NotImplementedError

    def click_menu_entry(self, app, icon, label):
        raise NotImplementedError

    def has_window(self, app, title):
        raise NotImplementedError

    def close_window(self, app, title):
        raise NotImplementedError


class Found(tuple):
    """(icon rectangle, screenshot) that prints as the rectangle."""

    def describe(self):
        return f"icon at {fmt_rect(self[0])}"


def find_drawn_icon(session, strip, before, where, pick):
    """Where a host that draws the icon itself put it: what changed in `strip` (the panel or
    bar) since the app started, once it stops changing, on a spot that was bare `where` before
    (a clock that ticked meanwhile changed where digits already were). `pick` chooses among
    several new items (or fails). Returns the icon's rectangle, padded a little, and the
    screenshot it was found on."""

    def bare_before(rect):
        # Row by row: the bar's own edge lines (and their smoothing on a scaled output) are
        # rows of another colour, digits are not.
        x, y, w, h = rect
        for row in range(y, y + h):
            pixels = before.pixels((x, row, w, 1))
            common = dominant_colour(pixels)
            near = sum(1 for p in pixels if sum(abs(a - b) for a, b in zip(p, common)) <= 24)
            if near < 0.9 * len(pixels):
                return False
        return True

    def settled():
        first = session.image("icon-probe")
        time.sleep(0.4)
        second = session.image("icon-probe")
        if changed_columns(first, second, strip):
            return None
        runs = [r for r in changed_columns(before, second, strip)
                if 6 <= r[2] <= 2 * strip[3] and r[3] >= 6 and bare_before(r)]
        return (runs, second) if runs else None

    runs, after = wait_for(settled, 15, f"the icon drawn in the {where}", session.logs, interval=0.2)
    os.remove(session.shot_path("icon-probe"))
    return Found((pad(pick(runs), 2, strip), after))


def panel_widgets(app, timeout=3):
    """{name: (x, y, w, h)} of the widgets the panel reports as it opens, once all those the
    checks read have come (or `timeout` seconds have passed)."""
    wanted = SECONDARY_TEXTS + tuple(CAPTIONS) + ("quitButton",)
    widgets = {}
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline and not all(k in widgets for k in wanted):
        try:
            m = wait_event(app, r"panel widget (\S+) at (.*)", 0.5)
            widgets[m.group(1)] = geometry(m.group(2))
        except Failure:
            pass
    return widgets


def secondary_texts(shot, widgets):
    """The secondary texts and the counters' captions against the panel (4.5:1 each)."""
    measures = []
    for name in SECONDARY_TEXTS:
        if name not in widgets:
            raise Failure(f"the panel reported no {name}: {sorted(widgets)}")
        measures.append(text_contrast(shot, widgets[name], name))
    for value, caption in CAPTIONS.items():
        if value not in widgets:
            raise Failure(f"the panel reported no {value}")
        x, y, w, _ = widgets[value]
        # The caption sits right above its counter, one caption line high.
        measures.append(text_contrast(shot, (x, y - 15, w, 15), f"\"{caption}\" caption"))
    return measures


def hidden_by(app, logs, reasons):
    """Waits for the panel to hide and returns the reason it gave, one of `reasons`."""
    wait_event(app, r"panel hidden", 5, logs)
    try:
        said = wait_event(app, r"panel hidden by (\S+)", 2).group(1)
    except Failure:
        said = "(no reason given)"
    if said not in reasons:
        raise Failure(f"the panel closed, but by {said}, not by {' or '.join(reasons)}")
    return said


def skip_all(checks, names, because):
    for name in names:
        checks.skip(name, because)


def menu_entry(session, app, icon, label, title):
    """Clicks the menu's `label` entry; the window `title` must show. Closes it again."""
    session.click_menu_entry(app, icon, f"{label}\u2026")
    wait_event(app, rf"window shown {title}", 10, session.logs)
    wait_for(lambda: session.has_window(app, title), 10, f"a window titled {title!r}", session.logs)
    time.sleep(0.4)
    session.shot(title.split()[-1].lower())
    session.close_window(app, title)
    wait_for(lambda: not session.has_window(app, title), 10, f"{title} to close", session.logs)
    return f"{title} opened"


def menu_windows(session, app, icon):
    """The checks "menu opens Settings" and "menu opens Calibration"."""
    for label, title in (("Settings", "Bonkwell Settings"), ("Calibration", "Bonkwell Calibration")):
        session.checks.run(f"menu opens {label}", menu_entry, session, app, icon, label, title)


def exited_0(app):
    code = app.wait_exit(15)
    if code != 0:
        raise Failure(f"the app exited with {code}")
    return "exit status 0"


def quit_from_menu(session, app, icon):
    session.click_menu_entry(app, icon, "Quit Bonkwell")
    return exited_0(app)


def run_app_checks(session, app, body, *args):
    """Runs `body(*args)`, then prints the table of checks; stops the app whatever happens.
    Returns the process's exit status: 1 when a check failed or a step could not go on."""
    try:
        body(*args)
        session.checks.finish()
    except Failure as failure:
        print(f"FAILED: {failure}", file=sys.stderr)
        print("app log:\n" + "\n".join(app.log[-40:]), file=sys.stderr)
        print("shell log:\n" + session.logs.tail(), file=sys.stderr)
        return 1
    finally:
        app.stop()
    return 0

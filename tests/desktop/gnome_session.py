# SPDX-License-Identifier: GPL-3.0-or-later
"""What every GNOME desktop test shares: the shell with its logs, checks and screenshots, the
app started as a Wayland or an X11 client, the panel's report of itself and its readable texts,
and the run around a test's steps (one line per check, a table at the end, the app's log when
something failed)."""
import argparse
import os
import re
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from checks import Checks, Image, ShellLogs, text_contrast, wait_for  # noqa: E402
from desktop_driver import App, Failure, geometry  # noqa: E402
from gnome_shell import GnomeShell, ShellError  # noqa: E402
from shell_steps import CAPTIONS, SECONDARY_TEXTS  # noqa: E402,F401

# The counters' captions stand in one line of this height right above each counter.
CAPTION_HEIGHT = 15

class Found:
    """A step's result: what later steps use, and one short line for the table."""

    def __init__(self, value, text):
        self.value, self.text = value, text

    def describe(self):
        return self.text


class Gnome:
    """One GNOME desktop test: the shell, its logs, the checks and the screenshots."""

    def __init__(self, args, desktop):
        self.args = args
        self.desktop = desktop
        self.logs = ShellLogs(paths=[os.environ.get("BONKWELL_SHELL_LOG", "")])
        try:
            self.shell = GnomeShell()
        except ShellError as error:
            raise self.logs.failure(f"the shell's test interface does not answer: {error}")
        self.checks = Checks(desktop)
        self.home = tempfile.mkdtemp(prefix="bonkwell-home.",
                                     dir=os.environ.get("BONKWELL_SESSION_DIR"))
        self.app = None

    def start_app(self, client=None):
        client = client or self.args.client
        platform = "wayland" if client == "wayland" else "xcb"
        self.app = App(self.args.app, self.home, {"QT_QPA_PLATFORM": platform})
        return self.app

    def shot(self, name):
        path = os.path.join(self.args.shots, f"{self.desktop}-{name}.png")
        try:
            return self.shell.screenshot(path)
        except ShellError as error:
            raise self.logs.failure(str(error))

    def mark(self):
        """A place in the app's log: `event` finds what came after it."""
        return len(self.app.log)

    def event(self, pattern, timeout=10, since=0):
        """The first of the app's test events after `since` (a `mark`) matching `pattern`:
        (match, its place in the log). The log is kept whole, so an event that came while the
        test looked elsewhere still counts."""
        prefix = "bonkwell-event: "

        def find():
            log = self.app.log
            for i in range(since, len(log)):
                if log[i].startswith(prefix):
                    m = re.fullmatch(pattern, log[i][len(prefix):])
                    if m:
                        return m, i
            if self.app.proc.poll() is not None:
                raise Failure(f"the app ended with status {self.app.proc.returncode} before "
                              f"{pattern!r}")
            return None
        try:
            return wait_for(find, timeout, f"the app's event {pattern!r}", self.logs)
        except Failure as failure:
            raise Failure(f"{failure}\napp log:\n" + "\n".join(self.app.log[-40:]))

    def until(self, what, probe, timeout=10):
        return wait_for(probe, timeout, what, self.logs)

    def rest_pointer(self, away_from=None):
        """Puts the pointer on the empty desktop, away from `away_from` (x, y, w, h)."""
        width, height = self.shell.screen_size()
        x, y = width // 4, height - 100
        if away_from and away_from[0] < width // 2:
            x = width * 3 // 4
        self.shell.move(x, y)
        return (x, y)


# --- the panel ---------------------------------------------------------------------------------

def panel_report(gnome, since, timeout=10):
    """Waits for the panel after `since`; returns (where the app put it, {name: (x, y, w, h)}
    of its named controls, in the app's own coordinates)."""
    m, at = gnome.event(r"panel shown at (.*)", timeout, since)
    where = geometry(m.group(1))
    # The controls follow at once, the Quit button last.
    gnome.event(r"panel widget quitButton at .*", 3, at)
    widgets = {}
    for line in gnome.app.log[at + 1:]:
        found = re.fullmatch(r"bonkwell-event: panel widget (\S+) at (.*)", line)
        if found:
            widgets[found.group(1)] = geometry(found.group(2))
            if found.group(1) == "quitButton":
                break
    return where, widgets


def app_windows(gnome, title=None):
    return [w for w in gnome.shell.windows() if w["pid"] == gnome.app.pid and w["visible"] and
            (title is None or w["title"] == title)]


def panel_window(gnome, exclude=("Bonkwell Settings", "Bonkwell Calibration")):
    """The panel as the compositor shows it: the app's one visible window that is not Settings
    or Calibration."""
    found = [w for w in app_windows(gnome) if w["title"] not in exclude]
    return found[0] if len(found) == 1 else None


def on_screen(rect, where, window):
    """A control's rectangle from the app's coordinates to the screen's: the app reported the
    panel at `where`, the compositor shows it at `window`."""
    x, y, w, h = rect
    return (x - where[0] + window[0], y - where[1] + window[1], w, h)


def measure_texts(gnome, widgets, where, window, shot_path):
    image = Image.load(shot_path)
    missing = [n for n in SECONDARY_TEXTS + tuple(CAPTIONS) if n not in widgets]
    if missing:
        raise Failure(f"the panel reported no {', '.join(missing)} (has {sorted(widgets)})")
    measures = [text_contrast(image, on_screen(widgets[n], where, window), n)
                for n in SECONDARY_TEXTS]
    for counter, caption in CAPTIONS.items():
        x, y, w, _ = on_screen(widgets[counter], where, window)
        measures.append(text_contrast(image, (x, y - CAPTION_HEIGHT, w, CAPTION_HEIGHT),
                                      f'"{caption}" caption'))
    return measures


# --- with the AppIndicator extension ------------------------------------------------------------


def exited_0(gnome):
    code = gnome.app.wait_exit(15)
    if code != 0:
        raise Failure(f"the app exited with status {code}")
    return "exit status 0"



def drive(args, desktop, run):
    """Runs `run(gnome)` on a fresh test of `desktop`; the process status: 0 when every check
    passed."""
    gnome = None
    try:
        gnome = Gnome(args, desktop)
        run(gnome)
        gnome.checks.finish()
    except Failure as failure:
        print(f"FAILED: {failure}", file=sys.stderr)
        if gnome and gnome.app:
            print("app log:\n" + "\n".join(gnome.app.log[-60:]), file=sys.stderr)
        return 1
    finally:
        if gnome and gnome.app:
            gnome.app.stop()
    return 0


def arguments(*extra):
    """The command line every GNOME driver takes (--app, --shots), plus `extra`: (flag, kwargs)."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--shots", required=True)
    for flag, options in extra:
        parser.add_argument(flag, **options)
    return parser.parse_args()

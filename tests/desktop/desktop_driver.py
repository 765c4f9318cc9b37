# SPDX-License-Identifier: GPL-3.0-or-later
"""Drives the app in a desktop session like a person would, for the end-to-end tests.

Starts the app with BONKWELL_TEST_EVENTS set and follows its "bonkwell-event: …" lines on
stderr; clicks with xdotool; talks to a StatusNotifier item over D-Bus; takes screenshots.
"""
import argparse
import json
import os
import queue
import re
import subprocess
import sys
import tempfile
import threading
import time


class Failure(Exception):
    pass


def run(*args, check=True, timeout=20):
    result = subprocess.run(args, capture_output=True, text=True, timeout=timeout)
    if check and result.returncode != 0:
        raise Failure(f"{' '.join(args)} failed: {result.stderr.strip()}")
    return result.stdout


class App:
    """The app under test, started in its own XDG folders."""

    def __init__(self, binary, home, extra_env=None, launcher=None):
        """`launcher`: a command put in front of the app (for example umockdev-run … --); the
        app's own process id is then read from `pid_file` in `home` (see `pid`)."""
        self.home = home
        self.config = os.path.join(home, "config")
        self.data = os.path.join(home, "data")
        os.makedirs(self.config, exist_ok=True)
        os.makedirs(self.data, exist_ok=True)
        env = dict(os.environ)
        env.update({
            "XDG_CONFIG_HOME": self.config,
            "XDG_DATA_HOME": self.data,
            "BONKWELL_TEST_EVENTS": "1",
            "QT_QPA_PLATFORM": "xcb",
        })
        env.update(extra_env or {})
        self.events = queue.Queue()
        self.log = []
        self.pid_file = os.path.join(home, "app.pid")
        command = [binary]
        if launcher:
            # The launcher may fork: a shell in between notes the app's process id, then
            # becomes the app.
            command = list(launcher) + ["/bin/sh", "-c", 'echo $$ > "$0"; exec "$@"',
                                        self.pid_file, binary]
        self.launched = bool(launcher)
        self.proc = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.PIPE, text=True, env=env)
        self.started = time.monotonic()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stderr:
            line = line.rstrip("\n")
            self.log.append(line)
            if line.startswith("bonkwell-event: "):
                self.events.put((time.monotonic(), line[len("bonkwell-event: "):]))

    @property
    def pid(self):
        """The app's own process id (not the launcher's)."""
        if not self.launched:
            return self.proc.pid
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            try:
                with open(self.pid_file) as f:
                    text = f.read().strip()
                if text:
                    return int(text)
            except FileNotFoundError:
                pass
            time.sleep(0.05)
        raise Failure("the launcher never started the app")

    def wait_event(self, pattern, timeout=15):
        """Returns the regex match of the first event matching `pattern`."""
        deadline = time.monotonic() + timeout
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                raise Failure(f"no event matching {pattern!r} within {timeout}s; app log:\n" +
                              "\n".join(self.log[-40:]))
            try:
                _, event = self.events.get(timeout=left)
            except queue.Empty:
                continue
            match = re.fullmatch(pattern, event)
            if match:
                return match

    def snapshot(self):
        path = os.path.join(self.config, "Bonkwell", "BonkwellState.v1")
        with open(path, "rb") as f:
            return json.loads(f.read())

    def wait_exit(self, timeout=15):
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            raise Failure("the app did not exit")

    def stop(self):
        if self.launched and self.proc.poll() is None and os.path.exists(self.pid_file):
            # The launcher need not pass signals on: end the app itself first.
            try:
                os.kill(self.pid, 15)
            except (ProcessLookupError, ValueError):
                pass
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()


def drive(app, steps, *args):
    """Runs `steps(*args)` against `app`; on a failure prints it with the app's last lines.
    Stops the app in every case. Returns the exit code for the test."""
    try:
        steps(*args)
    except Failure as failure:
        print(f"FAILED: {failure}", file=sys.stderr)
        print("app log:\n" + "\n".join(app.log[-60:]), file=sys.stderr)
        return 1
    finally:
        app.stop()
    return 0


def session_args(*trays):
    """The arguments of a test run inside session.sh: --app BIN and --tray, one of `trays`."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--tray", required=True, choices=list(trays))
    return parser.parse_args()


def fresh_home():
    """A new folder for the app's settings and data, inside the session's scratch folder."""
    return tempfile.mkdtemp(prefix="bonkwell-home.", dir=os.environ.get("BONKWELL_SESSION_DIR"))


def geometry(text):
    """'x,y wxh' → (x, y, w, h)"""
    m = re.fullmatch(r"(-?\d+),(-?\d+) (\d+)x(\d+)", text)
    if not m:
        raise Failure(f"bad geometry {text!r}")
    return tuple(int(v) for v in m.groups())


def click(x, y, button=1):
    run("xdotool", "mousemove", str(x), str(y))
    time.sleep(0.15)
    run("xdotool", "click", str(button))


def click_centre(rect, button=1):
    x, y, w, h = rect
    click(x + w // 2, y + h // 2, button)


def keys(*names):
    run("xdotool", "key", *names)


def find_windows(title):
    out = run("xdotool", "search", "--onlyvisible", "--name", f"^{re.escape(title)}$", check=False)
    return [w for w in out.split() if w]


def wait_window(title, timeout=10):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        found = find_windows(title)
        if found:
            return found
        time.sleep(0.1)
    raise Failure(f"no window titled {title!r}")


def window_property(wid, prop):
    return run("xprop", "-id", wid, prop, check=False)


def screenshot(path, window="root"):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    run("import", "-window", window, path, timeout=30)


class StatusNotifierItem:
    """The app's tray item as a D-Bus panel sees it."""

    def __init__(self, log_path, timeout=10):
        deadline = time.monotonic() + timeout
        self.service = None
        while time.monotonic() < deadline and self.service is None:
            with open(log_path) as f:
                for line in f:
                    parts = line.split()
                    if len(parts) == 3 and parts[0] == "item":
                        self.service, self.path = parts[1], parts[2]
            time.sleep(0.1)
        if self.service is None:
            raise Failure("the app registered no StatusNotifier item")

    def call(self, method, *args):
        return run("gdbus", "call", "--session", "--dest", self.service, "--object-path",
                   self.path, "--method", f"org.kde.StatusNotifierItem.{method}", "--",
                   *[str(a) for a in args])

    def menu_path(self):
        out = run("gdbus", "call", "--session", "--dest", self.service, "--object-path", self.path,
                  "--method", "org.freedesktop.DBus.Properties.Get",
                  "org.kde.StatusNotifierItem", "Menu")
        m = re.search(r"objectpath '([^']+)'", out)
        if not m:
            raise Failure(f"no menu path in {out!r}")
        return m.group(1)

    def menu_items(self):
        """[(id, label)] of the exported menu's top level."""
        out = run("gdbus", "call", "--session", "--dest", self.service, "--object-path",
                  self.menu_path(), "--method", "com.canonical.dbusmenu.GetLayout", "--", "0", "1",
                  "[]")
        items = []
        for m in re.finditer(r"\((\d+), \{([^}]*)\}", out):
            label = re.search(r"'label': <'([^']*)'>", m.group(2))
            kind = re.search(r"'type': <'([^']*)'>", m.group(2))
            items.append((int(m.group(1)), label.group(1) if label else
                          ("---" if kind and kind.group(1) == "separator" else "")))
        return [i for i in items if i[0] != 0]

    def click_menu(self, label):
        for item_id, text in self.menu_items():
            if text.replace("_", "") == label:
                run("gdbus", "call", "--session", "--dest", self.service, "--object-path",
                    self.menu_path(), "--method", "com.canonical.dbusmenu.Event", "--",
                    str(item_id), "clicked", "<0>", "0")
                return
        raise Failure(f"no menu item {label!r} in {self.menu_items()}")

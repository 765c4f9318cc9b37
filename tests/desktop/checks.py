# SPDX-License-Identifier: GPL-3.0-or-later
"""Checks shared by the desktop tests on real shells.

- Screenshots: read (any format ImageMagick reads) into an `Image`; colours and contrast are
  measured on it the way WCAG defines them (relative luminance, (L1 + 0.05) / (L2 + 0.05)).
- `icon_contrast`: the tray icon against the panel right behind it.
- `text_contrast`: a text against its own background (secondary texts must reach 4.5:1).
- `changed_rect`: where a screenshot changed, for finding a tray icon a host draws itself.
- `ShellLogs` / `wait_for`: waiting on the shell's state; a failure carries the shell's own
  log lines, so a shell that never came up says why.
- `Checks`: a named list of checks, each passed or failed, printed as a table at the end.
"""
import os
import queue
import re
import subprocess
import time

from desktop_driver import Failure


# --- colours ---------------------------------------------------------------------------------

def _channel(c):
    c = c / 255.0
    return c / 12.92 if c <= 0.04045 else ((c + 0.055) / 1.055) ** 2.4


def luminance(rgb):
    """WCAG relative luminance of an sRGB colour (r, g, b) in 0..255."""
    r, g, b = rgb
    return 0.2126 * _channel(r) + 0.7152 * _channel(g) + 0.0722 * _channel(b)


def contrast_ratio(a, b):
    """WCAG contrast ratio between two colours, 1.0 … 21.0."""
    la, lb = luminance(a), luminance(b)
    hi, lo = max(la, lb), min(la, lb)
    return (hi + 0.05) / (lo + 0.05)


def hex_colour(rgb):
    return "#%02x%02x%02x" % tuple(rgb)


# --- images ----------------------------------------------------------------------------------

class Image:
    """An RGB image, 8 bits a channel, read through ImageMagick."""

    def __init__(self, width, height, data, path=""):
        self.width, self.height, self.data, self.path = width, height, data, path

    @classmethod
    def load(cls, path):
        try:
            out = subprocess.run(["convert", path, "-alpha", "off", "-depth", "8", "ppm:-"],
                                 capture_output=True, timeout=30, check=False)
        except FileNotFoundError:
            raise Failure("ImageMagick's convert is missing (run scripts/install-deps)")
        if out.returncode != 0:
            raise Failure(f"cannot read {path}: {out.stderr.decode(errors='replace').strip()}")
        m = re.match(rb"P6\s+(\d+)\s+(\d+)\s+(\d+)\s", out.stdout)
        if not m or m.group(3) != b"255":
            raise Failure(f"{path}: unexpected image format")
        width, height = int(m.group(1)), int(m.group(2))
        data = out.stdout[m.end():]
        if len(data) < width * height * 3:
            raise Failure(f"{path}: image data cut short")
        return cls(width, height, data, path)

    def pixel(self, x, y):
        i = (y * self.width + x) * 3
        return (self.data[i], self.data[i + 1], self.data[i + 2])

    def clip(self, rect):
        """`rect` (x, y, w, h) clipped to the image; None when nothing is left."""
        x, y, w, h = rect
        x0, y0 = max(0, x), max(0, y)
        x1, y1 = min(self.width, x + w), min(self.height, y + h)
        if x1 <= x0 or y1 <= y0:
            return None
        return (x0, y0, x1 - x0, y1 - y0)

    def pixels(self, rect):
        """Every pixel of `rect` (clipped), row by row."""
        r = self.clip(rect)
        if r is None:
            return []
        x, y, w, h = r
        out = []
        for row in range(y, y + h):
            i = (row * self.width + x) * 3
            line = self.data[i:i + w * 3]
            out.extend(zip(line[0::3], line[1::3], line[2::3]))
        return out

    def ring(self, rect, width):
        """The pixels in a band `width` wide just outside `rect` (those inside the image)."""
        x, y, w, h = rect
        bands = [(x - width, y - width, w + 2 * width, width), (x - width, y + h, w + 2 * width, width),
                 (x - width, y, width, h), (x + w, y, width, h)]
        out = []
        for band in bands:
            out.extend(self.pixels(band))
        return out


def dominant_colour(pixels):
    """The colour most pixels have."""
    if not pixels:
        raise Failure("no pixels to measure")
    counts = {}
    for p in pixels:
        counts[p] = counts.get(p, 0) + 1
    return max(counts.items(), key=lambda kv: kv[1])[0]


def ink(pixels, background, min_pixels):
    """The colour that stands out from `background`: of all pixels, the one at rank
    `min_pixels` by contrast with the background (so at least that many pixels reach it; a stray
    pixel or the edge of antialiasing does not count). Returns (colour, ratio)."""
    if len(pixels) < min_pixels:
        raise Failure(f"only {len(pixels)} pixels to measure, need {min_pixels}")
    bg_lum = luminance(background)
    scored = {}
    for p in set(pixels):
        lum = luminance(p)
        hi, lo = max(lum, bg_lum), min(lum, bg_lum)
        scored[p] = (hi + 0.05) / (lo + 0.05)
    ranked = sorted(pixels, key=lambda p: scored[p], reverse=True)
    colour = ranked[min_pixels - 1]
    return colour, scored[colour]


class Measure:
    """One contrast measurement, printable."""

    def __init__(self, what, fore, back, ratio, minimum):
        self.what, self.fore, self.back, self.ratio, self.minimum = what, fore, back, ratio, minimum

    @property
    def ok(self):
        return self.ratio >= self.minimum

    def __str__(self):
        return (f"{self.what}: {hex_colour(self.fore)} on {hex_colour(self.back)} = "
                f"{self.ratio:.2f}:1 (needs {self.minimum}:1)")


def pad(rect, by, within):
    """`rect` grown by `by` pixels on each side, kept inside `within`."""
    x, y, w, h = rect
    ax, ay, aw, ah = within
    x0, y0 = max(ax, x - by), max(ay, y - by)
    x1, y1 = min(ax + aw, x + w + by), min(ay + ah, y + h + by)
    return (x0, y0, x1 - x0, y1 - y0)


def icon_contrast(image, rect, minimum=3.0, min_pixels=12):
    """The tray icon in `rect` (with a little of what surrounds it) against what is right behind it: the most common colour along
    the rectangle's edge (the panel, or the tray's own box when the host draws one around its
    items); the icon's is the colour that at least `min_pixels` of its pixels reach."""
    x, y, w, h = rect
    edge = (image.pixels((x, y, w, 1)) + image.pixels((x, y + h - 1, w, 1)) +
            image.pixels((x, y + 1, 1, h - 2)) + image.pixels((x + w - 1, y + 1, 1, h - 2)))
    back = dominant_colour(edge)
    fore, ratio = ink(image.pixels(rect), back, min_pixels)
    return Measure(f"icon at {fmt_rect(rect)}", fore, back, ratio, minimum)


def text_contrast(image, rect, what, minimum=4.5, min_pixels=1):
    """A text drawn in `rect` (a label: nothing else is drawn there) against its background
    (the most common colour in `rect`). The text's colour is its most solid pixel's: small
    smoothed text may have hardly any pixel fully in its own colour, so even that is a little
    short of the colour it is drawn in, never beyond it."""
    pixels = image.pixels(rect)
    if not pixels:
        raise Failure(f"{what}: {fmt_rect(rect)} is off the screenshot")
    back = dominant_colour(pixels)
    fore, ratio = ink(pixels, back, min_pixels)
    if fore == back:
        raise Failure(f"{what}: nothing is drawn at {fmt_rect(rect)} (all {hex_colour(back)})")
    return Measure(what, fore, back, ratio, minimum)


def changed_pixels(before, after, area=None, tolerance=24):
    """The pixels (x, y) within `area` (default: all) that differ between two screenshots of
    the same size by more than `tolerance` (the sum over the three channels), row by row."""
    if (before.width, before.height) != (after.width, after.height):
        raise Failure("screenshots of different sizes")
    x, y, w, h = before.clip(area or (0, 0, before.width, before.height))
    for row in range(y, y + h):
        i = (row * before.width + x) * 3
        a, b = before.data[i:i + w * 3], after.data[i:i + w * 3]
        if a == b:
            continue
        for col in range(w):
            j = col * 3
            if (abs(a[j] - b[j]) + abs(a[j + 1] - b[j + 1]) + abs(a[j + 2] - b[j + 2])) > tolerance:
                yield x + col, row


def changed_rect(before, after, area=None, tolerance=24):
    """The bounding box (x, y, w, h) of the pixels that differ between two screenshots of the
    same size, within `area` when given; None when nothing changed."""
    changed = list(changed_pixels(before, after, area, tolerance))
    if not changed:
        return None
    xs = [x for x, _ in changed]
    ys = [y for _, y in changed]
    return (min(xs), min(ys), max(xs) - min(xs) + 1, max(ys) - min(ys) + 1)


def changed_columns(before, after, area, tolerance=24, gap=6):
    """Like `changed_rect`, but split into runs of changed columns at least `gap` pixels apart:
    [(x, y, w, h)] from left to right. Tells a new tray icon from a clock that ticked."""
    cols = {}
    for x, y in changed_pixels(before, after, area, tolerance):
        lo, hi = cols.get(x, (y, y))
        cols[x] = (min(lo, y), max(hi, y))
    runs = []
    for c in sorted(cols):
        lo, hi = cols[c]
        if runs and c - (runs[-1][0] + runs[-1][2]) < gap:
            rx, ry, rw, rh = runs[-1]
            top, bottom = min(ry, lo), max(ry + rh - 1, hi)
            runs[-1] = (rx, top, c - rx + 1, bottom - top + 1)
        else:
            runs.append((c, lo, 1, hi - lo + 1))
    return runs


def fmt_rect(rect):
    x, y, w, h = rect
    return f"{x},{y} {w}x{h}"


def text_rows(image, rect, min_height=5):
    """The lines of text in `rect` (a menu, say), top to bottom, as (top, bottom) rows: runs of
    rows where some but not most pixels stand out from the most common colour (rules, borders
    and whatever lies outside a menu are all one colour across; a frame's sides are left out)."""
    # Leave out a frame's sides: a few columns at either edge.
    r = image.clip((rect[0] + 3, rect[1], rect[2] - 6, rect[3]))
    if r is None:
        return []
    x, y, w, h = r
    back = dominant_colour(image.pixels(r))
    bands, start = [], None
    for row in range(y, y + h + 1):
        inked = 0
        if row < y + h:
            inked = sum(1 for p in image.pixels((x, row, w, 1)) if contrast_ratio(p, back) >= 1.5)
        is_text = 2 <= inked <= 0.6 * w
        if is_text and start is None:
            start = row
        elif not is_text and start is not None:
            if row - start >= min_height:
                bands.append((start, row - 1))
            start = None
    return bands


# --- places ----------------------------------------------------------------------------------

def centre(rect):
    x, y, w, h = rect
    return (x + w // 2, y + h // 2)


def rect_gap(a, b):
    """How many pixels apart two rectangles (x, y, w, h) are (0 when they touch or overlap)."""
    ax, ay, aw, ah = a
    bx, by, bw, bh = b
    dx = max(bx - (ax + aw), ax - (bx + bw), 0)
    dy = max(by - (ay + ah), ay - (by + bh), 0)
    return (dx * dx + dy * dy) ** 0.5


def opens_at(popup, icon, slack=16):
    """None when `popup` (x, y, w, h) opens at `icon`: at most `slack` pixels from it, and
    across the icon's middle column unless the screen edge pushed it aside by less than its own
    width; otherwise why not."""
    gap = rect_gap(popup, icon)
    if gap > slack:
        return f"{fmt_rect(popup)} is {gap:.0f} px from the icon at {fmt_rect(icon)} (at most {slack})"
    cx = centre(icon)[0]
    px, _, pw, _ = popup
    if not (px - pw // 2 <= cx <= px + pw + pw // 2):
        return f"{fmt_rect(popup)} is beside the icon at {fmt_rect(icon)}, not at it"
    return None


# --- the shell's state and logs ---------------------------------------------------------------

class ShellLogs:
    """The log files of a shell session; a failure quotes their last lines."""

    def __init__(self, folder=None, paths=()):
        self.folder = folder
        self.paths = list(paths)

    def files(self):
        found = list(self.paths)
        if self.folder and os.path.isdir(self.folder):
            for name in sorted(os.listdir(self.folder)):
                if name.endswith(".log"):
                    found.append(os.path.join(self.folder, name))
        return found

    def tail(self, lines=25):
        out = []
        for path in self.files():
            try:
                with open(path, errors="replace") as f:
                    text = f.read().splitlines()[-lines:]
            except OSError:
                continue
            if text:
                out.append(f"--- {path}")
                out.extend(text)
        return "\n".join(out) if out else "(the shell wrote no log lines)"

    def failure(self, message):
        return Failure(f"{message}\nshell log:\n{self.tail()}")


def wait_for(predicate, timeout, what, logs=None, interval=0.1):
    """Polls `predicate` until it returns something true and returns that; fails with the
    shell's log lines otherwise."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            message = f"{what} did not happen within {timeout} s"
            raise logs.failure(message) if logs else Failure(message)
        time.sleep(interval)


def _kept(app):
    """The app's events seen so far, kept in order, and how far the tests have read them."""
    if not hasattr(app, "kept_events"):
        app.kept_events, app.read_events = [], 0
    return app.kept_events


def _pull(app, timeout):
    try:
        _, event = app.events.get(timeout=timeout)
    except queue.Empty:
        return
    _kept(app).append(event)


def wait_event(app, pattern, timeout, logs=None, since=None):
    """Waits for the app's next event matching `pattern` and returns the match. Events are
    kept, not dropped: the wait reads on from where the last one stopped, and passing `since`
    (an index, see `event_index`) looks again from there without moving on. Fails with the
    app's and the shell's log lines."""
    kept = _kept(app)
    i = app.read_events if since is None else since
    deadline = time.monotonic() + timeout
    while True:
        while i < len(kept):
            match = re.fullmatch(pattern, kept[i])
            if match:
                app.last_event = i
                if since is None:
                    app.read_events = i + 1
                return match
            i += 1
        left = deadline - time.monotonic()
        if left <= 0:
            message = (f"no event matching {pattern!r} within {timeout}s; app log:\n" +
                       "\n".join(app.log[-30:]))
            raise logs.failure(message) if logs else Failure(message)
        _pull(app, min(left, 0.2))


def skip_events(app):
    """From now on: later waits look only at events that come after this call."""
    kept = _kept(app)
    while not app.events.empty():
        _pull(app, 0)
    app.read_events = len(kept)


# --- the table of checks -----------------------------------------------------------------------

class Checks:
    """Named checks of one desktop; `run` records each as passed or failed and goes on, so one
    failure does not hide the others. `finish` prints the table and fails if any failed."""

    def __init__(self, desktop):
        self.desktop = desktop
        self.results = []  # (name, ok, detail)

    def record(self, name, ok, detail=""):
        self.results.append((name, ok, detail))
        print(f"[{self.desktop}] {'PASS' if ok else 'FAIL'} {name}: {detail}", flush=True)
        return ok

    def run(self, name, step, *args):
        """Runs `step(*args)`; a Failure marks the check failed. Returns the step's value, or
        None when it failed. A step may return a `Measure`, a list of them, a text, a rectangle
        or something with a describe() method, which the table's line shows."""
        try:
            value = step(*args)
        except Failure as failure:
            self.record(name, False, str(failure))
            return None
        if isinstance(value, Measure):
            self.record(name, value.ok, str(value))
        elif isinstance(value, list) and value and all(isinstance(v, Measure) for v in value):
            self.record(name, all(v.ok for v in value), "; ".join(str(v) for v in value))
        elif isinstance(value, str) or hasattr(value, "describe"):
            self.record(name, True, value if isinstance(value, str) else value.describe())
        elif isinstance(value, tuple) and len(value) == 4 and all(isinstance(v, int) for v in value):
            self.record(name, True, fmt_rect(value))
        else:
            self.record(name, True)
        return value

    def skip(self, name, because):
        self.record(name, False, f"not reached: {because}")

    def passed(self, name):
        return any(n == name and ok for n, ok, _ in self.results)

    def finish(self):
        width = max((len(n) for n, _, _ in self.results), default=10)
        print(f"\n{self.desktop}:")
        for name, ok, _ in self.results:
            print(f"  {name.ljust(width)}  {'pass' if ok else 'FAIL'}")
        failed = [n for n, ok, _ in self.results if not ok]
        if failed:
            raise Failure(f"{self.desktop}: {len(failed)} check(s) failed: {', '.join(failed)}")
        if not self.results:
            raise Failure(f"{self.desktop}: no checks ran")

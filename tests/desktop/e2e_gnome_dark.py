#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The app follows GNOME's dark style, live: run inside shells/gnome.sh --tray none.

  e2e_gnome_dark.py --app BIN --shots DIR

Stock GNOME, so the window that stands in for the tray is the panel. The desktop portal must
publish the style (org.freedesktop.appearance color-scheme). With the dark style set before
the app starts, the window's background is dark and its secondary texts read (4.5:1); the
style set back to the default while the app runs turns the window light, its texts still
reading; dark again turns it dark again. Measured on the shell's screenshots with the app as an
X11 client (XWayland), which knows where its controls are on screen; then as a Wayland client
the window is dark at start.
"""
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from checks import Image, dominant_colour, fmt_rect, hex_colour, luminance  # noqa: E402
from desktop_driver import Failure, geometry  # noqa: E402
from gnome_session import (CAPTIONS, SECONDARY_TEXTS, app_windows, arguments,  # noqa: E402
                           drive, exited_0, measure_texts)

WINDOW = "fallbackWindow"
# Dark: the background's relative luminance below this (Adwaita-dark's #353535 is 0.036);
# light above the other (Adwaita's #f6f5f4 is 0.91).
DARK_BELOW, LIGHT_ABOVE = 0.1, 0.5
PORTAL_VALUES = {"dark": 1, "light": 0}


def portal_says(gnome, style):
    """The desktop portal (started by the bus on first use) publishes the style."""
    wanted = PORTAL_VALUES[style]
    last = []

    def answer():
        result = subprocess.run(
            ["gdbus", "call", "--session", "--dest", "org.freedesktop.portal.Desktop",
             "--object-path", "/org/freedesktop/portal/desktop", "--method",
             "org.freedesktop.portal.Settings.Read", "org.freedesktop.appearance",
             "color-scheme"], capture_output=True, text=True, timeout=30)
        last[:] = [result.stdout.strip() or result.stderr.strip()]
        m = re.search(r"uint32 (\d+)", result.stdout)
        return m and int(m.group(1)) == wanted
    try:
        gnome.until(f"the desktop portal's color-scheme {wanted}", answer, 30)
    except Failure as failure:
        raise Failure(f"{failure}; it answers {last[0] if last else 'nothing'} (packages "
                      "xdg-desktop-portal, xdg-desktop-portal-gnome: scripts/install-deps)")
    return f"color-scheme {wanted}"


def window_shown(gnome):
    """The window that stands in for the tray (how soon it comes is desktop_gnome_stock's
    check, not this one's)."""
    gnome.event(r"window shown Bonkwell", 15)
    window = gnome.until("the Bonkwell window on screen",
                         lambda: app_windows(gnome, "Bonkwell"), 10)[0]
    return f"on screen at {fmt_rect(window['rect'])}"


def places(gnome):
    """{name: (x, y, w, h)} of the window's named controls, as the app last reported them."""
    found = {}
    for line in gnome.app.log:
        m = re.fullmatch(rf"bonkwell-event: widget {WINDOW}/(\S+) at (.*)", line)
        if m:
            found[m.group(1)] = geometry(m.group(2))
    return found


def controls_on_screen(gnome):
    """The controls the texts are measured in, once the app reports them inside the window the
    compositor shows."""
    wanted = SECONDARY_TEXTS + tuple(CAPTIONS)

    def inside():
        now = places(gnome)
        wx, wy, ww, wh = app_windows(gnome, "Bonkwell")[0]["rect"]
        if all(n in now for n in wanted) and all(
                wx <= now[n][0] and now[n][0] + now[n][2] <= wx + ww and
                wy <= now[n][1] and now[n][1] + now[n][3] <= wy + wh for n in wanted):
            return now
        return None
    return gnome.until("the window's controls inside the window on screen", inside, 10)


def window_follows(gnome, style, widgets, since):
    """The app's palette follows (its event), then the screenshot shows the window in that
    style with readable secondary texts."""
    gnome.event(rf"palette {'dark' if style == 'dark' else 'platform'}", 15, since)
    gnome.rest_pointer(app_windows(gnome, "Bonkwell")[0]["rect"])
    shot = gnome.shot(f"{style}-window")
    image = Image.load(shot)
    # The window's background: the most common colour across the area its controls span.
    xs = [r[0] for r in widgets.values()] + [r[0] + r[2] for r in widgets.values()]
    ys = [r[1] for r in widgets.values()] + [r[1] + r[3] for r in widgets.values()]
    area = (min(xs), min(ys), max(xs) - min(xs), max(ys) - min(ys))
    back = dominant_colour(image.pixels(area))
    lum = luminance(back)
    if style == "dark" and lum >= DARK_BELOW:
        raise Failure(f"the window's background {hex_colour(back)} (luminance {lum:.2f}) is "
                      f"not dark, across {fmt_rect(area)}")
    if style == "light" and lum <= LIGHT_ABOVE:
        raise Failure(f"the window's background {hex_colour(back)} (luminance {lum:.2f}) is "
                      f"not light, across {fmt_rect(area)}")
    measures = measure_texts(gnome, widgets, (0, 0), (0, 0), shot)
    for m in measures:
        if m.back != back:
            raise Failure(f"{m.what} is drawn on {hex_colour(m.back)}, the window is "
                          f"{hex_colour(back)}")
    return measures


def run(gnome):
    checks, shell = gnome.checks, gnome.shell
    shell.set_style("dark")
    if not checks.run("the portal publishes the dark style", portal_says, gnome, "dark"):
        return
    gnome.start_app("x11")
    shown = checks.run("window shown, no tray", window_shown, gnome)
    if not shown:
        return
    widgets = checks.run("its controls on screen",
                         lambda: Controls(controls_on_screen(gnome)))
    if not widgets:
        return
    widgets = widgets.value
    checks.run("dark at start: dark window, secondary texts read", window_follows, gnome,
               "dark", widgets, 0)

    since = gnome.mark()
    shell.set_style("light")
    checks.run("the portal publishes the default style", portal_says, gnome, "light")
    checks.run("switched to the default style while running: light window, texts read",
               window_follows, gnome, "light", widgets, since)

    since = gnome.mark()
    shell.set_style("dark")
    checks.run("switched back to dark while running: dark window, texts read", window_follows,
               gnome, "dark", widgets, since)

    def close_window():
        shell.close_window(gnome.app.pid, "Bonkwell")
        return "closed from the title bar; " + exited_0(gnome)
    checks.run("closing the window ends the app with status 0", close_window)

    # GNOME's default for Qt 6 apps: a Wayland client, which only knows its own surface. The
    # middle of its window (clear of the title bar and the edges) shows its background.
    gnome.start_app("wayland")
    if checks.run("window shown, no tray (wayland)", window_shown, gnome):
        checks.run("dark at start (wayland): dark window", wayland_window_dark, gnome)
        checks.run("closing the window ends the app with status 0 (wayland)", close_window)


def wayland_window_dark(gnome):
    gnome.event(r"palette dark", 15)
    x, y, w, h = app_windows(gnome, "Bonkwell")[0]["rect"]
    gnome.rest_pointer((x, y, w, h))
    image = Image.load(gnome.shot("wayland-dark-window"))
    area = (x + w // 4, y + h // 4, w // 2, h // 2)
    back = dominant_colour(image.pixels(area))
    if luminance(back) >= DARK_BELOW:
        raise Failure(f"the window's background {hex_colour(back)} is not dark, across "
                      f"{fmt_rect(area)}")
    return f"background {hex_colour(back)} across {fmt_rect(area)}"


class Controls:
    def __init__(self, value):
        self.value = value

    def describe(self):
        return ", ".join(f"{n} at {fmt_rect(r)}" for n, r in sorted(self.value.items())
                         if n in SECONDARY_TEXTS + tuple(CAPTIONS))


def main():
    args = arguments()
    args.client, args.tray = "x11", "none"
    return drive(args, "gnome-dark", run)


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The app on GNOME Shell, driven like a person would: run inside shells/gnome.sh.

  e2e_gnome.py --app BIN --tray appindicator --client wayland|x11 --shots DIR
  e2e_gnome.py --app BIN --tray none --shots DIR

appindicator (the AppIndicator extension, the app as a Wayland client or through XWayland):
the icon shows in the top bar and reads against it (3:1); a double click on it (the
extension's activation) opens the panel with the keyboard: as an X11 client under the top bar
at the icon, as a Wayland client (which cannot place its windows) a compact floating window at
the panel's own size; a click elsewhere, Escape and activating the icon again close it; a
single click opens the menu at the icon, whose entries open Settings, Calibration and the
panel, and
"Quit Bonkwell" ends the app with status 0 and takes the item off the bar; the panel's
secondary texts read (4.5:1) in the light and the dark style.
none (stock GNOME, no tray): as a Wayland and as an X11 client, the Bonkwell window shows
within 3 s of start; closing it, or its Quit button, ends the app with status 0.

Pointer and keys go through the shell's own virtual devices; places come from the shell.
Prints one line per check and a table at the end; fails if any check failed.
"""
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from checks import Image, fmt_rect, icon_contrast, opens_at  # noqa: E402
from desktop_driver import Failure, geometry  # noqa: E402
from gnome_session import (Found, app_windows, arguments, drive, exited_0,  # noqa: E402
                           measure_texts, panel_report, panel_window)

MAX_FALLBACK_S = 3.0
INDICATOR_EXTENSION = "ubuntu-appindicators@ubuntu.com"


# --- with the AppIndicator extension ------------------------------------------------------------

def find_icon(gnome):
    """Waits for the app's item in the top bar; returns (key, button rect, icon rect)."""
    gnome.event(r"tray icon shown \(StatusNotifierItem\)", 20)
    last = []

    bar = gnome.shell.top_bar_height()

    def settled():
        """The item, once laid out (the bar's full height) and holding still for a few looks
        (an item coming or leaving moves the others)."""
        now = gnome.shell.indicator_of(gnome.app.pid)
        if now is None or now[1]["rect"][3] < bar - 1:
            last.clear()
            return None
        last.append(now)
        return now if len(last) >= 3 and all(seen == now for seen in last[-3:]) else None
    key, item = gnome.until("the app's item in the top bar", settled)
    if item["rect"][1] > bar or item["rect"][1] + item["rect"][3] > bar + 1:
        raise Failure(f"the item at {fmt_rect(item['rect'])} is not in the top bar (0..{bar})")
    return Found((key, tuple(item["rect"]), tuple(item["icon"])),
                 f"item {key} at {fmt_rect(item['rect'])}, its image at {fmt_rect(item['icon'])}")


def icon_image(gnome, style):
    """The extension shows a placeholder ("…") until it has loaded the item's own image; it
    keeps the placeholder when it cannot (its reasons are in the shell's log)."""
    def loaded():
        found = gnome.shell.indicator_of(gnome.app.pid)
        return found[1]["image"] if found and found[1]["image"] else None
    try:
        return "the app's image: " + gnome.until(
            "the app's image in its item (the extension shows its placeholder)", loaded, 10)
    except Failure:
        gnome.shot(f"{style}-placeholder-icon")
        raise


def icon_reads(gnome, icon, style):
    gnome.rest_pointer()
    shot = gnome.shot(f"{style}-top-bar")
    return icon_contrast(Image.load(shot), icon)


def open_panel(gnome, button):
    """Activates the item as a person does with this extension (a double click); returns
    (the app's panel report, the panel's window)."""
    since = gnome.mark()
    gnome.shell.click_centre(button, count=2)
    where, widgets = panel_report(gnome, since)
    try:
        window = gnome.until("the panel's window on screen", lambda: panel_window(gnome), 10)
    except Failure as failure:
        events = [line for line in gnome.app.log[since:] if " widget " not in line and
                  " text " not in line]
        raise Failure(f"{failure}\nthe shell's windows: {gnome.shell.windows()}\nthe app's "
                      "lines since the click:\n" + "\n".join(events[-30:]))
    return Found((where, widgets, window, since),
                 f"panel shown, on screen at {fmt_rect(window['rect'])}")


def panel_at_icon(window, button, bar_height):
    rect = tuple(window["rect"])
    if rect[1] < bar_height - 1:
        raise Failure(f"the panel at {fmt_rect(rect)} covers the top bar (height {bar_height})")
    why = opens_at(rect, button)
    if why:
        raise Failure(f"the panel opens away from the icon: {why}")
    # Right under the bar, and across the icon's middle column (the screen's edge may push it
    # sideways, never off the icon).
    middle = button[0] + button[2] // 2
    if not rect[0] <= middle < rect[0] + rect[2]:
        raise Failure(f"the panel at {fmt_rect(rect)} is not under the icon's middle (x {middle})")
    return f"panel at {fmt_rect(rect)}, icon at {fmt_rect(button)}"


def panel_floats(gnome, where, window):
    """A Wayland client cannot place its windows: the compositor puts the panel where it puts
    a new window. What the user must get there: a compact window at the panel's own size,
    floating (not maximised, not tiled to a half, not full screen), wholly on screen."""
    rect = tuple(window["rect"])
    if window["maximized"] or window["fullscreen"]:
        raise Failure(f"the panel at {fmt_rect(rect)} is maximised, tiled or full screen")
    if rect[2:] != tuple(where[2:]):
        raise Failure(f"the panel is {rect[2]}x{rect[3]} on screen, laid out "
                      f"{where[2]}x{where[3]}")
    width, height = gnome.shell.screen_size()
    if rect[2] > width // 2 or rect[3] > height - gnome.shell.top_bar_height():
        raise Failure(f"the panel at {fmt_rect(rect)} is not compact on a {width}x{height} "
                      "screen")
    if rect[0] < 0 or rect[1] < 0 or rect[0] + rect[2] > width or rect[1] + rect[3] > height:
        raise Failure(f"the panel at {fmt_rect(rect)} is not wholly on the {width}x{height} "
                      "screen")
    return f"floating {rect[2]}x{rect[3]} at {fmt_rect(rect)} (placed by the compositor)"


def panel_placed(gnome, where, window, button, bar_height):
    """Where the panel opens: at the icon for an X11 client (it places its own windows at the
    place the extension passes with the activation); floating where the compositor puts it
    for a Wayland client."""
    if gnome.args.client == "wayland":
        return panel_floats(gnome, where, window)
    return panel_at_icon(window, button, bar_height)


def panel_keeps_size(where, window):
    """The compositor shows the panel at the size the app laid it out: not stretched, not cut."""
    if tuple(window["rect"][2:]) != tuple(where[2:]):
        raise Failure(f"the app laid the panel out {where[2]}x{where[3]}, the screen shows "
                      f"{window['rect'][2]}x{window['rect'][3]}")
    return f"{where[2]}x{where[3]}"


def panel_focused(gnome, since):
    gnome.event(r"panel active", 10, since)
    def focused():
        window = panel_window(gnome)
        return window if window and window["focus"] else None
    try:
        window = gnome.until("the panel's window taking the keyboard", focused, 10)
    except Failure as failure:
        raise Failure(f"{failure}\nthe shell's focus window: {gnome.shell.focus_title()!r}; "
                      f"the app's windows: {app_windows(gnome)}")
    return f"the shell's focus window is the panel ({window['title'] or 'untitled'})"


def panel_closes(gnome, how, reason):
    """`how()` closes the panel: the app says why, and the compositor no longer shows it."""
    since = gnome.mark()
    how()
    try:
        m, _ = gnome.event(r"panel hidden by (\S+)", 10, since)
    except Failure as failure:
        raise Failure(f"{failure}\nthe shell's focus window: {gnome.shell.focus_title()!r}; "
                      f"the panel on screen: {panel_window(gnome)}")
    if m.group(1) != reason:
        raise Failure(f"the panel closed ({m.group(1)}), expected {reason}")
    gnome.until("the panel's window going", lambda: panel_window(gnome) is None, 10)
    return f"hidden by {reason}; gone from the screen"


def stays_on_bare_desktop_click(gnome, window):
    """A click on the bare desktop background (no desktop-icons extension): mutter hands it to
    no client and leaves the keyboard focus where it was, so no client can tell it happened.
    The panel stays open and keeps the focus; this records that as it is."""
    far = gnome.rest_pointer(window["rect"])
    since = gnome.mark()
    gnome.shell.click(*far)
    # Nothing to wait for when nothing happens: give the app the time a focus loss takes
    # to close the panel (200 ms settling) several times over.
    deadline = time.monotonic() + 1.5
    while time.monotonic() < deadline:
        if any(line.startswith("bonkwell-event: panel hidden") for line in gnome.app.log[since:]):
            raise Failure("the panel closed on a click on the bare desktop: the shell now tells "
                          "clients about it; turn this into a check that it closes")
        time.sleep(0.1)
    focus = gnome.shell.focus_title()
    if panel_window(gnome) is None or focus != panel_window(gnome)["title"]:
        raise Failure(f"after the click the shell's focus window is {focus!r}, the panel on "
                      f"screen: {panel_window(gnome)}")
    return f"clicked the background at {far}: the shell kept its focus on the panel, which stays"


def closes_on_top_bar_click(gnome):
    """A click on the top bar's clock (what a person clicks to get away): the shell's menu
    takes the keyboard, the panel loses the focus and closes; Escape then closes the shell's
    menu."""
    clock = gnome.shell.top_bar_item("dateMenu")
    result = panel_closes(gnome, lambda: gnome.shell.click_centre(clock["rect"]), "focus-lost")
    gnome.shell.key("Escape")
    gnome.until("the clock's menu closing",
                lambda: not gnome.shell.top_bar_item("dateMenu")["menu_open"], 10)
    return result


def settle_closed(gnome):
    """Closes a panel a failed check left open (Escape, then the window's close), not as a
    check of its own."""
    if panel_window(gnome) is None:
        return
    since = gnome.mark()
    gnome.shell.key("Escape")
    try:
        gnome.event(r"panel hidden", 5, since)
    except Failure:
        gnome.shell.close_window(gnome.app.pid, panel_window(gnome)["title"])
    gnome.until("the panel's window going", lambda: panel_window(gnome) is None, 10)


def open_menu(gnome, key, button):
    """A single click on the item: the extension draws the app's menu itself (the app's own
    menu, exported over D-Bus); the shell tells where."""
    if gnome.shell.indicator_menu(key)["open"]:
        gnome.shell.key("Escape")  # left open by a failed step
        gnome.until("the menu closing", lambda: not gnome.shell.indicator_menu(key)["open"], 10)
    gnome.shell.click_centre(button)
    seen = []

    def laid_out(menu):
        """The menu once open, laid out and still (it slides in: an entry clicked while it
        moves is missed)."""
        rects = [menu["rect"]] + [i["rect"] for i in menu["items"]]
        ok = menu["open"] and all(isinstance(v, int) for r in rects for v in r)
        if not ok or menu["rect"][2] <= 0:
            seen.clear()
            return None
        seen.append(menu)
        return menu if len(seen) >= 3 and all(m == menu for m in seen[-3:]) else None
    menu = gnome.until("the item's menu", lambda: laid_out(gnome.shell.indicator_menu(key)), 10)
    labels = [i["label"] for i in menu["items"] if i["label"]]
    wanted = ["Open Bonkwell", "Settings\u2026", "Calibration\u2026", "Quit Bonkwell"]
    if labels != wanted:
        raise Failure(f"the menu shows {labels}, expected {wanted}")
    return menu


def menu_at_icon(menu, button):
    why = opens_at(tuple(menu["rect"]), button)
    if why:
        raise Failure(f"the menu opens away from the icon: {why}")
    return f"menu at {fmt_rect(menu['rect'])}"


def choose(gnome, key, button, label, title):
    """Opens the item's menu, clicks `label`, and waits for the window `title`."""
    menu = open_menu(gnome, key, button)
    entry = [i for i in menu["items"] if i["label"] == label][0]
    since = gnome.mark()
    gnome.shell.click_centre(entry["rect"])
    gnome.event(rf"window shown {title}", 10, since)
    window = gnome.until(f"the {title} window on screen",
                         lambda: app_windows(gnome, title), 10)[0]
    gnome.rest_pointer(window["rect"])
    gnome.shot(title.split()[-1].lower())
    return f"{title} at {fmt_rect(window['rect'])}"


def closes_on_other_window(gnome, button, title):
    """With the panel open, a click into another window (`title`, already on screen) takes
    the focus away: the panel closes."""
    other = app_windows(gnome, title)
    if not other:
        raise Failure(f"no {title} window to click into")
    wx, wy, ww, wh = other[0]["rect"]
    opened = open_panel(gnome, button)
    panel_focused(gnome, opened.value[3])  # what the click below takes away
    px, py, pw, ph = opened.value[2]["rect"]
    spots = [(wx + ww // 2, wy + wh // 2), (wx + 20, wy + wh - 20), (wx + ww - 20, wy + wh - 20),
             (wx + 20, wy + 40), (wx + ww - 20, wy + 40)]
    free = [(x, y) for x, y in spots if not (px <= x < px + pw and py <= y < py + ph)]
    if not free:
        raise Failure(f"the panel at {fmt_rect((px, py, pw, ph))} covers the {title} window")
    return panel_closes(gnome, lambda: gnome.shell.click(*free[0]), "focus-lost")


def open_from_menu(gnome, key, button, bar_height):
    """"Open Bonkwell" in the menu opens the panel as activating the icon does (at the icon
    for an X11 client); Escape closes it."""
    menu = open_menu(gnome, key, button)
    entry = [i for i in menu["items"] if i["label"] == "Open Bonkwell"][0]
    since = gnome.mark()
    gnome.shell.click_centre(entry["rect"])
    shown_at, _ = panel_report(gnome, since)
    window = gnome.until("the panel's window on screen", lambda: panel_window(gnome), 10)
    where = panel_placed(gnome, shown_at, window, button, bar_height)
    since = gnome.mark()
    gnome.shell.key("Escape")
    gnome.event(r"panel hidden", 10, since)
    return where


def quit_from_menu(gnome, key, button):
    menu = open_menu(gnome, key, button)
    entry = [i for i in menu["items"] if i["label"] == "Quit Bonkwell"][0]
    gnome.shell.click_centre(entry["rect"])
    code = gnome.app.wait_exit(15)
    if code != 0:
        raise Failure(f"the app exited with status {code}")
    gnome.until("the item leaving the top bar", lambda: key not in gnome.shell.indicators(), 10)
    return "exit status 0; the item left the top bar"


def run_tray(gnome):
    checks, shell = gnome.checks, gnome.shell
    bar = shell.top_bar_height()
    # The extension tells a double click (activation) from a single click (its menu) with a
    # timer of the double-click time: on a loaded machine the shell can take longer than the
    # default 400 ms between the two presses, and opens the menu. A generous double-click time,
    # as a person may set it in the mouse settings, keeps a double click a double click.
    subprocess.run(["gsettings", "set", "org.gnome.desktop.peripherals.mouse", "double-click",
                    "1000"], check=True, timeout=20)
    for style in ("light", "dark"):
        shell.set_style(style)
        gnome.start_app()
        found = checks.run(f"icon in the top bar ({style})", find_icon, gnome)
        if not found:
            return
        key, button, icon = found.value
        if checks.run(f"icon shows the app's image ({style})", icon_image, gnome, style):
            checks.run(f"icon contrast ({style})", icon_reads, gnome, icon, style)
        else:
            checks.skip(f"icon contrast ({style})", "the item shows the extension's placeholder, "
                        "not the app's image")

        opened = checks.run(f"panel opens on activation ({style})", open_panel, gnome, button)
        if not opened:
            return
        where, widgets, window, since = opened.value
        if style == "light":
            if gnome.args.client == "wayland":
                checks.run("panel floats at its own size (placed by the compositor)",
                           panel_floats, gnome, where, window)
            else:
                checks.run("panel under the top bar at the icon", panel_at_icon, window, button,
                           bar)
            checks.run("panel keeps its size", panel_keeps_size, where, window)
            checks.run("panel has keyboard focus", panel_focused, gnome, since)
        gnome.rest_pointer(window["rect"])
        shot = gnome.shot(f"{style}-panel")
        checks.run(f"secondary texts read ({style})", measure_texts, gnome, widgets, where,
                   tuple(window["rect"]), shot)

        if style == "light":
            checks.run("panel stays on a click on the bare desktop (mutter keeps the focus)",
                       stays_on_bare_desktop_click, gnome, window)
            if gnome.args.client == "wayland":
                if not checks.run("panel closes on a click on the top bar",
                                  closes_on_top_bar_click, gnome):
                    settle_closed(gnome)
            else:
                # Under XWayland the shell's menus leave the X focus on the panel: closed with
                # Escape here, checked below (a click into another window closes it).
                settle_closed(gnome)
            if checks.run("panel opens again", open_panel, gnome, button):
                checks.run("panel closes on Escape", panel_closes, gnome,
                           lambda: shell.key("Escape"), "escape")
            if checks.run("panel opens a third time", open_panel, gnome, button):
                checks.run("panel closes on activating the icon again", panel_closes, gnome,
                           lambda: shell.click_centre(button, count=2), "icon-click")
            menu = checks.run("menu opens at the icon", lambda: menu_at_icon(
                open_menu(gnome, key, button), button))
            if menu:
                gnome.shot("menu")
                shell.key("Escape")
            checks.run("menu opens Settings", choose, gnome, key, button, "Settings\u2026",
                       "Bonkwell Settings")
            checks.run("menu opens Calibration", choose, gnome, key, button, "Calibration\u2026",
                       "Bonkwell Calibration")
            if not checks.run("panel closes on a click into another window",
                              closes_on_other_window, gnome, button, "Bonkwell Calibration"):
                settle_closed(gnome)
            checks.run("menu's Open Bonkwell opens the panel" +
                       (" at the icon" if gnome.args.client == "x11" else ""),
                       open_from_menu, gnome, key, button, bar)
        else:
            shell.key("Escape")  # and Quit below ends the app with or without the panel
        if not checks.run(f"Quit ends the app with status 0 ({style})", quit_from_menu, gnome,
                          key, button):
            return


# --- stock GNOME --------------------------------------------------------------------------------

def fallback_window(gnome):
    app = gnome.app
    event_at, _ = gnome.until("the Bonkwell window", lambda: _shown_at(app), MAX_FALLBACK_S + 2)
    elapsed = event_at - app.started
    window = gnome.until("the Bonkwell window on screen",
                         lambda: app_windows(gnome, "Bonkwell"), 2)[0]
    on_screen_after = time.monotonic() - app.started
    if elapsed > MAX_FALLBACK_S:
        raise Failure(f"the window came {elapsed:.1f} s after start (at most {MAX_FALLBACK_S} s)")
    return Found(window, f"window shown {elapsed:.2f} s after start, on screen by "
                         f"{on_screen_after:.2f} s")


def _shown_at(app):
    for at, event in app.events.queue:
        if event == "window shown Bonkwell":
            return at, event
    if app.proc.poll() is not None:
        raise Failure(f"the app ended with status {app.proc.returncode}")
    return None


def window_buttons(app):
    """{name: rect} of the fallback window's named buttons, from the app's window watch."""
    buttons = {}
    for _, event in list(app.events.queue):
        parts = event.split(" ")
        if len(parts) == 5 and parts[0] == "widget" and parts[2] == "at":
            buttons[parts[1].split("/", 1)[-1]] = geometry(" ".join(parts[3:]))
    return buttons


def run_stock(gnome):
    """As a Wayland client, then as an X11 client: the window within 3 s; the Wayland one is
    closed from its title bar, the X11 one with its Quit button (an X11 client reports where
    its controls are on screen; a Wayland client only knows its own surface)."""
    checks = gnome.checks
    for client in ("wayland", "x11"):
        gnome.start_app(client)
        shown = checks.run(f"window within {MAX_FALLBACK_S:.0f} s, no tray ({client})",
                           fallback_window, gnome)
        if not shown:
            return
        window = shown.value
        gnome.rest_pointer(window["rect"])
        gnome.shot(f"{client}-window")

        def close_window():
            gnome.shell.close_window(gnome.app.pid, "Bonkwell")
            return "closed from the title bar; " + exited_0(gnome)

        def quit_button():
            buttons = gnome.until("the window's Quit button",
                                  lambda: window_buttons(gnome.app).get("quitButton"), 5)
            gnome.shell.click_centre(buttons)
            return f"clicked Quit at {fmt_rect(buttons)}; " + exited_0(gnome)
        if client == "wayland":
            checks.run("closing the window ends the app with status 0 (wayland)", close_window)
        else:
            checks.run("Quit ends the app with status 0 (x11)", quit_button)

    # The user turns the AppIndicator extension on while the app runs: the icon comes, the
    # window goes, without a restart.
    gnome.start_app("wayland")
    if checks.run("window within 3 s, before a tray comes", fallback_window, gnome):
        checks.run("a tray turned on later takes the icon, the window goes", tray_comes_later,
                   gnome)


def tray_comes_later(gnome):
    since = gnome.mark()
    gnome.shell.enable_extension(INDICATOR_EXTENSION)
    gnome.event(r"tray icon shown \(StatusNotifierItem\)", 20, since)
    gnome.event(r"window hidden Bonkwell", 10, since)
    key, item = gnome.until("the app's item in the top bar",
                            lambda: gnome.shell.indicator_of(gnome.app.pid), 10)
    gnome.until("the Bonkwell window going", lambda: not app_windows(gnome, "Bonkwell"), 10)
    gnome.rest_pointer()
    gnome.shot("tray-later")
    return f"item at {fmt_rect(item['rect'])}; the window is gone"


def main():
    args = arguments(("--tray", {"required": True, "choices": ["appindicator", "none"]}),
                     ("--client", {"default": "wayland", "choices": ["wayland", "x11"]}))
    if args.tray == "appindicator":
        return drive(args, f"gnome-appindicator-{args.client}", run_tray)
    return drive(args, "gnome-stock", run_stock)


if __name__ == "__main__":
    sys.exit(main())

# SPDX-License-Identifier: GPL-3.0-or-later
"""GNOME Shell as the desktop tests see it: run inside gnome.sh.

Everything goes through the shell itself, the way a person's pointer and keyboard would: a
Clutter virtual pointer and keyboard made inside the shell (org.gnome.Shell.Eval, opened by
our unsafe-mode test extension), the top bar's items and their menus as the shell lays them
out, the windows as the compositor places them, and the shell's own screenshots.
"""
import json
import os
import subprocess
import time

from desktop_driver import Failure


class ShellError(Failure):
    pass


def _gdbus(*args, timeout=20):
    result = subprocess.run(["gdbus", "call", "--session", *args], capture_output=True,
                            text=True, timeout=timeout)
    if result.returncode != 0:
        raise ShellError(f"gdbus {' '.join(args[:6])} failed: {result.stderr.strip()}")
    return result.stdout.strip()


def _unquote(text):
    """The string inside gdbus's "(true, '…')" reply, with its escapes undone."""
    body = text[len("(true, '"):-2]
    out, i = [], 0
    while i < len(body):
        c = body[i]
        if c == "\\" and i + 1 < len(body):
            nxt = body[i + 1]
            if nxt == "u":
                out.append(chr(int(body[i + 2:i + 6], 16)))
                i += 6
                continue
            out.append({"n": "\n", "t": "\t"}.get(nxt, nxt))
            i += 2
            continue
        out.append(c)
        i += 1
    return "".join(out)


class GnomeShell:
    def __init__(self):
        # One virtual pointer and keyboard for the whole test, kept in the shell.
        self.eval("""
            const C = imports.gi.Clutter;
            const seat = C.get_default_backend().get_default_seat();
            if (!global._bonkwellPointer) {
                global._bonkwellPointer =
                    seat.create_virtual_device(C.InputDeviceType.POINTER_DEVICE);
                global._bonkwellKeyboard =
                    seat.create_virtual_device(C.InputDeviceType.KEYBOARD_DEVICE);
            }
            true""")

    def eval(self, script):
        """Evaluates JavaScript in the shell; returns the value of its last expression
        (JSON-decoded)."""
        out = _gdbus("--dest", "org.gnome.Shell", "--object-path", "/org/gnome/Shell",
                     "--method", "org.gnome.Shell.Eval", script)
        if not out.startswith("(true, "):
            raise ShellError(f"the shell could not evaluate {script.strip()[:80]!r}: {out}")
        text = _unquote(out)
        return json.loads(text) if text else None

    # The pointer and the keyboard.

    def move(self, x, y):
        self.eval(f"""
            global._bonkwellPointer.notify_absolute_motion(
                imports.gi.GLib.get_monotonic_time(), {x}, {y});
            true""")
        time.sleep(0.1)

    def click(self, x, y, count=1, button=1):
        """`count` clicks in a row at (x, y): 2 is a double click."""
        self.move(x, y)
        self.eval(f"""
            const C = imports.gi.Clutter;
            const now = imports.gi.GLib.get_monotonic_time();
            for (let i = 0; i < {count}; i++) {{
                global._bonkwellPointer.notify_button(now + i * 60000, {button},
                                                      C.ButtonState.PRESSED);
                global._bonkwellPointer.notify_button(now + i * 60000 + 20000, {button},
                                                      C.ButtonState.RELEASED);
            }}
            true""")

    def click_centre(self, rect, count=1, button=1):
        x, y, w, h = rect
        self.click(x + w // 2, y + h // 2, count, button)

    def key(self, name):
        """Presses and releases one key, by its Clutter key name ("Escape", "Return")."""
        self.eval(f"""
            const C = imports.gi.Clutter;
            const now = imports.gi.GLib.get_monotonic_time();
            global._bonkwellKeyboard.notify_keyval(now, C.KEY_{name}, C.KeyState.PRESSED);
            global._bonkwellKeyboard.notify_keyval(now + 20000, C.KEY_{name}, C.KeyState.RELEASED);
            true""")

    # What is on screen.

    def screenshot(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        if os.path.exists(path):
            os.unlink(path)
        out = _gdbus("--dest", "org.gnome.Shell.Screenshot", "--object-path",
                     "/org/gnome/Shell/Screenshot", "--method",
                     "org.gnome.Shell.Screenshot.Screenshot", "false", "false", path, timeout=30)
        if not out.startswith("(true") or not os.path.exists(path):
            raise ShellError(f"the shell took no screenshot: {out}")
        return path

    def top_bar_height(self):
        return self.eval("Main.panel.height")

    def screen_size(self):
        return tuple(self.eval("[global.screen_width, global.screen_height]"))

    def windows(self):
        """The windows the compositor shows: [{title, wm_class, pid, x11, rect, focus,
        minimized, maximized, fullscreen, visible}]; rect is (x, y, w, h) of the window's frame
        on screen; maximized is also true for a window tiled to one half of the screen."""
        return self.eval("""
            global.get_window_actors()
                .filter(a => a.meta_window.get_title() !== 'gnome-shell')
                .map(a => { const w = a.meta_window; const r = w.get_frame_rect(); return {
                    title: w.get_title(), wm_class: w.get_wm_class(), pid: w.get_pid(),
                    x11: w.get_client_type() === 1, rect: [r.x, r.y, r.width, r.height],
                    focus: w.has_focus(), minimized: w.minimized,
                    maximized: w.get_maximized() !== 0, fullscreen: w.is_fullscreen(),
                    visible: a.visible && w.showing_on_its_workspace() }; })
            """)

    def close_window(self, pid, title):
        """Asks the window to close, as its title bar's close button does."""
        if not self.eval(f"""
                const w = global.get_window_actors().map(a => a.meta_window)
                    .find(w => w.get_pid() === {int(pid)} && w.get_title() === {json.dumps(title)});
                if (w) w.delete(global.get_current_time());
                !!w"""):
            raise ShellError(f"no window {title!r} of process {pid} to close")

    def focus_title(self):
        return self.eval("global.display.focus_window?.get_title() ?? null")

    # The AppIndicator extension's items in the top bar.

    def indicators(self):
        """{key: {rect, icon, image, menu_open}} of the top bar's AppIndicator items: rect is
        the item's button in the bar, icon the square its image is drawn in, image what the
        extension loaded for it (None while it shows its own placeholder)."""
        return self.eval("""
            const box = a => { const [x, y] = a.get_transformed_position();
                               const [w, h] = a.get_transformed_size();
                               return [x, y, w, h].map(Math.round); };
            const out = {};
            for (const [key, item] of Object.entries(Main.panel.statusArea)) {
                if (!key.startsWith('appindicator-') || !item.mapped) continue;
                const [ix, iy, iw, ih] = item._icon ? box(item._icon) : box(item);
                const side = Math.min(iw, ih);
                const image = item._icon?.gicon;
                out[key] = { rect: box(item), menu_open: !!item.menu?.isOpen,
                             image: image ? (image.to_string() ?? image.constructor.name)
                                          : null,
                             icon: [ix + (iw - side) / 2, iy + (ih - side) / 2, side, side]
                                 .map(Math.round) };
            }
            out""")

    def indicator_of(self, pid):
        """The key and state of the AppIndicator item that process `pid` registered, or None."""
        for key, item in self.indicators().items():
            bus_name = key[len("appindicator-"):].split("@", 1)[0]
            try:
                out = _gdbus("--dest", "org.freedesktop.DBus", "--object-path",
                             "/org/freedesktop/DBus", "--method",
                             "org.freedesktop.DBus.GetConnectionUnixProcessID", bus_name)
            except ShellError:
                continue
            laid_out = all(isinstance(v, int) for v in item["rect"] + item["icon"]) and \
                item["rect"][2] > 0
            if out.strip("(),").split()[-1].rstrip(",") == str(pid) and laid_out:
                return key, item
        return None

    def top_bar_item(self, key):
        """(x, y, w, h) of one of the top bar's own items ("dateMenu" is the clock), and
        whether its menu is open."""
        return self.eval(f"""
            const item = Main.panel.statusArea[{json.dumps(key)}];
            const [x, y] = item.get_transformed_position();
            const [w, h] = item.get_transformed_size();
            ({{ rect: [x, y, w, h].map(Math.round), menu_open: !!item.menu?.isOpen }})""")

    def indicator_menu(self, key):
        """The open menu of top-bar item `key`: {open, rect, items: [{label, rect}]}."""
        return self.eval(f"""
            const item = Main.panel.statusArea[{json.dumps(key)}];
            const menu = item.menu;
            const box = a => {{ const [x, y] = a.get_transformed_position();
                                const [w, h] = a.get_transformed_size();
                                return [x, y, w, h].map(Math.round); }};
            ({{ open: menu.isOpen, rect: box(menu.box),
               items: menu._getMenuItems()
                   .filter(i => i.label && i.visible)
                   .map(i => ({{ label: i.label.text, rect: box(i) }})) }})""")

    def enable_extension(self, uuid):
        """Turns an installed extension on, as the Extensions app does."""
        enabled = self.eval("global.settings.get_strv('enabled-extensions')")
        if uuid not in enabled:
            subprocess.run(["gsettings", "set", "org.gnome.shell", "enabled-extensions",
                            json.dumps(enabled + [uuid]).replace('"', "'")],
                           check=True, timeout=20)

    # Styles.

    def set_style(self, style):
        """"light" or "dark": GNOME's colour scheme and the matching GTK theme, as the
        Appearance settings set them."""
        dark = style == "dark"
        for key, value in (("color-scheme", "prefer-dark" if dark else "default"),
                           ("gtk-theme", "Adwaita-dark" if dark else "Adwaita")):
            subprocess.run(["gsettings", "set", "org.gnome.desktop.interface", key, value],
                           check=True, timeout=20)

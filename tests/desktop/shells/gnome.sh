#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Runs a command inside a throwaway headless GNOME Shell session (Wayland, a 1280x800 virtual
# monitor, XWayland for X11 clients), the way a GNOME user's session looks to the app.
#
#   gnome.sh [--tray appindicator|none] -- COMMAND [ARGS…]
#
# appindicator: the AppIndicator extension shows tray items in the top bar (Ubuntu's default
# GNOME); none: stock GNOME, which has no tray at all.
#
# The session has its own HOME and XDG folders, its own session bus and a private bus standing
# in for the system bus. A small extension of ours (gnome-test-unsafe@bonkwell, next to this
# script) opens org.gnome.Shell.Eval and the screenshot interface to the tests. In COMMAND's
# environment: WAYLAND_DISPLAY, DISPLAY and XAUTHORITY (XWayland), DBUS_SESSION_BUS_ADDRESS,
# XDG_RUNTIME_DIR, BONKWELL_SESSION_DIR (scratch folder), BONKWELL_SHELL_LOG (the shell's log).
# Fails loudly, with the shell's own log lines, when the shell does not come up.
set -euo pipefail

tray=appindicator
while [ $# -gt 0 ]; do
    case "$1" in
        --tray) tray="$2"; shift 2 ;;
        --) shift; break ;;
        *) echo "gnome.sh: unknown option $1" >&2; exit 2 ;;
    esac
done
[ $# -gt 0 ] || { echo "gnome.sh: no command" >&2; exit 2; }
case "$tray" in appindicator|none) ;; *) echo "gnome.sh: unknown tray $tray" >&2; exit 2 ;; esac

here="$(cd "$(dirname "$0")" && pwd)"
unsafe_uuid="gnome-test-unsafe@bonkwell"
indicator_uuid="ubuntu-appindicators@ubuntu.com"

# XWayland puts its socket into /tmp/.X11-unix and insists on the usual mode (1777). Where
# another X server left that folder stricter, the session gets a private one of its own, in a
# mount namespace that ends with it.
x11_unix_ok() { [ "$(stat -c %a /tmp/.X11-unix 2>/dev/null)" = 1777 ]; }
if [ -z "${BONKWELL_IN_GNOME_SESSION:-}" ] && [ -z "${BONKWELL_GNOME_NAMESPACE:-}" ] &&
    ! x11_unix_ok; then
    if unshare --mount --propagation private true 2>/dev/null; then
        export BONKWELL_GNOME_NAMESPACE=1
        exec unshare --mount --propagation private "$0" --tray "$tray" -- "$@"
    fi
    echo "gnome.sh: /tmp/.X11-unix has mode $(stat -c %a /tmp/.X11-unix) (XWayland needs 1777)" \
         "and no private mount namespace can be made here" >&2
    exit 1
fi
if [ -n "${BONKWELL_GNOME_NAMESPACE:-}" ] && [ -z "${BONKWELL_IN_GNOME_SESSION:-}" ]; then
    mount -t tmpfs -o mode=1777 bonkwell-x11-unix /tmp/.X11-unix
fi

if [ -z "${BONKWELL_IN_GNOME_SESSION:-}" ]; then
    for tool in dbus-run-session dbus-daemon gnome-shell Xwayland gsettings gdbus \
        /usr/libexec/xdg-desktop-portal /usr/libexec/xdg-desktop-portal-gnome; do
        command -v "$tool" >/dev/null ||
            { echo "gnome.sh: $tool is missing (run scripts/install-deps)" >&2; exit 1; }
    done
    if [ "$tray" = appindicator ] &&
        [ ! -d "/usr/share/gnome-shell/extensions/$indicator_uuid" ]; then
        echo "gnome.sh: the AppIndicator extension is missing (run scripts/install-deps)" >&2
        exit 1
    fi
    scratch="$(mktemp -d /tmp/bonkwell-gnome.XXXXXX)"
    system_bus_pid=""
    cleanup() {
        [ -n "$system_bus_pid" ] && kill "$system_bus_pid" 2>/dev/null
        wait 2>/dev/null || true
        rm -rf "$scratch"
    }
    trap cleanup EXIT
    # The settings service writes into HOME and XDG_CONFIG_HOME: set them before the bus.
    export HOME="$scratch/home" XDG_CONFIG_HOME="$scratch/home/.config"
    export XDG_DATA_HOME="$scratch/home/.local/share" XDG_CACHE_HOME="$scratch/home/.cache"
    export XDG_RUNTIME_DIR="$scratch/run"
    mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME/gnome-shell/extensions" "$XDG_CACHE_HOME"
    mkdir -m 700 -p "$XDG_RUNTIME_DIR"
    cp -r "$here/$unsafe_uuid" "$XDG_DATA_HOME/gnome-shell/extensions/"
    # GNOME Shell wants a system bus (accounts, login sessions): a private, empty one will do.
    dbus-daemon --session --nofork --address="unix:path=$scratch/system_bus_socket" \
        >"$scratch/system-bus.log" 2>&1 &
    system_bus_pid=$!
    for ((n=0; n<100; n++)); do [ -S "$scratch/system_bus_socket" ] && break; sleep 0.1; done
    [ -S "$scratch/system_bus_socket" ] ||
        { echo "gnome.sh: the private system bus did not start" >&2
          cat "$scratch/system-bus.log" >&2; exit 1; }
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$scratch/system_bus_socket"
    export BONKWELL_IN_GNOME_SESSION=1 BONKWELL_SESSION_DIR="$scratch"
    status=0
    dbus-run-session -- "$0" --tray "$tray" -- "$@" || status=$?
    exit "$status"
fi

scratch="$BONKWELL_SESSION_DIR"
shell_log="$scratch/gnome-shell.log"
export BONKWELL_SHELL_LOG="$shell_log"
shell_pid=""
cleanup() {
    if [ -n "$shell_pid" ]; then
        kill "$shell_pid" 2>/dev/null || true
        wait "$shell_pid" 2>/dev/null || true
    fi
}
trap cleanup EXIT

fail() {
    echo "gnome.sh: $1" >&2
    echo "--- the shell's last log lines ($shell_log):" >&2
    tail -n 40 "$shell_log" >&2 || true
    exit 1
}

wait_for() {  # wait_for SECONDS DESCRIPTION COMMAND…
    local limit=$(( $1 * 10 )) what="$2"; shift 2
    for ((n=0; n<limit; n++)); do
        if "$@" >/dev/null 2>&1; then return 0; fi
        if [ -n "$shell_pid" ] && ! kill -0 "$shell_pid" 2>/dev/null; then
            fail "the shell ended while waiting for $what"
        fi
        sleep 0.1
    done
    fail "$what did not come up within $(( limit / 10 )) s"
}

shell_eval() {  # prints the result of a JavaScript expression evaluated in the shell
    local out
    out="$(gdbus call --session --dest org.gnome.Shell --object-path /org/gnome/Shell \
        --method org.gnome.Shell.Eval "$1" 2>/dev/null)" || return 1
    case "$out" in "(true, "*) ;; *) return 1 ;; esac
    out="${out#(true, \'}"
    printf '%s\n' "${out%\')}"
}

extensions="'$unsafe_uuid'"
[ "$tray" = appindicator ] && extensions="'$indicator_uuid', $extensions"
gsettings set org.gnome.shell disable-user-extensions false
gsettings set org.gnome.shell enabled-extensions "[$extensions]"
# No first-run tour, no screen blanking while a test runs.
gsettings set org.gnome.shell welcome-dialog-last-shown-version '999'
gsettings set org.gnome.desktop.session idle-delay 0
# The shell's own notices ("unsafe mode", "screen lock disabled") would cover the screenshots.
gsettings set org.gnome.desktop.notifications show-banners false

XDG_SESSION_TYPE=wayland XDG_CURRENT_DESKTOP=GNOME \
    gnome-shell --headless --wayland --virtual-monitor 1280x800 \
    --wayland-display="$XDG_RUNTIME_DIR/wl-0" >"$shell_log" 2>&1 &
shell_pid=$!

wait_for 90 "GNOME Shell on the session bus" \
    gdbus call --session --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.GetNameOwner org.gnome.Shell
wait_for 60 "the shell's test interface (unsafe mode)" shell_eval "global.context.unsafe_mode"
shell_true() { [ "$(shell_eval "$1")" = true ]; }
wait_for 60 "the shell's start-up" shell_true "!Main.layoutManager._startingUp"
# It starts in the overview; a user logging in sees the desktop once it is put away.
shell_eval "Main.overview.hide()" >/dev/null
wait_for 20 "the desktop (overview closed)" shell_true "!Main.overview.visible"
if [ "$tray" = appindicator ]; then
    wait_for 30 "the AppIndicator extension" shell_true \
        "Main.extensionManager.lookup('$indicator_uuid')?.state === 1"
    wait_for 30 "the AppIndicator extension's StatusNotifier host" sh -c \
        "gdbus call --session --dest org.kde.StatusNotifierWatcher \
         --object-path /StatusNotifierWatcher \
         --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
         IsStatusNotifierHostRegistered | grep -q true"
elif gdbus call --session --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
        --method org.freedesktop.DBus.NameHasOwner org.kde.StatusNotifierWatcher | grep -q true; then
    fail "stock GNOME has no tray, yet something owns org.kde.StatusNotifierWatcher"
fi

# X11 clients go through XWayland; the shell knows its display and the key to it.
export WAYLAND_DISPLAY="$XDG_RUNTIME_DIR/wl-0"
display="$(shell_eval "GLib.getenv('DISPLAY')")" || fail "cannot ask the shell for its X display"
display="${display//\"/}"
[ -n "$display" ] && [ "$display" != null ] || fail "the shell started no XWayland display"
export DISPLAY="$display"
xauth="$(ls "$XDG_RUNTIME_DIR"/.mutter-Xwaylandauth.* 2>/dev/null | head -n1)"
[ -n "$xauth" ] && export XAUTHORITY="$xauth"

# Services the bus starts on demand (the XDG desktop portal and GNOME's portal backend, which
# publish the light or dark style) must see the session they serve, as in a GNOME login.
gdbus call --session --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.UpdateActivationEnvironment \
    "{'XDG_CURRENT_DESKTOP': 'GNOME', 'XDG_SESSION_TYPE': 'wayland', \
      'WAYLAND_DISPLAY': '$WAYLAND_DISPLAY', 'DISPLAY': '$DISPLAY', \
      'XAUTHORITY': '${XAUTHORITY:-}'}" >/dev/null ||
    fail "cannot pass the session's environment to the bus's services"
# A GNOME login has the portal running before any app asks it; start it now, not during the
# app's own start-up.
wait_for 30 "the desktop portal's settings (xdg-desktop-portal, xdg-desktop-portal-gnome)" \
    gdbus call --session --dest org.freedesktop.portal.Desktop \
    --object-path /org/freedesktop/portal/desktop \
    --method org.freedesktop.portal.Settings.Read org.freedesktop.appearance color-scheme

status=0
"$@" || status=$?
if ! kill -0 "$shell_pid" 2>/dev/null; then
    fail "the shell ended during the test"
fi
exit "$status"

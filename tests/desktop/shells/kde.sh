#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Runs a command in a headless KDE Plasma session on X11: Xvfb, kwin_x11 (no compositing),
# kded5 (the StatusNotifier watcher) and plasmashell with its default panel, whose system
# tray hosts the app's StatusNotifier item and draws its menu.
#
#   kde.sh [--theme light|dark] -- COMMAND [ARGS…]
#
# dark: Breeze Dark (the Plasma theme and the colour scheme), set before the shell starts.
# In COMMAND's environment: DISPLAY, DBUS_SESSION_BUS_ADDRESS, HOME, XDG_*,
# BONKWELL_SESSION_DIR, BONKWELL_SHELL_LOGS (the folder of the shell's *.log files),
# BONKWELL_SHELL=kde, BONKWELL_THEME. Fails with the shell's log lines when a piece does not
# come up.
set -euo pipefail

theme=light
while [ $# -gt 0 ]; do
    case "$1" in
        --theme) theme="$2"; shift 2 ;;
        --) shift; break ;;
        *) echo "kde.sh: unknown option $1" >&2; exit 2 ;;
    esac
done
[ $# -gt 0 ] || { echo "kde.sh: no command" >&2; exit 2; }
here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=common.sh
. "$here/common.sh"

if [ -z "${BONKWELL_IN_SHELL_BUS:-}" ]; then
    need_tools kde.sh dbus-run-session Xvfb xprop kwin_x11 kded5 plasmashell \
        plasma-apply-colorscheme plasma-apply-desktoptheme
    make_scratch kde
    export BONKWELL_IN_SHELL_BUS=1
    run_session_bus "$0" --theme "$theme" -- "$@"
fi
scratch="$BONKWELL_SESSION_DIR"
trap stop_all EXIT

export XDG_CURRENT_DESKTOP=KDE XDG_SESSION_DESKTOP=KDE XDG_SESSION_TYPE=x11 DESKTOP_SESSION=plasma
export KDE_FULL_SESSION=true KDE_SESSION_VERSION=5 KWIN_COMPOSE=N
# No first-run tours, no lock screen, no search index.
cat > "$XDG_CONFIG_HOME/kscreenlockerrc" <<INI
[Daemon]
Autolock=false
LockOnResume=false
INI
cat > "$XDG_CONFIG_HOME/baloofilerc" <<INI
[Basic Settings]
Indexing-Enabled=false
INI

case "$theme" in
    light) ;;
    dark)
        QT_QPA_PLATFORM=offscreen plasma-apply-desktoptheme breeze-dark >"$scratch/apply-theme.log" 2>&1
        QT_QPA_PLATFORM=offscreen plasma-apply-colorscheme BreezeDark >>"$scratch/apply-theme.log" 2>&1
        grep -q "BreezeDark" "$XDG_CONFIG_HOME/kdeglobals" || {
            echo "kde.sh: the Breeze Dark colours did not reach kdeglobals" >&2; print_logs; exit 1; }
        ;;
    *) echo "kde.sh: unknown theme $theme" >&2; exit 2 ;;
esac

start_xvfb
unset QT_QPA_PLATFORM  # the shell draws on the X server (ctest sets offscreen for unit tests)
dbus-update-activation-environment DISPLAY HOME XDG_CONFIG_HOME XDG_DATA_HOME XDG_CACHE_HOME \
    XDG_RUNTIME_DIR XDG_CURRENT_DESKTOP KDE_FULL_SESSION KDE_SESSION_VERSION >"$scratch/dbus-env.log" 2>&1

kwin_x11 --replace >"$scratch/kwin.log" 2>&1 &
pids+=($!)
wait_for 60 "kwin_x11" wm_running
kded5 >"$scratch/kded5.log" 2>&1 &
pids+=($!)
wait_for 60 "kded5's StatusNotifier watcher" \
    gdbus introspect --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher
plasmashell --no-respawn >"$scratch/plasmashell.log" 2>&1 &
pids+=($!)
wait_for 90 "plasmashell's system tray (StatusNotifier host)" sni_host_registered
panel_reserved() {
    xprop -root _NET_WORKAREA | grep "= " | grep -v "= 0, 0, 1280, 800"
}
wait_for 60 "plasmashell's panel" panel_reserved

export BONKWELL_SHELL=kde BONKWELL_THEME="$theme"
"$@"

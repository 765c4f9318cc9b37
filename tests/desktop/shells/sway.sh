#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Runs a command in a headless sway session (Wayland, wlroots' headless backend, software
# rendering) with waybar and its tray along the top, or with no bar at all.
#
#   sway.sh --pointer VIRTUAL_POINTER --shots DIR [--bar waybar|none] [--scale 1|2] -- COMMAND [ARGS…]
#
# sway refuses to run as root: the session, and COMMAND with it, runs as an ordinary user made
# for this run (a unique name, removed at the end). The seat of the headless backend has no
# pointer; VIRTUAL_POINTER (built from shells/virtual_pointer.cpp) gives it one, so that
# "swaymsg seat - cursor set X Y" and "cursor press|release button1" click like a mouse, and an
# idle wtype gives it a keyboard.
# --scale 2: the output is a HiDPI screen, 2560x1600 at scale 2, so that its logical size
# stays 1280x800 (the layout and every place a test reads are the same as at scale 1).
# COMMAND writes screenshots to BONKWELL_SHOTS (the run's own folder), copied to DIR at the
# end. In COMMAND's environment: WAYLAND_DISPLAY, SWAYSOCK, DBUS_SESSION_BUS_ADDRESS, HOME,
# XDG_*, BONKWELL_SESSION_DIR, BONKWELL_SHELL_LOGS, BONKWELL_SHOTS, BONKWELL_SHELL=sway,
# BONKWELL_BAR, BONKWELL_SCALE. Fails with the shell's log lines when a piece does not come up.
set -euo pipefail

bar=waybar
scale=1
pointer=
shots=
while [ $# -gt 0 ]; do
    case "$1" in
        --bar) bar="$2"; shift 2 ;;
        --scale) scale="$2"; shift 2 ;;
        --pointer) pointer="$2"; shift 2 ;;
        --shots) shots="$2"; shift 2 ;;
        --inner) inner=1; shift ;;
        --) shift; break ;;
        *) echo "sway.sh: unknown option $1" >&2; exit 2 ;;
    esac
done
[ $# -gt 0 ] || { echo "sway.sh: no command" >&2; exit 2; }
case "$bar" in waybar|none) ;; *) echo "sway.sh: unknown bar $bar" >&2; exit 2 ;; esac
case "$scale" in
    1) mode=1280x800 ;;
    2) mode=2560x1600 ;;
    *) echo "sway.sh: unknown scale $scale (1 or 2)" >&2; exit 2 ;;
esac
here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=common.sh
. "$here/common.sh"

if [ -z "${inner:-}" ]; then
    # As root: a user for the session, its folders, then the rest as that user.
    [ -n "$pointer" ] && [ -x "$pointer" ] || { echo "sway.sh: --pointer must name the built virtual pointer client" >&2; exit 2; }
    [ -n "$shots" ] || { echo "sway.sh: no --shots folder" >&2; exit 2; }
    need_tools sway.sh sway swaymsg grim wtype dbus-run-session useradd userdel setpriv
    [ "$bar" = none ] || need_tools sway.sh waybar
    make_scratch sway
    user="bkw-sway-$$-$RANDOM"
    useradd --no-create-home --home-dir "$HOME" --shell /bin/sh "$user" >"$scratch/useradd.log" 2>&1 ||
        { echo "sway.sh: useradd $user failed" >&2; cat "$scratch/useradd.log" >&2; exit 1; }
    finish() {
        local status=$?
        mkdir -p "$shots"
        cp "$scratch"/shots/*.png "$shots"/ 2>/dev/null || true
        pkill -u "$user" 2>/dev/null || true  # the session's leftovers, all of this run's user
        userdel "$user" 2>/dev/null || true
        rm -rf "$scratch"
        exit "$status"
    }
    trap finish EXIT
    mkdir -p "$scratch/shots"
    chown -R "$user:" "$scratch"
    export BONKWELL_SHOTS="$scratch/shots"
    setpriv --reuid="$user" --regid="$user" --init-groups -- \
        dbus-run-session -- "$0" --inner --bar "$bar" --scale "$scale" --pointer "$pointer" --shots "$shots" -- "$@"
    exit $?
fi

scratch="$BONKWELL_SESSION_DIR"
trap stop_all EXIT

cat > "$scratch/sway.conf" <<CONF
output HEADLESS-1 resolution $mode scale $scale position 0,0 bg #4a5866 solid_color
default_border pixel 2
focus_follows_mouse no
xwayland disable
CONF
export WLR_BACKENDS=headless WLR_LIBINPUT_NO_DEVICES=1 WLR_RENDERER=pixman
export XDG_CURRENT_DESKTOP=sway XDG_SESSION_TYPE=wayland XDG_SESSION_DESKTOP=sway
unset DISPLAY WAYLAND_DISPLAY SWAYSOCK QT_QPA_PLATFORM  # (ctest sets it for the unit tests)
sway -c "$scratch/sway.conf" >"$scratch/sway.log" 2>&1 &
pids+=($!)
sway_up() {
    local sock display
    sock="$(ls "$XDG_RUNTIME_DIR"/sway-ipc.*.sock 2>/dev/null | head -n1)"
    display="$(cd "$XDG_RUNTIME_DIR" && ls wayland-* 2>/dev/null | grep -v lock | head -n1)"
    [ -n "$sock" ] && [ -n "$display" ] && SWAYSOCK="$sock" swaymsg -t get_outputs >/dev/null 2>&1 &&
        echo "$sock $display" > "$scratch/sway-up"
}
wait_for 30 "sway" sway_up
read -r SWAYSOCK WAYLAND_DISPLAY < "$scratch/sway-up"
export SWAYSOCK WAYLAND_DISPLAY
dbus-update-activation-environment WAYLAND_DISPLAY SWAYSOCK XDG_CURRENT_DESKTOP >"$scratch/dbus-env.log" 2>&1

"$pointer" > "$scratch/pointer.out" 2>"$scratch/pointer.log" &
pids+=($!)
wait_for 10 "the virtual pointer" grep -q ready "$scratch/pointer.out"
# A keyboard that stays, as a real one does: each wtype run below adds its own for the moment
# it types, and a seat whose only keyboard comes and goes takes the focus away with it.
wtype -s 3600000 >"$scratch/keyboard.log" 2>&1 &
pids+=($!)

if [ "$bar" = waybar ]; then
    cat > "$scratch/waybar.json" <<JSON
{
    "layer": "top",
    "position": "top",
    "height": 30,
    "modules-left": ["sway/workspaces"],
    "modules-right": ["tray"],
    "tray": {"icon-size": 20, "spacing": 8}
}
JSON
    waybar -c "$scratch/waybar.json" >"$scratch/waybar.log" 2>&1 &
    pids+=($!)
    wait_for 30 "waybar's tray (StatusNotifier host)" sni_host_registered
    bar_reserved() {
        swaymsg -t get_workspaces | grep -q '"y": [1-9]'
    }
    wait_for 30 "waybar's space at the top" bar_reserved
fi

export BONKWELL_SHELL=sway BONKWELL_BAR="$bar" BONKWELL_SCALE="$scale"
"$@"

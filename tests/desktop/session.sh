#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# Runs a command inside a throwaway desktop session, the way a user's session looks to the
# app: a private D-Bus session bus, an Xvfb screen, openbox, a tray host and a PulseAudio
# server whose default sink is a null sink.
#
#   session.sh [--tray xembed|xembed-dark|sni|none] [--sound] -- COMMAND [ARGS…]
#
# In COMMAND's environment: DISPLAY, DBUS_SESSION_BUS_ADDRESS, XDG_RUNTIME_DIR,
# BONKWELL_SESSION_DIR (scratch folder), BONKWELL_SINK_MONITOR (with --sound).
# Fails loudly when a piece cannot start; never pretends.
set -euo pipefail

tray=xembed
sound=0
while [ $# -gt 0 ]; do
    case "$1" in
        --tray) tray="$2"; shift 2 ;;
        --sound) sound=1; shift ;;
        --) shift; break ;;
        *) echo "session.sh: unknown option $1" >&2; exit 2 ;;
    esac
done
[ $# -gt 0 ] || { echo "session.sh: no command" >&2; exit 2; }

here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=shells/common.sh
. "$here/shells/common.sh"

if [ -z "${BONKWELL_IN_SESSION_BUS:-}" ]; then
    need_tools session.sh dbus-run-session Xvfb openbox xprop
    export BONKWELL_IN_SESSION_BUS=1
    exec dbus-run-session -- "$0" --tray "$tray" $([ "$sound" = 1 ] && echo --sound) -- "$@"
fi

scratch="$(mktemp -d /tmp/bonkwell-session.XXXXXX)"
pids=()
cleanup() {
    for ((i=${#pids[@]}-1; i>=0; i--)); do kill "${pids[$i]}" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT

export XDG_RUNTIME_DIR="$scratch/run"
mkdir -m 700 -p "$XDG_RUNTIME_DIR"
export BONKWELL_SESSION_DIR="$scratch"

# X server on a free display number.
exec 3> "$scratch/display"
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp >"$scratch/xvfb.log" 2>&1 &
pids+=($!)
exec 3>&-
wait_for 30 "Xvfb" test -s "$scratch/display"
export DISPLAY=":$(head -n1 "$scratch/display")"
unset WAYLAND_DISPLAY

openbox --sm-disable >"$scratch/openbox.log" 2>&1 &
pids+=($!)
wait_for 30 "openbox" sh -c 'xprop -root _NET_SUPPORTING_WM_CHECK | grep -q "window id"'

case "$tray" in
    xembed|xembed-dark)
        command -v trayer >/dev/null || { echo "session.sh: trayer is missing" >&2; exit 1; }
        look=(--transparent false)
        # A dark tray: trayer's own background tinted near-black, fully opaque.
        [ "$tray" = xembed-dark ] && look=(--transparent true --alpha 0 --tint 0x202020)
        trayer --edge top --align right --widthtype request --height 24 --SetDockType true \
            --SetPartialStrut true --expand true "${look[@]}" >"$scratch/tray.log" 2>&1 &
        pids+=($!)
        wait_for 30 "the XEmbed tray" sh -c "xprop -root | grep -q _NET_SYSTEM_TRAY || xwininfo -root -tree | grep -qi trayer"
        ;;
    sni)
        /usr/bin/python3 "$here/sni_host.py" --ready "$scratch/sni-ready" --log "$scratch/sni.log" &
        pids+=($!)
        wait_for 30 "the StatusNotifier host" test -e "$scratch/sni-ready"
        export BONKWELL_SNI_LOG="$scratch/sni.log"
        ;;
    none) ;;
    *) echo "session.sh: unknown tray $tray" >&2; exit 2 ;;
esac

if [ "$sound" = 1 ]; then
    command -v pulseaudio >/dev/null || { echo "session.sh: pulseaudio is missing" >&2; exit 1; }
    pulseaudio --daemonize=no --exit-idle-time=-1 --disallow-exit -n \
        --load="module-native-protocol-unix" \
        --load="module-null-sink sink_name=bonkwell_null" \
        --load="module-always-sink" >"$scratch/pulse.log" 2>&1 &
    pids+=($!)
    wait_for 30 "PulseAudio" pactl info
    pactl set-default-sink bonkwell_null
    export BONKWELL_SINK_MONITOR=bonkwell_null.monitor
fi

"$@"

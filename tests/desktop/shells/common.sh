# SPDX-License-Identifier: GPL-3.0-or-later
#
# Pieces the shell sessions share; sourced by shells/*.sh. A session lives in a scratch folder
# with its own HOME and XDG folders (set before its session bus starts, so that nothing the
# shell writes lands in the real home); every program's output goes to a *.log file there,
# which a failure prints.

need_tools() {  # need_tools SCRIPT TOOL…
    local who="$1"; shift
    for tool in "$@"; do
        command -v "$tool" >/dev/null || { echo "$who: $tool is missing (run scripts/install-deps)" >&2; exit 1; }
    done
}

# make_scratch NAME: a fresh folder with home/, config/, data/, cache/ and run/ (mode 700);
# exports HOME, XDG_*_HOME, XDG_RUNTIME_DIR and BONKWELL_SESSION_DIR / BONKWELL_SHELL_LOGS.
make_scratch() {
    scratch="$(mktemp -d "/tmp/bonkwell-$1.XXXXXX")"
    chmod 755 "$scratch"
    mkdir -p "$scratch/home" "$scratch/config" "$scratch/data" "$scratch/cache"
    mkdir -m 700 -p "$scratch/run"
    export HOME="$scratch/home" XDG_CONFIG_HOME="$scratch/config" XDG_DATA_HOME="$scratch/data"
    export XDG_CACHE_HOME="$scratch/cache" XDG_RUNTIME_DIR="$scratch/run"
    export BONKWELL_SESSION_DIR="$scratch" BONKWELL_SHELL_LOGS="$scratch"
}

print_logs() {
    for log in "$scratch"/*.log; do
        [ -s "$log" ] && { echo "--- $log" >&2; tail -n 25 "$log" >&2; }
    done
    return 0
}

wait_for() {  # wait_for SECONDS DESCRIPTION COMMAND…
    local limit=$(( $1 * 10 )) what="$2"; shift 2
    for ((n=0; n<limit; n++)); do
        if "$@" >/dev/null 2>&1; then return 0; fi
        sleep 0.1
    done
    echo "$(basename "$0"): $what did not come up within $(( limit / 10 )) s" >&2
    print_logs
    return 1
}

# run_session_bus SCRIPT ARGS…: runs SCRIPT inside a private session bus, then ends whatever
# the session left behind (services the bus started, which outlive it and would hold the
# test's output open) and removes the scratch folder. They are found by the scratch folder
# in their environment, which only this session's processes have.
run_session_bus() {
    local status=0
    dbus-run-session -- "$@" || status=$?
    local env pid
    for env in /proc/[0-9]*/environ; do
        pid="${env#/proc/}"; pid="${pid%/environ}"
        [ "$pid" = "$$" ] && continue
        if tr '\0' '\n' 2>/dev/null < "$env" | grep -qxF "BONKWELL_SESSION_DIR=$scratch"; then
            kill "$pid" 2>/dev/null || true
        fi
    done
    rm -rf "$scratch"
    exit "$status"
}

pids=()
stop_all() {
    for ((i=${#pids[@]}-1; i>=0; i--)); do kill "${pids[$i]}" 2>/dev/null || true; done
    wait 2>/dev/null || true
}

# start_xvfb: an X server on a free display number; exports DISPLAY.
start_xvfb() {
    exec 3> "$scratch/display"
    Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp -noreset +extension GLX >"$scratch/xvfb.log" 2>&1 &
    pids+=($!)
    exec 3>&-
    wait_for 30 "Xvfb" test -s "$scratch/display"
    export DISPLAY=":$(head -n1 "$scratch/display")"
    unset WAYLAND_DISPLAY
}

wm_running() {
    xprop -root _NET_SUPPORTING_WM_CHECK | grep -q "window id"
}

selection_owned() {  # selection_owned NAME: an X client owns the selection NAME (e.g. WM_S0)
    /usr/bin/python3 -c '
import ctypes, sys
x = ctypes.CDLL("libX11.so.6")
x.XOpenDisplay.restype = ctypes.c_void_p
x.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
x.XInternAtom.restype = ctypes.c_ulong
x.XGetSelectionOwner.argtypes = [ctypes.c_void_p, ctypes.c_ulong]
x.XGetSelectionOwner.restype = ctypes.c_ulong
d = x.XOpenDisplay(None)
sys.exit(0 if d and x.XGetSelectionOwner(d, x.XInternAtom(d, sys.argv[1].encode(), 0)) else 1)
' "$1"
}

sni_host_registered() {  # a StatusNotifier host sits on the session bus
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        IsStatusNotifierHostRegistered 2>/dev/null | grep -q true
}

#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# The package as a user gets it: builds the .deb from a built tree, installs it with apt-get
# and removes it again, all inside a private mount namespace whose /usr, /var and /etc are
# throwaway overlays (the machine itself is left untouched).
#   check-installed.sh BUILD_DIR VERSION
# Checks: the installed files; the setup program accepts the packaged helper as its trusted
# source and makes a root:root 4755 per-user copy with the packaged content; /usr/bin/bonkwell
# started as an ordinary user copies the packaged sound packs into the user's folder; a second
# start exits 0 at once; with a fake IIO accelerometer (a tmpfs over /sys/bus in the namespace)
# the per-user helper reports a spike and the app counts it; `apt-get remove` leaves the
# user's files. Must run as root.
set -euo pipefail

build="$1"
version="$2"

if [ -z "${BONKWELL_IN_PRIVATE_MOUNTS:-}" ]; then
    [ "$(id -u)" -eq 0 ] || { echo "check-installed: must run as root (it installs a package in a private mount namespace)" >&2; exit 1; }
    for tool in cpack apt-get dpkg unshare setpriv mount cmp python3 pulseaudio pactl parec; do
        command -v "$tool" >/dev/null || { echo "check-installed: $tool is missing (run scripts/install-deps)" >&2; exit 1; }
    done
    export BONKWELL_IN_PRIVATE_MOUNTS=1
    exec unshare --mount --propagation private -- "$0" "$@"
fi

scratch="$(mktemp -d /tmp/bonkwell-installed.XXXXXX)"
app_pid=""
parec_pid=""
pulse_pid=""
cleanup() {
    [ -n "$app_pid" ] && kill -KILL "$app_pid" 2>/dev/null || true
    [ -n "$parec_pid" ] && kill -KILL "$parec_pid" 2>/dev/null || true
    [ -n "$pulse_pid" ] && kill -KILL "$pulse_pid" 2>/dev/null || true
    for d in etc var usr; do umount -l "/$d" 2>/dev/null || true; done
    umount -l "$scratch/layers" 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT
chmod 755 "$scratch"
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

cpack --config "$build/CPackConfig.cmake" -B "$scratch/out" >"$scratch/cpack.log" 2>&1 || {
    cat "$scratch/cpack.log" >&2; echo "check-installed: cpack failed" >&2; exit 1; }
deb="$scratch/out/bonkwell_${version}_$(dpkg --print-architecture).deb"
[ -f "$deb" ] || { echo "check-installed: no $(basename "$deb")" >&2; exit 1; }

# Throwaway layers over the folders that installing writes to.
mkdir -p "$scratch/layers"
mount -t tmpfs tmpfs "$scratch/layers"
for d in usr var etc; do
    mkdir -p "$scratch/layers/$d-upper" "$scratch/layers/$d-work"
    mount -t overlay overlay \
        -o "lowerdir=/$d,upperdir=$scratch/layers/$d-upper,workdir=$scratch/layers/$d-work" "/$d"
done
[ ! -e /usr/bin/bonkwell ] || { echo "check-installed: bonkwell is already installed on this machine" >&2; exit 1; }

export DEBIAN_FRONTEND=noninteractive
if ! apt-get install -y --no-install-recommends "$deb" >"$scratch/apt.log" 2>&1; then
    cat "$scratch/apt.log" >&2
    echo "check-installed: apt-get install failed" >&2
    exit 1
fi
echo "installed $(dpkg-query -W -f='${Package} ${Version} ${db:Status-Status}' bonkwell)"

helpers=/usr/libexec/bonkwell/Helpers
for exe in /usr/bin/bonkwell "$helpers/thuzz-detector" "$helpers/bonkwell-helper-setup"; do
    [ "$(stat -c '%U:%G %a' "$exe")" = "root:root 755" ] ||
        fail "$exe is $(stat -c '%U:%G %a' "$exe"), not root:root 755"
done
packaged_clips="$(find /usr/share/bonkwell/SoundPacks -name '*.mp3' | wc -l)"
[ "$packaged_clips" -gt 0 ] || fail "no clips under /usr/share/bonkwell/SoundPacks"

# An ordinary user with a home of their own.
user=65534
home="$scratch/home"
as_user() { setpriv --reuid "$user" --regid "$user" --clear-groups -- "$@"; }
install -d -o "$user" -g "$user" -m 700 "$home" "$scratch/run"
user_env=(env -i "HOME=$home" "XDG_RUNTIME_DIR=$scratch/run" "PATH=/usr/bin:/bin"
          "QT_QPA_PLATFORM=offscreen" "LANG=C.UTF-8")

# The privileged step as pkexec runs it: root, with the caller's uid in PKEXEC_UID.
as_user mkdir -p "$home/.local/share/Bonkwell/Helpers"
copy="$home/.local/share/Bonkwell/Helpers/thuzz-detector"
if env -i PATH=/usr/bin:/bin PKEXEC_UID="$user" "$helpers/bonkwell-helper-setup" \
        "$home/.local/share/Bonkwell/Helpers" 2>"$scratch/setup.err"; then
    [ "$(stat -c '%U:%G %a' "$copy")" = "root:root 4755" ] ||
        fail "the per-user copy is $(stat -c '%U:%G %a' "$copy"), not root:root 4755"
    cmp -s "$copy" "$helpers/thuzz-detector" || fail "the per-user copy differs from the packaged helper"
    echo "the setup program made the per-user copy from the packaged helper (root:root 4755)"
else
    fail "bonkwell-helper-setup refused the packaged helper: $(cat "$scratch/setup.err")"
fi

# A fake accelerometer seen only in this namespace: an IIO device polled through sysfs.
mount -t tmpfs tmpfs /sys/bus
iio=/sys/bus/iio/devices/iio:device0
mkdir -p "$iio"
echo accel_3d >"$iio/name"
echo 0 >"$iio/in_accel_x_raw"; echo 0 >"$iio/in_accel_y_raw"; echo -1000 >"$iio/in_accel_z_raw"
echo 0.00981 >"$iio/in_accel_scale"
echo 100 >"$iio/in_accel_sampling_frequency"
spike() {  # about 2 g sideways for 150 ms
    for _ in 1 2 3 4 5; do echo 3000 >"$iio/in_accel_x_raw"; sleep 0.03; done
    echo 0 >"$iio/in_accel_x_raw"
}
wait_for_line() {  # wait_for_line FILE PATTERN SECONDS
    for ((i = 0; i < $3 * 10; i++)); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
    return 1
}

# The per-user copy, run by the user the way the app runs it, reports one event per spike.
setpriv --reuid "$user" --regid "$user" --clear-groups -- "$copy" --stdio --detect-only \
    --min-amplitude 0.05 --cooldown 750 >"$scratch/helper.out" 2>"$scratch/helper.err" &
helper_pid=$!
if wait_for_line "$scratch/helper.out" "reading iio:device0" 10; then
    spike
    wait_for_line "$scratch/helper.out" slapNumber 5 || true
    sleep 0.5
    events="$(grep -c slapNumber "$scratch/helper.out" || true)"
    [ "$events" -eq 1 ] || fail "the per-user helper printed $events events for one spike: $(cat "$scratch/helper.out")"
    echo "the per-user helper reported the spike: $(grep slapNumber "$scratch/helper.out")"
else
    fail "the per-user helper did not open the fake device: $(cat "$scratch/helper.out" "$scratch/helper.err")"
fi
kill "$helper_pid" 2>/dev/null || true
wait "$helper_pid" 2>/dev/null || true

# The user's sound server, with a null sink whose monitor is recorded while the app runs.
setpriv --reuid "$user" --regid "$user" --clear-groups -- "${user_env[@]}" \
    pulseaudio --daemonize=no --exit-idle-time=-1 --disallow-exit -n \
    --load=module-native-protocol-unix --load="module-null-sink sink_name=bonkwell_null" \
    >"$scratch/pulse.log" 2>&1 &
pulse_pid=$!
for ((i = 0; i < 100; i++)); do
    as_user "${user_env[@]}" pactl info >/dev/null 2>&1 && break
    sleep 0.1
done
as_user "${user_env[@]}" pactl set-default-sink bonkwell_null || fail "no sound server: $(tail -5 "$scratch/pulse.log")"
setpriv --reuid "$user" --regid "$user" --clear-groups -- "${user_env[@]}" \
    parec -d bonkwell_null.monitor --raw --format=s16le --channels=1 --rate=48000 \
    >"$scratch/sink.raw" 2>"$scratch/parec.err" &
parec_pid=$!

# The installed app, started as the user, fills the user's sound folder from /usr/share.
# (setpriv itself, not a shell function, so that $! is the app's own pid)
setpriv --reuid "$user" --regid "$user" --clear-groups -- "${user_env[@]}" /usr/bin/bonkwell \
    >"$scratch/app.out" 2>"$scratch/app.err" &
app_pid=$!
user_packs="$home/.local/share/Bonkwell/SoundPacks"
for ((i = 0; i < 200; i++)); do
    copied="$( (find "$user_packs" -name '*.mp3' 2>/dev/null || true) | wc -l)"
    [ "$copied" -ge "$packaged_clips" ] && break
    sleep 0.1
done
[ "${copied:-0}" -eq "$packaged_clips" ] ||
    fail "the user's sound folder holds ${copied:-0} clips, the package $packaged_clips"
kill -0 "$app_pid" 2>/dev/null || fail "the installed app ended on its own: $(tail -5 "$scratch/app.err")"

# A further start reaches the running copy and exits 0 at once.
began=$(date +%s%N)
if timeout 15 setpriv --reuid "$user" --regid "$user" --clear-groups -- "${user_env[@]}" \
        /usr/bin/bonkwell >/dev/null 2>"$scratch/second.err"; then
    echo "second start exited 0 after $(( ($(date +%s%N) - began) / 1000000 )) ms"
else
    fail "the second start did not exit 0 within 15 s: $(tail -3 "$scratch/second.err")"
fi
# With the helper installed the app starts it; a spike is counted.
wait_for_line "$scratch/app.err" "reading iio:device0" 10 ||
    fail "the app did not start the per-user helper: $(tail -5 "$scratch/app.err")"
peak() {
    python3 -c 'import sys, array; d = open(sys.argv[1], "rb").read(); a = array.array("h", d[:len(d) // 2 * 2]); print(max((abs(v) for v in a), default=0))' "$scratch/sink.raw"
}
spike
for ((i = 0; i < 50; i++)); do [ "$(peak)" -gt 1000 ] && break; sleep 0.2; done
sleep 0.5
kill -TERM "$app_pid"
wait "$app_pid" || fail "the installed app exited $? on SIGTERM"
counted="$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["totalCount"])' \
    "$home/.config/Bonkwell/BonkwellState.v1" 2>&1)"
[ "$counted" = 1 ] || fail "the app counted '$counted' slaps for one spike"
echo "the installed app ran the per-user helper and counted the spike (totalCount $counted)"
kill "$parec_pid" 2>/dev/null || true
wait "$parec_pid" 2>/dev/null || true
loudest="$(peak)"
if [ "$loudest" -gt 1000 ]; then
    echo "a sound reached the null sink (peak $loudest of 32767)"
else
    fail "nothing audible reached the null sink (peak $loudest of 32767, $(stat -c %s "$scratch/sink.raw") bytes recorded): $(cat "$scratch/parec.err")"
fi
kill "$pulse_pid" 2>/dev/null || true
wait "$pulse_pid" 2>/dev/null || true
app_pid=""

# Removing the package leaves every user file in place.
find "$home" -type f | sort >"$scratch/user-files.before"
[ -s "$scratch/user-files.before" ] || fail "no user files to keep"
apt-get remove -y bonkwell >"$scratch/remove.log" 2>&1 || { cat "$scratch/remove.log" >&2; fail "apt-get remove"; }
[ ! -e /usr/bin/bonkwell ] || fail "/usr/bin/bonkwell is still there after apt-get remove"
find "$home" -type f | sort >"$scratch/user-files.after"
cmp -s "$scratch/user-files.before" "$scratch/user-files.after" ||
    fail "apt-get remove touched the user's files: $(diff "$scratch/user-files.before" "$scratch/user-files.after" | head -5)"
[ "$(stat -c '%U:%G %a' "$copy" 2>/dev/null)" = "root:root 4755" ] || fail "the per-user helper did not survive removal"
echo "apt-get remove kept $(wc -l <"$scratch/user-files.after") user files"

if [ "$failures" -gt 0 ]; then
    echo "check-installed: $failures check(s) failed; app log:" >&2
    tail -20 "$scratch/app.err" >&2
    exit 1
fi
echo "check-installed: all checks passed"

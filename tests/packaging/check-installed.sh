#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
#
# The package as a user gets it: builds the .deb from a built tree, installs it with apt-get
# and removes it again, all inside a private mount namespace whose /usr, /var and /etc are
# throwaway overlays (the machine itself is left untouched).
#   check-installed.sh BUILD_DIR VERSION
# Checks: the installed files; then, with a fake IIO accelerometer (a tmpfs over /sys/bus in the
# namespace), a system bus and polkit allowing the tester's pkexec, an ordinary user's desktop
# session (e2e_installed.py): /usr/bin/bonkwell fills the user's sound folder from the package,
# "Install detection engine" pressed in Settings makes the root:root 4755 per-user copy of the
# packaged helper through pkexec and the setup program, the helper runs and a spike is counted
# and heard, killing the helper shows "Engine stopped" and the app goes on; the per-user copy
# prints one event per spike; `apt-get remove` leaves the user's files. Must run as root.
set -euo pipefail

build="$1"
version="$2"

if [ -z "${BONKWELL_IN_PRIVATE_MOUNTS:-}" ]; then
    [ "$(id -u)" -eq 0 ] || { echo "check-installed: must run as root (it installs a package in a private mount namespace)" >&2; exit 1; }
    for tool in cpack apt-get dpkg unshare setpriv mount useradd pkexec dbus-daemon dbus-send \
                /usr/lib/polkit-1/polkitd python3 pulseaudio parec Xvfb openbox trayer xdotool; do
        command -v "$tool" >/dev/null || { echo "check-installed: $tool is missing (run scripts/install-deps)" >&2; exit 1; }
    done
    export BONKWELL_IN_PRIVATE_MOUNTS=1
    exec unshare --mount --propagation private -- "$0" "$@"
fi

scratch="$(mktemp -d /tmp/bonkwell-installed.XXXXXX)"
bus_pid=""
polkit_pid=""
cleanup() {
    [ -n "$polkit_pid" ] && kill -KILL "$polkit_pid" 2>/dev/null || true
    [ -n "$bus_pid" ] && kill -KILL "$bus_pid" 2>/dev/null || true
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

# An ordinary user with a home of their own (in the throwaway /etc).
useradd --no-create-home --home-dir "$scratch/home" --shell /bin/sh bonkwell-tester ||
    { echo "check-installed: useradd failed" >&2; exit 1; }
user="$(id -u bonkwell-tester)"
group="$(id -g bonkwell-tester)"
home="$scratch/home"
install -d -o "$user" -g "$group" -m 700 "$home" "$scratch/shots"

# A fake accelerometer seen only in this namespace: an IIO device polled through sysfs. The
# tester may move it (write its raw values).
mount -t tmpfs -o mode=755 tmpfs /sys/bus
iio=/sys/bus/iio/devices/iio:device0
mkdir -p "$iio"
echo accel_3d >"$iio/name"
echo 0 >"$iio/in_accel_x_raw"; echo 0 >"$iio/in_accel_y_raw"; echo -1000 >"$iio/in_accel_z_raw"
echo 0.00981 >"$iio/in_accel_scale"
echo 100 >"$iio/in_accel_sampling_frequency"
chmod 666 "$iio"/in_accel_?_raw

# The administrator's consent: a system bus and polkit, with a rule that lets the tester run
# programs through pkexec without a password (where a person would type theirs). polkitd
# starts as root and becomes its own user.
mount -t tmpfs -o mode=755 tmpfs /run/dbus
dbus-daemon --system --nofork --nopidfile >"$scratch/system-bus.log" 2>&1 &
bus_pid=$!
for ((i = 0; i < 50; i++)); do [ -S /run/dbus/system_bus_socket ] && break; sleep 0.1; done
[ -S /run/dbus/system_bus_socket ] || { cat "$scratch/system-bus.log" >&2; echo "check-installed: no system bus" >&2; exit 1; }
cat >/etc/polkit-1/rules.d/00-bonkwell-tester.rules <<'RULE'
polkit.addRule(function(action, subject) {
    if (subject.user != "bonkwell-tester") {
        return polkit.Result.NOT_HANDLED;
    }
    // The setup program only through Bonkwell's own action (its message is what is asked).
    if (action.id == "com.bonkwell.Bonkwell.install-helper") {
        return polkit.Result.YES;
    }
    if (action.id == "org.freedesktop.policykit.exec" &&
        action.lookup("program") != "/usr/libexec/bonkwell/Helpers/bonkwell-helper-setup") {
        return polkit.Result.YES;
    }
});
RULE
/usr/lib/polkit-1/polkitd --no-debug \
    >"$scratch/polkitd.log" 2>&1 &
polkit_pid=$!
for ((i = 0; i < 100; i++)); do
    dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
        string:org.freedesktop.PolicyKit1 2>/dev/null | grep -q "boolean true" && break
    sleep 0.1
done
dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
    string:org.freedesktop.PolicyKit1 2>/dev/null | grep -q "boolean true" ||
    { cat "$scratch/polkitd.log" >&2; echo "check-installed: polkit did not come up" >&2; exit 1; }
# The package's action: what the administrator is asked, and for which program.
pkaction --verbose --action-id com.bonkwell.Bonkwell.install-helper >"$scratch/action" 2>&1 ||
    { cat "$scratch/action" >&2; fail "polkit does not know com.bonkwell.Bonkwell.install-helper"; }
cat "$scratch/action"
grep -q "message:.*Install Bonkwell's detection engine for your account$" "$scratch/action" ||
    fail "the action's message is not the one the package ships"
grep -q "implicit active:.*auth_admin_keep$" "$scratch/action" ||
    fail "the action does not ask for an administrator (auth_admin_keep)"
grep -q "org.freedesktop.policykit.exec.path -> /usr/libexec/bonkwell/Helpers/bonkwell-helper-setup$" \
    "$scratch/action" || fail "the action is not tied to the installed setup program"

# The user's desktop session: X, a window manager, an XEmbed tray, a null sink. The tester
# presses "Install detection engine" and the rest (e2e_installed.py).
here="$(cd "$(dirname "$0")" && pwd)"
if setpriv --reuid "$user" --regid "$group" --init-groups -- \
        env -i "HOME=$home" "USER=bonkwell-tester" "LOGNAME=bonkwell-tester" "PATH=/usr/bin:/bin" \
        "LANG=C.UTF-8" "$here/../desktop/session.sh" --tray xembed --sound -- \
        /usr/bin/python3 "$here/e2e_installed.py" --device "$iio" --home "$home" \
        --shots "$scratch/shots" \
        >"$scratch/e2e.log" 2>&1; then
    cat "$scratch/e2e.log"
else
    cat "$scratch/e2e.log" >&2
    fail "the installed app's desktop run failed"
fi
mkdir -p "$build/screenshots"
cp "$scratch/shots"/*.png "$build/screenshots/" 2>/dev/null || true

wait_for_line() {  # wait_for_line FILE PATTERN SECONDS
    for ((i = 0; i < $3 * 10; i++)); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
    return 1
}
spike() {  # about 2 g sideways for 150 ms
    for _ in 1 2 3 4 5; do echo 3000 >"$iio/in_accel_x_raw"; sleep 0.03; done
    echo 0 >"$iio/in_accel_x_raw"
}

# The per-user copy the app installed, run by the user the way the app runs it, prints
# exactly one event per spike.
copy="$(find "$home" -path '*/Bonkwell/Helpers/thuzz-detector' | head -1)"
if [ -n "$copy" ]; then
    setpriv --reuid "$user" --regid "$group" --init-groups -- "$copy" --stdio --detect-only \
        --min-amplitude 0.05 --cooldown 750 >"$scratch/helper.out" 2>"$scratch/helper.err" &
    helper_pid=$!
    if wait_for_line "$scratch/helper.out" "reading iio:device0" 10; then
        spike
        wait_for_line "$scratch/helper.out" slapNumber 5 || true
        sleep 0.5
        events="$(grep -c slapNumber "$scratch/helper.out" || true)"
        [ "$events" -eq 1 ] || fail "the per-user helper printed $events events for one spike: $(cat "$scratch/helper.out")"
        echo "the per-user helper printed one event for one spike: $(grep slapNumber "$scratch/helper.out")"
    else
        fail "the per-user helper did not open the fake device: $(cat "$scratch/helper.out" "$scratch/helper.err")"
    fi
    kill "$helper_pid" 2>/dev/null || true
    wait "$helper_pid" 2>/dev/null || true
else
    fail "no per-user helper was installed"
fi
kill "$polkit_pid" "$bus_pid" 2>/dev/null || true
wait "$polkit_pid" "$bus_pid" 2>/dev/null || true
polkit_pid=""; bus_pid=""

# Removing the package leaves every user file in place.
find "$home" -type f | sort >"$scratch/user-files.before"
[ -s "$scratch/user-files.before" ] || fail "no user files to keep"
apt-get remove -y bonkwell >"$scratch/remove.log" 2>&1 || { cat "$scratch/remove.log" >&2; fail "apt-get remove"; }
[ ! -e /usr/bin/bonkwell ] || fail "/usr/bin/bonkwell is still there after apt-get remove"
find "$home" -type f | sort >"$scratch/user-files.after"
cmp -s "$scratch/user-files.before" "$scratch/user-files.after" ||
    fail "apt-get remove touched the user's files: $(diff "$scratch/user-files.before" "$scratch/user-files.after" | head -5)"
[ -n "$copy" ] && [ "$(stat -c '%U:%G %a' "$copy" 2>/dev/null)" = "root:root 4755" ] || fail "the per-user helper did not survive removal"
echo "apt-get remove kept $(wc -l <"$scratch/user-files.after") user files"

if [ "$failures" -gt 0 ]; then
    echo "check-installed: $failures check(s) failed" >&2
    exit 1
fi
echo "check-installed: all checks passed"

#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The helper's CPU use on a still, emulated accelerometer of each kind, and on a polled IIO
# device at each sampling rate (20-400 Hz; polling stops at 200 Hz), measured over DURATION
# seconds (default 30) from /proc/PID/stat. Prints one line per source. As root the helper
# raises the rate of the devices that offer more; the line it prints names the rate it used.
# Usage: bench/accel/idle-cpu.sh <path to thuzz-detector>
set -euo pipefail
helper="$(realpath "${1:?usage: idle-cpu.sh <thuzz-detector>}")"
data="$(cd "$(dirname "$0")/../../tests/data/accel" && pwd)"
duration="${DURATION:-30}"
ticks="$(getconf CLK_TCK)"
command -v umockdev-run >/dev/null || { echo "idle-cpu: umockdev-run is missing (scripts/install-deps)" >&2; exit 1; }

measure() {
    local name="$1"
    shift
    local script="
        '$helper' --stdio --detect-only --min-amplitude 0.0500 --cooldown 750 </dev/null >/tmp/bonkwell-idle.\$\$ &
        p=\$!
        sleep 1
        read -r -a s0 < /proc/\$p/stat
        sleep $duration
        read -r -a s1 < /proc/\$p/stat
        head -n1 /tmp/bonkwell-idle.\$\$
        kill \$p; wait \$p || true
        rm -f /tmp/bonkwell-idle.\$\$
        echo \$(( s1[13] + s1[14] - s0[13] - s0[14] ))"
    local out
    out="$(umockdev-run "$@" -- bash -c "$script" 2>&1)"
    local used
    used="$(tail -n1 <<<"$out")"
    local line
    line="$(head -n1 <<<"$out")"
    awk -v n="$name" -v u="$used" -v t="$ticks" -v d="$duration" -v l="$line" \
        'BEGIN { printf "%-22s %6.3f %% CPU (%d ticks in %d s)   [%s]\n", n, 100 * u / t / d, u, d, l }'
}

# A lis3lv02d with only its position file (no input device).
position_only="$(mktemp)"
scratch="$(mktemp -d)"
trap 'rm -f "$position_only"; rm -rf "$scratch"' EXIT
printf 'P: /devices/platform/lis3lv02d\nE: SUBSYSTEM=platform\nA: position=(-18,12,1002)\\n\nA: rate=100\\n\n' >"$position_only"

echo "thuzz-detector idle CPU over ${duration} s on still emulated devices (umockdev):"
measure "input device (evdev)" -d "$data/lis3-like.umockdev" -i "/dev/input/event7=$data/lis3-like.ioctl"
measure "IIO buffer" -d "$data/iio-buffer-hid-like.umockdev"
measure "IIO sysfs (I2C-like)" -d "$data/iio-poll-i2c-like.umockdev"
measure "IIO sysfs (HID-like)" -d "$data/iio-poll-hid-like.umockdev"
measure "position file, 100 Hz" -d "$position_only"

# A polled IIO accelerometer that offers exactly one rate, for the cost at that rate.
for rate in 20 33 50 100 200 400; do
    device="$scratch/iio-$rate.umockdev"
    printf '%s\n' 'P: /devices/platform/test-i2c/i2c-TEST0200:00/iio:device0' 'N: iio:device0' \
        'E: DEVNAME=/dev/iio:device0' 'E: DEVTYPE=iio_device' 'E: SUBSYSTEM=iio' \
        'A: dev=250:0\n' 'A: name=test-accel-rate\n' 'A: in_accel_x_raw=12\n' \
        'A: in_accel_y_raw=-9\n' 'A: in_accel_z_raw=1030\n' 'A: in_accel_scale=0.009576806\n' \
        "A: sampling_frequency=$rate\\n" "A: sampling_frequency_available=$rate\\n" >"$device"
    measure "IIO sysfs, $rate Hz" -d "$device"
done

#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
# Writes iio-buffer-still.script and iio-buffer-spike.script: umockdev read scripts for the
# buffered device of iio-buffer-hid-like.umockdev (le:s16/32 x, y, z at indexes 0-2, then an
# le:s64 timestamp; 24 bytes per scan). As in the recorded capture, the upper half of each
# 32-bit slot holds the next axis, so a reader must mask to 16 bits.
import struct

def scan(x, y, z, ts):
    def slot(v, nxt):
        return struct.pack('<hh', v, nxt)
    return slot(x, y) + slot(y, z) + slot(z, x) + b'\0\0\0\0' + struct.pack('<q', ts)

def escape(data):
    out = ''
    for b in data:
        assert b not in (0x5e, 0x7f), 'pick other values'
        out += '^' + chr(b + 64) if b < 32 else chr(b)
    return out

def write(name, spike_at):
    ts = 1611158408510212975
    lines = []
    for i in range(40):
        z = 1600 if i == spike_at else 1000
        # Nudge the timestamp by nanoseconds until no byte needs an escape we do not write.
        while any(b in (0x5e, 0x7f) for b in scan(3, -5, z, ts)):
            ts += 1
        lines.append('r 30 ' + escape(scan(3, -5, z, ts)))
        ts += 30_000_000
    with open(name, 'w', encoding='latin-1') as f:
        f.write('\n'.join(lines) + '\n')

write('iio-buffer-still.script', None)
write('iio-buffer-spike.script', 20)

// SPDX-License-Identifier: GPL-3.0-or-later
// The helper on emulated accelerometers, as the device tests run it: under umockdev-run with
// recorded devices, started by a shell script in which $H is the helper with its launch words.
#pragma once

#include "Subprocess.h"

#include <string>
#include <vector>

namespace bonkwell::test {

inline const std::string kData = BONKWELL_TEST_DATA "/accel/";
inline const std::string kHelper = THUZZ_DETECTOR_PATH;
inline const std::string kArgs = " --stdio --detect-only --min-amplitude 0.0500 --cooldown 750";
inline const std::string kIio = "/sys/bus/iio/devices/iio:device0";

// Runs `script` under umockdev with the given device options. The script's own exit status is
// the result's.
inline RunResult underUmockdev(const std::vector<std::string>& deviceOptions,
                               const std::string& script) {
    std::vector<std::string> argv = {"umockdev-run"};
    argv.insert(argv.end(), deviceOptions.begin(), deviceOptions.end());
    argv.insert(argv.end(), {"--", "sh", "-c", "H='" + kHelper + kArgs + "'\n" + script});
    return run(argv);
}

// Starts the helper, runs `during` while it works, stops it with `signal`, runs `after` and
// exits with the helper's status.
inline std::string whileRunning(const std::string& during, const std::string& after = "",
                                const std::string& signal = "TERM") {
    return "$H </dev/null & p=$!\nsleep 0.6\n" + during + "\nsleep 0.4\nkill -" + signal +
           " $p\nwait $p\nst=$?\n" + after + "\nexit $st\n";
}

// The recorded device `name` (tests/data/accel/NAME.umockdev).
inline std::vector<std::string> device(const std::string& name) {
    return {"-d", kData + name + ".umockdev"};
}

// The recorded lis3lv02d input device (event7), sending the events of `events`.
inline std::vector<std::string> lis3Input(const std::string& events) {
    return {"-d", kData + "lis3-like.umockdev",
            "-i", "/dev/input/event7=" + kData + "lis3-like.ioctl",
            "-e", "/dev/input/event7=" + kData + events + ".events"};
}

// The recorded HID IIO device with a buffer, streaming the scans of `script`.
inline std::vector<std::string> iioBuffer(const std::string& script) {
    return {"-d", kData + "iio-buffer-hid-like.umockdev", "-s",
            "/dev/iio:device0=" + kData + script + ".script"};
}

}  // namespace bonkwell::test

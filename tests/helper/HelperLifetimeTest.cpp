// SPDX-License-Identifier: GPL-3.0-or-later
// However the helper ends, the emulated device is left as it was: a SIGKILL or a crash of the
// reading process included. And a helper whose output nobody reads any more ends by itself.
#include "UmockdevRun.h"

#include <gtest/gtest.h>

using namespace bonkwell::test;

namespace {

// Prints "<label>:<file>=<value>" for each of the device's settings to stderr.
std::string dump(const std::string& dir, const std::string& label) {
    return "(cd " + dir + " && for f in " +
           "buffer/enable buffer/length trigger/current_trigger scan_elements/*_en "
           "sampling_frequency in_accel_sampling_frequency; do if [ -e $f ]; then echo \"" +
           label + ":$f=$(cat $f)\"; fi; done) >&2\n";
}

// The settings printed under `label`, one per line.
std::string settings(const std::string& err, const std::string& label) {
    std::string found;
    std::size_t at = 0;
    while ((at = err.find(label + ":", at)) != std::string::npos) {
        const std::size_t end = err.find('\n', at);
        found += err.substr(at + label.size() + 1, end - at - label.size());
        at = end;
    }
    return found;
}

// Starts the helper, kills it with `signal` while it reads and reports the settings before,
// during and after.
RunResult killWhileReading(const std::vector<std::string>& deviceOptions, const std::string& dir,
                           const std::string& signal) {
    return underUmockdev(deviceOptions, dump(dir, "before") + "$H </dev/null & p=$!\nsleep 0.6\n" +
                                            dump(dir, "during") + "kill -" + signal +
                                            " $p\nwait $p\nsleep 0.5\n" + dump(dir, "after"));
}

struct Device {
    std::vector<std::string> options;
    std::string dir;
    std::string changed;  // a setting that reads differently while the helper runs
};

std::vector<Device> devices() {
    return {
        {iioBuffer("iio-buffer-still"), "/sys/bus/iio/devices/iio:device0", "buffer/enable=1\n"},
        // Run as root, the helper raises this one's sampling rate from 100 to 125 Hz.
        {device("iio-poll-i2c-like"), "/sys/bus/iio/devices/iio:device0",
         "sampling_frequency=125\n"},
    };
}

}  // namespace

TEST(HelperLifetimeTest, SigkillAndCrashLeaveTheDeviceAsItWas) {
    for (const char* signal : {"KILL", "SEGV", "USR1", "ALRM"}) {
        for (const auto& device : devices()) {
            const auto r = killWhileReading(device.options, device.dir, signal);
            const std::string before = settings(r.err, "before");
            ASSERT_FALSE(before.empty()) << r.err;
            // The helper did change the device while it ran...
            EXPECT_NE(settings(r.err, "during").find(device.changed), std::string::npos)
                << signal << " " << device.options[1] << r.err;
            // ...and everything is back once it is gone, although it was given no chance.
            EXPECT_EQ(settings(r.err, "after"), before)
                << signal << " " << device.options[1] << r.err;
        }
    }
}

TEST(HelperLifetimeTest, EndsWithinASecondOnceNobodyReadsItsOutput) {
    // The reader takes the first line and goes away, as a dying app would; the device stays
    // still, so no slap ever makes the helper write again.
    const std::string dir = "/sys/bus/iio/devices/iio:device0";
    const std::string script =
        "pidfile=$(mktemp)\n"
        "sh -c 'echo $$ > '$pidfile'; exec '\"$H\"' </dev/null' | { read -r line; echo "
        "\"first=$line\" >&2; } \n"
        "p=$(cat $pidfile); rm -f $pidfile\n"
        "n=0; while kill -0 $p 2>/dev/null && [ $n -lt 10 ]; do sleep 0.1; n=$((n+1)); done\n"
        "if kill -0 $p 2>/dev/null; then echo still-running >&2; kill -KILL $p; exit 1; fi\n"
        "sleep 0.2\n" +
        dump(dir, "after");
    const auto r = underUmockdev(iioBuffer("iio-buffer-still"), script);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("first=reading iio:device0"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("still-running"), std::string::npos) << r.err;
    EXPECT_NE(settings(r.err, "after").find("buffer/enable=0\n"), std::string::npos) << r.err;
}

// SPDX-License-Identifier: GPL-3.0-or-later
// The helper on emulated sensors as they come: biased, in any orientation, slapped from the
// side; and the device rate it raises as root, put back however it ends.
#include "UmockdevRun.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

using namespace bonkwell::test;

namespace {

const bool kRoot = ::geteuid() == 0;

// The polled IIO device with its mount matrix (x' = -y, y' = -x, z' = -z, 1024 counts per g)
// lying level and reading (40, -30, 1075) mg at rest: 1.076 g long.
const std::string kBiasedLevel = "echo 31 > " + kIio + "/in_accel_x_raw; echo -41 > " + kIio +
                                 "/in_accel_y_raw; echo -1101 > " + kIio + "/in_accel_z_raw";

std::vector<std::string> iioPoll() {
    return device("iio-poll-i2c-like");
}

// Adds `counts` to a raw axis for 0.2 s.
std::string jolt(const std::string& axis, int rest, int counts) {
    const std::string file = kIio + "/in_accel_" + axis + "_raw";
    return "echo " + std::to_string(rest + counts) + " > " + file + "; sleep 0.2; echo " +
           std::to_string(rest) + " > " + file;
}

// For each way the helper is stopped: while it reads as `firstLine` says, the device's
// `setting` reads `running`; once it has ended, `after` again.
void expectChangedAndPutBackOnEverySignal(const std::vector<std::string>& deviceOptions,
                                          const std::string& setting, const std::string& firstLine,
                                          const std::string& running, const std::string& after) {
    for (const char* signal : {"TERM", "INT", "HUP"}) {
        const auto r = underUmockdev(
            deviceOptions, whileRunning("echo \"running=$(cat " + setting + ")\" >&2",
                                        "echo \"after=$(cat " + setting + ")\" >&2", signal));
        EXPECT_EQ(r.exitCode, 0) << signal << r.err;
        EXPECT_EQ(r.firstLine(), firstLine) << signal;
        EXPECT_NE(r.err.find("running=" + running + "\n"), std::string::npos) << signal << r.err;
        EXPECT_NE(r.err.find("after=" + after + "\n"), std::string::npos) << signal << r.err;
    }
}

}  // namespace

TEST(HelperSensorTest, ABiasedStillDeviceGivesNoEventOverTenSeconds) {
    const auto r = underUmockdev(iioPoll(), kBiasedLevel + "\n" + whileRunning("sleep 10"));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.firstLine().find("IIO sysfs polling"), std::string::npos) << r.out;
    EXPECT_TRUE(r.jsonLines().empty()) << r.out;
}

TEST(HelperSensorTest, ASlapAlongEachAxisGivesExactlyOneEvent) {
    // 0.15 g (154 counts) across gravity along the machine's X (raw y) and Y (raw x), and
    // along gravity (raw z), on the biased level device.
    for (const auto& [axis, rest] :
         std::vector<std::pair<std::string, int>>{{"y", -41}, {"x", 31}, {"z", -1101}}) {
        const auto r =
            underUmockdev(iioPoll(), kBiasedLevel + "\n" + whileRunning(jolt(axis, rest, -154)));
        EXPECT_EQ(r.exitCode, 0) << r.err;
        const auto events = r.jsonLines();
        ASSERT_EQ(events.size(), 1u) << axis << "\n" << r.out << r.err;
        const std::regex shape(
            R"re(\{"amplitude":0\.1[45][0-9]{2},"severity":"slap","slapNumber":1\})re");
        EXPECT_TRUE(std::regex_match(events[0], shape)) << axis << " " << events[0];
    }
}

TEST(HelperSensorTest, ASidewaysSlapOnAMachineOnItsSideGivesOneEvent) {
    // The device as it comes: gravity along the machine's X. A jolt along its Y and Z.
    for (const auto& [axis, rest] :
         std::vector<std::pair<std::string, int>>{{"x", -7}, {"z", 31}}) {
        const auto r = underUmockdev(iioPoll(), whileRunning(jolt(axis, rest, 154)));
        EXPECT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.jsonLines().size(), 1u) << axis << "\n" << r.out << r.err;
    }
}

TEST(HelperSensorTest, TheSysfsRateIsRaisedAndPutBackOnEverySignal) {
    // The highest rate offered up to 200 Hz; polled at that rate.
    expectChangedAndPutBackOnEverySignal(
        iioPoll(), kIio + "/sampling_frequency",
        std::string("reading iio:device0 (test-accel-i2c, accel-display) through the IIO sysfs "
                    "polling at ") +
            (kRoot ? "125.0" : "100.0") + " Hz",
        kRoot ? "125" : "100.000000", "100.000000");
}

TEST(HelperSensorTest, TheBufferRateIsRaisedAndPutBack) {
    const std::string rate = kIio + "/sampling_frequency";
    const auto r = underUmockdev(iioBuffer("iio-buffer-still"),
                                 "echo '5 10 20 50 100 400' > " + rate + "_available\n" +
                                     whileRunning("echo \"running=$(cat " + rate + ")\" >&2",
                                                  "echo \"after=$(cat " + rate + ") $(cat " + kIio +
                                                      "/buffer/enable)\" >&2"));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.firstLine(),
              std::string("reading iio:device0 (accel_3d) through the IIO buffer at ") +
                  (kRoot ? "100.0" : "10.0") + " Hz");
    EXPECT_NE(r.err.find(kRoot ? "running=100\n" : "running=10.000000\n"), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("after=10.000000 0\n"), std::string::npos) << r.err;
}

TEST(HelperSensorTest, TheInputDevicePollIsLoweredAndPutBackOnEverySignal) {
    expectChangedAndPutBackOnEverySignal(
        lis3Input("lis3-still"), "/sys/class/input/event7/device/poll",
        std::string("reading event7 (ST LIS3LV02DL Accelerometer) through the input device at ") +
            (kRoot ? "100.0" : "20.0") + " Hz",
        kRoot ? "10" : "50", "50");
}

TEST(HelperSensorTest, TheRateIsPutBackWhenNobodyListensAnyMore) {
    // The reader goes away; the helper notices at its next event line and ends by itself.
    const std::string rate = kIio + "/sampling_frequency";
    const std::string script =
        "d=$(mktemp -d); mkfifo $d/out\n$H </dev/null >$d/out & p=$!\nhead -n 1 <$d/out "
        ">/dev/null\nsleep 0.5\n" +
        jolt("x", -7, 300) + "\nsleep 0.5\nkill -0 $p 2>/dev/null && kill -KILL $p && exit 9\n" +
        "wait $p\nst=$?\nrm -r $d\necho \"after=$(cat " + rate + ")\" >&2\nexit $st\n";
    const auto r = underUmockdev(iioPoll(), script);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("after=100.000000\n"), std::string::npos) << r.err;
}

// SPDX-License-Identifier: GPL-3.0-or-later
// The helper against emulated accelerometers (umockdev): it finds each kind of device,
// reports a spike as exactly one JSON line, stays silent on a still device, obeys set
// commands and puts the device's settings back when it is stopped.
#include "UmockdevRun.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

using namespace bonkwell::test;

namespace {

void expectOneEvent(const RunResult& r, const std::string& severity) {
    const auto events = r.jsonLines();
    ASSERT_EQ(events.size(), 1u) << r.out << r.err;
    const std::regex shape(
        R"re(\{"amplitude":[0-9]+\.[0-9]{4},"severity":"([a-z]+)","slapNumber":1\})re");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(events[0], m, shape)) << events[0];
    EXPECT_EQ(m[1], severity);
}

// The device lying still: the helper reads it as `firstLine` says and reports nothing. Then
// with `jolt` while it runs: exactly one event of `severity`.
void expectStillThenOneEvent(const std::vector<std::string>& deviceOptions,
                             const std::string& firstLine, const std::string& jolt,
                             const std::string& severity) {
    const auto still = underUmockdev(deviceOptions, whileRunning(""));
    EXPECT_EQ(still.exitCode, 0) << still.err;
    EXPECT_EQ(still.firstLine(), firstLine);
    EXPECT_TRUE(still.jsonLines().empty()) << still.out;

    const auto spike = underUmockdev(deviceOptions, whileRunning(jolt));
    EXPECT_EQ(spike.exitCode, 0) << spike.err;
    expectOneEvent(spike, severity);
}

}  // namespace

TEST(HelperDeviceTest, LisEvdevSpikeGivesExactlyOneEvent) {
    const auto r = underUmockdev(lis3Input("lis3-like"), whileRunning(""));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    // The input device wins over the lis3lv02d position file; its 50 ms poll is 20 Hz, and
    // 10 ms (100 Hz) once root has lowered it.
    EXPECT_EQ(r.firstLine(),
              std::string("reading event7 (ST LIS3LV02DL Accelerometer) through the input device "
                          "at ") +
                  (::geteuid() == 0 ? "100.0" : "20.0") + " Hz");
    expectOneEvent(r, "wallop");
}

TEST(HelperDeviceTest, LisEvdevAtRestGivesNoEvent) {
    const auto r = underUmockdev(lis3Input("lis3-still"), whileRunning(""));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.firstLine().find("through the input device"), std::string::npos) << r.out;
    EXPECT_TRUE(r.jsonLines().empty()) << r.out;
}

TEST(HelperDeviceTest, EvdevWithOnlyAxisInfo) {
    // A recorded virtual input accelerometer that answers nothing but EVIOCGABS.
    const auto r = underUmockdev({"-d", kData + "input-accel-device", "-i",
                                  "/dev/input/event4=" + kData + "input-accel-capture.ioctl"},
                                 whileRunning(""));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.firstLine(),
              "reading event4 (iio-sensor-proxy test application) through the input device as the "
              "device reports");
    EXPECT_TRUE(r.jsonLines().empty()) << r.out;
}

TEST(HelperDeviceTest, IioSysfsWithMountMatrix) {
    const std::string z = kIio + "/in_accel_z_raw";
    // As root at the highest rate it offers up to 200 Hz. z goes from 31 to 700 counts (1024
    // per g) and back: a jolt of about 0.65 g, though |a| only grows to about 1.21 g.
    expectStillThenOneEvent(device("iio-poll-i2c-like"),
                            std::string("reading iio:device0 (test-accel-i2c, accel-display) "
                                        "through the IIO sysfs polling at ") +
                                (::geteuid() == 0 ? "125.0" : "100.0") + " Hz",
                            "echo 700 > " + z + "; sleep 0.2; echo 31 > " + z, "smack");
}

TEST(HelperDeviceTest, IioSysfsWithHidSizedValues) {
    const std::string y = kIio.substr(0, kIio.size() - 1) + "1/in_accel_y_raw";
    // -957076 × 0.00001 m/s² is 0.976 g; -1100000 is 1.12 g.
    expectStillThenOneEvent(
        device("iio-poll-hid-like"),
        "reading iio:device1 (accel_3d) through the IIO sysfs polling at 10.0 Hz",
        "echo -1100000 > " + y + "; sleep 0.25; echo -957076 > " + y, "slap");
}

TEST(HelperDeviceTest, IioBufferSpikeStillAndRestore) {
    const std::string dump = "cd " + kIio +
                             " && for f in buffer/enable buffer/length trigger/current_trigger "
                             "scan_elements/*_en; do echo \"$f=$(cat $f)\"; done >&2";
    const auto still = underUmockdev(iioBuffer("iio-buffer-still"), whileRunning("", dump));
    EXPECT_EQ(still.exitCode, 0) << still.err;
    EXPECT_EQ(still.firstLine(),
              "reading iio:device0 (accel_3d) through the IIO buffer at 10.0 Hz");
    EXPECT_TRUE(still.jsonLines().empty()) << still.out;
    // Everything the helper changed is back as it was.
    for (const char* expected :
         {"buffer/enable=0\n", "buffer/length=128\n", "trigger/current_trigger=\n",
          "scan_elements/in_accel_x_en=0\n", "scan_elements/in_accel_y_en=0\n",
          "scan_elements/in_accel_z_en=0\n", "scan_elements/in_timestamp_en=0\n"}) {
        EXPECT_NE(still.err.find(expected), std::string::npos) << expected << still.err;
    }

    const auto spike = underUmockdev(iioBuffer("iio-buffer-spike"), whileRunning("sleep 0.5"));
    EXPECT_EQ(spike.exitCode, 0) << spike.err;
    expectOneEvent(spike, "smack");
    EXPECT_NE(spike.out.find("\"amplitude\":0.6000"), std::string::npos) << spike.out;
}

TEST(HelperDeviceTest, IioBufferIsRestoredOnInterruptAndHangup) {
    for (const char* signal : {"INT", "HUP"}) {
        const auto r = underUmockdev(
            iioBuffer("iio-buffer-still"),
            whileRunning("echo \"running=$(cat " + kIio + "/buffer/enable)\" >&2",
                         "echo \"after=$(cat " + kIio + "/buffer/enable)\" >&2", signal));
        EXPECT_EQ(r.exitCode, 0) << signal << r.err;
        EXPECT_NE(r.err.find("running=1\n"), std::string::npos) << signal << r.err;
        EXPECT_NE(r.err.find("after=0\n"), std::string::npos) << signal << r.err;
    }
}

TEST(HelperDeviceTest, RecordedBufferCaptureEndToEnd) {
    // The recorded HID capture: the machine is being turned over, |a| swings from 1.03 g to
    // 1.29 g within 60 ms. Only a correct decode (mask to 16 bits, sign-extend) gives a jolt
    // of about 0.15 g between scans; trusting the 32-bit slots would give thousands of g.
    const auto r = underUmockdev(iioBuffer("orientation-left-up"), whileRunning(""));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    expectOneEvent(r, "slap");
    const auto events = r.jsonLines();
    ASSERT_FALSE(events.empty());
    const double amplitude = std::stod(events[0].substr(events[0].find(':') + 1));
    EXPECT_NEAR(amplitude, 0.15, 0.01) << events[0];
}

TEST(HelperDeviceTest, ABusyBufferFallsBackToPolling) {
    // Someone else streams the buffer: the helper moves on to the sysfs values.
    const std::string setup = "echo 1 > " + kIio + "/buffer/enable; for a in x y; do echo 0 > " +
                              kIio + "/in_accel_${a}_raw; done; echo 1000 > " + kIio +
                              "/in_accel_z_raw\n";
    const auto r = underUmockdev(
        device("iio-buffer-hid-like"),
        setup + whileRunning("", "echo \"enable=$(cat " + kIio + "/buffer/enable)\" >&2"));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.firstLine(),
              "reading iio:device0 (accel_3d) through the IIO sysfs polling at 10.0 Hz");
    // Says why it passed over the buffer, and leaves the other reader's buffer alone.
    EXPECT_NE(r.err.find("passed over: iio:device0 buffer: its buffer is already streaming to "
                         "another reader\n"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("enable=1\n"), std::string::npos) << r.err;
}

TEST(HelperDeviceTest, SetCommandOnStdinRaisesTheThreshold) {
    const std::string z = kIio + "/in_accel_z_raw";
    const std::string script =
        "{ sleep 0.3; echo 'hello'; echo '{\"cmd\":\"set\",\"amplitude\":0.9,\"cooldown\":750}'; "
        "sleep 2; } | $H & p=$!\nsleep 0.8\necho 700 > " +
        z + "; sleep 0.2; echo 31 > " + z + "\nsleep 0.3\nkill -TERM $p\nwait $p\n";
    const auto r = underUmockdev(device("iio-poll-i2c-like"), script);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.firstLine().find("IIO sysfs polling"), std::string::npos) << r.out;
    // The same 0.65 g jolt that IioSysfsWithMountMatrix reports is below the new 0.9 g.
    EXPECT_TRUE(r.jsonLines().empty()) << r.out;
}

TEST(HelperDeviceTest, NoDeviceExitsWithThree) {
    const auto r = bonkwell::test::run({"umockdev-run", "--", kHelper, "--stdio", "--detect-only",
                                        "--min-amplitude", "0.0500", "--cooldown", "750"});
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "no accelerometer found (looked for IIO devices, input devices and "
              "lis3lv02d/hdaps/applesmc position files)\n");
}

TEST(HelperDeviceTest, BadArgumentsExitWithTwo) {
    const auto r = bonkwell::test::run({kHelper, "--stdio", "--cooldown", "750"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.err.find("usage: thuzz-detector --stdio --detect-only --min-amplitude G "
                         "--cooldown MS"),
              std::string::npos)
        << r.err;
    const auto v = bonkwell::test::run({kHelper, "--version"});
    EXPECT_EQ(v.exitCode, 0);
    EXPECT_EQ(v.out.rfind("thuzz-detector ", 0), 0u);
}

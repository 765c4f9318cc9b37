// SPDX-License-Identifier: GPL-3.0-or-later
// The in-process detector on emulated accelerometers (umockdev testbed; the program runs
// under umockdev-wrapper): samples converted to 1/1024 g with scale, offset and mount matrix,
// a spike gives exactly one slap, a still device none, and reads happen off the main thread.
#include "AccelerometerReader.h"
#include "SlapDetector.h"

#include "TestSupport.h"
#include "UmockdevSupport.h"

#include <gtest/gtest.h>
#include <umockdev.h>

#include <QCoreApplication>
#include <QThread>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

const std::string kData = BONKWELL_TEST_DATA "/accel/";

class AccelerometerReaderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* preload = std::getenv("LD_PRELOAD");
        ASSERT_TRUE(preload && std::strstr(preload, "libumockdev-preload"))
            << "run this program under umockdev-wrapper (package umockdev)";
        detector.setOnMagnitudeSample([this](double m) {
            ++samples;
            lastMagnitude = m;
        });
        detector.setOnSlap([this](double m) { slaps.push_back(m); });
    }
    void TearDown() override { detector.stop(); }

    // The reader hands on each sample scaled so that the length at rest reads 1 g: the
    // direction of (x, y, z) kept, the length 1 (to within a count per axis).
    void expectCalibrated(double x, double y, double z) {
        const double length = std::sqrt(x * x + y * y + z * z);
        const double count = 1.0 / 1024;
        EXPECT_NEAR(detector.lastX(), x / length, count);
        EXPECT_NEAR(detector.lastY(), y / length, count);
        EXPECT_NEAR(detector.lastZ(), z / length, count);
        EXPECT_LT(lastMagnitude, 2 * count);
    }

    test::LogCapture logs;
    SlapDetector detector;
    int samples = 0;
    double lastMagnitude = -1;
    std::vector<double> slaps;
};

}  // namespace

TEST_F(AccelerometerReaderTest, AppliesScaleAndMountMatrix) {
    Testbed bed;
    bed.addFile(kData + "iio-poll-i2c-like.umockdev");
    detector.start();
    ASSERT_TRUE(spinUntil([&] { return samples >= 3; }, 3.0));
    // raw (-7, -1019, 31) at 1024 counts per g, turned by "0, -1, 0; -1, 0, 0; 0, 0, -1",
    // then scaled so that its length at rest reads 1 g.
    expectCalibrated(1019, 7, -31);
    EXPECT_TRUE(
        logs.lines().contains(QStringLiteral("Bonkwell: matched 1 accelerometer device(s)")));
}

TEST_F(AccelerometerReaderTest, AppliesTinyHidScales) {
    Testbed bed;
    bed.addFile(kData + "iio-poll-hid-like.umockdev");
    detector.start();
    ASSERT_TRUE(spinUntil([&] { return samples >= 2; }, 3.0));
    // raw × 0.00001 m/s² ÷ 9.80665 m/s² per g × 1024: (-5, -999, -217), calibrated.
    expectCalibrated(-5, -999, -217);
}

TEST_F(AccelerometerReaderTest, ReadsTheLisPositionFile) {
    Testbed bed;
    bed.addFile(kData + "lis3-like.umockdev");
    detector.start();
    ASSERT_TRUE(spinUntil([&] { return samples >= 3; }, 3.0));
    // (-18,12,1002) milli-g, calibrated.
    expectCalibrated(-18, 12, 1002);
    // The input device and the position file are the same accelerometer.
    EXPECT_TRUE(
        logs.lines().contains(QStringLiteral("Bonkwell: matched 1 accelerometer device(s)")));
}

TEST_F(AccelerometerReaderTest, ReadsTheAppleSmcPositionFile) {
    Testbed bed;
    bed.addString(
        "P: /devices/platform/applesmc.768\nE: SUBSYSTEM=platform\n"
        "A: position=(10,-5,250)\\n\n");
    detector.start();
    ASSERT_TRUE(spinUntil([&] { return samples >= 2; }, 3.0));
    // About 256 counts per g: (40, -20, 1000) / 1024 g, calibrated.
    expectCalibrated(40, -20, 1000);
}

TEST_F(AccelerometerReaderTest, TwoAxisHdapsLetsZCarryGravity) {
    Testbed bed;
    bed.addString(
        "P: /devices/platform/hdaps\nE: SUBSYSTEM=platform\n"
        "A: position=(510,498)\\n\n");
    detector.start();
    ASSERT_TRUE(spinUntil([&] { return samples >= 2; }, 3.0));
    // Measured from the first reading; at rest that is 1 g on the missing axis.
    EXPECT_DOUBLE_EQ(detector.lastX(), 0.0);
    EXPECT_DOUBLE_EQ(detector.lastY(), 0.0);
    EXPECT_DOUBLE_EQ(detector.lastZ(), 1.0);
    EXPECT_DOUBLE_EQ(lastMagnitude, 0.0);
}

TEST_F(AccelerometerReaderTest, ASpikeGivesExactlyOneSlapAndStillnessNone) {
    Testbed bed;
    bed.addFile(kData + "iio-poll-i2c-like.umockdev");
    detector.start();
    spinFor(1.3);            // unwatched, quiet samples come once a second
    EXPECT_GT(samples, 60);  // about 100 Hz
    EXPECT_TRUE(slaps.empty());
    EXPECT_LT(lastMagnitude, 0.01);

    // Written in place, as sysfs changes: the reader keeps its descriptors open.
    writeInPlace("/sys/bus/iio/devices/iio:device0/in_accel_z_raw", "700");  // about 1.21 g
    spinFor(0.25);
    writeInPlace("/sys/bus/iio/devices/iio:device0/in_accel_z_raw", "31");
    spinFor(0.5);
    ASSERT_EQ(slaps.size(), 1u);
    EXPECT_NEAR(slaps[0], 0.21, 0.01);
    EXPECT_EQ(detector.slapCount(), 1);
}

namespace {

// A polled IIO accelerometer at 100 Hz and 1024 counts per g whose zero-g offsets are
// `x`, `y`, `z` counts, lying flat and still: what a new user's machine looks like.
std::string biasedStillDevice(int x, int y, int z) {
    return "P: /devices/platform/test-i2c/i2c-TEST0300:00/iio:device0\nN: iio:device0\n"
           "E: DEVNAME=/dev/iio:device0\nE: DEVTYPE=iio_device\nE: SUBSYSTEM=iio\n"
           "A: dev=250:0\\n\nA: name=test-accel-biased\\n\n"
           "A: in_accel_x_raw=" +
           std::to_string(x) + "\\n\nA: in_accel_y_raw=" + std::to_string(y) +
           "\\n\nA: in_accel_z_raw=" + std::to_string(z) +
           "\\n\n"
           "A: in_accel_scale=0.009576806\\n\nA: sampling_frequency=100.000000\\n\n";
}

}  // namespace

// 40, -30 and 1075 mg: within what common chips specify after mounting, and 0.075 g off at
// rest, which the plain rule would call a slap every cooldown from the first sample on.
TEST_F(AccelerometerReaderTest, ABiasedStillDeviceCountsNothingForTenSeconds) {
    Testbed bed;
    bed.addString(biasedStillDevice(41, -31, 1101));
    detector.start();
    spinFor(10.0);
    EXPECT_GT(samples, 500);  // about 100 Hz, all of them looked at
    EXPECT_TRUE(slaps.empty()) << slaps.size() << " slaps, the first " << slaps.front();
    EXPECT_EQ(detector.slapCount(), 0);
    EXPECT_LT(lastMagnitude, 0.005);
}

// The other way round, and more: (-100, 100, -900) mg reads 0.911 g at rest.
TEST_F(AccelerometerReaderTest, ALightSensorUpsideDownCountsNothingEither) {
    Testbed bed;
    bed.addString(biasedStillDevice(-102, 102, -922));
    detector.start();
    spinFor(5.0);
    EXPECT_GT(samples, 250);
    EXPECT_TRUE(slaps.empty()) << slaps.size() << " slaps";
}

TEST_F(AccelerometerReaderTest, ASlapOnABiasedDeviceStillCountsOnce) {
    Testbed bed;
    bed.addString(biasedStillDevice(41, -31, 1101));
    detector.start();
    spinFor(1.3);
    ASSERT_TRUE(slaps.empty());
    // 1.4 g for a moment where 1.077 g is rest: a jolt of about 0.3 g.
    writeInPlace("/sys/bus/iio/devices/iio:device0/in_accel_z_raw", "1434");
    spinFor(0.1);
    writeInPlace("/sys/bus/iio/devices/iio:device0/in_accel_z_raw", "1101");
    spinFor(0.8);
    ASSERT_EQ(slaps.size(), 1u);
    EXPECT_NEAR(slaps[0], 1.4014 / 1.0774 - 1.0, 0.01);
}

// Samples that cannot be a slap at the current threshold spare the main thread a wake-up
// each: they arrive a few at a time. Samples above it arrive one by one, as read.
TEST_F(AccelerometerReaderTest, QuietSamplesArriveInGroupsLoudOnesAtOnce) {
    Testbed bed;
    bed.addFile(kData + "iio-poll-i2c-like.umockdev");
    int loud = 0;
    detector.setOnMagnitudeSample([&](double m) {
        ++samples;
        loud += m > 0.05 ? 1 : 0;
    });
    detector.setMinAmplitude(0.05);
    detector.addLiveViewer();  // a live graph is open: quiet samples come within 50 ms
    detector.start();
    // Counts the main-loop turns that brought samples (and loud samples).
    auto turnsWithSamples = [&](double seconds, int& turns, int& loudTurns) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            const int before = samples;
            const int loudBefore = loud;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            turns += samples > before ? 1 : 0;
            loudTurns += loud > loudBefore ? 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    ASSERT_TRUE(spinUntil([&] { return samples >= 1; }, 3.0));
    int turns = 0;
    int loudTurns = 0;
    const int quietBefore = samples;
    turnsWithSamples(1.0, turns, loudTurns);
    const int quiet = samples - quietBefore;
    EXPECT_GT(quiet, 50);  // about 100 Hz
    EXPECT_EQ(loud, 0);
    EXPECT_LT(turns * 3, quiet) << turns << " deliveries for " << quiet << " samples";

    writeInPlace("/sys/bus/iio/devices/iio:device0/in_accel_z_raw", "700");
    turns = 0;
    turnsWithSamples(0.3, turns, loudTurns);
    writeInPlace("/sys/bus/iio/devices/iio:device0/in_accel_z_raw", "31");
    spinFor(0.2);
    EXPECT_GT(loud, 15);
    // Grouped they would come about five to a turn.
    EXPECT_GT(loudTurns * 2, loud) << loudTurns << " deliveries for " << loud << " loud samples";
    EXPECT_EQ(slaps.size(), 1u);
    detector.removeLiveViewer();
}

TEST_F(AccelerometerReaderTest, UnwatchedQuietSamplesComeOnceASecondAndSlapsAtOnce) {
    Testbed bed;
    bed.addFile(kData + "iio-poll-i2c-like.umockdev");
    // Each main-loop turn that brings samples, with the time it did.
    std::vector<double> deliveries;
    const auto began = std::chrono::steady_clock::now();
    auto secondsSince = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    };
    int turnSamples = 0;
    detector.setOnMagnitudeSample([&](double) {
        ++samples;
        ++turnSamples;
    });
    detector.setMinAmplitude(0.05);
    detector.start();
    auto spinNoting = [&](double seconds) {
        const double end = secondsSince() + seconds;
        while (secondsSince() < end) {
            turnSamples = 0;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            if (turnSamples > 0) {
                deliveries.push_back(secondsSince());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    spinNoting(3.2);
    EXPECT_GT(samples, 200);  // every sample still arrives, about 100 a second
    ASSERT_GE(deliveries.size(), 2u);
    EXPECT_LE(deliveries.size(), 4u) << deliveries.size() << " deliveries in 3.2 s";
    for (std::size_t i = 1; i < deliveries.size(); ++i) {
        EXPECT_GT(deliveries[i] - deliveries[i - 1], 0.8);
    }

    // A slap does not wait for the batch.
    const double spikeAt = secondsSince();
    writeInPlace("/sys/bus/iio/devices/iio:device0/in_accel_z_raw", "700");
    ASSERT_TRUE(spinUntil([&] { return !slaps.empty(); }, 0.5));
    EXPECT_LT(secondsSince() - spikeAt, 0.3);
    writeInPlace("/sys/bus/iio/devices/iio:device0/in_accel_z_raw", "31");

    // Opening a live view brings quiet samples within 50 ms again.
    spinFor(1.2);
    detector.addLiveViewer();
    spinFor(0.2);  // the batch that was waiting
    deliveries.clear();
    spinNoting(1.0);
    EXPECT_GE(deliveries.size(), 10u) << deliveries.size() << " deliveries in 1 s, watched";
    detector.removeLiveViewer();
    EXPECT_EQ(detector.liveViewers(), 0);
}

TEST_F(AccelerometerReaderTest, NoSamplesAfterStop) {
    Testbed bed;
    bed.addFile(kData + "iio-poll-i2c-like.umockdev");
    detector.start();
    ASSERT_TRUE(spinUntil([&] { return samples >= 3; }, 3.0));
    detector.stop();
    const int before = samples;
    spinFor(0.2);
    EXPECT_EQ(samples, before);
    EXPECT_FALSE(detector.isListening());
}

TEST_F(AccelerometerReaderTest, NoDeviceIsLogged) {
    Testbed bed;  // an empty machine
    detector.start();
    EXPECT_TRUE(detector.isListening());
    EXPECT_TRUE(
        logs.lines().contains(QStringLiteral("Bonkwell: matched 0 accelerometer device(s)")));
    EXPECT_TRUE(logs.lines().contains(QStringLiteral(
        "Bonkwell: This machine doesn't expose an accelerometer through IIO or the input "
        "subsystem. Detection won't fire automatically — use the Test / simulate path. The full "
        "UI is still functional.")));
}

TEST_F(AccelerometerReaderTest, AnUnusableDeviceIsLoggedAsAnOpeningFailure) {
    Testbed bed;
    bed.addString(
        "P: /devices/platform/broken/iio:device0\nN: iio:device0\nE: SUBSYSTEM=iio\n"
        "A: dev=250:0\\n\nA: name=broken\\n\nA: in_accel_x_raw=1\\n\nA: in_accel_y_raw=2\\n\n"
        "A: in_accel_z_raw=3\\n\n");
    detector.start();
    EXPECT_TRUE(detector.isListening());
    EXPECT_TRUE(logs.lines().contains(QStringLiteral(
        "Bonkwell: opening the accelerometer failed (iio:device0: no usable in_accel_scale). "
        "Accelerometer unavailable.")))
        << logs.lines().join(QLatin1Char('\n')).toStdString();
    EXPECT_TRUE(
        logs.lines().contains(QStringLiteral("Bonkwell: matched 1 accelerometer device(s)")));
}

namespace {

// Counts up in X; notes the thread it is read on.
class CountingSource final : public accel::SampleSource {
  public:
    explicit CountingSource(std::atomic<bool>* onMainThread)
        : SampleSource(accel::SourceKind::iioPoll, "counting", 100.0), onMain_(onMainThread) {}
    int waitFd() const override { return -1; }
    bool read(std::vector<accel::Sample>& out, std::string&) override {
        if (QThread::currentThread() == QCoreApplication::instance()->thread()) {
            onMain_->store(true);
        }
        out.push_back(accel::Sample{accel::Vec3{next_++ / 1024.0, 0, 1.0}, 0});
        return true;
    }

  private:
    std::atomic<bool>* onMain_;
    int next_ = 0;
};

}  // namespace

TEST(AccelerometerReaderThreadTest, ReadsOffTheMainThreadAndDeliversInOrder) {
    std::atomic<bool> readOnMain{false};
    std::vector<int> xs;
    AccelerometerReader reader(std::make_unique<CountingSource>(&readOnMain),
                               [&](std::int16_t x, std::int16_t, std::int16_t z) {
                                   EXPECT_EQ(QThread::currentThread(),
                                             QCoreApplication::instance()->thread());
                                   EXPECT_EQ(z, 1024);
                                   xs.push_back(x);
                               });
    ASSERT_TRUE(spinUntil([&] { return xs.size() >= 20; }, 3.0));
    reader.stop();
    EXPECT_FALSE(readOnMain.load());
    for (std::size_t i = 0; i < xs.size(); ++i) {
        EXPECT_EQ(xs[i], static_cast<int>(i));
    }
}

namespace {

// A device that reports once a second.
class SlowSource final : public accel::SampleSource {
  public:
    SlowSource() : SampleSource(accel::SourceKind::iioPoll, "slow", 1.0) {}
    int waitFd() const override { return -1; }
    bool read(std::vector<accel::Sample>& out, std::string&) override {
        out.push_back(accel::Sample{accel::Vec3{0, 0, 1.0}, 0});
        return true;
    }
};

}  // namespace

TEST(AccelerometerReaderThreadTest, StopIsQuickEvenBetweenSlowSamples) {
    int delivered = 0;
    AccelerometerReader reader(std::make_unique<SlowSource>(),
                               [&](std::int16_t, std::int16_t, std::int16_t) { ++delivered; });
    ASSERT_TRUE(spinUntil([&] { return delivered >= 1; }, 3.0));
    spinFor(0.3);  // well inside the second until the next sample
    const auto began = std::chrono::steady_clock::now();
    reader.stop();
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    EXPECT_LT(took, 0.2);  // the reader hears it within 50 ms, not at the next sample
    const int before = delivered;
    spinFor(1.2);
    EXPECT_EQ(delivered, before);
}

TEST(AccelerometerReaderThreadTest, ConvertsToClampedCounts) {
    EXPECT_EQ(AccelerometerReader::toCounts(1.0), 1024);
    EXPECT_EQ(AccelerometerReader::toCounts(-0.5), -512);
    EXPECT_EQ(AccelerometerReader::toCounts(0.0004), 0);
    EXPECT_EQ(AccelerometerReader::toCounts(0.0005), 1);
    EXPECT_EQ(AccelerometerReader::toCounts(100.0), 32767);
    EXPECT_EQ(AccelerometerReader::toCounts(-100.0), -32768);
    EXPECT_EQ(AccelerometerReader::toCounts(NAN), 0);
}

// SPDX-License-Identifier: GPL-3.0-or-later
#include "SlapDetector.h"

#include "ManualClock.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using namespace bonkwell;

namespace {

constexpr std::int64_t kPage = SlapDetector::kSensorUsagePage;

// An opener that finds nothing, counting its calls.
struct FakeOpener {
    int* calls;
    int matched = 0;
    std::string error;
    AccelerometerOpenResult operator()() const {
        ++*calls;
        AccelerometerOpenResult r;
        r.matched = matched;
        r.error = error;
        return r;
    }
};

class SlapDetectorTest : public ::testing::Test {
  protected:
    void sample(double xg, double yg, double zg) {
        detector.handleValue(kPage, SlapDetector::kAccelXUsage, std::lround(xg * 1024));
        detector.handleValue(kPage, SlapDetector::kAccelYUsage, std::lround(yg * 1024));
        detector.handleValue(kPage, SlapDetector::kAccelZUsage, std::lround(zg * 1024));
    }
    void zCounts(std::int64_t z) {
        detector.handleValue(kPage, SlapDetector::kAccelXUsage, 0);
        detector.handleValue(kPage, SlapDetector::kAccelYUsage, 0);
        detector.handleValue(kPage, SlapDetector::kAccelZUsage, z);
    }

    test::LogCapture logs;
    test::ManualClock clock;
    int openerCalls = 0;
    SlapDetector detector{clock, FakeOpener{&openerCalls, 0, {}}};
    std::vector<double> magnitudes;
    std::vector<double> slaps;

    void SetUp() override {
        detector.setOnMagnitudeSample([this](double m) { magnitudes.push_back(m); });
        detector.setOnSlap([this](double m) { slaps.push_back(m); });
    }
};

}  // namespace

TEST_F(SlapDetectorTest, StartsWithTheDocumentedDefaults) {
    SlapDetector fresh(clock, FakeOpener{&openerCalls, 0, {}});
    EXPECT_DOUBLE_EQ(fresh.minAmplitude(), 0.05);
    EXPECT_DOUBLE_EQ(fresh.cooldown(), 0.75);
    EXPECT_EQ(fresh.slapCount(), 0);
    EXPECT_FALSE(fresh.isListening());
    EXPECT_EQ(SlapDetector::kAccel3DUsage, 0x73);
    EXPECT_EQ(SlapDetector::kAccelXUsage, 0x453);
}

TEST_F(SlapDetectorTest, MagnitudeIsTheDistanceFromOneG) {
    sample(0, 0, 1.0);
    sample(0, 0, 1.3);
    sample(0, 0, 0);
    sample(0.6, 0.8, 0);  // lying on its side: still 1 g
    ASSERT_EQ(magnitudes.size(), 4u);
    EXPECT_DOUBLE_EQ(magnitudes[0], 0.0);
    EXPECT_NEAR(magnitudes[1], 0.3, 1.0 / 1024);
    EXPECT_DOUBLE_EQ(magnitudes[2], 1.0);  // free fall reads as a full jolt
    EXPECT_NEAR(magnitudes[3], 0.0, 2.0 / 1024);
}

TEST_F(SlapDetectorTest, RawValuesAreSigned16BitCountsOf1024thG) {
    detector.handleValue(kPage, SlapDetector::kAccelZUsage, 0xFC00);
    EXPECT_DOUBLE_EQ(detector.lastZ(), -1.0);
    detector.handleValue(kPage, SlapDetector::kAccelZUsage, 1024);
    EXPECT_DOUBLE_EQ(detector.lastZ(), 1.0);
    detector.handleValue(kPage, SlapDetector::kAccelXUsage, 65536 + 512);
    EXPECT_DOUBLE_EQ(detector.lastX(), 0.5);
    detector.handleValue(kPage, SlapDetector::kAccelYUsage, -2048);
    EXPECT_DOUBLE_EQ(detector.lastY(), -2.0);
}

TEST_F(SlapDetectorTest, ThresholdIsStrictlyAbove) {
    // 1075/1024 g is 0.0498 g beyond gravity, 1076/1024 g is 0.0508 g.
    zCounts(1075);
    zCounts(1076);
    test::drainMainQueue();
    ASSERT_EQ(slaps.size(), 1u);
    EXPECT_DOUBLE_EQ(slaps[0], 52.0 / 1024);

    // A magnitude exactly equal to the threshold is not a slap; just above it is.
    clock.advance(10);
    detector.setMinAmplitude(52.0 / 1024);
    zCounts(1076);
    test::drainMainQueue();
    EXPECT_EQ(slaps.size(), 1u);
    detector.setMinAmplitude(52.0 / 1024 - 0.0001);
    zCounts(1076);
    test::drainMainQueue();
    EXPECT_EQ(slaps.size(), 2u);
}

TEST_F(SlapDetectorTest, ThresholdOfPointZeroFiveAgainstMagnitudes) {
    // 0.05 g exactly is not a slap, 0.0501 is (magnitudes reached with a tilted 1 g vector).
    detector.setMinAmplitude(0.05);
    std::vector<double> seen;
    detector.setOnMagnitudeSample([&](double m) { seen.push_back(m); });
    zCounts(1024 + 51);  // 0.0498
    zCounts(1024 + 52);  // 0.0508
    test::drainMainQueue();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_LE(seen[0], 0.05);
    EXPECT_GT(seen[1], 0.0501);
    EXPECT_EQ(slaps.size(), 1u);
}

TEST_F(SlapDetectorTest, CooldownIsStrictlyAbove) {
    zCounts(2048);
    clock.advance(0.75);
    zCounts(2048);  // exactly one cooldown later: dropped
    test::drainMainQueue();
    EXPECT_EQ(slaps.size(), 1u);

    clock.advance(10);
    slaps.clear();
    zCounts(2048);
    clock.advance(0.76);
    zCounts(2048);
    test::drainMainQueue();
    EXPECT_EQ(slaps.size(), 2u);
}

TEST_F(SlapDetectorTest, ADroppedSlapDoesNotExtendTheCooldown) {
    zCounts(2048);
    clock.advance(0.5);
    zCounts(2048);  // dropped
    clock.advance(0.3);
    zCounts(2048);  // 0.8 s after the first: counts
    test::drainMainQueue();
    EXPECT_EQ(slaps.size(), 2u);
}

TEST_F(SlapDetectorTest, XAndYAloneNeverEvaluate) {
    detector.handleValue(kPage, SlapDetector::kAccelXUsage, 4096);
    detector.handleValue(kPage, SlapDetector::kAccelYUsage, 4096);
    detector.handleValue(kPage, 0x456, 4096);  // some other sensor usage
    test::drainMainQueue();
    EXPECT_TRUE(magnitudes.empty());
    EXPECT_TRUE(slaps.empty());
}

TEST_F(SlapDetectorTest, OtherUsagePagesAreIgnored) {
    detector.handleValue(1, SlapDetector::kAccelZUsage, 4096);
    detector.handleValue(0x21, SlapDetector::kAccelZUsage, 4096);
    test::drainMainQueue();
    EXPECT_TRUE(magnitudes.empty());
    EXPECT_DOUBLE_EQ(detector.lastZ(), 0.0);
}

TEST_F(SlapDetectorTest, TheSlapTakesOneHopToTheMainQueue) {
    std::vector<std::int64_t> counts;
    auto sub = detector.observeSlapCount([&](const std::int64_t& c) { counts.push_back(c); });
    detector.setOnSlap([&](double m) {
        slaps.push_back(m);
        EXPECT_EQ(detector.slapCount(), 1);  // counted before the callback runs
    });
    zCounts(2048);
    EXPECT_EQ(detector.slapCount(), 0);
    EXPECT_TRUE(slaps.empty());
    ASSERT_EQ(magnitudes.size(), 1u);  // the graph sample is synchronous
    test::drainMainQueue();
    EXPECT_EQ(detector.slapCount(), 1);
    EXPECT_EQ(slaps, std::vector<double>{1.0});
    EXPECT_EQ(counts, (std::vector<std::int64_t>{0, 1}));
}

TEST_F(SlapDetectorTest, NoQueuedSlapReachesADestroyedDetector) {
    int called = 0;
    {
        SlapDetector gone(clock, FakeOpener{&openerCalls, 0, {}});
        gone.setOnSlap([&](double) { ++called; });
        gone.handleValue(kPage, SlapDetector::kAccelZUsage, 4096);
    }
    test::drainMainQueue();
    EXPECT_EQ(called, 0);
}

TEST_F(SlapDetectorTest, StartTwiceOpensOnceAndStopTwiceIsHarmless) {
    std::vector<bool> states;
    auto sub = detector.observeIsListening([&](const bool& b) { states.push_back(b); });
    detector.start();
    detector.start();
    EXPECT_EQ(openerCalls, 1);
    EXPECT_TRUE(detector.isListening());
    detector.stop();
    detector.stop();
    EXPECT_FALSE(detector.isListening());
    EXPECT_EQ(states, (std::vector<bool>{false, true, false}));
    detector.start();
    EXPECT_EQ(openerCalls, 2);
    detector.stop();
}

TEST_F(SlapDetectorTest, StopBeforeStartDoesNothing) {
    std::vector<bool> states;
    auto sub = detector.observeIsListening([&](const bool& b) { states.push_back(b); });
    detector.stop();
    EXPECT_EQ(states, std::vector<bool>{false});
}

TEST_F(SlapDetectorTest, NoDeviceIsLoggedAndStillListens) {
    detector.start();
    EXPECT_TRUE(detector.isListening());
    EXPECT_EQ(logs.lines(),
              QStringList({QStringLiteral("Bonkwell: matched 0 accelerometer device(s)"),
                           QStringLiteral("Bonkwell: This machine doesn't expose an accelerometer "
                                          "through IIO or the input subsystem. Detection won't "
                                          "fire automatically — use the Test / simulate path. "
                                          "The full UI is still functional.")}));
    detector.stop();
}

TEST_F(SlapDetectorTest, WhenOpeningFailsItStillListens) {
    SlapDetector failing(clock,
                         FakeOpener{&openerCalls, 1, "iio:device0: Device or resource busy"});
    failing.start();
    EXPECT_TRUE(failing.isListening());
    EXPECT_EQ(logs.lines(),
              QStringList({QStringLiteral("Bonkwell: opening the accelerometer failed "
                                          "(iio:device0: Device or resource busy). Accelerometer "
                                          "unavailable."),
                           QStringLiteral("Bonkwell: matched 1 accelerometer device(s)")}));
    failing.stop();
    EXPECT_FALSE(failing.isListening());
}

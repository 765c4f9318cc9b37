// SPDX-License-Identifier: GPL-3.0-or-later
#include "PlaybackMath.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

namespace sound = bonkwell::sound;
using bonkwell::Date;

namespace {

TEST(EscalationIndex, ExampleScoresForEightFiles) {
    EXPECT_EQ(sound::escalationIndex(5, 8, 0.75), 1U);
    EXPECT_EQ(sound::escalationIndex(10, 8, 0.75), 2U);
    EXPECT_EQ(sound::escalationIndex(20, 8, 0.75), 4U);
    EXPECT_EQ(sound::escalationIndex(40, 8, 0.75), 6U);
}

TEST(EscalationIndex, ExampleScoresForFourFiles) {
    EXPECT_EQ(sound::escalationIndex(20, 4, 0.75), 1U);
    EXPECT_EQ(sound::escalationIndex(40, 4, 0.75), 2U);
}

TEST(EscalationIndex, FirstSlapIsTheFirstFileAndHugeScoresTheLast) {
    EXPECT_EQ(sound::escalationIndex(1, 8, 0.75), 0U);
    EXPECT_EQ(sound::escalationIndex(0, 8, 0.75), 0U);  // below 1 is clamped up to 0
    EXPECT_EQ(sound::escalationIndex(1e6, 8, 0.75), 7U);
    EXPECT_EQ(sound::escalationIndex(1e6, 1, 0.75), 0U);
}

TEST(EscalationIndex, TinySteadyScoreUsesTheFloorOfK) {
    // A zero cooldown makes the steady score infinite; a huge one makes it 1 (k floored).
    EXPECT_EQ(sound::escalationIndex(1.00001, 8, 1e9), 0U);
    EXPECT_EQ(sound::escalationIndex(2, 8, 1e9), 7U);
}

using EscalationIndexDeathTest = ::testing::Test;

TEST_F(EscalationIndexDeathTest, EmptyPackStopsTheProcess) {
    EXPECT_DEATH(sound::escalationIndex(3, 0, 0.75), "empty pack");
}

TEST_F(EscalationIndexDeathTest, NonFiniteScoreStopsTheProcess) {
    EXPECT_DEATH(sound::escalationIndex(std::numeric_limits<double>::quiet_NaN(), 8, 0.75),
                 "out of range");
    EXPECT_DEATH(sound::escalationIndex(-1e300, 8, 0.75), "out of range");
}

TEST_F(EscalationIndexDeathTest, RandomFromEmptyPackStopsTheProcess) {
    EXPECT_DEATH(sound::secureRandomIndex(0), "empty pack");
}

TEST(EscalationTracker, FirstSlapScoresOne) {
    sound::EscalationTracker tracker;
    tracker.countSlap(Date{1000});
    EXPECT_DOUBLE_EQ(tracker.score, 1.0);
    EXPECT_EQ(tracker.lastTime, Date{1000});
}

TEST(EscalationTracker, ThirtySecondsHalveTheScoreBeforeTheSlapCounts) {
    sound::EscalationTracker tracker{9.0, Date{1000}};
    tracker.countSlap(Date{1030});
    EXPECT_DOUBLE_EQ(tracker.score, 5.5);
    EXPECT_EQ(tracker.lastTime, Date{1030});
}

TEST(EscalationTracker, ResetEmptiesIt) {
    sound::EscalationTracker tracker{12.0, Date{1000}};
    tracker.reset();
    EXPECT_EQ(tracker.score, 0.0);
    EXPECT_FALSE(tracker.lastTime.has_value());
    tracker.countSlap(Date{5000});
    EXPECT_DOUBLE_EQ(tracker.score, 1.0);
}

TEST(EscalationTracker, EndlessSlapsSettleAtTheSteadyScore) {
    sound::EscalationTracker tracker;
    for (int i = 0; i < 5000; ++i) {
        tracker.countSlap(Date{0.75 * i});
    }
    EXPECT_NEAR(tracker.score, 58.21, 0.01);
}

TEST(SecureRandomIndex, StaysInRangeAndReachesEveryIndex) {
    std::set<std::size_t> seen;
    for (int i = 0; i < 400; ++i) {
        const std::size_t index = sound::secureRandomIndex(4);
        ASSERT_LT(index, 4U);
        seen.insert(index);
    }
    EXPECT_EQ(seen.size(), 4U);
    EXPECT_EQ(sound::secureRandomIndex(1), 0U);
}

TEST(Volume, ScalingFollowsTheAmplitudeCurve) {
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, 1.0, true), 0.125F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.0, 1.0, true), 0.125F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.8, 1.0, true), 1.0F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(3.0, 1.0, true), 1.0F);
    EXPECT_NEAR(sound::playbackVolume(0.1, 1.0, true), 0.51, 0.01);
    EXPECT_NEAR(sound::playbackVolume(0.2, 1.0, true), 0.70, 0.01);
    EXPECT_NEAR(sound::playbackVolume(0.5, 1.0, true), 0.90, 0.01);
}

TEST(Volume, CurveIsExactAtAPoint) {
    const double t = (0.3 - 0.05) / 0.75;
    const double expected = 0.125 + 0.875 * std::log(1 + 99 * t) / std::log(100.0);
    EXPECT_NEAR(sound::amplitudeFactor(0.3), expected, 1e-6);
    EXPECT_NEAR(sound::playbackVolume(0.3, 0.5, true), expected * 0.5, 1e-6);
}

TEST(Volume, UserVolumeIsLimitedAndScalingOffIgnoresAmplitude) {
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, 1.5, false), 1.0F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, 0.3, false), 0.3F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, -0.5, false), 0.0F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.8, -0.5, true), 0.0F);
    // Volumes above 1 make up for a small factor, up to 2.
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, 2.0, true), 0.25F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, 7.0, true), 0.25F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, 1.5, true), 0.1875F);
}

TEST(Volume, NotANumberIsHandled) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, nan, true), 0.25F);  // NaN volume reads as 2
    EXPECT_FLOAT_EQ(sound::playbackVolume(0.05, nan, false), 1.0F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(nan, 1.0, true), 0.0F);
    EXPECT_FLOAT_EQ(sound::playbackVolume(std::numeric_limits<double>::infinity(), 1.0, true),
                    1.0F);
}

}  // namespace

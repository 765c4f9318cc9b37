// SPDX-License-Identifier: GPL-3.0-or-later
#include "ImpactDetector.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

using bonkwell::thuzz::Impact;
using bonkwell::thuzz::ImpactDetector;
using bonkwell::thuzz::severityFor;

namespace {

constexpr double kRate = 100.0;

// Feeds `seconds` of |a| samples at 100 Hz from `start`; `value(t)` gives |a| in g.
template <typename F>
std::vector<Impact> feed(ImpactDetector& d, double start, double seconds, F value) {
    std::vector<Impact> impacts;
    const int n = static_cast<int>(std::lround(seconds * kRate));
    for (int i = 0; i < n; ++i) {
        const double t = start + i / kRate;
        if (auto impact = d.addSample(t, value(t))) {
            impacts.push_back(*impact);
        }
    }
    return impacts;
}

// 1 g with a little sensor noise.
struct Rest {
    std::mt19937 rng{42};
    std::normal_distribution<double> noise{0.0, 0.003};
    double operator()(double) { return 1.0 + noise(rng); }
};

}  // namespace

TEST(ImpactDetectorTest, AStillMachineGivesNoSlaps) {
    ImpactDetector d(0.05, 0.75);
    Rest rest;
    EXPECT_TRUE(feed(d, 0, 30, rest).empty());
}

TEST(ImpactDetectorTest, ASpikeGivesExactlyOneSlapWithItsPeak) {
    ImpactDetector d(0.05, 0.75);
    Rest rest;
    feed(d, 0, 5, rest);
    auto impacts = feed(d, 5, 2, [&](double t) {
        if (std::fabs(t - 6.0) < 1e-6) {
            return 1.4;
        }
        if (std::fabs(t - 6.01) < 1e-6) {
            return 1.5;  // the peak comes one sample after the rise
        }
        if (std::fabs(t - 6.02) < 1e-6) {
            return 0.8;  // rebound
        }
        return rest(t);
    });
    ASSERT_EQ(impacts.size(), 1u);
    EXPECT_NEAR(impacts[0].amplitude, 0.5, 0.02);
    EXPECT_EQ(impacts[0].severity, "smack");
    EXPECT_EQ(impacts[0].slapNumber, 1);
    EXPECT_NEAR(impacts[0].onsetTime, 6.0, 1e-9);
    EXPECT_LE(impacts[0].reportTime - impacts[0].onsetTime, ImpactDetector::kPeakWindow + 1e-9);
}

TEST(ImpactDetectorTest, TheThresholdIsTheMinimumAmplitude) {
    for (const auto& [jolt, expected] :
         std::vector<std::pair<double, std::size_t>>{{0.04, 0}, {0.07, 1}, {0.2, 1}}) {
        ImpactDetector d(0.05, 0.75);
        feed(d, 0, 5, [](double) { return 1.0; });
        const auto impacts =
            feed(d, 5, 1, [&](double t) { return std::fabs(t - 5.5) < 1e-6 ? 1.0 + jolt : 1.0; });
        EXPECT_EQ(impacts.size(), expected) << jolt;
    }
}

TEST(ImpactDetectorTest, SlapsInsideTheCooldownAreIgnored) {
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, [](double) { return 1.0; });
    auto spikes = [](std::vector<double> at) {
        return [at](double t) {
            for (double s : at) {
                if (std::fabs(t - s) < 1e-6) {
                    return 1.3;
                }
            }
            return 1.0;
        };
    };
    // 0.5 s apart: the second is inside the cooldown; 0.75 s apart exactly: still inside.
    auto impacts = feed(d, 5, 3, spikes({5.5, 6.0, 6.25}));
    ASSERT_EQ(impacts.size(), 1u);
    EXPECT_NEAR(impacts[0].onsetTime, 5.5, 1e-9);
    // 1 s after the last slap: a new one, numbered 2.
    impacts = feed(d, 8, 2, spikes({8.5, 9.26}));
    ASSERT_EQ(impacts.size(), 2u);
    EXPECT_EQ(impacts[0].slapNumber, 2);
    EXPECT_EQ(impacts[1].slapNumber, 3);
}

TEST(ImpactDetectorTest, SetCommandsChangeThresholdAndCooldown) {
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, [](double) { return 1.0; });
    d.setMinAmplitude(0.5);
    auto impacts = feed(d, 5, 1, [](double t) { return std::fabs(t - 5.5) < 1e-6 ? 1.3 : 1.0; });
    EXPECT_TRUE(impacts.empty());
    d.setMinAmplitude(0.05);
    d.setCooldown(0.1);
    impacts = feed(d, 6, 1, [](double t) {
        return std::fabs(t - 6.2) < 1e-6 || std::fabs(t - 6.4) < 1e-6 ? 1.3 : 1.0;
    });
    EXPECT_EQ(impacts.size(), 2u);
}

TEST(ImpactDetectorTest, ALoneSpikeIsReportedAtItsDeadline) {
    // Event-driven sensors send nothing while still: the report must not wait for a sample.
    ImpactDetector d(0.05, 0.75);
    d.addSample(0.0, 1.0);
    d.addSample(0.05, 1.0);
    EXPECT_FALSE(d.deadline());
    EXPECT_FALSE(d.addSample(0.10, 1.9));
    ASSERT_TRUE(d.deadline());
    EXPECT_NEAR(*d.deadline(), 0.10 + ImpactDetector::kPeakWindow, 1e-9);
    EXPECT_FALSE(d.flush(0.12));
    const auto impact = d.flush(0.16);
    ASSERT_TRUE(impact);
    EXPECT_NEAR(impact->amplitude, 0.9, 1e-9);
    EXPECT_EQ(impact->severity, "wallop");
    EXPECT_FALSE(d.deadline());
}

TEST(ImpactDetectorTest, SensorBiasIsNotASlap) {
    // A sensor that reads 1.08 g at rest, and one that starts away from its resting value.
    ImpactDetector d(0.05, 0.75);
    EXPECT_TRUE(feed(d, 0, 10, [](double) { return 1.08; }).empty());
    EXPECT_NEAR(d.baseline(), 1.08, 1e-6);
}

TEST(ImpactDetectorTest, TurningTheMachineOverIsNotASlap) {
    // |a| does not change with orientation; a slow drift of the reading is followed.
    ImpactDetector d(0.05, 0.75);
    EXPECT_TRUE(feed(d, 0, 20, [](double t) { return 1.0 + 0.002 * t; }).empty());
}

TEST(ImpactDetectorTest, SteadyShakingRaisesTheBar) {
    // 2 Hz motion of ±0.3 g (walking with the machine) stays quiet after the first seconds.
    ImpactDetector d(0.05, 0.75);
    auto walk = [](double t) { return 1.0 + 0.3 * std::sin(2 * M_PI * 2.0 * t); };
    feed(d, 0, 5, walk);
    EXPECT_TRUE(feed(d, 5, 20, walk).empty());
}

TEST(ImpactDetectorTest, IgnoresNonFiniteSamples) {
    ImpactDetector d(0.05, 0.75);
    d.addSample(0, 1.0);
    EXPECT_FALSE(d.addSample(0.01, NAN));
    EXPECT_FALSE(d.addSample(NAN, 5.0));
    EXPECT_FALSE(d.addSample(0.02, INFINITY));
    EXPECT_TRUE(feed(d, 0.03, 2, [](double) { return 1.0; }).empty());
}

TEST(ImpactDetectorTest, SeverityWordsByBand) {
    EXPECT_STREQ(severityFor(0.06), "tap");
    EXPECT_STREQ(severityFor(0.1), "slap");
    EXPECT_STREQ(severityFor(0.29), "slap");
    EXPECT_STREQ(severityFor(0.3), "smack");
    EXPECT_STREQ(severityFor(0.8), "wallop");
    EXPECT_STREQ(severityFor(3.0), "wallop");
}

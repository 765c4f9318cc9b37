// SPDX-License-Identifier: GPL-3.0-or-later
#include "ImpactDetector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

using bonkwell::thuzz::Impact;
using bonkwell::thuzz::ImpactDetector;
using bonkwell::thuzz::severityFor;

namespace {

using Vec = std::array<double, 3>;
using Signal = std::function<Vec(double)>;

// Feeds `seconds` of samples at `rate` Hz from `start`, flushing a waiting impact at its
// deadline as the helper's loop does.
std::vector<Impact> feed(ImpactDetector& d, double start, double seconds, const Signal& value,
                         double rate = 100.0) {
    std::vector<Impact> impacts;
    const int n = static_cast<int>(std::lround(seconds * rate));
    for (int i = 0; i < n; ++i) {
        const double t = start + i / rate;
        if (const auto due = d.deadline(); due && *due < t) {
            if (auto impact = d.flush(*due)) {
                impacts.push_back(*impact);
            }
        }
        const Vec v = value(t);
        if (auto impact = d.addSample(t, v[0], v[1], v[2])) {
            impacts.push_back(*impact);
        }
    }
    return impacts;
}

// A still machine: gravity plus a bias on each axis plus a little sensor noise.
struct Still {
    Vec rest{0, 0, 1};
    std::mt19937 rng{42};
    std::normal_distribution<double> noise{0.0, 0.002};
    Vec operator()(double) {
        return {rest[0] + noise(rng), rest[1] + noise(rng), rest[2] + noise(rng)};
    }
};

// `still`, with `jolt` (g, per axis) added for `width` seconds from `at`.
Signal withJolt(Signal still, double at, Vec jolt, double width = 0.01) {
    return [=](double t) {
        Vec v = still(t);
        if (t >= at - 1e-9 && t < at + width - 1e-9) {
            for (int i = 0; i < 3; ++i) {
                v[static_cast<std::size_t>(i)] += jolt[static_cast<std::size_t>(i)];
            }
        }
        return v;
    };
}

Signal level() {
    return [](double) { return Vec{0, 0, 1}; };
}

}  // namespace

TEST(ImpactDetectorTest, BiasedStillSensorsGiveNoSlaps) {
    // Every corner of +-100 mg per axis, level and on its side, from the first sample on.
    for (int corner = 0; corner < 8; ++corner) {
        for (const Vec& gravity : {Vec{0, 0, 1}, Vec{1, 0, 0}, Vec{0, -0.7071, 0.7071}}) {
            Still still;
            for (int i = 0; i < 3; ++i) {
                still.rest[static_cast<std::size_t>(i)] =
                    gravity[static_cast<std::size_t>(i)] + ((corner >> i) & 1 ? 0.1 : -0.1);
            }
            ImpactDetector d(0.05, 0.75);
            EXPECT_TRUE(feed(d, 0, 10, std::ref(still)).empty()) << corner;
            EXPECT_LT(d.lastJolt(), 0.02);
        }
    }
}

TEST(ImpactDetectorTest, ASlapCountsTheSameFromAnyDirection) {
    // 0.15 g along X, Y, Z and diagonally, on a level machine and on one lying on its side.
    const double s = 0.15 / std::sqrt(3.0);
    for (const Vec& gravity : {Vec{0, 0, 1}, Vec{1, 0, 0}}) {
        for (const Vec& jolt : {Vec{0.15, 0, 0}, Vec{0, -0.15, 0}, Vec{0, 0, 0.15},
                                Vec{0, 0, -0.15}, Vec{s, s, -s}}) {
            ImpactDetector d(0.05, 0.75);
            const auto still = [gravity](double) { return gravity; };
            feed(d, 0, 5, still);
            const auto impacts = feed(d, 5, 2, withJolt(still, 6.0, jolt));
            ASSERT_EQ(impacts.size(), 1u) << jolt[0] << " " << jolt[1] << " " << jolt[2];
            EXPECT_NEAR(impacts[0].amplitude, 0.15, 1e-6);
            EXPECT_EQ(impacts[0].severity, "slap");
            EXPECT_NEAR(impacts[0].onsetTime, 6.0, 1e-6);
        }
    }
}

TEST(ImpactDetectorTest, TheThresholdIsTheMinimumAmplitude) {
    for (const auto& [jolt, expected] :
         std::vector<std::pair<double, std::size_t>>{{0.04, 0}, {0.055, 1}, {0.2, 1}}) {
        ImpactDetector d(0.05, 0.75);
        feed(d, 0, 5, level());
        const auto impacts = feed(d, 5, 1, withJolt(level(), 5.5, {0, jolt, 0}));
        EXPECT_EQ(impacts.size(), expected) << jolt;
    }
}

TEST(ImpactDetectorTest, AStillNoisyMachineReactsToTheLightestSlap) {
    Still still;
    still.rest = {0.04, -0.03, 1.075};
    ImpactDetector d(0.05, 0.75);
    EXPECT_TRUE(feed(d, 0, 10, std::ref(still)).empty());
    EXPECT_NEAR(d.triggerLevel(), 0.05, 1e-9);
    const auto impacts = feed(d, 10, 1, withJolt(std::ref(still), 10.5, {0.065, 0, 0}));
    EXPECT_EQ(impacts.size(), 1u);
}

TEST(ImpactDetectorTest, SteadyShakingRaisesTheBarAndItFallsBackAfterwards) {
    // +-0.3 g at 2 Hz along X (a machine carried along): quiet after its first second.
    ImpactDetector d(0.05, 0.75);
    const auto shake = [](double t) { return Vec{0.3 * std::sin(2 * M_PI * 2.0 * t), 0, 1}; };
    feed(d, 0, 1, shake);
    EXPECT_TRUE(feed(d, 1, 20, shake).empty());
    EXPECT_GT(d.triggerLevel(), 0.2);
    // A light slap during the shaking is under the raised bar...
    EXPECT_TRUE(feed(d, 21, 1, withJolt(shake, 21.5, {0, 0.08, 0})).empty());
    // ...and once the machine has been still for a while the bar is back at the minimum.
    feed(d, 22, 15, level());
    EXPECT_NEAR(d.triggerLevel(), 0.05, 0.005);
    EXPECT_EQ(feed(d, 37, 1, withJolt(level(), 37.5, {0, 0.08, 0})).size(), 1u);
}

TEST(ImpactDetectorTest, TurningTheMachineSlowlyIsNotASlap) {
    // Gravity turning by 90 degrees over 2 s, and a steady tilt drift.
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 2, level());
    EXPECT_TRUE(feed(d, 2, 4, [](double t) {
                    const double a = std::clamp(t - 2.0, 0.0, 2.0) / 2.0 * M_PI / 2;
                    return Vec{std::sin(a), 0, std::cos(a)};
                }).empty());
}

TEST(ImpactDetectorTest, ASlowSensorReportsOnTheFirstSampleAboveTheTrigger) {
    // 100 Hz: no waiting at all; the jolt of that sample is the amplitude.
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, level());
    std::vector<Impact> impacts;
    EXPECT_FALSE(d.addSample(5.00, 0, 0, 1));
    auto impact = d.addSample(5.01, 0.4, 0, 1);
    ASSERT_TRUE(impact);
    EXPECT_DOUBLE_EQ(impact->reportTime, 5.01);
    EXPECT_DOUBLE_EQ(impact->onsetTime, 5.01);
    EXPECT_NEAR(impact->amplitude, 0.4, 1e-9);
    EXPECT_EQ(impact->severity, "smack");
    EXPECT_NEAR(d.lastJolt(), 0.4, 1e-9);
    EXPECT_FALSE(d.deadline());
}

TEST(ImpactDetectorTest, AFastSensorTakesOneMoreSampleForThePeak) {
    // 400 Hz: the report comes with the next sample, which holds the larger jolt.
    const double period = 1.0 / 400;
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, level(), 400);
    const double t0 = 5.0;
    EXPECT_FALSE(d.addSample(t0, 0.2, 0, 1));
    ASSERT_TRUE(d.deadline());
    EXPECT_NEAR(*d.deadline(), t0 + period, 1e-6);
    const auto impact = d.addSample(t0 + period, 0, 0.6, 1.2);
    ASSERT_TRUE(impact);
    EXPECT_NEAR(impact->reportTime - impact->onsetTime, period, 1e-9);
    EXPECT_NEAR(impact->amplitude, std::sqrt(0.36 + 0.04), 1e-9);
    EXPECT_EQ(impact->slapNumber, 1);
}

TEST(ImpactDetectorTest, AFastSensorThatFallsSilentIsReportedAtItsDeadline) {
    // An event-driven sensor may send nothing after the jolt: the report does not wait for it.
    const double period = 1.0 / 400;
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, level(), 400);
    EXPECT_FALSE(d.addSample(5.0, 0, 0, 1.9));
    EXPECT_FALSE(d.flush(5.0 + period / 2));
    const auto impact = d.flush(5.0 + period);
    ASSERT_TRUE(impact);
    EXPECT_NEAR(impact->amplitude, 0.9, 1e-9);
    EXPECT_EQ(impact->severity, "wallop");
    EXPECT_FALSE(d.deadline());
}

TEST(ImpactDetectorTest, SlapsInsideTheCooldownAreIgnored) {
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, level());
    auto spikes = [](std::vector<double> at) {
        return [at](double t) {
            for (double s : at) {
                if (std::fabs(t - s) < 1e-6) {
                    return Vec{0.3, 0, 1};
                }
            }
            return Vec{0, 0, 1};
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

TEST(ImpactDetectorTest, ASlapDoesNotRaiseTheBarForTheNext) {
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, level());
    EXPECT_EQ(feed(d, 5, 1, withJolt(level(), 5.2, {1.5, 0, 0}, 0.02)).size(), 1u);
    EXPECT_NEAR(d.triggerLevel(), 0.05, 1e-9);
    EXPECT_EQ(feed(d, 6, 1, withJolt(level(), 6.2, {0, 0.06, 0})).size(), 1u);
}

TEST(ImpactDetectorTest, SetCommandsChangeThresholdAndCooldown) {
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, level());
    d.setMinAmplitude(0.5);
    EXPECT_TRUE(feed(d, 5, 1, withJolt(level(), 5.5, {0.3, 0, 0})).empty());
    feed(d, 6, 10, level());  // that jolt was background: let it fade
    d.setMinAmplitude(0.05);
    d.setCooldown(0.1);
    EXPECT_EQ(feed(d, 16, 1,
                   [](double t) {
                       return std::fabs(t - 16.2) < 1e-6 || std::fabs(t - 16.4) < 1e-6
                                  ? Vec{0, 0, 1.3}
                                  : Vec{0, 0, 1};
                   })
                  .size(),
              2u);
}

TEST(ImpactDetectorTest, IgnoresNonFiniteSamples) {
    ImpactDetector d(0.05, 0.75);
    d.addSample(0, 0, 0, 1.0);
    EXPECT_FALSE(d.addSample(0.01, NAN, 0, 1));
    EXPECT_FALSE(d.addSample(NAN, 0, 0, 5.0));
    EXPECT_FALSE(d.addSample(0.02, 0, INFINITY, 1));
    EXPECT_TRUE(feed(d, 0.03, 2, level()).empty());
}

TEST(ImpactDetectorTest, SeverityWordsByBand) {
    EXPECT_STREQ(severityFor(0.06), "tap");
    EXPECT_STREQ(severityFor(0.1), "slap");
    EXPECT_STREQ(severityFor(0.29), "slap");
    EXPECT_STREQ(severityFor(0.3), "smack");
    EXPECT_STREQ(severityFor(0.8), "wallop");
    EXPECT_STREQ(severityFor(3.0), "wallop");
}

namespace {

// A sensor sampling at `rate` Hz with its first sample `phase` periods in, behind its on-chip
// low-pass at half the rate, while gravity turns from `from` by `angle` radians about `axis`
// (perpendicular to it) over `seconds` (a raised cosine, as a hand moves a lid), from `at`.
struct TurningSensor {
    double rate;
    double phase;
    Vec from;
    Vec axis;
    double angle;
    double at;
    double seconds;
    Vec bias{0.04, -0.03, 0.075};

    Vec gravity(double t) const {
        const double p = std::clamp((t - at) / seconds, 0.0, 1.0);
        const double a = angle * (1 - std::cos(M_PI * p)) / 2;
        // Rodrigues, with `axis` perpendicular to `from`.
        const Vec cross{axis[1] * from[2] - axis[2] * from[1],
                        axis[2] * from[0] - axis[0] * from[2],
                        axis[0] * from[1] - axis[1] * from[0]};
        Vec g{};
        for (std::size_t i = 0; i < 3; ++i) {
            g[i] = std::cos(a) * from[i] + std::sin(a) * cross[i];
        }
        return g;
    }

    // The readings over [0, until), each with the time it was taken.
    std::vector<std::pair<double, Vec>> readings(double until,
                                                 const std::function<Vec(double)>& extra) const {
        const double step = 0.25e-3;
        const double alpha = 1 - std::exp(-step * M_PI * rate);
        std::mt19937 rng(7);
        std::normal_distribution<double> noise(0, 0.002);
        std::vector<std::pair<double, Vec>> out;
        Vec lp = gravity(0);
        double due = phase / rate;
        for (double t = 0; t < until; t += step) {
            const Vec g = gravity(t);
            const Vec e = extra(t);
            for (std::size_t i = 0; i < 3; ++i) {
                lp[i] += alpha * (g[i] + e[i] - lp[i]);
            }
            if (t >= due) {
                Vec v{};
                for (std::size_t i = 0; i < 3; ++i) {
                    v[i] = std::round((lp[i] + bias[i] + noise(rng)) * 1024) / 1024;
                }
                out.emplace_back(t, v);
                due += 1 / rate;
            }
        }
        return out;
    }
};

std::vector<Impact> feedReadings(ImpactDetector& d,
                                 const std::vector<std::pair<double, Vec>>& readings) {
    std::vector<Impact> impacts;
    for (const auto& [t, v] : readings) {
        if (const auto due = d.deadline(); due && *due < t) {
            impacts.push_back(*d.flush(*due));
        }
        if (auto impact = d.addSample(t, v[0], v[1], v[2])) {
            impacts.push_back(*impact);
        }
    }
    return impacts;
}

Vec none(double) {
    return Vec{0, 0, 0};
}

}  // namespace

// Every sampling phase, three turning axes, both ways: the number of slaps counted.
int slapsWhileTurning(double rate, double angle, double seconds) {
    const double s = 1 / std::sqrt(2.0);
    int slaps = 0;
    for (const Vec& axis : {Vec{1, 0, 0}, Vec{0, -1, 0}, Vec{s, s, 0}}) {
        for (const double sign : {1.0, -1.0}) {
            for (int phase = 0; phase < 10; ++phase) {
                const TurningSensor sensor{rate,         phase / 10.0, {0, 0, 1}, axis,
                                           sign * angle, 3.0,          seconds};
                ImpactDetector d(0.05, 0.75);
                const auto impacts = feedReadings(d, sensor.readings(8, none));
                for (const auto& impact : impacts) {
                    ADD_FAILURE() << rate << " Hz, axis " << axis[0] << " " << axis[1] << ", angle "
                                  << sign * angle << ", phase " << phase << ": " << impact.amplitude
                                  << " g at " << impact.onsetTime << " s";
                }
                slaps += static_cast<int>(impacts.size());
            }
        }
    }
    return slaps;
}

TEST(ImpactDetectorTest, MovingTheLidQuicklyOnASlowSensorIsNotASlap) {
    // 90 degrees in 0.3 s: gravity moves by up to a quarter of a g between samples at 20 Hz.
    EXPECT_EQ(slapsWhileTurning(20, M_PI / 2, 0.3), 0);
    EXPECT_EQ(slapsWhileTurning(33, M_PI / 2, 0.3), 0);
    // At 50 Hz the samples are compared with those two periods back.
    EXPECT_EQ(slapsWhileTurning(50, M_PI / 2, 0.65), 0);
}

TEST(ImpactDetectorTest, ASlowSensorLetsTheNextSampleTellASlapAcrossGravityFromATurn) {
    // 20 Hz: a jolt across gravity that goes back is a slap, reported with the next sample...
    ImpactDetector d(0.05, 0.75);
    feed(d, 0, 5, level(), 20);
    EXPECT_FALSE(d.addSample(5.0, 0.15, 0, 1));
    ASSERT_TRUE(d.deadline());
    auto impact = d.addSample(5.05, 0.01, 0, 1);
    ASSERT_TRUE(impact);
    EXPECT_DOUBLE_EQ(impact->onsetTime, 5.0);
    EXPECT_DOUBLE_EQ(impact->reportTime, 5.05);
    EXPECT_NEAR(impact->amplitude, 0.15, 1e-9);
    EXPECT_EQ(impact->severity, "slap");
    // ...one that carries on is the machine being turned: no slap, and the bar goes up.
    feed(d, 5.1, 5, level(), 20);
    EXPECT_FALSE(d.addSample(10.0, 0.15, 0, 0.99));
    EXPECT_FALSE(d.addSample(10.05, 0.4, 0, 0.92));
    EXPECT_FALSE(d.deadline());
    EXPECT_GT(d.triggerLevel(), 0.3);
    EXPECT_EQ(d.slapCount(), 1);
    // A jolt along gravity cannot be a turn: reported on its own sample.
    ImpactDetector along(0.05, 0.75);
    feed(along, 0, 5, level(), 20);
    impact = along.addSample(5.0, 0, 0, 1.15);
    ASSERT_TRUE(impact);
    EXPECT_DOUBLE_EQ(impact->reportTime, 5.0);
    // The next sample missing (an event-driven sensor): reported at the deadline, one period on.
    ImpactDetector silent(0.05, 0.75);
    feed(silent, 0, 5, level(), 20);
    EXPECT_FALSE(silent.addSample(5.0, 0, 0.2, 1));
    ASSERT_TRUE(silent.deadline());
    EXPECT_NEAR(*silent.deadline(), 5.05, 0.005);
    impact = silent.flush(*silent.deadline());
    ASSERT_TRUE(impact);
    EXPECT_NEAR(impact->amplitude, 0.2, 1e-9);
}

TEST(ImpactDetectorTest, ASlapWhileTheLidMovesStillCounts) {
    // A 10 ms slap of 2 g square to gravity, ending 2 ms before a sample, in the middle of a
    // 90 degree turn over 2 s (which raises the bar while it lasts).
    for (const double rate : {20.0, 33.0, 50.0}) {
        for (int phase = 0; phase < 10; phase += 3) {
            const TurningSensor sensor{rate,     phase / 10.0, {0, 0, 1}, {1, 0, 0},
                                       M_PI / 2, 3.0,          2.0};
            const double sample = (std::round(4.0 * rate) + phase / 10.0) / rate;
            const double start = sample - 0.012;
            const auto slap = [start](double t) {
                const double u = t - start;
                return u >= 0 && u < 0.01 ? Vec{0, 2.0 * std::sin(M_PI * u / 0.01), 0} : none(t);
            };
            ImpactDetector d(0.05, 0.75);
            const auto impacts = feedReadings(d, sensor.readings(8, slap));
            ASSERT_EQ(impacts.size(), 1u) << rate << " Hz, phase " << phase;
            EXPECT_NEAR(impacts[0].onsetTime, sample, 0.001) << rate << " Hz";
            EXPECT_LE(impacts[0].reportTime - impacts[0].onsetTime, 1.01 / rate) << rate << " Hz";
        }
    }
}

TEST(ImpactDetectorTest, AfterAQuickTurnTheBarComesBackDown) {
    // The turn's change raised the bar; seconds later a still machine feels a light slap again.
    const TurningSensor sensor{20, 0.5, {0, 0, 1}, {0, 1, 0}, M_PI / 2, 3.0, 0.3};
    const auto slap = [](double t) { return t >= 14.0 && t < 14.05 ? Vec{0, 0.15, 0} : none(t); };
    ImpactDetector d(0.05, 0.75);
    const auto impacts = feedReadings(d, sensor.readings(15, slap));
    ASSERT_EQ(impacts.size(), 1u);
    EXPECT_NEAR(impacts[0].onsetTime, 14.0, 0.06);
}

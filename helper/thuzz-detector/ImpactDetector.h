// SPDX-License-Identifier: GPL-3.0-or-later
// The helper's slap detector.
//
// The accelerometer reads about 1 g at rest in any orientation, plus a sensor-specific bias.
// We therefore work on |a| and subtract a baseline that tracks it slowly (time constant 2 s,
// 10 s while the signal is far from it, so a slap barely moves it). The deviation from that
// baseline is the jolt.
//
// A slap is a sharp rise: the jolt must climb by more than the threshold within 40 ms (or
// since the previous sample, on slow sensors). The threshold is --min-amplitude plus twice the
// recent activity (a 1 s average of the jolt), so that steady motion such as walking with the
// machine or typing raises the bar while a still machine reacts to the smallest slap.
// Rises closer than --cooldown to the previous slap are ignored (strictly: a rise exactly
// one cooldown later is still ignored).
//
// Once triggered we follow the jolt for up to 50 ms, until it falls below half its peak, and
// report the peak as the amplitude, with a severity word by band:
//   below 0.1 g "tap", below 0.3 g "slap", below 0.8 g "smack", otherwise "wallop".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bonkwell::thuzz {

struct Impact {
    double amplitude = 0;  // g, the peak of the jolt
    std::string severity;
    std::int64_t slapNumber = 0;  // counts from 1
    double onsetTime = 0;         // time of the sample that triggered
    double reportTime = 0;        // time at which it was reported
};

const char* severityFor(double amplitude);

class ImpactDetector {
  public:
    static constexpr double kPeakWindow = 0.05;       // s followed after the trigger
    static constexpr double kRiseWindow = 0.04;       // s over which a rise must happen
    static constexpr double kBaselineTau = 2.0;       // s, baseline near the signal
    static constexpr double kBaselineSlowTau = 10.0;  // s, baseline while jolted
    static constexpr double kActivityTau = 1.0;       // s
    static constexpr double kActivityWeight = 2.0;

    ImpactDetector(double minAmplitude, double cooldownSeconds);

    void setMinAmplitude(double g) { minAmplitude_ = g; }
    void setCooldown(double seconds) { cooldown_ = seconds; }
    double minAmplitude() const { return minAmplitude_; }
    double cooldown() const { return cooldown_; }

    // Feeds one sample: time in seconds (monotonic) and |a| in g. Returns an impact when one
    // is complete.
    std::optional<Impact> addSample(double time, double magnitude);

    // When an impact is being followed, the time by which it must be reported even if no
    // further sample arrives.
    std::optional<double> deadline() const;
    // Reports the impact being followed if its deadline has passed.
    std::optional<Impact> flush(double now);

    std::int64_t slapCount() const { return count_; }
    // The jolt of the last sample fed, in g: what the threshold is compared with.
    double lastJolt() const { return lastJolt_; }
    double baseline() const { return baseline_; }

  private:
    Impact finish(double now);

    double minAmplitude_;
    double cooldown_;
    bool started_ = false;
    double lastTime_ = 0;
    double baseline_ = 1.0;
    double activity_ = 0;
    struct Point {
        double time;
        double jolt;
    };
    std::vector<Point> recent_;  // jolts of the last kRiseWindow, plus the one before
    bool following_ = false;
    double onset_ = 0;
    double peak_ = 0;
    double lastOnset_ = 0;
    bool anySlap_ = false;
    std::int64_t count_ = 0;
    double lastJolt_ = 0;
};

}  // namespace bonkwell::thuzz

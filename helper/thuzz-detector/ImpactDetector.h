// SPDX-License-Identifier: GPL-3.0-or-later
// The helper's slap detector.
//
// The accelerometer reads gravity (about 1 g, in whatever direction the machine lies) plus a
// bias and a scale error of its own on each axis. None of that changes within a few
// milliseconds, while a slap does: so each sample is compared, axis by axis, with the last two
// readings from before a slap could have begun (at least kReferenceAge and one and a half
// sample periods earlier; the previous samples on sensors slower than kSlowPeriod), and the
// change is the length of the smaller difference vector, in g. Orientation, bias and scale
// error drop out, and a slap counts the same from any direction, along gravity or across it.
//
// Turning the machine (a lid opened, a tablet picked up) moves gravity smoothly but, on slow
// sensors, by up to a quarter of a g between samples. So the readings' own course is drawn on:
// the latest step of the reference, carried forward up to kCourseSpeedUp times as far (a turn
// speeds up), less kCourseNoise (a still sensor has no course). The jolt is the distance from
// the nearest point of that course when it is nearer than the reference itself. A slap on a
// still machine has no course to follow, so its jolt is its full change, on its first sample.
//
// The trigger level is --min-amplitude, raised by the recent background: the largest change of
// the past (so that a turn raises the bar while it lasts), decaying with kBackgroundTau and left
// out while younger than the reference (so the rise of a slap does not raise its own bar). Only
// background above half the minimum amplitude counts, so a still machine reacts to the lightest
// slap while walking or a machine being carried raises the bar. A slap's own jolts never enter the
// background, and other jolts above the bar (inside the cooldown) enter it only up to the bar that
// slap had to clear.
//
// A slap is reported at once, on the first sample above the trigger level; on sensors that
// deliver a sample at least every kFollowPeriod the next sample is taken too, for the peak,
// and the report comes with it (or one sample period after the trigger if it does not come).
// On slow sensors whose samples come on time (a period of kSlowPeriod or more, jitter within
// kSteadyJitter of it) a jolt across gravity (the cosine of its angle to gravity no more than
// kAcrossGravity: within 30 degrees of square to it, as a turn's step always is) may be
// the first sample of a quick turn, which no course foretells: the next sample decides. A slap
// is over by then and the reading has gone back; a turn has carried on (kCarriedOn of the
// jolt's step or further), is no slap, and its change joins the background. Either way the
// report comes one sample period after the trigger at the latest. Slaps along gravity, and
// every slap on faster sensors, are reported on their first sample.
// The amplitude is the largest jolt of the samples used, with a severity word by band:
//   below 0.1 g "tap", below 0.3 g "slap", below 0.8 g "smack", otherwise "wallop".
// Triggers closer than --cooldown to the previous slap are ignored (strictly: one exactly a
// cooldown later is still ignored).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace bonkwell::thuzz {

struct Impact {
    double amplitude = 0;  // g, the largest jolt of the samples used
    std::string severity;
    std::int64_t slapNumber = 0;  // counts from 1
    double onsetTime = 0;         // time of the sample that triggered
    double reportTime = 0;        // time at which it was reported
};

const char* severityFor(double amplitude);

class ImpactDetector {
  public:
    static constexpr double kReferenceAge = 0.015;  // s, least age of a sample's reference
    static constexpr double kSlowPeriod = 0.025;    // s, compare with the previous sample
    static constexpr double kBackgroundTau = 3.0;   // s, decay of the background peak
    static constexpr double kBackgroundWeight = 4.0;
    static constexpr double kFollowPeriod = 0.006;   // s, follow one more sample up to this
    static constexpr double kQuietAfterSlap = 0.15;  // s of a slap kept out of the background
    static constexpr double kCourseSpeedUp = 3.0;    // reach of the course, in latest steps
    static constexpr double kCourseNoise = 0.01;     // g, of a step that is only noise
    static constexpr double kAcrossGravity = 0.5;    // |cosine| to gravity of a turn's step
    static constexpr double kCarriedOn = 1.2;  // of its step: how far a turn has got one sample on
    static constexpr double kSteadyJitter = 0.05;  // of a period: samples come on time
    static constexpr double kMissedSample = 1.75;  // periods: a sample was left out

    ImpactDetector(double minAmplitude, double cooldownSeconds);

    void setMinAmplitude(double g) { minAmplitude_ = g; }
    void setCooldown(double seconds) { cooldown_ = seconds; }
    double minAmplitude() const { return minAmplitude_; }
    double cooldown() const { return cooldown_; }

    // Feeds one sample: time in seconds (monotonic) and the acceleration in g on each axis.
    // Returns an impact when one is complete.
    std::optional<Impact> addSample(double time, double x, double y, double z);

    // When an impact waits for the next sample, the time by which it must be reported even if
    // that sample does not come.
    std::optional<double> deadline() const;
    // Reports the impact waiting for its next sample if its deadline has passed.
    std::optional<Impact> flush(double now);

    // The jolt of the latest sample, in g: what the trigger level applies to.
    double lastJolt() const { return lastJolt_; }
    // The trigger level the next sample must exceed, in g.
    double triggerLevel() const;
    // The recent background (decayed peak jolt), in g.
    double background() const { return background_; }
    // The sample period as seen so far, in s (0 until two samples came).
    double period() const { return period_; }
    std::int64_t slapCount() const { return count_; }

  private:
    struct Reading {
        double time;
        std::array<double, 3> g;
        double jolt;
    };
    struct Jolt {
        double change = 0;  // g, from the reference readings
        double size = 0;    // g, off the course the readings were taking (at most `change`)
        std::array<double, 3> reference{};
        std::array<double, 3> velocity{};  // g/s of the course the reference is on
    };
    struct SlapState {
        bool anySlap;
        double lastOnset, quietFrom, quietUntil, slapBar;
    };
    static bool acrossGravity(const std::array<double, 3>& change,
                              const std::array<double, 3>& reference);
    std::optional<Impact> confirm(double time, const std::array<double, 3>& g, double change);
    void drop(double change);
    static double distance(const std::array<double, 3>& a, const std::array<double, 3>& b);
    double referenceAge() const;
    Jolt joltAgainst(const std::array<double, 3>& g, double time) const;
    void ageIntoBackground(double time);
    Impact finish(double now);

    double minAmplitude_;
    double cooldown_;
    std::deque<Reading> recent_;  // readings younger than the reference age, and two older
    double lastTime_ = 0;
    double period_ = 0;
    double jitter_ = 0;  // s, mean deviation of the sample gaps from the period
    double lastJolt_ = 0;
    double background_ = 0;
    double backgroundTime_ = 0;
    double quietFrom_ = 0;
    double quietUntil_ = -1;
    bool following_ = false;
    bool confirming_ = false;  // a jolt across gravity on a slow sensor, maybe a turn
    std::array<double, 3> courseVelocity_{};
    std::array<double, 3> candidateStep_{};
    double candidateChange_ = 0;
    SlapState before_{};
    std::array<double, 3> eventReference_{};
    double onset_ = 0;
    double peak_ = 0;
    double slapBar_ = 0;  // the trigger level the last slap cleared
    double deadline_ = 0;
    double lastOnset_ = 0;
    bool anySlap_ = false;
    std::int64_t count_ = 0;
};

}  // namespace bonkwell::thuzz

// SPDX-License-Identifier: GPL-3.0-or-later
#include "ImpactDetector.h"

#include <algorithm>
#include <cmath>

namespace bonkwell::thuzz {

const char* severityFor(double amplitude) {
    if (amplitude < 0.1) {
        return "tap";
    }
    if (amplitude < 0.3) {
        return "slap";
    }
    if (amplitude < 0.8) {
        return "smack";
    }
    return "wallop";
}

ImpactDetector::ImpactDetector(double minAmplitude, double cooldownSeconds)
    : minAmplitude_(minAmplitude), cooldown_(cooldownSeconds) {}

double ImpactDetector::distance(const std::array<double, 3>& a, const std::array<double, 3>& b) {
    const double dx = a[0] - b[0];
    const double dy = a[1] - b[1];
    const double dz = a[2] - b[2];
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

double ImpactDetector::triggerLevel() const {
    return minAmplitude_ + kBackgroundWeight * std::max(0.0, background_ - minAmplitude_ / 2);
}

std::optional<double> ImpactDetector::deadline() const {
    if (!following_ && !confirming_) {
        return std::nullopt;
    }
    return deadline_;
}

Impact ImpactDetector::finish(double now) {
    following_ = false;
    Impact impact;
    impact.amplitude = peak_;
    impact.severity = severityFor(peak_);
    impact.slapNumber = ++count_;
    impact.onsetTime = onset_;
    impact.reportTime = now;
    return impact;
}

std::optional<Impact> ImpactDetector::flush(double now) {
    if (following_ && now >= deadline_) {
        return finish(now);
    }
    if (confirming_ && now >= deadline_) {
        confirming_ = false;  // the next sample is late: the jolt is reported as it stands
        return finish(now);
    }
    return std::nullopt;
}

bool ImpactDetector::acrossGravity(const std::array<double, 3>& change,
                                   const std::array<double, 3>& reference) {
    double along = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        along += change[i] * reference[i];
    }
    const double lengths = std::sqrt(
        (change[0] * change[0] + change[1] * change[1] + change[2] * change[2]) *
        (reference[0] * reference[0] + reference[1] * reference[1] + reference[2] * reference[2]));
    return std::fabs(along) <= kAcrossGravity * lengths;
}

// The candidate was the machine being turned: it was never a slap, and its change is what the
// background is made of.
void ImpactDetector::drop(double change) {
    anySlap_ = before_.anySlap;
    lastOnset_ = before_.lastOnset;
    quietFrom_ = before_.quietFrom;
    quietUntil_ = before_.quietUntil;
    slapBar_ = before_.slapBar;
    background_ = std::max(background_, change);
}

// The sample after a candidate: a slap has gone back from where the jolt took it (against the
// reference carried along its course), while a turn carries on at least kCarriedOn as far.
std::optional<Impact> ImpactDetector::confirm(double time, const std::array<double, 3>& g,
                                              double change) {
    confirming_ = false;
    std::array<double, 3> off{};
    double along = 0;
    double stepSquared = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        off[i] = g[i] - (eventReference_[i] + courseVelocity_[i] * (time - onset_));
        along += off[i] * candidateStep_[i];
        stepSquared += candidateStep_[i] * candidateStep_[i];
    }
    if (along >= kCarriedOn * stepSquared) {
        drop(std::max(candidateChange_, change));
        return std::nullopt;
    }
    peak_ = std::max(peak_, std::sqrt(off[0] * off[0] + off[1] * off[1] + off[2] * off[2]));
    return finish(time);
}

double ImpactDetector::referenceAge() const {
    if (period_ >= kSlowPeriod) {
        return period_ / 2;  // the previous sample
    }
    return std::max(kReferenceAge, 1.5 * period_);
}

// The jolt of `g` at `time`. Its plain change is the distance from the latest reading at
// least referenceAge() older, or from the one before that if nearer, so that the end of a jolt
// (whose reference is the jolt itself) does not look like a new one; the oldest readings kept
// stand in for missing ones. The jolt is that change, or less if `g` lies on the course the
// readings were already taking: the machine being turned moves gravity smoothly, a little
// further at each sample while it speeds up, and only what leaves that course is a jolt.
ImpactDetector::Jolt ImpactDetector::joltAgainst(const std::array<double, 3>& g,
                                                 double time) const {
    const double age = referenceAge();
    std::size_t latest = 0;
    for (std::size_t i = 0; i < recent_.size() && recent_[i].time <= time - age; ++i) {
        latest = i;
    }
    const std::size_t before = latest > 0 ? latest - 1 : 0;
    const double a = distance(g, recent_[latest].g);
    const double b = distance(g, recent_[before].g);
    Jolt jolt;
    jolt.change = std::min(a, b);
    jolt.size = jolt.change;
    jolt.reference = a <= b ? recent_[latest].g : recent_[before].g;

    // The course: the step from the reading at least as far before the reference as the
    // reference is before `g`, scaled to the time from the reference to `g`.
    const Reading& from = recent_[latest];
    const double ahead = time - from.time;
    std::size_t earlier = latest;
    while (earlier > 0 && from.time - recent_[earlier].time < ahead) {
        --earlier;
    }
    const double span = from.time - recent_[earlier].time;
    if (ahead <= 0 || span < ahead) {
        return jolt;
    }
    std::array<double, 3> step{};
    double stepSquared = 0;
    double along = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        step[i] = (from.g[i] - recent_[earlier].g[i]) * ahead / span;
        stepSquared += step[i] * step[i];
        along += (g[i] - from.g[i]) * step[i];
    }
    // Steps within the sensor's noise are no course at all.
    const double length = std::sqrt(stepSquared);
    if (length <= kCourseNoise) {
        return jolt;
    }
    const double shrink = (length - kCourseNoise) / length;
    for (auto& v : step) {
        v *= shrink;
    }
    along *= shrink;
    stepSquared *= shrink * shrink;
    // The nearest point of the course, up to kCourseSpeedUp steps ahead.
    const double k = std::clamp(along / stepSquared, 0.0, kCourseSpeedUp);
    std::array<double, 3> onCourse{};
    for (std::size_t i = 0; i < 3; ++i) {
        onCourse[i] = from.g[i] + k * step[i];
    }
    if (const double off = distance(g, onCourse); off < jolt.size) {
        jolt.size = off;
        jolt.reference = onCourse;
        for (std::size_t i = 0; i < 3; ++i) {
            jolt.velocity[i] = step[i] / ahead;
        }
    }
    return jolt;
}

// Readings older than the reference age join the background, except those of a slap.
void ImpactDetector::ageIntoBackground(double time) {
    const double age = referenceAge();
    background_ *= std::exp(-std::max(0.0, time - backgroundTime_) / kBackgroundTau);
    backgroundTime_ = time;
    for (auto& reading : recent_) {
        if (reading.time > time - age) {
            break;
        }
        if (reading.jolt >= 0 && (reading.time < quietFrom_ || reading.time > quietUntil_)) {
            background_ = std::max(
                background_, reading.jolt * std::exp(-(time - reading.time) / kBackgroundTau));
        }
        reading.jolt = -1;  // counted
    }
}

std::optional<Impact> ImpactDetector::addSample(double time, double x, double y, double z) {
    if (!std::isfinite(time) || !std::isfinite(x) || !std::isfinite(y) || !std::isfinite(z)) {
        return std::nullopt;
    }
    const std::array<double, 3> g{x, y, z};
    if (recent_.empty()) {
        recent_.push_back(Reading{time, g, 0.0});
        lastTime_ = time;
        backgroundTime_ = time;
        lastJolt_ = 0;
        return std::nullopt;
    }
    time = std::max(time, lastTime_);  // a clock never runs backwards here
    const double dt = time - lastTime_;
    if (dt > 0 && dt < 0.5) {
        // Samples an event-driven sensor left out (nothing changed) do not stretch the period.
        const double gap =
            period_ > 0 && dt > kMissedSample * period_ ? dt / std::round(dt / period_) : dt;
        period_ = period_ == 0 ? gap : period_ + 0.1 * (gap - period_);
        jitter_ += 0.1 * (std::fabs(gap - period_) - jitter_);
    }
    lastTime_ = time;
    ageIntoBackground(time);

    const Jolt measured = joltAgainst(g, time);
    const double jolt = measured.size;
    std::optional<Impact> result;
    const bool waiting = following_ || confirming_;
    if (following_) {
        if (time <= deadline_) {
            peak_ = std::max(peak_, distance(g, eventReference_));
        }
        result = finish(time);
    } else if (confirming_) {
        result = confirm(time, g, measured.change);
    }
    const double trigger = triggerLevel();
    if (!waiting && jolt > trigger && (!anySlap_ || time - lastOnset_ > cooldown_)) {
        before_ = {anySlap_, lastOnset_, quietFrom_, quietUntil_, slapBar_};
        anySlap_ = true;
        lastOnset_ = time;
        onset_ = time;
        peak_ = jolt;
        slapBar_ = trigger;
        quietFrom_ = time - referenceAge();
        quietUntil_ = time + kQuietAfterSlap;
        std::array<double, 3> step{};
        for (std::size_t i = 0; i < 3; ++i) {
            step[i] = g[i] - measured.reference[i];
        }
        if (period_ > 0 && period_ <= kFollowPeriod) {
            following_ = true;
            eventReference_ = measured.reference;
            deadline_ = time + period_;
        } else if (period_ >= kSlowPeriod && jitter_ <= kSteadyJitter * period_ &&
                   acrossGravity(step, measured.reference)) {
            confirming_ = true;
            eventReference_ = measured.reference;
            courseVelocity_ = measured.velocity;
            candidateStep_ = step;
            candidateChange_ = measured.change;
            deadline_ = time + (1 + kSteadyJitter) * period_;
        } else {
            result = finish(time);
        }
    }

    // The background follows the plain change, so that a turn of the machine raises the bar
    // while it lasts. A jolt above the bar that is no slap (inside the cooldown) raises it only
    // up to the bar the slap had to clear.
    recent_.push_back(
        Reading{time, g, jolt > trigger ? std::min(measured.change, slapBar_) : measured.change});
    // Kept: the readings younger than the reference age, and those the course is drawn from.
    while (recent_.size() > 2 && recent_[2].time <= time - 2 * referenceAge() - 2 * period_) {
        recent_.pop_front();
    }
    while (recent_.size() > 256) {
        recent_.pop_front();
    }
    lastJolt_ = jolt;
    return result;
}

}  // namespace bonkwell::thuzz

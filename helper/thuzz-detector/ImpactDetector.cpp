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
    if (!following_) {
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
    return std::nullopt;
}

double ImpactDetector::referenceAge() const {
    if (period_ >= kSlowPeriod) {
        return period_ / 2;  // the previous sample
    }
    return std::max(kReferenceAge, 1.5 * period_);
}

// The jolt of `g` at `time`: its distance from the latest reading at least referenceAge()
// older, or from the one before that if nearer, so that the end of a jolt (whose reference is
// the jolt itself) does not look like a new one. The oldest readings kept stand in for
// missing ones.
double ImpactDetector::joltAgainst(const std::array<double, 3>& g, double time,
                                   std::array<double, 3>* reference) const {
    const double age = referenceAge();
    std::size_t latest = 0;
    for (std::size_t i = 0; i < recent_.size() && recent_[i].time <= time - age; ++i) {
        latest = i;
    }
    const std::size_t before = latest > 0 ? latest - 1 : 0;
    const double a = distance(g, recent_[latest].g);
    const double b = distance(g, recent_[before].g);
    if (reference) {
        *reference = a <= b ? recent_[latest].g : recent_[before].g;
    }
    return std::min(a, b);
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
        period_ = period_ == 0 ? dt : period_ + 0.1 * (dt - period_);
    }
    lastTime_ = time;
    ageIntoBackground(time);

    std::array<double, 3> reference{};
    const double jolt = joltAgainst(g, time, &reference);
    std::optional<Impact> result;
    if (following_) {
        if (time <= deadline_) {
            peak_ = std::max(peak_, distance(g, eventReference_));
        }
        result = finish(time);
    }
    const double trigger = triggerLevel();
    if (!following_ && !result && jolt > trigger && (!anySlap_ || time - lastOnset_ > cooldown_)) {
        anySlap_ = true;
        lastOnset_ = time;
        onset_ = time;
        peak_ = jolt;
        slapBar_ = trigger;
        quietFrom_ = time - referenceAge();
        quietUntil_ = time + kQuietAfterSlap;
        if (period_ > 0 && period_ <= kFollowPeriod) {
            following_ = true;
            eventReference_ = reference;
            deadline_ = time + period_;
        } else {
            result = finish(time);
        }
    }

    // A jolt above the bar that is no slap (inside the cooldown) raises the background only up
    // to the bar the slap had to clear.
    recent_.push_back(Reading{time, g, jolt > trigger ? std::min(jolt, slapBar_) : jolt});
    while (recent_.size() > 2 && recent_[2].time <= time - referenceAge()) {
        recent_.pop_front();
    }
    while (recent_.size() > 256) {
        recent_.pop_front();
    }
    lastJolt_ = jolt;
    return result;
}

}  // namespace bonkwell::thuzz

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

std::optional<double> ImpactDetector::deadline() const {
    if (!following_) {
        return std::nullopt;
    }
    return onset_ + kPeakWindow;
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
    if (following_ && now >= onset_ + kPeakWindow) {
        return finish(now);
    }
    return std::nullopt;
}

std::optional<Impact> ImpactDetector::addSample(double time, double magnitude) {
    if (!std::isfinite(time) || !std::isfinite(magnitude)) {
        return std::nullopt;
    }
    if (!started_) {
        started_ = true;
        lastTime_ = time;
        baseline_ = magnitude;
        recent_.push_back(Point{time, 0.0});
        return std::nullopt;
    }
    const double dt = std::clamp(time - lastTime_, 0.0, 1.0);
    lastTime_ = std::max(lastTime_, time);
    const double jolt = std::fabs(magnitude - baseline_);
    lastJolt_ = jolt;

    std::optional<Impact> result;
    if (following_) {
        peak_ = std::max(peak_, jolt);
        if (jolt < peak_ * 0.5 || time >= onset_ + kPeakWindow) {
            result = finish(time);
        }
    }

    const double threshold = minAmplitude_ + kActivityWeight * activity_;
    if (!following_ && !result) {
        double lowest = jolt;
        for (const auto& p : recent_) {
            lowest = std::min(lowest, p.jolt);
        }
        const bool outsideCooldown = !anySlap_ || time - lastOnset_ > cooldown_;
        if (jolt - lowest > threshold && outsideCooldown) {
            following_ = true;
            onset_ = time;
            lastOnset_ = time;
            anySlap_ = true;
            peak_ = jolt;
        }
    }

    // Keep the jolts of the rise window, and always the previous sample.
    recent_.push_back(Point{time, jolt});
    while (recent_.size() > 1 && recent_[1].time < time - kRiseWindow) {
        recent_.erase(recent_.begin());
    }
    if (recent_.size() > 64) {
        recent_.erase(recent_.begin(), recent_.end() - 64);
    }

    const double tau = jolt > threshold ? kBaselineSlowTau : kBaselineTau;
    baseline_ += (1.0 - std::exp(-dt / tau)) * (magnitude - baseline_);
    activity_ += (1.0 - std::exp(-dt / kActivityTau)) * (std::min(jolt, 1.0) - activity_);
    return result;
}

}  // namespace bonkwell::thuzz

// SPDX-License-Identifier: GPL-3.0-or-later
#include "GravityCalibration.h"

#include <algorithm>
#include <cmath>

namespace bonkwell {

accel::Vec3 GravityCalibration::apply(const accel::Vec3& raw, double t) {
    const double length = accel::length(raw);
    if (!std::isfinite(length)) {
        return raw;
    }
    if (!started_) {
        // Until a still window says otherwise, the first length is the best guess there is.
        if (length >= kPlausibleMin && length <= kPlausibleMax) {
            restLength_ = length;
        }
        started_ = true;
        lastTime_ = t;
    }
    if (t < lastTime_) {  // a clock that steps back: start the window over
        window_.clear();
    }
    window_.push_back(Entry{t, length});
    while (window_.size() > static_cast<std::size_t>(kMinWindowSamples) &&
           t - window_[1].t >= kWindowSeconds) {
        window_.pop_front();
    }
    learn(t);
    lastTime_ = t;

    const double scale = 1.0 / restLength_;
    return accel::Vec3{raw.x * scale, raw.y * scale, raw.z * scale};
}

void GravityCalibration::learn(double t) {
    if (window_.size() < static_cast<std::size_t>(kMinWindowSamples) ||
        t - window_.front().t < kWindowSeconds * 0.5) {
        return;  // not enough of a window yet to call anything still
    }
    double lo = window_.front().length;
    double hi = lo;
    double sum = 0.0;
    for (const Entry& e : window_) {
        lo = std::min(lo, e.length);
        hi = std::max(hi, e.length);
        sum += e.length;
    }
    if (hi - lo > kStillSpread) {
        // A jolt is in the window: learn nothing until it has left it.
        frozenUntil_ = t + kWindowSeconds;
        return;
    }
    if (settled_ && t < frozenUntil_) {
        return;  // the tail of a jolt; before the first rest there is nothing to protect
    }
    const double mean = sum / static_cast<double>(window_.size());
    if (mean < kPlausibleMin || mean > kPlausibleMax) {
        return;  // free fall or a broken sensor is no rest
    }
    if (!settled_) {
        restLength_ = mean;
        settled_ = true;
        return;
    }
    const double dt = std::clamp(t - lastTime_, 0.0, kFollowSeconds);
    restLength_ += (mean - restLength_) * (dt / kFollowSeconds);
}

void GravityCalibration::reset() {
    window_.clear();
    restLength_ = 1.0;
    started_ = false;
    settled_ = false;
    lastTime_ = 0.0;
    frozenUntil_ = 0.0;
}

}  // namespace bonkwell

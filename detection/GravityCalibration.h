// SPDX-License-Identifier: GPL-3.0-or-later
// Calibration of a laptop accelerometer's length at rest, for the in-process reader.
//
// A real sensor is neither level nor calibrated: a zero-g offset of up to ±100 mg per axis
// and a few percent of scale error make the acceleration's length read anywhere from about
// 0.85 to 1.17 g on a machine that is not moving at all. The in-process slap rule measures
// | |a| − 1 g |, so such a sensor would "slap" all day. This class learns the length the
// sensor reads at rest and scales every sample so that that length reads 1 g:
//
//   - the rest length is learnt over stillness only: a short window of recent lengths whose
//     spread stays within kStillSpread;
//   - while the machine is jolted (and for one window after) the estimate is frozen, so a
//     slap is never taken for the new rest;
//   - slow changes (a lid or the whole machine turned, which moves a biased sensor's length)
//     are followed within about kFollowSeconds;
//   - from the very first sample on, samples are scaled by the length seen so far, and the
//     first still window replaces that guess outright, so the first seconds after start-up
//     are calibrated too.
//
// Plain C++, no Qt: the detection benchmark uses the same class.
#pragma once

#include "AccelDevice.h"

#include <deque>

namespace bonkwell {

class GravityCalibration {
  public:
    // Spread (max − min) of the length over the window that still counts as rest, in g.
    static constexpr double kStillSpread = 0.03;
    // The window that must be still, in seconds (and at least kMinWindowSamples samples).
    static constexpr double kWindowSeconds = 0.2;
    static constexpr int kMinWindowSamples = 3;
    // Time constant with which the rest length follows slow changes, in seconds.
    static constexpr double kFollowSeconds = 0.5;
    // A first length outside this range is not taken as a guess of the rest length.
    static constexpr double kPlausibleMin = 0.5;
    static constexpr double kPlausibleMax = 1.5;

    // One raw sample in g at monotonic time `t` (seconds) in, the calibrated sample out.
    accel::Vec3 apply(const accel::Vec3& raw, double t);

    // Forgets everything learnt: the next sample starts over.
    void reset();

    // The rest length currently assumed, in g (1 until a sample arrived).
    double restLength() const { return restLength_; }
    // True once a still window has set the rest length.
    bool settled() const { return settled_; }

  private:
    struct Entry {
        double t;
        double length;
    };
    void learn(double t);

    std::deque<Entry> window_;
    double restLength_ = 1.0;
    bool started_ = false;
    bool settled_ = false;
    double lastTime_ = 0.0;
    double frozenUntil_ = 0.0;  // no learning before this time (a jolt is still in the window)
};

}  // namespace bonkwell

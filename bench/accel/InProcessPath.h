// SPDX-License-Identifier: GPL-3.0-or-later
// The in-process path as the benchmark sees it: the reader's calibration of raw samples, then
// the in-process rule (| |a| - 1 g | strictly above the threshold, outside the cooldown) on
// samples in 1/1024 g. The calibration is reached through this one small adapter.
#pragma once

#include "SensorModel.h"

#include <memory>

namespace bonkwell::bench {

class InProcessCalibration {
  public:
    InProcessCalibration();
    ~InProcessCalibration();
    InProcessCalibration(const InProcessCalibration&) = delete;
    InProcessCalibration& operator=(const InProcessCalibration&) = delete;

    // One raw sample in g at `t` seconds; the calibrated sample in g.
    Vec apply(Vec raw, double t);
    // What the calibration is, for the printed header.
    static const char* description();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace bonkwell::bench

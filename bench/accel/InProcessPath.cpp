// SPDX-License-Identifier: GPL-3.0-or-later
#include "InProcessPath.h"

#include "GravityCalibration.h"

namespace bonkwell::bench {

struct InProcessCalibration::State {
    GravityCalibration calibration;
};

InProcessCalibration::InProcessCalibration() : state_(std::make_unique<State>()) {}
InProcessCalibration::~InProcessCalibration() = default;

Vec InProcessCalibration::apply(Vec raw, double t) {
    const accel::Vec3 c = state_->calibration.apply(accel::Vec3{raw.x, raw.y, raw.z}, t);
    return {c.x, c.y, c.z};
}

const char* InProcessCalibration::description() {
    return "the in-process reader's GravityCalibration (rest length scaled to 1 g)";
}

}  // namespace bonkwell::bench

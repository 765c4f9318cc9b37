// SPDX-License-Identifier: GPL-3.0-or-later
#include "InProcessPath.h"

namespace bonkwell::bench {

struct InProcessCalibration::State {};

InProcessCalibration::InProcessCalibration() : state_(std::make_unique<State>()) {}
InProcessCalibration::~InProcessCalibration() = default;

Vec InProcessCalibration::apply(Vec raw, double) {
    return raw;
}

const char* InProcessCalibration::description() {
    return "none (raw samples)";
}

}  // namespace bonkwell::bench

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Clock.h"

namespace bonkwell::test {

// A clock that moves only when the test says so.
class ManualClock final : public Clock {
  public:
    explicit ManualClock(Date start = Date{725760000.0}) : now_(start) {}

    Date now() const override { return now_; }
    double monotonicSeconds() const override { return monotonic_; }

    void setNow(Date d) { now_ = d; }
    void advance(double seconds) {
        now_ = now_.addingSeconds(seconds);
        monotonic_ += seconds;
    }

  private:
    Date now_;
    double monotonic_ = 1000.0;
};

}  // namespace bonkwell::test

// SPDX-License-Identifier: GPL-3.0-or-later
#include "Clock.h"

#include <chrono>
#include <cmath>
#include <ctime>

namespace bonkwell {
namespace {

class SystemClock final : public Clock {
  public:
    Date now() const override {
        const auto since = std::chrono::system_clock::now().time_since_epoch();
        return Date::fromUnixSeconds(std::chrono::duration<double>(since).count());
    }
    double monotonicSeconds() const override {
        const auto since = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration<double>(since).count();
    }
};

bool localDay(Date d, std::tm& out) {
    const double unix = std::floor(d.unixSeconds());
    if (!std::isfinite(unix) || unix < -6.7e13 || unix > 6.7e13) {
        return false;
    }
    const auto t = static_cast<std::time_t>(unix);
    return localtime_r(&t, &out) != nullptr;
}

}  // namespace

bool isSameLocalDay(Date a, Date b) {
    std::tm ta{};
    std::tm tb{};
    if (!localDay(a, ta) || !localDay(b, tb)) {
        return false;
    }
    return ta.tm_year == tb.tm_year && ta.tm_yday == tb.tm_yday;
}

Clock& Clock::system() {
    static SystemClock clock;
    return clock;
}

}  // namespace bonkwell

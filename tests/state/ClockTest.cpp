// SPDX-License-Identifier: GPL-3.0-or-later
#include "Clock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>

using bonkwell::Date;
using bonkwell::isSameLocalDay;

namespace {

class LocalZone {
  public:
    explicit LocalZone(const char* tz) {
        const char* old = std::getenv("TZ");
        hadOld_ = old != nullptr;
        if (hadOld_) {
            old_ = old;
        }
        ::setenv("TZ", tz, 1);
        ::tzset();
    }
    ~LocalZone() {
        if (hadOld_) {
            ::setenv("TZ", old_.c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }

  private:
    bool hadOld_ = false;
    std::string old_;
};

// 2024-01-01 00:00:00 UTC
constexpr double kNewYear2024Unix = 1704067200.0;

}  // namespace

TEST(Date, ReferenceDateIs2001) {
    EXPECT_DOUBLE_EQ(Date::fromUnixSeconds(0).sinceReference, -978307200.0);
    EXPECT_DOUBLE_EQ(Date::fromUnixSeconds(kNewYear2024Unix).sinceReference, 725760000.0);
    EXPECT_DOUBLE_EQ(Date{725760000.0}.unixSeconds(), kNewYear2024Unix);
}

TEST(LocalDay, ComparesCalendarDaysNotSpans) {
    LocalZone zone("UTC");
    const Date late = Date::fromUnixSeconds(kNewYear2024Unix - 60);   // 23:59 on Dec 31
    const Date early = Date::fromUnixSeconds(kNewYear2024Unix + 60);  // 00:01 on Jan 1
    EXPECT_FALSE(isSameLocalDay(late, early));
    const Date morning = Date::fromUnixSeconds(kNewYear2024Unix + 60);
    const Date night = Date::fromUnixSeconds(kNewYear2024Unix + 86340);  // 23:59 same day
    EXPECT_TRUE(isSameLocalDay(morning, night));
}

TEST(LocalDay, FollowsTheLocalTimeZone) {
    // 2024-01-01 03:00 UTC is still Dec 31 in New York.
    const Date a = Date::fromUnixSeconds(kNewYear2024Unix + 3 * 3600);
    const Date b = Date::fromUnixSeconds(kNewYear2024Unix - 6 * 3600);
    {
        LocalZone zone("UTC");
        EXPECT_FALSE(isSameLocalDay(a, b));
    }
    {
        LocalZone zone("America/New_York");
        EXPECT_TRUE(isSameLocalDay(a, b));
    }
}

TEST(LocalDay, NonFiniteDatesNeverMatch) {
    EXPECT_FALSE(isSameLocalDay(Date{std::numeric_limits<double>::quiet_NaN()}, Date{0}));
    EXPECT_FALSE(isSameLocalDay(Date{1e300}, Date{1e300}));
}

TEST(SystemClock, NowIsCurrentAndMonotonicAdvances) {
    const double unixNow = static_cast<double>(std::time(nullptr));
    const Date now = bonkwell::Clock::system().now();
    EXPECT_NEAR(now.unixSeconds(), unixNow, 2.0);
    const double m1 = bonkwell::Clock::system().monotonicSeconds();
    const double m2 = bonkwell::Clock::system().monotonicSeconds();
    EXPECT_LE(m1, m2);
}

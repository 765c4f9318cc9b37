// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <compare>

namespace bonkwell {

// A point in time as seconds since 2001-01-01 00:00:00 UTC (the reference date the stored
// settings use), as a double so that stored values read back bit for bit.
struct Date {
    static constexpr double kUnixOfReference = 978307200.0;

    double sinceReference = 0.0;

    static Date fromUnixSeconds(double unix) { return Date{unix - kUnixOfReference}; }
    double unixSeconds() const { return sinceReference + kUnixOfReference; }
    Date addingSeconds(double s) const { return Date{sinceReference + s}; }

    auto operator<=>(const Date&) const = default;
};

// True when both points fall on the same calendar day in the local time zone (TZ).
bool isSameLocalDay(Date a, Date b);

// The seam through which everything that needs "now" reads it. Tests substitute their own.
class Clock {
  public:
    virtual ~Clock() = default;
    // Wall-clock time.
    virtual Date now() const = 0;
    // Seconds on a clock that never jumps (for cooldowns and decay), arbitrary origin.
    virtual double monotonicSeconds() const = 0;

    // The process-wide real clock.
    static Clock& system();
};

}  // namespace bonkwell

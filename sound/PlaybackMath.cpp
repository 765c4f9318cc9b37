// SPDX-License-Identifier: GPL-3.0-or-later
#include "PlaybackMath.h"

#include "Log.h"

#include <sys/random.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <limits>

namespace bonkwell::sound {

void EscalationTracker::countSlap(Date now) {
    double decayed = score;
    if (lastTime) {
        const double elapsed = now.sinceReference - lastTime->sinceReference;
        decayed = score * std::exp2(-elapsed / kTrackerHalfLife);
    }
    score = decayed + 1.0;
    lastTime = now;
}

void EscalationTracker::reset() {
    score = 0.0;
    lastTime.reset();
}

std::size_t escalationIndex(double score, std::size_t fileCount, double cooldown) {
    const double n = static_cast<double>(fileCount);
    const double steady = 1.0 / (1.0 - std::exp2(-cooldown / kTrackerHalfLife));
    double k = (steady - 1.0) / std::log(n + 1.0);
    if (k <= 0.0001) {
        k = 0.0001;
    }
    const double x = (1.0 - std::exp(-(score - 1.0) / k)) * n;
    // 2^63 is the first double past the signed 64-bit range.
    if (!std::isfinite(x) || x >= 9223372036854775808.0 || x < -9223372036854775808.0) {
        fatal(QStringLiteral("escalation index %1 is out of range (score %2, %3 files)")
                  .arg(x)
                  .arg(score)
                  .arg(fileCount));
    }
    auto index = static_cast<std::int64_t>(x);  // truncates toward zero
    const auto last = static_cast<std::int64_t>(fileCount) - 1;
    if (index > last) {
        index = last;
    }
    if (index < 0) {
        index = 0;
    }
    if (static_cast<std::uint64_t>(index) >= fileCount) {
        fatal(QStringLiteral("cannot choose a sound from an empty pack"));
    }
    return static_cast<std::size_t>(index);
}

namespace {

std::uint64_t secureRandom64() {
    std::uint64_t value = 0;
    auto* bytes = reinterpret_cast<unsigned char*>(&value);
    std::size_t got = 0;
    while (got < sizeof value) {
        const ssize_t n = ::getrandom(bytes + got, sizeof value - got, 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            fatal(QStringLiteral("the system's random source failed (errno %1)").arg(errno));
        }
        got += static_cast<std::size_t>(n);
    }
    return value;
}

}  // namespace

std::size_t secureRandomIndex(std::size_t count) {
    if (count == 0) {
        fatal(QStringLiteral("cannot choose a sound from an empty pack"));
    }
    // Rejection sampling: drop the top values that would favour small indices.
    const std::uint64_t bound = count;
    const std::uint64_t limit = std::numeric_limits<std::uint64_t>::max() -
                                (std::numeric_limits<std::uint64_t>::max() % bound);
    std::uint64_t value = 0;
    do {
        value = secureRandom64();
    } while (value >= limit);
    return static_cast<std::size_t>(value % bound);
}

float amplitudeFactor(double amplitude) {
    if (amplitude <= 0.05) {
        return 0.125F;
    }
    if (amplitude >= 0.8) {
        return 1.0F;
    }
    const float a = static_cast<float>(amplitude);
    const float t = (a - 0.05F) / 0.75F;
    return 0.125F + 0.875F * std::log(1.0F + 99.0F * t) / std::log(100.0F);
}

float playbackVolume(double amplitude, double userVolume, bool volumeScaling) {
    // A value at or above 2, or not a number, gives 2.
    float v = 2.0F;
    if (userVolume < 0.0) {
        v = 0.0F;
    } else if (userVolume < 2.0) {
        v = static_cast<float>(userVolume);
    }
    float volume = volumeScaling ? amplitudeFactor(amplitude) * v : v;
    if (volume > 1.0F) {
        volume = 1.0F;
    }
    if (!(volume >= 0.0F)) {
        volume = 0.0F;
    }
    return volume;
}

}  // namespace bonkwell::sound

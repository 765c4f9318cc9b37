// SPDX-License-Identifier: GPL-3.0-or-later
// The arithmetic of the audio player: the escalation score, the file it selects and the
// volume a slap plays at. Pure functions, so that each rule can be checked on its own.
#pragma once

#include "Clock.h"

#include <cstddef>
#include <optional>

namespace bonkwell::sound {

// Half-life of the escalation score, in seconds.
inline constexpr double kTrackerHalfLife = 30.0;
// The spacing of slaps that the escalation curve is tuned for, in seconds.
inline constexpr double kEscalationCooldown = 0.75;
// The amplitude a test sound is computed with (scaling is off for tests).
inline constexpr double kTestAmplitude = 0.4;

// A decaying count of recent slaps: +1 per slap, halving every 30 s of quiet.
struct EscalationTracker {
    double score = 0.0;
    std::optional<Date> lastTime;

    // Decays the score to `now` and counts one more slap.
    void countSlap(Date now);
    void reset();
};

// The index into a pack of `fileCount` files for the current score (escalation mode).
// Stops the process when the pack is empty or the score makes no sense (programming faults).
std::size_t escalationIndex(double score, std::size_t fileCount, double cooldown);

// A uniformly random index in 0 ..< count from the system's secure random source.
// Stops the process when count is 0.
std::size_t secureRandomIndex(std::size_t count);

// The linear gain (0 ... 1) a sound plays at, from the slap's amplitude (g), the user's
// volume (0 ... 2) and whether harder slaps play louder.
float amplitudeFactor(double amplitude);
float playbackVolume(double amplitude, double userVolume, bool volumeScaling);

}  // namespace bonkwell::sound

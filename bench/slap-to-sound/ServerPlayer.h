// SPDX-License-Identifier: GPL-3.0-or-later
// The sound server's own player beside ours: PipeWire's command-line player plays the same
// steady tone at a given latency while the recorder counts dropouts, so a dropout that the
// server's own client suffers just as often can be told from one of ours.
#pragma once

#include "AudioBench.h"

#include <QString>

#include <optional>
#include <string>
#include <vector>

namespace bonkwell::bench {

// "128,256" into latencies in frames (others are left out).
std::vector<int> parseServerPlayerLatencies(const QString& list);

// Whether the server's player runs at the priority of our own playback thread (the lowest
// round-robin one, where this process may use it) rather than a normal one.
bool serverPlayerLikeOurs();

// Plays `tonePath` `tones` times with `pw-cat --playback --latency <frames>` to the default
// sink and returns the dropouts the recorder saw meanwhile; nullopt (and `error`) when the
// player is missing or fails.
std::optional<int> serverPlayerDropouts(Recorder& recorder, const QString& tonePath,
                                        double toneSeconds, int latencyFrames, int tones,
                                        std::string* error);

// The 1-minute load average, for printing beside a figure that load disturbs.
double loadAverage();

}  // namespace bonkwell::bench

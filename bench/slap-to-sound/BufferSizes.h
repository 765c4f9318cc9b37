// SPDX-License-Identifier: GPL-3.0-or-later
// The device buffer sizes side by side: slap-to-sound latency through AudioPlayer and
// dropouts (underruns) during a steady tone, at rest and with both cores busy.
#pragma once

#include "AudioBench.h"
#include "SharedTypes.h"

#include <QString>

#include <vector>

namespace bonkwell::bench {

// Writes a steady 440 Hz tone at half scale, 3 s of 48 kHz stereo 16-bit WAV.
bool writeTestTone(const QString& path);

// One way of playing to compare: SDL2_mixer with a device buffer of `frames`, or our own
// PulseAudio stream with a queue of `periods` × `frames` refilled a period at a time.
struct BufferChoice {
    bool pulse = false;
    int frames = 0;
    int periods = 0;
    bool earlyRequests = false;  // PulseAudio: early requests instead of an adjusted latency
    bool rewrite = false;        // PulseAudio: a sound after silence rewrites the queue
};

// "128,256,512" (SDL buffers) and "96x3,128x2e,96x6r…" (PulseAudio periods × count; a
// trailing 'e' asks for early requests, an 'r' rewrites the queue for a sound after silence)
// into choices.
std::vector<BufferChoice> parseBufferChoices(const QString& sdl, const QString& pulse);

// Prints one row per choice and load, then the dropouts of the server's own player at each of
// `serverPlayerLatencies` (frames) on the same tone. The latency figures play `clips`
// (`count` triggers each), the dropouts a generated tone.
void compareBufferSizes(Recorder& recorder, const SoundPack& clips,
                        const std::vector<BufferChoice>& choices,
                        const std::vector<int>& serverPlayerLatencies, int count);

}  // namespace bonkwell::bench

// SPDX-License-Identifier: GPL-3.0-or-later
// The device buffer sizes side by side: slap-to-sound latency through AudioPlayer and
// dropouts (underruns) during a steady tone, at rest and with both cores busy.
#pragma once

#include "AudioBench.h"
#include "SharedTypes.h"

#include <QString>

#include <vector>

namespace bonkwell {
class AudioPlayer;
}

namespace bonkwell::bench {

// Writes a steady 440 Hz tone, `seconds` of 48 kHz stereo 16-bit WAV at `level` of full
// scale (by default 3 s at half scale).
bool writeTestTone(const QString& path, double seconds = 3.0, double level = 0.5);

// playSlap latency while another sound plays: before each of `count` triggers a quiet
// 0.5 s tone starts (below the onset threshold, so only the clip's onset counts), and the
// clip follows 100 ms later, into a stream that is already sounding.
Figures measureDuringAnother(Recorder& recorder, AudioPlayer& player, const SoundPack& clips,
                             int count);

// One way of playing to compare: SDL2_mixer with a device buffer of `frames`, or our own
// PulseAudio stream with a queue of `periods` × `frames` refilled a period at a time.
struct BufferChoice {
    bool pulse = false;
    int frames = 0;
    int periods = 0;
    bool earlyRequests = false;  // PulseAudio: early requests instead of an adjusted latency
    bool rewrite = false;        // PulseAudio: a sound that starts rewrites the queue
};

// "128,256,512" (SDL buffers) and "96x3,128x2e,96x6r…" (PulseAudio periods × count; a
// trailing 'e' asks for early requests, an 'r' mixes a sound that starts into the queue)
// into choices.
std::vector<BufferChoice> parseBufferChoices(const QString& sdl, const QString& pulse);

// Prints one row per choice and load, then the dropouts of the server's own player at each of
// `serverPlayerLatencies` (frames) on the same tone. The latency figures play `clips`
// (`count` triggers each), the dropouts a generated tone.
void compareBufferSizes(Recorder& recorder, const SoundPack& clips,
                        const std::vector<BufferChoice>& choices,
                        const std::vector<int>& serverPlayerLatencies, int count);

}  // namespace bonkwell::bench

// SPDX-License-Identifier: GPL-3.0-or-later
// The device buffer sizes side by side: slap-to-sound latency through AudioPlayer and
// dropouts (underruns) during a steady tone, at rest and with both cores busy.
#pragma once

#include "AudioBench.h"
#include "SharedTypes.h"

#include <vector>

namespace bonkwell::bench {

// Prints one row per buffer size and load. The latency figures play `clips` (`count`
// triggers each), the dropouts a generated tone.
void compareBufferSizes(Recorder& recorder, const SoundPack& clips, const std::vector<int>& frames,
                        int count);

}  // namespace bonkwell::bench

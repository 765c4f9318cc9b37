// SPDX-License-Identifier: GPL-3.0-or-later
// Slap on the device to first sound at the sink, through the per-user helper: writes spikes to
// a fake IIO accelerometer's in_accel_x_raw while the app (with thuzz-detector reading that
// device) runs, and dates the first sound of each at a null sink's monitor. The same run
// first measures the floor on the same server and sink: a bare SDL2_mixer loop on the same
// clip and buffer. Run through bench/e2e-latency/run, which sets everything up.
#include "AudioBench.h"
#include "SdlSoundOutput.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using bonkwell::bench::Figures;
using bonkwell::bench::monotonicNow;
using bonkwell::bench::Trial;

// About 2 g sideways (raw 3000 at 0.00981 m/s² per unit, on top of 1 g down).
constexpr const char* kSpikeValue = "3000\n";
constexpr const char* kRestValue = "   0\n";  // same length: the file never holds a torn tail
// The helper follows a jolt for up to 50 ms after it triggers, until it falls below half its
// peak: a jolt held for 100 ms is reported at the end of that window, a 30 ms one when it
// falls. Both are measured.
constexpr int kLongSpikeMs = 100;
constexpr int kShortSpikeMs = 30;
// After the 750 ms cooldown and the clip, and well inside the app's 5 s before it releases
// the output.
constexpr int kMinSpacingMs = 1500;
constexpr int kMaxSpacingMs = 2100;

bool writeValue(int fd, const char* value) {
    const std::size_t size = std::strlen(value);
    ssize_t n = 0;
    do {
        n = ::pwrite(fd, value, size, 0);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(size);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s <clip.mp3> <sink monitor> <in_accel_x_raw> [slaps]\n",
                     argv[0]);
        return 2;
    }
    const std::string clip = argv[1];
    const std::string monitor = argv[2];
    const std::string axis = argv[3];
    const int slaps = argc > 4 ? std::max(25, std::atoi(argv[4])) : 30;
    const int bufferFrames = bonkwell::SdlSoundOutput::Options{}.bufferFrames;

    const int fd = ::open(axis.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "e2e-latency: %s: %s\n", axis.c_str(), std::strerror(errno));
        return 1;
    }
    bonkwell::bench::Recorder recorder;
    std::string error;
    if (!recorder.start(monitor, &error)) {
        std::fprintf(stderr, "e2e-latency: %s\n", error.c_str());
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(bonkwell::bench::kSettleMilliseconds));
    std::printf("recorder: %s\n", bonkwell::bench::recorderMethod().c_str());
    std::printf(
        "slap: CLOCK_MONOTONIC just before the write of %d to %s, back to 0 after %d ms "
        "(a first slap, then %d) or %d ms (%d more); %d-%d ms apart\n",
        std::atoi(kSpikeValue), axis.c_str(), kLongSpikeMs, slaps, kShortSpikeMs, slaps,
        kMinSpacingMs, kMaxSpacingMs);
    std::printf("buffer: %d frames at %d Hz (%.1f ms) for the app and the floor\n", bufferFrames,
                bonkwell::bench::kRecordRate, bufferFrames * 1000.0 / bonkwell::bench::kRecordRate);
    std::fflush(stdout);

    // The floor first, while the app has not opened its output yet.
    std::string driver;
    const std::optional<Figures> floor =
        bonkwell::bench::measureBareMixer(recorder, clip, slaps, bufferFrames, &driver, &error);
    if (!floor) {
        std::fprintf(stderr, "e2e-latency: %s\n", error.c_str());
        return 1;
    }
    std::printf("floor: SDL audio driver %s\n", driver.c_str());

    bool writesFailed = false;
    const auto slapFor = [&](int milliseconds) {
        return [&, milliseconds] {
            const double at = monotonicNow();
            writesFailed |= !writeValue(fd, kSpikeValue);
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
            writesFailed |= !writeValue(fd, kRestValue);
            return at;
        };
    };
    // The first slap opens the app's output; the rest find it open.
    const std::vector<Trial> first = bonkwell::bench::runTrials(
        recorder, 1, kMinSpacingMs, kMinSpacingMs, slapFor(kLongSpikeMs));
    const std::vector<Trial> held = bonkwell::bench::runTrials(
        recorder, slaps, kMinSpacingMs, kMaxSpacingMs, slapFor(kLongSpikeMs));
    const std::vector<Trial> brief = bonkwell::bench::runTrials(
        recorder, slaps, kMinSpacingMs, kMaxSpacingMs, slapFor(kShortSpikeMs));
    ::close(fd);
    if (writesFailed) {
        std::fprintf(stderr, "e2e-latency: writing %s failed\n", axis.c_str());
        return 1;
    }
    const Figures opening = bonkwell::bench::summarize(first);
    const Figures open = bonkwell::bench::summarize(held);
    const Figures shortOpen = bonkwell::bench::summarize(brief);

    std::printf("\n");
    bonkwell::bench::print("slap -> helper -> app -> sink, 100 ms jolt", open);
    bonkwell::bench::print("slap -> helper -> app -> sink, 30 ms jolt", shortOpen);
    bonkwell::bench::print("bare SDL2_mixer loop (floor)", *floor);
    if (opening.ms.empty()) {
        std::printf("%-44s no sound\n", "first slap, 100 ms (opens the output)");
    } else {
        std::printf("%-44s %6.1f ms\n", "first slap, 100 ms (opens the output)",
                    opening.ms.front());
    }
    std::printf(
        "\nover the floor (median / p90): 100 ms jolt +%.1f / +%.1f ms, 30 ms jolt "
        "+%.1f / +%.1f ms\n",
        open.median() - floor->median(), open.p90() - floor->p90(),
        shortOpen.median() - floor->median(), shortOpen.p90() - floor->p90());
    std::printf("slaps written: %d\n", 2 * slaps + 1);
    std::printf("slaps with no sound: %d   with more than one sound: %d\n",
                opening.silent + open.silent + shortOpen.silent,
                opening.repeated + open.repeated + shortOpen.repeated);
    return 0;
}

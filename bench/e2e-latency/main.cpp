// SPDX-License-Identifier: GPL-3.0-or-later
// Slap on the device to first sound at the sink, through the per-user helper: writes spikes to
// a fake IIO accelerometer's in_accel_x_raw while the app (with thuzz-detector reading that
// device) runs, and dates the first sound of each at a null sink's monitor. The same run
// first measures the floor on the same server and sink: a bare SDL2_mixer loop on the same
// clip and buffer, and where a real PulseAudio runs (the app plays through its own stream
// there) a bare loop on that stream, the app's floor. With --helper it measures the helper alone
// instead: spike to its event line. Run through bench/e2e-latency/run, which sets everything up.
#include "AudioBench.h"
#include "ChoosingSoundOutput.h"
#include "SdlSoundOutput.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using bonkwell::bench::Figures;
using bonkwell::bench::monotonicNow;
using bonkwell::bench::Trial;

// 3 g sideways (raw 3000 at 0.00981 m/s² per unit) on top of 1 g down: a jolt of 3 g.
constexpr const char* kSpikeValue = "3000\n";
constexpr const char* kRestValue = "   0\n";  // same length: the file never holds a torn tail
// The helper reports a jolt on the first sample that shows it, whatever its length; a long and
// a short one are both measured.
constexpr int kLongSpikeMs = 100;
constexpr int kShortSpikeMs = 30;
// After the 750 ms cooldown and the clip, and well inside the app's 5 s before it releases
// the output.
constexpr int kMinSpacingMs = 1200;
constexpr int kMaxSpacingMs = 1800;

bool writeValue(int fd, const char* value) {
    const std::size_t size = std::strlen(value);
    ssize_t n = 0;
    do {
        n = ::pwrite(fd, value, size, 0);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(size);
}

// A jolt of `milliseconds` on the device; returns the time of its first write.
std::function<double()> spikeFor(int fd, int milliseconds, bool* writesFailed) {
    return [fd, milliseconds, writesFailed] {
        const double at = monotonicNow();
        *writesFailed |= !writeValue(fd, kSpikeValue);
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        *writesFailed |= !writeValue(fd, kRestValue);
        return at;
    };
}

// The per-user helper run as the app runs it, its event lines dated as they arrive.
class HelperEvents {
  public:
    ~HelperEvents() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
        if (reader_.joinable()) {
            reader_.join();
        }
        if (out_ >= 0) {
            ::close(out_);
        }
    }

    bool start(const std::string& helper, std::string* error) {
        int pipe[2];
        if (::pipe2(pipe, O_CLOEXEC) != 0) {
            *error = std::string("pipe: ") + std::strerror(errno);
            return false;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe[1], 1);
        std::vector<std::string> args{
            helper, "--stdio", "--detect-only", "--min-amplitude", "0.05", "--cooldown", "750"};
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        const int failed =
            posix_spawn(&pid_, helper.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipe[1]);
        out_ = pipe[0];
        if (failed != 0) {
            pid_ = 0;
            *error = helper + ": " + std::strerror(failed);
            return false;
        }
        reader_ = std::thread([this] { read(); });
        for (int i = 0; i < 100 && !reading_; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (!reading_) {
            *error = helper + " did not open the device within 10 s";
        }
        return reading_;
    }

    std::vector<double> takeEvents() {
        std::lock_guard lock(mutex_);
        return std::exchange(events_, {});
    }

  private:
    void read() {
        std::string line;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(out_, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return;
            }
            const double at = monotonicNow();
            line.append(buffer, static_cast<std::size_t>(n));
            for (std::size_t end = line.find('\n'); end != std::string::npos;
                 end = line.find('\n')) {
                if (line.compare(0, 8, "reading ") == 0) {
                    reading_ = true;
                } else if (line.substr(0, end).find("\"slapNumber\"") != std::string::npos) {
                    std::lock_guard lock(mutex_);
                    events_.push_back(at);
                }
                line.erase(0, end + 1);
            }
        }
    }

    pid_t pid_ = 0;
    int out_ = -1;
    std::thread reader_;
    std::atomic<bool> reading_{false};
    std::mutex mutex_;
    std::vector<double> events_;
};

// Spike on the device to the helper's event line, with no app and no sound.
int measureHelper(const std::string& helper, int fd, int slaps) {
    HelperEvents events;
    std::string error;
    if (!events.start(helper, &error)) {
        std::fprintf(stderr, "e2e-latency: %s\n", error.c_str());
        return 1;
    }
    const auto take = [&] { return events.takeEvents(); };
    bool writesFailed = false;
    // After the 750 ms cooldown; no clip to wait for here.
    const std::vector<Trial> held = bonkwell::bench::runTrials(
        take, slaps, 850, 1150, spikeFor(fd, kLongSpikeMs, &writesFailed));
    const std::vector<Trial> brief = bonkwell::bench::runTrials(
        take, slaps, 850, 1150, spikeFor(fd, kShortSpikeMs, &writesFailed));
    if (writesFailed) {
        std::fprintf(stderr, "e2e-latency: writing the device failed\n");
        return 1;
    }
    const Figures heldFigures = bonkwell::bench::summarize(held);
    const Figures briefFigures = bonkwell::bench::summarize(brief);
    std::printf(
        "helper alone: CLOCK_MONOTONIC just before the spike's write to the moment its "
        "event line is read from the helper's stdout; %d spikes of each length, "
        "850-1150 ms apart\n",
        slaps);
    bonkwell::bench::print("spike -> helper's event line, 100 ms jolt", heldFigures, "reported");
    bonkwell::bench::print("spike -> helper's event line, 30 ms jolt", briefFigures, "reported");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // Each line as it is printed, through a pipe too: a run takes minutes.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const bool helperAlone = argc > 1 && std::strcmp(argv[1], "--helper") == 0;
    if (argc < 4) {
        std::fprintf(stderr,
                     "usage: %s <clip.mp3> <sink monitor> <in_accel_x_raw> [slaps]\n"
                     "       %s --helper <thuzz-detector> <in_accel_x_raw> [slaps]\n",
                     argv[0], argv[0]);
        return 2;
    }
    const std::string axis = argv[3];
    const int slaps = argc > 4 ? std::max(25, std::atoi(argv[4])) : 30;
    const int fd = ::open(axis.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "e2e-latency: %s: %s\n", axis.c_str(), std::strerror(errno));
        return 1;
    }
    if (helperAlone) {
        const int status = measureHelper(argv[2], fd, slaps);
        ::close(fd);
        return status;
    }
    const std::string clip = argv[1];
    const std::string monitor = argv[2];

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
    std::fflush(stdout);

    // The floor first, while the app has not opened its output yet; with the buffer the app
    // chooses for the same driver.
    std::string driver;
    int bufferFrames = 0;
    const std::optional<Figures> floor =
        bonkwell::bench::measureBareMixer(recorder, clip, slaps, 0, &driver, &error, &bufferFrames);
    if (!floor) {
        std::fprintf(stderr, "e2e-latency: %s\n", error.c_str());
        return 1;
    }
    std::printf(
        "floor: SDL audio driver %s; buffer: %d frames at %d Hz (%.1f ms) for the app "
        "and the floor\n",
        driver.c_str(), bufferFrames, bonkwell::bench::kRecordRate,
        bufferFrames * 1000.0 / bonkwell::bench::kRecordRate);

    // Where a real PulseAudio runs, the app plays through its own stream: that is its floor.
    std::optional<Figures> streamFloor;
    if (bonkwell::ChoosingSoundOutput::sessionKind() ==
        bonkwell::ChoosingSoundOutput::Kind::pulse) {
        streamFloor = bonkwell::bench::measureBareStream(recorder, clip, slaps, &error);
        if (!streamFloor) {
            std::fprintf(stderr, "e2e-latency: %s\n", error.c_str());
            return 1;
        }
    }
    const Figures appFloor = streamFloor.value_or(*floor);

    bool writesFailed = false;
    const auto slapFor = [&](int milliseconds) {
        return spikeFor(fd, milliseconds, &writesFailed);
    };
    const auto take = [&] { return recorder.takeOnsets(); };
    // The first slap opens the app's output; the rest find it open.
    const std::vector<Trial> first =
        bonkwell::bench::runTrials(take, 1, kMinSpacingMs, kMinSpacingMs, slapFor(kLongSpikeMs));
    const std::vector<Trial> held = bonkwell::bench::runTrials(
        take, slaps, kMinSpacingMs, kMaxSpacingMs, slapFor(kLongSpikeMs));
    const std::vector<Trial> brief = bonkwell::bench::runTrials(
        take, slaps, kMinSpacingMs, kMaxSpacingMs, slapFor(kShortSpikeMs));
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
    if (streamFloor) {
        bonkwell::bench::print("bare own PulseAudio stream (the app's floor)", *streamFloor);
        bonkwell::bench::print("bare SDL2_mixer loop (SDL's floor)", *floor);
    } else {
        bonkwell::bench::print("bare SDL2_mixer loop (floor)", *floor);
    }
    if (opening.ms.empty()) {
        std::printf("%-44s no sound\n", "first slap, 100 ms (opens the output)");
    } else {
        std::printf("%-44s %6.1f ms\n", "first slap, 100 ms (opens the output)",
                    opening.ms.front());
    }
    std::printf(
        "\nover the floor (median / p90): 100 ms jolt +%.1f / +%.1f ms, 30 ms jolt "
        "+%.1f / +%.1f ms\n",
        open.median() - appFloor.median(), open.p90() - appFloor.p90(),
        shortOpen.median() - appFloor.median(), shortOpen.p90() - appFloor.p90());
    std::printf("slaps written: %d\n", 2 * slaps + 1);
    std::printf("slaps with no sound: %d   with more than one sound: %d\n",
                opening.silent + open.silent + shortOpen.silent,
                opening.repeated + open.repeated + shortOpen.repeated);
    return 0;
}

// SPDX-License-Identifier: GPL-3.0-or-later
// What the latency benchmarks share: a recorder on a sound server's sink monitor that notes
// when each sound starts, the trigger loop that pairs triggers with those onsets, the figures,
// and the floor every benchmark is compared with (a bare SDL2_mixer loop on the same server).
#pragma once

#include <pulse/simple.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace bonkwell::bench {

inline constexpr int kRecordRate = 48000;
inline constexpr int kRecordChunkFrames = 64;  // 1.3 ms
inline constexpr float kOnsetThreshold = 0.01F;
inline constexpr double kSilenceBeforeOnset = 0.150;
// An idle null sink works in 2 s blocks: record this long before the first trigger.
inline constexpr int kSettleMilliseconds = 2500;

// CLOCK_MONOTONIC in seconds.
double monotonicNow();

// How the recorder dates its samples, for the benchmarks' output.
std::string recorderMethod();

// Reads a sink's monitor and notes the time of every onset: the first sample above the
// threshold after at least 150 ms below it.
class Recorder {
  public:
    Recorder() = default;
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder();

    // Connects to the default server ($PULSE_SERVER or the user's own) and starts reading.
    bool start(const std::string& monitor, std::string* error);
    std::vector<double> takeOnsets();
    // Dropouts since the last call: within a sound, a stretch of at least kDropoutFrames
    // samples of digital silence (|x| < 1e-4) that sound follows again within 150 ms. A
    // steady tone has none unless the player or the server ran dry (an underrun).
    int takeDropouts();
    pid_t threadId() const { return tid_; }

  private:
    void run();

    pa_simple* stream_ = nullptr;
    std::atomic<pid_t> tid_{0};
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<double> onsets_;
    int dropouts_ = 0;
};

inline constexpr int kDropoutFrames = 24;  // 0.5 ms

// One trigger and what the sink heard after it, up to the next trigger.
struct Trial {
    double triggeredAt = 0;
    std::optional<double> latencyMs;  // to the first onset
    int onsets = 0;
};

struct Figures {
    std::vector<double> ms;
    int silent = 0;    // triggers followed by no onset
    int repeated = 0;  // triggers followed by more than one onset
    double median() const { return at(0.5); }
    double p90() const { return at(0.9); }
    double at(double q) const;
};

Figures summarize(std::span<const Trial> trials);

// Calls `trigger` `count` times with a random pause of `minPauseMs`..`maxPauseMs` after each,
// so that the triggers land on every phase of the audio buffer. `trigger` returns the
// CLOCK_MONOTONIC time it counts from. Each trigger gets the onsets (`takeOnsets`: the times
// seen since the last call, such as Recorder::takeOnsets) from 15 ms before it up to 15 ms
// before the next one (the last one: up to `minPauseMs` after it).
std::vector<Trial> runTrials(const std::function<std::vector<double>()>& takeOnsets, int count,
                             int minPauseMs, int maxPauseMs,
                             const std::function<double()>& trigger);

// The floor: a bare SDL2_mixer loop on `clip` (decoded once in advance) with the given
// buffer, `count` triggers 600-900 ms apart, through the SDL drivers the app would try.
// A buffer of 0 is the app's own choice for the driver SDL picks. The SDL driver used goes
// to `driver`, the buffer to `framesUsed` (when not null).
std::optional<Figures> measureBareMixer(Recorder& recorder, const std::string& clip, int count,
                                        int bufferFrames, std::string* driver, std::string* error,
                                        int* framesUsed = nullptr);

// The floor of the app's own PulseAudio stream: PulseSoundOutput::play (which decodes the file)
// called straight from this thread, `count` triggers 600-900 ms apart, on the session's
// PulseAudio.
std::optional<Figures> measureBareStream(Recorder& recorder, const std::string& clip, int count,
                                         std::string* error);

// "<what>  median … ms  p90 … ms  min …  max …  (paired/triggers <noun>)"
void print(const char* what, const Figures& figures, const char* noun = "heard");

}  // namespace bonkwell::bench

// SPDX-License-Identifier: GPL-3.0-or-later
#include "AudioBench.h"

#include "PulseSoundOutput.h"
#include "SdlSoundOutput.h"

#include <QString>

#include <SDL.h>
#include <SDL_mixer.h>
#include <pulse/error.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <random>
#include <utility>

namespace bonkwell::bench {

double monotonicNow() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::string recorderMethod() {
    char text[512];
    std::snprintf(text, sizeof text,
                  "onset = first monitor sample above %.2f after >= %.0f ms below it; the "
                  "recorder reads %d-frame chunks at %d Hz and dates a chunk's first sample "
                  "as CLOCK_MONOTONIC at the read, less the recording stream's latency "
                  "(pa_simple_get_latency), less the chunk's length: the time the server "
                  "mixed it, before any sound card buffer",
                  static_cast<double>(kOnsetThreshold), kSilenceBeforeOnset * 1000.0,
                  kRecordChunkFrames, kRecordRate);
    return text;
}

Recorder::~Recorder() {
    stop_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    if (stream_ != nullptr) {
        pa_simple_free(stream_);
    }
}

bool Recorder::start(const std::string& monitor, std::string* error) {
    pa_sample_spec format{PA_SAMPLE_FLOAT32LE, kRecordRate, 1};
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.fragsize = kRecordChunkFrames * sizeof(float);
    int code = 0;
    stream_ = pa_simple_new(nullptr, "bonkwell-bench", PA_STREAM_RECORD, monitor.c_str(), "monitor",
                            &format, nullptr, &attr, &code);
    if (stream_ == nullptr) {
        *error = "cannot record " + monitor + ": " + pa_strerror(code);
        return false;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

std::vector<double> Recorder::takeOnsets() {
    std::lock_guard lock(mutex_);
    return std::exchange(onsets_, {});
}

int Recorder::takeDropouts() {
    std::lock_guard lock(mutex_);
    return std::exchange(dropouts_, 0);
}

void Recorder::run() {
    tid_ = gettid();
    std::vector<float> chunk(kRecordChunkFrames);
    double quietSince = -1e9;
    bool sounding = false;
    bool heard = false;  // sound since the last long silence
    int silentRun = 0;   // samples of digital silence in a row
    constexpr int kLongSilence = static_cast<int>(0.150 * kRecordRate);
    while (!stop_) {
        int error = 0;
        if (pa_simple_read(stream_, chunk.data(), chunk.size() * sizeof(float), &error) < 0) {
            std::fprintf(stderr, "recorder: read: %s\n", pa_strerror(error));
            return;
        }
        const double readAt = monotonicNow();
        const pa_usec_t latency = pa_simple_get_latency(stream_, &error);
        // Time of the chunk's first sample as the server mixed it.
        const double first = readAt - static_cast<double>(latency) * 1e-6 -
                             static_cast<double>(kRecordChunkFrames) / kRecordRate;
        for (int i = 0; i < kRecordChunkFrames; ++i) {
            const double t = first + static_cast<double>(i) / kRecordRate;
            if (std::fabs(chunk[static_cast<std::size_t>(i)]) < 1e-4F) {
                if (++silentRun >= kLongSilence) {
                    heard = false;
                }
            } else {
                if (heard && silentRun >= kDropoutFrames && silentRun < kLongSilence) {
                    std::lock_guard lock(mutex_);
                    ++dropouts_;
                }
                heard = true;
                silentRun = 0;
            }
            if (std::fabs(chunk[static_cast<std::size_t>(i)]) > kOnsetThreshold) {
                if (!sounding && t - quietSince >= kSilenceBeforeOnset) {
                    std::lock_guard lock(mutex_);
                    onsets_.push_back(t);
                }
                sounding = true;
            } else if (sounding) {
                sounding = false;
                quietSince = t;
            }
        }
    }
}

double Figures::at(double q) const {
    if (ms.empty()) {
        return NAN;
    }
    std::vector<double> s = ms;
    std::sort(s.begin(), s.end());
    const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(s.size())));
    return s[std::min(rank == 0 ? 0 : rank - 1, s.size() - 1)];
}

Figures summarize(std::span<const Trial> trials) {
    Figures figures;
    for (const Trial& trial : trials) {
        if (trial.latencyMs) {
            figures.ms.push_back(*trial.latencyMs);
        }
        figures.silent += trial.onsets == 0 ? 1 : 0;
        figures.repeated += trial.onsets > 1 ? 1 : 0;
    }
    return figures;
}

std::vector<Trial> runTrials(const std::function<std::vector<double>()>& takeOnsets, int count,
                             int minPauseMs, int maxPauseMs,
                             const std::function<double()>& trigger) {
    // An onset dated this much before its trigger is its own. PipeWire's PulseAudio service
    // reports a monitor stream's latency a few milliseconds too long (its floor has onsets
    // dated 4 ms before their trigger), which with a tighter margin moved sounds to the
    // previous trigger: a slap "unheard" and the one before it "heard twice". Triggers are
    // 600 ms or more apart, so no other trigger's sound can start this close to one.
    constexpr double kEarly = 0.015;
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> pause(minPauseMs, maxPauseMs);
    std::vector<Trial> trials;
    takeOnsets();
    for (int i = 0; i < count; ++i) {
        trials.push_back(Trial{trigger(), std::nullopt, 0});
        std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::vector<double> onsets = takeOnsets();
    for (std::size_t i = 0; i < trials.size(); ++i) {
        Trial& trial = trials[i];
        const double from = trial.triggeredAt - kEarly;
        const double until = i + 1 < trials.size() ? trials[i + 1].triggeredAt - kEarly
                                                   : trial.triggeredAt + minPauseMs / 1000.0;
        for (const double onset : onsets) {
            if (onset >= from && onset < until) {
                if (trial.onsets++ == 0) {
                    trial.latencyMs = (onset - trial.triggeredAt) * 1000.0;
                }
            }
        }
    }
    return trials;
}

std::optional<Figures> measureBareMixer(Recorder& recorder, const std::string& clip, int count,
                                        int bufferFrames, std::string* driver, std::string* error,
                                        int* framesUsed) {
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    SDL_SetHint(SDL_HINT_AUDIODRIVER, SdlSoundOutput::preferredAudioDrivers().toUtf8().constData());
    if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
        *error = std::string("SDL: ") + SDL_GetError();
        return std::nullopt;
    }
    if (bufferFrames <= 0) {
        bufferFrames =
            SdlSoundOutput::bufferFramesFor(QString::fromUtf8(SDL_GetCurrentAudioDriver()));
    }
    if (framesUsed != nullptr) {
        *framesUsed = bufferFrames;
    }
    if (Mix_OpenAudioDevice(kRecordRate, AUDIO_S16SYS, 2, bufferFrames, nullptr, 0) != 0) {
        *error = std::string("SDL: ") + SDL_GetError();
        SDL_QuitSubSystem(SDL_INIT_AUDIO);
        return std::nullopt;
    }
    *driver = SDL_GetCurrentAudioDriver();
    Mix_Chunk* chunk = Mix_LoadWAV(clip.c_str());
    if (chunk == nullptr) {
        *error = clip + ": " + Mix_GetError();
        Mix_CloseAudio();
        SDL_QuitSubSystem(SDL_INIT_AUDIO);
        return std::nullopt;
    }
    // Warm up: the first sound after opening is not what this loop measures.
    Mix_PlayChannel(-1, chunk, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    const auto onsets = [&] { return recorder.takeOnsets(); };
    const std::vector<Trial> trials = runTrials(onsets, count, 600, 900, [&] {
        const double at = monotonicNow();
        Mix_PlayChannel(-1, chunk, 0);
        return at;
    });
    Mix_HaltChannel(-1);
    Mix_FreeChunk(chunk);
    Mix_CloseAudio();
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    return summarize(trials);
}

std::optional<Figures> measureBareStream(Recorder& recorder, const std::string& clip, int count,
                                         std::string* error) {
    PulseSoundOutput output;
    const QString path = QString::fromStdString(clip);
    QString playError;
    // Warm up: the first sound opens the stream, which is not what this loop measures.
    std::unique_ptr<Voice> voice = output.play(path, 1.0F, playError);
    if (!voice) {
        *error = "the own PulseAudio stream does not play " + clip + ": " +
                 (playError.isEmpty() ? std::string("no server") : playError.toStdString());
        return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    const auto onsets = [&] { return recorder.takeOnsets(); };
    const std::vector<Trial> trials = runTrials(onsets, count, 600, 900, [&] {
        const double at = monotonicNow();
        voice = output.play(path, 1.0F, playError);  // the previous sound has ended by now
        return at;
    });
    voice.reset();
    return summarize(trials);
}

void print(const char* what, const Figures& f, const char* noun) {
    const std::size_t triggers = f.ms.size() + static_cast<std::size_t>(f.silent);
    std::printf("%-44s median %6.1f ms   p90 %6.1f ms   min %6.1f   max %6.1f   (%zu/%zu %s", what,
                f.median(), f.p90(), f.at(0.0), f.at(1.0), f.ms.size(), triggers, noun);
    if (f.repeated > 0) {
        std::printf(", %d %s more than once", f.repeated, noun);
    }
    std::printf(")\n");
}

}  // namespace bonkwell::bench

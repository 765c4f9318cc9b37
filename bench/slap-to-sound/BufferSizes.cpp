// SPDX-License-Identifier: GPL-3.0-or-later
#include "BufferSizes.h"

#include "AudioPlayer.h"
#include "Clock.h"
#include "PulseSoundOutput.h"
#include "SdlSoundOutput.h"
#include "ServerPlayer.h"

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>
#include <QtGlobal>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <thread>

namespace bonkwell::bench {
namespace {

constexpr double kToneSeconds = 3.0;

// How many tones each row plays: $BONKWELL_BENCH_TONES, 2 by default. Dropouts are rare
// events, so a longer run tells a rate from luck.
int toneCount() {
    const int wanted = qEnvironmentVariableIntValue("BONKWELL_BENCH_TONES");
    return wanted > 0 ? wanted : 2;
}

void put16(QByteArray& out, std::uint16_t v) {
    out.append(static_cast<char>(v & 0xff));
    out.append(static_cast<char>(v >> 8));
}

void put32(QByteArray& out, std::uint32_t v) {
    put16(out, static_cast<std::uint16_t>(v & 0xffff));
    put16(out, static_cast<std::uint16_t>(v >> 16));
}

// Busy processes, one per core, for as long as this exists.
class Load {
  public:
    explicit Load(int processes) {
        for (int i = 0; i < processes; ++i) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                volatile std::uint64_t spin = 0;
                for (;;) {
                    spin = spin + 1;
                }
            }
            if (pid > 0) {
                pids_.push_back(pid);
            }
        }
    }
    ~Load() {
        for (const pid_t pid : pids_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

  private:
    std::vector<pid_t> pids_;
};

std::unique_ptr<SoundOutput> outputFor(const BufferChoice& choice) {
    if (choice.pulse) {
        PulseSoundOutput::Options options;
        options.periodFrames = choice.frames;
        options.periods = choice.periods;
        options.requests = choice.earlyRequests ? PulseSoundOutput::Requests::earlyRequests
                                                : PulseSoundOutput::Requests::adjustLatency;
        options.rewriteQueue = choice.rewrite;
        return std::make_unique<PulseSoundOutput>(options);
    }
    SdlSoundOutput::Options options;
    options.bufferFrames = choice.frames;
    return std::make_unique<SdlSoundOutput>(options);
}

std::string describe(const BufferChoice& choice) {
    char what[96];
    if (choice.pulse) {
        std::snprintf(what, sizeof what, "own stream %d x %3d frames (%4.1f ms)%s%s",
                      choice.periods, choice.frames,
                      choice.periods * choice.frames * 1000.0 / kRecordRate,
                      choice.earlyRequests ? " early" : "", choice.rewrite ? " rewrite" : "");
    } else {
        std::snprintf(what, sizeof what, "SDL %4d frames (%4.1f ms)", choice.frames,
                      choice.frames * 1000.0 / kRecordRate);
    }
    return what;
}

}  // namespace

bool writeTestTone(const QString& path, double seconds, double level) {
    const auto frames = static_cast<std::uint32_t>(seconds * kRecordRate);
    QByteArray wav;
    wav.append("RIFF");
    put32(wav, 36 + frames * 4);
    wav.append("WAVEfmt ");
    put32(wav, 16);
    put16(wav, 1);  // PCM
    put16(wav, 2);
    put32(wav, kRecordRate);
    put32(wav, kRecordRate * 4);
    put16(wav, 4);
    put16(wav, 16);
    wav.append("data");
    put32(wav, frames * 4);
    for (std::uint32_t i = 0; i < frames; ++i) {
        const double x = level * std::sin(2.0 * M_PI * 440.0 * i / kRecordRate);
        const auto v = static_cast<std::int16_t>(std::lrint(x * 32767.0));
        put16(wav, static_cast<std::uint16_t>(v));
        put16(wav, static_cast<std::uint16_t>(v));
    }
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(wav) == wav.size();
}

Figures measureDuringAnother(Recorder& recorder, AudioPlayer& player, const SoundPack& clips,
                             int count) {
    QTemporaryDir dir;
    SoundPack bed;
    bed.name = QStringLiteral("Bed");
    bed.files << dir.path() + QStringLiteral("/bed.wav");
    // A quarter of the onset threshold: heard by the mixer, not by the onset detector.
    if (!dir.isValid() || !writeTestTone(bed.files.first(), 0.5, kOnsetThreshold / 4)) {
        std::fprintf(stderr, "slap-to-sound: cannot write the quiet tone\n");
        return {};
    }
    return summarize(runTrials([&] { return recorder.takeOnsets(); }, count, 600, 900,
                               [&] {
                                   player.playSlap(bed, PlayMode::random, 0.8, 1.0, false);
                                   std::this_thread::sleep_for(std::chrono::milliseconds(100));
                                   const double at = monotonicNow();
                                   player.playSlap(clips, PlayMode::random, 0.8, 1.0, false);
                                   return at;
                               }));
}

std::vector<BufferChoice> parseBufferChoices(const QString& sdl, const QString& pulse) {
    std::vector<BufferChoice> choices;
    for (const QString& word : sdl.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        if (const int n = word.trimmed().toInt(); n > 0) {
            choices.push_back({false, n, 0, false, false});
        }
    }
    for (QString word : pulse.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        word = word.trimmed();
        bool early = false;
        bool rewrite = false;
        while (word.endsWith(QLatin1Char('e')) || word.endsWith(QLatin1Char('r'))) {
            (word.endsWith(QLatin1Char('e')) ? early : rewrite) = true;
            word.chop(1);
        }
        const QStringList parts = word.split(QLatin1Char('x'));
        const int frames = parts.value(0).toInt();
        const int periods = parts.value(1).toInt();
        if (parts.size() == 2 && frames > 0 && periods > 0) {
            choices.push_back({true, frames, periods, early, rewrite});
        }
    }
    return choices;
}

void compareBufferSizes(Recorder& recorder, const SoundPack& clips,
                        const std::vector<BufferChoice>& choices,
                        const std::vector<int>& serverPlayerLatencies, int count) {
    QTemporaryDir dir;
    const QString tone = dir.path() + QStringLiteral("/tone.wav");
    if (!dir.isValid() || !writeTestTone(tone)) {
        std::fprintf(stderr, "slap-to-sound: cannot write the test tone\n");
        return;
    }
    SoundPack tonePack;
    tonePack.name = QStringLiteral("Tone");
    tonePack.files << tone;
    const long cores = ::sysconf(_SC_NPROCESSORS_ONLN);
    const int tones = toneCount();

    std::printf(
        "\nbuffer sizes: playSlap latency (output open, %d triggers) and dropouts in %d "
        "x %.0f s of a steady tone (runs of >= %d samples of digital silence inside "
        "it: underruns)\n",
        count, tones, kToneSeconds, kDropoutFrames);
    for (const bool busy : {false, true}) {
        std::optional<Load> load;
        if (busy) {
            load.emplace(static_cast<int>(cores));
        }
        for (const BufferChoice& choice : choices) {
            std::unique_ptr<SoundOutput> output = outputFor(choice);
            const PulseSoundOutput* pulse =
                choice.pulse ? static_cast<const PulseSoundOutput*>(output.get()) : nullptr;
            AudioPlayer player(Clock::system(), std::move(output), std::chrono::seconds(60));
            player.playSlap(clips, PlayMode::random, 0.8, 1.0, false);  // opens the device
            std::this_thread::sleep_for(std::chrono::milliseconds(800));
            const Figures latency =
                summarize(runTrials([&] { return recorder.takeOnsets(); }, count, 600, 900,
                                    [&] {
                                        const double at = monotonicNow();
                                        player.playSlap(clips, PlayMode::random, 0.8, 1.0, false);
                                        return at;
                                    }));
            const Figures during = measureDuringAnother(recorder, player, clips, count);
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            recorder.takeDropouts();
            const std::uint64_t underrunsBefore = pulse != nullptr ? pulse->underruns() : 0;
            for (int i = 0; i < tones; ++i) {
                player.playTest(tonePack, 1.0);
                std::this_thread::sleep_for(
                    std::chrono::milliseconds(static_cast<int>(kToneSeconds * 1000) + 400));
            }
            const int dropouts = recorder.takeDropouts();
            char what[128];
            std::snprintf(what, sizeof what, "%s, %s", describe(choice).c_str(),
                          busy ? "all cores busy" : "at rest");
            char underruns[48] = "";
            if (pulse != nullptr) {
                std::snprintf(
                    underruns, sizeof underruns, "   (server: %llu underruns)",
                    static_cast<unsigned long long>(pulse->underruns() - underrunsBefore));
            }
            std::printf(
                "%-56s median %6.1f ms   p90 %6.1f ms   max %6.1f   during another %5.1f / %5.1f "
                "ms   dropouts %d   load %.2f%s%s\n",
                what, latency.median(), latency.p90(), latency.at(1.0), during.median(),
                during.p90(), dropouts, loadAverage(), underruns,
                latency.silent + during.silent > 0 ? "  (some triggers unheard)" : "");
            std::fflush(stdout);
        }
        for (const int frames : serverPlayerLatencies) {
            std::string error;
            const std::optional<int> dropouts =
                serverPlayerDropouts(recorder, tone, kToneSeconds, frames, tones, &error);
            char what[128];
            std::snprintf(what, sizeof what, "pw-cat --latency %d (%4.1f ms)%s, %s", frames,
                          frames * 1000.0 / kRecordRate, serverPlayerLikeOurs() ? " RR" : "",
                          busy ? "all cores busy" : "at rest");
            if (dropouts) {
                std::printf("%-56s %-54s dropouts %d   load %.2f\n", what,
                            "(the server's own player)", *dropouts, loadAverage());
            } else {
                std::printf("%-56s %s\n", what, error.c_str());
            }
            std::fflush(stdout);
        }
    }
}

}  // namespace bonkwell::bench

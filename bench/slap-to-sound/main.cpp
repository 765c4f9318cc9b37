// SPDX-License-Identifier: GPL-3.0-or-later
// Slap-to-sound latency: from the moment playSlap() is called to the first audible sample the
// sound server mixes, measured at a null sink's monitor. The same run measures a bare
// SDL2_mixer loop on the same clip and buffer size (the floor) and the first slap after the
// output went idle (device closed). Run through bench/slap-to-sound/run, which starts the
// server; this program only needs $PULSE_SERVER and the monitor's name.
#include "AudioBench.h"
#include "AudioPlayer.h"
#include "BufferSizes.h"
#include "ChoosingSoundOutput.h"
#include "Clock.h"
#include "PulseSoundOutput.h"
#include "SdlSoundOutput.h"
#include "ServerPlayer.h"
#include "SoundPackManager.h"
#include "SoundServer.h"

#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using bonkwell::bench::Figures;
using bonkwell::bench::monotonicNow;
using bonkwell::bench::Recorder;

// Fires `trigger` `count` times, 600-900 ms apart at random so the triggers land on every
// phase of the audio buffer, and pairs each with the next onset the recorder saw.
Figures measure(Recorder& recorder, int count, const std::function<void()>& trigger) {
    return bonkwell::bench::summarize(
        bonkwell::bench::runTrials([&] { return recorder.takeOnsets(); }, count, 600, 900,
                                   [&] {
                                       const double at = monotonicNow();
                                       trigger();
                                       return at;
                                   }));
}

double cpuSeconds(const std::string& statPath) {
    FILE* f = std::fopen(statPath.c_str(), "r");
    if (f == nullptr) {
        return NAN;
    }
    char buffer[1024] = {};
    const std::size_t n = std::fread(buffer, 1, sizeof buffer - 1, f);
    std::fclose(f);
    std::string stat(buffer, n);
    const auto close = stat.rfind(')');
    if (close == std::string::npos) {
        return NAN;
    }
    unsigned long utime = 0;
    unsigned long stime = 0;
    // Fields after the command: state(3) ... utime(14) stime(15).
    if (std::sscanf(stat.c_str() + close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
                    &utime, &stime) != 2) {
        return NAN;
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// CPU seconds of this process without the benchmark's own recording threads (the recorder
// and libpulse's main loop thread that serves it). The process total also keeps the time of
// threads that have ended, such as SDL's audio thread after the device closed.
double playerCpuSeconds(pid_t recorderTid) {
    double total = cpuSeconds("/proc/self/stat");
    for (const QFileInfo& task :
         QDir(QStringLiteral("/proc/self/task")).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(task.filePath() + QStringLiteral("/comm"));
        const QByteArray name = comm.open(QIODevice::ReadOnly) ? comm.readAll().trimmed() : "";
        if (task.fileName().toInt() == recorderTid || name == "threaded-ml") {
            total -= cpuSeconds((task.filePath() + QStringLiteral("/stat")).toStdString());
        }
    }
    return total;
}

// CPU use of the player side and of the server over `seconds`, in percent of one core.
std::pair<double, double> idleCpu(int serverPid, pid_t recorderTid, double seconds) {
    const std::string server = "/proc/" + std::to_string(serverPid) + "/stat";
    const double self0 = playerCpuSeconds(recorderTid);
    const double server0 = cpuSeconds(server);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double self1 = playerCpuSeconds(recorderTid);
    return {(self1 - self0) / seconds * 100.0, (cpuSeconds(server) - server0) / seconds * 100.0};
}

// The player with the device open and idle-closed, the floor, the decoding cost and the idle
// CPU, with the goals.
bool measurePlayerAndFloor(Recorder& recorder, const bonkwell::SoundPack& pack,
                           const bonkwell::SoundPack& tonePack, const QString& clip, int serverPid,
                           int count) {
    Figures player;
    Figures during;
    Figures cold;
    std::uint64_t opens = 0;
    std::pair<double, double> cpuOpen{NAN, NAN};
    std::pair<double, double> cpuClosed{NAN, NAN};
    std::pair<double, double> cpuSounding{NAN, NAN};
    const char* outputName = "?";
    // The app's own output, the one the app would choose for this server; the outputs it
    // makes are watched for their openings.
    std::vector<const bonkwell::SoundOutput*> made;
    bool ownStream = false;
    const auto chooser = [&made, &outputName, &ownStream] {
        return std::make_unique<bonkwell::ChoosingSoundOutput>(
            [&made, &outputName, &ownStream](bonkwell::ChoosingSoundOutput::Kind kind) {
                auto output = bonkwell::ChoosingSoundOutput::makeOutput(kind);
                made.push_back(output.get());
                ownStream = kind == bonkwell::ChoosingSoundOutput::Kind::pulse;
                outputName = ownStream ? "own PulseAudio stream" : "SDL2_mixer";
                return output;
            });
    };
    const auto openings = [&made] {
        std::uint64_t n = 0;
        for (const bonkwell::SoundOutput* output : made) {
            if (const auto* pulse = dynamic_cast<const bonkwell::PulseSoundOutput*>(output)) {
                n += pulse->openCount();
            } else if (const auto* sdl = dynamic_cast<const bonkwell::SdlSoundOutput*>(output)) {
                n += sdl->openCount();
            }
        }
        return n;
    };
    {
        // Released only after a minute of silence, so that the idle figure below is that of
        // an open device.
        bonkwell::AudioPlayer p(bonkwell::Clock::system(), chooser(), std::chrono::seconds(60));
        // Warm up: the first slap of a run opens the device.
        p.playSlap(pack, bonkwell::PlayMode::random, 0.8, 1.0, true);
        std::this_thread::sleep_for(std::chrono::milliseconds(800));
        player = measure(recorder, count,
                         [&] { p.playSlap(pack, bonkwell::PlayMode::random, 0.8, 1.0, true); });
        during = bonkwell::bench::measureDuringAnother(recorder, p, pack, count);
        if (serverPid > 0) {
            cpuOpen = idleCpu(serverPid, recorder.threadId(), 5.0);
            // And while a long sound plays (a 3 s tone, twice).
            p.playTest(tonePack, 1.0);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            cpuSounding = idleCpu(serverPid, recorder.threadId(), 2.8);
        }
    }
    made.clear();
    {
        // The output is released after 100 ms of silence here, so every slap opens it again.
        bonkwell::AudioPlayer p(bonkwell::Clock::system(), chooser(),
                                std::chrono::milliseconds(100));
        cold = measure(recorder, count,
                       [&] { p.playSlap(pack, bonkwell::PlayMode::random, 0.8, 1.0, true); });
        p.waitUntilIdleForTesting();
        opens = openings();
        if (serverPid > 0) {
            cpuClosed = idleCpu(serverPid, recorder.threadId(), 5.0);
        }
    }
    const int appFrames = 0;  // the floor: the app's SDL buffer for the driver SDL picks

    // The floor: a bare SDL2_mixer loop, clip decoded once in advance, same buffer.
    std::string driver;
    std::string error;
    int floorFrames = 0;
    const std::optional<Figures> floorFigures = bonkwell::bench::measureBareMixer(
        recorder, clip.toStdString(), count, appFrames, &driver, &error, &floorFrames);
    if (!floorFigures) {
        std::fprintf(stderr, "slap-to-sound: %s\n", error.c_str());
        return false;
    }
    std::printf(
        "SDL audio driver: %s; the app's buffer for it: %d frames (%.1f ms), the floor's "
        "the same\n",
        driver.c_str(), floorFrames, floorFrames * 1000.0 / bonkwell::bench::kRecordRate);
    const Figures sdlFloor = *floorFigures;
    // Where the app plays through its own PulseAudio stream, that stream is its floor.
    std::optional<Figures> streamFloor;
    if (ownStream) {
        streamFloor =
            bonkwell::bench::measureBareStream(recorder, clip.toStdString(), count, &error);
        if (!streamFloor) {
            std::fprintf(stderr, "slap-to-sound: %s\n", error.c_str());
            return false;
        }
    }
    const Figures floor = streamFloor.value_or(sdlFloor);

    // What decoding at every playback costs: read, decode, scale and start each built-in clip.
    std::vector<double> decodeMs;
    QString slowest;
    {
        bonkwell::SdlSoundOutput output;
        const QDir packs = QFileInfo(clip).dir().absoluteFilePath(QStringLiteral(".."));
        QString error;
        output.play(clip, 1.0F, error);  // opens the device
        for (const QString& pack : packs.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            for (const QString& file :
                 bonkwell::SoundPackManager::mp3s(packs.absoluteFilePath(pack))) {
                const double t0 = monotonicNow();
                auto voice = output.play(file, 0.5F, error);
                const double ms = (monotonicNow() - t0) * 1000.0;
                if (voice && (decodeMs.empty() ||
                              ms > *std::max_element(decodeMs.begin(), decodeMs.end()))) {
                    slowest = pack + '/' + QFileInfo(file).fileName();
                }
                if (voice) {
                    decodeMs.push_back(ms);
                }
            }
        }
    }
    Figures decode{decodeMs, 0};

    std::printf("\n");
    std::printf("the app's output on this server: %s\n", outputName);
    bonkwell::bench::print("AudioPlayer::playSlap, output open", player);
    bonkwell::bench::print("AudioPlayer::playSlap, while another sound plays", during);
    if (streamFloor) {
        bonkwell::bench::print("bare own PulseAudio stream (floor)", *streamFloor);
        bonkwell::bench::print("bare SDL2_mixer loop (SDL's floor)", sdlFloor);
    } else {
        bonkwell::bench::print("bare SDL2_mixer loop (floor)", sdlFloor);
    }
    bonkwell::bench::print("AudioPlayer::playSlap, output idle-closed", cold);
    std::printf("(the idle-closed row opened the device %llu times)\n",
                static_cast<unsigned long long>(opens));
    std::printf("\nratio to floor (median): %.2f   p90: %.2f\n", player.median() / floor.median(),
                player.p90() / floor.p90());
    std::printf("first slap after idle costs (median): +%.1f ms\n",
                cold.median() - player.median());
    std::printf(
        "decode and start per playback, %zu built-in clips: median %.2f ms, p90 %.2f ms, "
        "max %.2f ms (%s)\n",
        decode.ms.size(), decode.median(), decode.p90(), decode.at(1.0), qPrintable(slowest));
    if (serverPid > 0) {
        std::printf("CPU while a tone sounds:          player %.1f %%, server %.1f %%\n",
                    cpuSounding.first, cpuSounding.second);
        std::printf("idle CPU over 5 s, output open:   player %.1f %%, server %.1f %%\n",
                    cpuOpen.first, cpuOpen.second);
        std::printf("idle CPU over 5 s, output closed: player %.1f %%, server %.1f %%\n",
                    cpuClosed.first, cpuClosed.second);
        std::printf("(the server figures include serving this benchmark's own recorder)\n");
    }
    // Against a floor of a millisecond or less, 1.5x is noise: within 2 ms of it also counts.
    const bool nearFloor =
        player.median() <= 1.5 * floor.median() || player.median() <= floor.median() + 2.0;
    const bool goal = player.median() <= 20.0 && nearFloor;
    std::printf("goal (median <= 20 ms and <= 1.5x floor or floor + 2 ms): %s\n",
                goal ? "met" : "NOT met");
    std::printf("goal (floor median <= 6 ms): %s\n", floor.median() <= 6.0 ? "met" : "NOT met");
    std::fflush(stdout);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <clip.mp3> <sink monitor> [server pid] [triggers]\n",
                     argv[0]);
        return 2;
    }
    const QString clip = QFileInfo(QString::fromLocal8Bit(argv[1])).absoluteFilePath();
    const std::string monitor = argv[2];
    const int serverPid = argc > 3 ? std::atoi(argv[3]) : 0;
    const int count = argc > 4 ? std::max(25, std::atoi(argv[4])) : 25;

    Recorder recorder;
    std::string recordError;
    if (!recorder.start(monitor, &recordError)) {
        std::fprintf(stderr, "slap-to-sound: %s\n", recordError.c_str());
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(bonkwell::bench::kSettleMilliseconds));

    bonkwell::SoundPack pack;
    pack.name = QStringLiteral("Bench");
    pack.files << clip;
    std::printf("clip %s, %d triggers per row, at %d Hz\n", qPrintable(QFileInfo(clip).fileName()),
                count, bonkwell::bench::kRecordRate);

    QTemporaryDir toneDir;
    bonkwell::SoundPack tonePack;
    tonePack.name = QStringLiteral("Tone");
    tonePack.files << toneDir.filePath(QStringLiteral("tone.wav"));
    if (!toneDir.isValid() || !bonkwell::bench::writeTestTone(tonePack.files.first())) {
        std::fprintf(stderr, "slap-to-sound: cannot write the test tone\n");
        return 1;
    }

    // $BONKWELL_BENCH_ONLY_BUFFERS=1 skips to the buffer sizes (for trying server settings).
    if (qEnvironmentVariableIntValue("BONKWELL_BENCH_ONLY_BUFFERS") == 0 &&
        !measurePlayerAndFloor(recorder, pack, tonePack, clip, serverPid, count)) {
        return 1;
    }
    // $BONKWELL_BENCH_BUFFERS ("128,256,512" by default) lists the SDL buffers to compare,
    // $BONKWELL_BENCH_PULSE the periods of our own PulseAudio stream ("frames x periods", by
    // default a few around the chosen one where the app plays through that stream, none
    // elsewhere).
    const bool pulseServer =
        bonkwell::ChoosingSoundOutput::sessionKind() == bonkwell::ChoosingSoundOutput::Kind::pulse;
    const std::vector<bonkwell::bench::BufferChoice> choices = bonkwell::bench::parseBufferChoices(
        qEnvironmentVariable("BONKWELL_BENCH_BUFFERS", "128,256,512"),
        qEnvironmentVariable("BONKWELL_BENCH_PULSE",
                             pulseServer ? "192x2r,512x2r,1024x2r,1024x2" : ""));
    // $BONKWELL_BENCH_SERVER_PLAYER ("128,256" by default on PipeWire) the latencies at which
    // the server's own player plays the same tone, for comparison.
    const std::vector<int> serverPlayer =
        bonkwell::bench::parseServerPlayerLatencies(qEnvironmentVariable(
            "BONKWELL_BENCH_SERVER_PLAYER",
            bonkwell::sound::sessionSoundServer() == bonkwell::sound::SoundServer::pipeWire
                ? "128,256"
                : ""));
    bonkwell::bench::compareBufferSizes(recorder, pack, choices, serverPlayer, count);
    return 0;
}

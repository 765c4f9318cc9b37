// SPDX-License-Identifier: GPL-3.0-or-later
#include "ServerPlayer.h"

#include <QFile>
#include <QProcess>
#include <QStringList>

#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <thread>

namespace bonkwell::bench {

std::vector<int> parseServerPlayerLatencies(const QString& list) {
    std::vector<int> frames;
    for (const QString& word : list.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        if (const int n = word.trimmed().toInt(); n > 0) {
            frames.push_back(n);
        }
    }
    return frames;
}

namespace {

// Whether this process may run a thread at the lowest round-robin priority, as the app's audio
// thread asks to (and SDL's playback thread inherits from it).
bool roundRobinAllowed() {
    bool allowed = false;
    std::thread probe([&allowed] {
        sched_param param{};
        param.sched_priority = sched_get_priority_min(SCHED_RR);
        allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0;
    });
    probe.join();
    return allowed;
}

}  // namespace

bool serverPlayerLikeOurs() {
    static const bool allowed = roundRobinAllowed();
    return allowed;
}

std::optional<int> serverPlayerDropouts(Recorder& recorder, const QString& tonePath,
                                        double toneSeconds, int latencyFrames, int tones,
                                        std::string* error) {
    recorder.takeDropouts();
    const int timeoutMs = static_cast<int>(toneSeconds * 1000) + 5000;
    for (int i = 0; i < tones; ++i) {
        QProcess player;
        player.setProcessChannelMode(QProcess::ForwardedChannels);
        if (serverPlayerLikeOurs()) {
            // pw-cat fills its buffers on its main thread: give it the priority SDL's thread
            // that fills ours runs at, or the comparison under load is one of priorities.
            player.setChildProcessModifier([] {
                sched_param param{};
                param.sched_priority = sched_get_priority_min(SCHED_RR);
                sched_setscheduler(0, SCHED_RR, &param);
            });
        }
        player.start(QStringLiteral("pw-cat"),
                     {QStringLiteral("--playback"), QStringLiteral("--latency"),
                      QString::number(latencyFrames), tonePath});
        if (!player.waitForStarted()) {
            *error = "pw-cat does not start (install pipewire-bin): " +
                     player.errorString().toStdString();
            return std::nullopt;
        }
        if (!player.waitForFinished(timeoutMs) || player.exitStatus() != QProcess::NormalExit ||
            player.exitCode() != 0) {
            player.kill();
            player.waitForFinished();
            *error = "pw-cat failed to play " + tonePath.toStdString();
            return std::nullopt;
        }
        // The same pause between tones as our own rows have.
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
    }
    return recorder.takeDropouts();
}

double loadAverage() {
    QFile file(QStringLiteral("/proc/loadavg"));
    if (!file.open(QIODevice::ReadOnly)) {
        return -1.0;
    }
    return file.readLine().split(' ').value(0).toDouble();
}

}  // namespace bonkwell::bench

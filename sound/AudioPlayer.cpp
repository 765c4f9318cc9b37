// SPDX-License-Identifier: GPL-3.0-or-later
#include "AudioPlayer.h"

#include "ChoosingSoundOutput.h"
#include "Log.h"

#include <QFileInfo>

namespace bonkwell {

AudioPlayer::AudioPlayer(const Clock& clock)
    : AudioPlayer(clock, std::make_unique<ChoosingSoundOutput>()) {}

AudioPlayer::AudioPlayer(const Clock& clock, std::unique_ptr<SoundOutput> output,
                         std::chrono::milliseconds idleRelease)
    : clock_(clock),
      idleRelease_(idleRelease),
      output_(std::move(output)),
      queue_(std::make_unique<SerialQueue>("bonkwell-audio")) {
    // Sounds still playing at exit are stopped, and the device closed, on the queue's thread.
    queue_->setOnExit([this] {
        {
            std::lock_guard lock(playersLock_);
            activePlayers_.clear();
        }
        output_.reset();
    });
}

AudioPlayer::~AudioPlayer() {
    // Finishes the task that is running, drops the queued ones (they find the player gone)
    // and runs the exit hook above.
    queue_->shutdown();
}

void AudioPlayer::playSlap(const SoundPack& pack, PlayMode mode, double amplitude,
                           double userVolume, bool volumeScaling) {
    queue_->post([this, pack, mode, amplitude, userVolume, volumeScaling] {
        const QString file = selectFile(pack, mode, sound::kEscalationCooldown);
        play(file, amplitude, userVolume, volumeScaling);
    });
}

void AudioPlayer::playTest(const SoundPack& pack, double userVolume) {
    if (pack.files.isEmpty()) {
        return;
    }
    const QString file =
        pack.files.at(static_cast<qsizetype>(sound::secureRandomIndex(pack.files.size())));
    queue_->post(
        [this, file, userVolume] { play(file, sound::kTestAmplitude, userVolume, false); });
}

void AudioPlayer::resetTracker() {
    queue_->post([this] { tracker_.reset(); });
}

QString AudioPlayer::selectFile(const SoundPack& pack, PlayMode mode, double cooldown) {
    tracker_.countSlap(clock_.now());
    const auto count = static_cast<std::size_t>(pack.files.size());
    const std::size_t index = mode == PlayMode::random
                                  ? sound::secureRandomIndex(count)
                                  : sound::escalationIndex(tracker_.score, count, cooldown);
    return pack.files.at(static_cast<qsizetype>(index));
}

void AudioPlayer::play(const QString& file, double amplitude, double userVolume,
                       bool volumeScaling) {
    const float volume = sound::playbackVolume(amplitude, userVolume, volumeScaling);
    QString error;
    std::unique_ptr<Voice> voice = output_->play(file, volume, error);
    if (!voice) {
        if (!error.isEmpty()) {
            logLine(QStringLiteral("Bonkwell: failed to play %1: %2")
                        .arg(QFileInfo(file).fileName(), error));
        }
        return;
    }
    {
        std::lock_guard lock(playersLock_);
        activePlayers_.push_back(std::move(voice));
        std::erase_if(activePlayers_, [](const auto& v) { return !v->isPlaying(); });
    }
    armIdleRelease();
}

void AudioPlayer::armIdleRelease() {
    queue_->setTimer(std::chrono::steady_clock::now() + idleRelease_, [this] {
        bool sounding = false;
        {
            std::lock_guard lock(playersLock_);
            for (const auto& voice : activePlayers_) {
                sounding = sounding || voice->isPlaying();
            }
        }
        if (sounding) {
            armIdleRelease();  // a long sound is still playing; look again later
        } else {
            output_->goIdle();
        }
    });
}

sound::EscalationTracker AudioPlayer::trackerForTesting() {
    sound::EscalationTracker copy;
    queue_->sync([&] { copy = tracker_; });
    return copy;
}

std::size_t AudioPlayer::activePlayerCountForTesting() {
    std::size_t count = 0;
    queue_->sync([&] {
        std::lock_guard lock(playersLock_);
        count = activePlayers_.size();
    });
    return count;
}

void AudioPlayer::waitUntilIdleForTesting() {
    queue_->sync([] {});
}

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
// Turns a slap into a sound: picks a file of the pack (at random, or walking the pack as a
// quick series of slaps escalates), computes its volume and plays it. Sounds may overlap.
#pragma once

#include "Clock.h"
#include "Interfaces.h"
#include "PlaybackMath.h"
#include "SerialQueue.h"
#include "SharedTypes.h"
#include "SoundOutput.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

namespace bonkwell {

class AudioPlayer : public AudioPlayerInterface {
  public:
    // Label of the serial queue that owns the tracker and playback.
    static constexpr const char* kQueueLabel = "com.bonkwell.audio";
    // After this long without a sound the output device is released: while open it costs
    // CPU in the sound server even when silent. Opening it again for the next slap adds
    // about 2 ms (bench/slap-to-sound), so bursts keep it open and quiet hours do not.
    static constexpr std::chrono::seconds kIdleRelease{5};

    // Plays through ChoosingSoundOutput. `clock` supplies "now" for the escalation score and must
    // outlive the player.
    explicit AudioPlayer(const Clock& clock);
    // Plays through `output` (tests record, or render to a file).
    AudioPlayer(const Clock& clock, std::unique_ptr<SoundOutput> output,
                std::chrono::milliseconds idleRelease = kIdleRelease);
    ~AudioPlayer() override;
    AudioPlayer(const AudioPlayer&) = delete;
    AudioPlayer& operator=(const AudioPlayer&) = delete;

    // Returns at once. On the audio queue: counts the slap into the escalation score, picks
    // a file (`mode`) and plays it at the volume for `amplitude`. The pack must not be empty
    // (callers check `files`): an empty pack stops the process.
    void playSlap(const SoundPack& pack, PlayMode mode, double amplitude, double userVolume,
                  bool volumeScaling) override;
    // Plays a random file of the pack at the user volume (limited to 0 ... 1), without
    // touching the escalation score. Does nothing for an empty pack.
    void playTest(const SoundPack& pack, double userVolume) override;
    // Clears the escalation score, so that the next slap starts from the pack's first file.
    void resetTracker() override;

    // Test seams: both wait for everything queued before them.
    sound::EscalationTracker trackerForTesting();
    std::size_t activePlayerCountForTesting();
    void waitUntilIdleForTesting();

  private:
    QString selectFile(const SoundPack& pack, PlayMode mode, double cooldown);
    void play(const QString& file, double amplitude, double userVolume, bool volumeScaling);
    void armIdleRelease();

    const Clock& clock_;
    const std::chrono::milliseconds idleRelease_;
    std::unique_ptr<SoundOutput> output_;  // used on the queue only
    sound::EscalationTracker tracker_;     // used on the queue only
    std::mutex playersLock_;
    std::vector<std::unique_ptr<Voice>> activePlayers_;  // guarded by playersLock_
    // Shut down first thing in the destructor, so that no task runs once members go.
    std::unique_ptr<SerialQueue> queue_;
};

}  // namespace bonkwell

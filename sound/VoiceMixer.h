// SPDX-License-Identifier: GPL-3.0-or-later
// Mixes the sounds that play at once into one stream of interleaved 16-bit stereo samples.
// Sounds are added from any thread (the audio player's worker); the audio thread renders.
// The two share only a short lock around a hand-over list, never held while mixing.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace bonkwell::sound {

class VoiceMixer {
  public:
    static constexpr std::size_t kChannels = 2;

    // One sound in the mix. Its owner may stop it or ask whether it is still playing.
    class Track {
      public:
        explicit Track(std::vector<std::int16_t> samples) : samples_(std::move(samples)) {}
        // True until its last sample has been rendered, or until it was stopped or dropped.
        bool isPlaying() const { return !done_.load(std::memory_order_acquire); }
        // Takes it out of the mix at the next render; nothing more of it is heard.
        void stop() { done_.store(true, std::memory_order_release); }
        std::size_t frames() const { return samples_.size() / kChannels; }

      private:
        friend class VoiceMixer;
        const std::vector<std::int16_t> samples_;
        std::size_t position_ = 0;  // next sample; used by the rendering thread only
        std::atomic<bool> done_{false};
    };

    VoiceMixer() = default;
    VoiceMixer(const VoiceMixer&) = delete;
    VoiceMixer& operator=(const VoiceMixer&) = delete;

    // Adds interleaved stereo `samples` (gain already applied); they start at the next render.
    // An odd trailing sample is dropped. Any thread.
    std::shared_ptr<Track> add(std::vector<std::int16_t> samples);

    // Mixes the next `frames` frames of every sound into `out` (2 × frames samples), adding
    // with saturation; silence where nothing plays. Returns how many sounds were heard. One
    // rendering thread at a time.
    std::size_t render(std::int16_t* out, std::size_t frames);

    // Mixes the first `frames` frames of the sounds added since the last render into `inOut`,
    // which holds what was already rendered for that stretch (adding with saturation). From
    // then on they are part of the mix and continue after those frames. Returns how many
    // sounds were added. On the rendering thread, between renders.
    std::size_t mixIncoming(std::int16_t* inOut, std::size_t frames);

    // Whether any sound is still in the mix (any thread; a sound added but not yet rendered
    // counts).
    bool sounding() const { return live_.load(std::memory_order_acquire) > 0; }

    // Stops every sound and empties the mix. Not while render() runs on another thread.
    void clear();

  private:
    // Takes over the sounds added since the last call (only a swap under the lock).
    void takeIncoming();
    // Adds `count` samples of each of `tracks` onto sum_, advancing them; how many were heard.
    std::size_t mix(const std::vector<std::shared_ptr<Track>>& tracks, std::size_t count);
    // Writes sum_ into `out` with saturation and forgets the sounds that ended.
    void finish(std::int16_t* out, std::size_t count);

    mutable std::mutex incomingLock_;
    std::vector<std::shared_ptr<Track>> incoming_;  // guarded by incomingLock_
    std::vector<std::shared_ptr<Track>> active_;    // rendering thread only
    std::vector<std::shared_ptr<Track>> handOver_;  // rendering thread only
    std::vector<std::int32_t> sum_;                 // rendering thread only
    std::atomic<std::size_t> live_{0};
};

}  // namespace bonkwell::sound

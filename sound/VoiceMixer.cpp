// SPDX-License-Identifier: GPL-3.0-or-later
#include "VoiceMixer.h"

#include <algorithm>
#include <limits>

namespace bonkwell::sound {

std::shared_ptr<VoiceMixer::Track> VoiceMixer::add(std::vector<std::int16_t> samples) {
    samples.resize(samples.size() - samples.size() % kChannels);
    auto track = std::make_shared<Track>(std::move(samples));
    if (track->samples_.empty()) {
        track->stop();  // nothing to play: finished at once
        return track;
    }
    std::lock_guard lock(incomingLock_);
    incoming_.push_back(track);
    live_.fetch_add(1, std::memory_order_acq_rel);
    return track;
}

void VoiceMixer::takeIncoming() {
    std::lock_guard lock(incomingLock_);
    handOver_.swap(incoming_);
}

std::size_t VoiceMixer::mix(const std::vector<std::shared_ptr<Track>>& tracks, std::size_t count) {
    std::size_t heard = 0;
    for (const auto& track : tracks) {
        if (!track->isPlaying()) {
            continue;  // stopped by its owner
        }
        const std::vector<std::int16_t>& samples = track->samples_;
        const std::size_t n = std::min(count, samples.size() - track->position_);
        const std::int16_t* from = samples.data() + track->position_;
        for (std::size_t i = 0; i < n; ++i) {
            sum_[i] += from[i];
        }
        track->position_ += n;
        ++heard;
        if (track->position_ == samples.size()) {
            track->stop();  // its last sample is in this block
        }
    }
    return heard;
}

void VoiceMixer::finish(std::int16_t* out, std::size_t count) {
    constexpr std::int32_t lo = std::numeric_limits<std::int16_t>::min();
    constexpr std::int32_t hi = std::numeric_limits<std::int16_t>::max();
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = static_cast<std::int16_t>(std::clamp(sum_[i], lo, hi));
    }
    const auto before = active_.size();
    std::erase_if(active_, [](const auto& track) { return !track->isPlaying(); });
    live_.fetch_sub(before - active_.size(), std::memory_order_acq_rel);
}

std::size_t VoiceMixer::render(std::int16_t* out, std::size_t frames) {
    takeIncoming();
    for (auto& track : handOver_) {
        active_.push_back(std::move(track));
    }
    handOver_.clear();
    const std::size_t count = frames * kChannels;
    sum_.assign(count, 0);
    const std::size_t heard = mix(active_, count);
    finish(out, count);
    return heard;
}

std::size_t VoiceMixer::mixIncoming(std::int16_t* inOut, std::size_t frames) {
    takeIncoming();
    const std::size_t count = frames * kChannels;
    sum_.assign(inOut, inOut + count);
    const std::size_t added = mix(handOver_, count);
    for (auto& track : handOver_) {
        active_.push_back(std::move(track));
    }
    handOver_.clear();
    finish(inOut, count);
    return added;
}

void VoiceMixer::clear() {
    std::vector<std::shared_ptr<Track>> dropped;
    {
        std::lock_guard lock(incomingLock_);
        dropped.swap(incoming_);
    }
    dropped.insert(dropped.end(), active_.begin(), active_.end());
    active_.clear();
    for (const auto& track : dropped) {
        track->stop();
    }
    live_.fetch_sub(dropped.size(), std::memory_order_acq_rel);
}

}  // namespace bonkwell::sound

// SPDX-License-Identifier: GPL-3.0-or-later
// The mixer behind our own PulseAudio stream: what it renders for the sounds added to it.
#include "VoiceMixer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

using bonkwell::sound::VoiceMixer;

namespace {

// `frames` stereo frames of the constant `left`/`right`.
std::vector<std::int16_t> constant(std::size_t frames, std::int16_t left, std::int16_t right) {
    std::vector<std::int16_t> s;
    for (std::size_t i = 0; i < frames; ++i) {
        s.push_back(left);
        s.push_back(right);
    }
    return s;
}

std::vector<std::int16_t> render(VoiceMixer& mixer, std::size_t frames) {
    std::vector<std::int16_t> out(frames * 2, 12345);  // junk that must be overwritten
    mixer.render(out.data(), frames);
    return out;
}

TEST(VoiceMixerTest, SilenceWhenNothingPlays) {
    VoiceMixer mixer;
    EXPECT_FALSE(mixer.sounding());
    EXPECT_EQ(render(mixer, 64), std::vector<std::int16_t>(128, 0));
}

TEST(VoiceMixerTest, ASoundPlaysOnceInOrderThenSilence) {
    VoiceMixer mixer;
    std::vector<std::int16_t> ramp;
    for (std::int16_t i = 0; i < 20; ++i) {
        ramp.push_back(static_cast<std::int16_t>(100 + i));   // left
        ramp.push_back(static_cast<std::int16_t>(-100 - i));  // right
    }
    auto track = mixer.add(ramp);
    EXPECT_TRUE(track->isPlaying());
    EXPECT_TRUE(mixer.sounding());
    EXPECT_EQ(track->frames(), 20U);

    std::vector<std::int16_t> heard = render(mixer, 8);
    EXPECT_TRUE(track->isPlaying()) << "12 frames still to come";
    const std::vector<std::int16_t> rest = render(mixer, 16);
    heard.insert(heard.end(), rest.begin(), rest.end());
    EXPECT_FALSE(track->isPlaying()) << "its last sample was rendered";
    EXPECT_FALSE(mixer.sounding());

    std::vector<std::int16_t> expected = ramp;
    expected.resize(48, 0);  // 24 frames rendered: the ramp, then silence
    EXPECT_EQ(heard, expected);
    EXPECT_EQ(render(mixer, 4), std::vector<std::int16_t>(8, 0));
}

TEST(VoiceMixerTest, ItIsPlayingUntilItsLastSampleIsRenderedExactly) {
    VoiceMixer mixer;
    auto track = mixer.add(constant(16, 1, 1));
    render(mixer, 15);
    EXPECT_TRUE(track->isPlaying());
    render(mixer, 1);
    EXPECT_FALSE(track->isPlaying());
}

TEST(VoiceMixerTest, OverlappingSoundsAdd) {
    VoiceMixer mixer;
    auto a = mixer.add(constant(10, 1000, -2000));
    render(mixer, 4);
    auto b = mixer.add(constant(10, 300, 500));
    const std::vector<std::int16_t> out = render(mixer, 10);
    // a has 6 frames left, b all 10.
    for (std::size_t f = 0; f < 10; ++f) {
        const bool both = f < 6;
        EXPECT_EQ(out[2 * f], both ? 1300 : 300) << f;
        EXPECT_EQ(out[2 * f + 1], both ? -1500 : 500) << f;
    }
    EXPECT_FALSE(a->isPlaying());
    EXPECT_FALSE(b->isPlaying());
}

TEST(VoiceMixerTest, LoudSumsSaturateInsteadOfWrappingAround) {
    VoiceMixer mixer;
    mixer.add(constant(4, 30000, -30000));
    mixer.add(constant(4, 30000, -30000));
    mixer.add(constant(4, 5000, 100));
    const std::vector<std::int16_t> out = render(mixer, 4);
    for (std::size_t f = 0; f < 4; ++f) {
        EXPECT_EQ(out[2 * f], 32767);
        EXPECT_EQ(out[2 * f + 1], -32768);
    }
}

TEST(VoiceMixerTest, AStoppedSoundIsNotHeardAnyMore) {
    VoiceMixer mixer;
    auto loud = mixer.add(constant(100, 5000, 5000));
    auto soft = mixer.add(constant(100, 7, 7));
    render(mixer, 10);
    loud->stop();
    EXPECT_FALSE(loud->isPlaying());
    EXPECT_EQ(render(mixer, 10), constant(10, 7, 7));
    EXPECT_TRUE(soft->isPlaying());
    EXPECT_TRUE(mixer.sounding());
}

TEST(VoiceMixerTest, ASoundStoppedBeforeItsFirstRenderIsNeverHeard) {
    VoiceMixer mixer;
    mixer.add(constant(100, 5000, 5000))->stop();
    EXPECT_EQ(render(mixer, 10), std::vector<std::int16_t>(20, 0));
    EXPECT_FALSE(mixer.sounding());
}

TEST(VoiceMixerTest, ClearStopsEverything) {
    VoiceMixer mixer;
    auto a = mixer.add(constant(100, 5000, 5000));
    render(mixer, 10);
    auto b = mixer.add(constant(100, 9, 9));  // not rendered yet
    mixer.clear();
    EXPECT_FALSE(a->isPlaying());
    EXPECT_FALSE(b->isPlaying());
    EXPECT_FALSE(mixer.sounding());
    EXPECT_EQ(render(mixer, 10), std::vector<std::int16_t>(20, 0));
}

TEST(VoiceMixerTest, EmptyAndOddInputs) {
    VoiceMixer mixer;
    auto empty = mixer.add({});
    EXPECT_FALSE(empty->isPlaying()) << "nothing to play is finished at once";
    EXPECT_FALSE(mixer.sounding());
    auto odd = mixer.add({100, 200, 300});  // a frame and a half: the half is dropped
    EXPECT_EQ(odd->frames(), 1U);
    EXPECT_EQ(render(mixer, 2), (std::vector<std::int16_t>{100, 200, 0, 0}));
    EXPECT_FALSE(odd->isPlaying());
}

// A sound that starts while another is already queued is mixed into what was queued, from its
// first sample, and then continues after it; the sound already playing is not disturbed.
TEST(VoiceMixerTest, ASoundMixedIntoWhatIsQueuedContinuesAfterIt) {
    VoiceMixer mixer;
    auto first = mixer.add(constant(100, 10, -10));
    std::vector<std::int16_t> queued = render(mixer, 30);  // at the server already
    std::vector<std::int16_t> ramp;
    for (std::int16_t i = 0; i < 40; ++i) {
        ramp.push_back(static_cast<std::int16_t>(1000 + i));
        ramp.push_back(0);
    }
    auto second = mixer.add(ramp);
    EXPECT_EQ(mixer.mixIncoming(queued.data(), 30), 1U);
    for (std::size_t f = 0; f < 30; ++f) {
        EXPECT_EQ(queued[2 * f], 10 + 1000 + static_cast<int>(f)) << "frame " << f;
        EXPECT_EQ(queued[2 * f + 1], -10) << "frame " << f;
    }
    EXPECT_TRUE(second->isPlaying());
    const std::vector<std::int16_t> next = render(mixer, 20);
    for (std::size_t f = 0; f < 10; ++f) {
        EXPECT_EQ(next[2 * f], 10 + 1030 + static_cast<int>(f)) << "frame " << 30 + f;
    }
    EXPECT_EQ(next[2 * 10], 10) << "the second sound ended after its 40 frames";
    EXPECT_FALSE(second->isPlaying());
    EXPECT_TRUE(first->isPlaying()) << "the first is still at frame 50 of 100";
}

TEST(VoiceMixerTest, MixingIncomingSoundsSaturatesAndEndsShortOnes) {
    VoiceMixer mixer;
    std::vector<std::int16_t> queued = constant(8, 30000, -30000);
    auto loud = mixer.add(constant(4, 10000, -10000));
    EXPECT_EQ(mixer.mixIncoming(queued.data(), 8), 1U);
    EXPECT_EQ(queued, [] {
        auto expected = constant(4, 32767, -32768);
        auto rest = constant(4, 30000, -30000);
        expected.insert(expected.end(), rest.begin(), rest.end());
        return expected;
    }());
    EXPECT_FALSE(loud->isPlaying()) << "all of it went into the queued stretch";
    EXPECT_FALSE(mixer.sounding());
    std::vector<std::int16_t> none = constant(4, 5, 5);
    EXPECT_EQ(mixer.mixIncoming(none.data(), 4), 0U) << "nothing new: the stretch stays";
    EXPECT_EQ(none, constant(4, 5, 5));
}

// A thread adds and drops sounds while another renders, as the player's worker and the
// stream's thread do; every sound that is left alone plays to its end, the dropped ones
// end, and nothing is lost or heard twice.
TEST(VoiceMixerTest, AddingWhileRenderingOnAnotherThread) {
    VoiceMixer mixer;
    constexpr int kSounds = 2000;
    std::atomic<bool> done{false};
    std::atomic<long long> total{0};
    std::thread renderer([&] {
        std::vector<std::int16_t> out(2 * 32);
        while (!done.load() || mixer.sounding()) {
            mixer.render(out.data(), 32);
            for (std::size_t f = 0; f < 32; ++f) {
                total += out[2 * f];
            }
        }
    });
    std::vector<std::shared_ptr<VoiceMixer::Track>> kept;
    for (int i = 0; i < kSounds; ++i) {
        auto track = mixer.add(constant(50, 1, 0));  // 50 frames of 1 on the left
        if (i % 2 == 0) {
            kept.push_back(track);
        } else {
            track->stop();  // may be heard in part, never after this
        }
    }
    done = true;
    renderer.join();
    for (const auto& track : kept) {
        EXPECT_FALSE(track->isPlaying());
    }
    // Kept sounds: all 50 frames each; stopped ones: between 0 and 50.
    EXPECT_GE(total.load(), 50LL * kSounds / 2);
    EXPECT_LE(total.load(), 50LL * kSounds);
}

}  // namespace

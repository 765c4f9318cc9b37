// SPDX-License-Identifier: GPL-3.0-or-later
#include "AudioPlayer.h"

#include "FakeSoundOutput.h"
#include "ManualClock.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using bonkwell::AudioPlayer;
using bonkwell::PlayMode;
using bonkwell::SoundPack;
using bonkwell::test::FakeSoundOutput;
using bonkwell::test::LogCapture;
using bonkwell::test::ManualClock;
using namespace std::chrono_literals;

namespace {

SoundPack packOf(int count, const QString& name = QStringLiteral("Pain")) {
    SoundPack pack;
    pack.name = name;
    pack.directoryURL = QStringLiteral("/packs/") + name;
    for (int i = 0; i < count; ++i) {
        pack.files << QStringLiteral("/packs/%1/%2.mp3").arg(name).arg(i);
    }
    return pack;
}

class AudioPlayerTest : public ::testing::Test {
  protected:
    AudioPlayerTest()
        : record_(std::make_shared<FakeSoundOutput::Record>()),
          player_(
              std::make_unique<AudioPlayer>(clock_, std::make_unique<FakeSoundOutput>(record_))) {}

    // The index (file stem) of every sound played so far.
    std::vector<int> playedIndices() {
        player_->waitUntilIdleForTesting();
        std::vector<int> indices;
        for (const QString& name : record_->names()) {
            indices.push_back(name.chopped(4).toInt());
        }
        return indices;
    }

    ManualClock clock_;
    std::shared_ptr<FakeSoundOutput::Record> record_;
    std::unique_ptr<AudioPlayer> player_;
};

TEST_F(AudioPlayerTest, FirstEscalationSlapPlaysTheFirstFile) {
    player_->playSlap(packOf(8), PlayMode::escalation, 0.3, 1.0, true);
    EXPECT_EQ(playedIndices(), std::vector<int>{0});
    EXPECT_DOUBLE_EQ(player_->trackerForTesting().score, 1.0);
    EXPECT_EQ(player_->trackerForTesting().lastTime, clock_.now());
}

TEST_F(AudioPlayerTest, TenQuickSlapsClimbThePackAndNeverFall) {
    for (int i = 0; i < 10; ++i) {
        player_->playSlap(packOf(8), PlayMode::escalation, 0.3, 1.0, true);
        player_->waitUntilIdleForTesting();
        clock_.advance(0.75);
    }
    const std::vector<int> indices = playedIndices();
    ASSERT_EQ(indices.size(), 10U);
    EXPECT_EQ(indices.front(), 0);
    for (std::size_t i = 1; i < indices.size(); ++i) {
        EXPECT_GE(indices[i], indices[i - 1]) << "slap " << i;
    }
    EXPECT_GT(indices.back(), 0);
}

TEST_F(AudioPlayerTest, QuietDecaysTheScoreWithAHalfLifeOfThirtySeconds) {
    // Nine slaps at one instant give a score of 9; 30 s later the next slap finds 4.5 + 1.
    for (int i = 0; i < 9; ++i) {
        player_->playSlap(packOf(8), PlayMode::escalation, 0.3, 1.0, true);
    }
    EXPECT_DOUBLE_EQ(player_->trackerForTesting().score, 9.0);
    clock_.advance(30);
    player_->playSlap(packOf(8), PlayMode::escalation, 0.3, 1.0, true);
    EXPECT_DOUBLE_EQ(player_->trackerForTesting().score, 5.5);
}

TEST_F(AudioPlayerTest, OneFilePackAlwaysPlaysThatFileInBothModes) {
    for (int i = 0; i < 20; ++i) {
        player_->playSlap(packOf(1), i % 2 == 0 ? PlayMode::random : PlayMode::escalation, 0.5, 1.0,
                          true);
    }
    EXPECT_EQ(playedIndices(), std::vector<int>(20, 0));
}

TEST_F(AudioPlayerTest, RandomModeDrawsFromTheWholePackAndStillCountsTheSlap) {
    for (int i = 0; i < 200; ++i) {
        player_->playSlap(packOf(4), PlayMode::random, 0.5, 1.0, true);
    }
    const std::vector<int> indices = playedIndices();
    ASSERT_EQ(indices.size(), 200U);
    for (int index = 0; index < 4; ++index) {
        EXPECT_NE(std::count(indices.begin(), indices.end(), index), 0) << index;
    }
    EXPECT_DOUBLE_EQ(player_->trackerForTesting().score, 200.0);
}

TEST_F(AudioPlayerTest, ResetTrackerStartsThePackAgain) {
    for (int i = 0; i < 30; ++i) {
        player_->playSlap(packOf(8), PlayMode::escalation, 0.3, 1.0, true);
    }
    EXPECT_GT(playedIndices().back(), 0);
    player_->resetTracker();
    const auto tracker = player_->trackerForTesting();
    EXPECT_EQ(tracker.score, 0.0);
    EXPECT_FALSE(tracker.lastTime.has_value());
    player_->playSlap(packOf(8), PlayMode::escalation, 0.3, 1.0, true);
    EXPECT_EQ(playedIndices().back(), 0);
}

TEST_F(AudioPlayerTest, VolumeFollowsAmplitudeAndUserVolume) {
    player_->playSlap(packOf(1), PlayMode::random, 0.05, 1.0, true);
    player_->playSlap(packOf(1), PlayMode::random, 0.8, 1.0, true);
    player_->playSlap(packOf(1), PlayMode::random, 0.05, 1.5, false);
    player_->playSlap(packOf(1), PlayMode::random, 0.8, -1.0, true);
    player_->waitUntilIdleForTesting();
    const auto played = record_->snapshot();
    ASSERT_EQ(played.size(), 4U);
    EXPECT_FLOAT_EQ(played[0].gain, 0.125F);
    EXPECT_FLOAT_EQ(played[1].gain, 1.0F);
    EXPECT_FLOAT_EQ(played[2].gain, 1.0F);
    EXPECT_FLOAT_EQ(played[3].gain, 0.0F);
}

TEST_F(AudioPlayerTest, TestSoundIgnoresScalingAndLeavesTheTrackerAlone) {
    player_->playSlap(packOf(8), PlayMode::escalation, 0.3, 1.0, true);
    player_->waitUntilIdleForTesting();  // the queue reads the clock
    clock_.advance(10);
    player_->playTest(packOf(3, QStringLiteral("Halo")), 0.6);
    player_->playTest(packOf(3, QStringLiteral("Halo")), 1.7);
    player_->waitUntilIdleForTesting();
    const auto played = record_->snapshot();
    ASSERT_EQ(played.size(), 3U);
    EXPECT_FLOAT_EQ(played[1].gain, 0.6F);
    EXPECT_FLOAT_EQ(played[2].gain, 1.0F);
    EXPECT_LT(played[1].file.chopped(4).toInt(), 3);
    const auto tracker = player_->trackerForTesting();
    EXPECT_DOUBLE_EQ(tracker.score, 1.0);
    EXPECT_EQ(tracker.lastTime, clock_.now().addingSeconds(-10));
}

TEST_F(AudioPlayerTest, TestSoundOfAnEmptyPackDoesNothing) {
    player_->playTest(packOf(0), 1.0);
    EXPECT_TRUE(playedIndices().empty());
}

TEST_F(AudioPlayerTest, FailedFileIsLoggedAndTheNextSlapPlays) {
    LogCapture log;
    {
        std::lock_guard lock(record_->mutex);
        record_->failingNames << QStringLiteral("0.mp3");
    }
    player_->playSlap(packOf(8), PlayMode::escalation, 0.3, 1.0, true);
    player_->waitUntilIdleForTesting();
    EXPECT_EQ(log.lines(), QStringList{"Bonkwell: failed to play 0.mp3: cannot decode"});
    EXPECT_EQ(player_->activePlayerCountForTesting(), 0U);
    EXPECT_DOUBLE_EQ(player_->trackerForTesting().score, 1.0) << "the slap still counts";

    player_->playSlap(packOf(8), PlayMode::random, 0.3, 1.0, true);
    player_->playSlap(packOf(1, QStringLiteral("Other")), PlayMode::random, 0.3, 1.0, true);
    player_->waitUntilIdleForTesting();
    EXPECT_EQ(record_->snapshot().size() + log.lines().size(), 3U);
}

TEST_F(AudioPlayerTest, FinishedPlayersAreReleasedAtTheNextPlayback) {
    player_->playSlap(packOf(1), PlayMode::random, 0.3, 1.0, true);
    player_->playSlap(packOf(1), PlayMode::random, 0.3, 1.0, true);
    EXPECT_EQ(player_->activePlayerCountForTesting(), 2U) << "both still sound";
    record_->finishAll();
    EXPECT_EQ(player_->activePlayerCountForTesting(), 2U) << "kept until the next playback";
    player_->playSlap(packOf(1), PlayMode::random, 0.3, 1.0, true);
    EXPECT_EQ(player_->activePlayerCountForTesting(), 1U);
    std::lock_guard lock(record_->mutex);
    EXPECT_EQ(record_->voicesAlive, 1);
}

TEST_F(AudioPlayerTest, CallsReturnAtOnceWhilePlaybackIsBusy) {
    {
        std::lock_guard lock(record_->mutex);
        record_->blockNextPlay = true;
    }
    const auto start = std::chrono::steady_clock::now();
    player_->playSlap(packOf(3), PlayMode::random, 0.3, 1.0, true);
    player_->playSlap(packOf(3), PlayMode::random, 0.3, 1.0, true);
    player_->playTest(packOf(3), 1.0);
    player_->resetTracker();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    record_->release();
    EXPECT_EQ(playedIndices().size(), 3U);
}

TEST_F(AudioPlayerTest, TasksQueuedWhenThePlayerGoesAwayDoNothing) {
    {
        std::lock_guard lock(record_->mutex);
        record_->blockNextPlay = true;
    }
    player_->playSlap(packOf(3), PlayMode::random, 0.3, 1.0, true);
    {
        std::unique_lock lock(record_->mutex);
        record_->changed.wait(lock, [&] { return !record_->blockNextPlay; });  // it is playing
    }
    player_->playSlap(packOf(3), PlayMode::random, 0.3, 1.0, true);
    player_->playSlap(packOf(3), PlayMode::random, 0.3, 1.0, true);
    std::thread destroyer([&] { player_.reset(); });
    std::this_thread::sleep_for(50ms);
    record_->release();
    destroyer.join();
    std::lock_guard lock(record_->mutex);
    EXPECT_EQ(record_->played.size(), 1U);
    EXPECT_EQ(record_->voicesAlive, 0) << "the player's sounds go with it";
}

TEST(AudioPlayerIdle, OutputIsReleasedAfterSilenceOnly) {
    ManualClock clock;
    auto record = std::make_shared<FakeSoundOutput::Record>();
    AudioPlayer player(clock, std::make_unique<FakeSoundOutput>(record), 100ms);
    player.playSlap(packOf(1), PlayMode::random, 0.3, 1.0, true);
    std::this_thread::sleep_for(350ms);
    {
        std::lock_guard lock(record->mutex);
        EXPECT_EQ(record->idleCalls, 0) << "the sound is still playing";
    }
    record->finishAll();
    std::unique_lock lock(record->mutex);
    EXPECT_TRUE(record->changed.wait_for(lock, 2s, [&] { return record->idleCalls == 1; }));
    lock.unlock();
    player.playSlap(packOf(1), PlayMode::random, 0.3, 1.0, true);
    player.waitUntilIdleForTesting();
    EXPECT_EQ(record->snapshot().size(), 2U) << "the next slap plays again";
}

using AudioPlayerDeathTest = AudioPlayerTest;

TEST_F(AudioPlayerDeathTest, SlapOnAnEmptyPackStopsTheProcess) {
    // The audio queue is a thread: the child must start afresh, not as a fork of this one.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            player_->playSlap(packOf(0), PlayMode::escalation, 0.3, 1.0, true);
            player_->waitUntilIdleForTesting();
        },
        "empty pack");
    EXPECT_DEATH(
        {
            player_->playSlap(packOf(0), PlayMode::random, 0.3, 1.0, true);
            player_->waitUntilIdleForTesting();
        },
        "empty pack");
}

}  // namespace

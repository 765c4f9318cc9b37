// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppState.h"

#include "Doubles.h"
#include "ManualClock.h"
#include "TestSupport.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <thread>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

// 2024-01-01 00:00:00 UTC
const Date kNewYear{725760000.0};

class AppStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    void TearDown() override {
        ::unsetenv("TZ");
        ::tzset();
    }

    // Makes the model; when `bound`, binds it to the doubles.
    std::unique_ptr<AppState> makeState() { return std::make_unique<AppState>(&store, &clock); }
    void bindAll(AppState& state) { state.bind(&detector, &audio, &packs, &engine); }

    QTemporaryDir dir;
    CallJournal journal;
    RecordingStore store{dir.path() + "/Bonkwell", journal};
    ManualClock clock{kNewYear};
    RecordingDetector detector{journal};
    RecordingEngine engine{journal};
    RecordingAudio audio{journal};
    FakePackManager packs;
};

}  // namespace

TEST_F(AppStateTest, DefaultsAreThoseOfAFreshInstall) {
    auto state = makeState();
    EXPECT_TRUE(state->listeningEnabled.get());
    EXPECT_EQ(state->sensitivity.get(), 0.05);
    EXPECT_EQ(state->cooldown.get(), 0.75);
    EXPECT_EQ(state->volume.get(), 1.0);
    EXPECT_TRUE(state->volumeScaling.get());
    EXPECT_EQ(state->mode.get(), PlayMode::random);
    EXPECT_EQ(state->selectedPackName.get(), "Pain");
    EXPECT_EQ(state->availablePacks.get(), (QStringList{"Pain", "Sexy", "Halo", "Lizard"}));
    EXPECT_EQ(state->todayCount.get(), 0);
    EXPECT_EQ(state->totalCount.get(), 0);
    EXPECT_EQ(state->lastCountDate.get(), kNewYear);
    EXPECT_FALSE(state->launchAtLogin.get());
    EXPECT_EQ(state->liveMagnitude.get(), 0.0);
    EXPECT_TRUE(state->liveSeries.get().empty());
    EXPECT_EQ(state->engineStatus.get(), "Idle");
    EXPECT_EQ(AppState::defaultsKey, "BonkwellState.v1");
    EXPECT_EQ(state->detector, nullptr);
    EXPECT_EQ(state->engine, nullptr);
}

TEST_F(AppStateTest, PlayModeRawValuesAndOrder) {
    EXPECT_EQ(kAllPlayModes[0], PlayMode::random);
    EXPECT_EQ(kAllPlayModes[1], PlayMode::escalation);
    EXPECT_EQ(rawValue(PlayMode::random), "random");
    EXPECT_EQ(rawValue(PlayMode::escalation), "escalation");
    EXPECT_EQ(playModeFromRawValue("escalation"), PlayMode::escalation);
    EXPECT_EQ(playModeFromRawValue("Escalation"), PlayMode::random);
    EXPECT_EQ(playModeFromRawValue(""), PlayMode::random);
}

TEST_F(AppStateTest, BindWithInstalledHelperStartsTheEngineOnceTunesTwiceAndSavesSevenTimes) {
    engine.state = InstallState::installed;
    auto state = makeState();
    bindAll(*state);
    EXPECT_EQ(journal.calls,
              (QStringList{"engine.start", "save",  //
                           "detector.minAmplitude=0.05", "engine.updateTuning(0.05,750)", "save",
                           "detector.cooldown=0.75", "engine.updateTuning(0.05,750)", "save",
                           "save", "save", "save",        //
                           "audio.resetTracker", "save",  //
                           "detector.onMagnitudeSample", "engine.onSample"}));
    EXPECT_EQ(state->cancellables.size(), 7u);
    EXPECT_EQ(state->engineStatus.get(), "Idle");  // the handler never writes the status
}

TEST_F(AppStateTest, BindWithoutInstalledHelperStartsOnlyTheInProcessDetector) {
    for (InstallState s :
         {InstallState::bundleMissing, InstallState::notInstalled, InstallState::notSetuid}) {
        journal.calls.clear();
        engine.state = s;
        auto state = makeState();
        bindAll(*state);
        EXPECT_EQ(journal.calls.first(), "detector.start");
        EXPECT_FALSE(journal.calls.contains("engine.start"));
    }
}

TEST_F(AppStateTest, BindWithoutAnEngineUsesTheDetector) {
    auto state = makeState();
    state->bind(&detector, &audio, &packs, nullptr);
    EXPECT_EQ(journal.calls,
              (QStringList{"detector.start", "save", "detector.minAmplitude=0.05", "save",
                           "detector.cooldown=0.75", "save", "save", "save", "save",
                           "audio.resetTracker", "save", "detector.onMagnitudeSample"}));
}

TEST_F(AppStateTest, TurningListeningOffStopsTheEngineThenTheDetector) {
    engine.state = InstallState::installed;
    auto state = makeState();
    bindAll(*state);
    journal.calls.clear();
    state->listeningEnabled.set(false);
    EXPECT_EQ(journal.calls, (QStringList{"engine.stop", "detector.stop", "save"}));
    journal.calls.clear();
    state->listeningEnabled.set(true);
    EXPECT_EQ(journal.calls, (QStringList{"engine.start", "save"}));
}

TEST_F(AppStateTest, TuningHandlersPassTheNewValueOnAtOnce) {
    engine.state = InstallState::installed;
    auto state = makeState();
    bindAll(*state);
    journal.calls.clear();
    state->sensitivity.set(0.2);
    EXPECT_EQ(journal.calls,
              (QStringList{"detector.minAmplitude=0.2", "engine.updateTuning(0.2,750)", "save"}));
    journal.calls.clear();
    state->cooldown.set(1.2349);  // truncated, not rounded
    EXPECT_EQ(journal.calls,
              (QStringList{"detector.cooldown=1.2349", "engine.updateTuning(0.2,1234)", "save"}));
}

TEST_F(AppStateTest, ChangeSavesThePreviousValueAndTheNextSaveCarriesTheNewOne) {
    auto state = makeState();
    bindAll(*state);
    store.writes.clear();
    state->volume.set(0.5);
    ASSERT_EQ(store.writes.size(), 1u);
    EXPECT_EQ(store.savedSnapshot(0).volume, 1.0);
    state->bumpCounts();
    ASSERT_EQ(store.writes.size(), 2u);
    EXPECT_EQ(store.savedSnapshot(1).volume, 0.5);
}

TEST_F(AppStateTest, ChoosingAPackResetsTheTrackerEvenForTheSameName) {
    auto state = makeState();
    bindAll(*state);
    journal.calls.clear();
    state->selectedPackName.set("Pain");
    EXPECT_EQ(journal.calls, (QStringList{"audio.resetTracker", "save"}));
    journal.calls.clear();
    state->selectedPackName.set("Lizard");
    EXPECT_EQ(journal.calls, (QStringList{"audio.resetTracker", "save"}));
}

TEST_F(AppStateTest, UnsubscribedPropertiesDoNotSave) {
    auto state = makeState();
    bindAll(*state);
    store.writes.clear();
    state->availablePacks.set({"Pain"});
    state->launchAtLogin.set(true);
    state->todayCount.set(4);
    state->totalCount.set(9);
    state->lastCountDate.set(Date{1});
    state->engineStatus.set("Engine running");
    EXPECT_TRUE(store.writes.empty());
}

TEST_F(AppStateTest, SamplesArriveThroughOneMainQueueHopEach) {
    auto state = makeState();
    bindAll(*state);
    int seriesChanges = 0;
    Subscription sub =
        state->liveSeries.subscribe([&](const std::vector<double>&) { ++seriesChanges; });
    seriesChanges = 0;
    detector.onMagnitudeSample(0.3);
    EXPECT_EQ(state->liveMagnitude.get(), 0.0);  // not yet: the hop is asynchronous
    EXPECT_TRUE(state->liveSeries.get().empty());
    drainMainQueue();
    EXPECT_EQ(state->liveMagnitude.get(), 0.3);
    EXPECT_EQ(state->liveSeries.get(), std::vector<double>{0.3});
    EXPECT_EQ(seriesChanges, 1);
}

TEST_F(AppStateTest, SixHundredAndOneSamplesKeepTheNewestSixHundred) {
    auto state = makeState();
    bindAll(*state);
    int seriesChanges = 0;
    Subscription sub =
        state->liveSeries.subscribe([&](const std::vector<double>&) { ++seriesChanges; });
    seriesChanges = 0;
    for (int i = 1; i <= 601; ++i) {
        detector.onMagnitudeSample(i);
    }
    drainMainQueue();
    const auto& series = state->liveSeries.get();
    ASSERT_EQ(series.size(), 600u);
    EXPECT_EQ(series.front(), 2.0);
    EXPECT_EQ(series.back(), 601.0);
    EXPECT_EQ(state->liveMagnitude.get(), 601.0);
    EXPECT_EQ(seriesChanges, 601);  // one assignment per sample
}

TEST_F(AppStateTest, SamplesAfterTheModelIsGoneDoNothing) {
    auto state = makeState();
    bindAll(*state);
    detector.onMagnitudeSample(0.1);  // queued while the model lives
    state.reset();
    detector.onMagnitudeSample(0.2);  // the detector outlives the model
    drainMainQueue();                 // neither task touches freed memory
    SUCCEED();
}

TEST_F(AppStateTest, TheEnginesSamplesFromAnotherThreadReachTheLiveMagnitude) {
    auto state = makeState();
    bindAll(*state);
    ASSERT_TRUE(engine.onSample);
    std::thread reader([this] {
        engine.onSample(0.25);
        engine.onSample(0.125);
    });
    reader.join();
    EXPECT_EQ(state->liveMagnitude.get(), 0.0);  // not yet: the hop is asynchronous
    drainMainQueue();
    EXPECT_EQ(state->liveMagnitude.get(), 0.125);
    EXPECT_EQ(state->liveSeries.get(), (std::vector<double>{0.25, 0.125}));
}

TEST_F(AppStateTest, EngineSamplesAfterTheModelIsGoneDoNothing) {
    auto state = makeState();
    bindAll(*state);
    engine.onSample(0.1);  // queued while the model lives
    state.reset();
    engine.onSample(0.2);  // the engine outlives the model
    drainMainQueue();
    EXPECT_EQ(engine.liveViewers, 0);
}

TEST_F(AppStateTest, LiveViewersReachBothDetectionPaths) {
    auto state = makeState();
    {
        LiveViewerHold early(*state);  // a window open before binding
        EXPECT_EQ(state->liveViewers(), 1);
        bindAll(*state);
        EXPECT_EQ(detector.liveViewers, 1);
        EXPECT_EQ(engine.liveViewers, 1);
        {
            LiveViewerHold second(*state);
            EXPECT_EQ(detector.liveViewers, 2);
            EXPECT_EQ(engine.liveViewers, 2);
        }
        EXPECT_EQ(detector.liveViewers, 1);
        EXPECT_EQ(engine.liveViewers, 1);
    }
    EXPECT_EQ(state->liveViewers(), 0);
    EXPECT_EQ(detector.liveViewers, 0);
    EXPECT_EQ(engine.liveViewers, 0);
}

TEST_F(AppStateTest, ASubscriptionOutlivingItsModelIsInert) {
    auto state = makeState();
    int calls = 0;
    Subscription sub = state->volume.subscribe([&](const double&) { ++calls; });
    state.reset();
    sub.cancel();
    EXPECT_EQ(calls, 1);
}

TEST_F(AppStateTest, NoCustomSoundsListsExactlyTheBuiltInPacks) {
    auto state = makeState();
    state->availablePacks.set({});
    state->refreshAvailablePacks(packs);
    EXPECT_EQ(state->availablePacks.get(), (QStringList{"Pain", "Sexy", "Halo", "Lizard"}));
}

TEST_F(AppStateTest, CustomSoundsAddCustomLastInOneAssignment) {
    auto state = makeState();
    int changes = 0;
    Subscription sub = state->availablePacks.subscribe([&](const QStringList&) { ++changes; });
    packs.custom = {dir.path() + "/Custom/Mine"};
    state->refreshAvailablePacks(packs);
    EXPECT_EQ(state->availablePacks.get(),
              (QStringList{"Pain", "Sexy", "Halo", "Lizard", "Custom"}));
    EXPECT_EQ(changes, 2);
}

TEST_F(AppStateTest, SlapsOnTheSameDayAddUp) {
    auto state = makeState();
    clock.setNow(kNewYear.addingSeconds(3600));
    state->lastCountDate.set(kNewYear.addingSeconds(60));
    state->bumpCounts();
    state->bumpCounts();
    EXPECT_EQ(state->todayCount.get(), 2);
    EXPECT_EQ(state->totalCount.get(), 2);
    EXPECT_EQ(state->lastCountDate.get(), kNewYear.addingSeconds(3600));
    EXPECT_EQ(store.writes.size(), 2u);
    EXPECT_EQ(store.savedSnapshot(1).todayCount, 2);
}

TEST_F(AppStateTest, CountingASlapWithoutSavingLeavesTheSaveToTheCaller) {
    auto state = makeState();
    clock.setNow(kNewYear.addingSeconds(3600));
    state->lastCountDate.set(kNewYear.addingSeconds(60));
    store.writes.clear();
    state->countSlap();
    EXPECT_EQ(state->todayCount.get(), 1);
    EXPECT_EQ(state->totalCount.get(), 1);
    EXPECT_EQ(state->lastCountDate.get(), kNewYear.addingSeconds(3600));
    EXPECT_TRUE(store.writes.empty());
    state->save();
    ASSERT_EQ(store.writes.size(), 1u);
    EXPECT_EQ(store.savedSnapshot(0).totalCount, 1);
}

TEST_F(AppStateTest, ASlapAfterMidnightStartsANewDay) {
    auto state = makeState();
    state->todayCount.set(5);
    state->totalCount.set(50);
    state->lastCountDate.set(kNewYear.addingSeconds(-60));  // 23:59 the day before
    clock.setNow(kNewYear.addingSeconds(60));               // 00:01
    state->bumpCounts();
    EXPECT_EQ(state->todayCount.get(), 1);
    EXPECT_EQ(state->totalCount.get(), 51);
}

TEST_F(AppStateTest, TwentyThreeHoursWithinOneDayIsNotARollOver) {
    auto state = makeState();
    state->todayCount.set(5);
    state->lastCountDate.set(kNewYear.addingSeconds(60));
    clock.setNow(kNewYear.addingSeconds(23 * 3600 + 3540));
    state->bumpCounts();
    EXPECT_EQ(state->todayCount.get(), 6);
}

TEST_F(AppStateTest, AFutureOrLongPastDateResetsTheDailyCount) {
    auto state = makeState();
    clock.setNow(kNewYear.addingSeconds(3600));
    state->todayCount.set(7);
    state->lastCountDate.set(kNewYear.addingSeconds(86400 * 3));  // a future day
    state->bumpCounts();
    EXPECT_EQ(state->todayCount.get(), 1);
    state->todayCount.set(7);
    state->lastCountDate.set(kNewYear.addingSeconds(-86400 * 400));
    state->bumpCounts();
    EXPECT_EQ(state->todayCount.get(), 1);
    EXPECT_EQ(state->totalCount.get(), 2);
}

TEST_F(AppStateTest, DayBoundaryIsTheLocalOne) {
    ::setenv("TZ", "Asia/Tokyo", 1);  // UTC+9: 2024-01-01 00:00 UTC is 09:00 local
    ::tzset();
    auto state = makeState();
    state->todayCount.set(3);
    state->lastCountDate.set(kNewYear.addingSeconds(-8 * 3600));  // 01:00 local, same day
    clock.setNow(kNewYear);
    state->bumpCounts();
    EXPECT_EQ(state->todayCount.get(), 4);
    state->lastCountDate.set(kNewYear.addingSeconds(-10 * 3600));  // 23:00 local, day before
    state->bumpCounts();
    EXPECT_EQ(state->todayCount.get(), 1);
}

TEST_F(AppStateTest, CountOverflowIsFatal) {
    auto state = makeState();
    state->totalCount.set(std::numeric_limits<std::int64_t>::max());
    EXPECT_DEATH(state->bumpCounts(), "total slap count overflowed");
}

TEST(CooldownMilliseconds, TruncatesAndRefusesNonFiniteValues) {
    EXPECT_EQ(cooldownMilliseconds(0.75), 750);
    EXPECT_EQ(cooldownMilliseconds(0.0999), 99);
    EXPECT_EQ(cooldownMilliseconds(0.0), 0);
    EXPECT_DEATH(cooldownMilliseconds(std::numeric_limits<double>::quiet_NaN()),
                 "cannot be converted to milliseconds");
    EXPECT_DEATH(cooldownMilliseconds(std::numeric_limits<double>::infinity()),
                 "cannot be converted to milliseconds");
}

// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppDelegate.h"

#include "Doubles.h"
#include "ManualClock.h"
#include "TestSupport.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

const Date kNewYear{725760000.0};  // 2024-01-01 00:00:00 UTC

class AppDelegateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    void TearDown() override {
        delegate.reset();
        ::unsetenv("TZ");
        ::tzset();
    }

    // Builds the delegate around recording doubles; `prepare` adjusts them first.
    void make(InstallState install, bool listening) {
        auto state = std::make_unique<AppState>(&store, &clock);
        if (!listening) {
            state->listeningEnabled.set(false);
            state->save();
            store.writes.clear();
            journal.calls.clear();
        }
        auto detectorDouble = std::make_unique<RecordingDetector>(journal);
        auto audioDouble = std::make_unique<RecordingAudio>(journal);
        auto packsDouble = std::make_unique<FakePackManager>(journal);
        auto engineDouble = std::make_unique<RecordingEngine>(journal);
        engineDouble->state = install;
        detector = detectorDouble.get();
        audio = audioDouble.get();
        packs = packsDouble.get();
        engine = engineDouble.get();
        AppDelegate::Parts parts{std::move(state), std::move(detectorDouble),
                                 std::move(audioDouble), std::move(packsDouble),
                                 std::move(engineDouble)};
        delegate = std::make_unique<AppDelegate>(std::move(parts), [this](AppDelegate&) {
            journal.calls.append("menuBar");
            return std::make_unique<QObject>();
        });
    }

    QTemporaryDir dir;
    CallJournal journal;
    RecordingStore store{dir.path() + "/Bonkwell", journal};
    ManualClock clock{kNewYear};
    std::unique_ptr<AppDelegate> delegate;
    RecordingDetector* detector = nullptr;
    RecordingAudio* audio = nullptr;
    FakePackManager* packs = nullptr;
    RecordingEngine* engine = nullptr;
};

}  // namespace

TEST_F(AppDelegateTest, StartUpRunsInItsFixedOrder) {
    make(InstallState::installed, true);
    delegate->applicationDidFinishLaunching();
    const QStringList expected{
        "packs.bootstrapUserPacks",
        // bind: each subscription fires once, in order
        "engine.start", "save",                                                 //
        "detector.minAmplitude=0.05", "engine.updateTuning(0.05,750)", "save",  //
        "detector.cooldown=0.75", "engine.updateTuning(0.05,750)", "save",      //
        "save", "save", "save", "audio.resetTracker", "save", "detector.onMagnitudeSample",
        "engine.onSample",
        // tuning and callbacks
        "detector.minAmplitude=0.05", "detector.cooldown=0.75", "detector.onSlap",
        "engine.minAmplitude=0.05", "engine.cooldownMs=750", "engine.onEvent", "engine.onStatus",
        "menuBar",
        // the running path is started again
        "engine.start"};
    EXPECT_EQ(journal.calls, expected);
    EXPECT_NE(delegate->menuBar(), nullptr);
}

TEST_F(AppDelegateTest, LoadedSettingsReachTheDetectorAndTheEngine) {
    {
        AppState saved(&store, &clock);
        saved.sensitivity.set(0.2);
        saved.cooldown.set(1.5);
        saved.save();
    }
    make(InstallState::installed, true);
    journal.calls.clear();
    delegate->applicationDidFinishLaunching();
    EXPECT_TRUE(journal.calls.contains("engine.updateTuning(0.2,1500)"));
    EXPECT_TRUE(journal.calls.contains("engine.minAmplitude=0.2"));
    EXPECT_TRUE(journal.calls.contains("engine.cooldownMs=1500"));
    EXPECT_EQ(detector->minAmplitude, 0.2);
    EXPECT_EQ(detector->cooldown, 1.5);
}

TEST_F(AppDelegateTest, ListeningOffAtLaunchStartsNothingAndKeepsIdle) {
    make(InstallState::installed, false);
    delegate->applicationDidFinishLaunching();
    EXPECT_FALSE(journal.calls.contains("engine.start"));
    EXPECT_FALSE(journal.calls.contains("detector.start"));
    EXPECT_EQ(delegate->state().engineStatus.get(), "Idle");
    EXPECT_TRUE(journal.calls.contains("menuBar"));
    EXPECT_NE(delegate->menuBar(), nullptr);
}

TEST_F(AppDelegateTest, InstalledHelperIsAskedToStartTwiceAndTheDetectorNever) {
    make(InstallState::installed, true);
    delegate->applicationDidFinishLaunching();
    EXPECT_EQ(journal.calls.count("engine.start"), 2);
    EXPECT_EQ(journal.calls.count("detector.start"), 0);
    EXPECT_EQ(delegate->state().engineStatus.get(), "Idle");
}

TEST_F(AppDelegateTest, WithoutTheHelperTheDetectorRunsAndTheStatusSaysSo) {
    make(InstallState::notInstalled, true);
    delegate->applicationDidFinishLaunching();
    EXPECT_EQ(journal.calls.count("detector.start"), 2);
    EXPECT_EQ(journal.calls.count("engine.start"), 0);
    EXPECT_EQ(delegate->state().engineStatus.get(),
              QString::fromUtf8("Helper not installed \u2014 Settings \u2192 General"));
    engine->onStatus("Engine stopped");
    EXPECT_EQ(delegate->state().engineStatus.get(), "Engine stopped");
}

TEST_F(AppDelegateTest, TheDetectorStandsDownOnceTheHelperRuns) {
    // Listening with the in-process reader, then the helper is installed from Settings and
    // the engine reports that it runs: only the helper goes on reading.
    make(InstallState::notInstalled, true);
    delegate->applicationDidFinishLaunching();
    journal.calls.clear();
    engine->onStatus("Engine running");
    EXPECT_EQ(journal.calls, QStringList{"detector.stop"});
    EXPECT_EQ(delegate->state().engineStatus.get(), "Engine running");
}

TEST_F(AppDelegateTest, AnOutOfDateHelperHandsBackToTheDetector) {
    // The installed helper refused to run (not the one this version ships): the in-process
    // reader takes over and the status says what to do.
    make(InstallState::installed, true);
    delegate->applicationDidFinishLaunching();
    journal.calls.clear();
    engine->onStatus(ThuzzEngineInterface::outOfDateStatus);
    EXPECT_EQ(journal.calls, QStringList{"detector.start"});
    EXPECT_EQ(delegate->state().engineStatus.get(),
              QString::fromUtf8("Helper out of date \u2014 open Settings \u2192 General \u2192 "
                                "Reinstall"));
}

TEST_F(AppDelegateTest, OtherEngineStatusesLeaveTheDetectorAlone) {
    make(InstallState::notInstalled, true);
    delegate->applicationDidFinishLaunching();
    journal.calls.clear();
    for (const char* status : {"Engine stopped", "Engine exited (1)", "Idle",
                               "Failed to launch helper: No such file or directory"}) {
        engine->onStatus(status);
        EXPECT_EQ(delegate->state().engineStatus.get(), status);
    }
    EXPECT_TRUE(journal.calls.isEmpty()) << journal.calls.join(", ").toStdString();
}

TEST_F(AppDelegateTest, LaterListeningChangesDoNotRewriteTheStatus) {
    make(InstallState::notInstalled, true);
    delegate->applicationDidFinishLaunching();
    delegate->state().engineStatus.set("Engine stopped");
    delegate->state().listeningEnabled.set(false);
    delegate->state().listeningEnabled.set(true);
    EXPECT_EQ(delegate->state().engineStatus.get(), "Engine stopped");
}

TEST_F(AppDelegateTest, ASlapIsCountedThenPlayedWithTheCurrentSettings) {
    make(InstallState::notInstalled, true);
    delegate->applicationDidFinishLaunching();
    delegate->state().mode.set(PlayMode::escalation);
    delegate->state().volume.set(0.5);
    delegate->state().volumeScaling.set(false);
    delegate->state().selectedPackName.set("Halo");
    packs->files["Halo"] = QStringList{"/x/a.mp3"};
    journal.calls.clear();
    detector->onSlap(0.42);
    EXPECT_EQ(
        journal.calls,
        (QStringList{"packs.pack(Halo)", "audio.playSlap(Halo,escalation,0.42,0.5,flat)", "save"}));
    EXPECT_EQ(delegate->state().todayCount.get(), 1);
    EXPECT_EQ(delegate->state().totalCount.get(), 1);
}

TEST_F(AppDelegateTest, TheSoundStartsBeforeTheDurableSaveWhichHoldsTheNewCount) {
    make(InstallState::installed, true);
    delegate->applicationDidFinishLaunching();
    packs->files["Pain"] = QStringList{"/x/a.mp3"};
    std::int64_t countShownAtPlay = -1;
    std::size_t writesAtPlay = 0;
    audio->onPlaySlap = [&] {
        countShownAtPlay = delegate->state().totalCount.get();
        writesAtPlay = store.writes.size();
    };
    store.writes.clear();
    engine->onEvent(ThuzzEvent{0.3, "hard", 1});
    engine->onEvent(ThuzzEvent{0.3, "hard", 2});
    // When the second sound is handed over, its count is already shown but not yet on disk.
    EXPECT_EQ(countShownAtPlay, 2);
    EXPECT_EQ(writesAtPlay, 1u);
    // Then it is stored durably, with that count.
    ASSERT_EQ(store.writes.size(), 2u);
    EXPECT_EQ(store.savedSnapshot(1).totalCount, 2);
    EXPECT_EQ(store.savedSnapshot(1).todayCount, 2);
    const auto stored = AppState::Snapshot::decode(store.data(AppState::defaultsKey).value());
    EXPECT_EQ(stored->totalCount, 2);
}

TEST_F(AppDelegateTest, EngineEventsAreSlapsToo) {
    make(InstallState::installed, true);
    delegate->applicationDidFinishLaunching();
    packs->files["Pain"] = QStringList{"/x/a.mp3"};
    journal.calls.clear();
    engine->onEvent(ThuzzEvent{0.3, "hard", 7});
    EXPECT_EQ(journal.calls, (QStringList{"packs.pack(Pain)",
                                          "audio.playSlap(Pain,random,0.3,1,scaled)", "save"}));
    EXPECT_EQ(delegate->state().totalCount.get(), 1);
}

TEST_F(AppDelegateTest, ASlapOnAnEmptyPackIsStillCountedAndSaved) {
    make(InstallState::notInstalled, true);
    delegate->applicationDidFinishLaunching();
    store.writes.clear();
    journal.calls.clear();
    detector->onSlap(0.2);
    EXPECT_EQ(delegate->state().todayCount.get(), 1);
    EXPECT_EQ(delegate->state().totalCount.get(), 1);
    ASSERT_EQ(store.writes.size(), 1u);
    EXPECT_EQ(store.savedSnapshot(0).totalCount, 1);
    // The pack has no files: the player is not asked to play.
    EXPECT_EQ(journal.calls, (QStringList{"packs.pack(Pain)", "save"}));
}

TEST_F(AppDelegateTest, SlapsOnEitherSideOfMidnightStartANewDay) {
    make(InstallState::notInstalled, true);
    delegate->applicationDidFinishLaunching();
    clock.setNow(kNewYear.addingSeconds(-60));  // 23:59
    detector->onSlap(0.2);
    detector->onSlap(0.2);
    EXPECT_EQ(delegate->state().todayCount.get(), 2);
    clock.setNow(kNewYear.addingSeconds(60));  // 00:01
    detector->onSlap(0.2);
    EXPECT_EQ(delegate->state().todayCount.get(), 1);
    EXPECT_EQ(delegate->state().totalCount.get(), 3);
}

TEST_F(AppDelegateTest, QuittingStopsTheEngineThenTheDetectorAndSavesNothing) {
    make(InstallState::installed, true);
    delegate->applicationDidFinishLaunching();
    delegate->state().volume.set(0.3);
    journal.calls.clear();
    store.writes.clear();
    delegate->applicationWillTerminate();
    EXPECT_EQ(journal.calls, (QStringList{"engine.stop", "detector.stop"}));
    EXPECT_TRUE(store.writes.empty());
    const auto stored = AppState::Snapshot::decode(store.data(AppState::defaultsKey).value());
    EXPECT_EQ(stored->volume, 1.0);  // the volume change just before quitting is not stored
}

TEST_F(AppDelegateTest, CallbacksOutlivingTheDelegateDoNothing) {
    make(InstallState::notInstalled, true);
    delegate->applicationDidFinishLaunching();
    auto onSlap = detector->onSlap;
    auto onEvent = engine->onEvent;
    auto onStatus = engine->onStatus;
    delegate.reset();
    onSlap(0.5);
    onEvent(ThuzzEvent{0.5, {}, 1});
    onStatus("Engine running");
    EXPECT_TRUE(store.writes.size() >= 7u);  // only bind's saves; no slap was counted
    EXPECT_EQ(AppState::Snapshot::decode(store.writes.back()).value().totalCount, 0);
}

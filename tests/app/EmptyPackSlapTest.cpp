// SPDX-License-Identifier: GPL-3.0-or-later
// Slaps on a pack without sounds, with the real pack manager and the real audio player (its
// output records instead of sounding): the slap is counted and saved, nothing plays, and the
// app carries on. Before the handler checked the pack, the player stopped the process here.
#include "AppDelegate.h"
#include "AudioPlayer.h"
#include "Doubles.h"
#include "FakeSoundOutput.h"
#include "ManualClock.h"
#include "SoundPackManager.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

void writeFile(const QString& path) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(path);
    file.write("ID3 not decoded by the recording output");
}

class EmptyPackSlapTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(exeDir.isValid());
        ASSERT_TRUE(emptyDataDirs.isValid());
        const char* old = std::getenv("XDG_DATA_DIRS");
        hadDataDirs = old != nullptr;
        oldDataDirs = hadDataDirs ? old : "";
        ::setenv("XDG_DATA_DIRS", qPrintable(emptyDataDirs.path()), 1);
        // The bundle beside the "executable": two clips per built-in pack.
        for (const char* name : {"Pain", "Sexy", "Halo", "Lizard"}) {
            const QString dir = exeDir.path() + QStringLiteral("/Resources/SoundPacks/") + name;
            writeFile(dir + QStringLiteral("/01-a.mp3"));
            writeFile(dir + QStringLiteral("/02-b.mp3"));
        }
    }
    void TearDown() override {
        delegate.reset();
        if (hadDataDirs) {
            ::setenv("XDG_DATA_DIRS", oldDataDirs.c_str(), 1);
        } else {
            ::unsetenv("XDG_DATA_DIRS");
        }
    }

    // The delegate with the real pack manager and player, and doubles for detection.
    void launch() {
        auto state = std::make_unique<AppState>(&store, &clock);
        auto detectorDouble = std::make_unique<RecordingDetector>(journal);
        auto engineDouble = std::make_unique<RecordingEngine>(journal);
        engineDouble->state = InstallState::notInstalled;
        detector = detectorDouble.get();
        auto player =
            std::make_unique<AudioPlayer>(clock, std::make_unique<FakeSoundOutput>(record));
        audio = player.get();
        auto packManager = std::make_unique<SoundPackManager>(SoundPackManager::ResourceLocations{
            exeDir.path(), exeDir.path() + QStringLiteral("/not-installed")});
        packs = packManager.get();
        AppDelegate::Parts parts{std::move(state), std::move(detectorDouble), std::move(player),
                                 std::move(packManager), std::move(engineDouble)};
        delegate = std::make_unique<AppDelegate>(std::move(parts), nullptr);
        delegate->applicationDidFinishLaunching();
    }

    QString userPacks() const { return xdg.dataHome() + QStringLiteral("/Bonkwell/SoundPacks"); }

    // Slaps once; returns the names the player was asked to play, after the queue drained.
    QStringList slap(double amplitude = 0.3) {
        store.writes.clear();
        detector->onSlap(amplitude);
        audio->waitUntilIdleForTesting();
        return record->names();
    }

    void expectCountedAndSaved(std::int64_t total) {
        EXPECT_EQ(delegate->state().todayCount.get(), total);
        EXPECT_EQ(delegate->state().totalCount.get(), total);
        ASSERT_EQ(store.writes.size(), 1u);
        EXPECT_EQ(store.savedSnapshot(0).totalCount, total);
    }

    TemporaryXdgHome xdg;
    QTemporaryDir exeDir;
    QTemporaryDir emptyDataDirs;
    bool hadDataDirs = false;
    std::string oldDataDirs;
    QTemporaryDir storeDir;
    CallJournal journal;
    RecordingStore store{storeDir.path() + "/Bonkwell", journal};
    ManualClock clock{Date{725760000.0}};
    std::shared_ptr<FakeSoundOutput::Record> record = std::make_shared<FakeSoundOutput::Record>();
    std::unique_ptr<AppDelegate> delegate;
    RecordingDetector* detector = nullptr;
    AudioPlayer* audio = nullptr;
    SoundPackManager* packs = nullptr;
};

TEST_F(EmptyPackSlapTest, ABuiltInPackWithItsFilesPlaysOneOfThem) {
    launch();
    EXPECT_EQ(slap().size(), 1);  // the recording output does see a sound when there is one
    expectCountedAndSaved(1);
}

TEST_F(EmptyPackSlapTest, CustomWithSoundsOnlyInASubFolderIsCountedAndSilent) {
    writeFile(userPacks() + QStringLiteral("/Custom/mine/slap.mp3"));
    launch();
    ASSERT_TRUE(delegate->state().availablePacks.get().contains(QStringLiteral("Custom")));
    ASSERT_TRUE(packs->pack(QStringLiteral("Custom")).files.isEmpty());
    delegate->state().selectedPackName.set(QStringLiteral("Custom"));
    for (PlayMode mode : {PlayMode::random, PlayMode::escalation}) {
        delegate->state().mode.set(mode);
        EXPECT_TRUE(slap().isEmpty());
    }
    expectCountedAndSaved(2);
}

TEST_F(EmptyPackSlapTest, APackNameFromOldSettingsIsCountedAndSilent) {
    AppState::Snapshot old;
    old.selectedPackName = QStringLiteral("Retired");
    old.mode = QStringLiteral("escalation");
    old.totalCount = 41;
    old.lastCountDate = clock.now();
    ASSERT_TRUE(store.setData(AppState::defaultsKey, old.encode().value(), nullptr));
    launch();
    ASSERT_EQ(delegate->state().selectedPackName.get(), QStringLiteral("Retired"));
    EXPECT_TRUE(slap(0.8).isEmpty());
    EXPECT_EQ(delegate->state().totalCount.get(), 42);
    ASSERT_EQ(store.writes.size(), 1u);
    EXPECT_EQ(store.savedSnapshot(0).totalCount, 42);
    EXPECT_EQ(store.savedSnapshot(0).selectedPackName, QStringLiteral("Retired"));
}

TEST_F(EmptyPackSlapTest, ABuiltInPackWhoseFilesWereDeletedIsCountedAndSilent) {
    launch();
    delegate->state().selectedPackName.set(QStringLiteral("Halo"));
    for (const QString& file : packs->pack(QStringLiteral("Halo")).files) {
        ASSERT_TRUE(QFile::remove(file));
    }
    EXPECT_TRUE(slap().isEmpty());
    expectCountedAndSaved(1);
    // The next pack with sounds plays again.
    delegate->state().selectedPackName.set(QStringLiteral("Lizard"));
    EXPECT_EQ(slap().size(), 1);
    expectCountedAndSaved(2);
}

}  // namespace

// SPDX-License-Identifier: GPL-3.0-or-later
// The panel's "Test" and the Sounds tab's "Test sound" buttons with the real pack manager
// and audio player (its output records instead of sounding): a pack without files plays
// nothing and harms nothing; a pack with files plays one of them.
#include "AudioPlayer.h"
#include "FakeSoundOutput.h"
#include "PopoverView.h"
#include "SettingsWindow.h"
#include "SoundPackManager.h"
#include "UiTestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>

#include <cstdlib>
#include <memory>
#include <string>

namespace bonkwell {
namespace {

using test::child;
using test::FakeSoundOutput;

void writeFile(const QString& path) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(path);
    file.write("ID3 not decoded by the recording output");
}

class EmptyPackTestButtonsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(exeDir.isValid());
        const char* old = std::getenv("XDG_DATA_DIRS");
        hadDataDirs = old != nullptr;
        oldDataDirs = hadDataDirs ? old : "";
        ::setenv("XDG_DATA_DIRS", qPrintable(exeDir.path() + QStringLiteral("/none")), 1);
        for (const char* name : {"Pain", "Sexy", "Halo", "Lizard"}) {
            writeFile(exeDir.path() + QStringLiteral("/Resources/SoundPacks/") + name +
                      QStringLiteral("/01-a.mp3"));
        }
        packs.bootstrapUserPacks();
        f.state->refreshAvailablePacks(packs);
        panel = std::make_unique<PopoverView>(
            *f.state, f.detector, audio, packs, f.engine, [] {}, [] {}, [] {});
        panel->show();
        settings = std::make_unique<SettingsRootView>(
            *f.state, audio, packs, f.engine, [] {}, f.desktop);
        settings->tabs()->setCurrentIndex(SettingsRootView::sounds);
        settings->show();
    }
    void TearDown() override {
        panel.reset();
        settings.reset();
        if (hadDataDirs) {
            ::setenv("XDG_DATA_DIRS", oldDataDirs.c_str(), 1);
        } else {
            ::unsetenv("XDG_DATA_DIRS");
        }
    }

    QString userPacks() const { return xdg.dataHome() + QStringLiteral("/Bonkwell/SoundPacks"); }

    // Presses both test buttons; returns how many sounds the player started in all.
    std::size_t pressBoth() {
        QTest::mouseClick(child<QPushButton>(panel.get(), QStringLiteral("testButton")),
                          Qt::LeftButton);
        QTest::mouseClick(child<QPushButton>(settings.get(), QStringLiteral("testSoundButton")),
                          Qt::LeftButton);
        audio.waitUntilIdleForTesting();
        return record->snapshot().size();
    }

    test::TemporaryXdgHome xdg;
    QTemporaryDir exeDir;
    bool hadDataDirs = false;
    std::string oldDataDirs;
    test::ViewFixture f;
    SoundPackManager packs{{exeDir.path(), exeDir.path() + QStringLiteral("/not-installed")}};
    std::shared_ptr<FakeSoundOutput::Record> record = std::make_shared<FakeSoundOutput::Record>();
    AudioPlayer audio{f.clock, std::make_unique<FakeSoundOutput>(record)};
    std::unique_ptr<PopoverView> panel;
    std::unique_ptr<SettingsRootView> settings;
};

TEST_F(EmptyPackTestButtonsTest, APackWithFilesPlaysOnEachPress) {
    EXPECT_EQ(pressBoth(), 2u);
}

TEST_F(EmptyPackTestButtonsTest, CustomWithSoundsOnlyInASubFolderPlaysNothing) {
    writeFile(userPacks() + QStringLiteral("/Custom/mine/slap.mp3"));
    f.state->refreshAvailablePacks(packs);
    ASSERT_TRUE(f.state->availablePacks.get().contains(QStringLiteral("Custom")));
    f.state->selectedPackName.set(QStringLiteral("Custom"));
    EXPECT_EQ(pressBoth(), 0u);
}

TEST_F(EmptyPackTestButtonsTest, APackNameThatNoLongerExistsPlaysNothing) {
    f.state->selectedPackName.set(QStringLiteral("Retired"));
    EXPECT_EQ(pressBoth(), 0u);
}

TEST_F(EmptyPackTestButtonsTest, ABuiltInPackWhoseFilesWereDeletedPlaysNothing) {
    f.state->selectedPackName.set(QStringLiteral("Halo"));
    ASSERT_TRUE(QFile::remove(userPacks() + QStringLiteral("/Halo/01-a.mp3")));
    EXPECT_EQ(pressBoth(), 0u);
    f.state->selectedPackName.set(QStringLiteral("Lizard"));
    EXPECT_EQ(pressBoth(), 2u);
}

}  // namespace
}  // namespace bonkwell

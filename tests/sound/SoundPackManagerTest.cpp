// SPDX-License-Identifier: GPL-3.0-or-later
#include "SoundPackManager.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

using bonkwell::SoundPack;
using bonkwell::SoundPackManager;
using bonkwell::test::LogCapture;
using bonkwell::test::TemporaryXdgHome;

namespace {

void writeFile(const QString& path, const QByteArray& content = QByteArray("ID3 not really")) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(path);
    file.write(content);
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList fileNames(const QStringList& paths) {
    QStringList names;
    for (const QString& path : paths) {
        names << QFileInfo(path).fileName();
    }
    return names;
}

// A temporary user folder, an executable folder and an empty $XDG_DATA_DIRS, so that only
// what the test lays out is found.
class SoundPackManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(exeDir_.isValid());
        ASSERT_TRUE(emptyDataDirs_.isValid());
        const char* old = std::getenv("XDG_DATA_DIRS");
        hadDataDirs_ = old != nullptr;
        oldDataDirs_ = hadDataDirs_ ? old : "";
        ::setenv("XDG_DATA_DIRS", qPrintable(emptyDataDirs_.path()), 1);
    }
    void TearDown() override {
        if (hadDataDirs_) {
            ::setenv("XDG_DATA_DIRS", oldDataDirs_.c_str(), 1);
        } else {
            ::unsetenv("XDG_DATA_DIRS");
        }
    }

    SoundPackManager manager() const {
        return SoundPackManager(
            {exeDir_.path(), exeDir_.path() + QStringLiteral("/not-installed")});
    }
    QString bundle() const { return exeDir_.path() + QStringLiteral("/Resources/SoundPacks"); }
    QString userPacks() const { return xdg_.dataHome() + QStringLiteral("/Bonkwell/SoundPacks"); }

    // Two files per built-in pack, plus a non-sound.
    void layOutBundle() {
        for (const char* name : {"Pain", "Sexy", "Halo", "Lizard"}) {
            const QString dir = bundle() + QLatin1Char('/') + QLatin1String(name);
            writeFile(dir + QStringLiteral("/01-a.mp3"), QByteArray("bundled a ") + name);
            writeFile(dir + QStringLiteral("/02-b.MP3"), QByteArray("bundled b ") + name);
            writeFile(dir + QStringLiteral("/readme.txt"));
        }
    }

    TemporaryXdgHome xdg_;
    QTemporaryDir exeDir_;
    QTemporaryDir emptyDataDirs_;
    bool hadDataDirs_ = false;
    std::string oldDataDirs_;
};

TEST_F(SoundPackManagerTest, BuiltInPacksAreTheFourInOrder) {
    EXPECT_EQ(manager().builtInPacks(), (QStringList{"Pain", "Sexy", "Halo", "Lizard"}));
}

TEST_F(SoundPackManagerTest, AppSupportFolderFollowsXdgDataHome) {
    EXPECT_EQ(manager().appSupportURL(), xdg_.dataHome() + QStringLiteral("/Bonkwell"));
    EXPECT_FALSE(QFileInfo::exists(manager().appSupportURL())) << "nothing is created";
}

TEST_F(SoundPackManagerTest, AppSupportFolderDefaultsToLocalShare) {
    ::unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(manager().appSupportURL(),
              QDir::homePath() + QStringLiteral("/.local/share/Bonkwell"));
}

TEST_F(SoundPackManagerTest, FirstStartSeedsEveryPackAndSecondStartCopiesNothing) {
    layOutBundle();
    LogCapture log;
    manager().bootstrapUserPacks();

    EXPECT_TRUE(QFileInfo(userPacks() + QStringLiteral("/Custom")).isDir());
    for (const QString& name : manager().builtInPacks()) {
        const SoundPack pack = manager().pack(name);
        EXPECT_EQ(fileNames(pack.files), (QStringList{"01-a.mp3", "02-b.MP3"})) << qPrintable(name);
        EXPECT_FALSE(QFileInfo::exists(userPacks() + QLatin1Char('/') + name + "/readme.txt"));
        EXPECT_EQ(readFile(pack.files.at(0)), "bundled a " + name.toUtf8());
    }
    EXPECT_TRUE(log.lines().isEmpty());

    // Second start: the bundle changed, but present files are kept as they are.
    writeFile(bundle() + QStringLiteral("/Pain/01-a.mp3"), "newer bundled content");
    manager().bootstrapUserPacks();
    EXPECT_EQ(readFile(userPacks() + QStringLiteral("/Pain/01-a.mp3")), "bundled a Pain");
    EXPECT_EQ(QDir(userPacks() + QStringLiteral("/Pain")).entryList(QDir::Files).size(), 2);
}

TEST_F(SoundPackManagerTest, DeletedFileComesBackAndReplacedFileStays) {
    layOutBundle();
    manager().bootstrapUserPacks();
    ASSERT_TRUE(QFile::remove(userPacks() + QStringLiteral("/Halo/01-a.mp3")));
    writeFile(userPacks() + QStringLiteral("/Halo/02-b.MP3"), "the user's own sound");
    writeFile(userPacks() + QStringLiteral("/Halo/03-mine.mp3"), "added by the user");

    manager().bootstrapUserPacks();
    EXPECT_EQ(readFile(userPacks() + QStringLiteral("/Halo/01-a.mp3")), "bundled a Halo");
    EXPECT_EQ(readFile(userPacks() + QStringLiteral("/Halo/02-b.MP3")), "the user's own sound");
    EXPECT_EQ(fileNames(manager().pack("Halo").files),
              (QStringList{"01-a.mp3", "02-b.MP3", "03-mine.mp3"}));
}

TEST_F(SoundPackManagerTest, MissingBundleLogsOnceAndStillMakesTheTwoFolders) {
    LogCapture log;
    EXPECT_FALSE(manager().bundleSoundPacksURL().has_value());
    manager().bootstrapUserPacks();
    EXPECT_EQ(log.lines(), QStringList{"Bonkwell: bundled SoundPacks dir not found"});
    EXPECT_TRUE(QFileInfo(userPacks()).isDir());
    EXPECT_TRUE(QFileInfo(userPacks() + QStringLiteral("/Custom")).isDir());
    for (const QString& name : manager().builtInPacks()) {
        EXPECT_FALSE(QFileInfo::exists(userPacks() + QLatin1Char('/') + name)) << qPrintable(name);
    }
}

TEST_F(SoundPackManagerTest, MissingPackInBundleIsSkipped) {
    writeFile(bundle() + QStringLiteral("/Sexy/a.mp3"));
    manager().bootstrapUserPacks();
    EXPECT_EQ(manager().pack("Sexy").files.size(), 1);
    EXPECT_TRUE(manager().pack("Pain").files.isEmpty());
    EXPECT_TRUE(QFileInfo(userPacks() + QStringLiteral("/Pain")).isDir());
}

TEST_F(SoundPackManagerTest, BundleCandidatesAreTriedInOrder) {
    const QString exe = exeDir_.path();
    QDir().mkpath(exe + QStringLiteral("/Resources/SoundPacks"));
    EXPECT_EQ(manager().bundleSoundPacksURL(), exe + QStringLiteral("/Resources/SoundPacks"));
    QDir().mkpath(exe + QStringLiteral("/Bonkwell_Bonkwell.bundle/SoundPacks"));
    EXPECT_EQ(manager().bundleSoundPacksURL(),
              exe + QStringLiteral("/Bonkwell_Bonkwell.bundle/SoundPacks"));
    // A plain file of that name is enough: only existence is tested.
    QDir().mkpath(exe + QStringLiteral("/Bonkwell_Bonkwell.bundle/Contents/Resources"));
    writeFile(exe + QStringLiteral("/Bonkwell_Bonkwell.bundle/Contents/Resources/SoundPacks"));
    EXPECT_EQ(manager().bundleSoundPacksURL(),
              exe + QStringLiteral("/Bonkwell_Bonkwell.bundle/Contents/Resources/SoundPacks"));
}

TEST_F(SoundPackManagerTest, InstalledFolderComesBeforeXdgDataDirs) {
    QTemporaryDir installed;
    QTemporaryDir dataA;
    QTemporaryDir dataB;
    QDir().mkpath(dataB.path() + QStringLiteral("/bonkwell/SoundPacks"));
    ::setenv("XDG_DATA_DIRS", qPrintable(dataA.path() + ":" + dataB.path()), 1);
    SoundPackManager m({exeDir_.path(), installed.path() + QStringLiteral("/SoundPacks")});
    EXPECT_EQ(m.bundleSoundPacksURL(), dataB.path() + QStringLiteral("/bonkwell/SoundPacks"));

    QDir().mkpath(dataA.path() + QStringLiteral("/bonkwell/SoundPacks"));
    EXPECT_EQ(m.bundleSoundPacksURL(), dataA.path() + QStringLiteral("/bonkwell/SoundPacks"));

    QDir().mkpath(installed.path() + QStringLiteral("/SoundPacks"));
    EXPECT_EQ(m.bundleSoundPacksURL(), installed.path() + QStringLiteral("/SoundPacks"));
}

TEST_F(SoundPackManagerTest, LowerCaseCustomIsAnOrdinaryPack) {
    writeFile(userPacks() + QStringLiteral("/Custom/a.mp3"));
    writeFile(userPacks() + QStringLiteral("/custom/b.mp3"));
    const SoundPack lower = manager().pack("custom");
    EXPECT_EQ(lower.name, "custom");
    EXPECT_FALSE(lower.isCustom);
    EXPECT_EQ(lower.directoryURL, userPacks() + QStringLiteral("/custom"));
    EXPECT_EQ(fileNames(lower.files), QStringList{"b.mp3"});

    const SoundPack custom = manager().pack("Custom");
    EXPECT_TRUE(custom.isCustom);
    EXPECT_EQ(fileNames(custom.files), QStringList{"a.mp3"});
}

TEST_F(SoundPackManagerTest, UnknownPackHasItsNameAndNoFiles) {
    const SoundPack pack = manager().pack("Gone Since Last Version");
    EXPECT_EQ(pack.name, "Gone Since Last Version");
    EXPECT_FALSE(pack.isCustom);
    EXPECT_EQ(pack.directoryURL, userPacks() + QStringLiteral("/Gone Since Last Version"));
    EXPECT_TRUE(pack.files.isEmpty());
}

TEST_F(SoundPackManagerTest, FilesAreMp3sInCodePointOrderHiddenIncluded) {
    const QString dir = userPacks() + QStringLiteral("/Pain");
    for (const char* name : {"b.MP3", "a.mp3", ".hidden.mp3", "notes.txt", "c.mp3.wav", "d.Mp3"}) {
        writeFile(dir + QLatin1Char('/') + QLatin1String(name));
    }
    EXPECT_EQ(fileNames(manager().pack("Pain").files),
              (QStringList{".hidden.mp3", "a.mp3", "b.MP3", "d.Mp3"}));
    for (const QString& path : manager().pack("Pain").files) {
        EXPECT_TRUE(QFileInfo(path).isAbsolute()) << qPrintable(path);
    }
}

TEST_F(SoundPackManagerTest, SortIsNeitherNumericNorCaseFoldedNorLocaleAware) {
    const QString dir = userPacks() + QStringLiteral("/Halo");
    // U+00E9 (2 UTF-8 bytes), U+FB01 (3 bytes) and U+1F600 (4 bytes, a surrogate pair in
    // UTF-16, which would sort before U+FB01 if compared as UTF-16).
    for (const QString& name :
         {QStringLiteral("2.mp3"), QStringLiteral("10.mp3"), QStringLiteral("a.mp3"),
          QStringLiteral("Z.mp3"), QString::fromUtf8("\xc3\xa9.mp3"),
          QString::fromUtf8("\xef\xac\x81.mp3"), QString::fromUtf8("\xf0\x9f\x98\x80.mp3")}) {
        writeFile(dir + QLatin1Char('/') + name);
    }
    EXPECT_EQ(fileNames(manager().pack("Halo").files),
              (QStringList{"10.mp3", "2.mp3", "Z.mp3", "a.mp3", QString::fromUtf8("\xc3\xa9.mp3"),
                           QString::fromUtf8("\xef\xac\x81.mp3"),
                           QString::fromUtf8("\xf0\x9f\x98\x80.mp3")}));
}

TEST_F(SoundPackManagerTest, CustomWithOnlyFilesIsNotOfferedButStillHasSounds) {
    writeFile(userPacks() + QStringLiteral("/Custom/mine.mp3"));
    EXPECT_TRUE(manager().customPacks().isEmpty());
    EXPECT_EQ(fileNames(manager().pack("Custom").files), QStringList{"mine.mp3"});
}

TEST_F(SoundPackManagerTest, CustomSubFoldersAreListedButNotRead) {
    writeFile(userPacks() + QStringLiteral("/Custom/mine.mp3"));
    writeFile(userPacks() + QStringLiteral("/Custom/Set One/deep.mp3"));
    QDir().mkpath(userPacks() + QStringLiteral("/Custom/.hidden set"));
    QStringList found = manager().customPacks();
    found.sort();
    EXPECT_EQ(found,
              (QStringList{userPacks() + "/Custom/.hidden set", userPacks() + "/Custom/Set One"}));
    EXPECT_EQ(fileNames(manager().pack("Custom").files), QStringList{"mine.mp3"});
}

TEST_F(SoundPackManagerTest, CustomPacksIsEmptyWithoutTheFolder) {
    EXPECT_TRUE(manager().customPacks().isEmpty());
}

TEST_F(SoundPackManagerTest, SymlinkLoopPackIsEmptyAndDoesNotHang) {
    QDir().mkpath(userPacks());
    ASSERT_TRUE(
        QFile::link(userPacks() + QStringLiteral("/Loop"), userPacks() + QStringLiteral("/Loop")));
    ASSERT_TRUE(QFile::link(userPacks() + QStringLiteral("/Custom"),
                            userPacks() + QStringLiteral("/Custom2")));
    ASSERT_TRUE(QFile::link(userPacks() + QStringLiteral("/Custom2"),
                            userPacks() + QStringLiteral("/Custom")));
    EXPECT_TRUE(manager().pack("Loop").files.isEmpty());
    EXPECT_TRUE(manager().pack("Custom").files.isEmpty());
    EXPECT_TRUE(manager().customPacks().isEmpty());
}

TEST_F(SoundPackManagerTest, SymlinkLoopInBundleSkipsThatPack) {
    writeFile(bundle() + QStringLiteral("/Pain/a.mp3"));
    ASSERT_TRUE(
        QFile::link(bundle() + QStringLiteral("/Halo"), bundle() + QStringLiteral("/Halo")));
    manager().bootstrapUserPacks();
    EXPECT_EQ(manager().pack("Pain").files.size(), 1);
    EXPECT_TRUE(manager().pack("Halo").files.isEmpty());
}

TEST_F(SoundPackManagerTest, UserFolderThatIsAFileLosesNothing) {
    layOutBundle();
    writeFile(userPacks() + QStringLiteral("/Lizard"), "a file where a folder should be");
    manager().bootstrapUserPacks();
    EXPECT_EQ(readFile(userPacks() + QStringLiteral("/Lizard")), "a file where a folder should be");
    EXPECT_TRUE(manager().pack("Lizard").files.isEmpty());
    EXPECT_EQ(manager().pack("Sexy").files.size(), 2);
}

TEST_F(SoundPackManagerTest, DanglingSymlinkInUserPackIsNotReplaced) {
    layOutBundle();
    QDir().mkpath(userPacks() + QStringLiteral("/Pain"));
    ASSERT_TRUE(QFile::link(QStringLiteral("/nonexistent/elsewhere.mp3"),
                            userPacks() + QStringLiteral("/Pain/01-a.mp3")));
    manager().bootstrapUserPacks();
    EXPECT_TRUE(QFileInfo(userPacks() + QStringLiteral("/Pain/01-a.mp3")).isSymLink());
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/nonexistent/elsewhere.mp3")));
}

TEST_F(SoundPackManagerTest, OpenCustomFolderCreatesItAndShowsIt) {
    SoundPackManager m = manager();
    QList<QUrl> opened;
    m.setFolderOpenerForTesting([&](const QUrl& url) { opened << url; });
    m.openCustomFolder();
    EXPECT_TRUE(QFileInfo(userPacks() + QStringLiteral("/Custom")).isDir());
    ASSERT_EQ(opened.size(), 1);
    EXPECT_EQ(opened.at(0), QUrl::fromLocalFile(userPacks() + QStringLiteral("/Custom")));
}

TEST_F(SoundPackManagerTest, NewFilesAreSeenAtTheNextLookup) {
    writeFile(userPacks() + QStringLiteral("/Pain/a.mp3"));
    EXPECT_EQ(manager().pack("Pain").files.size(), 1);
    writeFile(userPacks() + QStringLiteral("/Pain/b.mp3"));
    EXPECT_EQ(manager().pack("Pain").files.size(), 2);
}

TEST(SoundPackLayout, FreshBuildFindsItsBundledPacks) {
    // The build lays the packs out beside the executable as Resources/SoundPacks.
    SoundPackManager m({QStringLiteral(BONKWELL_BUILD_BIN_DIR), QStringLiteral("/nonexistent")});
    ASSERT_EQ(m.bundleSoundPacksURL(),
              QStringLiteral(BONKWELL_BUILD_BIN_DIR "/Resources/SoundPacks"));
    for (const QString& name : m.builtInPacks()) {
        const QStringList files = SoundPackManager::mp3s(*m.bundleSoundPacksURL() + '/' + name);
        EXPECT_GE(files.size(), 6) << qPrintable(name);
        EXPECT_LE(files.size(), 10) << qPrintable(name);
    }
}

}  // namespace

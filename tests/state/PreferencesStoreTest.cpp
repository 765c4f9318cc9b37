// SPDX-License-Identifier: GPL-3.0-or-later
#include "PreferencesStore.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using bonkwell::PreferencesStore;

namespace {

QByteArray readFile(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        return {};
    }
    return f.readAll();
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(bytes);
}

}  // namespace

TEST(PreferencesStore, StandardFolderFollowsXdgConfigHome) {
    bonkwell::test::TemporaryXdgHome home;
    EXPECT_EQ(PreferencesStore::standardDirectory(), home.configHome() + "/Bonkwell");
    PreferencesStore store;
    EXPECT_EQ(store.pathForKey("BonkwellState.v1"),
              home.configHome() + "/Bonkwell/BonkwellState.v1");
}

TEST(PreferencesStore, MissingKeyHasNoValue) {
    QTemporaryDir dir;
    PreferencesStore store(dir.path() + "/Bonkwell");
    EXPECT_FALSE(store.data("BonkwellState.v1").has_value());
    EXPECT_FALSE(store.string("BonkwellState.v1").has_value());
}

TEST(PreferencesStore, DataIsStoredAsExactlyItsBytesInAFileNamedAfterTheKey) {
    QTemporaryDir dir;
    PreferencesStore store(dir.path() + "/Bonkwell");
    const QByteArray bytes("{\"a\":1}\0tail", 12);
    QString error;
    ASSERT_TRUE(store.setData("K", bytes, &error)) << error.toStdString();
    EXPECT_EQ(readFile(dir.path() + "/Bonkwell/K"), bytes);
    EXPECT_EQ(store.data("K"), bytes);
    // Readable by a fresh store, as after a restart.
    EXPECT_EQ(PreferencesStore(dir.path() + "/Bonkwell").data("K"), bytes);
}

TEST(PreferencesStore, FileIsPrivateToTheUser) {
    QTemporaryDir dir;
    PreferencesStore store(dir.path());
    ASSERT_TRUE(store.setData("K", "x"));
    struct stat st {};
    ASSERT_EQ(::stat(qPrintable(dir.path() + "/K"), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(PreferencesStore, AStringValueIsNotBinaryData) {
    QTemporaryDir dir;
    PreferencesStore store(dir.path());
    ASSERT_TRUE(store.setData("K", "bytes"));
    ASSERT_TRUE(store.setString("K", "{\"text\":true}"));
    EXPECT_FALSE(store.data("K").has_value());
    EXPECT_EQ(store.string("K"), QString("{\"text\":true}"));
    ASSERT_TRUE(store.setData("K", "again"));
    EXPECT_EQ(store.data("K"), QByteArray("again"));
    EXPECT_FALSE(store.string("K").has_value());
}

TEST(PreferencesStore, ReplacingLeavesNoTemporaryFiles) {
    QTemporaryDir dir;
    PreferencesStore store(dir.path());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(store.setData("K", QByteArray::number(i)));
    }
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{"K"});
    EXPECT_EQ(store.data("K"), QByteArray("19"));
}

TEST(PreferencesStore, StrayTemporariesAreRemovedAndValuesKept) {
    QTemporaryDir dir;
    PreferencesStore store(dir.path());
    ASSERT_TRUE(store.setData("K", "kept"));
    writeFile(dir.path() + "/.K.tmp-a1b2c3", "half a wri");
    writeFile(dir.path() + "/.K.string.tmp-zzzzzz", "x");
    writeFile(dir.path() + "/notes.txt", "not ours to delete");
    EXPECT_EQ(store.removeStrayTemporaries(), 2);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
              (QStringList{"K", "notes.txt"}));
    EXPECT_EQ(store.data("K"), QByteArray("kept"));
}

TEST(PreferencesStore, ADirectoryWhereTheFileShouldBeReadsAsNothingAndRefusesWrites) {
    QTemporaryDir dir;
    ASSERT_TRUE(QDir(dir.path()).mkpath("K/inner"));
    PreferencesStore store(dir.path());
    EXPECT_FALSE(store.data("K").has_value());
    QString error;
    EXPECT_FALSE(store.setData("K", "x", &error));
    EXPECT_FALSE(error.isEmpty());
    EXPECT_TRUE(QFileInfo(dir.path() + "/K/inner").isDir());
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{});
}

TEST(PreferencesStore, ASymlinkAtTheKeyIsNotFollowedForReading) {
    QTemporaryDir dir;
    writeFile(dir.path() + "/elsewhere", "secret");
    ASSERT_EQ(::symlink(qPrintable(dir.path() + "/elsewhere"), qPrintable(dir.path() + "/K")), 0);
    PreferencesStore store(dir.path());
    EXPECT_FALSE(store.data("K").has_value());
}

TEST(PreferencesStore, UnwritableFolderFailsWithAReasonAndKeepsThePreviousValue) {
    if (::geteuid() == 0) {
        // Root ignores permission bits; make the folder immutable in another way: a file
        // standing where the folder should be.
        QTemporaryDir dir;
        writeFile(dir.path() + "/Bonkwell", "a file, not a folder");
        PreferencesStore store(dir.path() + "/Bonkwell");
        QString error;
        EXPECT_FALSE(store.setData("K", "x", &error));
        EXPECT_FALSE(error.isEmpty());
        EXPECT_EQ(readFile(dir.path() + "/Bonkwell"), QByteArray("a file, not a folder"));
        return;
    }
    QTemporaryDir dir;
    PreferencesStore store(dir.path());
    ASSERT_TRUE(store.setData("K", "old"));
    ASSERT_EQ(::chmod(qPrintable(dir.path()), 0500), 0);
    QString error;
    EXPECT_FALSE(store.setData("K", "new", &error));
    EXPECT_FALSE(error.isEmpty());
    ::chmod(qPrintable(dir.path()), 0700);
    EXPECT_EQ(store.data("K"), QByteArray("old"));
}

TEST(PreferencesStore, KeysThatAreNotPlainNamesAreRefused) {
    QTemporaryDir dir;
    PreferencesStore store(dir.path());
    EXPECT_FALSE(store.setData("../escape", "x"));
    EXPECT_FALSE(store.setData(".hidden", "x"));
    EXPECT_FALSE(store.setData("", "x"));
    EXPECT_FALSE(QFileInfo::exists(dir.path() + "/../escape"));
}

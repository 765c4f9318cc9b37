// SPDX-License-Identifier: GPL-3.0-or-later
#include "Autostart.h"
#include "LinuxDesktop.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

using namespace bonkwell;

namespace {

QByteArray readAll(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Runs desktop-file-validate on `path`; returns its complaints (empty when valid).
QString validate(const QString& path) {
    QProcess p;
    p.start(QStringLiteral("desktop-file-validate"), {path});
    if (!p.waitForFinished(30000)) {
        return QStringLiteral("desktop-file-validate did not run: ") + p.errorString();
    }
    const QString out = QString::fromUtf8(p.readAllStandardOutput() + p.readAllStandardError());
    return p.exitCode() == 0 && out.trimmed().isEmpty() ? QString() : out;
}

}  // namespace

TEST(Autostart, EntryLivesInTheUsersAutostartFolder) {
    test::TemporaryXdgHome home;
    EXPECT_EQ(autostart::entryPath(),
              home.configHome() + "/autostart/com.bonkwell.Bonkwell.desktop");
}

TEST(Autostart, EnableWritesAValidEntryThatStartsThisExecutable) {
    test::TemporaryXdgHome home;
    QString error;
    ASSERT_TRUE(autostart::enable("/usr/bin/bonkwell", &error)) << error.toStdString();
    EXPECT_TRUE(autostart::isEnabled());
    const QByteArray text = readAll(autostart::entryPath());
    EXPECT_TRUE(text.startsWith("[Desktop Entry]\n"));
    EXPECT_TRUE(text.contains("\nType=Application\n"));
    EXPECT_TRUE(text.contains("\nExec=/usr/bin/bonkwell\n"));
    EXPECT_TRUE(text.contains("\nStartupNotify=false\n"));
    EXPECT_TRUE(text.contains("\nX-KDE-autostart-after=panel\n"));
    EXPECT_TRUE(text.contains("\nX-LXQt-Need-Tray=true\n"));
    EXPECT_TRUE(text.contains("\nX-GNOME-Autostart-Delay="));
    EXPECT_EQ(validate(autostart::entryPath()), QString());
}

TEST(Autostart, OddExecutablePathsAreQuotedAndStillValid) {
    test::TemporaryXdgHome home;
    EXPECT_EQ(autostart::quoteExecArgument("/opt/my apps/bonkwell"), "\"/opt/my apps/bonkwell\"");
    EXPECT_EQ(autostart::quoteExecArgument("/opt/100%/bonkwell"), "/opt/100%%/bonkwell");
    EXPECT_EQ(autostart::quoteExecArgument("/a/$x\"y/b"), "\"/a/\\\\$x\\\\\"y/b\"");
    ASSERT_TRUE(autostart::enable("/home/me/My Apps/bonk$well", nullptr));
    EXPECT_EQ(validate(autostart::entryPath()), QString());
}

TEST(Autostart, DisableDeletesTheEntryAndToleratesItsAbsence) {
    test::TemporaryXdgHome home;
    ASSERT_TRUE(autostart::enable("/usr/bin/bonkwell", nullptr));
    QString error;
    EXPECT_TRUE(autostart::disable(&error));
    EXPECT_FALSE(QFile::exists(autostart::entryPath()));
    EXPECT_TRUE(autostart::disable(&error));
}

TEST(Autostart, FailuresComeBackWithAReason) {
    test::TemporaryXdgHome home;
    // A file where the autostart folder should be.
    ASSERT_TRUE(QDir().mkpath(home.configHome()));
    QFile blocker(home.configHome() + "/autostart");
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    LinuxDesktop desktop;
    QString error;
    EXPECT_FALSE(desktop.setLaunchAtLogin(true, &error));
    EXPECT_FALSE(error.isEmpty());
    // A folder where the entry should be cannot be deleted as a file.
    QFile::remove(blocker.fileName());
    ASSERT_TRUE(QDir().mkpath(autostart::entryPath() + "/inside"));
    error.clear();
    EXPECT_FALSE(desktop.setLaunchAtLogin(false, &error));
    EXPECT_TRUE(error.contains("cannot delete")) << error.toStdString();
}

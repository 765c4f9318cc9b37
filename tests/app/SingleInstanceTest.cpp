// SPDX-License-Identifier: GPL-3.0-or-later
#include "SingleInstance.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTemporaryDir>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <thread>

using namespace bonkwell;
using Role = InstanceGuard::Role;

namespace {

class SingleInstanceTest : public ::testing::Test {
  protected:
    QString path() const { return dir_.path() + QStringLiteral("/run/bonkwell/instance"); }

    // Claims from another thread, as a second process would, while this thread serves the
    // first copy's socket.
    std::optional<Role> claimFromOtherThread(QString* error, int timeoutMs = 3000) {
        std::atomic<bool> done{false};
        std::optional<Role> role;
        std::thread other([&] {
            SingleInstance second(path(), timeoutMs);
            role = second.claim(error);
            done = true;
        });
        QElapsedTimer timer;
        timer.start();
        while (!done && timer.elapsed() < 20000) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
        other.join();
        return role;
    }

    QTemporaryDir dir_;
};

TEST_F(SingleInstanceTest, FirstCopyIsPrimaryInAPrivateFolder) {
    SingleInstance first(path());
    QString error;
    EXPECT_EQ(first.claim(&error), Role::primary) << error.toStdString();
    EXPECT_TRUE(QFileInfo::exists(path()));
    struct stat folder {};
    ASSERT_EQ(::stat(QFile::encodeName(QFileInfo(path()).absolutePath()).constData(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 07777, 0700u);
}

TEST_F(SingleInstanceTest, SecondStartAsksTheFirstToShowItselfAndIsSecondary) {
    SingleInstance first(path());
    int shown = 0;
    first.setShowRequestHandler([&shown] { ++shown; });
    ASSERT_EQ(first.claim(nullptr), Role::primary);

    QString error;
    EXPECT_EQ(claimFromOtherThread(&error), Role::secondary) << error.toStdString();
    EXPECT_EQ(shown, 1);
    EXPECT_EQ(claimFromOtherThread(&error), Role::secondary) << error.toStdString();
    EXPECT_EQ(shown, 2);
}

TEST_F(SingleInstanceTest, TheLaterStartHandsOverItsLaunchersActivationToken) {
    SingleInstance first(path());
    QStringList tokens;
    first.setShowRequestHandler([&] { tokens.append(first.requestToken()); });
    ASSERT_EQ(first.claim(nullptr), Role::primary);

    QString error;
    ::unsetenv("DESKTOP_STARTUP_ID");
    ::setenv("XDG_ACTIVATION_TOKEN", "gnome-shell/Bonkwell/1234-5-host_TIME42", 1);
    EXPECT_EQ(claimFromOtherThread(&error), Role::secondary) << error.toStdString();
    ::unsetenv("XDG_ACTIVATION_TOKEN");
    ::setenv("DESKTOP_STARTUP_ID", "launcher-99_TIME7", 1);
    EXPECT_EQ(claimFromOtherThread(&error), Role::secondary) << error.toStdString();
    ::unsetenv("DESKTOP_STARTUP_ID");
    EXPECT_EQ(claimFromOtherThread(&error), Role::secondary) << error.toStdString();
    EXPECT_EQ(tokens,
              QStringList({"gnome-shell/Bonkwell/1234-5-host_TIME42", "launcher-99_TIME7", ""}));
    EXPECT_TRUE(first.requestToken().isEmpty());  // only while the request is handled
}

TEST_F(SingleInstanceTest, SocketLeftByACrashedCopyIsTakenOver) {
    QDir().mkpath(QFileInfo(path()).absolutePath());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray native = QFile::encodeName(path());
    ASSERT_LT(native.size(), static_cast<qsizetype>(sizeof(address.sun_path)));
    std::memcpy(address.sun_path, native.constData(), native.size());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ::close(fd);  // the file stays, nobody listens
    ASSERT_TRUE(QFileInfo::exists(path()));

    SingleInstance fresh(path());
    int shown = 0;
    fresh.setShowRequestHandler([&shown] { ++shown; });
    QString error;
    ASSERT_EQ(fresh.claim(&error), Role::primary) << error.toStdString();
    EXPECT_EQ(claimFromOtherThread(&error), Role::secondary) << error.toStdString();
    EXPECT_EQ(shown, 1);
}

TEST_F(SingleInstanceTest, AfterTheFirstCopyEndsTheNextStartIsPrimary) {
    {
        SingleInstance first(path());
        ASSERT_EQ(first.claim(nullptr), Role::primary);
    }
    EXPECT_FALSE(QFileInfo::exists(path()));
    SingleInstance next(path());
    EXPECT_EQ(next.claim(nullptr), Role::primary);
}

TEST_F(SingleInstanceTest, ACopyThatNeverAnswersIsReportedNotGuessed) {
    QDir().mkpath(QFileInfo(path()).absolutePath());
    QLocalServer mute;  // accepts connections (the kernel queues them) and never replies
    ASSERT_TRUE(mute.listen(path()));
    SingleInstance second(path(), 200);
    QString error;
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(second.claim(&error), std::nullopt);
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_EQ(error, QStringLiteral("the running copy did not answer"));
}

TEST_F(SingleInstanceTest, ForeignRequestsAreIgnored) {
    test::LogCapture log;
    SingleInstance first(path());
    int shown = 0;
    first.setShowRequestHandler([&shown] { ++shown; });
    ASSERT_EQ(first.claim(nullptr), Role::primary);

    std::atomic<bool> done{false};
    QByteArray reply;
    std::thread other([&] {
        QLocalSocket socket;
        socket.connectToServer(path());
        if (socket.waitForConnected(3000)) {
            socket.write("quit\n");
            socket.waitForBytesWritten(3000);
            while (socket.waitForReadyRead(1000)) {
                reply += socket.readAll();
            }
        }
        done = true;
    });
    QElapsedTimer timer;
    timer.start();
    while (!done && timer.elapsed() < 20000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    other.join();
    EXPECT_EQ(shown, 0);
    EXPECT_TRUE(reply.isEmpty());
    EXPECT_TRUE(
        log.lines().contains(QStringLiteral("Bonkwell: ignored a request on the instance socket")));
}

TEST_F(SingleInstanceTest, FolderThatCannotBeMadeIsAnError) {
    QFile blocker(dir_.path() + QStringLiteral("/run"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));  // a file where the folder should go
    blocker.close();
    SingleInstance guard(path());
    QString error;
    EXPECT_EQ(guard.claim(&error), std::nullopt);
    EXPECT_EQ(error, QStringLiteral("cannot create %1").arg(QFileInfo(path()).absolutePath()));
}

TEST_F(SingleInstanceTest, FolderOfAnotherUserIsNotTrusted) {
    ASSERT_EQ(::geteuid(), 0u) << "this test needs root to give the folder to another user";
    const QString folder = QFileInfo(path()).absolutePath();
    ASSERT_TRUE(QDir().mkpath(folder));
    ASSERT_EQ(::chown(QFile::encodeName(folder).constData(), 65534, 65534), 0);
    SingleInstance guard(path());
    QString error;
    EXPECT_EQ(guard.claim(&error), std::nullopt);
    EXPECT_EQ(error, QStringLiteral("%1 belongs to another user").arg(folder));
    EXPECT_FALSE(QFileInfo::exists(path()));
}

TEST_F(SingleInstanceTest, ALinkInPlaceOfTheFolderIsNotFollowed) {
    // Someone leaves a link where the folder goes, to a folder of their choice.
    const QString elsewhere = dir_.path() + QStringLiteral("/elsewhere");
    ASSERT_EQ(::mkdir(QFile::encodeName(elsewhere).constData(), 0755), 0);
    ASSERT_EQ(::chmod(QFile::encodeName(elsewhere).constData(), 0755), 0);
    const QString folder = QFileInfo(path()).absolutePath();
    ASSERT_TRUE(QDir().mkpath(QFileInfo(folder).absolutePath()));
    ASSERT_TRUE(QFile::link(elsewhere, folder));
    SingleInstance guard(path());
    QString error;
    EXPECT_EQ(guard.claim(&error), std::nullopt);
    EXPECT_EQ(error, QStringLiteral("%1 is not a folder (a link or a file)").arg(folder));
    struct stat info {};
    ASSERT_EQ(::stat(QFile::encodeName(elsewhere).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);  // not made ours
    EXPECT_TRUE(QDir(elsewhere).isEmpty());  // nothing written there
}

TEST(SingleInstanceDefaultPath, LivesInTheSessionRuntimeFolder) {
    const QByteArray saved = qgetenv("XDG_RUNTIME_DIR");
    qputenv("XDG_RUNTIME_DIR", "/run/user/4242");
    EXPECT_EQ(SingleInstance::defaultSocketPath(),
              QStringLiteral("/run/user/4242/bonkwell/instance"));
    // Without it, never the shared temp folder, where another user could make the folder first
    // or leave a link there.
    qunsetenv("XDG_RUNTIME_DIR");
    EXPECT_FALSE(SingleInstance::defaultSocketPath().startsWith(QDir::tempPath()))
        << SingleInstance::defaultSocketPath().toStdString();
    qputenv("XDG_RUNTIME_DIR", saved);
}

TEST(SingleInstanceDefaultPath, WithoutARuntimeFolderTheUsersOwnAreaOrNone) {
    QTemporaryDir dir;
    const QString run = dir.path() + QStringLiteral("/run");
    const QString home = dir.path() + QStringLiteral("/home");
    // No per-user runtime folder: the home folder's cache.
    EXPECT_EQ(SingleInstance::socketPathFor({}, run, home),
              home + QStringLiteral("/.cache/bonkwell/instance"));
    // One that others may enter is passed over; a private one of ours is taken.
    ASSERT_EQ(::mkdir(QFile::encodeName(run).constData(), 0755), 0);
    EXPECT_EQ(SingleInstance::socketPathFor({}, run, home),
              home + QStringLiteral("/.cache/bonkwell/instance"));
    ASSERT_EQ(::chmod(QFile::encodeName(run).constData(), 0700), 0);
    EXPECT_EQ(SingleInstance::socketPathFor({}, run, home),
              run + QStringLiteral("/bonkwell/instance"));
    // Neither: no guard, and claim() says why.
    EXPECT_EQ(SingleInstance::socketPathFor({}, dir.path() + QStringLiteral("/none"), {}),
              QString());
    SingleInstance guard(QString{});
    QString error;
    EXPECT_EQ(guard.claim(&error), std::nullopt);
    EXPECT_EQ(error, QStringLiteral("there is no private folder for the instance socket "
                                    "(neither XDG_RUNTIME_DIR nor HOME is set)"));
}

}  // namespace

// SPDX-License-Identifier: GPL-3.0-or-later
// A writer killed at random moments never leaves settings that fail to load.
#include "AppState.h"
#include "PreferencesStore.h"

#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>

extern char** environ;

using bonkwell::AppState;
using bonkwell::PreferencesStore;

namespace {

// Starts the writer, waits until it says it is about to write, and returns its pid.
pid_t startWriter(const QString& folder, long long firstCount) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    const QByteArray program = QByteArray(BONKWELL_SNAPSHOT_WRITER);
    const QByteArray dir = folder.toLocal8Bit();
    const QByteArray count = QByteArray::number(firstCount);
    char* args[] = {const_cast<char*>(program.constData()), const_cast<char*>(dir.constData()),
                    const_cast<char*>(count.constData()), nullptr};
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, program.constData(), &actions, nullptr, args, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    if (rc != 0) {
        ::close(fds[0]);
        return -1;
    }
    char buffer[6];
    const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
    ::close(fds[0]);
    return n == 6 ? pid : -1;
}

}  // namespace

TEST(CrashSafety, AThousandKillsMidWriteNeverLeaveABrokenSnapshot) {
    QTemporaryDir dir;
    const QString folder = dir.path() + "/Bonkwell";
    PreferencesStore store(folder);
    {
        AppState seed(&store);
        seed.volume.set(0.0);  // consistent with a count of 0, like every later snapshot
        seed.save();
    }
    QRandomGenerator rng(1121);
    long long lastCount = 0;
    int strays = 0;
    for (int i = 0; i < 1000; ++i) {
        const pid_t pid = startWriter(folder, lastCount);
        ASSERT_GT(pid, 0) << "could not start " << BONKWELL_SNAPSHOT_WRITER;
        ::usleep(rng.bounded(0u, 3000u));
        ASSERT_EQ(::kill(pid, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status));

        const auto bytes = store.data(AppState::defaultsKey);
        ASSERT_TRUE(bytes.has_value()) << "after kill " << i;
        const auto snapshot = AppState::Snapshot::decode(*bytes);
        ASSERT_TRUE(snapshot.has_value()) << "after kill " << i << ": " << bytes->toStdString();
        EXPECT_EQ(snapshot->todayCount, snapshot->totalCount);
        EXPECT_EQ(snapshot->volume, static_cast<double>(snapshot->totalCount) / 1000.0);
        EXPECT_GE(snapshot->totalCount, lastCount);
        lastCount = snapshot->totalCount;

        // Start-up clears what a killed writer left behind.
        strays += store.removeStrayTemporaries();
    }
    EXPECT_EQ(QDir(folder).entryList(QDir::Files | QDir::Hidden), QStringList{"BonkwellState.v1"});
    std::printf("1000 kills: %lld snapshots written in all, %d stray temporaries cleared\n",
                lastCount, strays);
}

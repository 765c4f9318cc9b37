// SPDX-License-Identifier: GPL-3.0-or-later
// Small helpers shared by the detection tests: files, waiting on the main queue, running a
// program (optionally as another user).
#pragma once

#include "TestSupport.h"

#include <QByteArray>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QThread>

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <optional>

namespace bonkwell::test {

inline constexpr uid_t kNobody = 65534;

// These tests make root-owned and set-user-ID files and mount file systems. CI runs them
// as root; anywhere else they fail with this message rather than pass without testing.
inline ::testing::AssertionResult runningAsRoot() {
    if (::geteuid() == 0) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "this test must run as root (it creates root-owned set-user-ID files)";
}

inline void writeFile(const QString& path, const QByteArray& bytes, mode_t mode = 0644) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(bytes);
    file.close();
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), mode), 0) << path.toStdString();
}

inline QByteArray readFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return file.readAll();
}

inline struct stat lstatOf(const QString& path) {
    struct stat st {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0) {
        st.st_mode = 0;
    }
    return st;
}

inline void chownPath(const QString& path, uid_t uid, gid_t gid) {
    ASSERT_EQ(::lchown(QFile::encodeName(path).constData(), uid, gid), 0) << path.toStdString();
}

inline void chmodPath(const QString& path, mode_t mode) {
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), mode), 0) << path.toStdString();
}

// Runs the main queue until `done` holds or `timeoutMs` passes.
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs) {
            return false;
        }
        drainMainQueue();
        QThread::msleep(5);
    }
    drainMainQueue();
    return true;
}

struct RunResult {
    int exitCode = -1;
    bool crashed = false;
    QByteArray out;
    QByteArray err;
};

// Runs `program` to its end with exactly `env` as environment, as user `asUid` when given.
inline RunResult runProgram(const QString& program, const QStringList& arguments,
                            const QProcessEnvironment& env, std::optional<uid_t> asUid = {}) {
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    process.setProcessEnvironment(env);
    if (asUid) {
        const uid_t uid = *asUid;
        process.setChildProcessModifier([uid]() {
            if (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0) {
                ::_exit(99);
            }
        });
    }
    process.start();
    RunResult result;
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
    }
    result.crashed = process.exitStatus() != QProcess::NormalExit;
    result.exitCode = process.exitCode();
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

// The environment a test program starts its children with, minus anything that would point
// them at the real user's folders.
inline QProcessEnvironment cleanEnvironment() {
    QProcessEnvironment env;
    for (const char* keep : {"PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LANG", "LC_ALL"}) {
        if (qEnvironmentVariableIsSet(keep)) {
            env.insert(QLatin1String(keep), qEnvironmentVariable(keep));
        }
    }
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    return env;
}

}  // namespace bonkwell::test

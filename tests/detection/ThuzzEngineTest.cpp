// SPDX-License-Identifier: GPL-3.0-or-later
// ThuzzEngine with real child processes: a fake helper script installed as root-owned
// set-user-ID file in a temporary helper folder.
#include "ThuzzEngine.h"

#include "DetectionTestSupport.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

// Puts `fd` in place of this process's standard input for the life of the object.
class StdinSwap {
  public:
    explicit StdinSwap(int fd) : saved_(::dup(STDIN_FILENO)) { ::dup2(fd, STDIN_FILENO); }
    ~StdinSwap() {
        ::dup2(saved_, STDIN_FILENO);
        ::close(saved_);
    }
    StdinSwap(const StdinSwap&) = delete;
    StdinSwap& operator=(const StdinSwap&) = delete;

  private:
    int saved_;
};

// Everything `fd` has to offer within `timeoutMs`.
QByteArray readAvailable(int fd, int timeoutMs) {
    QByteArray out;
    pollfd p{fd, POLLIN, 0};
    while (::poll(&p, 1, timeoutMs) > 0) {
        char buf[4096];
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) {
            break;
        }
        out.append(buf, n);
        timeoutMs = 50;
    }
    return out;
}

long peakResidentKiB() {
    const QList<QByteArray> lines = readFile(QStringLiteral("/proc/self/status")).split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith("VmHWM:")) {
            return line.mid(6).trimmed().split(' ').first().toLong();
        }
    }
    return -1;
}

class Engine : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(runningAsRoot());
        ::setenv("XDG_DATA_DIRS", qPrintable(record.path() + QStringLiteral("/no-bundle")), 1);
        ::setenv("FAKE_RECORD", qPrintable(record.path()), 1);
        ::unsetenv("FAKE_MODE");
        ::unsetenv("FAKE_STDOUT_FILE");
        ::unsetenv("FAKE_STDERR_TEXT");
        engine = std::make_unique<ThuzzEngine>();
        engine->setOnEvent([this](const ThuzzEvent& event) {
            EXPECT_EQ(QThread::currentThread(), QCoreApplication::instance()->thread());
            events.push_back(event);
        });
        engine->setOnStatus([this](const QString& status) {
            EXPECT_EQ(QThread::currentThread(), QCoreApplication::instance()->thread());
            statuses << status;
        });
    }

    void TearDown() override {
        if (engine) {
            engine->stop();
        }
        for (const QByteArray& pid : readFile(record.path() + "/starts").split('\n')) {
            if (!pid.isEmpty()) {
                ::kill(pid.toInt(), SIGKILL);
            }
        }
        drainMainQueue();
        engine.reset();
        if (!mountPoint.isEmpty()) {
            ::umount2(QFile::encodeName(mountPoint).constData(), MNT_DETACH);
        }
        ::unsetenv("FAKE_RECORD");
        ::unsetenv("XDG_DATA_DIRS");
    }

    QString helperPath() const {
        return qEnvironmentVariable("XDG_DATA_HOME") + "/Bonkwell/Helpers/thuzz-detector";
    }

    void installFakeHelper(mode_t mode = 04755) {
        writeFile(helperPath(), readFile(QStringLiteral(FAKE_HELPERS_DIR "/thuzz-detector.sh")),
                  mode);
        ASSERT_EQ(engine->installState(),
                  mode & 04000 ? InstallState::installed : InstallState::notSetuid);
    }

    QStringList startedPids() const {
        QStringList pids;
        for (const QByteArray& pid : readFile(record.path() + "/starts").split('\n')) {
            if (!pid.isEmpty()) {
                pids << QString::fromLatin1(pid);
            }
        }
        return pids;
    }

    QStringList argumentsOf(const QString& pid) const {
        QStringList words = QString::fromUtf8(readFile(record.path() + "/args." + pid))
                                .split('\n', Qt::SkipEmptyParts);
        return words;
    }

    bool waitForStarts(int n) {
        return waitUntil([&] { return startedPids().size() >= n; });
    }

    TemporaryXdgHome xdg;
    QTemporaryDir record;
    QString mountPoint;
    LogCapture log;
    std::unique_ptr<ThuzzEngine> engine;
    std::vector<ThuzzEvent> events;
    QStringList statuses;
};

TEST_F(Engine, DefaultLaunchArguments) {
    installFakeHelper();
    engine->start();
    ASSERT_TRUE(waitForStarts(1));
    EXPECT_EQ(argumentsOf(startedPids()[0]),
              (QStringList{"--stdio", "--detect-only", "--min-amplitude", "0.0500", "--cooldown",
                           "750"}));
    EXPECT_EQ(statuses, QStringList{"Engine running"});
}

TEST_F(Engine, TuningWhileIdleSendsNothingAndTheNextStartPassesIt) {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    StdinSwap swap(sv[0]);
    installFakeHelper();
    engine->updateTuning(0.3, 500);
    EXPECT_EQ(readAvailable(sv[1], 200), QByteArray());
    engine->start();
    ASSERT_TRUE(waitForStarts(1));
    const QStringList args = argumentsOf(startedPids()[0]);
    ASSERT_EQ(args.size(), 6);
    EXPECT_EQ(args[3], "0.3000");
    EXPECT_EQ(args[5], "500");
    EXPECT_EQ(readAvailable(sv[1], 100), QByteArray());
    ::close(sv[0]);
    ::close(sv[1]);
}

TEST_F(Engine, TuningWhileRunningWritesTheSetCommandToThePipeOnTheHelpersStandardInput) {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    StdinSwap swap(sv[0]);  // the app's own standard input gets nothing
    ::setenv("FAKE_MODE", "stdin", 1);
    installFakeHelper();
    engine->start();
    ASSERT_TRUE(waitForStarts(1));
    engine->updateTuning(0.3, 500);
    const QString received = record.path() + "/stdin." + startedPids()[0];
    const QByteArray first = "{\"cmd\":\"set\",\"amplitude\":0.3,\"cooldown\":500}\n";
    ASSERT_TRUE(waitUntil([&] { return readFile(received) == first; }))
        << readFile(received).toStdString();
    engine->updateTuning(0.00001, 1250);
    const QByteArray both = first + "{\"cmd\":\"set\",\"amplitude\":1e-05,\"cooldown\":1250}\n";
    ASSERT_TRUE(waitUntil([&] { return readFile(received) == both; }))
        << readFile(received).toStdString();
    EXPECT_EQ(engine->minAmplitude(), 0.00001);
    EXPECT_EQ(engine->cooldownMs(), 1250);
    EXPECT_EQ(readAvailable(sv[1], 100), QByteArray());
    ::close(sv[0]);
    ::close(sv[1]);
}

TEST_F(Engine, AHelperThatReadsNoCommandsNeverBlocksTuning) {
    installFakeHelper();  // sleeps without reading its standard input
    engine->start();
    ASSERT_TRUE(waitForStarts(1));
    // Far more than a pipe holds: the writes that do not fit are dropped, none blocks.
    for (int i = 0; i < 5000; ++i) {
        engine->updateTuning(0.2, 100 + i);
    }
    EXPECT_EQ(engine->cooldownMs(), 5099);
    EXPECT_TRUE(engine->isRunning());
    EXPECT_EQ(statuses, QStringList{"Engine running"});
}

TEST_F(Engine, LiveViewersTurnTheHelpersSamplesOnAndOff) {
    ::setenv("FAKE_MODE", "stdin", 1);
    installFakeHelper();
    const QByteArray on = "{\"cmd\":\"samples\",\"on\":true}\n";
    const QByteArray off = "{\"cmd\":\"samples\",\"on\":false}\n";
    engine->addLiveViewer();  // not running: nothing to tell yet
    engine->start();          // a new helper is told at once
    ASSERT_TRUE(waitForStarts(1));
    const QString first = record.path() + "/stdin." + startedPids()[0];
    ASSERT_TRUE(waitUntil([&] { return readFile(first) == on; })) << readFile(first).toStdString();
    engine->addLiveViewer();
    engine->removeLiveViewer();  // one viewer is still open
    engine->removeLiveViewer();
    ASSERT_TRUE(waitUntil([&] { return readFile(first) == on + off; }))
        << readFile(first).toStdString();
    EXPECT_EQ(engine->liveViewers(), 0);

    engine->stop();
    engine->start();  // no viewer: the next helper hears nothing
    ASSERT_TRUE(waitForStarts(2));
    const QString second = record.path() + "/stdin." + startedPids()[1];
    engine->updateTuning(0.1, 750);
    const QByteArray tuning = "{\"cmd\":\"set\",\"amplitude\":0.1,\"cooldown\":750}\n";
    ASSERT_TRUE(waitUntil([&] { return readFile(second) == tuning; }))
        << readFile(second).toStdString();
}

TEST_F(Engine, SampleLinesGoToTheSampleHandlerAndNeverToTheLog) {
    writeFile(record.path() + "/out",
              "{\"jolt\":0.0123}\n{\"jolt\":0.5}\n{\"jolt\":oops}\n{\"jolt\":-1}\n"
              "{\"amplitude\":0.31,\"severity\":\"slap\",\"slapNumber\":1}\n{\"jolt\":0.25}\n"
              "ready\n");
    ::setenv("FAKE_STDOUT_FILE", qPrintable(record.path() + "/out"), 1);
    installFakeHelper();
    std::mutex lock;
    std::vector<double> samples;
    bool onMainThread = false;
    engine->setOnSample([&](double jolt) {
        std::lock_guard guard(lock);
        samples.push_back(jolt);
        onMainThread = onMainThread || QThread::currentThread() == qApp->thread();
    });
    engine->start();
    ASSERT_TRUE(waitUntil([&] { return events.size() == 1 && log.lines().size() == 1; }));
    std::lock_guard guard(lock);
    EXPECT_EQ(samples, (std::vector<double>{0.0123, 0.5, 0.25}));
    EXPECT_FALSE(onMainThread);
    EXPECT_EQ(events[0], (ThuzzEvent{0.31, "slap", 1}));
    EXPECT_EQ(log.lines(), QStringList{"thuzz-detector: ready"});
}

TEST_F(Engine, StartTwiceWhileRunningLaunchesOneChild) {
    installFakeHelper();
    engine->start();
    engine->start();
    ASSERT_TRUE(waitForStarts(1));
    QThread::msleep(200);
    drainMainQueue();
    EXPECT_EQ(startedPids().size(), 1);
    EXPECT_EQ(statuses, QStringList{"Engine running"});
    EXPECT_TRUE(engine->isRunning());
}

TEST_F(Engine, NotInstalledInEveryWayGivesTheSameStatusAndLaunchesNothing) {
    // bundleMissing
    EXPECT_EQ(engine->installState(), InstallState::bundleMissing);
    engine->start();
    // notInstalled
    writeFile(record.path() + "/bundle/bonkwell/Helpers/thuzz-detector", "x", 0755);
    ::setenv("XDG_DATA_DIRS", qPrintable(record.path() + "/bundle"), 1);
    EXPECT_EQ(engine->installState(), InstallState::notInstalled);
    engine->start();
    // notSetuid
    installFakeHelper(0755);
    engine->start();
    const QString expected = QStringLiteral(
        "Helper not installed \u2014 open Settings \u2192 General \u2192 Install detection engine");
    EXPECT_EQ(statuses, (QStringList{expected, expected, expected}));
    drainMainQueue();
    EXPECT_TRUE(startedPids().isEmpty());
    EXPECT_FALSE(engine->isRunning());
}

TEST_F(Engine, LaunchFailureIsReported) {
    installFakeHelper(04644);  // root-owned and set-user-ID, but nobody may execute it
    engine->start();
    EXPECT_EQ(statuses, QStringList{"Failed to launch helper: Permission denied"});
    EXPECT_FALSE(engine->isRunning());
    drainMainQueue();
    EXPECT_EQ(statuses.size(), 1) << "no \"Engine stopped\" for a child that never ran";
}

TEST_F(Engine, EventsAndDiagnosticsFromTheHelper) {
    writeFile(record.path() + "/out",
              "ready\n{\"amplitude\":0.31,\"severity\":\"hard\",\"slapNumber\":4}\n"
              "{\"amplitude\":0.5,\"slapNumber\":5}\n");
    ::setenv("FAKE_STDOUT_FILE", qPrintable(record.path() + "/out"), 1);
    ::setenv("FAKE_STDERR_TEXT", "warn\n", 1);
    installFakeHelper();
    engine->start();
    ASSERT_TRUE(waitUntil([&] { return events.size() == 2 && log.lines().size() == 2; }));
    EXPECT_EQ(events[0], (ThuzzEvent{0.31, "hard", 4}));
    EXPECT_EQ(events[1], (ThuzzEvent{0.5, "", 5}));
    QStringList lines = log.lines();
    lines.sort();
    EXPECT_EQ(lines, (QStringList{"thuzz-detector stderr: warn\n", "thuzz-detector: ready"}));
}

TEST_F(Engine, ChildEndingReportsEngineStoppedAndStartLaunchesAgain) {
    ::setenv("FAKE_MODE", "exit", 1);
    installFakeHelper();
    engine->start();
    ASSERT_TRUE(waitUntil([&] { return statuses.size() == 2; }));
    EXPECT_EQ(statuses, (QStringList{"Engine running", "Engine stopped"}));
    EXPECT_FALSE(engine->isRunning());
    engine->start();
    ASSERT_TRUE(waitUntil([&] { return statuses.size() == 4; }));
    EXPECT_EQ(statuses, (QStringList{"Engine running", "Engine stopped", "Engine running",
                                     "Engine stopped"}));
    EXPECT_EQ(startedPids().size(), 2);
}

TEST_F(Engine, StopEndsTheHelperAndStopsListeningToIt) {
    ::setenv("FAKE_MODE", "term-talks", 1);
    installFakeHelper();
    engine->start();
    ASSERT_TRUE(waitUntil([&] { return QFile::exists(record.path() + "/trapped"); }));
    engine->stop();
    EXPECT_EQ(statuses, QStringList{"Engine running"}) << "stop() reports nothing itself";
    EXPECT_FALSE(engine->isRunning());
    ASSERT_TRUE(waitUntil([&] { return statuses.size() == 2; }));
    EXPECT_EQ(statuses, (QStringList{"Engine running", "Engine stopped"}));
    QThread::msleep(100);
    drainMainQueue();
    EXPECT_TRUE(events.empty()) << "what the helper says after stop() is not read";
    EXPECT_FALSE(log.lines().join('|').contains("late"));
    const pid_t pid = startedPids()[0].toInt();
    EXPECT_TRUE(waitUntil([&] { return ::kill(pid, 0) != 0; })) << "the helper has ended";
}

TEST_F(Engine, ReleasingTheEngineLeavesTheHelperRunningAndReportsNothingLater) {
    installFakeHelper();
    engine->start();
    ASSERT_TRUE(waitForStarts(1));
    const pid_t pid = startedPids()[0].toInt();
    engine.reset();
    QThread::msleep(100);
    EXPECT_EQ(::kill(pid, 0), 0) << "only stop() ends the helper";
    ::kill(pid, SIGKILL);
    QThread::msleep(200);
    drainMainQueue();
    EXPECT_EQ(statuses, QStringList{"Engine running"});
}

TEST_F(Engine, HundredMegabyteLineWithoutNewlineKeepsMemoryBounded) {
    ::setenv("FAKE_MODE", "flood", 1);
    installFakeHelper();
    const long peakBefore = peakResidentKiB();
    engine->start();
    std::size_t largestBuffer = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            largestBuffer = std::max(largestBuffer, ThuzzEngineTestAccess::bufferedBytes(*engine));
            return !events.empty();
        },
        60000));
    const long growth = peakResidentKiB() - peakBefore;
    EXPECT_LE(largestBuffer, 64u * 1024u);
    EXPECT_LT(growth, 16 * 1024) << "peak resident memory grew by " << growth << " KiB";
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (ThuzzEvent{0.5, "hard", 7}));
    EXPECT_EQ(
        log.lines(),
        QStringList{"Bonkwell: dropped a thuzz-detector output line longer than 65536 bytes"});
}

TEST_F(Engine, AHelperFolderOnANosuidMountIsLoggedAtStart) {
    installFakeHelper();
    engine->start();
    engine->stop();
    EXPECT_FALSE(log.lines().join('|').contains("nosuid"));
    mountPoint = record.path() + "/nosuid";
    QDir().mkpath(mountPoint);
    ASSERT_EQ(
        ::mount("tmpfs", QFile::encodeName(mountPoint).constData(), "tmpfs", MS_NOSUID, "size=1m"),
        0)
        << "mounting a tmpfs needs root with CAP_SYS_ADMIN: " << std::strerror(errno);
    ::setenv("XDG_DATA_HOME", qPrintable(mountPoint), 1);
    installFakeHelper();
    engine->start();
    EXPECT_TRUE(log.lines().contains("Bonkwell: " + mountPoint +
                                     "/Bonkwell/Helpers/ is on a file system mounted nosuid, so "
                                     "the set-user-ID helper will start without root rights"))
        << log.lines().join('\n').toStdString();
    EXPECT_TRUE(statuses.contains("Engine running"));
    engine->stop();
    ::setenv("XDG_DATA_HOME", qPrintable(xdg.dataHome()), 1);
}

TEST_F(Engine, NoNewPrivilegesIsLoggedAtStart) {
    installFakeHelper();
    const bool alreadySet = ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1;
    engine->start();
    EXPECT_EQ(log.lines().join('|').contains("no_new_privs"), alreadySet);
    engine->stop();
    // Irreversible for this process; nothing else in this program relies on set-user-ID.
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    engine->start();
    EXPECT_TRUE(log.lines().join('|').contains(
        "Bonkwell: this process runs with no_new_privs set, so the set-user-ID helper will "
        "start without root rights"));
    EXPECT_TRUE(statuses.contains("Engine running"));
}

}  // namespace

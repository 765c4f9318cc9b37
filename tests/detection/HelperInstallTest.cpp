// SPDX-License-Identifier: GPL-3.0-or-later
// ThuzzEngine's installation operations: the install folder, the bundled-helper candidates,
// the install state, and installHelper() run as root (the administrator step runs directly)
// and as an ordinary user through a fake pkexec found first on PATH.
#include "HelperInstall.h"
#include "ThuzzEngine.h"

#include "DetectionTestSupport.h"
#include "TestSupport.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

const QByteArray kTrusted("#!/bin/sh\n# the helper as the package ships it\nexec sleep 1\n");

// The setup program installs only inside the caller's home folder from the password
// database, so the data home of these tests lives there.
QString callerHome() {
    const passwd* entry = ::getpwuid(::getuid());
    return entry != nullptr && entry->pw_dir != nullptr ? QString::fromLocal8Bit(entry->pw_dir)
                                                        : QString();
}

class Install : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(runningAsRoot());
        ASSERT_TRUE(tmp.isValid());
        ASSERT_TRUE(xdg.isValid())
            << "cannot make a folder in the home folder " + callerHome().toStdString();
        chmodPath(tmp.path(), 0755);
        share = tmp.path() + "/share";
        bundleDir = share + "/bonkwell/Helpers";
        writeFile(bundleDir + "/thuzz-detector", kTrusted, 0755);
        ASSERT_TRUE(QFile::copy(QStringLiteral(SETUP_PATH), bundleDir + "/bonkwell-helper-setup"));
        chmodPath(bundleDir + "/bonkwell-helper-setup", 0755);
        ::setenv("XDG_DATA_DIRS", qPrintable(share), 1);
        engine.setOnStatus([this](const QString& status) { statuses << status; });
    }

    void TearDown() override {
        if (!mountPoint.isEmpty()) {
            ::umount2(QFile::encodeName(mountPoint).constData(), MNT_DETACH);
        }
        ::unsetenv("XDG_DATA_DIRS");
    }

    QString installed() const { return xdg.dataHome() + "/Bonkwell/Helpers/thuzz-detector"; }

    void placeInstalled(mode_t mode, uid_t owner = 0) {
        writeFile(installed(), "x", mode);
        chownPath(installed(), owner, owner);
        chmodPath(installed(), mode);  // chown clears the set-user-ID bit
    }

    TemporaryXdgHome xdg{callerHome()};
    QTemporaryDir tmp;
    QString share;
    QString bundleDir;
    QString mountPoint;
    ThuzzEngine engine;
    QStringList statuses;
    LogCapture log;
};

TEST_F(Install, InstallDirFollowsXdgDataHome) {
    EXPECT_EQ(engine.installDir(), xdg.dataHome() + "/Bonkwell/Helpers/");
    const QByteArray savedHome = qgetenv("HOME");
    ::unsetenv("XDG_DATA_HOME");
    ::setenv("HOME", qPrintable(tmp.path()), 1);
    EXPECT_EQ(engine.installDir(), tmp.path() + "/.local/share/Bonkwell/Helpers/");
    ::setenv("HOME", savedHome.constData(), 1);
    ::setenv("XDG_DATA_HOME", qPrintable(xdg.dataHome()), 1);
}

TEST_F(Install, StatesOfTheInstalledCopy) {
    placeInstalled(04755);
    EXPECT_EQ(engine.installState(), InstallState::installed);
    placeInstalled(0755);
    EXPECT_EQ(engine.installState(), InstallState::notSetuid);
    placeInstalled(04755, kNobody);
    EXPECT_EQ(engine.installState(), InstallState::notSetuid);
    placeInstalled(04000);
    EXPECT_EQ(engine.installState(), InstallState::installed) << "execute bits are not checked";
}

TEST_F(Install, OwnerWithoutAnAccountNameIsNotSetuid) {
    const uid_t orphan = 54321;
    ASSERT_EQ(::getpwuid(orphan), nullptr);
    placeInstalled(04755, orphan);
    EXPECT_EQ(engine.installState(), InstallState::notSetuid);
}

TEST_F(Install, ASymlinkToASetuidRootFileIsNotInstalled) {
    const QString elsewhere = tmp.path() + "/real";
    writeFile(elsewhere, "x", 04755);
    QDir().mkpath(QFileInfo(installed()).absolutePath());
    ASSERT_TRUE(QFile::link(elsewhere, installed()));
    EXPECT_EQ(engine.installState(), InstallState::notSetuid);
}

TEST_F(Install, NoCopyAnywhereIsBundleMissingAndInstallTouchesNothing) {
    ::setenv("XDG_DATA_DIRS", qPrintable(tmp.path() + "/nothing-here"), 1);
    EXPECT_EQ(engine.bundledHelperURL(), std::nullopt);
    EXPECT_EQ(engine.installState(), InstallState::bundleMissing);
    EXPECT_FALSE(engine.installHelper());
    EXPECT_EQ(statuses, QStringList{"Bundled helper missing"});
    EXPECT_FALSE(QFileInfo::exists(xdg.dataHome())) << "the file system is not touched";
}

TEST_F(Install, ABundledCopyMakesItNotInstalled) {
    EXPECT_EQ(engine.bundledHelperURL(), bundleDir + "/thuzz-detector");
    EXPECT_EQ(engine.installState(), InstallState::notInstalled);
}

TEST_F(Install, XdgDataDirsAreTriedInOrderAndRelativeEntriesIgnored) {
    const QString first = tmp.path() + "/first";
    writeFile(first + "/bonkwell/Helpers/thuzz-detector", "1", 0755);
    writeFile(QDir::currentPath() + "/rel/bonkwell/Helpers/thuzz-detector", "r", 0755);
    ::setenv("XDG_DATA_DIRS", qPrintable("rel:" + tmp.path() + "/none:" + first + ":" + share), 1);
    EXPECT_EQ(engine.bundledHelperURL(), first + "/bonkwell/Helpers/thuzz-detector");
    QDir(QDir::currentPath() + "/rel").removeRecursively();
    ::unsetenv("XDG_DATA_DIRS");
    const QStringList candidates = HelperInstall::bundledHelperCandidates();
    ASSERT_GE(candidates.size(), 2);
    EXPECT_EQ(candidates.mid(candidates.size() - 2),
              (QStringList{"/usr/local/share/bonkwell/Helpers/thuzz-detector",
                           "/usr/share/bonkwell/Helpers/thuzz-detector"}));
}

TEST_F(Install, FullInstallAsRootMakesA4755RootCopyOfTheBundledHelper) {
    EXPECT_TRUE(engine.installHelper());
    EXPECT_EQ(statuses, QStringList{"Detection engine installed"});
    const struct stat st = lstatOf(installed());
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 04755u);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_gid, 0u);
    EXPECT_EQ(readFile(installed()), kTrusted);
    EXPECT_EQ(engine.installState(), InstallState::installed);
}

TEST_F(Install, TheInstalledHelperIsWhatStartLaunches) {
    writeFile(bundleDir + "/thuzz-detector",
              "#!/bin/sh\nprintf '{\"amplitude\":0.25,\"slapNumber\":1}\\n'\nexec sleep 30\n",
              0755);
    std::vector<ThuzzEvent> events;
    engine.setOnEvent([&events](const ThuzzEvent& event) { events.push_back(event); });
    EXPECT_EQ(engine.installState(), InstallState::notInstalled);
    ASSERT_TRUE(engine.installHelper());
    engine.start();
    EXPECT_TRUE(waitUntil([&] { return !events.empty(); }));
    engine.stop();
    EXPECT_TRUE(waitUntil([&] { return statuses.size() == 3; }));
    EXPECT_EQ(statuses,
              (QStringList{"Detection engine installed", "Engine running", "Engine stopped"}));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (ThuzzEvent{0.25, "", 1}));
}

TEST_F(Install, ReinstallReplacesAnOlderCopy) {
    placeInstalled(04755);
    EXPECT_TRUE(engine.installHelper());
    EXPECT_EQ(readFile(installed()), kTrusted);
}

TEST_F(Install, LooseModesOfTheAppsOwnFoldersAreTightened) {
    const QString bonkwell = xdg.dataHome() + "/Bonkwell";
    QDir().mkpath(bonkwell + "/Helpers");
    chmodPath(bonkwell, 0775);
    chmodPath(bonkwell + "/Helpers", 0777);
    EXPECT_TRUE(engine.installHelper());
    EXPECT_EQ(statuses, QStringList{"Detection engine installed"});
    EXPECT_EQ(lstatOf(bonkwell).st_mode & 07777, 0755u);
    EXPECT_EQ(lstatOf(bonkwell + "/Helpers").st_mode & 07777, 0755u);
}

TEST_F(Install, ADataHomeReachedThroughASymlinkStillInstalls) {
    const QString real = xdg.path() + "/real-data";
    QDir().mkpath(real);
    ASSERT_TRUE(QFile::link(real, xdg.path() + "/linked-data"));
    ::setenv("XDG_DATA_HOME", qPrintable(xdg.path() + "/linked-data"), 1);
    EXPECT_TRUE(engine.installHelper());
    EXPECT_EQ(statuses, QStringList{"Detection engine installed"});
    EXPECT_EQ(lstatOf(real + "/Bonkwell/Helpers/thuzz-detector").st_mode & 07777, 04755u);
    EXPECT_EQ(engine.installState(), InstallState::installed);
}

TEST_F(Install, ASymlinkPlantedAtTheTargetIsRemovedNotFollowed) {
    const QString victim = tmp.path() + "/victim";
    writeFile(victim, "somebody else's file\n", 0644);
    QDir().mkpath(QFileInfo(installed()).absolutePath());
    ASSERT_TRUE(QFile::link(victim, installed()));
    EXPECT_TRUE(engine.installHelper());
    EXPECT_EQ(lstatOf(victim).st_mode & 07777, 0644u);
    EXPECT_EQ(readFile(victim), "somebody else's file\n");
    EXPECT_EQ(readFile(installed()), kTrusted);
}

TEST_F(Install, AnUntrustedBundledCopyIsRefusedWithAReason) {
    chownPath(bundleDir, kNobody, kNobody);  // a development build in a home folder
    EXPECT_FALSE(engine.installHelper());
    ASSERT_EQ(statuses.size(), 1);
    EXPECT_TRUE(statuses[0].startsWith("Admin step failed: the helper copy "))
        << statuses[0].toStdString();
    EXPECT_TRUE(
        statuses[0].endsWith("install the Bonkwell package to set up the detection "
                             "engine\n"));
    EXPECT_EQ(engine.installState(), InstallState::notSetuid) << "the unprivileged copy stays";
}

TEST_F(Install, AFolderOnANosuidMountIsRefused) {
    mountPoint = xdg.path() + "/nosuid";
    QDir().mkpath(mountPoint);
    ASSERT_EQ(
        ::mount("tmpfs", QFile::encodeName(mountPoint).constData(), "tmpfs", MS_NOSUID, "size=1m"),
        0)
        << "mounting a tmpfs needs root with CAP_SYS_ADMIN: " << std::strerror(errno);
    ::setenv("XDG_DATA_HOME", qPrintable(mountPoint), 1);
    EXPECT_FALSE(engine.installHelper());
    EXPECT_EQ(statuses,
              QStringList{"Admin step failed: refusing " + mountPoint +
                          "/Bonkwell/Helpers: its file system is mounted nosuid, which ignores "
                          "the set-user-ID bit the helper needs\n"});
    EXPECT_EQ(engine.installState(), InstallState::notSetuid);
}

TEST_F(Install, AFolderOutsideTheCallersHomeIsRefused) {
    ::setenv("XDG_DATA_HOME", qPrintable(tmp.path() + "/data"), 1);  // the temp folder
    EXPECT_FALSE(engine.installHelper());
    ASSERT_EQ(statuses.size(), 1);
    EXPECT_TRUE(statuses[0].startsWith("Admin step failed: refusing " + tmp.path() +
                                       "/data/Bonkwell/Helpers: it is not inside the calling "
                                       "user's home folder"))
        << statuses[0].toStdString();
    // The app's own unprivileged copy may be there; nothing was made set-user-ID.
    EXPECT_NE(engine.installState(), InstallState::installed);
    const QString copy = tmp.path() + "/data/Bonkwell/Helpers/thuzz-detector";
    if (QFileInfo::exists(copy)) {
        EXPECT_EQ(lstatOf(copy).st_mode & 04000, 0u);
    }
}

TEST_F(Install, CopyFailureIsReported) {
    writeFile(tmp.path() + "/a-file", "", 0644);
    ::setenv("XDG_DATA_HOME", qPrintable(tmp.path() + "/a-file"), 1);
    EXPECT_FALSE(engine.installHelper());
    EXPECT_EQ(statuses, QStringList{"Copy failed: " + tmp.path() +
                                    "/a-file/Bonkwell/Helpers/thuzz-detector: Not a directory"});
}

TEST_F(Install, AMissingSetupProgramIsAnInvokeFailure) {
    ASSERT_TRUE(QFile::remove(bundleDir + "/bonkwell-helper-setup"));
    EXPECT_FALSE(engine.installHelper());
    EXPECT_EQ(statuses, QStringList{"Failed to invoke pkexec: " + bundleDir +
                                    "/bonkwell-helper-setup: No such file or directory"});
}

// The driver program, copied where a test wants its executable to be.
class InstallDriver : public Install {
  protected:
    QStringList runDriver(const QString& driver, const QString& command,
                          const QProcessEnvironment& env, std::optional<uid_t> asUid = {}) {
        const RunResult result = runProgram(driver, {command}, env, asUid);
        EXPECT_FALSE(result.crashed) << result.err.toStdString();
        EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
        return QString::fromUtf8(result.out).split('\n', Qt::SkipEmptyParts);
    }
};

TEST_F(InstallDriver, TheResourceFolderWinsThenTheBundleBesideTheExecutableThenDataDirs) {
    const QString prefix = tmp.path() + "/prefix";
    const QString driver = prefix + "/bin/driver";
    QDir().mkpath(prefix + "/bin");
    ASSERT_TRUE(QFile::copy(QStringLiteral(DRIVER_PATH), driver));
    chmodPath(driver, 0755);
    const QStringList inOrder{
        prefix + "/" LIBEXECDIR "/bonkwell/Helpers/thuzz-detector",
        prefix + "/bin/Bonkwell_Bonkwell.bundle/Contents/Resources/Helpers/thuzz-detector",
        prefix + "/bin/Bonkwell_Bonkwell.bundle/Helpers/thuzz-detector",
        prefix + "/bin/Helpers/thuzz-detector",
        bundleDir + "/thuzz-detector",
    };
    for (const QString& path : inOrder) {
        writeFile(path, "x", 0755);
    }
    QProcessEnvironment env = cleanEnvironment();
    env.insert("XDG_DATA_HOME", tmp.path() + "/data");
    env.insert("XDG_DATA_DIRS", share);
    for (const QString& expected : inOrder) {
        EXPECT_EQ(runDriver(driver, "bundled", env), QStringList{"bundled: " + expected});
        ASSERT_TRUE(QFile::remove(expected));
    }
    EXPECT_EQ(runDriver(driver, "bundled", env), QStringList{"bundled: none"});
    EXPECT_EQ(runDriver(driver, "state", env), QStringList{"state: bundleMissing"});
}

// installHelper() as an ordinary user: the administrator step goes through pkexec.
class InstallThroughPkexec : public InstallDriver {
  protected:
    void SetUp() override {
        InstallDriver::SetUp();
        userData = tmp.path() + "/userdata";
        QDir().mkpath(userData);
        chownPath(userData, kNobody, kNobody);
        QDir().mkpath(tmp.path() + "/log");
        chownPath(tmp.path() + "/log", kNobody, kNobody);
        QDir().mkpath(tmp.path() + "/fakebin");
        QDir().mkpath(tmp.path() + "/emptybin");
        writeFile(tmp.path() + "/fakebin/pkexec",
                  readFile(QStringLiteral(FAKE_HELPERS_DIR "/pkexec.sh")), 0755);
        env = cleanEnvironment();
        env.insert("PATH", tmp.path() + "/fakebin:/usr/bin:/bin");
        env.insert("HOME", userData);
        env.insert("XDG_DATA_HOME", userData);
        env.insert("XDG_DATA_DIRS", share);
        env.insert("FAKE_PKEXEC_LOG", tmp.path() + "/log/args");
    }

    QStringList install(const QString& mode) {
        env.insert("FAKE_PKEXEC_MODE", mode);
        return runDriver(QStringLiteral(DRIVER_PATH), "install", env, kNobody);
    }

    QStringList pkexecArguments() const {
        return QString::fromUtf8(readFile(tmp.path() + "/log/args"))
            .split('\n', Qt::SkipEmptyParts);
    }

    QString userData;
    QProcessEnvironment env;
};

TEST_F(InstallThroughPkexec, PkexecGetsExactlyTheSetupProgramAndTheFolder) {
    install("cancel");
    EXPECT_EQ(pkexecArguments(),
              (QStringList{bundleDir + "/bonkwell-helper-setup", userData + "/Bonkwell/Helpers"}));
}

TEST_F(InstallThroughPkexec, DismissedPromptReadsCancelled) {
    EXPECT_EQ(install("cancel"),
              (QStringList{"status: Admin step failed: cancelled", "result: false"}));
}

TEST_F(InstallThroughPkexec, RefusedAuthorisationReadsNotAuthorised) {
    EXPECT_EQ(install("deny"), (QStringList{"status: Admin step failed: not authorised or no "
                                            "authentication agent",
                                            "result: false"}));
}

TEST_F(InstallThroughPkexec, TheSetupProgramsReasonFollowsAdminStepFailed) {
    EXPECT_EQ(install("fail"),
              (QStringList{"status: Admin step failed: refusing the folder: a reason\\n",
                           "result: false"}));
}

TEST_F(InstallThroughPkexec, SuccessWithoutASetuidResultReadsCopiedButNotSetuid) {
    EXPECT_EQ(install("ok"),
              (QStringList{"status: Helper copied but not setuid", "result: false"}));
    const QString copy = userData + "/Bonkwell/Helpers/thuzz-detector";
    EXPECT_EQ(readFile(copy), kTrusted);
    EXPECT_EQ(lstatOf(copy).st_uid, kNobody);
    EXPECT_EQ(lstatOf(copy).st_mode & 07000, 0u);
    EXPECT_EQ(runDriver(QStringLiteral(DRIVER_PATH), "state", env, kNobody),
              QStringList{"state: notSetuid"});
}

TEST_F(InstallThroughPkexec, NoPkexecOnPathIsAnInvokeFailure) {
    env.insert("PATH", tmp.path() + "/emptybin");
    EXPECT_EQ(install("ok"),
              (QStringList{"status: Failed to invoke pkexec: pkexec: No such file or directory",
                           "result: false"}));
}

}  // namespace

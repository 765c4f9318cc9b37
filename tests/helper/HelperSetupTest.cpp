// SPDX-License-Identifier: GPL-3.0-or-later
// bonkwell-helper-setup, run as root against temporary folders: what it makes, and
// everything it must refuse. Runs as root (CI does); anywhere else it fails loudly.
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

namespace {

constexpr uid_t kNobody = 65534;
const QByteArray kTrusted("#!/bin/sh\n# the trusted helper\nexit 0\n");

struct Result {
    int exitCode = -1;
    QByteArray err;
};

void writeFile(const QString& path, const QByteArray& bytes, mode_t mode) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
    file.close();
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), mode), 0);
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

struct stat lstatOf(const QString& path) {
    struct stat st {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0) {
        st.st_mode = 0;
    }
    return st;
}

void chownPath(const QString& path, uid_t uid) {
    ASSERT_EQ(::lchown(QFile::encodeName(path).constData(), uid, uid), 0);
}

void chmodPath(const QString& path, mode_t mode) {
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), mode), 0);
}

// The setup program installs only inside the caller's home folder from the password database.
// In a mount namespace of this test process alone, /etc/passwd is a copy in which root and
// nobody live in the test's home; the copy is rewritten in place for each test.
void givePasswdHomes(const QString& home) {
    static int passwdFd = -1;
    static QByteArray original;
    if (passwdFd < 0) {
        QFile real(QStringLiteral("/etc/passwd"));
        ASSERT_TRUE(real.open(QIODevice::ReadOnly));
        original = real.readAll();
        ASSERT_EQ(::unshare(CLONE_NEWNS), 0) << std::strerror(errno);
        ASSERT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        QByteArray name = QFile::encodeName(QDir::tempPath() + "/bonkwell-setup-passwd.XXXXXX");
        passwdFd = ::mkstemp(name.data());
        ASSERT_GE(passwdFd, 0);
        ::fchmod(passwdFd, 0644);
        const int mounted = ::mount(name.constData(), "/etc/passwd", nullptr, MS_BIND, nullptr);
        ::unlink(name.constData());  // the mount keeps the file
        ASSERT_EQ(mounted, 0) << std::strerror(errno);
    }
    // Root's and nobody's lines with the home replaced; the rest as they were.
    QByteArray text;
    for (QByteArray line : original.split('\n')) {
        QList<QByteArray> fields = line.split(':');
        if (fields.size() == 7 && (fields[2] == "0" || fields[2] == "65534")) {
            fields[5] = QFile::encodeName(home);
            line = fields.join(':');
        }
        if (!line.isEmpty()) {
            text += line + '\n';
        }
    }
    ASSERT_EQ(::ftruncate(passwdFd, 0), 0);
    ASSERT_EQ(::pwrite(passwdFd, text.constData(), static_cast<std::size_t>(text.size()), 0),
              text.size());
}

class Setup : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::geteuid(), 0u) << "this test must run as root: it checks root-owned, "
                                      "set-user-ID results";
        ASSERT_TRUE(tmp.isValid());
        chmodPath(tmp.path(), 0755);
        libDir = tmp.path() + "/lib/bonkwell/Helpers";
        QDir().mkpath(libDir);
        setup = libDir + "/bonkwell-helper-setup";
        ASSERT_TRUE(QFile::copy(QStringLiteral(SETUP_PATH), setup));
        chmodPath(setup, 0755);
        writeFile(libDir + "/thuzz-detector", kTrusted, 0755);
        home = tmp.path() + "/home/user";
        folder = home + "/.local/share/Bonkwell/Helpers";
        QDir().mkpath(folder);
        givePasswdHomes(home);
    }

    void TearDown() override {
        if (!mountPoint.isEmpty()) {
            ::umount2(QFile::encodeName(mountPoint).constData(), MNT_DETACH);
        }
    }

    Result run(const QStringList& args, std::optional<QString> pkexecUid = {},
               std::optional<uid_t> asUid = {}) {
        QProcess process;
        QProcessEnvironment env;
        env.insert("PATH", "/usr/bin:/bin");
        for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
            if (qEnvironmentVariableIsSet(keep)) {
                env.insert(keep, qEnvironmentVariable(keep));
            }
        }
        if (pkexecUid) {
            env.insert("PKEXEC_UID", *pkexecUid);
        }
        process.setProcessEnvironment(env);
        if (asUid) {
            const uid_t uid = *asUid;
            process.setChildProcessModifier([uid] {
                if (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0) {
                    ::_exit(99);
                }
            });
        }
        process.start(setup, args);
        EXPECT_TRUE(process.waitForFinished(30000));
        Result result;
        result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.err = process.readAllStandardError();
        return result;
    }

    Result run() { return run({folder}); }

    void expectInstalled(const Result& result) {
        EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
        EXPECT_EQ(result.err, QByteArray());
        const struct stat st = lstatOf(folder + "/thuzz-detector");
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 04755u);
        EXPECT_EQ(st.st_uid, 0u);
        EXPECT_EQ(st.st_gid, 0u);
        EXPECT_EQ(readFile(folder + "/thuzz-detector"), kTrusted);
        EXPECT_EQ(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                  QStringList{"thuzz-detector"})
            << "no temporary file is left behind";
    }

    // A refusal: a non-zero exit that is not pkexec's 126 or 127, and one line saying why.
    void expectRefused(const Result& result, int code, const QString& why) {
        EXPECT_EQ(result.exitCode, code) << result.err.toStdString();
        EXPECT_NE(result.exitCode, 126);
        EXPECT_NE(result.exitCode, 127);
        EXPECT_TRUE(result.err.endsWith('\n'));
        EXPECT_EQ(result.err.count('\n'), 1) << result.err.toStdString();
        EXPECT_TRUE(QString::fromUtf8(result.err).contains(why))
            << result.err.toStdString() << " should say: " << why.toStdString();
        const struct stat st = lstatOf(folder + "/thuzz-detector");
        EXPECT_FALSE(S_ISREG(st.st_mode) && (st.st_mode & 04000) != 0)
            << "nothing set-user-ID was made";
    }

    QTemporaryDir tmp;
    QString libDir;
    QString setup;
    QString home;
    QString folder;
    QString mountPoint;
};

TEST_F(Setup, MakesARootOwned4755CopyOfTheTrustedHelper) {
    expectInstalled(run());
}

TEST_F(Setup, AcceptsATrailingSlash) {
    const Result result = run({folder + "/"});
    expectInstalled(result);
}

TEST_F(Setup, ReplacesWhatTheUserCopiedThere) {
    writeFile(folder + "/thuzz-detector", "#!/bin/sh\necho the user's own\n", 0755);
    expectInstalled(run());
}

TEST_F(Setup, InstallsIntoThePkexecCallersOwnFolder) {
    chownPath(folder, kNobody);
    chownPath(QFileInfo(folder).absolutePath(), kNobody);
    expectInstalled(run({folder}, QStringLiteral("65534")));
}

TEST_F(Setup, TheNewFileInheritsNoAccessListFromTheFolder) {
    // A default ACL on the folder that would let another account write the new file.
    const Result acl = [&] {
        QProcess setfacl;
        setfacl.start("setfacl", {"-d", "-m", "u:65534:rwx", folder});
        Result r;
        r.exitCode = setfacl.waitForFinished(10000) ? setfacl.exitCode() : -1;
        r.err = setfacl.readAllStandardError();
        return r;
    }();
    ASSERT_EQ(acl.exitCode, 0) << "setfacl (package acl) is needed: " << acl.err.toStdString();
    expectInstalled(run());
    const QByteArray file = QFile::encodeName(folder + "/thuzz-detector");
    EXPECT_LT(::getxattr(file.constData(), "system.posix_acl_access", nullptr, 0), 0)
        << "the set-user-ID file carries an access list";
}

TEST_F(Setup, RefusesAFolderTheCallerDoesNotOwn) {
    expectRefused(run({folder}, QStringLiteral("65534")), 5, "is not owned by the calling user");
}

TEST_F(Setup, RefusesAFolderSomebodyElseMayWriteOnTheWay) {
    chmodPath(home, 0777);
    expectRefused(run(), 5, home + " is writable by other users");
}

TEST_F(Setup, RefusesAFolderOutsideTheCallersHome) {
    const QString elsewhere = tmp.path() + "/shared/Bonkwell/Helpers";
    QDir().mkpath(elsewhere);
    expectRefused(run({elsewhere}), 5, "is not inside the calling user's home folder");
    // nobody's home is the test's home here; root's is the same: a folder of the right
    // owner in a shared place (as under /tmp) is refused too.
    const QString tmpLike = tmp.path() + "/tmp-like/Bonkwell/Helpers";
    QDir().mkpath(tmpLike);
    chownPath(tmpLike, kNobody);
    chownPath(QFileInfo(tmpLike).absolutePath(), kNobody);
    expectRefused(run({tmpLike}, QStringLiteral("65534")), 5,
                  "is not inside the calling user's home folder");
}

TEST_F(Setup, TheNewCopyInheritsNoAccessList) {
    // A default access list on the folder would give another user rights on the new file.
    const auto acl =
        QProcess::execute(QStringLiteral("setfacl"), {"-d", "-m", "u:65534:rwx", folder});
    ASSERT_EQ(acl, 0) << "setfacl (package acl) is needed";
    expectInstalled(run());
    const QByteArray target = QFile::encodeName(folder + "/thuzz-detector");
    EXPECT_LT(::getxattr(target.constData(), "system.posix_acl_access", nullptr, 0), 0);
    EXPECT_EQ(errno, ENODATA);
}

TEST_F(Setup, RefusesAFolderThatIsNotAHelperFolder) {
    QDir().mkpath(home + "/elsewhere");
    expectRefused(run({home + "/elsewhere"}), 5, "not a Bonkwell/Helpers folder");
    expectRefused(run({"relative/Bonkwell/Helpers"}), 5, "not an absolute path");
    expectRefused(run({home + "/../user/.local/share/Bonkwell/Helpers"}), 5, "not a plain path");
    expectRefused(run({home + "//.local/share/Bonkwell/Helpers"}), 5, "not a plain path");
    expectRefused(run({home + "/missing/Bonkwell/Helpers"}), 5, "No such file or directory");
}

TEST_F(Setup, RefusesWrongUsage) {
    expectRefused(run({}), 2, "usage: bonkwell-helper-setup");
    expectRefused(run({folder, folder}), 2, "usage: bonkwell-helper-setup");
    expectRefused(run({folder}, QStringLiteral("12abc")), 2, "PKEXEC_UID is not a user id");
}

TEST_F(Setup, DoesNotFollowASymlinkInThePath) {
    const QString real = tmp.path() + "/real";
    QDir().mkpath(real + "/Bonkwell/Helpers");
    ASSERT_TRUE(QFile::link(real, home + "/link"));
    expectRefused(run({home + "/link/Bonkwell/Helpers"}), 5, home + "/link is a symbolic link");
    EXPECT_FALSE(QFileInfo::exists(real + "/Bonkwell/Helpers/thuzz-detector"));
}

TEST_F(Setup, DoesNotFollowASymlinkAsTheHelpersFolder) {
    const QString real = tmp.path() + "/real-helpers";
    QDir().mkpath(real);
    ASSERT_TRUE(QDir(folder).removeRecursively());
    ASSERT_TRUE(QFile::link(real, folder));
    expectRefused(run(), 5, folder + " is a symbolic link");
    EXPECT_TRUE(QDir(real).isEmpty());
}

TEST_F(Setup, DoesNotFollowASymlinkPlantedAtTheTarget) {
    const QString victim = tmp.path() + "/victim";
    writeFile(victim, "a root file elsewhere\n", 0644);
    ASSERT_TRUE(QFile::link(victim, folder + "/thuzz-detector"));
    expectRefused(run(), 5, "thuzz-detector: it is a symbolic link");
    const struct stat st = lstatOf(victim);
    EXPECT_EQ(st.st_mode & 07777, 0644u) << "the link's target is untouched";
    EXPECT_EQ(readFile(victim), "a root file elsewhere\n");
    EXPECT_TRUE(S_ISLNK(lstatOf(folder + "/thuzz-detector").st_mode));
    EXPECT_EQ(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                     QDir::NoDotAndDotDot),
              QStringList{"thuzz-detector"});
}

TEST_F(Setup, RefusesAFolderOnANosuidMount) {
    mountPoint = home + "/nosuid";
    QDir().mkpath(mountPoint);
    ASSERT_EQ(
        ::mount("tmpfs", QFile::encodeName(mountPoint).constData(), "tmpfs", MS_NOSUID, "size=1m"),
        0)
        << "mounting a tmpfs needs root with CAP_SYS_ADMIN: " << std::strerror(errno);
    folder = mountPoint + "/Bonkwell/Helpers";
    QDir().mkpath(folder);
    expectRefused(run(), 6, "mounted nosuid");
    EXPECT_FALSE(QFileInfo::exists(folder + "/thuzz-detector"));
}

TEST_F(Setup, RefusesATrustedCopyAnotherUserOwns) {
    chownPath(libDir + "/thuzz-detector", kNobody);
    expectRefused(run(), 4, "install the Bonkwell package");
    EXPECT_FALSE(QFileInfo::exists(folder + "/thuzz-detector"));
}

TEST_F(Setup, RefusesATrustedCopyOthersMayWrite) {
    chmodPath(libDir + "/thuzz-detector", 0775);
    expectRefused(run(), 4, "install the Bonkwell package");
}

TEST_F(Setup, RefusesATrustedCopyInAUserFolder) {
    // A development build in a home folder: the program and its helper sit in the user's tree.
    chownPath(libDir, kNobody);
    expectRefused(run(), 4, "install the Bonkwell package");
    chownPath(libDir, 0);
    chmodPath(libDir, 0777);
    expectRefused(run(), 4, "install the Bonkwell package");
    chmodPath(libDir, 0755);
    chownPath(tmp.path() + "/lib", kNobody);
    expectRefused(run(), 4, "install the Bonkwell package");
}

TEST_F(Setup, RefusesASymlinkAsTheTrustedCopy) {
    const QString real = tmp.path() + "/real-helper";
    writeFile(real, kTrusted, 0755);
    ASSERT_TRUE(QFile::remove(libDir + "/thuzz-detector"));
    ASSERT_TRUE(QFile::link(real, libDir + "/thuzz-detector"));
    expectRefused(run(), 4, "install the Bonkwell package");
}

TEST_F(Setup, RefusesAMissingTrustedCopy) {
    ASSERT_TRUE(QFile::remove(libDir + "/thuzz-detector"));
    expectRefused(run(), 4, "No such file or directory");
}

TEST_F(Setup, RefusesToRunWithoutRoot) {
    chownPath(folder, kNobody);
    const Result result = run({folder}, {}, kNobody);
    expectRefused(result, 3, "must run as root");
}

}  // namespace

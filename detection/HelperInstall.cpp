// SPDX-License-Identifier: GPL-3.0-or-later
#include "HelperInstall.h"

#include "Log.h"
#include "ThuzzEngine.h"
#include "ThuzzEngineProcess.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStringDecoder>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#ifndef BONKWELL_LIBEXECDIR
#error "BONKWELL_LIBEXECDIR must name the libexec folder relative to the install prefix"
#endif

namespace bonkwell::HelperInstall {
namespace {

const QString kHelpersSuffix = QStringLiteral("Helpers/thuzz-detector");

QString systemError(int code) {
    return QString::fromLocal8Bit(std::strerror(code));
}

std::optional<QString> ownerName(uid_t uid) {
    std::vector<char> scratch(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(uid, &entry, scratch.data(), scratch.size(), &found) != 0 ||
        found == nullptr) {
        return std::nullopt;
    }
    return QString::fromLocal8Bit(found->pw_name);
}

// Copies `from` to the new file `to` (which must not exist yet), keeping the permission
// bits apart from set-user-ID and set-group-ID.
bool copyFile(const QString& from, const QString& to, QString* error) {
    const int in = ::open(QFile::encodeName(from).constData(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        *error = from + QStringLiteral(": ") + systemError(errno);
        return false;
    }
    struct stat st {};
    ::fstat(in, &st);
    const int out = ::open(QFile::encodeName(to).constData(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, st.st_mode & 0777);
    if (out < 0) {
        *error = to + QStringLiteral(": ") + systemError(errno);
        ::close(in);
        return false;
    }
    std::vector<char> chunk(64 * 1024);
    bool ok = true;
    for (;;) {
        const ssize_t n = ::read(in, chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            *error = from + QStringLiteral(": ") + systemError(errno);
            ok = false;
            break;
        }
        if (n == 0) {
            break;
        }
        const char* p = chunk.data();
        ssize_t left = n;
        while (left > 0) {
            const ssize_t w = ::write(out, p, static_cast<std::size_t>(left));
            if (w < 0 && errno == EINTR) {
                continue;
            }
            if (w < 0) {
                *error = to + QStringLiteral(": ") + systemError(errno);
                ok = false;
                break;
            }
            p += w;
            left -= w;
        }
        if (!ok) {
            break;
        }
    }
    ::close(in);
    if (::close(out) != 0 && ok) {
        *error = to + QStringLiteral(": ") + systemError(errno);
        ok = false;
    }
    return ok;
}

// Removes whatever is at `path` (a symlink itself, not its target). Failures are ignored.
void removeItem(const QString& path) {
    const QByteArray native = QFile::encodeName(path);
    struct stat st {};
    if (::lstat(native.constData(), &st) != 0) {
        return;
    }
    if (S_ISDIR(st.st_mode)) {
        QDir(path).removeRecursively();
    } else {
        ::unlink(native.constData());
    }
}

// Creates `path` and any missing parents with mode 0755 (less the umask).
void makeFolders(const QString& path) {
    const QStringList parts = QDir::cleanPath(path).split(QLatin1Char('/'), Qt::SkipEmptyParts);
    QString sofar;
    for (const QString& part : parts) {
        sofar += QLatin1Char('/') + part;
        ::mkdir(QFile::encodeName(sofar).constData(), 0755);
    }
}

// The administrator step only accepts a helper folder that nobody else may change, so the
// app's own "Bonkwell" and "Helpers" folders lose any group or other write bit a loose umask
// gave them. Folders that are not ours are left as they are (the step explains its refusal).
void tightenOwnFolders(const QString& helpersDir) {
    const QString helpers = QDir::cleanPath(helpersDir);
    for (const QString& dir : {helpers, QFileInfo(helpers).absolutePath()}) {
        const QByteArray native = QFile::encodeName(dir);
        struct stat st {};
        if (::lstat(native.constData(), &st) == 0 && S_ISDIR(st.st_mode) &&
            st.st_uid == ::geteuid() && (st.st_mode & 022) != 0) {
            ::chmod(native.constData(), st.st_mode & 07755);
        }
    }
}

}  // namespace

QString installDir() {
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty()) {
        base = QDir::homePath() + QStringLiteral("/.local/share");
    }
    return base + QStringLiteral("/Bonkwell/Helpers/");
}

QString installedHelperPath() {
    return installDir() + QLatin1String(kHelperName);
}

QStringList bundledHelperCandidates() {
    QStringList candidates;
    if (QCoreApplication::instance() != nullptr) {
        const QString exeDir = QCoreApplication::applicationDirPath();
        if (!exeDir.isEmpty()) {
            const QString libexec = QStringLiteral(BONKWELL_LIBEXECDIR);
            const QString resourceDir =
                QDir::isAbsolutePath(libexec)
                    ? libexec + QStringLiteral("/bonkwell/")
                    : QDir::cleanPath(exeDir + QStringLiteral("/../") + libexec +
                                      QStringLiteral("/bonkwell")) +
                          QLatin1Char('/');
            candidates << resourceDir + kHelpersSuffix;
            candidates << exeDir + QStringLiteral("/Bonkwell_Bonkwell.bundle/Contents/Resources/") +
                              kHelpersSuffix;
            candidates << exeDir + QStringLiteral("/Bonkwell_Bonkwell.bundle/") + kHelpersSuffix;
            candidates << exeDir + QLatin1Char('/') + kHelpersSuffix;
        }
    }
    QString dataDirs = qEnvironmentVariable("XDG_DATA_DIRS");
    if (dataDirs.isEmpty()) {
        dataDirs = QStringLiteral("/usr/local/share/:/usr/share/");
    }
    for (QString dir : dataDirs.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        if (!QDir::isAbsolutePath(dir)) {
            continue;  // relative entries are invalid and ignored
        }
        if (!dir.endsWith(QLatin1Char('/'))) {
            dir += QLatin1Char('/');
        }
        candidates << dir + QStringLiteral("bonkwell/") + kHelpersSuffix;
    }
    return candidates;
}

std::optional<QString> bundledHelperURL() {
    for (const QString& candidate : bundledHelperCandidates()) {
        if (QFileInfo::exists(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

InstallState installState() {
    const QByteArray path = QFile::encodeName(installedHelperPath());
    struct stat st {};
    if (::stat(path.constData(), &st) != 0) {
        return bundledHelperURL() ? InstallState::notInstalled : InstallState::bundleMissing;
    }
    // The attributes are those of the entry itself: a symbolic link is never "installed".
    if (::lstat(path.constData(), &st) != 0) {
        return InstallState::notSetuid;
    }
    const std::optional<QString> owner = ownerName(st.st_uid);
    if (!owner) {
        return InstallState::notSetuid;
    }
    const bool setuid = (static_cast<std::uint16_t>(st.st_mode) & 04000) != 0;
    return setuid && *owner == QLatin1String("root") ? InstallState::installed
                                                     : InstallState::notSetuid;
}

QString setupProgramFor(const QString& bundledHelper) {
    return QFileInfo(bundledHelper).absolutePath() + QLatin1Char('/') + QLatin1String(kSetupName);
}

bool installHelper(const std::function<void(const QString&)>& report) {
    auto say = [&report](const QString& status) {
        if (report) {
            report(status);
        }
    };
    const std::optional<QString> bundled = bundledHelperURL();
    if (!bundled) {
        say(bundledMissing);
        return false;
    }
    const QString dir = installDir();
    const QString target = installedHelperPath();
    makeFolders(dir);
    tightenOwnFolders(dir);
    removeItem(target);
    QString error;
    if (!copyFile(*bundled, target, &error)) {
        say(copyFailedPrefix + error);
        return false;
    }

    // The administrator step: our privileged program makes a root-owned set-user-ID copy
    // from the trusted copy beside it. As root already, it runs without a prompt.
    const QString setup = setupProgramFor(*bundled);
    // The privileged program follows no symbolic link, so it gets the folder's real path
    // (a home folder reached through a link is still the user's own).
    QString folder = QFileInfo(dir).canonicalFilePath();
    if (folder.isEmpty()) {
        folder = QDir::cleanPath(dir);
    }
    const bool viaPkexec = ::geteuid() != 0;
    QString program = setup;
    QStringList arguments{folder};
    if (viaPkexec) {
        program = QStandardPaths::findExecutable(QStringLiteral("pkexec"));
        if (program.isEmpty()) {
            say(invokeFailedPrefix + QStringLiteral("pkexec: ") + systemError(ENOENT));
            return false;
        }
        arguments.prepend(setup);
    }
    if (!QFileInfo::exists(setup)) {
        say(invokeFailedPrefix + setup + QStringLiteral(": ") + systemError(ENOENT));
        return false;
    }

    Pipe err;
    if (!err.open(&error)) {
        say(invokeFailedPrefix + error);
        return false;
    }
    std::shared_ptr<ChildProcess> child =
        ChildProcess::launch(program, arguments, -1, err.writeEnd, &error);
    if (child == nullptr) {
        say(invokeFailedPrefix + error);
        return false;
    }
    err.closeWriteEnd();
    // Read the whole of standard error (keeping at most 64 KiB), then wait for the exit.
    QByteArray errText;
    std::vector<char> chunk(4096);
    for (;;) {
        const ssize_t n = ::read(err.readEnd, chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        if (errText.size() < 64 * 1024) {
            errText.append(chunk.data(), n);
        }
    }
    const int status = child->wait();
    const bool succeeded = status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!succeeded) {
        const int code = status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        QString why;
        if (viaPkexec && code == 126) {
            why = adminCancelled;
        } else if (viaPkexec && code == 127) {
            why = adminNotAuthorised;
        } else {
            QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
            why = decoder(errText);
            if (decoder.hasError()) {
                why.clear();
            }
        }
        const QString how =
            status >= 0 && WIFEXITED(status)     ? QStringLiteral("exit code %1").arg(code)
            : status >= 0 && WIFSIGNALED(status) ? QStringLiteral("signal %1").arg(WTERMSIG(status))
                                                 : QStringLiteral("an unknown status");
        logLine(
            QStringLiteral("Bonkwell: the helper installation step %1 ended with %2")
                .arg(viaPkexec ? QStringLiteral("(pkexec)") : QStringLiteral("(as root)"), how));
        say(adminFailedPrefix + why);
        return false;
    }
    if (installState() == InstallState::installed) {
        say(installed);
        return true;
    }
    say(notSetuid);
    return false;
}

}  // namespace bonkwell::HelperInstall

namespace bonkwell {

InstallState ThuzzEngine::installState() const {
    return HelperInstall::installState();
}

QString ThuzzEngine::installDir() const {
    return HelperInstall::installDir();
}

std::optional<QString> ThuzzEngine::bundledHelperURL() const {
    return HelperInstall::bundledHelperURL();
}

bool ThuzzEngine::installHelper() {
    return HelperInstall::installHelper([this](const QString& status) { report(status); });
}

}  // namespace bonkwell

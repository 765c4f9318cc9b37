// SPDX-License-Identifier: GPL-3.0-or-later
#include "PreferencesStore.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace bonkwell {
namespace {

const QString kStringSuffix = QStringLiteral(".string");
// Temporary files are ".<name>.tmp-XXXXXX"; nothing else in the folder starts with a dot.
const QString kTempMarker = QStringLiteral(".tmp-");

QString errnoText(const char* what, int err) {
    return QStringLiteral("%1: %2").arg(QString::fromUtf8(what),
                                        QString::fromUtf8(std::strerror(err)));
}

bool validKey(const QString& key) {
    return !key.isEmpty() && !key.startsWith(QLatin1Char('.')) && !key.contains(QLatin1Char('/')) &&
           !key.endsWith(kStringSuffix);
}

bool writeAll(int fd, const QByteArray& bytes) {
    const char* p = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, static_cast<size_t>(left));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += n;
        left -= n;
    }
    return true;
}

}  // namespace

PreferencesStore::PreferencesStore() : PreferencesStore(standardDirectory()) {}

PreferencesStore::PreferencesStore(QString directory) : directory_(std::move(directory)) {}

QString PreferencesStore::standardDirectory() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/Bonkwell");
}

QString PreferencesStore::pathForKey(const QString& key) const {
    return directory_ + QLatin1Char('/') + key;
}

std::optional<QByteArray> PreferencesStore::readRegularFile(const QString& path) {
    const QByteArray native = QFile::encodeName(path);
    const int fd = ::open(native.constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return std::nullopt;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    QByteArray bytes;
    char buffer[8192];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) {
            break;
        }
        bytes.append(buffer, n);
    }
    ::close(fd);
    return bytes;
}

std::optional<QByteArray> PreferencesStore::data(const QString& key) const {
    if (!validKey(key)) {
        return std::nullopt;
    }
    return readRegularFile(pathForKey(key));
}

std::optional<QString> PreferencesStore::string(const QString& key) const {
    if (!validKey(key)) {
        return std::nullopt;
    }
    const auto bytes = readRegularFile(pathForKey(key) + kStringSuffix);
    if (!bytes) {
        return std::nullopt;
    }
    return QString::fromUtf8(*bytes);
}

bool PreferencesStore::setData(const QString& key, const QByteArray& bytes, QString* error) {
    if (!validKey(key)) {
        if (error) {
            *error = QStringLiteral("invalid key \"%1\"").arg(key);
        }
        return false;
    }
    if (!writeFile(key, bytes, error)) {
        return false;
    }
    ::unlink(QFile::encodeName(pathForKey(key) + kStringSuffix).constData());
    return true;
}

bool PreferencesStore::setString(const QString& key, const QString& value, QString* error) {
    if (!validKey(key)) {
        if (error) {
            *error = QStringLiteral("invalid key \"%1\"").arg(key);
        }
        return false;
    }
    if (!writeFile(key + kStringSuffix, value.toUtf8(), error)) {
        return false;
    }
    ::unlink(QFile::encodeName(pathForKey(key)).constData());
    return true;
}

bool PreferencesStore::writeFile(const QString& fileName, const QByteArray& bytes, QString* error) {
    auto fail = [error](const QString& why) {
        if (error) {
            *error = why;
        }
        return false;
    };
    if (!QDir().mkpath(directory_)) {
        return fail(QStringLiteral("cannot create %1").arg(directory_));
    }
    const QByteArray dirNative = QFile::encodeName(directory_);
    const int dirFd = ::open(dirNative.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0) {
        return fail(errnoText("cannot open the settings folder", errno));
    }

    QByteArray tempName = QFile::encodeName(QLatin1Char('.') + fileName + kTempMarker) + "XXXXXX";
    QByteArray tempPath = dirNative + '/' + tempName;
    const int fd = ::mkostemp(tempPath.data(), O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        ::close(dirFd);
        return fail(errnoText("cannot create a temporary file", err));
    }
    ::fchmod(fd, 0600);
    bool ok = writeAll(fd, bytes);
    int err = errno;
    if (ok && ::fsync(fd) != 0) {
        ok = false;
        err = errno;
    }
    if (::close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        ::unlink(tempPath.constData());
        ::close(dirFd);
        return fail(errnoText("cannot write the settings", err));
    }
    const QByteArray target = QFile::encodeName(pathForKey(fileName));
    if (::rename(tempPath.constData(), target.constData()) != 0) {
        err = errno;
        ::unlink(tempPath.constData());
        ::close(dirFd);
        return fail(errnoText("cannot replace the settings file", err));
    }
    ::fsync(dirFd);
    ::close(dirFd);
    return true;
}

int PreferencesStore::removeStrayTemporaries() {
    QDir dir(directory_);
    const QStringList names =
        dir.entryList({QStringLiteral(".*") + kTempMarker + QStringLiteral("*")},
                      QDir::Files | QDir::Hidden | QDir::System);
    int removed = 0;
    for (const QString& name : names) {
        if (dir.remove(name)) {
            ++removed;
        }
    }
    return removed;
}

}  // namespace bonkwell

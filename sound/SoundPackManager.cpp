// SPDX-License-Identifier: GPL-3.0-or-later
#include "SoundPackManager.h"

#include "Log.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <algorithm>

#ifndef BONKWELL_INSTALLED_SOUNDPACKS_DIR
#error "BONKWELL_INSTALLED_SOUNDPACKS_DIR must be set by the build"
#endif

namespace bonkwell {
namespace {

const QString kCustom = QStringLiteral("Custom");

// Every entry of a folder, hidden ones included, in the order the file system lists them.
// A folder that cannot be read (missing, no permission, symlink loop) gives nothing.
std::optional<QFileInfoList> listFolder(const QString& path) {
    QDir dir(path);
    if (!dir.exists() || !dir.isReadable()) {
        return std::nullopt;
    }
    return dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                             QDir::Unsorted);
}

bool isMp3Name(const QFileInfo& info) {
    return info.suffix().toLower() == QLatin1String("mp3");
}

// True when anything at all sits at `path`, a dangling symlink included.
bool somethingExistsAt(const QString& path) {
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

QString executableDirOfThisProcess() {
    if (QCoreApplication::instance() != nullptr) {
        return QCoreApplication::applicationDirPath();
    }
    return QFileInfo(QFile::symLinkTarget(QStringLiteral("/proc/self/exe"))).absolutePath();
}

}  // namespace

SoundPackManager::SoundPackManager() : SoundPackManager(ResourceLocations{}) {}

SoundPackManager::SoundPackManager(ResourceLocations locations)
    : locations_(std::move(locations)), folderOpener_([](const QUrl& url) {
          // Without a GUI application object Qt cannot ask the desktop; xdg-open can.
          if (!QDesktopServices::openUrl(url)) {
              QProcess::startDetached(QStringLiteral("xdg-open"), {url.toLocalFile()});
          }
      }) {}

QString SoundPackManager::appSupportURL() const {
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty()) {
        base = QDir::homePath() + QStringLiteral("/.local/share");
    }
    return QDir::cleanPath(base) + QStringLiteral("/Bonkwell");
}

QString SoundPackManager::soundPacksURL() const {
    return appSupportURL() + QStringLiteral("/SoundPacks");
}

QString SoundPackManager::customFolderURL() const {
    return soundPacksURL() + QLatin1Char('/') + kCustom;
}

QStringList SoundPackManager::bundleCandidates() const {
    QStringList candidates;
    const QString exeDir = locations_.executableDir.isEmpty() ? executableDirOfThisProcess()
                                                              : locations_.executableDir;
    if (!exeDir.isEmpty()) {
        candidates << exeDir +
                          QStringLiteral("/Bonkwell_Bonkwell.bundle/Contents/Resources/SoundPacks")
                   << exeDir + QStringLiteral("/Bonkwell_Bonkwell.bundle/SoundPacks")
                   << exeDir + QStringLiteral("/Resources/SoundPacks");
    }
    candidates << (locations_.installedDataDir.isEmpty()
                       ? QStringLiteral(BONKWELL_INSTALLED_SOUNDPACKS_DIR)
                       : locations_.installedDataDir);
    QString dataDirs = qEnvironmentVariable("XDG_DATA_DIRS");
    if (dataDirs.isEmpty()) {
        dataDirs = QStringLiteral("/usr/local/share:/usr/share");
    }
    for (const QString& dir : dataDirs.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        candidates << dir + QStringLiteral("/bonkwell/SoundPacks");
    }
    return candidates;
}

std::optional<QString> SoundPackManager::bundleSoundPacksURL() const {
    for (const QString& candidate : bundleCandidates()) {
        if (QFileInfo::exists(candidate)) {
            return QDir::cleanPath(candidate);
        }
    }
    return std::nullopt;
}

void SoundPackManager::bootstrapUserPacks() const {
    // Errors, the folders already existing included, are of no interest here: whatever
    // could not be made shows up as an empty pack later.
    QDir().mkpath(soundPacksURL());
    QDir().mkpath(customFolderURL());

    const std::optional<QString> bundle = bundleSoundPacksURL();
    if (!bundle) {
        logLine(QStringLiteral("Bonkwell: bundled SoundPacks dir not found"));
        return;
    }
    for (const QString& name : builtInPacks()) {
        const QString destination = soundPacksURL() + QLatin1Char('/') + name;
        if (!somethingExistsAt(destination)) {
            QDir().mkpath(destination);
        }
        const std::optional<QFileInfoList> items = listFolder(*bundle + QLatin1Char('/') + name);
        if (!items) {
            continue;
        }
        for (const QFileInfo& item : *items) {
            if (!isMp3Name(item)) {
                continue;
            }
            const QString target = destination + QLatin1Char('/') + item.fileName();
            if (!somethingExistsAt(target)) {
                QFile::copy(item.filePath(), target);  // a failed copy leaves this file out
            }
        }
    }
}

QStringList SoundPackManager::builtInPacks() const {
    return {QStringLiteral("Pain"), QStringLiteral("Sexy"), QStringLiteral("Halo"),
            QStringLiteral("Lizard")};
}

QStringList SoundPackManager::customPacks() const {
    QStringList result;
    const std::optional<QFileInfoList> items = listFolder(customFolderURL());
    if (!items) {
        return result;
    }
    for (const QFileInfo& item : *items) {
        if (item.isDir()) {
            result << item.filePath();
        }
    }
    return result;
}

SoundPack SoundPackManager::pack(const QString& name) const {
    SoundPack result;
    result.name = name;
    result.isCustom = (name == kCustom);
    result.directoryURL = soundPacksURL() + QLatin1Char('/') + name;
    result.files = mp3s(result.directoryURL);
    return result;
}

QStringList SoundPackManager::mp3s(const QString& directory) {
    const std::optional<QFileInfoList> items = listFolder(directory);
    if (!items) {
        return {};
    }
    struct Entry {
        QByteArray key;  // the name's bytes: UTF-8 byte order is code-point order
        QString path;
    };
    std::vector<Entry> kept;
    for (const QFileInfo& item : *items) {
        if (isMp3Name(item)) {
            kept.push_back({QFile::encodeName(item.fileName()), item.filePath()});
        }
    }
    std::stable_sort(kept.begin(), kept.end(),
                     [](const Entry& a, const Entry& b) { return a.key < b.key; });
    QStringList result;
    result.reserve(static_cast<qsizetype>(kept.size()));
    for (const Entry& entry : kept) {
        result << entry.path;
    }
    return result;
}

void SoundPackManager::openCustomFolder() const {
    QDir().mkpath(customFolderURL());
    if (folderOpener_) {
        folderOpener_(QUrl::fromLocalFile(customFolderURL()));
    }
}

void SoundPackManager::setFolderOpenerForTesting(std::function<void(const QUrl&)> opener) {
    folderOpener_ = std::move(opener);
}

}  // namespace bonkwell

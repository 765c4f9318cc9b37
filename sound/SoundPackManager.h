// SPDX-License-Identifier: GPL-3.0-or-later
// The user's sound folders: seeding from the bundled packs, listing, and lookup by name.
#pragma once

#include "Interfaces.h"
#include "SharedTypes.h"

#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <optional>

namespace bonkwell {

// Owns the per-user tree $XDG_DATA_HOME/Bonkwell/SoundPacks/{Pain,Sexy,Halo,Lizard,Custom}/.
// Nothing is cached: every call reads the disk afresh, so files the user drops in show up at
// the next lookup. No call reports an error: an unreadable folder is an empty pack.
// All calls are made from the main thread.
class SoundPackManager : public SoundPackManagerInterface {
  public:
    // Where the bundled (read-only) "SoundPacks" folder is looked for. The defaults are the
    // running program's folder and the data folder chosen at install time; tests override them.
    struct ResourceLocations {
        QString executableDir;     // empty: the folder of the running executable
        QString installedDataDir;  // empty: <prefix>/share/bonkwell/SoundPacks
    };

    SoundPackManager();
    explicit SoundPackManager(ResourceLocations locations);

    // The application folder A/Bonkwell (A = $XDG_DATA_HOME, by default ~/.local/share).
    // Nothing is created here.
    QString appSupportURL() const;
    // A/Bonkwell/SoundPacks and A/Bonkwell/SoundPacks/Custom.
    QString soundPacksURL() const;
    QString customFolderURL() const;

    // The first existing candidate for the bundled "SoundPacks" folder, in order: beside the
    // executable (three layouts), the installed data folder, then each $XDG_DATA_DIRS entry.
    std::optional<QString> bundleSoundPacksURL() const;

    // Creates the per-user tree and copies every bundled MP3 that the user's folder lacks.
    // Never overwrites or deletes a file. Call once at launch, before the first lookup.
    void bootstrapUserPacks() const override;

    // SoundPackManagerInterface
    QStringList builtInPacks() const override;
    QStringList customPacks() const override;

    // The pack of that name, always; an unknown name gives an empty `files` list.
    SoundPack pack(const QString& name) const override;

    // The MP3 files directly in `directory` (extension "mp3" in any case, hidden files
    // included), sorted by file name in code-point order, stably. Empty on any error.
    static QStringList mp3s(const QString& directory);

    // Creates the Custom folder and shows it in the desktop's file browser.
    void openCustomFolder() const override;
    // Test seam: replaces the call that asks the desktop to show a folder.
    void setFolderOpenerForTesting(std::function<void(const QUrl&)> opener);

  private:
    QStringList bundleCandidates() const;

    ResourceLocations locations_;
    std::function<void(const QUrl&)> folderOpener_;
};

}  // namespace bonkwell

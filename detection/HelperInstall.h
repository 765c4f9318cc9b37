// SPDX-License-Identifier: GPL-3.0-or-later
// Installing the thuzz-detector helper: where it goes, where the app's own copy is looked
// for, what state the installed copy is in, and the one-time administrator step that makes
// it owned by root and set-user-ID (through pkexec and bonkwell-helper-setup).
#pragma once

#include "SharedTypes.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace bonkwell::HelperInstall {

inline constexpr char kHelperName[] = "thuzz-detector";
inline constexpr char kSetupName[] = "bonkwell-helper-setup";

inline const QString bundledMissing = QStringLiteral("Bundled helper missing");
inline const QString copyFailedPrefix = QStringLiteral("Copy failed: ");
inline const QString invokeFailedPrefix = QStringLiteral("Failed to invoke pkexec: ");
inline const QString adminFailedPrefix = QStringLiteral("Admin step failed: ");
inline const QString adminCancelled = QStringLiteral("cancelled");
inline const QString adminNotAuthorised =
    QStringLiteral("not authorised or no authentication agent");
inline const QString installed = QStringLiteral("Detection engine installed");
inline const QString notSetuid = QStringLiteral("Helper copied but not setuid");

// $XDG_DATA_HOME/Bonkwell/Helpers/ (default ~/.local/share/Bonkwell/Helpers/), trailing slash.
QString installDir();
// installDir() + "thuzz-detector".
QString installedHelperPath();

// Every place the app's own copy of the helper may be, in the order they are tried: the
// installed helper folder (<prefix>/libexec/bonkwell/Helpers, found from the executable's
// location), three places beside the executable, then each $XDG_DATA_DIRS entry followed by
// "bonkwell/Helpers/thuzz-detector".
QStringList bundledHelperCandidates();
// The first candidate that exists.
std::optional<QString> bundledHelperURL();

// Recomputed from the file system on every call.
InstallState installState();

// The privileged program that belongs to a copy of the helper: the file beside it.
QString setupProgramFor(const QString& bundledHelper);

// Runs the whole installation, reporting through `report`; true only when the helper ends
// up installed. Blocks until the administrator step has finished.
bool installHelper(const std::function<void(const QString&)>& report);

}  // namespace bonkwell::HelperInstall

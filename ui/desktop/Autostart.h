// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

namespace bonkwell::autostart {

inline constexpr const char* kDesktopId = "com.bonkwell.Bonkwell";

// $XDG_CONFIG_HOME/autostart/com.bonkwell.Bonkwell.desktop
QString entryPath();

// The entry that starts `executable` (an absolute path) at login, once the panel is up.
QByteArray entryContents(const QString& executable);

// Writes the entry atomically. False with a one-line reason on failure.
bool enable(const QString& executable, QString* error);
// Deletes the entry; a missing entry is success. (An entry that only says "disabled" is
// still started by some session managers, so the file goes.)
bool disable(QString* error);
bool isEnabled();

// `path` quoted for an Exec line as desktop entries require.
QString quoteExecArgument(const QString& path);

}  // namespace bonkwell::autostart

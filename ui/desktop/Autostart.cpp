// SPDX-License-Identifier: GPL-3.0-or-later
#include "Autostart.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace bonkwell::autostart {

QString entryPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/") + QLatin1String(kDesktopId) + QStringLiteral(".desktop");
}

QString quoteExecArgument(const QString& path) {
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    bool needsQuotes = false;
    for (const QChar c : path) {
        if (reserved.contains(c)) {
            needsQuotes = true;
            break;
        }
    }
    QString arg;
    if (needsQuotes) {
        arg += QLatin1Char('"');
        for (const QChar c : path) {
            if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') ||
                c == QLatin1Char('\\')) {
                arg += QLatin1Char('\\');
            }
            arg += c;
        }
        arg += QLatin1Char('"');
    } else {
        arg = path;
    }
    // Field codes start with '%'; the value itself is a string in which '\' escapes.
    arg.replace(QLatin1Char('%'), QStringLiteral("%%"));
    arg.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
    return arg;
}

QByteArray entryContents(const QString& executable) {
    QByteArray out;
    out += "[Desktop Entry]\n";
    out += "Type=Application\n";
    out += "Name=Bonkwell\n";
    out += "Comment=Slap your laptop, hear it complain\n";
    out += "Exec=" + quoteExecArgument(executable).toUtf8() + "\n";
    out += "Icon=" + QByteArray(kDesktopId) + "\n";
    out += "Terminal=false\n";
    out += "StartupNotify=false\n";
    out += "NoDisplay=true\n";
    out += "X-GNOME-Autostart-enabled=true\n";
    out += "X-GNOME-Autostart-Delay=2\n";
    out += "X-KDE-autostart-after=panel\n";
    out += "X-LXQt-Need-Tray=true\n";
    return out;
}

bool enable(const QString& executable, QString* error) {
    const QString path = entryPath();
    if (!QDir().mkpath(QFileInfo(path).absolutePath())) {
        if (error) {
            *error = QStringLiteral("cannot create %1").arg(QFileInfo(path).absolutePath());
        }
        return false;
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(entryContents(executable)) < 0 ||
        !file.commit()) {
        if (error) {
            *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        }
        return false;
    }
    return true;
}

bool disable(QString* error) {
    const QString path = entryPath();
    const QByteArray native = QFile::encodeName(path);
    if (::unlink(native.constData()) != 0 && errno != ENOENT) {
        if (error) {
            *error = QStringLiteral("cannot delete %1: %2")
                         .arg(path, QString::fromUtf8(std::strerror(errno)));
        }
        return false;
    }
    return true;
}

bool isEnabled() {
    return QFileInfo(entryPath()).isFile();
}

}  // namespace bonkwell::autostart

// SPDX-License-Identifier: GPL-3.0-or-later
#include "Formats.h"

#include "Log.h"

#include <QDir>

#include <cmath>
#include <cstdio>

namespace bonkwell::format {
namespace {

QString printfFinite(const char* fmt, double value, const char* what) {
    if (!std::isfinite(value)) {
        fatal(QStringLiteral("cannot show a non-finite %1").arg(QLatin1String(what)));
    }
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, fmt, value);
    return QString::fromLatin1(buffer);
}

}  // namespace

std::int64_t truncatedWhole(double value, double factor, const char* what) {
    const double scaled = value * factor;
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (!std::isfinite(scaled) || scaled >= kLimit || scaled <= -kLimit) {
        fatal(QStringLiteral("cannot show %1 %2 as a whole number")
                  .arg(QLatin1String(what))
                  .arg(value));
    }
    return static_cast<std::int64_t>(std::trunc(scaled));
}

QString sensitivityShort(double g) {
    return printfFinite("%.2fg", g, "sensitivity");
}

QString percent(double factor) {
    return QString::number(truncatedWhole(factor, 100.0, "volume")) + QLatin1Char('%');
}

QString threshold(double g) {
    return printfFinite("%.3f g", g, "threshold");
}

QString magnitude(double g) {
    return printfFinite("%.4f g", g, "magnitude");
}

QString milliseconds(double seconds) {
    return QString::number(truncatedWhole(seconds, 1000.0, "cooldown")) + QStringLiteral(" ms");
}

QString sensitivityHint(double g) {
    if (!std::isfinite(g)) {
        fatal(QStringLiteral("cannot describe a non-finite sensitivity"));
    }
    if (g < 0.15) {
        return QStringLiteral("Light taps trigger sounds");
    }
    if (g > 0.35) {
        return QStringLiteral("Only firm slaps trigger");
    }
    return QStringLiteral("Balanced");
}

QString helperFolderForDisplay(const QString& dataHome, const QString& home) {
    QString folder = QDir::cleanPath(dataHome) + QStringLiteral("/Bonkwell/Helpers/");
    const QString cleanHome = QDir::cleanPath(home);
    if (!cleanHome.isEmpty() && cleanHome != QLatin1String("/")) {
        if (folder.startsWith(cleanHome + QLatin1Char('/'))) {
            folder = QLatin1Char('~') + folder.mid(cleanHome.size());
        }
    }
    return folder;
}

QString helperFolderForDisplay() {
    const QString home = QDir::homePath();
    QString dataHome = qEnvironmentVariable("XDG_DATA_HOME");
    // The XDG rules ignore a relative path.
    if (dataHome.isEmpty() || !QDir::isAbsolutePath(dataHome)) {
        dataHome = home + QStringLiteral("/.local/share");
    }
    return helperFolderForDisplay(dataHome, home);
}

}  // namespace bonkwell::format

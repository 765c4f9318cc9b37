// SPDX-License-Identifier: GPL-3.0-or-later
#include "Formats.h"

#include "Log.h"

#include <QDir>

#include <charconv>
#include <cmath>
#include <system_error>

namespace bonkwell::format {
namespace {

// `value` with `decimals` digits after a full stop, rounded as printf's "%.Nf" rounds, then
// `suffix`. The same in every locale: printf would follow LC_NUMERIC ("0,25" in German).
QString fixedFinite(double value, int decimals, const char* suffix, const char* what) {
    if (!std::isfinite(value)) {
        fatal(QStringLiteral("cannot show a non-finite %1").arg(QLatin1String(what)));
    }
    char buffer[400];  // the longest finite double in fixed notation has 309 digits
    const std::to_chars_result result =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals);
    if (result.ec != std::errc()) {
        fatal(QStringLiteral("cannot show the %1 %2").arg(QLatin1String(what)).arg(value));
    }
    return QString::fromLatin1(buffer, result.ptr - buffer) + QLatin1String(suffix);
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
    return fixedFinite(g, 2, "g", "sensitivity");
}

QString percent(double factor) {
    return QString::number(truncatedWhole(factor, 100.0, "volume")) + QLatin1Char('%');
}

QString threshold(double g) {
    return fixedFinite(g, 3, " g", "threshold");
}

QString magnitude(double g) {
    return fixedFinite(g, 4, " g", "magnitude");
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

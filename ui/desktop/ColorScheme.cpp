// SPDX-License-Identifier: GPL-3.0-or-later
#include "ColorScheme.h"

namespace bonkwell {

QString describe(ColorScheme scheme) {
    switch (scheme) {
        case ColorScheme::noPreference:
            return QStringLiteral("no preference");
        case ColorScheme::preferDark:
            return QStringLiteral("prefer dark");
        case ColorScheme::preferLight:
            return QStringLiteral("prefer light");
    }
    return QString();
}

}  // namespace bonkwell

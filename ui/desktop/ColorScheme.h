// SPDX-License-Identifier: GPL-3.0-or-later
// The desktop's colour-scheme preference (light or dark style), as the desktop publishes it.
#pragma once

#include <QObject>
#include <QString>

namespace bonkwell {

enum class ColorScheme { noPreference, preferDark, preferLight };

QString describe(ColorScheme scheme);

// Tells the desktop's colour-scheme preference and reports each change. Before the desktop
// has answered, and where it cannot say, the preference is "no preference".
class ColorSchemeSource : public QObject {
    Q_OBJECT
  public:
    using QObject::QObject;
    virtual ColorScheme current() const = 0;

  signals:
    void changed(bonkwell::ColorScheme scheme);
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "ColorScheme.h"

#include <QObject>
#include <QPalette>

#include <optional>

namespace bonkwell {

// Makes the whole app follow the desktop's light or dark preference where the platform's
// palette does not (Qt on GNOME keeps a light palette under the dark style). When the
// preference is dark and the palette light, the app gets a dark palette; when it is light
// and the palette dark, the style's light one. With no preference, or a palette that already
// matches, the platform's palette stays as it is (KDE and XFCE themes are left alone). Follows
// each change of preference while the app runs; open windows repaint.
class ColorSchemeFollower final : public QObject {
  public:
    explicit ColorSchemeFollower(ColorSchemeSource& source, QObject* parent = nullptr);

    // The palette the app should use under `scheme` when the platform gives `platform`;
    // nullopt to keep the platform's palette.
    static std::optional<QPalette> paletteFor(ColorScheme scheme, const QPalette& platform);
    // A dark palette with every role and colour group filled, for the Fusion style.
    static QPalette darkPalette();
    // The style's light palette (Fusion's when the style's own is dark).
    static QPalette lightPalette();
    static bool isDark(const QPalette& palette);

    // Whether the app's palette is ours rather than the platform's.
    bool overriding() const { return overriding_; }

  private:
    void follow(ColorScheme scheme);

    bool overriding_ = false;
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
// The tray icon's picture. Tray hosts that speak StatusNotifierItem recolour a symbolic icon
// they find by name to suit their panel, so the icon carries the name of the symbolic icon the
// package installs. The pixels, for XEmbed trays and for hosts that do not find the name, are
// our hand with an outline in the opposite colour, so the mark stands out on any panel; which
// way round (light hand or dark hand) follows the panel's theme.
#pragma once

#include <QIcon>
#include <QImage>
#include <QPalette>
#include <QString>

#include <optional>

namespace bonkwell::trayicon {

// The panel theme a picture is made for: `dark` is a light hand with a dark outline.
enum class Variant { light, dark };

// The symbolic icon's name in the icon theme (hicolor, installed by the package).
QString symbolicName();
QString describe(Variant variant);

// The variant for panels drawn in `palette`. `desktop` is XDG_CURRENT_DESKTOP: GNOME's top bar
// is dark in its light style too.
Variant variantFor(const QPalette& palette, const QString& desktop);

// The variant for a panel that looks like `behind`, a picture of the tray where the icon sits
// (its corners, which the mark leaves clear, show the panel); nullopt for an empty picture.
std::optional<Variant> variantForBackground(const QImage& behind);

// The hand in `size` × `size` pixels with its outline.
QImage drawMark(Variant variant, int size);
// The colours of the hand and of its outline.
QColor glyphColor(Variant variant);
QColor outlineColor(Variant variant);

// The tray icon: named symbolicName(), drawn by drawMark() at any size.
QIcon makeIcon(Variant variant);

}  // namespace bonkwell::trayicon

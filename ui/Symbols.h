// SPDX-License-Identifier: GPL-3.0-or-later
// Single-colour symbol images by their symbol name ("hand.raised.fill", "gearshape", …).
// A symbol comes from the desktop's icon theme when the theme has the matching symbolic
// icon, otherwise from the SVG bundled with the app; either way it is drawn in one colour.
#pragma once

#include <QColor>
#include <QIcon>
#include <QPixmap>
#include <QString>
#include <QStringList>

namespace bonkwell::symbols {

// Every symbol name the app draws.
QStringList knownSymbols();
// The freedesktop icon name tried first (empty when the theme has no fitting icon).
QString themeName(const QString& symbol);
// The bundled SVG (a Qt resource path), or empty for an unknown symbol.
QString bundledPath(const QString& symbol);

// The symbol drawn in `color` in a square of `size` device-independent pixels. Empty for an
// unknown symbol (and logged once).
QPixmap pixmap(const QString& symbol, const QColor& color, int size, qreal devicePixelRatio = 1.0);
// The same as an icon with the usual sizes (16 to 64), for buttons and tabs.
QIcon icon(const QString& symbol, const QColor& color);

// The app's own hand, always the bundled drawing (also used for the tray icon).
QPixmap handPixmap(const QColor& color, int size, qreal devicePixelRatio = 1.0);
QIcon handIcon(const QColor& color);

// The app's own icon (the one the package installs), for its windows.
QIcon appIcon();

}  // namespace bonkwell::symbols

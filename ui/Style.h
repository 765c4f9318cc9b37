// SPDX-License-Identifier: GPL-3.0-or-later
// The app's text styles and colours, derived from the desktop's font and palette so the
// windows follow the user's theme (light or dark, any base size).
#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>

class QWidget;
class QLabel;

namespace bonkwell::style {

// Named text styles, relative to the application font (the "body" size).
enum class TextStyle { body, headline, callout, caption, caption2, title, title2, title3 };
QFont font(TextStyle textStyle);
void setTextStyle(QWidget* widget, TextStyle textStyle);

// Palette-derived colours.
QColor accent(const QPalette& palette);
QColor primaryText(const QPalette& palette);
QColor controlBackground(const QPalette& palette);

// Fixed signal colours, readable on light and dark backgrounds.
QColor green();
QColor orange();
QColor red();
QColor grey();
// Red for text that warns of a destructive action, readable on the palette's window colour.
QColor destructiveText(const QPalette& palette);

// Draws the label's text in `color` (kept when the palette changes).
void setTextColor(QWidget* widget, const QColor& color);
// Dims the widget's text like secondary text, and keeps it so when the theme changes.
void setSecondary(QWidget* widget);

// Secondary text for the palette's window background: the window text blended towards the
// window colour only as far as a contrast of 4.5:1 holds (palette roles every style fills; a
// style's placeholder colour can be darker than a dark background).
QColor secondaryText(const QPalette& palette);
// The WCAG contrast ratio of two opaque colours (1 to 21).
double contrastRatio(const QColor& a, const QColor& b);
// The least contrast secondary text keeps with its background.
inline constexpr double kSecondaryContrast = 4.5;

}  // namespace bonkwell::style

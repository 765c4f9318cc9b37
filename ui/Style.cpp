// SPDX-License-Identifier: GPL-3.0-or-later
#include "Style.h"

#include <QApplication>
#include <QWidget>

namespace bonkwell::style {

QFont font(TextStyle textStyle) {
    QFont f = QApplication::font();
    const double base = f.pointSizeF() > 0 ? f.pointSizeF() : 10.0;
    auto sized = [&](double factor, QFont::Weight weight) {
        f.setPointSizeF(base * factor);
        f.setWeight(weight);
        return f;
    };
    switch (textStyle) {
        case TextStyle::body:
            return f;
        case TextStyle::headline:
            return sized(1.0, QFont::DemiBold);
        case TextStyle::callout:
            return sized(0.93, QFont::Normal);
        case TextStyle::caption:
            return sized(0.86, QFont::Normal);
        case TextStyle::caption2:
            return sized(0.8, QFont::Normal);
        case TextStyle::title:
            return sized(1.7, QFont::Normal);
        case TextStyle::title2:
            return sized(1.35, QFont::Normal);
        case TextStyle::title3:
            return sized(1.18, QFont::Normal);
    }
    return f;
}

void setTextStyle(QWidget* widget, TextStyle textStyle) {
    widget->setFont(font(textStyle));
}

QColor accent(const QPalette& palette) {
    return palette.color(QPalette::Highlight);
}

QColor primaryText(const QPalette& palette) {
    return palette.color(QPalette::WindowText);
}

QColor controlBackground(const QPalette& palette) {
    return palette.color(QPalette::Base);
}

QColor green() {
    return QColor(0x2e, 0xa0, 0x43);
}
QColor orange() {
    return QColor(0xe0, 0x7b, 0x00);
}
QColor red() {
    return QColor(0xe0, 0x1b, 0x24);
}
QColor grey() {
    return QColor(0x8e, 0x8e, 0x93);
}

QColor destructiveText(const QPalette& palette) {
    const bool darkTheme = palette.color(QPalette::Window).lightness() < 128;
    return darkTheme ? QColor(0xff, 0x7b, 0x72) : QColor(0xc0, 0x1c, 0x28);
}

void setTextColor(QWidget* widget, const QColor& color) {
    QPalette p = widget->palette();
    p.setColor(QPalette::WindowText, color);
    p.setColor(QPalette::Text, color);
    p.setColor(QPalette::ButtonText, color);
    widget->setPalette(p);
}

void setSecondary(QWidget* widget) {
    // A role rather than a fixed colour, so the text follows a change of theme.
    widget->setForegroundRole(QPalette::PlaceholderText);
}

}  // namespace bonkwell::style

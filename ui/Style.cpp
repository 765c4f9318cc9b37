// SPDX-License-Identifier: GPL-3.0-or-later
#include "Style.h"

#include <QApplication>
#include <QEvent>
#include <QWidget>

#include <algorithm>
#include <cmath>

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

namespace {

double relativeLuminance(const QColor& c) {
    auto channel = [](double v) {
        return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    };
    const QColor rgb = c.toRgb();
    return 0.2126 * channel(rgb.redF()) + 0.7152 * channel(rgb.greenF()) +
           0.0722 * channel(rgb.blueF());
}

QColor mix(const QColor& from, const QColor& to, double t) {
    const QColor a = from.toRgb();
    const QColor b = to.toRgb();
    return QColor::fromRgbF(static_cast<float>(a.redF() + (b.redF() - a.redF()) * t),
                            static_cast<float>(a.greenF() + (b.greenF() - a.greenF()) * t),
                            static_cast<float>(a.blueF() + (b.blueF() - a.blueF()) * t));
}

// Gives a widget the secondary text colour of its parent's palette, again whenever that
// palette changes (a new theme, or the widget moving to another window).
class SecondaryText final : public QObject {
  public:
    explicit SecondaryText(QWidget* widget) : QObject(widget), widget_(widget) { apply(); }

    bool eventFilter(QObject* watched, QEvent* event) override {
        if (watched == widget_ &&
            (event->type() == QEvent::PaletteChange || event->type() == QEvent::ParentChange)) {
            apply();
        }
        return false;
    }

  private:
    void apply() {
        const QWidget* parent = widget_->parentWidget();
        const QPalette source = parent != nullptr ? parent->palette() : QApplication::palette();
        const QColor color = secondaryText(source);
        QPalette p = widget_->palette();
        if (p.color(QPalette::WindowText) == color && p.color(QPalette::Text) == color &&
            p.isBrushSet(QPalette::Active, QPalette::WindowText)) {
            return;
        }
        for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
            p.setColor(role, color);
        }
        widget_->setPalette(p);
    }

    QWidget* widget_;
};

}  // namespace

double contrastRatio(const QColor& a, const QColor& b) {
    const double la = relativeLuminance(a);
    const double lb = relativeLuminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

QColor secondaryText(const QPalette& palette) {
    const QColor text = palette.color(QPalette::WindowText);
    const QColor window = palette.color(QPalette::Window);
    // Dimmed at most 40 % of the way to the background, and never below 4.5:1.
    constexpr double kMostDimming = 0.4;
    // Some margin: anti-aliased glyphs never reach the full colour, and a screenshot of small
    // text measures less than the colour itself.
    constexpr double kMargin = 0.3;
    if (contrastRatio(text, window) < kSecondaryContrast + kMargin) {
        return text;
    }
    double lo = 0.0;
    double hi = kMostDimming;
    for (int i = 0; i < 16; ++i) {
        const double t = (lo + hi) / 2;
        if (contrastRatio(mix(text, window, t), window) >= kSecondaryContrast + kMargin) {
            lo = t;
        } else {
            hi = t;
        }
    }
    return mix(text, window, lo);
}

void setSecondary(QWidget* widget) {
    if (widget->findChild<SecondaryText*>(QString(), Qt::FindDirectChildrenOnly) != nullptr) {
        return;
    }
    widget->installEventFilter(new SecondaryText(widget));
}

}  // namespace bonkwell::style

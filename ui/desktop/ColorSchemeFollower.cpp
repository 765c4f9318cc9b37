// SPDX-License-Identifier: GPL-3.0-or-later
#include "ColorSchemeFollower.h"

#include "Log.h"
#include "TestEvents.h"

#include <QApplication>
#include <QStyle>
#include <QStyleFactory>

#include <memory>

namespace bonkwell {

ColorSchemeFollower::ColorSchemeFollower(ColorSchemeSource& source, QObject* parent)
    : QObject(parent) {
    connect(&source, &ColorSchemeSource::changed, this,
            [this](ColorScheme scheme) { follow(scheme); });
    follow(source.current());
}

bool ColorSchemeFollower::isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightness() <
           palette.color(QPalette::WindowText).lightness();
}

std::optional<QPalette> ColorSchemeFollower::paletteFor(ColorScheme scheme,
                                                        const QPalette& platform) {
    switch (scheme) {
        case ColorScheme::preferDark:
            if (!isDark(platform)) {
                return darkPalette();
            }
            break;
        case ColorScheme::preferLight:
            if (isDark(platform)) {
                return lightPalette();
            }
            break;
        case ColorScheme::noPreference:
            break;
    }
    return std::nullopt;
}

QPalette ColorSchemeFollower::darkPalette() {
    // The colours of GNOME's dark style, so the app sits well among its neighbours there.
    const QColor window(0x35, 0x35, 0x35);
    const QColor text(0xee, 0xee, 0xec);
    const QColor base(0x2d, 0x2d, 0x2d);
    const QColor button(0x40, 0x40, 0x40);
    const QColor highlight(0x35, 0x84, 0xe4);
    const QColor dimmed(0x91, 0x91, 0x90);  // disabled text: 3.3:1 on the window
    QPalette p(button, window);
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        p.setColor(group, QPalette::Window, window);
        p.setColor(group, QPalette::WindowText, text);
        p.setColor(group, QPalette::Base, base);
        p.setColor(group, QPalette::AlternateBase, QColor(0x38, 0x38, 0x38));
        p.setColor(group, QPalette::ToolTipBase, QColor(0x1e, 0x1e, 0x1e));
        p.setColor(group, QPalette::ToolTipText, text);
        p.setColor(group, QPalette::PlaceholderText, QColor(0xa8, 0xa8, 0xa6));
        p.setColor(group, QPalette::Text, text);
        p.setColor(group, QPalette::Button, button);
        p.setColor(group, QPalette::ButtonText, text);
        p.setColor(group, QPalette::BrightText, QColor(0xff, 0x7b, 0x72));
        p.setColor(group, QPalette::Light, QColor(0x5a, 0x5a, 0x5a));
        p.setColor(group, QPalette::Midlight, QColor(0x4a, 0x4a, 0x4a));
        p.setColor(group, QPalette::Mid, QColor(0x2a, 0x2a, 0x2a));
        p.setColor(group, QPalette::Dark, QColor(0x1f, 0x1f, 0x1f));
        p.setColor(group, QPalette::Shadow, QColor(0x0b, 0x0b, 0x0b));
        p.setColor(group, QPalette::Highlight, highlight);
        p.setColor(group, QPalette::HighlightedText, QColor(0xff, 0xff, 0xff));
        p.setColor(group, QPalette::Link, QColor(0x78, 0xae, 0xed));
        p.setColor(group, QPalette::LinkVisited, QColor(0xc0, 0x97, 0xe6));
        p.setColor(group, QPalette::NoRole, window);
    }
    for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText,
                      QPalette::PlaceholderText, QPalette::ToolTipText}) {
        p.setColor(QPalette::Disabled, role, dimmed);
    }
    p.setColor(QPalette::Disabled, QPalette::Button, QColor(0x3a, 0x3a, 0x3a));
    p.setColor(QPalette::Disabled, QPalette::Highlight, QColor(0x50, 0x50, 0x50));
    p.setColor(QPalette::Disabled, QPalette::HighlightedText, dimmed);
    p.setColor(QPalette::Inactive, QPalette::Highlight, QColor(0x2a, 0x5f, 0xa0));
    return p;
}

QPalette ColorSchemeFollower::lightPalette() {
    QPalette p = QApplication::style()->standardPalette();
    if (isDark(p)) {
        const std::unique_ptr<QStyle> fusion(QStyleFactory::create(QStringLiteral("Fusion")));
        if (fusion) {
            p = fusion->standardPalette();
        }
    }
    return p;
}

void ColorSchemeFollower::follow(ColorScheme scheme) {
    // What the app shows: the platform's palette, or ours, dark or light.
    enum class Shown { platform, dark, light };
    auto ours = [](const QPalette& p) { return isDark(p) ? Shown::dark : Shown::light; };
    const Shown before = overriding_ ? ours(QApplication::palette()) : Shown::platform;
    // The platform's own palette: what the app has whenever it sets none.
    if (overriding_) {
        QApplication::setPalette(QPalette());
        overriding_ = false;
    }
    const auto palette = paletteFor(scheme, QApplication::palette());
    if (palette) {
        QApplication::setPalette(*palette);
        overriding_ = true;
    }
    const Shown after = palette ? ours(*palette) : Shown::platform;
    if (before == after) {
        return;
    }
    QString what = QStringLiteral("platform");
    if (after == Shown::dark) {
        what = QStringLiteral("dark");
    } else if (after == Shown::light) {
        what = QStringLiteral("light");
    }
    logLine(QStringLiteral("Bonkwell: the desktop says %1; using the %2 palette")
                .arg(describe(scheme), what));
    testEvent(QStringLiteral("palette %1").arg(what));
}

}  // namespace bonkwell

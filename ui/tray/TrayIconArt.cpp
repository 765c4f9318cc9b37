// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrayIconArt.h"

#include "Symbols.h"

#include <QIconEngine>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace bonkwell::trayicon {
namespace {

// Draws the mark at whatever size is asked and names the symbolic icon, which is what a
// StatusNotifierItem host looks up.
class MarkEngine final : public QIconEngine {
  public:
    explicit MarkEngine(Variant variant) : variant_(variant) {}

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode, QIcon::State) override {
        const int side = std::min(rect.width(), rect.height());
        if (side <= 0) {
            return;
        }
        const QImage image = drawMark(variant_, side);
        painter->drawImage(QRect(rect.topLeft(), QSize(side, side)), image);
    }

    QPixmap pixmap(const QSize& size, QIcon::Mode, QIcon::State) override {
        const int side = std::max(1, std::min(size.width(), size.height()));
        return QPixmap::fromImage(drawMark(variant_, side));
    }

    QList<QSize> availableSizes(QIcon::Mode, QIcon::State) override {
        return {QSize(16, 16), QSize(22, 22), QSize(24, 24),
                QSize(32, 32), QSize(48, 48), QSize(64, 64)};
    }

    QString iconName() override { return symbolicName(); }
    QString key() const override { return QStringLiteral("bonkwell-tray-mark"); }
    QIconEngine* clone() const override { return new MarkEngine(variant_); }

  private:
    Variant variant_;
};

}  // namespace

QString symbolicName() {
    return QStringLiteral("com.bonkwell.Bonkwell-symbolic");
}

QString describe(Variant variant) {
    return variant == Variant::dark ? QStringLiteral("dark") : QStringLiteral("light");
}

Variant variantFor(const QPalette& palette, const QString& desktop) {
    if (desktop.split(QLatin1Char(':')).contains(QLatin1String("GNOME"), Qt::CaseInsensitive)) {
        return Variant::dark;
    }
    const QColor window = palette.color(QPalette::Window);
    const QColor text = palette.color(QPalette::WindowText);
    return window.lightnessF() < text.lightnessF() ? Variant::dark : Variant::light;
}

std::optional<Variant> variantForBackground(const QImage& behind) {
    if (behind.width() < 3 || behind.height() < 3) {
        return std::nullopt;
    }
    const int right = behind.width() - 2;
    const int bottom = behind.height() - 2;
    double lightness = 0;
    for (const QPoint& p :
         {QPoint(1, 1), QPoint(right, 1), QPoint(1, bottom), QPoint(right, bottom)}) {
        lightness += behind.pixelColor(p).lightnessF();
    }
    return lightness / 4 < 0.5 ? Variant::dark : Variant::light;
}

QColor glyphColor(Variant variant) {
    return variant == Variant::dark ? QColor(0xf6, 0xf5, 0xf4) : QColor(0x24, 0x1f, 0x31);
}

QColor outlineColor(Variant variant) {
    return variant == Variant::dark ? QColor(0x16, 0x16, 0x18) : QColor(0xff, 0xff, 0xff);
}

QImage drawMark(Variant variant, int size) {
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    // The outline: the hand in the outline colour, spread by a small radius all round.
    // The hand is drawn a little smaller than the icon, so the outline stays inside it.
    const double radius = std::max(1.0, size / 12.0);
    const int inset = static_cast<int>(std::ceil(radius / 2));
    const int inner = std::max(1, size - 2 * inset);
    const QImage outline = symbols::handPixmap(outlineColor(variant), inner).toImage();
    const QImage glyph = symbols::handPixmap(glyphColor(variant), inner).toImage();
    QPainter painter(&image);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    constexpr int kSteps = 16;
    for (int i = 0; i < kSteps; ++i) {
        const double angle = 2.0 * M_PI * i / kSteps;
        painter.drawImage(
            QPointF(inset + radius * std::cos(angle), inset + radius * std::sin(angle)), outline);
    }
    painter.drawImage(QPointF(inset, inset), glyph);
    painter.end();
    return image;
}

QIcon makeIcon(Variant variant) {
    return QIcon(new MarkEngine(variant));
}

}  // namespace bonkwell::trayicon

// SPDX-License-Identifier: GPL-3.0-or-later
#include "Symbols.h"

#include "Log.h"

#include <QFile>
#include <QHash>
#include <QImage>
#include <QPainter>
#include <QSet>
#include <QSvgRenderer>

#include <cmath>

static void initIconResources() {
    Q_INIT_RESOURCE(icons);
}

namespace bonkwell::symbols {
namespace {

struct Entry {
    const char* symbol;
    const char* theme;  // symbolic freedesktop name, "" for our own drawing only
    const char* file;   // bundled SVG under :/bonkwell/icons/
};

constexpr Entry kEntries[] = {
    {"hand.raised.fill", "", "hand.svg"},
    {"checkmark.circle.fill", "emblem-ok-symbolic", "checkmark-circle-fill.svg"},
    {"exclamationmark.triangle.fill", "dialog-warning-symbolic",
     "exclamationmark-triangle-fill.svg"},
    {"xmark.octagon.fill", "process-stop-symbolic", "xmark-octagon-fill.svg"},
    {"xmark.circle.fill", "dialog-error-symbolic", "xmark-circle-fill.svg"},
    {"play.fill", "media-playback-start-symbolic", "play-fill.svg"},
    {"bolt.fill", "", "bolt-fill.svg"},
    {"gearshape", "emblem-system-symbolic", "gearshape.svg"},
    {"speaker.wave.2.fill", "audio-volume-high-symbolic", "speaker-wave-2-fill.svg"},
    {"dial.high", "", "dial-high.svg"},
    {"waveform", "", "waveform.svg"},
    {"info.circle", "help-about-symbolic", "info-circle.svg"},
};

const Entry* find(const QString& symbol) {
    for (const Entry& e : kEntries) {
        if (symbol == QLatin1String(e.symbol)) {
            return &e;
        }
    }
    return nullptr;
}

void ensureResources() {
    static const bool done = [] {
        initIconResources();
        return true;
    }();
    (void)done;
}

// Paints every opaque pixel of `image` in `color`, keeping its alpha.
void tint(QImage& image, const QColor& color) {
    QPainter p(&image);
    p.setCompositionMode(QPainter::CompositionMode_SourceIn);
    p.fillRect(image.rect(), color);
}

QImage renderBundled(const QString& path, int pixels) {
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QSvgRenderer renderer(path);
    if (!renderer.isValid()) {
        return {};
    }
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    renderer.render(&p, QRectF(0, 0, pixels, pixels));
    return image;
}

QPixmap finish(QImage image, const QColor& color, qreal dpr) {
    if (image.isNull()) {
        return {};
    }
    tint(image, color);
    QPixmap pm = QPixmap::fromImage(std::move(image));
    pm.setDevicePixelRatio(dpr);
    return pm;
}

void logUnknownOnce(const QString& symbol) {
    static QSet<QString> logged;
    if (!logged.contains(symbol)) {
        logged.insert(symbol);
        logLine(QStringLiteral("Bonkwell: no image for symbol %1").arg(symbol));
    }
}

}  // namespace

QStringList knownSymbols() {
    QStringList names;
    for (const Entry& e : kEntries) {
        names.append(QLatin1String(e.symbol));
    }
    return names;
}

QString themeName(const QString& symbol) {
    const Entry* e = find(symbol);
    return e != nullptr ? QLatin1String(e->theme) : QString();
}

QString bundledPath(const QString& symbol) {
    const Entry* e = find(symbol);
    return e != nullptr ? QStringLiteral(":/bonkwell/icons/") + QLatin1String(e->file) : QString();
}

QPixmap pixmap(const QString& symbol, const QColor& color, int size, qreal devicePixelRatio) {
    ensureResources();
    const Entry* e = find(symbol);
    if (e == nullptr || size <= 0) {
        logUnknownOnce(symbol);
        return {};
    }
    const int pixels = static_cast<int>(std::ceil(size * devicePixelRatio));
    const QString theme = QLatin1String(e->theme);
    if (!theme.isEmpty() && QIcon::hasThemeIcon(theme)) {
        QImage image = QIcon::fromTheme(theme).pixmap(QSize(pixels, pixels)).toImage();
        if (!image.isNull()) {
            image = image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
            return finish(std::move(image), color, devicePixelRatio);
        }
    }
    return finish(renderBundled(bundledPath(symbol), pixels), color, devicePixelRatio);
}

QIcon icon(const QString& symbol, const QColor& color) {
    QIcon result;
    for (int size : {16, 22, 24, 32, 48, 64}) {
        const QPixmap pm = pixmap(symbol, color, size);
        if (!pm.isNull()) {
            result.addPixmap(pm);
        }
    }
    return result;
}

QPixmap handPixmap(const QColor& color, int size, qreal devicePixelRatio) {
    ensureResources();
    const int pixels = static_cast<int>(std::ceil(size * devicePixelRatio));
    return finish(renderBundled(bundledPath(QStringLiteral("hand.raised.fill")), pixels), color,
                  devicePixelRatio);
}

QIcon handIcon(const QColor& color) {
    QIcon result;
    for (int size : {16, 18, 22, 24, 32, 48, 64}) {
        result.addPixmap(handPixmap(color, size));
    }
    return result;
}

QIcon appIcon() {
    ensureResources();
    return QIcon(QStringLiteral(":/bonkwell/icons/com.bonkwell.Bonkwell.svg"));
}

}  // namespace bonkwell::symbols

// SPDX-License-Identifier: GPL-3.0-or-later
#include "Symbols.h"
#include "UiTestSupport.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QSvgRenderer>
#include <QTemporaryDir>

namespace bonkwell {
namespace {

// Counts the pixels with some opacity; fails when one of them is not `color`.
int opaquePixelsAllIn(const QImage& image, const QColor& color) {
    int opaque = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.alpha() > 0) {
                ++opaque;
            }
            // Edge pixels lose precision through premultiplied alpha; solid ones must match.
            if (c.alpha() == 255) {
                EXPECT_EQ(c.rgb(), color.rgb()) << "pixel " << x << "," << y;
            }
        }
    }
    return opaque;
}

TEST(SymbolsTest, EverySymbolHasABundledDrawing) {
    const QStringList names = symbols::knownSymbols();
    for (const char* expected :
         {"hand.raised.fill", "checkmark.circle.fill", "exclamationmark.triangle.fill",
          "xmark.octagon.fill", "xmark.circle.fill", "play.fill", "bolt.fill", "gearshape",
          "speaker.wave.2.fill", "dial.high", "waveform", "info.circle"}) {
        EXPECT_TRUE(names.contains(QLatin1String(expected))) << expected;
    }
    for (const QString& name : names) {
        (void)symbols::pixmap(name, Qt::black, 8);  // loads the resources
        QSvgRenderer renderer(symbols::bundledPath(name));
        EXPECT_TRUE(renderer.isValid()) << name.toStdString();
    }
}

TEST(SymbolsTest, DrawingsAreSingleColourInTheRequestedColour) {
    const QColor orange(0xe0, 0x7b, 0x00);
    for (const QString& name : symbols::knownSymbols()) {
        const QPixmap pm = symbols::pixmap(name, orange, 24);
        ASSERT_FALSE(pm.isNull()) << name.toStdString();
        ASSERT_EQ(pm.size(), QSize(24, 24));
        const QImage image = pm.toImage().convertToFormat(QImage::Format_ARGB32);
        const int opaque = opaquePixelsAllIn(image, orange);
        // A real shape: neither empty nor a filled square.
        EXPECT_GT(opaque, 24 * 24 / 10) << name.toStdString();
        EXPECT_LT(opaque, 24 * 24) << name.toStdString();
    }
}

TEST(SymbolsTest, HiDpiPixmapsHaveTheirPixelRatio) {
    const QPixmap pm = symbols::pixmap(QStringLiteral("play.fill"), Qt::red, 16, 2.0);
    EXPECT_EQ(pm.size(), QSize(32, 32));
    EXPECT_DOUBLE_EQ(pm.devicePixelRatio(), 2.0);
}

TEST(SymbolsTest, TheHandIsOurOwnDrawingInAnyColour) {
    const QImage white =
        symbols::handPixmap(Qt::white, 18).toImage().convertToFormat(QImage::Format_ARGB32);
    EXPECT_GT(opaquePixelsAllIn(white, Qt::white), 18 * 18 / 4);
    const QIcon icon = symbols::handIcon(QColor(0x20, 0x20, 0x20));
    EXPECT_FALSE(icon.isNull());
    EXPECT_TRUE(icon.availableSizes().contains(QSize(18, 18)));
    EXPECT_TRUE(icon.availableSizes().contains(QSize(22, 22)));
}

TEST(SymbolsTest, AnUnknownSymbolGivesNoImageAndOneLogLine) {
    test::LogCapture log;
    EXPECT_TRUE(symbols::pixmap(QStringLiteral("no.such.symbol"), Qt::red, 16).isNull());
    EXPECT_TRUE(symbols::icon(QStringLiteral("no.such.symbol"), Qt::red).isNull());
    EXPECT_EQ(log.lines(),
              QStringList{QStringLiteral("Bonkwell: no image for symbol no.such.symbol")});
}

TEST(SymbolsTest, TheDesktopThemeIconIsPreferredAndTinted) {
    // A theme whose "emblem-ok-symbolic" is a full square, unlike our round drawing.
    QTemporaryDir dir;
    const QString theme = dir.path() + QStringLiteral("/testtheme");
    ASSERT_TRUE(QDir().mkpath(theme + QStringLiteral("/scalable")));
    QFile index(theme + QStringLiteral("/index.theme"));
    ASSERT_TRUE(index.open(QIODevice::WriteOnly));
    index.write(
        "[Icon Theme]\nName=testtheme\nDirectories=scalable\n\n"
        "[scalable]\nSize=16\nType=Scalable\nMinSize=8\nMaxSize=512\n");
    index.close();
    QFile svg(theme + QStringLiteral("/scalable/emblem-ok-symbolic.svg"));
    ASSERT_TRUE(svg.open(QIODevice::WriteOnly));
    svg.write(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"16\" height=\"16\">"
        "<rect width=\"16\" height=\"16\" fill=\"#2e3436\"/></svg>");
    svg.close();

    const QStringList oldPaths = QIcon::themeSearchPaths();
    const QString oldTheme = QIcon::themeName();
    QIcon::setThemeSearchPaths({dir.path()});
    QIcon::setThemeName(QStringLiteral("testtheme"));
    EXPECT_EQ(symbols::themeName(QStringLiteral("checkmark.circle.fill")),
              QStringLiteral("emblem-ok-symbolic"));
    const QImage fromTheme = symbols::pixmap(QStringLiteral("checkmark.circle.fill"), Qt::green, 16)
                                 .toImage()
                                 .convertToFormat(QImage::Format_ARGB32);
    EXPECT_EQ(opaquePixelsAllIn(fromTheme, Qt::green), 16 * 16);  // the theme's square, tinted
    // A symbol the theme lacks still comes from our drawings.
    const QImage bundled = symbols::pixmap(QStringLiteral("xmark.circle.fill"), Qt::green, 16)
                               .toImage()
                               .convertToFormat(QImage::Format_ARGB32);
    EXPECT_LT(opaquePixelsAllIn(bundled, Qt::green), 16 * 16);
    QIcon::setThemeSearchPaths(oldPaths);
    QIcon::setThemeName(oldTheme);
}

}  // namespace
}  // namespace bonkwell

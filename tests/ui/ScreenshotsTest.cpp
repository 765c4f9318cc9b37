// SPDX-License-Identifier: GPL-3.0-or-later
// Renders the panel, every Settings tab and the Calibration window to PNG files in the build
// folder (screenshots/), for people to look at. Each picture is also checked to be a
// rendering of the right size with more than a blank background in it.
#include "CalibrationView.h"
#include "PopoverView.h"
#include "SettingsWindow.h"
#include "Symbols.h"
#include "UiTestSupport.h"

#include <QApplication>
#include <QDir>
#include <QImage>
#include <QLayout>
#include <QPainter>
#include <QPixmap>
#include <QSet>
#include <QTabBar>
#include <QTabWidget>
#include <QTest>

#include <cmath>

namespace bonkwell {
namespace {

using test::ViewFixture;

QString outputDir() {
    const QString dir = QStringLiteral(BONKWELL_SCREENSHOT_DIR);
    QDir().mkpath(dir);
    return dir;
}

// Distinct colours in the picture: a blank or text-less rendering has very few.
int colourCount(const QImage& image) {
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2) {
        for (int x = 0; x < image.width(); x += 2) {
            colours.insert(image.pixel(x, y));
        }
    }
    return static_cast<int>(colours.size());
}

void save(QWidget* widget, const QString& name, QSize expected) {
    const QPixmap shot = widget->grab();
    ASSERT_EQ(shot.size() / shot.devicePixelRatio(), expected) << name.toStdString();
    EXPECT_GT(colourCount(shot.toImage()), 40) << name.toStdString();
    const QString path = outputDir() + QLatin1Char('/') + name + QStringLiteral(".png");
    EXPECT_TRUE(shot.save(path)) << path.toStdString();
}

std::vector<double> wave() {
    std::vector<double> series;
    for (int i = 0; i < 300; ++i) {
        double v = 0.012 + 0.006 * std::sin(i * 0.7) + 0.004 * std::sin(i * 2.3);
        if (i > 200 && i < 212) {
            v += 0.32 * std::exp(-(i - 203) * 0.45) * (i >= 203 ? 1.0 : 0.3);
        }
        series.push_back(std::abs(v));
    }
    return series;
}

TEST(ScreenshotsTest, Panel) {
    ViewFixture f;
    f.state->todayCount.set(12);
    f.state->totalCount.set(348);
    f.state->sensitivity.set(0.18);
    f.state->volume.set(0.85);
    f.state->engineStatus.set(QStringLiteral("Helper not installed — Settings → General"));
    PopoverView panel(*f.state, f.detector, f.audio, f.packs, f.engine, {}, {}, {});
    panel.resize(PopoverView::kWidth, panel.sizeHint().height());
    panel.show();
    save(&panel, QStringLiteral("panel"), panel.size());

    f.engine.state = InstallState::installed;
    f.state->engineStatus.set(QStringLiteral("Engine running"));
    panel.refresh();
    save(&panel, QStringLiteral("panel-engine-running"), panel.size());
}

TEST(ScreenshotsTest, SettingsTabs) {
    ViewFixture f;
    f.state->liveMagnitude.set(0.0153);
    f.state->liveSeries.set(wave());
    f.state->engineStatus.set(
        QStringLiteral("Helper not installed — open Settings → General → "
                       "Install detection engine"));
    SettingsWindowController settings(*f.state, f.detector, f.audio, f.packs, f.engine, {},
                                      f.desktop);
    settings.show();
    const char* names[] = {"settings-general", "settings-sounds", "settings-sensitivity",
                           "settings-diagnostics", "settings-about"};
    for (int i = 0; i < 5; ++i) {
        settings.rootView()->tabs()->setCurrentIndex(i);
        save(settings.window(), QLatin1String(names[i]), QSize(520, 420));
    }
}

TEST(ScreenshotsTest, CalibrationWindow) {
    ViewFixture f;
    f.state->sensitivity.set(0.15);
    f.state->liveSeries.set(wave());
    f.state->liveMagnitude.set(0.0142);
    CalibrationWindowController calibration(*f.state, f.detector, f.clock);
    calibration.show();
    save(calibration.window(), QStringLiteral("calibration"), QSize(520, 360));

    f.state->liveMagnitude.set(0.3391);
    calibration.view()->tick();
    ASSERT_TRUE(calibration.view()->flash());
    QTest::qWait(250);  // let the status line fade in
    save(calibration.window(), QStringLiteral("calibration-flash"), QSize(520, 360));
}

// Desktops often use an 11 pt interface font: the fixed-size Settings window must still fit.
TEST(ScreenshotsTest, LargerFont) {
    const QFont normal = QApplication::font();
    QApplication::setFont(QFont(QStringLiteral("DejaVu Sans"), 11));
    {
        ViewFixture f;
        SettingsWindowController settings(*f.state, f.detector, f.audio, f.packs, f.engine, {},
                                          f.desktop);
        settings.show();
        // Every tab has the room its rows need at their width, and every tab title shows.
        QTabWidget* tabs = settings.rootView()->tabs();
        for (int i = 0; i < tabs->count(); ++i) {
            tabs->setCurrentIndex(i);
            QWidget* page = tabs->currentWidget();
            QLayout* layout = page->layout();
            ASSERT_NE(layout, nullptr);
            const int needed = layout->hasHeightForWidth()
                                   ? layout->totalHeightForWidth(page->width())
                                   : layout->totalMinimumSize().height();
            EXPECT_LE(needed, page->height()) << tabs->tabText(i).toStdString();
            EXPECT_TRUE(tabs->tabBar()->rect().contains(tabs->tabBar()->tabRect(i)));
        }
        tabs->setCurrentIndex(0);
        save(settings.window(), QStringLiteral("settings-general-11pt"), QSize(520, 420));
        PopoverView panel(*f.state, f.detector, f.audio, f.packs, f.engine, {}, {}, {});
        panel.resize(PopoverView::kWidth, panel.sizeHint().height());
        panel.show();
        save(&panel, QStringLiteral("panel-11pt"), panel.size());
    }
    QApplication::setFont(normal);
}

// Every symbol at the sizes the app uses, and the hand as the tray draws it on a light and a
// dark panel.
TEST(ScreenshotsTest, Symbols) {
    const QStringList names = symbols::knownSymbols();
    const int sizes[] = {16, 24, 48};
    QImage sheet(40 + 64 * 3, 8 + 56 * static_cast<int>(names.size()) + 60, QImage::Format_ARGB32);
    sheet.fill(Qt::white);
    QPainter p(&sheet);
    int y = 8;
    for (const QString& name : names) {
        int x = 8;
        for (int size : sizes) {
            p.drawPixmap(x, y, symbols::pixmap(name, QColor(0x20, 0x20, 0x20), size));
            x += 64;
        }
        y += 56;
    }
    p.fillRect(0, y, sheet.width(), 60, QColor(0x30, 0x30, 0x30));
    p.drawPixmap(8, y + 8, symbols::handPixmap(Qt::white, 18));
    p.drawPixmap(40, y + 8, symbols::handPixmap(Qt::white, 22));
    p.drawPixmap(80, y + 8, symbols::handPixmap(Qt::white, 44));
    p.end();
    const QString path = outputDir() + QStringLiteral("/symbols.png");
    EXPECT_TRUE(sheet.save(path));
    EXPECT_GT(colourCount(sheet), 10);
}

// The same views on a dark theme: nothing may be drawn in fixed light colours.
TEST(ScreenshotsTest, DarkTheme) {
    const QPalette light = QApplication::palette();
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(0x2b, 0x2b, 0x2b));
    dark.setColor(QPalette::WindowText, QColor(0xee, 0xee, 0xee));
    dark.setColor(QPalette::Base, QColor(0x1e, 0x1e, 0x1e));
    dark.setColor(QPalette::AlternateBase, QColor(0x33, 0x33, 0x33));
    dark.setColor(QPalette::Text, QColor(0xee, 0xee, 0xee));
    dark.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3a));
    dark.setColor(QPalette::ButtonText, QColor(0xee, 0xee, 0xee));
    dark.setColor(QPalette::Mid, QColor(0x55, 0x55, 0x55));
    dark.setColor(QPalette::PlaceholderText, QColor(0xee, 0xee, 0xee, 0x90));
    dark.setColor(QPalette::Highlight, QColor(0x35, 0x84, 0xe4));
    dark.setColor(QPalette::HighlightedText, Qt::white);
    QApplication::setPalette(dark);
    {
        ViewFixture f;
        f.state->todayCount.set(3);
        f.state->totalCount.set(41);
        f.engine.state = InstallState::installed;
        f.state->engineStatus.set(QStringLiteral("Engine running"));
        PopoverView panel(*f.state, f.detector, f.audio, f.packs, f.engine, {}, {}, {});
        panel.resize(PopoverView::kWidth, panel.sizeHint().height());
        panel.show();
        save(&panel, QStringLiteral("panel-dark"), panel.size());

        f.state->liveSeries.set(wave());
        SettingsWindowController settings(*f.state, f.detector, f.audio, f.packs, f.engine, {},
                                          f.desktop);
        settings.show();
        save(settings.window(), QStringLiteral("settings-general-dark"), QSize(520, 420));
        settings.rootView()->tabs()->setCurrentIndex(SettingsRootView::diagnostics);
        save(settings.window(), QStringLiteral("settings-diagnostics-dark"), QSize(520, 420));
    }
    QApplication::setPalette(light);
}

}  // namespace
}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
// The panel's window: how it closes and why, its fixed size, where it opens, and the tray
// icon's picture for light and dark panels.
#include "MenuBarController.h"
#include "PanelHost.h"
#include "PopoverView.h"
#include "TrayIconArt.h"
#include "UiTestSupport.h"

#include <QApplication>
#include <QLabel>
#include <QPainter>
#include <QScreen>
#include <QTest>
#include <QVBoxLayout>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

// The app reads BONKWELL_TEST_EVENTS once, possibly while a fixture is built: set it first.
const bool kEventsOn = ::setenv("BONKWELL_TEST_EVENTS", "1", 1) == 0;

// Everything the app wrote to stderr while `what` ran.
template <typename F>
std::string stderrOf(F what) {
    testing::internal::CaptureStderr();
    what();
    return testing::internal::GetCapturedStderr();
}

bool has(const std::string& text, const char* line) {
    return text.find(std::string("bonkwell-event: ") + line + "\n") != std::string::npos;
}

QWidget* makeContent() {
    auto* content = new QWidget;
    auto* layout = new QVBoxLayout(content);
    for (int i = 0; i < 4; ++i) {
        layout->addWidget(new QLabel(QStringLiteral("Row %1").arg(i), content));
    }
    return content;
}

class PanelHostTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(kEventsOn); }
    void TearDown() override {
        QApplication::closeAllWindows();
        drainMainQueue();
    }
};

}  // namespace

TEST_F(PanelHostTest, OffscreenItIsThePopup) {
    EXPECT_EQ(PanelHost::styleForPlatform(), PanelHost::Style::popup);
    PanelHost host(PanelHost::Style::popup);
    EXPECT_EQ(host.window()->windowType(), Qt::Popup);
}

TEST_F(PanelHostTest, TheWindowStyleFloatsAtAFixedSizeThatFitsItsRows) {
    PanelHost host(PanelHost::Style::window);
    QWidget* content = makeContent();
    host.setContent(content);
    host.show(QPoint(10, 10));
    QWidget* window = host.window();
    EXPECT_EQ(window->windowType(), Qt::Dialog);
    EXPECT_TRUE(window->windowFlags().testFlag(Qt::FramelessWindowHint));
    // Minimum = maximum: a tiling compositor floats it, and nothing stretches its rows.
    EXPECT_EQ(window->minimumSize(), window->maximumSize());
    EXPECT_EQ(window->size(), content->sizeHint());
    window->resize(window->width() * 2, window->height() * 3);
    EXPECT_EQ(window->size(), content->sizeHint());
}

TEST_F(PanelHostTest, EscapeClosesItInEitherStyle) {
    for (auto style : {PanelHost::Style::popup, PanelHost::Style::window}) {
        PanelHost host(style);
        host.setContent(makeContent());
        host.show(QPoint(0, 0));
        ASSERT_TRUE(host.isShown());
        const std::string out = stderrOf([&] { QTest::keyClick(host.window(), Qt::Key_Escape); });
        EXPECT_FALSE(host.isShown());
        EXPECT_TRUE(has(out, "panel hidden"));
        EXPECT_TRUE(has(out, "panel hidden by escape")) << out;
    }
}

TEST_F(PanelHostTest, TheWindowStyleClosesWhenAnotherWindowTakesTheFocus) {
    PanelHost host(PanelHost::Style::window);
    host.setContent(makeContent());
    const std::string shown = stderrOf([&] {
        host.show(QPoint(0, 0));
        (void)QTest::qWaitFor([&] { return host.window()->isActiveWindow(); }, 2000);
    });
    ASSERT_TRUE(host.window()->isActiveWindow());
    EXPECT_TRUE(has(shown, "panel active")) << shown;
    QWidget other;
    const std::string out = stderrOf([&] {
        other.show();
        other.activateWindow();
        (void)QTest::qWaitFor([&] { return !host.isShown(); }, 2000);
        QTest::qWait(600);  // the reason is told once the click cannot be an icon click
    });
    EXPECT_FALSE(host.isShown());
    EXPECT_TRUE(has(out, "panel hidden by focus-lost")) << out;
}

TEST_F(PanelHostTest, ThePopupClosedByTheClickOnTheIconSaysSo) {
    PanelHost host(PanelHost::Style::popup);
    host.setContent(makeContent());
    host.show(QPoint(0, 0));
    const std::string out = stderrOf([&] {
        host.window()->close();  // a click outside the popup: on the tray icon, it turns out
        EXPECT_TRUE(host.justHidden(PanelHost::HideReason::iconClick));
        QTest::qWait(600);
    });
    EXPECT_TRUE(has(out, "panel hidden by icon-click")) << out;
    EXPECT_FALSE(has(out, "panel hidden by focus-lost")) << out;
    EXPECT_FALSE(host.justHidden(PanelHost::HideReason::iconClick));  // long after
}

namespace {

class PanelPlacementTest : public PanelHostTest, protected ViewFixture {
  protected:
    MenuBarController menuBar{*state, detector, audio, packs, engine, desktop};
};

}  // namespace

TEST_F(PanelPlacementTest, ThePanelOpensWhereTheTrayHostSaysTheClickWas) {
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    const QPoint click(area.left() + area.width() / 2, area.top() + 5);
    menuBar.handleActivation(QSystemTrayIcon::Trigger, click);
    ASSERT_TRUE(menuBar.panelShown());
    const QRect panel = menuBar.panel()->geometry();
    EXPECT_EQ(panel.top(), click.y());
    EXPECT_NEAR(panel.center().x(), click.x(), 1);
}

TEST_F(PanelPlacementTest, AClickAtTheBottomOfTheScreenOpensThePanelAboveIt) {
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    const QPoint click(area.left() + 100, area.bottom() - 5);
    menuBar.handleActivation(QSystemTrayIcon::Trigger, click);
    ASSERT_TRUE(menuBar.panelShown());
    const QRect panel = menuBar.panel()->geometry();
    ASSERT_LT(panel.height(), area.height() - 10);  // room above the click
    EXPECT_EQ(panel.bottom() + 1, click.y());
    EXPECT_GE(panel.left(), area.left());
}

TEST_F(PanelPlacementTest, TheWholePanelFitsItsWindowDownToTheBottomRow) {
    menuBar.togglePopover();
    ASSERT_TRUE(menuBar.panelShown());
    QWidget* window = menuBar.panel();
    auto* quit = window->findChild<QWidget*>(QStringLiteral("quitButton"));
    ASSERT_NE(quit, nullptr);
    const QRect inWindow(quit->mapTo(window, QPoint(0, 0)), quit->size());
    EXPECT_TRUE(window->rect().contains(inWindow))
        << "quit button at " << inWindow.y() << "+" << inWindow.height() << " in a window "
        << window->height() << " high";
    auto* view = window->findChild<PopoverView*>();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->height(), view->sizeHint().height());
    EXPECT_EQ(view->width(), PopoverView::kWidth);
}

TEST_F(PanelPlacementTest, TheIconClickThatClosesThePanelIsToldAsSuch) {
    menuBar.togglePopover();
    ASSERT_TRUE(menuBar.panelShown());
    const std::string out = stderrOf([&] { menuBar.togglePopover(); });
    EXPECT_TRUE(has(out, "panel hidden by icon-click")) << out;
}

TEST_F(PanelPlacementTest, AClickRightAfterEscapeOpensThePanelAgain) {
    menuBar.togglePopover();
    ASSERT_TRUE(menuBar.panelShown());
    QTest::keyClick(menuBar.panel(), Qt::Key_Escape);
    ASSERT_FALSE(menuBar.panelShown());
    menuBar.handleActivation(QSystemTrayIcon::Trigger);  // not the click that closed it
    EXPECT_TRUE(menuBar.panelShown());
}

TEST_F(PanelPlacementTest, OpenBonkwellWhileOpenClosesItByTheMenu) {
    menuBar.togglePopover();
    emit menuBar.contextMenu()->aboutToShow();
    QAction* open = menuBar.contextMenu()->actions().value(0);
    ASSERT_NE(open, nullptr);
    const std::string out = stderrOf([&] { open->trigger(); });
    EXPECT_FALSE(menuBar.panelShown());
    EXPECT_TRUE(has(out, "panel hidden by menu")) << out;
}

TEST_F(PanelPlacementTest, TheMenuTellsWhereItOpened) {
    const std::string out = stderrOf([&] {
        menuBar.contextMenu()->popup(QPoint(100, 40));
        (void)QTest::qWaitFor([&] { return menuBar.contextMenu()->isVisible(); }, 2000);
    });
    const QRect g = menuBar.contextMenu()->geometry();
    const std::string line = QStringLiteral("menu shown at %1,%2 %3x%4")
                                 .arg(g.x())
                                 .arg(g.y())
                                 .arg(g.width())
                                 .arg(g.height())
                                 .toStdString();
    EXPECT_TRUE(has(out, line.c_str())) << out;
    menuBar.contextMenu()->hide();
}

// The tray icon's picture.

namespace {

QPalette paletteOf(QColor window, QColor text) {
    QPalette p;
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    return p;
}

// WCAG contrast ratio of two opaque colours.
double contrast(const QColor& a, const QColor& b) {
    auto lum = [](const QColor& c) {
        auto channel = [](double v) {
            return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
        };
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) +
               0.0722 * channel(c.blueF());
    };
    const double la = lum(a), lb = lum(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

// The largest contrast between an opaque pixel of the mark and the panel colour.
double bestContrastOn(const QImage& mark, const QColor& panel) {
    double best = 1.0;
    for (int y = 0; y < mark.height(); ++y) {
        for (int x = 0; x < mark.width(); ++x) {
            const QColor c = mark.pixelColor(x, y);
            if (c.alpha() == 255) {
                best = std::max(best, contrast(c, panel));
            }
        }
    }
    return best;
}

}  // namespace

TEST(TrayIconArt, TheVariantFollowsThePanelTheme) {
    using trayicon::Variant;
    const QPalette light = paletteOf(QColor(0xef, 0xf0, 0xf1), QColor(0x23, 0x26, 0x29));
    const QPalette dark = paletteOf(QColor(0x2a, 0x2e, 0x32), QColor(0xfc, 0xfc, 0xfc));
    EXPECT_EQ(trayicon::variantFor(light, "KDE"), Variant::light);
    EXPECT_EQ(trayicon::variantFor(dark, "KDE"), Variant::dark);
    EXPECT_EQ(trayicon::variantFor(dark, "XFCE"), Variant::dark);
    // GNOME's top bar is dark whatever the style.
    EXPECT_EQ(trayicon::variantFor(light, "ubuntu:GNOME"), Variant::dark);
    EXPECT_EQ(trayicon::describe(Variant::light), "light");
    EXPECT_EQ(trayicon::describe(Variant::dark), "dark");
}

TEST(TrayIconArt, EitherMarkStandsOutOnDarkAndLightPanels) {
    for (auto variant : {trayicon::Variant::light, trayicon::Variant::dark}) {
        const QImage mark = trayicon::drawMark(variant, 22).convertToFormat(QImage::Format_ARGB32);
        for (const QColor panel : {QColor(Qt::black), QColor(0x30, 0x30, 0x30), QColor(Qt::white),
                                   QColor(0xef, 0xf0, 0xf1)}) {
            EXPECT_GE(bestContrastOn(mark, panel), 3.0) << trayicon::describe(variant).toStdString()
                                                        << " on " << panel.name().toStdString();
        }
    }
    // On its own theme's panel the hand itself stands out, not only its outline.
    EXPECT_GE(contrast(trayicon::glyphColor(trayicon::Variant::dark), QColor(0x2a, 0x2e, 0x32)),
              4.5);
    EXPECT_GE(contrast(trayicon::glyphColor(trayicon::Variant::light), QColor(0xef, 0xf0, 0xf1)),
              4.5);
}

TEST(TrayIconArt, ThePanelBehindTheIconPicksTheVariant) {
    using trayicon::Variant;
    for (const auto& [panel, expected] : {std::pair{QColor(Qt::black), Variant::dark},
                                          std::pair{QColor(0x3c, 0x3c, 0x3c), Variant::dark},
                                          std::pair{QColor(Qt::white), Variant::light},
                                          std::pair{QColor(0xd6, 0xd6, 0xd6), Variant::light}}) {
        // The tray as a screenshot shows it: the panel with an icon on it.
        QImage behind(24, 24, QImage::Format_ARGB32);
        behind.fill(panel);
        QPainter painter(&behind);
        painter.drawImage(
            0, 0,
            trayicon::drawMark(expected == Variant::dark ? Variant::light : Variant::dark, 24));
        painter.end();
        EXPECT_EQ(trayicon::variantForBackground(behind), expected) << panel.name().toStdString();
    }
    EXPECT_FALSE(trayicon::variantForBackground(QImage()).has_value());
}

TEST(TrayIconArt, TheIconCarriesTheSymbolicNameForHostsThatRecolour) {
    const QIcon icon = trayicon::makeIcon(trayicon::Variant::dark);
    EXPECT_EQ(icon.name(), "com.bonkwell.Bonkwell-symbolic");
    const QImage image = icon.pixmap(24, 24).toImage().convertToFormat(QImage::Format_ARGB32);
    ASSERT_EQ(image.size(), QSize(24, 24));
    EXPECT_GE(bestContrastOn(image, Qt::black), 3.0);
}

TEST_F(PanelPlacementTest, TheIconVariantFollowsAThemeChangeWhileRunning) {
    const QPalette before = QApplication::palette();
    QApplication::setPalette(paletteOf(QColor(0x20, 0x20, 0x20), QColor(0xf0, 0xf0, 0xf0)));
    EXPECT_EQ(menuBar.iconVariant(), trayicon::Variant::dark);
    QApplication::setPalette(paletteOf(QColor(0xf6, 0xf5, 0xf4), QColor(0x20, 0x20, 0x20)));
    EXPECT_EQ(menuBar.iconVariant(), trayicon::Variant::light);
    QApplication::setPalette(before);
}

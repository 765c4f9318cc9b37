// SPDX-License-Identifier: GPL-3.0-or-later
// The tray item's behaviour, without a tray: clicks arrive as activations, as a tray host
// would deliver them.
#include "MenuBarController.h"

#include "CalibrationView.h"
#include "Doubles.h"
#include "PopoverView.h"
#include "SettingsWindow.h"
#include "UiTestSupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QMenu>
#include <QPalette>
#include <QTest>

#include <gtest/gtest.h>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

class MenuBarTest : public ::testing::Test, protected ViewFixture {
  protected:
    void TearDown() override {
        menuBar.reset();
        QApplication::closeAllWindows();
        drainMainQueue();
    }

    QList<QWidget*> visibleWindowsTitled(const QString& title) const {
        QList<QWidget*> found;
        for (QWidget* w : QApplication::topLevelWidgets()) {
            if (w->isVisible() && w->windowTitle() == title) {
                found.append(w);
            }
        }
        return found;
    }

    // Pretends the menu opens, as a right click does.
    void openMenu() { emit menuBar->contextMenu()->aboutToShow(); }

    // Opens the menu and chooses the entry `text`, as a click on it does.
    void choose(const QString& text) {
        openMenu();
        QAction* action = menuAction(text);
        ASSERT_NE(action, nullptr) << text.toStdString();
        action->trigger();
    }

    QAction* menuAction(const QString& text) {
        for (QAction* a : menuBar->contextMenu()->actions()) {
            if (a->text() == text) {
                return a;
            }
        }
        return nullptr;
    }

    std::unique_ptr<MenuBarController> menuBar =
        std::make_unique<MenuBarController>(*state, detector, audio, packs, engine, desktop);
};

}  // namespace

TEST_F(MenuBarTest, TheContextMenuHasSixItemsInOrder) {
    openMenu();
    const QList<QAction*> items = menuBar->contextMenu()->actions();
    ASSERT_EQ(items.size(), 6);
    EXPECT_EQ(items[0]->text(), "Open Bonkwell");
    EXPECT_TRUE(items[1]->isSeparator());
    EXPECT_EQ(items[2]->text(), QString::fromUtf8("Settings\u2026"));
    EXPECT_EQ(items[2]->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Comma));
    EXPECT_EQ(items[3]->text(), QString::fromUtf8("Calibration\u2026"));
    EXPECT_TRUE(items[3]->shortcut().isEmpty());
    EXPECT_TRUE(items[4]->isSeparator());
    EXPECT_EQ(items[5]->text(), "Quit Bonkwell");
    EXPECT_EQ(items[5]->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
}

TEST_F(MenuBarTest, ALeftClickTogglesThePanel) {
    EXPECT_FALSE(menuBar->panelShown());
    menuBar->handleActivation(QSystemTrayIcon::Trigger);
    EXPECT_TRUE(menuBar->panelShown());
    EXPECT_EQ(menuBar->panel()->width(), PopoverView::kWidth);
    menuBar->handleActivation(QSystemTrayIcon::Trigger);
    EXPECT_FALSE(menuBar->panelShown());
    QTest::qWait(500);  // a later click opens it again
    menuBar->handleActivation(QSystemTrayIcon::Trigger);
    EXPECT_TRUE(menuBar->panelShown());
}

TEST_F(MenuBarTest, TheClickThatClosedThePanelDoesNotReopenIt) {
    menuBar->togglePopover();
    ASSERT_TRUE(menuBar->panelShown());
    menuBar->panel()->close();                            // a click outside the popup
    menuBar->handleActivation(QSystemTrayIcon::Trigger);  // the same click reaching the icon
    EXPECT_FALSE(menuBar->panelShown());
}

TEST_F(MenuBarTest, ARightClickWhileThePanelIsOpenOpensTheMenuAndLeavesThePanel) {
    menuBar->handleActivation(QSystemTrayIcon::Trigger);
    ASSERT_TRUE(menuBar->panelShown());
    const int built = menuBar->menusBuilt();
    menuBar->handleActivation(QSystemTrayIcon::Context);
    openMenu();
    EXPECT_TRUE(menuBar->panelShown());
    EXPECT_EQ(menuBar->menusBuilt(), built + 1);
}

TEST_F(MenuBarTest, TwoRightClicksBuildTwoMenusAndALeftClickStillToggles) {
    openMenu();
    QAction* first = menuAction("Open Bonkwell");
    QPointer<QAction> firstGuard(first);
    const int built = menuBar->menusBuilt();
    openMenu();
    EXPECT_EQ(menuBar->menusBuilt(), built + 1);
    EXPECT_TRUE(firstGuard.isNull());  // the old items are gone, fresh ones in their place
    EXPECT_NE(menuAction("Open Bonkwell"), nullptr);
    menuBar->handleActivation(QSystemTrayIcon::Trigger);
    EXPECT_TRUE(menuBar->panelShown());
}

TEST_F(MenuBarTest, OpenBonkwellFromTheMenuBehavesLikeALeftClick) {
    choose("Open Bonkwell");
    EXPECT_TRUE(menuBar->panelShown());
    choose("Open Bonkwell");
    EXPECT_FALSE(menuBar->panelShown());
}

TEST_F(MenuBarTest, ChoosingSettingsTwiceOpensTheSameWindow) {
    choose(QString::fromUtf8("Settings\u2026"));
    SettingsWindowController* controller = menuBar->settingsWindow();
    ASSERT_NE(controller, nullptr);
    QWidget* window = controller->window();
    ASSERT_NE(window, nullptr);
    choose(QString::fromUtf8("Settings\u2026"));
    EXPECT_EQ(menuBar->settingsWindow(), controller);
    EXPECT_EQ(controller->window(), window);
    EXPECT_EQ(visibleWindowsTitled("Bonkwell Settings").size(), 1);
}

TEST_F(MenuBarTest, EveryCalibrationActionBringsUpTheOneCalibrationWindow) {
    choose(QString::fromUtf8("Calibration\u2026"));
    CalibrationWindowController* controller = menuBar->calibrationWindow();
    ASSERT_NE(controller, nullptr);
    QWidget* window = controller->window();
    ASSERT_NE(window, nullptr);

    // The panel's "Calibrate…" button.
    menuBar->togglePopover();
    auto* calibrate = menuBar->panel()->findChild<QAbstractButton*>("calibrateButton");
    ASSERT_NE(calibrate, nullptr);
    calibrate->click();
    EXPECT_EQ(menuBar->calibrationWindow(), controller);
    EXPECT_EQ(controller->window(), window);

    // The Settings window's "Open Calibration…" button.
    menuBar->openSettings();
    auto* open =
        menuBar->settingsWindow()->window()->findChild<QAbstractButton*>("openCalibrationButton");
    ASSERT_NE(open, nullptr);
    open->click();
    EXPECT_EQ(menuBar->calibrationWindow(), controller);
    EXPECT_EQ(controller->window(), window);
    EXPECT_EQ(visibleWindowsTitled("Bonkwell Calibration").size(), 1);
}

TEST_F(MenuBarTest, ThePanelsSettingsButtonOpensSettings) {
    menuBar->togglePopover();
    auto* settings = menuBar->panel()->findChild<QAbstractButton*>("settingsButton");
    ASSERT_NE(settings, nullptr);
    settings->click();
    EXPECT_EQ(visibleWindowsTitled("Bonkwell Settings").size(), 1);
}

TEST_F(MenuBarTest, ThePanelReReadsTheInstallStateWhenShown) {
    engine.state = InstallState::notInstalled;
    menuBar->togglePopover();
    auto* install = menuBar->panel()->findChild<QAbstractButton*>("installButton");
    ASSERT_NE(install, nullptr);
    EXPECT_TRUE(install->isVisible());
    menuBar->togglePopover();
    engine.state = InstallState::installed;
    QTest::qWait(500);
    menuBar->togglePopover();
    EXPECT_FALSE(install->isVisible());
}

TEST_F(MenuBarTest, TheIconIsTheHandInTheTextColour) {
    const QIcon icon = MenuBarController::makeIcon();
    ASSERT_FALSE(icon.isNull());
    const QImage image = icon.pixmap(22, 22).toImage().convertToFormat(QImage::Format_ARGB32);
    const QColor ink = QGuiApplication::palette().color(QPalette::WindowText);
    int inked = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.alpha() == 255) {
                EXPECT_EQ(c.rgb(), ink.rgb());
                ++inked;
            }
        }
    }
    EXPECT_GT(inked, 22 * 22 / 10);  // a real shape, not an empty image
}

TEST_F(MenuBarTest, WithoutAnyTrayThePanelBecomesTheBonkwellWindow) {
    menuBar->start(0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return menuBar->fallbackWindow() != nullptr; }, 3000));
    QWidget* window = menuBar->fallbackWindow();
    EXPECT_EQ(window->windowTitle(), "Bonkwell");
    EXPECT_TRUE(window->isVisible());
    EXPECT_NE(window->findChild<PopoverView*>(), nullptr);
    EXPECT_EQ(menuBar->trayIcon(), nullptr);
    // Left clicks and "Open Bonkwell" now bring that window forward.
    menuBar->togglePopover();
    EXPECT_TRUE(window->isVisible());
}

TEST_F(MenuBarTest, ShowPanelOpensThePanelAndKeepsItOpen) {
    ASSERT_FALSE(menuBar->panelShown());
    menuBar->showPanel();
    EXPECT_TRUE(menuBar->panelShown());
    menuBar->showPanel();  // a second request while open: still open
    EXPECT_TRUE(menuBar->panelShown());
    menuBar->togglePopover();  // while the left click still toggles it closed
    EXPECT_FALSE(menuBar->panelShown());
}

TEST_F(MenuBarTest, ShowPanelRightAfterTheClickThatClosedItStillOpens) {
    menuBar->showPanel();
    ASSERT_TRUE(menuBar->panelShown());
    menuBar->panel()->close();  // as a click outside the panel does
    ASSERT_FALSE(menuBar->panelShown());
    menuBar->showPanel();
    EXPECT_TRUE(menuBar->panelShown());
}

TEST_F(MenuBarTest, WithoutATrayShowPanelBringsBackTheMinimisedWindow) {
    menuBar->start(0);  // offscreen: no tray host, so the panel becomes a window
    ASSERT_TRUE(QTest::qWaitFor([&] { return menuBar->fallbackWindow() != nullptr; }, 3000));
    QWidget* window = menuBar->fallbackWindow();
    window->showMinimized();
    ASSERT_TRUE(window->isMinimized());
    menuBar->showPanel();
    EXPECT_FALSE(window->isMinimized());
    EXPECT_TRUE(window->isVisible());
    delete window;  // closing it would quit the app
}

// SPDX-License-Identifier: GPL-3.0-or-later
// What a further start of the app asks of the running one: show the panel, never close it.
#include "MenuBarController.h"
#include "UiTestSupport.h"

#include <QWidget>

#include <memory>

using namespace bonkwell;

namespace {

class MenuBarControllerTest : public ::testing::Test {
  protected:
    test::ViewFixture f;
    MenuBarController controller{*f.state, f.detector, f.audio, f.packs, f.engine, f.desktop};
};

TEST_F(MenuBarControllerTest, ShowPanelOpensThePanelAndKeepsItOpen) {
    ASSERT_FALSE(controller.panelShown());
    controller.showPanel();
    EXPECT_TRUE(controller.panelShown());
    controller.showPanel();  // a second request while open: still open
    EXPECT_TRUE(controller.panelShown());
    controller.togglePopover();  // while the left click still toggles it closed
    EXPECT_FALSE(controller.panelShown());
}

TEST_F(MenuBarControllerTest, ShowPanelRightAfterTheClickThatClosedItStillOpens) {
    controller.showPanel();
    ASSERT_TRUE(controller.panelShown());
    controller.panel()->close();  // as a click outside the panel does
    ASSERT_FALSE(controller.panelShown());
    controller.showPanel();
    EXPECT_TRUE(controller.panelShown());
}

TEST_F(MenuBarControllerTest, WithoutATrayShowPanelBringsBackTheMinimisedWindow) {
    controller.start(0);  // offscreen: no tray host, so the panel becomes a window
    ASSERT_TRUE(test::waitFor([&] { return controller.fallbackWindow() != nullptr; }));
    QWidget* window = controller.fallbackWindow();
    window->showMinimized();
    ASSERT_TRUE(window->isMinimized());
    controller.showPanel();
    EXPECT_FALSE(window->isMinimized());
    EXPECT_TRUE(window->isVisible());
    delete window;  // closing it would quit the app
}

}  // namespace

// SPDX-License-Identifier: GPL-3.0-or-later
#include "Formats.h"
#include "MagnitudeGraph.h"
#include "SettingsWindow.h"
#include "Style.h"
#include "UiTestSupport.h"
#include "Widgets.h"

#include <QApplication>
#include <QComboBox>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QTabWidget>
#include <QTest>

#include <memory>

namespace bonkwell {
namespace {

using test::child;
using test::labelText;

class SettingsWindowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        controller = std::make_unique<SettingsWindowController>(
            *f.state, f.detector, f.audio, f.packs, f.engine, [this] { ++calibrationOpened; },
            f.desktop);
    }

    // Opens the window (when needed) and returns its content.
    SettingsRootView* open() {
        controller->show();
        f.takeCalls();
        return controller->rootView();
    }
    QWidget* root() { return controller->rootView(); }
    ToggleSwitch* toggle(const char* name) {
        return child<ToggleSwitch>(root(), QLatin1String(name));
    }
    QPushButton* button(const char* name) {
        return child<QPushButton>(root(), QLatin1String(name));
    }
    QString engineSymbol() {
        return child<QLabel>(root(), QStringLiteral("engineStateIcon"))
            ->property("symbol")
            .toString();
    }

    test::ViewFixture f;
    std::unique_ptr<SettingsWindowController> controller;
    int calibrationOpened = 0;
};

int windowsTitled(const QString& title) {
    int n = 0;
    for (QWidget* w : QApplication::topLevelWidgets()) {
        if (w->isVisible() && w->windowTitle() == title) {
            ++n;
        }
    }
    return n;
}

// ---- The window ----

TEST_F(SettingsWindowTest, OneFixedCentredWindowWithFiveTabsGeneralFirst) {
    EXPECT_EQ(controller->window(), nullptr);
    open();
    QWidget* window = controller->window();
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Bonkwell Settings"));
    EXPECT_EQ(window->size(), QSize(520, 420));
    EXPECT_EQ(window->minimumSize(), QSize(520, 420));
    EXPECT_EQ(window->maximumSize(), QSize(520, 420));
    EXPECT_FALSE(window->windowFlags() & Qt::WindowMaximizeButtonHint);
    EXPECT_TRUE(window->windowFlags() & Qt::WindowMinimizeButtonHint);
    EXPECT_TRUE(window->windowFlags() & Qt::WindowCloseButtonHint);
    const QRect available = window->screen()->availableGeometry();
    EXPECT_LE((window->frameGeometry().center() - available.center()).manhattanLength(), 1);

    QTabWidget* tabs = controller->rootView()->tabs();
    ASSERT_EQ(tabs->count(), 5);
    const char* titles[] = {"General", "Sounds", "Sensitivity", "Diagnostics", "About"};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(tabs->tabText(i), QLatin1String(titles[i]));
        EXPECT_FALSE(tabs->tabIcon(i).isNull()) << titles[i];
    }
    EXPECT_EQ(tabs->currentIndex(), 0);
    // Every tab title is fully visible in the fixed width.
    const QRect bar = tabs->tabBar()->rect();
    EXPECT_TRUE(bar.contains(tabs->tabBar()->tabRect(4)));
    EXPECT_LE(tabs->tabBar()->mapTo(window, tabs->tabBar()->tabRect(4).topRight()).x(), 520 - 16);
}

TEST_F(SettingsWindowTest, OpeningTwiceKeepsOneWindowWithItsTabAndSwitches) {
    open();
    QWidget* first = controller->window();
    controller->rootView()->tabs()->setCurrentIndex(SettingsRootView::sensitivity);
    QTest::mouseClick(toggle("showInTaskbarSwitch"), Qt::LeftButton);
    ASSERT_TRUE(controller->rootView()->showInTaskbar());
    controller->show();
    EXPECT_EQ(controller->window(), first);
    EXPECT_EQ(windowsTitled(QStringLiteral("Bonkwell Settings")), 1);
    EXPECT_EQ(controller->rootView()->tabs()->currentIndex(), SettingsRootView::sensitivity);
    EXPECT_TRUE(toggle("showInTaskbarSwitch")->isChecked());
}

TEST_F(SettingsWindowTest, ReopeningAfterCloseStartsAfreshWithTheTaskbarSwitchOff) {
    open();
    QPointer<QWidget> first = controller->window();
    controller->rootView()->tabs()->setCurrentIndex(SettingsRootView::about);
    QTest::mouseClick(toggle("showInTaskbarSwitch"), Qt::LeftButton);
    first->move(0, 0);
    ASSERT_TRUE(first->close());
    EXPECT_EQ(controller->window(), nullptr);
    EXPECT_EQ(controller->rootView(), nullptr);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(first.isNull());

    f.takeCalls();
    open();
    ASSERT_NE(controller->window(), nullptr);
    EXPECT_EQ(controller->rootView()->tabs()->currentIndex(), SettingsRootView::general);
    EXPECT_FALSE(toggle("showInTaskbarSwitch")->isChecked());
    EXPECT_FALSE(controller->rootView()->showInTaskbar());
    EXPECT_EQ(controller->rootView()->engineStateTick(), 0);
    EXPECT_EQ(windowsTitled(QStringLiteral("Bonkwell Settings")), 1);
    EXPECT_EQ(controller->window()->size(), QSize(520, 420));
}

TEST_F(SettingsWindowTest, TheOpenWindowWatchesLiveSamplesForItsDiagnosticsGraph) {
    EXPECT_EQ(f.state->liveViewers(), 0);
    open();
    open();
    EXPECT_EQ(f.state->liveViewers(), 1);
    ASSERT_TRUE(controller->window()->close());
    EXPECT_EQ(f.state->liveViewers(), 0);
    open();
    EXPECT_EQ(f.state->liveViewers(), 1);
    controller.reset();
    EXPECT_EQ(f.state->liveViewers(), 0);
}

// ---- General tab ----

TEST_F(SettingsWindowTest, LaunchAtLoginRefusedKeepsTheSwitchOnStoresTrueAndLogsOneLine) {
    f.desktop.failure = QStringLiteral("cannot write ~/.config/autostart: read-only file system");
    open();
    test::LogCapture log;
    QTest::mouseClick(toggle("launchAtLoginSwitch"), Qt::LeftButton);
    EXPECT_TRUE(toggle("launchAtLoginSwitch")->isChecked());
    EXPECT_TRUE(f.state->launchAtLogin.get());
    EXPECT_EQ(log.lines(),
              QStringList{QStringLiteral("Bonkwell: launch-at-login change failed: cannot write "
                                         "~/.config/autostart: read-only file system")});
    EXPECT_EQ(f.takeCalls(), (QStringList{QStringLiteral("desktop.setLaunchAtLogin(true)"),
                                          QStringLiteral("save")}));
    ASSERT_FALSE(f.store.writes.empty());
    EXPECT_TRUE(f.store.savedSnapshot(f.store.writes.size() - 1).launchAtLogin);
}

TEST_F(SettingsWindowTest, LaunchAtLoginWritesTheStateThenTheDesktopThenSaves) {
    open();
    test::LogCapture log;
    QTest::mouseClick(toggle("launchAtLoginSwitch"), Qt::LeftButton);
    QTest::mouseClick(toggle("launchAtLoginSwitch"), Qt::LeftButton);
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_FALSE(f.state->launchAtLogin.get());
    EXPECT_EQ(
        f.takeCalls(),
        (QStringList{QStringLiteral("desktop.setLaunchAtLogin(true)"), QStringLiteral("save"),
                     QStringLiteral("desktop.setLaunchAtLogin(false)"), QStringLiteral("save")}));
    EXPECT_TRUE(f.store.savedSnapshot(0).launchAtLogin);
    EXPECT_FALSE(f.store.savedSnapshot(1).launchAtLogin);
    // The switch follows the state too.
    f.state->launchAtLogin.set(true);
    EXPECT_TRUE(toggle("launchAtLoginSwitch")->isChecked());
    EXPECT_TRUE(f.takeCalls().isEmpty());  // showing a state change calls nothing
}

TEST_F(SettingsWindowTest, ShowInTaskbarOnlyTellsTheDesktop) {
    open();
    const AppState::Snapshot before = f.state->snapshot();
    QTest::mouseClick(toggle("showInTaskbarSwitch"), Qt::LeftButton);
    QTest::mouseClick(toggle("showInTaskbarSwitch"), Qt::LeftButton);
    EXPECT_EQ(f.takeCalls(), (QStringList{QStringLiteral("desktop.setShowInTaskbar(true)"),
                                          QStringLiteral("desktop.setShowInTaskbar(false)")}));
    EXPECT_EQ(f.state->snapshot(), before);
}

TEST_F(SettingsWindowTest, ListeningAndScalingSwitchesWriteTheirProperties) {
    open();
    QTest::mouseClick(toggle("listeningSwitch"), Qt::LeftButton);
    EXPECT_FALSE(f.state->listeningEnabled.get());
    QTest::mouseClick(toggle("volumeScalingSwitch"), Qt::LeftButton);
    EXPECT_FALSE(f.state->volumeScaling.get());
    EXPECT_TRUE(f.takeCalls().filter(QStringLiteral("desktop")).isEmpty());
    f.state->listeningEnabled.set(true);
    EXPECT_TRUE(toggle("listeningSwitch")->isChecked());
    const QStringList texts = test::visibleTexts(root());
    for (const char* text : {"Detection engine", "App", "Launch at login", "Show in taskbar",
                             "Listening enabled", "Scale volume with slap amplitude"}) {
        EXPECT_TRUE(texts.contains(QLatin1String(text))) << text;
    }
}

TEST_F(SettingsWindowTest, EngineRowExplainsTheHelperWithTheInstallFolder) {
    open();
    EXPECT_EQ(labelText(root(), QStringLiteral("engineExplanation")),
              QStringLiteral("The detection engine is a tiny helper that reads the laptop's "
                             "accelerometer through the kernel's IIO and input interfaces. It "
                             "needs to run as root, so we copy it to ") +
                  format::helperFolderForDisplay() +
                  QStringLiteral(" and chmod it setuid root. You'll be asked for your admin "
                                 "password once."));
    EXPECT_TRUE(format::helperFolderForDisplay().endsWith(QStringLiteral("/Bonkwell/Helpers/")));
    f.state->engineStatus.set(QStringLiteral("Engine running"));
    EXPECT_EQ(labelText(root(), QStringLiteral("engineStatus")), QStringLiteral("Engine running"));
}

TEST_F(SettingsWindowTest, EngineRowForEachInstallState) {
    struct Case {
        InstallState state;
        const char* label;
        const char* symbol;
        const char* button;
        bool enabled;
    };
    const Case cases[] = {
        {InstallState::bundleMissing, "Helper binary missing from bundle", "xmark.octagon.fill",
         "Install detection engine", false},
        {InstallState::notInstalled, "Not installed", "xmark.circle.fill",
         "Install detection engine", true},
        {InstallState::notSetuid, "Installed but not setuid root", "exclamationmark.triangle.fill",
         "Install detection engine", true},
        {InstallState::installed, "Installed", "checkmark.circle.fill", "Reinstall", true},
    };
    open();
    for (const Case& c : cases) {
        f.engine.state = c.state;
        controller->rootView()->refreshEngineRow();
        EXPECT_EQ(labelText(root(), QStringLiteral("engineStateLabel")), QLatin1String(c.label));
        EXPECT_EQ(engineSymbol(), QLatin1String(c.symbol));
        EXPECT_EQ(button("installEngineButton")->text(), QLatin1String(c.button));
        EXPECT_EQ(button("installEngineButton")->isEnabled(), c.enabled) << c.label;
    }
    // Red for a missing helper, orange for the half-way states, green when installed.
    auto colour = [&] {
        return child<QLabel>(root(), QStringLiteral("engineStateLabel"))
            ->palette()
            .color(QPalette::WindowText);
    };
    EXPECT_EQ(colour(), style::green());
    f.engine.state = InstallState::bundleMissing;
    controller->rootView()->refreshEngineRow();
    EXPECT_EQ(colour(), style::red());
    f.engine.state = InstallState::notSetuid;
    controller->rootView()->refreshEngineRow();
    EXPECT_EQ(colour(), style::orange());
}

TEST_F(SettingsWindowTest, TheRowReadsTheInstallStateAgainOnModelChanges) {
    open();
    EXPECT_EQ(labelText(root(), QStringLiteral("engineStateLabel")),
              QStringLiteral("Not installed"));
    f.engine.state = InstallState::installed;
    f.state->engineStatus.set(QStringLiteral("Helper installed"));
    EXPECT_EQ(labelText(root(), QStringLiteral("engineStateLabel")), QStringLiteral("Installed"));
}

TEST_F(SettingsWindowTest, SuccessfulInstallWhileListeningRestartsTheEngineOnce) {
    open();
    ASSERT_TRUE(f.state->listeningEnabled.get());
    Qt::CursorShape during = Qt::ArrowCursor;
    f.engine.duringInstall = [&] {
        if (QApplication::overrideCursor() != nullptr) {
            during = QApplication::overrideCursor()->shape();
        }
    };
    QTest::mouseClick(button("installEngineButton"), Qt::LeftButton);
    EXPECT_EQ(during, Qt::WaitCursor);
    EXPECT_EQ(QApplication::overrideCursor(), nullptr);
    EXPECT_EQ(f.takeCalls(),
              (QStringList{QStringLiteral("engine.installHelper"), QStringLiteral("engine.stop"),
                           QStringLiteral("engine.start")}));
    EXPECT_EQ(controller->rootView()->engineStateTick(), 1);
    EXPECT_EQ(labelText(root(), QStringLiteral("engineStateLabel")), QStringLiteral("Installed"));
    EXPECT_EQ(engineSymbol(), QStringLiteral("checkmark.circle.fill"));
    EXPECT_EQ(button("installEngineButton")->text(), QStringLiteral("Reinstall"));
}

TEST_F(SettingsWindowTest, SuccessfulInstallWhilePausedLeavesTheEngineAlone) {
    f.state->listeningEnabled.set(false);
    open();
    QTest::mouseClick(button("installEngineButton"), Qt::LeftButton);
    EXPECT_EQ(f.takeCalls(), QStringList{QStringLiteral("engine.installHelper")});
    EXPECT_EQ(labelText(root(), QStringLiteral("engineStateLabel")), QStringLiteral("Installed"));
}

TEST_F(SettingsWindowTest, CancelledInstallStillAdvancesTheTickAndShowsTheUnchangedState) {
    f.engine.state = InstallState::notSetuid;
    f.engine.installSucceeds = false;
    open();
    const int readsBefore = f.engine.installStateReads;
    QTest::mouseClick(button("installEngineButton"), Qt::LeftButton);
    EXPECT_EQ(f.takeCalls(), QStringList{QStringLiteral("engine.installHelper")});
    EXPECT_EQ(controller->rootView()->engineStateTick(), 1);
    EXPECT_GT(f.engine.installStateReads, readsBefore);
    EXPECT_EQ(labelText(root(), QStringLiteral("engineStateLabel")),
              QStringLiteral("Installed but not setuid root"));
    EXPECT_EQ(QApplication::overrideCursor(), nullptr);
}

TEST_F(SettingsWindowTest, ReinstallingAnInstalledHelperIsOffered) {
    f.engine.state = InstallState::installed;
    open();
    ASSERT_TRUE(button("installEngineButton")->isEnabled());
    QTest::mouseClick(button("installEngineButton"), Qt::LeftButton);
    EXPECT_EQ(f.takeCalls().first(), QStringLiteral("engine.installHelper"));
}

}  // namespace
}  // namespace bonkwell

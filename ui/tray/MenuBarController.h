// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "AppState.h"
#include "DesktopIntegration.h"
#include "Interfaces.h"
#include "TrayWaiter.h"

#include <QDateTime>
#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QSystemTrayIcon>

#include <memory>

namespace bonkwell {

class CalibrationWindowController;
class PopoverView;
class SettingsWindowController;

// The app's permanent presence: a tray icon whose left click toggles the panel and whose
// context menu opens the panel, Settings, Calibration or quits. It owns the Settings and
// Calibration window controllers, made on first use and kept for the run.
// With no tray host at all the panel becomes an ordinary window titled "Bonkwell", and
// closing that window quits the app.
class MenuBarController : public QObject {
  public:
    MenuBarController(AppState& state, SlapDetectorInterface& detector, AudioPlayerInterface& audio,
                      SoundPackManagerInterface& packManager, ThuzzEngineInterface& engine,
                      DesktopIntegration& desktop);
    ~MenuBarController() override;

    // Waits (up to `trayTimeoutMs`) for a tray host, then shows the icon; without one, shows
    // the fallback window.
    void start(int trayTimeoutMs = 30000);

    // Left click and "Open Bonkwell": shows the panel, or closes it when it is open.
    void togglePopover();
    // Shows the panel (or the fallback window) and brings it to the front; never closes it.
    // What a second start of the app asks of the running one.
    void showPanel();
    void openSettings();
    void openCalibration();
    void quit();

    // What a tray activation does: a left click toggles, a right click never does (the menu
    // is shown by the tray host or by Qt).
    void handleActivation(QSystemTrayIcon::ActivationReason reason);

    QMenu* contextMenu() { return &menu_; }
    QWidget* panel() const;
    bool panelShown() const;
    QWidget* fallbackWindow() const { return fallbackWindow_; }
    SettingsWindowController* settingsWindow() const { return settingsWindow_.get(); }
    CalibrationWindowController* calibrationWindow() const { return calibrationWindow_.get(); }
    QSystemTrayIcon* trayIcon() const { return trayIcon_.get(); }
    int menusBuilt() const { return menusBuilt_; }

    // The tray icon: our hand symbol in the panel's text colour, or an 18×18 circle.
    static QIcon makeIcon();

  private:
    void rebuildMenu();
    void createTrayIcon(TrayWaiter::Host host);
    void showFallbackWindow();
    void positionPanel();
    bool eventFilter(QObject* watched, QEvent* event) override;

    AppState& state_;
    SlapDetectorInterface& detector_;
    AudioPlayerInterface& audio_;
    SoundPackManagerInterface& packManager_;
    ThuzzEngineInterface& engine_;
    DesktopIntegration& desktop_;

    std::unique_ptr<QWidget> popup_;
    PopoverView* popover_ = nullptr;
    QMenu menu_;
    std::unique_ptr<QSystemTrayIcon> trayIcon_;
    QPointer<QWidget> fallbackWindow_;
    std::unique_ptr<SettingsWindowController> settingsWindow_;
    std::unique_ptr<CalibrationWindowController> calibrationWindow_;
    TrayWaiter waiter_;
    qint64 popupHiddenAtMs_ = 0;
    int menusBuilt_ = 0;
    Subscription todayEvents_;  // desktop tests only
};

}  // namespace bonkwell

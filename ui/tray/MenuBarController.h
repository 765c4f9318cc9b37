// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "AppState.h"
#include "DesktopIntegration.h"
#include "Interfaces.h"
#include "PanelHost.h"
#include "TrayIcon.h"
#include "TrayIconArt.h"
#include "TrayWaiter.h"

#include <QDateTime>
#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QSystemTrayIcon>

#include <memory>
#include <optional>

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
    // the fallback window, and swaps it for the icon if a tray host comes up later.
    void start(int trayTimeoutMs = 1500);

    // Left click and "Open Bonkwell": shows the panel, or closes it when it is open.
    void togglePopover();
    // Shows the panel (or the fallback window) and brings it to the front; never closes it.
    // What a second start of the app asks of the running one, with the activation token its
    // launcher gave it (Wayland compositors raise a window only with one). Says in the log
    // when the desktop did not bring the panel forward.
    void showPanel(const QString& activationToken = {});
    void openSettings();
    void openCalibration();
    void quit();

    // What a tray activation does: a left click toggles, a right click never does (the menu
    // is shown by the tray host or by Qt).
    // `at`: where the host says the click was, if it does.
    void handleActivation(QSystemTrayIcon::ActivationReason reason,
                          std::optional<QPoint> at = std::nullopt);

    QMenu* contextMenu() { return &menu_; }
    // Where the tray host says the user clicked (global coordinates): the panel opens there
    // when the tray does not tell where its icon is.
    void setActivationPoint(const QPoint& point);

    QWidget* panel() const;
    PanelHost& panelHost() { return *panelHost_; }
    bool panelShown() const;
    QWidget* fallbackWindow() const { return fallbackWindow_; }
    SettingsWindowController* settingsWindow() const { return settingsWindow_.get(); }
    CalibrationWindowController* calibrationWindow() const { return calibrationWindow_.get(); }
    TrayIcon* trayIcon() const { return trayIcon_.get(); }
    int menusBuilt() const { return menusBuilt_; }

    // The tray icon: our hand symbol in the panel's text colour, or an 18×18 circle.
    static QIcon makeIcon();
    // The tray icon's variant for the current theme (what the icon shows once there is one).
    trayicon::Variant iconVariant() const;

  private:
    void rebuildMenu();
    void createTrayIcon(TrayWaiter::Host host);
    void updateTrayIcon();
    void showFallbackWindow();
    void retireFallbackWindow();
    void togglePanel(PanelHost::HideReason closeReason);
    void openPanel();
    QPoint panelPosition(const QSize& size) const;
    bool eventFilter(QObject* watched, QEvent* event) override;

    AppState& state_;
    SlapDetectorInterface& detector_;
    AudioPlayerInterface& audio_;
    SoundPackManagerInterface& packManager_;
    ThuzzEngineInterface& engine_;
    DesktopIntegration& desktop_;

    std::unique_ptr<PanelHost> panelHost_;
    PopoverView* popover_ = nullptr;
    QMenu menu_;
    std::unique_ptr<TrayIcon> trayIcon_;
    QPointer<QWidget> fallbackWindow_;
    std::unique_ptr<SettingsWindowController> settingsWindow_;
    std::unique_ptr<CalibrationWindowController> calibrationWindow_;
    TrayWaiter waiter_;
    std::optional<QPoint> activationPoint_;
    std::optional<trayicon::Variant> shownVariant_;
    int menusBuilt_ = 0;
    Subscription todayEvents_;  // desktop tests only
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
// The Settings window: tabs General, Sounds, Sensitivity, Diagnostics and About.
#pragma once

#include "AppState.h"
#include "Bindings.h"
#include "DesktopIntegration.h"
#include "Interfaces.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <optional>

class QLabel;
class QPushButton;
class QTabWidget;

namespace bonkwell {

class ToggleSwitch;
class WindowHost;

// The window's content. View-local state (the taskbar switch, the engine-row tick) lives
// as long as one window and starts fresh with the next.
class SettingsRootView : public QWidget {
  public:
    enum Tab { general, sounds, sensitivity, diagnostics, about };

    SettingsRootView(AppState& state, AudioPlayerInterface& audio,
                     SoundPackManagerInterface& packManager, ThuzzEngineInterface& engine,
                     std::function<void()> openCalibration, DesktopIntegration& desktop,
                     QWidget* parent = nullptr);
    ~SettingsRootView() override;

    QTabWidget* tabs() const { return tabs_; }
    bool showInTaskbar() const { return showInTaskbar_; }
    int engineStateTick() const { return engineStateTick_; }

    // Reads the helper's install state afresh and redraws the engine row.
    void refreshEngineRow();
    // The install button's action: install (blocking, busy cursor), restart the engine when
    // listening, then re-read the state.
    void installEngine();

  protected:
    void changeEvent(QEvent* event) override;

  private:
    QWidget* buildGeneralTab();
    QWidget* buildEngineRow(QWidget* parent);
    QWidget* buildSoundsTab();
    QWidget* buildSensitivityTab();
    QWidget* buildDiagnosticsTab();
    QWidget* buildAboutTab();
    void changeLaunchAtLogin(bool enabled);
    void changeShowInTaskbar(bool show);
    void updateIcons();
    void fitTabTitles();

    AppState& state_;
    AudioPlayerInterface& audio_;
    SoundPackManagerInterface& packManager_;
    ThuzzEngineInterface& engine_;
    std::function<void()> openCalibration_;
    DesktopIntegration& desktop_;

    bool showInTaskbar_ = false;
    int engineStateTick_ = 0;

    QTabWidget* tabs_ = nullptr;
    QLabel* engineIcon_ = nullptr;
    QLabel* engineLabel_ = nullptr;
    QPushButton* installButton_ = nullptr;
    QLabel* aboutImage_ = nullptr;

    Bindings bindings_;  // last: its subscriptions end before the widgets go
};

// Owns the one Settings window: made on show(), reused while open, deleted on close.
class SettingsWindowController {
  public:
    static constexpr int kWidth = 520;
    static constexpr int kHeight = 420;

    SettingsWindowController(AppState& state, SlapDetectorInterface& detector,
                             AudioPlayerInterface& audio, SoundPackManagerInterface& packManager,
                             ThuzzEngineInterface& engine, std::function<void()> openCalibration,
                             DesktopIntegration& desktop);
    ~SettingsWindowController();
    SettingsWindowController(const SettingsWindowController&) = delete;
    SettingsWindowController& operator=(const SettingsWindowController&) = delete;

    // Brings the open window forward untouched, or builds a fresh one (General tab, taskbar
    // switch off), centred, 520 × 420, not resizable.
    void show();
    // The open window, or nullptr when it is closed.
    QWidget* window() const;
    // Its content, or nullptr when closed.
    SettingsRootView* rootView() const { return root_; }
    SlapDetectorInterface& detector() const { return detector_; }

  private:
    AppState& state_;
    SlapDetectorInterface& detector_;
    AudioPlayerInterface& audio_;
    SoundPackManagerInterface& packManager_;
    ThuzzEngineInterface& engine_;
    std::function<void()> openCalibration_;
    DesktopIntegration& desktop_;
    QPointer<WindowHost> window_;
    std::optional<LiveViewerHold> liveView_;  // while the window is open
    QPointer<SettingsRootView> root_;
};

}  // namespace bonkwell

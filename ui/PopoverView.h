// SPDX-License-Identifier: GPL-3.0-or-later
// The panel that drops down from the tray icon: listening switch, engine banner, pack, mode,
// sensitivity and volume, the counters with a test button, and the window buttons.
#pragma once

#include "AppState.h"
#include "Bindings.h"
#include "Interfaces.h"

#include <QWidget>

#include <functional>

class QLabel;
class QPushButton;

namespace bonkwell {

class ElidedLabel;
class ToggleSwitch;

class PopoverView : public QWidget {
  public:
    static constexpr int kWidth = 320;

    PopoverView(AppState& state, SlapDetectorInterface& detector, AudioPlayerInterface& audio,
                SoundPackManagerInterface& packManager, ThuzzEngineInterface& engine,
                std::function<void()> openSettings, std::function<void()> openCalibration,
                std::function<void()> quit, QWidget* parent = nullptr);
    ~PopoverView() override;

    // Reads the helper's install state again and redraws the engine banner. The host calls
    // it each time it shows the panel; the panel also does so on every settings change.
    void refresh();

    // The detector is held for the host only.
    SlapDetectorInterface& detector() const { return detector_; }

  protected:
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

  private:
    QWidget* buildHeader();
    QWidget* buildBanner();
    QWidget* buildControls();
    QWidget* buildCounts();
    QWidget* buildFooter();
    void playTest();
    void updateIcons();

    AppState& state_;
    SlapDetectorInterface& detector_;
    AudioPlayerInterface& audio_;
    SoundPackManagerInterface& packManager_;
    ThuzzEngineInterface& engine_;
    std::function<void()> openSettings_;
    std::function<void()> openCalibration_;
    std::function<void()> quit_;

    QLabel* handImage_ = nullptr;
    ToggleSwitch* listeningSwitch_ = nullptr;
    QLabel* bannerImage_ = nullptr;
    ElidedLabel* bannerText_ = nullptr;
    QPushButton* installButton_ = nullptr;
    QPushButton* testButton_ = nullptr;
    QPushButton* quitButton_ = nullptr;
    bool engineInstalled_ = false;

    Bindings bindings_;  // last: its subscriptions end before the widgets go
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
// The Calibration window: the live magnitude against the trigger threshold, with a flash
// when the magnitude crosses it, and the threshold slider.
#pragma once

#include "AppState.h"
#include "Bindings.h"
#include "Clock.h"
#include "Interfaces.h"

#include <QPointer>
#include <QTimer>
#include <QWidget>

#include <memory>
#include <optional>

class QLabel;
class QPropertyAnimation;

namespace bonkwell {

class MagnitudeGraph;
class WindowHost;

class CalibrationView : public QWidget {
  public:
    static constexpr int kTickMs = 100;
    static constexpr double kFlashSeconds = 0.4;

    // `clock` supplies "now" for the flash (its monotonic seconds); it must outlive the view.
    explicit CalibrationView(AppState& state, const Clock& clock = Clock::system(),
                             QWidget* parent = nullptr);
    ~CalibrationView() override;

    // One tick of the flash logic; the view's 0.1 s timer calls it while the view exists.
    void tick();
    bool flash() const { return flash_; }
    const QTimer& timer() const { return timer_; }

  protected:
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

  private:
    void setFlash(bool on);
    void styleValue();

    AppState& state_;
    const Clock& clock_;
    QTimer timer_;
    bool flash_ = false;
    double lastFlashAt_;  // monotonic seconds; the distant past at first

    QLabel* value_ = nullptr;
    MagnitudeGraph* graph_ = nullptr;
    QWidget* hint_ = nullptr;
    QWidget* detected_ = nullptr;
    QPropertyAnimation* fade_ = nullptr;

    Bindings bindings_;
};

// Owns the one Calibration window: made on show(), reused while open, deleted on close.
class CalibrationWindowController {
  public:
    static constexpr int kWidth = 520;
    static constexpr int kHeight = 360;

    CalibrationWindowController(AppState& state, SlapDetectorInterface& detector,
                                const Clock& clock = Clock::system());
    ~CalibrationWindowController();
    CalibrationWindowController(const CalibrationWindowController&) = delete;
    CalibrationWindowController& operator=(const CalibrationWindowController&) = delete;

    // Brings the open window forward, or builds a fresh one, centred, 520 × 360.
    void show();
    // The open window, or nullptr when it is closed.
    QWidget* window() const;
    // Its content, or nullptr when closed.
    CalibrationView* view() const { return view_; }
    SlapDetectorInterface& detector() const { return detector_; }

  private:
    AppState& state_;
    SlapDetectorInterface& detector_;
    const Clock& clock_;
    QPointer<WindowHost> window_;
    std::optional<LiveViewerHold> liveView_;  // while the window is open
    QPointer<CalibrationView> view_;
};

}  // namespace bonkwell

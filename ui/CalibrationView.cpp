// SPDX-License-Identifier: GPL-3.0-or-later
#include "CalibrationView.h"

#include "Formats.h"
#include "MagnitudeGraph.h"
#include "Style.h"
#include "Symbols.h"
#include "Widgets.h"
#include "WindowHost.h"

#include <QEasingCurve>
#include <QEvent>
#include <QGraphicsOpacityEffect>
#include <QHBoxLayout>
#include <QLabel>
#include <QPropertyAnimation>
#include <QVBoxLayout>

#include <limits>

namespace bonkwell {

using style::TextStyle;

CalibrationView::CalibrationView(AppState& state, const Clock& clock, QWidget* parent)
    : QWidget(parent),
      state_(state),
      clock_(clock),
      lastFlashAt_(-std::numeric_limits<double>::infinity()) {
    setObjectName(QStringLiteral("calibrationView"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(14);

    // Live magnitude.
    auto* magnitudeRow = new QHBoxLayout;
    auto* title = new QLabel(QStringLiteral("Live magnitude"), this);
    style::setTextStyle(title, TextStyle::headline);
    magnitudeRow->addWidget(title);
    magnitudeRow->addStretch(1);
    value_ = new QLabel(this);
    value_->setObjectName(QStringLiteral("magnitudeValue"));
    style::setTextStyle(value_, TextStyle::title3);
    bindings_.liveText(value_, state_.liveMagnitude, format::magnitude);
    magnitudeRow->addWidget(value_);
    layout->addLayout(magnitudeRow);

    // Graph.
    graph_ = new MagnitudeGraph(this);
    graph_->setObjectName(QStringLiteral("magnitudeGraph"));
    graph_->setFixedHeight(180);
    MagnitudeGraph* graph = graph_;
    bindings_.observe<std::vector<double>>(
        state_.liveSeries, [graph](const std::vector<double>& s) { graph->setSeries(s); });
    bindings_.observe<double>(state_.sensitivity,
                              [graph](const double& t) { graph->setThreshold(t); });
    layout->addWidget(graph_);

    // Threshold.
    auto* threshold = new QVBoxLayout;
    threshold->setSpacing(4);
    auto* thresholdRow = new QHBoxLayout;
    thresholdRow->addWidget(new QLabel(QStringLiteral("Threshold"), this));
    thresholdRow->addStretch(1);
    auto* thresholdValue = new QLabel(this);
    thresholdValue->setObjectName(QStringLiteral("thresholdValue"));
    bindings_.text<double>(thresholdValue, state_.sensitivity, format::threshold);
    thresholdRow->addWidget(thresholdValue);
    threshold->addLayout(thresholdRow);
    auto* slider = new DoubleSlider(0.05, 0.5, this);
    slider->setObjectName(QStringLiteral("thresholdSlider"));
    slider->setAccessibleName(QStringLiteral("Threshold"));
    bindings_.slider(slider, state_.sensitivity);
    threshold->addWidget(slider);
    layout->addLayout(threshold);

    // Status line: the hint, or "Slap detected!" while flashing.
    auto* status = new QWidget(this);
    auto* statusLayout = new QVBoxLayout(status);
    statusLayout->setContentsMargins(0, 0, 0, 0);
    auto* hint = new QLabel(
        QStringLiteral("Tap or slap your laptop. The line should jump above the dashed threshold."),
        status);
    hint->setObjectName(QStringLiteral("calibrationHint"));
    hint->setWordWrap(true);
    style::setTextStyle(hint, TextStyle::caption);
    style::setSecondary(hint);
    hint_ = hint;
    statusLayout->addWidget(hint_);

    detected_ = new QWidget(status);
    detected_->setObjectName(QStringLiteral("slapDetected"));
    auto* detectedLayout = new QHBoxLayout(detected_);
    detectedLayout->setContentsMargins(0, 0, 0, 0);
    detectedLayout->setSpacing(6);
    auto* bolt = new QLabel(detected_);
    bolt->setPixmap(
        symbols::pixmap(QStringLiteral("bolt.fill"), style::red(), 16, devicePixelRatioF()));
    detectedLayout->addWidget(bolt);
    auto* detectedText = new QLabel(QStringLiteral("Slap detected!"), detected_);
    detectedText->setObjectName(QStringLiteral("slapDetectedLabel"));
    style::setTextStyle(detectedText, TextStyle::headline);
    style::setTextColor(detectedText, style::red());
    detectedLayout->addWidget(detectedText);
    detectedLayout->addStretch(1);
    detected_->hide();
    statusLayout->addWidget(detected_);
    layout->addWidget(status);
    layout->addStretch(1);

    auto* effect = new QGraphicsOpacityEffect(status);
    effect->setOpacity(1.0);
    status->setGraphicsEffect(effect);
    fade_ = new QPropertyAnimation(effect, "opacity", this);
    fade_->setDuration(150);
    fade_->setEasingCurve(QEasingCurve::OutCubic);
    fade_->setStartValue(0.0);
    fade_->setEndValue(1.0);

    styleValue();
    value_->setAlignment(Qt::AlignCenter);
    fixSizeForText(value_, QStringLiteral("88.8888 g"));
    timer_.setInterval(kTickMs);
    timer_.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer_, &QTimer::timeout, this, [this] { tick(); });
}

CalibrationView::~CalibrationView() {
    timer_.stop();
    bindings_.clear();
}

void CalibrationView::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange && value_ != nullptr) {
        styleValue();
    }
}

void CalibrationView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!timer_.isActive()) {
        timer_.start();
    }
}

void CalibrationView::tick() {
    const double now = clock_.monotonicSeconds();
    if (state_.sensitivity.get() < state_.liveMagnitude.get()) {
        lastFlashAt_ = now;
    }
    // A small allowance keeps float rounding of 0.1 s ticks from cutting the flash short.
    setFlash(now - lastFlashAt_ < kFlashSeconds - 1e-9);
}

void CalibrationView::setFlash(bool on) {
    if (on == flash_) {
        return;
    }
    flash_ = on;
    hint_->setVisible(!on);
    detected_->setVisible(on);
    styleValue();
    fade_->stop();
    fade_->start();
}

void CalibrationView::styleValue() {
    const QColor text = flash_ ? style::red() : style::primaryText(palette());
    QColor fill = flash_ ? style::red() : style::grey();
    fill.setAlphaF(0.15f);
    value_->setStyleSheet(
        QStringLiteral("QLabel { color: %1; background-color: %2; border-radius: 6px;"
                       " padding: 4px 10px; }")
            .arg(text.name(QColor::HexArgb), fill.name(QColor::HexArgb)));
}

CalibrationWindowController::CalibrationWindowController(AppState& state,
                                                         SlapDetectorInterface& detector,
                                                         const Clock& clock)
    : state_(state), detector_(detector), clock_(clock) {}

CalibrationWindowController::~CalibrationWindowController() {
    delete window_.data();
}

QWidget* CalibrationWindowController::window() const {
    return window_.data();
}

void CalibrationWindowController::show() {
    if (window_ != nullptr) {
        bringToFront(window_);
        return;
    }
    WindowHost* window = makeWindowHost(
        QStringLiteral("calibrationWindow"), QStringLiteral("Bonkwell Calibration"),
        Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint | Qt::WindowCloseButtonHint |
            Qt::WindowMinimizeButtonHint | Qt::WindowMaximizeButtonHint,
        [this] {
            window_ = nullptr;
            view_ = nullptr;
            liveView_.reset();
        });
    view_ = new CalibrationView(state_, clock_, window);
    window->layout()->addWidget(view_);
    window->resize(kWidth, kHeight);
    window_ = window;
    // Its live graph wants every magnitude promptly while the window is open.
    liveView_.emplace(state_);
    presentCentred(window);
}

}  // namespace bonkwell

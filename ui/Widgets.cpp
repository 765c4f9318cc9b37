// SPDX-License-Identifier: GPL-3.0-or-later
#include "Widgets.h"

#include "Style.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QSignalBlocker>

#include <algorithm>
#include <cmath>

namespace bonkwell {

ElidedLabel::ElidedLabel(QWidget* parent) : QWidget(parent) {
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
}

void ElidedLabel::setText(const QString& text) {
    text_ = text;
    setToolTip(text);
    setAccessibleName(text);  // the whole text, for screen readers
    updateGeometry();
    update();
}

QString ElidedLabel::displayedText() const {
    return fontMetrics().elidedText(text_, Qt::ElideRight, width());
}

QSize ElidedLabel::sizeHint() const {
    return {fontMetrics().horizontalAdvance(text_), fontMetrics().height()};
}

QSize ElidedLabel::minimumSizeHint() const {
    return {0, fontMetrics().height()};
}

void ElidedLabel::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setPen(palette().color(foregroundRole()));
    p.drawText(rect(), Qt::AlignLeft | Qt::AlignVCenter, displayedText());
}

void fixSizeForText(QLabel* label, const QString& widest) {
    const QString text = label->text();
    label->ensurePolished();  // style sheet padding counts
    label->setText(widest);
    const QSize size = label->sizeHint();
    label->setText(text);
    label->setFixedSize(size);
}

QWidget* makeDivider(QWidget* parent) {
    auto* line = new QWidget(parent);
    line->setFixedHeight(1);
    line->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    line->setAutoFillBackground(true);
    QPalette p = line->palette();
    QColor c = p.color(QPalette::WindowText);
    c.setAlphaF(0.14f);
    p.setColor(QPalette::Window, c);
    line->setPalette(p);
    return line;
}

ToggleSwitch::ToggleSwitch(QWidget* parent) : QAbstractButton(parent) {
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::StrongFocus);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

QSize ToggleSwitch::sizeHint() const {
    return {38, 22};
}

bool ToggleSwitch::hitButton(const QPoint& pos) const {
    return rect().contains(pos);
}

void ToggleSwitch::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QPalette& pal = palette();
    const QRectF track = QRectF(rect()).adjusted(1, 2, -1, -2);
    const qreal radius = track.height() / 2;
    QColor trackColor = isChecked() ? style::accent(pal) : pal.color(QPalette::Mid);
    if (!isEnabled()) {
        trackColor.setAlphaF(0.4f);
    }
    p.setPen(Qt::NoPen);
    p.setBrush(trackColor);
    p.drawRoundedRect(track, radius, radius);
    const qreal knob = track.height() - 4;
    const qreal x = isChecked() ? track.right() - 2 - knob : track.left() + 2;
    p.setBrush(QColor(Qt::white));
    p.setPen(QPen(QColor(0, 0, 0, 40), 0.8));
    p.drawEllipse(QRectF(x, track.top() + 2, knob, knob));
    if (hasFocus()) {
        QColor ring = style::accent(pal);
        ring.setAlphaF(0.5f);
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(ring, 1.5));
        p.drawRoundedRect(track.adjusted(-0.5, -0.5, 0.5, 0.5), radius, radius);
    }
}

SegmentedControl::SegmentedControl(const QStringList& titles, QWidget* parent) : QWidget(parent) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    group_.setExclusive(true);
    for (int i = 0; i < titles.size(); ++i) {
        auto* button = new QPushButton(titles.at(i), this);
        button->setCheckable(true);
        button->setAutoDefault(false);
        button->setObjectName(QStringLiteral("segment%1").arg(i));
        button->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        group_.addButton(button, i);
        layout->addWidget(button);
    }
    connect(&group_, &QButtonGroup::idClicked, this, &SegmentedControl::activated);
    connect(&group_, &QButtonGroup::idToggled, this, [this](int, bool) { updateLook(); });
    updateLook();
}

void SegmentedControl::updateLook() {
    // The selected segment is filled with the accent colour, like a switch that is on.
    for (QAbstractButton* b : group_.buttons()) {
        QPalette p = palette();
        if (b->isChecked()) {
            p.setColor(QPalette::Button, style::accent(p));
            p.setColor(QPalette::ButtonText, p.color(QPalette::HighlightedText));
        }
        b->setPalette(p);
    }
}

void SegmentedControl::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) {
        updateLook();
    }
}

int SegmentedControl::currentIndex() const {
    return group_.checkedId();
}

void SegmentedControl::setCurrentIndex(int index) {
    QAbstractButton* button = group_.button(index);
    if (button != nullptr) {
        button->setChecked(true);
        return;
    }
    // No selection: an exclusive group refuses to uncheck its last button.
    group_.setExclusive(false);
    for (QAbstractButton* b : group_.buttons()) {
        b->setChecked(false);
    }
    group_.setExclusive(true);
}

QPushButton* SegmentedControl::segment(int index) const {
    return static_cast<QPushButton*>(group_.button(index));
}

int SegmentedControl::count() const {
    return static_cast<int>(group_.buttons().size());
}

DoubleSlider::DoubleSlider(double minimum, double maximum, QWidget* parent)
    : QSlider(Qt::Horizontal, parent), min_(minimum), max_(maximum) {
    setRange(0, kSteps);
    setSingleStep(kSteps / 100);
    setPageStep(kSteps / 10);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    connect(this, &QSlider::valueChanged, this, [this](int position) {
        if (!applying_) {
            emit doubleValueChanged(valueAt(position));
        }
    });
}

int DoubleSlider::positionFor(double value) const {
    if (!std::isfinite(value)) {
        return 0;
    }
    const double t = std::clamp((value - min_) / (max_ - min_), 0.0, 1.0);
    return static_cast<int>(std::lround(t * kSteps));
}

double DoubleSlider::valueAt(int position) const {
    if (position <= 0) {
        return min_;
    }
    if (position >= kSteps) {
        return max_;
    }
    return min_ + (max_ - min_) * (static_cast<double>(position) / kSteps);
}

double DoubleSlider::doubleValue() const {
    return valueAt(value());
}

void DoubleSlider::setDoubleValue(double value) {
    applying_ = true;
    setValue(positionFor(value));
    applying_ = false;
}

}  // namespace bonkwell

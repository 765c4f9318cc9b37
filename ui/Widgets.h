// SPDX-License-Identifier: GPL-3.0-or-later
// Small controls the toolkit lacks: an on/off switch, a segmented picker, and a slider over
// a continuous range of doubles.
#pragma once

#include <QAbstractButton>
#include <QButtonGroup>
#include <QSlider>
#include <QStringList>
#include <QWidget>

class QLabel;
class QPushButton;

namespace bonkwell {

// A one-line label that shortens its text with "…" to the width it is given; the whole text
// stays available in text() and as the tooltip.
class ElidedLabel : public QWidget {
  public:
    explicit ElidedLabel(QWidget* parent = nullptr);
    void setText(const QString& text);
    QString text() const { return text_; }
    // The text as drawn at the current width.
    QString displayedText() const;
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    QString text_;
};

// Gives a label that shows a rapidly changing number the fixed size of `widest`, so that a new
// value only repaints the label and never lays out its window again.
void fixSizeForText(QLabel* label, const QString& widest);

// A thin horizontal rule between groups of rows.
QWidget* makeDivider(QWidget* parent = nullptr);

// A pill-shaped on/off switch (checkable). Clicking or Space flips it.
class ToggleSwitch : public QAbstractButton {
  public:
    explicit ToggleSwitch(QWidget* parent = nullptr);
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

  protected:
    void paintEvent(QPaintEvent* event) override;
    bool hitButton(const QPoint& pos) const override;
};

// A row of mutually exclusive segments; exactly one is selected (or none for index -1).
class SegmentedControl : public QWidget {
    Q_OBJECT
  public:
    explicit SegmentedControl(const QStringList& titles, QWidget* parent = nullptr);
    int currentIndex() const;
    // Selects without emitting activated().
    void setCurrentIndex(int index);
    QPushButton* segment(int index) const;
    int count() const;

  signals:
    // The user picked a segment.
    void activated(int index);

  protected:
    void changeEvent(QEvent* event) override;

  private:
    void updateLook();

    QButtonGroup group_;
};

// A horizontal slider over [minimum, maximum] of doubles, mapped onto a fine integer range so
// that it moves continuously. value() and setValue() speak doubles.
class DoubleSlider : public QSlider {
    Q_OBJECT
  public:
    static constexpr int kSteps = 10000;

    DoubleSlider(double minimum, double maximum, QWidget* parent = nullptr);
    double minimumValue() const { return min_; }
    double maximumValue() const { return max_; }
    double doubleValue() const;
    // Moves the handle without emitting doubleValueChanged(); values outside the range
    // are shown at the nearest end.
    void setDoubleValue(double value);
    // The slider position for `value` and back (exposed for tests).
    int positionFor(double value) const;
    double valueAt(int position) const;

  signals:
    // The user moved the slider (every intermediate value while dragging).
    void doubleValueChanged(double value);

  private:
    double min_;
    double max_;
    bool applying_ = false;
};

}  // namespace bonkwell

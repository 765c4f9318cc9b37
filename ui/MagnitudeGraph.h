// SPDX-License-Identifier: GPL-3.0-or-later
// The live magnitude line graph: a rounded background, the series line and the dashed
// threshold line, scaled so the threshold always sits in the lower two thirds.
#pragma once

#include <QPainterPath>
#include <QTimer>
#include <QWidget>

#include <vector>

namespace bonkwell {

// Where everything lies in a graph of width W and height H (y grows downwards).
struct GraphGeometry {
    double top = 0;         // the value drawn at the upper edge
    double thresholdY = 0;  // y of the dashed threshold line (spanning x = 0 … W)
    QPainterPath series;    // empty for an empty series
};

// top = max(max(series) × 1.2, threshold × 1.5, 0.5) (an empty series counts as 0);
// v lies at y = H × (1 − min(v / top, 1)); with n points the step is W / (n − 1), or W
// when n < 3, and point i lies at x = step × i.
GraphGeometry graphGeometry(const std::vector<double>& series, double threshold, double width,
                            double height);

// Samples may arrive a hundred times a second; the graph takes each at once but redraws at
// most kFrameMs apart, which is smooth to the eye and a fraction of the work.
class MagnitudeGraph : public QWidget {
  public:
    static constexpr int kFrameMs = 33;

    explicit MagnitudeGraph(QWidget* parent = nullptr);

    void setSeries(std::vector<double> series);
    void setThreshold(double threshold);
    const std::vector<double>& series() const { return series_; }
    double threshold() const { return threshold_; }

    QSize sizeHint() const override { return {300, 160}; }

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    void scheduleRepaint();

    QTimer frame_;
    std::vector<double> series_;
    double threshold_ = 0;
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
#include "MagnitudeGraph.h"

#include "Style.h"

#include <QPainter>

#include <algorithm>

namespace bonkwell {

GraphGeometry graphGeometry(const std::vector<double>& series, double threshold, double width,
                            double height) {
    GraphGeometry g;
    double peak = 0;
    if (!series.empty()) {
        peak = *std::max_element(series.begin(), series.end());
    }
    g.top = std::max({peak * 1.2, threshold * 1.5, 0.5});
    auto y = [&](double v) { return height * (1.0 - std::min(v / g.top, 1.0)); };
    g.thresholdY = y(threshold);
    const std::size_t n = series.size();
    if (n > 0) {
        const double step = n < 3 ? width : width / static_cast<double>(n - 1);
        g.series.moveTo(0, y(series[0]));
        for (std::size_t i = 1; i < n; ++i) {
            g.series.lineTo(step * static_cast<double>(i), y(series[i]));
        }
    }
    return g;
}

MagnitudeGraph::MagnitudeGraph(QWidget* parent) : QWidget(parent) {
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setAttribute(Qt::WA_OpaquePaintEvent, false);
    frame_.setSingleShot(true);
    frame_.setInterval(kFrameMs);
    connect(&frame_, &QTimer::timeout, this, qOverload<>(&QWidget::update));
}

void MagnitudeGraph::setSeries(std::vector<double> series) {
    series_ = std::move(series);
    scheduleRepaint();
}

void MagnitudeGraph::setThreshold(double threshold) {
    threshold_ = threshold;
    update();  // the user is dragging a slider: follow at once
}

void MagnitudeGraph::scheduleRepaint() {
    if (!frame_.isActive()) {
        frame_.start();
    }
}

void MagnitudeGraph::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF area = rect();

    // Background, with a hairline so it reads on either theme.
    QColor edge = palette().color(QPalette::WindowText);
    edge.setAlphaF(0.12f);
    p.setPen(QPen(edge, 1));
    p.setBrush(style::controlBackground(palette()));
    p.drawRoundedRect(area.adjusted(0.5, 0.5, -0.5, -0.5), 6, 6);

    const GraphGeometry g = graphGeometry(series_, threshold_, area.width(), area.height());
    p.setClipRect(area);
    p.setBrush(Qt::NoBrush);

    QPen line(style::accent(palette()), 1.5, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin);
    line.setMiterLimit(10);
    p.setPen(line);
    // Stroking one long antialiased polyline costs several times more than stroking it in
    // short runs; consecutive runs share their end points, so the line stays continuous.
    const int n = g.series.elementCount();
    if (n > 0) {
        QPolygonF points(n);
        for (int i = 0; i < n; ++i) {
            points[i] = g.series.elementAt(i);
        }
        constexpr int kRun = 16;
        for (int i = 0; i + 1 < n; i += kRun) {
            p.drawPolyline(points.constData() + i, std::min(kRun + 1, n - i));
        }
    }

    QColor red = style::red();
    red.setAlphaF(0.6f);
    QPen dashed(red, 1, Qt::CustomDashLine, Qt::FlatCap, Qt::MiterJoin);
    dashed.setMiterLimit(10);
    dashed.setDashPattern({4, 3});  // in units of the pen width (1): 4 on, 3 off
    p.setPen(dashed);
    p.drawLine(QPointF(0, g.thresholdY), QPointF(area.width(), g.thresholdY));
}

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
#include "MagnitudeGraph.h"
#include "UiTestSupport.h"

#include <QImage>
#include <QTest>

namespace bonkwell {
namespace {

constexpr double W = 400;
constexpr double H = 200;

TEST(MagnitudeGraphTest, EmptySeriesAtThresholdFivePercentPutsTheLineAtNinetyPercent) {
    const GraphGeometry g = graphGeometry({}, 0.05, W, H);
    EXPECT_DOUBLE_EQ(g.top, 0.5);
    EXPECT_DOUBLE_EQ(g.thresholdY, 0.9 * H);
    EXPECT_EQ(g.series.elementCount(), 0);
    EXPECT_TRUE(g.series.isEmpty());
}

TEST(MagnitudeGraphTest, TopIsTheLargestOfPeakThresholdAndHalfAG) {
    // Threshold 0.3 with a peak of 0.2: 0.3 × 1.5 = 0.45 and 0.2 × 1.2 = 0.24 both lie under
    // the 0.5 floor, so the floor is the top.
    EXPECT_DOUBLE_EQ(graphGeometry({0.1, 0.2, 0.05}, 0.3, W, H).top, 0.5);
    // Where threshold × 1.5 is the largest, it is the top.
    EXPECT_NEAR(graphGeometry({0.1, 0.2, 0.05}, 0.4, W, H).top, 0.6, 1e-12);
    EXPECT_NEAR(graphGeometry({0.1, 1.0, 0.05}, 0.3, W, H).top, 1.2, 1e-12);
    EXPECT_DOUBLE_EQ(graphGeometry({0.01, 0.02}, 0.1, W, H).top, 0.5);
    // The threshold never sits above one third from the top.
    EXPECT_NEAR(graphGeometry({}, 0.5, W, H).thresholdY, H / 3, 1e-9);
}

TEST(MagnitudeGraphTest, ASinglePointIsJustAStartAtXZero) {
    const GraphGeometry g = graphGeometry({0.25}, 0.05, W, H);
    ASSERT_EQ(g.series.elementCount(), 1);
    EXPECT_TRUE(g.series.elementAt(0).isMoveTo());
    EXPECT_DOUBLE_EQ(g.series.elementAt(0).x, 0);
    EXPECT_DOUBLE_EQ(g.series.elementAt(0).y, H * (1 - 0.25 / 0.5));
}

TEST(MagnitudeGraphTest, TwoPointsSpanTheWidthAndMoreShareIt) {
    const GraphGeometry two = graphGeometry({0.1, 0.2}, 0.05, W, H);
    ASSERT_EQ(two.series.elementCount(), 2);
    EXPECT_DOUBLE_EQ(two.series.elementAt(0).x, 0);
    EXPECT_DOUBLE_EQ(two.series.elementAt(1).x, W);

    const GraphGeometry five = graphGeometry({0.1, 0.1, 0.1, 0.1, 0.1}, 0.05, W, H);
    ASSERT_EQ(five.series.elementCount(), 5);
    for (int i = 0; i < 5; ++i) {
        EXPECT_DOUBLE_EQ(five.series.elementAt(i).x, W / 4 * i);
        EXPECT_DOUBLE_EQ(five.series.elementAt(i).y, H * (1 - 0.1 / 0.5));
    }
    EXPECT_TRUE(five.series.elementAt(1).isLineTo());
}

TEST(MagnitudeGraphTest, ValuesAreNeverClampedBelow) {
    const GraphGeometry g = graphGeometry({-0.1, 0.0}, 0.05, W, H);
    EXPECT_DOUBLE_EQ(g.series.elementAt(0).y, H * 1.2);
    EXPECT_DOUBLE_EQ(g.series.elementAt(1).y, H);
}

bool reddish(QColor c) {
    return c.red() > c.green() + 40 && c.red() > c.blue() + 40;
}
bool bluish(QColor c) {
    return c.blue() > c.red() + 40;
}

TEST(MagnitudeGraphTest, PaintsADashedThresholdAndTheSeriesInTheAccentColour) {
    MagnitudeGraph graph;
    QPalette p = graph.palette();
    p.setColor(QPalette::Highlight, QColor(0x30, 0x60, 0xe0));
    p.setColor(QPalette::Base, Qt::white);
    graph.setPalette(p);
    graph.resize(200, 100);
    graph.setThreshold(0.05);  // top 0.5 → dashed line at y = 90
    const QImage empty = graph.grab().toImage();
    int red = 0;
    int runs = 0;
    bool inDash = false;
    for (int x = 10; x < 190; ++x) {
        const bool on = reddish(empty.pixelColor(x, 90)) || reddish(empty.pixelColor(x, 89));
        red += on ? 1 : 0;
        if (on && !inDash) {
            ++runs;
        }
        inDash = on;
    }
    // 4 on, 3 off: about 4/7 of the line is drawn, in about 180 / 7 dashes.
    EXPECT_GT(red, 180 * 4 / 7 - 15);
    EXPECT_LT(red, 180 * 4 / 7 + 15);
    EXPECT_GT(runs, 20);
    for (int x = 10; x < 190; ++x) {
        EXPECT_FALSE(bluish(empty.pixelColor(x, 50))) << "no series yet";
    }

    graph.setSeries({0.25, 0.25, 0.25});  // y = 50
    const QImage drawn = graph.grab().toImage();
    int blue = 0;
    for (int x = 10; x < 190; ++x) {
        blue += (bluish(drawn.pixelColor(x, 50)) || bluish(drawn.pixelColor(x, 49))) ? 1 : 0;
    }
    EXPECT_GT(blue, 170);
}

// Counts the paints of a graph.
class CountingGraph : public MagnitudeGraph {
  public:
    int paints = 0;

  protected:
    void paintEvent(QPaintEvent* event) override {
        ++paints;
        MagnitudeGraph::paintEvent(event);
    }
};

TEST(MagnitudeGraphTest, ABurstOfSamplesIsDrawnInFewFrames) {
    CountingGraph graph;
    graph.resize(200, 100);
    graph.show();
    ASSERT_TRUE(test::waitFor([&] { return graph.paints > 0; }));
    graph.paints = 0;
    std::vector<double> series;
    for (int i = 0; i < 100; ++i) {
        series.push_back(0.01 * i);
        graph.setSeries(series);
        QCoreApplication::processEvents();  // as if each sample came in its own event
    }
    EXPECT_EQ(graph.series().size(), 100u);  // every sample is taken at once
    EXPECT_TRUE(test::waitFor([&] { return graph.paints > 0; }));
    QTest::qWait(2 * MagnitudeGraph::kFrameMs);
    EXPECT_LE(graph.paints, 3);
}

}  // namespace
}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
#include "CalibrationView.h"
#include "MagnitudeGraph.h"
#include "UiTestSupport.h"
#include "Widgets.h"

#include <QApplication>
#include <QGuiApplication>
#include <QImage>
#include <QPointer>
#include <QScreen>
#include <QTest>

#include <memory>

namespace bonkwell {
namespace {

using test::child;
using test::labelText;

class CalibrationViewTest : public ::testing::Test {
  protected:
    void SetUp() override {
        view = std::make_unique<CalibrationView>(*f.state, f.clock);
        view->resize(520, 360);
        view->show();
    }

    // One timer period later.
    void tick() {
        f.clock.advance(0.1);
        view->tick();
    }
    bool detectedShown() const {
        return child<QWidget>(view.get(), QStringLiteral("slapDetected"))->isVisible();
    }
    bool hintShown() const {
        return child<QWidget>(view.get(), QStringLiteral("calibrationHint"))->isVisible();
    }

    test::ViewFixture f;
    std::unique_ptr<CalibrationView> view;
};

TEST_F(CalibrationViewTest, TicksEveryTenthOfASecondOnceShown) {
    EXPECT_TRUE(view->timer().isActive());
    EXPECT_EQ(view->timer().interval(), 100);
    EXPECT_FALSE(view->flash());
    EXPECT_TRUE(hintShown());
    EXPECT_EQ(labelText(view.get(), QStringLiteral("calibrationHint")),
              QStringLiteral("Tap or slap your laptop. The line should jump above the dashed "
                             "threshold."));
}

TEST_F(CalibrationViewTest, RealTimerTicksDriveTheFlash) {
    f.state->sensitivity.set(0.1);
    f.state->liveMagnitude.set(0.2);
    QTRY_VERIFY_WITH_TIMEOUT(view->flash(), 1000);
}

TEST_F(CalibrationViewTest, AMagnitudeEqualToTheThresholdNeverFlashes) {
    f.state->sensitivity.set(0.2);
    f.state->liveMagnitude.set(0.2);
    for (int i = 0; i < 20; ++i) {
        tick();
        EXPECT_FALSE(view->flash());
    }
    f.state->liveMagnitude.set(0.19);
    tick();
    EXPECT_FALSE(view->flash());
}

TEST_F(CalibrationViewTest, OneTickAboveKeepsSlapDetectedForAboutFourTenths) {
    f.state->sensitivity.set(0.15);
    f.state->liveMagnitude.set(0.4);
    tick();
    EXPECT_TRUE(view->flash());
    EXPECT_TRUE(detectedShown());
    EXPECT_FALSE(hintShown());
    EXPECT_EQ(labelText(view.get(), QStringLiteral("slapDetectedLabel")),
              QStringLiteral("Slap detected!"));
    f.state->liveMagnitude.set(0.01);
    int litTicks = 1;
    for (int i = 0; i < 10 && view->flash(); ++i) {
        tick();
        litTicks += view->flash() ? 1 : 0;
    }
    EXPECT_GE(litTicks, 4);
    EXPECT_LE(litTicks, 5);
    EXPECT_FALSE(view->flash());
    EXPECT_FALSE(detectedShown());
    EXPECT_TRUE(hintShown());
}

TEST_F(CalibrationViewTest, TheFlashLastsFromTheLastTickAbove) {
    f.state->sensitivity.set(0.15);
    f.state->liveMagnitude.set(0.4);
    for (int i = 0; i < 10; ++i) {
        tick();
        EXPECT_TRUE(view->flash());
    }
    f.state->liveMagnitude.set(0.0);
    tick();
    tick();
    tick();
    EXPECT_TRUE(view->flash());  // 0.3 s after the last tick above
    tick();
    EXPECT_FALSE(view->flash());  // 0.4 s after it
}

TEST_F(CalibrationViewTest, TheFlashIgnoresTheDetectorCooldown) {
    f.state->cooldown.set(3.0);
    f.state->sensitivity.set(0.15);
    f.state->liveMagnitude.set(0.4);
    tick();
    f.state->liveMagnitude.set(0.0);
    for (int i = 0; i < 5; ++i) {
        tick();
    }
    ASSERT_FALSE(view->flash());
    f.state->liveMagnitude.set(0.4);
    tick();
    EXPECT_TRUE(view->flash());  // a second crossing well within the cooldown lights it again
}

bool hasReddishPixels(const QImage& image) {
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.red() > 150 && c.green() < 90 && c.blue() < 90) {
                return true;
            }
        }
    }
    return false;
}

TEST_F(CalibrationViewTest, TheValueShowsFourDecimalsAndTurnsRedWhileFlashing) {
    f.state->sensitivity.set(0.15);
    f.state->liveMagnitude.set(0.0123);
    auto* value = child<QLabel>(view.get(), QStringLiteral("magnitudeValue"));
    EXPECT_EQ(value->text(), QStringLiteral("0.0123 g"));
    EXPECT_FALSE(hasReddishPixels(value->grab().toImage()));
    f.state->liveMagnitude.set(0.5);
    tick();
    // Quick successive values are shown at most every 33 ms.
    EXPECT_TRUE(test::waitFor([&] { return value->text() == QStringLiteral("0.5000 g"); }));
    EXPECT_TRUE(hasReddishPixels(value->grab().toImage()));
}

TEST_F(CalibrationViewTest, GraphAndSliderWorkOnTheSharedState) {
    auto* graph = child<MagnitudeGraph>(view.get(), QStringLiteral("magnitudeGraph"));
    EXPECT_EQ(graph->height(), 180);
    EXPECT_EQ(graph->width(), 520 - 32);
    f.state->liveSeries.set({0.1, 0.2, 0.3});
    EXPECT_EQ(graph->series(), (std::vector<double>{0.1, 0.2, 0.3}));
    f.state->sensitivity.set(0.15);
    EXPECT_EQ(graph->threshold(), 0.15);
    EXPECT_EQ(labelText(view.get(), QStringLiteral("thresholdValue")), QStringLiteral("0.150 g"));
    auto* slider = child<DoubleSlider>(view.get(), QStringLiteral("thresholdSlider"));
    EXPECT_EQ(slider->minimumValue(), 0.05);
    EXPECT_EQ(slider->maximumValue(), 0.5);
    QTest::keyClick(slider, Qt::Key_End);
    EXPECT_EQ(f.state->sensitivity.get(), 0.5);
    EXPECT_EQ(graph->threshold(), 0.5);
}

// ---- The window ----

int windowsTitled(const QString& title) {
    int n = 0;
    for (QWidget* w : QApplication::topLevelWidgets()) {
        if (w->isVisible() && w->windowTitle() == title) {
            ++n;
        }
    }
    return n;
}

void expectCentred(const QWidget* window) {
    const QRect available = window->screen()->availableGeometry();
    EXPECT_LE((window->frameGeometry().center() - available.center()).manhattanLength(), 1)
        << window->frameGeometry().x() << "," << window->frameGeometry().y() << " "
        << window->geometry().x() << "," << window->geometry().y() << " in " << available.width()
        << "x" << available.height();
}

TEST(CalibrationWindowTest, ShowTwiceShowsOneWindow) {
    test::ViewFixture f;
    CalibrationWindowController controller(*f.state, f.detector, f.clock);
    EXPECT_EQ(controller.window(), nullptr);
    controller.show();
    QWidget* first = controller.window();
    ASSERT_NE(first, nullptr);
    controller.show();
    EXPECT_EQ(controller.window(), first);
    EXPECT_EQ(windowsTitled(QStringLiteral("Bonkwell Calibration")), 1);
    EXPECT_EQ(first->size(), QSize(520, 360));
    expectCentred(first);
    // Resizable: no fixed size.
    EXPECT_LT(first->minimumWidth(), 520);
    EXPECT_GT(first->maximumWidth(), 520);
    EXPECT_TRUE(first->windowFlags() & Qt::WindowMaximizeButtonHint);
    EXPECT_TRUE(f.takeCalls().filter(QStringLiteral("detector")).isEmpty());
}

TEST(CalibrationWindowTest, ClosingDropsTheWindowAndTheNextShowBuildsAFreshOne) {
    test::ViewFixture f;
    CalibrationWindowController controller(*f.state, f.detector, f.clock);
    controller.show();
    QPointer<QWidget> first = controller.window();
    // Light the flash, move and shrink the window, then close it.
    f.state->liveMagnitude.set(1.0);
    controller.view()->tick();
    ASSERT_TRUE(controller.view()->flash());
    first->move(3, 4);
    first->resize(400, 300);
    ASSERT_TRUE(first->close());
    EXPECT_EQ(controller.window(), nullptr);
    EXPECT_EQ(controller.view(), nullptr);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(first.isNull());  // deleted, not just hidden

    f.state->liveMagnitude.set(0.0);
    controller.show();
    ASSERT_NE(controller.window(), nullptr);
    EXPECT_EQ(controller.window()->size(), QSize(520, 360));
    expectCentred(controller.window());
    EXPECT_FALSE(controller.view()->flash());
    EXPECT_EQ(windowsTitled(QStringLiteral("Bonkwell Calibration")), 1);
}

TEST(CalibrationWindowTest, TheOpenWindowWatchesLiveSamples) {
    test::ViewFixture f;
    {
        CalibrationWindowController controller(*f.state, f.detector, f.clock);
        EXPECT_EQ(f.state->liveViewers(), 0);
        controller.show();
        controller.show();
        EXPECT_EQ(f.state->liveViewers(), 1);  // one window, one viewer
        ASSERT_TRUE(controller.window()->close());
        EXPECT_EQ(f.state->liveViewers(), 0);
        controller.show();
        EXPECT_EQ(f.state->liveViewers(), 1);
    }
    EXPECT_EQ(f.state->liveViewers(), 0);  // gone with the controller
}

TEST(CalibrationWindowTest, TheControllerTakesItsOpenWindowWithIt) {
    test::ViewFixture f;
    QPointer<QWidget> window;
    {
        CalibrationWindowController controller(*f.state, f.detector, f.clock);
        controller.show();
        window = controller.window();
    }
    EXPECT_TRUE(window.isNull());
}

}  // namespace
}  // namespace bonkwell

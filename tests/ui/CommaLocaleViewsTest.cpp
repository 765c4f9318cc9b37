// SPDX-License-Identifier: GPL-3.0-or-later
// The numbers the panel, the Settings tabs and the Calibration window show read the same
// under a decimal-comma locale as anywhere else. This program runs every test (the format
// tests included) under de_DE.UTF-8.
#include "CalibrationView.h"
#include "CommaLocale.h"
#include "PopoverView.h"
#include "SettingsWindow.h"
#include "UiTestSupport.h"

#include <QTabWidget>

#include <memory>

namespace bonkwell {
namespace {

using test::labelText;

[[maybe_unused]] ::testing::Environment* const kCommaLocale =
    ::testing::AddGlobalTestEnvironment(new test::CommaLocaleEnvironment);

class CommaLocaleViewsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Values with a fraction in every format; the views show them when built.
        f.state->sensitivity.set(0.15);
        f.state->volume.set(1.255);
        f.state->cooldown.set(0.25);
        f.state->liveMagnitude.set(1.0);
    }

    test::ViewFixture f;
};

TEST_F(CommaLocaleViewsTest, ThePanelShowsFullStops) {
    PopoverView view(
        *f.state, f.detector, f.audio, f.packs, f.engine, [] {}, [] {}, [] {});
    view.show();
    EXPECT_EQ(labelText(&view, QStringLiteral("sensitivityValue")), QStringLiteral("0.15g"));
    EXPECT_EQ(labelText(&view, QStringLiteral("volumeValue")), QStringLiteral("125%"));
    f.state->sensitivity.set(0.05);
    EXPECT_EQ(labelText(&view, QStringLiteral("sensitivityValue")), QStringLiteral("0.05g"));
    f.state->totalCount.set(12345);
    EXPECT_EQ(labelText(&view, QStringLiteral("totalCount")), QStringLiteral("12345"));
}

TEST_F(CommaLocaleViewsTest, TheSettingsTabsShowFullStops) {
    SettingsRootView view(
        *f.state, f.audio, f.packs, f.engine, [] {}, f.desktop);
    view.resize(520, 420);
    view.show();
    view.tabs()->setCurrentIndex(SettingsRootView::sounds);
    EXPECT_EQ(labelText(&view, QStringLiteral("volumeValue")), QStringLiteral("125%"));
    view.tabs()->setCurrentIndex(SettingsRootView::sensitivity);
    EXPECT_EQ(labelText(&view, QStringLiteral("thresholdValue")), QStringLiteral("0.150 g"));
    EXPECT_EQ(labelText(&view, QStringLiteral("cooldownValue")), QStringLiteral("250 ms"));
    f.state->cooldown.set(3.0);
    EXPECT_EQ(labelText(&view, QStringLiteral("cooldownValue")), QStringLiteral("3000 ms"));
    view.tabs()->setCurrentIndex(SettingsRootView::diagnostics);
    EXPECT_EQ(labelText(&view, QStringLiteral("nowValue")), QStringLiteral("1.0000 g"));
    EXPECT_EQ(labelText(&view, QStringLiteral("diagnosticsThreshold")),
              QStringLiteral("Threshold: 0.150 g"));
}

TEST_F(CommaLocaleViewsTest, TheCalibrationWindowShowsFullStops) {
    f.state->liveMagnitude.set(0.0123);
    CalibrationView view(*f.state, f.clock);
    view.show();
    EXPECT_EQ(labelText(&view, QStringLiteral("magnitudeValue")), QStringLiteral("0.0123 g"));
    EXPECT_EQ(labelText(&view, QStringLiteral("thresholdValue")), QStringLiteral("0.150 g"));
    f.state->sensitivity.set(0.5);
    EXPECT_EQ(labelText(&view, QStringLiteral("thresholdValue")), QStringLiteral("0.500 g"));
}

}  // namespace
}  // namespace bonkwell

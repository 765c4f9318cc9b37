// SPDX-License-Identifier: GPL-3.0-or-later
#include "Bindings.h"
#include "UiTestSupport.h"
#include "Widgets.h"

#include <QComboBox>
#include <QPushButton>
#include <QTest>

#include <memory>

namespace bonkwell {
namespace {

// Counts assignments of a property made after the counter was attached.
template <typename T>
struct SetCounter {
    explicit SetCounter(Published<T>& p)
        : subscription(p.subscribe([this](const T& v) {
              ++count;
              last = v;
          })) {
        count = 0;
    }
    int count = 0;
    T last{};
    Subscription subscription;
};

TEST(BindingsTest, SliderCoversTheRangeExactlyAndFinely) {
    DoubleSlider slider(0.05, 0.5);
    EXPECT_EQ(slider.valueAt(0), 0.05);
    EXPECT_EQ(slider.valueAt(DoubleSlider::kSteps), 0.5);
    EXPECT_EQ(slider.positionFor(0.05), 0);
    EXPECT_EQ(slider.positionFor(0.5), DoubleSlider::kSteps);
    EXPECT_EQ(slider.positionFor(7.0), DoubleSlider::kSteps);  // out of range shows at the end
    EXPECT_EQ(slider.positionFor(-1.0), 0);
    // Continuous: neighbouring positions are less than a thousandth of a g apart.
    EXPECT_LT(slider.valueAt(5001) - slider.valueAt(5000), 0.0001);
    EXPECT_NEAR(slider.valueAt(slider.positionFor(0.123)), 0.123, 0.0001);
}

TEST(BindingsTest, StateDrivesTheSliderWithoutWritingBack) {
    test::ViewFixture f;
    Bindings bindings;
    DoubleSlider slider(0.05, 0.5);
    bindings.slider(&slider, f.state->sensitivity);
    EXPECT_NEAR(slider.doubleValue(), 0.05, 1e-12);  // the current value at once
    SetCounter<double> sets(f.state->sensitivity);
    f.state->sensitivity.set(0.3);
    EXPECT_NEAR(slider.doubleValue(), 0.3, 0.0001);
    EXPECT_EQ(sets.count, 1);  // only our own assignment
}

TEST(BindingsTest, TheUsersSliderMovesReachTheStateAtEveryStep) {
    test::ViewFixture f;
    Bindings bindings;
    DoubleSlider slider(0.0, 2.0);
    bindings.slider(&slider, f.state->volume);
    SetCounter<double> sets(f.state->volume);
    QTest::keyClick(&slider, Qt::Key_End);
    EXPECT_EQ(f.state->volume.get(), 2.0);
    QTest::keyClick(&slider, Qt::Key_Home);
    EXPECT_EQ(f.state->volume.get(), 0.0);
    QTest::keyClick(&slider, Qt::Key_Right);
    EXPECT_NEAR(f.state->volume.get(), 0.02, 1e-12);
    EXPECT_EQ(sets.count, 3);
}

TEST(BindingsTest, ToggleFollowsTheStateAndTheUsersClicks) {
    test::ViewFixture f;
    Bindings bindings;
    ToggleSwitch toggle;
    toggle.resize(toggle.sizeHint());
    bindings.toggle(&toggle, f.state->volumeScaling);
    EXPECT_TRUE(toggle.isChecked());
    SetCounter<bool> sets(f.state->volumeScaling);
    f.state->volumeScaling.set(false);
    EXPECT_FALSE(toggle.isChecked());
    EXPECT_EQ(sets.count, 1);
    QTest::mouseClick(&toggle, Qt::LeftButton);
    EXPECT_TRUE(f.state->volumeScaling.get());
    EXPECT_TRUE(toggle.isChecked());
    EXPECT_EQ(sets.count, 2);
}

TEST(BindingsTest, PackPickerListsThePacksAndLeavesAnUnknownNameUnselected) {
    test::ViewFixture f;
    Bindings bindings;
    QComboBox combo;
    bindings.packPicker(&combo, f.state->selectedPackName, f.state->availablePacks);
    ASSERT_EQ(combo.count(), 4);
    EXPECT_EQ(combo.itemText(0), QStringLiteral("Pain"));
    EXPECT_EQ(combo.itemText(3), QStringLiteral("Lizard"));
    EXPECT_EQ(combo.currentText(), QStringLiteral("Pain"));

    f.state->selectedPackName.set(QStringLiteral("Gone"));
    EXPECT_EQ(combo.currentIndex(), -1);
    EXPECT_EQ(f.state->selectedPackName.get(), QStringLiteral("Gone"));  // not rewritten

    // A refreshed list keeps the selection where the name is present.
    f.state->selectedPackName.set(QStringLiteral("Halo"));
    f.state->availablePacks.set({QStringLiteral("Halo"), QStringLiteral("Custom")});
    EXPECT_EQ(combo.count(), 2);
    EXPECT_EQ(combo.currentText(), QStringLiteral("Halo"));
    EXPECT_EQ(f.state->selectedPackName.get(), QStringLiteral("Halo"));

    f.state->availablePacks.set({});
    EXPECT_EQ(combo.count(), 0);
    EXPECT_EQ(f.state->selectedPackName.get(), QStringLiteral("Halo"));
}

TEST(BindingsTest, PickingAPackAssignsItsName) {
    test::ViewFixture f;
    Bindings bindings;
    QComboBox combo;
    bindings.packPicker(&combo, f.state->selectedPackName, f.state->availablePacks);
    SetCounter<QString> sets(f.state->selectedPackName);
    emit combo.activated(2);  // what the pop-up sends when the user picks an entry
    EXPECT_EQ(f.state->selectedPackName.get(), QStringLiteral("Halo"));
    EXPECT_EQ(combo.currentIndex(), 2);
    EXPECT_EQ(sets.count, 1);
}

TEST(BindingsTest, ModeControlsListTheModesInOrder) {
    test::ViewFixture f;
    Bindings bindings;
    QComboBox combo;
    SegmentedControl segments(
        {playModeTitle(PlayMode::random), playModeTitle(PlayMode::escalation)});
    bindings.modePicker(&combo, f.state->mode);
    bindings.segmented(&segments, f.state->mode);
    ASSERT_EQ(combo.count(), 2);
    EXPECT_EQ(combo.itemText(0), QStringLiteral("Random"));
    EXPECT_EQ(combo.itemText(1), QStringLiteral("Escalation"));
    EXPECT_EQ(segments.segment(1)->text(), QStringLiteral("Escalation"));
    EXPECT_EQ(segments.currentIndex(), 0);

    QTest::mouseClick(segments.segment(1), Qt::LeftButton);
    EXPECT_EQ(f.state->mode.get(), PlayMode::escalation);
    EXPECT_EQ(combo.currentIndex(), 1);  // the other control follows the state

    emit combo.activated(0);
    EXPECT_EQ(f.state->mode.get(), PlayMode::random);
    EXPECT_EQ(segments.currentIndex(), 0);
}

TEST(BindingsTest, SubscriptionsEndWithTheBindings) {
    test::ViewFixture f;
    const std::size_t before = f.state->sensitivity.subscriberCount();
    auto bindings = std::make_unique<Bindings>();
    QLabel label;
    bindings->text<double>(&label, f.state->sensitivity,
                           [](const double& v) { return QString::number(v); });
    EXPECT_EQ(label.text(), QStringLiteral("0.05"));
    EXPECT_EQ(f.state->sensitivity.subscriberCount(), before + 1);
    bindings.reset();
    EXPECT_EQ(f.state->sensitivity.subscriberCount(), before);
    f.state->sensitivity.set(0.2);
    EXPECT_EQ(label.text(), QStringLiteral("0.05"));
}

TEST(BindingsTest, LiveTextShowsAChangeAtOnceAndGathersTheRest) {
    test::ViewFixture f;
    Bindings bindings;
    QLabel label;
    int texts = 0;
    bindings.liveText(
        &label, f.state->liveMagnitude,
        [&texts](const double& v) {
            ++texts;
            return QString::number(v);
        },
        40);
    EXPECT_EQ(label.text(), QStringLiteral("0"));  // the current value at once
    f.state->liveMagnitude.set(0.5);
    EXPECT_EQ(label.text(), QStringLiteral("0.5"));  // first change after a quiet spell
    for (int i = 1; i <= 20; ++i) {
        f.state->liveMagnitude.set(i);
    }
    EXPECT_EQ(label.text(), QStringLiteral("0.5"));  // gathered
    EXPECT_TRUE(test::waitFor([&] { return label.text() == QStringLiteral("20"); }));
    EXPECT_EQ(texts, 3);  // initial, first change, the latest of the burst
    QTest::qWait(120);
    EXPECT_EQ(texts, 3);  // nothing more without changes
    f.state->liveMagnitude.set(7);
    EXPECT_EQ(label.text(), QStringLiteral("7"));
}

TEST(BindingsTest, AnyChangeSkipsSubscriptionAndLiveSamples) {
    test::ViewFixture f;
    Bindings bindings;
    int changes = 0;
    bindings.onAnyChange(*f.state, [&] { ++changes; });
    EXPECT_EQ(changes, 0);
    f.state->liveMagnitude.set(0.3);
    f.state->liveSeries.set({0.3});
    EXPECT_EQ(changes, 0);
    f.state->engineStatus.set(QStringLiteral("Engine running"));
    f.state->todayCount.set(3);
    f.state->cooldown.set(1.0);
    EXPECT_EQ(changes, 3);
}

}  // namespace
}  // namespace bonkwell

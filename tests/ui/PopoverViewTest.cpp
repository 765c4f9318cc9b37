// SPDX-License-Identifier: GPL-3.0-or-later
#include "PopoverView.h"
#include "UiTestSupport.h"
#include "Widgets.h"

#include <QComboBox>
#include <QImage>
#include <QPushButton>
#include <QTest>

#include <memory>

namespace bonkwell {
namespace {

using test::child;
using test::labelText;

class PopoverViewTest : public ::testing::Test {
  protected:
    void SetUp() override { build(); }

    void build() {
        view.reset();
        view = std::make_unique<PopoverView>(
            *f.state, f.detector, f.audio, f.packs, f.engine, [this] { ++settingsOpened; },
            [this] { ++calibrationOpened; }, [this] { ++quitRequested; });
        view->resize(PopoverView::kWidth, view->sizeHint().height());
        view->show();
        f.takeCalls();
    }

    QString bannerSymbol() const {
        return child<QLabel>(view.get(), QStringLiteral("engineBannerImage"))
            ->property("symbol")
            .toString();
    }
    QPushButton* installButton() const {
        return child<QPushButton>(view.get(), QStringLiteral("installButton"));
    }

    test::ViewFixture f;
    std::unique_ptr<PopoverView> view;
    int settingsOpened = 0;
    int calibrationOpened = 0;
    int quitRequested = 0;
};

TEST_F(PopoverViewTest, IsThreeHundredTwentyWideWithTheRowsInOrder) {
    EXPECT_EQ(view->width(), 320);
    EXPECT_EQ(view->minimumWidth(), 320);
    EXPECT_EQ(view->maximumWidth(), 320);
    EXPECT_EQ(labelText(view.get(), QStringLiteral("titleLabel")), QStringLiteral("Bonkwell"));
    const QStringList texts = test::visibleTexts(view.get());
    for (const char* text : {"Sound pack", "Mode", "Sensitivity", "Volume", "Today", "Total",
                             "Test", "Settings…", "Calibrate…", "Quit", "Random", "Escalation"}) {
        EXPECT_TRUE(texts.contains(QString::fromUtf8(text))) << text;
    }
    const auto y = [&](const char* name) {
        return child<QWidget>(view.get(), QLatin1String(name))->mapTo(view.get(), QPoint()).y();
    };
    EXPECT_LT(y("listeningSwitch"), y("engineStatusLabel"));
    EXPECT_LT(y("engineStatusLabel"), y("packPicker"));
    EXPECT_LT(y("packPicker"), y("modePicker"));
    EXPECT_LT(y("modePicker"), y("sensitivitySlider"));
    EXPECT_LT(y("sensitivitySlider"), y("sensitivityHint"));
    EXPECT_LT(y("sensitivityHint"), y("volumeSlider"));
    EXPECT_LT(y("volumeSlider"), y("todayCount"));
    EXPECT_LT(y("todayCount"), y("settingsButton"));
}

TEST_F(PopoverViewTest, SensitivityHintBands) {
    const std::pair<double, const char*> cases[] = {
        {0.149, "Light taps trigger sounds"},
        {0.15, "Balanced"},
        {0.35, "Balanced"},
        {0.351, "Only firm slaps trigger"},
        {0.05, "Light taps trigger sounds"},
        {0.5, "Only firm slaps trigger"},
    };
    for (const auto& [value, hint] : cases) {
        f.state->sensitivity.set(value);
        EXPECT_EQ(labelText(view.get(), QStringLiteral("sensitivityHint")), QLatin1String(hint))
            << value;
    }
    f.state->sensitivity.set(0.25);
    EXPECT_EQ(labelText(view.get(), QStringLiteral("sensitivityValue")), QStringLiteral("0.25g"));
}

TEST_F(PopoverViewTest, VolumeIsAWholeTruncatedPercentage) {
    f.state->volume.set(1.255);
    EXPECT_EQ(labelText(view.get(), QStringLiteral("volumeValue")), QStringLiteral("125%"));
    f.state->volume.set(2.0);
    EXPECT_EQ(labelText(view.get(), QStringLiteral("volumeValue")), QStringLiteral("200%"));
    f.state->volume.set(0.555);
    EXPECT_EQ(labelText(view.get(), QStringLiteral("volumeValue")), QStringLiteral("55%"));
}

TEST_F(PopoverViewTest, SlidersWriteTheStateOverTheirWholeRange) {
    auto* sensitivity = child<DoubleSlider>(view.get(), QStringLiteral("sensitivitySlider"));
    QTest::keyClick(sensitivity, Qt::Key_End);
    EXPECT_EQ(f.state->sensitivity.get(), 0.5);
    QTest::keyClick(sensitivity, Qt::Key_Home);
    EXPECT_EQ(f.state->sensitivity.get(), 0.05);
    auto* volume = child<DoubleSlider>(view.get(), QStringLiteral("volumeSlider"));
    QTest::keyClick(volume, Qt::Key_End);
    EXPECT_EQ(f.state->volume.get(), 2.0);
    EXPECT_EQ(labelText(view.get(), QStringLiteral("volumeValue")), QStringLiteral("200%"));
}

TEST_F(PopoverViewTest, InstalledHelperShowsTheGreenCheckAndNoButton) {
    f.engine.state = InstallState::installed;
    build();
    EXPECT_EQ(bannerSymbol(), QStringLiteral("checkmark.circle.fill"));
    EXPECT_FALSE(installButton()->isVisible());
}

TEST_F(PopoverViewTest, MissingHelperShowsTheTriangleAndAnInstallButtonThatOpensSettings) {
    for (InstallState s :
         {InstallState::notInstalled, InstallState::notSetuid, InstallState::bundleMissing}) {
        f.engine.state = s;
        build();
        EXPECT_EQ(bannerSymbol(), QStringLiteral("exclamationmark.triangle.fill"));
        ASSERT_TRUE(installButton()->isVisible());
        EXPECT_EQ(installButton()->text(), QStringLiteral("Install…"));
    }
    QTest::mouseClick(installButton(), Qt::LeftButton);
    EXPECT_EQ(settingsOpened, 1);
    EXPECT_EQ(calibrationOpened, 0);
}

// Without the engine the panel's way to it is its most visible button: filled with the
// accent colour like the Test button, and it says what installing brings.
TEST_F(PopoverViewTest, TheInstallButtonStandsOutAndSaysWhatTheEngineAdds) {
    f.engine.state = InstallState::notInstalled;
    build();
    view->resize(view->sizeHint());
    view->show();
    ASSERT_TRUE(installButton()->isVisible());
    const QImage install = installButton()->grab().toImage();
    const QImage test =
        child<QPushButton>(view.get(), QStringLiteral("testButton"))->grab().toImage();
    // A point in the left padding, clear of the text and the rounded corners.
    const QColor installFill = install.pixelColor(6, install.height() / 2);
    const QColor testFill = test.pixelColor(6, test.height() / 2);
    EXPECT_EQ(installFill.name(), testFill.name());
    EXPECT_NE(installFill.name(), view->palette().color(QPalette::Button).name());
    EXPECT_TRUE(installButton()->toolTip().contains(QStringLiteral("every direction")));
    EXPECT_TRUE(installButton()->toolTip().contains(QStringLiteral("Settings → General")));
}

TEST_F(PopoverViewTest, TheInstallStateIsReadAgainOnRefreshAndOnModelChangesOnly) {
    EXPECT_EQ(bannerSymbol(), QStringLiteral("exclamationmark.triangle.fill"));
    f.engine.state = InstallState::installed;  // nothing announces this
    EXPECT_EQ(bannerSymbol(), QStringLiteral("exclamationmark.triangle.fill"));
    view->refresh();  // what the tray does each time it shows the panel
    EXPECT_EQ(bannerSymbol(), QStringLiteral("checkmark.circle.fill"));
    EXPECT_FALSE(installButton()->isVisible());

    f.engine.state = InstallState::notSetuid;
    f.state->engineStatus.set(QStringLiteral("Engine stopped"));  // any model change
    EXPECT_EQ(bannerSymbol(), QStringLiteral("exclamationmark.triangle.fill"));

    // Hiding and showing again reads it too.
    f.engine.state = InstallState::installed;
    view->hide();
    view->show();
    EXPECT_EQ(bannerSymbol(), QStringLiteral("checkmark.circle.fill"));

    // Live samples do not touch the file system.
    const int reads = f.engine.installStateReads;
    for (int i = 0; i < 50; ++i) {
        f.state->liveMagnitude.set(0.01 * i);
        f.state->liveSeries.set({0.01 * i});
    }
    EXPECT_EQ(f.engine.installStateReads, reads);
}

TEST_F(PopoverViewTest, BannerShowsTheStatusAsItStandsOnOneLine) {
    auto* status = child<ElidedLabel>(view.get(), QStringLiteral("engineStatusLabel"));
    EXPECT_EQ(status->text(), QStringLiteral("Idle"));
    const QString longStatus = QStringLiteral(
        "Failed to launch helper: the helper could not be started because of a "
        "very long reason that does not fit");
    f.state->engineStatus.set(longStatus);
    EXPECT_EQ(status->text(), longStatus);
    EXPECT_TRUE(status->displayedText().endsWith(QChar(0x2026)));
    EXPECT_EQ(status->accessibleName(), longStatus);  // screen readers get all of it
    EXPECT_EQ(view->width(), 320);                    // the long text never widens the panel
    EXPECT_EQ(status->height(), status->fontMetrics().height());
}

TEST_F(PopoverViewTest, UnknownPackLeavesThePickerEmptyAndTestPlaysNothing) {
    f.state->selectedPackName.set(QStringLiteral("Vanished"));
    auto* picker = child<QComboBox>(view.get(), QStringLiteral("packPicker"));
    EXPECT_EQ(picker->currentIndex(), -1);
    EXPECT_EQ(picker->count(), 4);
    f.takeCalls();
    f.state->volume.set(0.5);
    f.takeCalls();
    QTest::mouseClick(child<QPushButton>(view.get(), QStringLiteral("testButton")), Qt::LeftButton);
    // The pack manager is asked for that name; the pack it gives has no files, so the
    // player is not asked to play.
    EXPECT_EQ(f.takeCalls(), QStringList{QStringLiteral("packs.pack(Vanished)")});
    f.packs.files[QStringLiteral("Vanished")] = QStringList{QStringLiteral("/x/a.mp3")};
    QTest::mouseClick(child<QPushButton>(view.get(), QStringLiteral("testButton")), Qt::LeftButton);
    EXPECT_EQ(f.takeCalls(), (QStringList{QStringLiteral("packs.pack(Vanished)"),
                                          QStringLiteral("audio.playTest(Vanished,0.5)")}));
}

TEST_F(PopoverViewTest, ToggleTooltipFollowsListening) {
    auto* toggle = child<ToggleSwitch>(view.get(), QStringLiteral("listeningSwitch"));
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_EQ(toggle->toolTip(), QStringLiteral("Listening"));
    QTest::mouseClick(toggle, Qt::LeftButton);
    EXPECT_FALSE(f.state->listeningEnabled.get());
    EXPECT_EQ(toggle->toolTip(), QStringLiteral("Paused"));
    f.state->listeningEnabled.set(true);
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_EQ(toggle->toolTip(), QStringLiteral("Listening"));
}

TEST_F(PopoverViewTest, PickersWriteTheState) {
    auto* picker = child<QComboBox>(view.get(), QStringLiteral("packPicker"));
    emit picker->activated(3);
    EXPECT_EQ(f.state->selectedPackName.get(), QStringLiteral("Lizard"));
    auto* mode = child<SegmentedControl>(view.get(), QStringLiteral("modePicker"));
    QTest::mouseClick(mode->segment(1), Qt::LeftButton);
    EXPECT_EQ(f.state->mode.get(), PlayMode::escalation);
    f.state->mode.set(PlayMode::random);
    EXPECT_EQ(mode->currentIndex(), 0);
}

TEST_F(PopoverViewTest, CountersFollowTheState) {
    f.state->todayCount.set(7);
    f.state->totalCount.set(12345);
    EXPECT_EQ(labelText(view.get(), QStringLiteral("todayCount")), QStringLiteral("7"));
    EXPECT_EQ(labelText(view.get(), QStringLiteral("totalCount")), QStringLiteral("12345"));
}

TEST_F(PopoverViewTest, FooterButtonsOnlyCallTheirActions) {
    QTest::mouseClick(child<QPushButton>(view.get(), QStringLiteral("settingsButton")),
                      Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(view.get(), QStringLiteral("calibrateButton")),
                      Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(view.get(), QStringLiteral("quitButton")), Qt::LeftButton);
    EXPECT_EQ(settingsOpened, 1);
    EXPECT_EQ(calibrationOpened, 1);
    EXPECT_EQ(quitRequested, 1);
    EXPECT_TRUE(view->isVisible());  // the panel never closes itself
}

TEST_F(PopoverViewTest, NoControlHasAKeyboardShortcut) {
    for (const QAbstractButton* button : view->findChildren<QAbstractButton*>()) {
        EXPECT_TRUE(button->shortcut().isEmpty()) << button->text().toStdString();
        EXPECT_FALSE(button->text().contains(QLatin1Char('&'))) << button->text().toStdString();
    }
}

TEST_F(PopoverViewTest, AViewOutlivedByItsModelLeavesNoSubscriptions) {
    const std::size_t before = f.state->engineStatus.subscriberCount();
    view.reset();
    EXPECT_LT(f.state->engineStatus.subscriberCount(), before);
    EXPECT_EQ(f.state->listeningEnabled.subscriberCount(), 0u);
    f.state->engineStatus.set(QStringLiteral("after"));  // must not touch the dead view
}

}  // namespace
}  // namespace bonkwell

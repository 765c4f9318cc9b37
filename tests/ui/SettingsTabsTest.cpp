// SPDX-License-Identifier: GPL-3.0-or-later
// The Sounds, Sensitivity, Diagnostics and About tabs.
#include "MagnitudeGraph.h"
#include "SettingsWindow.h"
#include "UiTestSupport.h"
#include "Widgets.h"

#include <QComboBox>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>

#include <memory>

namespace bonkwell {
namespace {

using test::child;
using test::labelText;

class SettingsTabsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        view = std::make_unique<SettingsRootView>(
            *f.state, f.audio, f.packs, f.engine, [this] { ++calibrationOpened; }, f.desktop);
        view->resize(520, 420);
        view->show();
        f.takeCalls();
    }
    void showTab(SettingsRootView::Tab tab) { view->tabs()->setCurrentIndex(tab); }
    QWidget* tab(const char* name) { return child<QWidget>(view.get(), QLatin1String(name)); }

    test::ViewFixture f;
    std::unique_ptr<SettingsRootView> view;
    int calibrationOpened = 0;
};

// ---- Sounds ----

TEST_F(SettingsTabsTest, SoundsVolumeIsTruncatedInAFiftySixPixelBox) {
    showTab(SettingsRootView::sounds);
    QWidget* sounds = tab("soundsTab");
    auto* value = child<QLabel>(sounds, QStringLiteral("volumeValue"));
    EXPECT_EQ(value->width(), 56);
    EXPECT_TRUE(value->alignment() & Qt::AlignRight);
    const std::pair<double, const char*> cases[] = {
        {0.0, "0%"}, {2.0, "200%"}, {0.555, "55%"}, {0.8, "80%"}};
    for (const auto& [volume, text] : cases) {
        f.state->volume.set(volume);
        EXPECT_EQ(value->text(), QLatin1String(text));
    }
    auto* slider = child<DoubleSlider>(sounds, QStringLiteral("volumeSlider"));
    EXPECT_EQ(slider->minimumValue(), 0.0);
    EXPECT_EQ(slider->maximumValue(), 2.0);
    QTest::keyClick(slider, Qt::Key_Home);
    EXPECT_EQ(f.state->volume.get(), 0.0);
}

TEST_F(SettingsTabsTest, SoundsPickersAndButtons) {
    showTab(SettingsRootView::sounds);
    QWidget* sounds = tab("soundsTab");
    auto* packs = child<QComboBox>(sounds, QStringLiteral("packPicker"));
    EXPECT_EQ(packs->count(), 4);
    EXPECT_EQ(packs->currentText(), QStringLiteral("Pain"));
    auto* modes = child<QComboBox>(sounds, QStringLiteral("modePicker"));
    EXPECT_EQ(modes->itemText(0), QStringLiteral("Random"));
    EXPECT_EQ(modes->itemText(1), QStringLiteral("Escalation"));
    emit modes->activated(1);
    EXPECT_EQ(f.state->mode.get(), PlayMode::escalation);
    emit packs->activated(1);
    EXPECT_EQ(f.state->selectedPackName.get(), QStringLiteral("Sexy"));
    f.takeCalls();

    f.state->volume.set(1.5);
    f.packs.files[QStringLiteral("Sexy")] = QStringList{QStringLiteral("/x/a.mp3")};
    f.takeCalls();
    QTest::mouseClick(child<QPushButton>(sounds, QStringLiteral("testSoundButton")),
                      Qt::LeftButton);
    EXPECT_EQ(f.takeCalls(), (QStringList{QStringLiteral("packs.pack(Sexy)"),
                                          QStringLiteral("audio.playTest(Sexy,1.5)")}));

    // Reload rescans the folders and fills the picker at once.
    f.packs.custom = {QStringLiteral("Mine")};
    QTest::mouseClick(child<QPushButton>(sounds, QStringLiteral("reloadPacksButton")),
                      Qt::LeftButton);
    EXPECT_EQ(packs->count(), 5);
    EXPECT_EQ(packs->itemText(4), QStringLiteral("Custom"));

    auto* folder = child<QPushButton>(sounds, QStringLiteral("openCustomFolderButton"));
    EXPECT_EQ(folder->text(), QStringLiteral("Open custom folder\u2026"));
    f.takeCalls();
    QTest::mouseClick(folder, Qt::LeftButton);
    EXPECT_EQ(f.takeCalls(), QStringList{QStringLiteral("packs.openCustomFolder")});
    EXPECT_EQ(labelText(sounds, QStringLiteral("customFolderNote")),
              QStringLiteral("Drop MP3s into the Custom folder to use them as a pack."));
    const QStringList texts = test::visibleTexts(sounds);
    for (const char* text : {"Sound pack", "Mode", "Volume"}) {
        EXPECT_TRUE(texts.contains(QLatin1String(text))) << text;
    }
}

TEST_F(SettingsTabsTest, SoundsWithNoPacksStillWorks) {
    showTab(SettingsRootView::sounds);
    QWidget* sounds = tab("soundsTab");
    f.state->availablePacks.set({});
    auto* packs = child<QComboBox>(sounds, QStringLiteral("packPicker"));
    EXPECT_EQ(packs->count(), 0);
    EXPECT_EQ(packs->currentIndex(), -1);
    QTest::keyClick(child<DoubleSlider>(sounds, QStringLiteral("volumeSlider")), Qt::Key_End);
    EXPECT_EQ(f.state->volume.get(), 2.0);
    f.takeCalls();
    QTest::mouseClick(child<QPushButton>(sounds, QStringLiteral("testSoundButton")),
                      Qt::LeftButton);
    EXPECT_EQ(f.takeCalls(), QStringList{QStringLiteral("packs.pack(Pain)")});  // no files
    f.packs.files[QStringLiteral("Pain")] = QStringList{QStringLiteral("/x/a.mp3")};
    QTest::mouseClick(child<QPushButton>(sounds, QStringLiteral("testSoundButton")),
                      Qt::LeftButton);
    EXPECT_EQ(f.takeCalls(), (QStringList{QStringLiteral("packs.pack(Pain)"),
                                          QStringLiteral("audio.playTest(Pain,2)")}));
    emit child<QComboBox>(sounds, QStringLiteral("modePicker"))->activated(1);
    EXPECT_EQ(f.state->mode.get(), PlayMode::escalation);
}

// ---- Sensitivity ----

TEST_F(SettingsTabsTest, ThresholdAndCooldownFormats) {
    showTab(SettingsRootView::sensitivity);
    QWidget* tabWidget = tab("sensitivityTab");
    f.state->sensitivity.set(0.05);
    EXPECT_EQ(labelText(tabWidget, QStringLiteral("thresholdValue")), QStringLiteral("0.050 g"));
    f.state->sensitivity.set(0.5);
    EXPECT_EQ(labelText(tabWidget, QStringLiteral("thresholdValue")), QStringLiteral("0.500 g"));
    f.state->cooldown.set(3.0);
    EXPECT_EQ(labelText(tabWidget, QStringLiteral("cooldownValue")), QStringLiteral("3000 ms"));
    f.state->cooldown.set(0.1);
    EXPECT_EQ(labelText(tabWidget, QStringLiteral("cooldownValue")), QStringLiteral("100 ms"));
    f.state->cooldown.set(0.25);
    EXPECT_EQ(labelText(tabWidget, QStringLiteral("cooldownValue")), QStringLiteral("250 ms"));
}

TEST_F(SettingsTabsTest, SensitivitySlidersCoverTheirRanges) {
    showTab(SettingsRootView::sensitivity);
    QWidget* tabWidget = tab("sensitivityTab");
    auto* threshold = child<DoubleSlider>(tabWidget, QStringLiteral("thresholdSlider"));
    auto* cooldown = child<DoubleSlider>(tabWidget, QStringLiteral("cooldownSlider"));
    QTest::keyClick(threshold, Qt::Key_End);
    EXPECT_EQ(f.state->sensitivity.get(), 0.5);
    QTest::keyClick(threshold, Qt::Key_Home);
    EXPECT_EQ(f.state->sensitivity.get(), 0.05);
    QTest::keyClick(cooldown, Qt::Key_End);
    EXPECT_EQ(f.state->cooldown.get(), 3.0);
    EXPECT_EQ(labelText(tabWidget, QStringLiteral("cooldownValue")), QStringLiteral("3000 ms"));
    QTest::keyClick(cooldown, Qt::Key_Home);
    EXPECT_EQ(f.state->cooldown.get(), 0.1);
    EXPECT_EQ(labelText(tabWidget, QStringLiteral("cooldownValue")), QStringLiteral("100 ms"));
}

TEST_F(SettingsTabsTest, OpenCalibrationCallsTheAction) {
    showTab(SettingsRootView::sensitivity);
    auto* button =
        child<QPushButton>(tab("sensitivityTab"), QStringLiteral("openCalibrationButton"));
    EXPECT_EQ(button->text(), QStringLiteral("Open Calibration\u2026"));
    QTest::mouseClick(button, Qt::LeftButton);
    EXPECT_EQ(calibrationOpened, 1);
}

// ---- Diagnostics ----

TEST_F(SettingsTabsTest, DiagnosticsShowsTheLiveValueAndThreshold) {
    showTab(SettingsRootView::diagnostics);
    QWidget* diag = tab("diagnosticsTab");
    f.state->liveMagnitude.set(1.0);
    f.state->sensitivity.set(0.15);
    EXPECT_EQ(labelText(diag, QStringLiteral("nowValue")), QStringLiteral("1.0000 g"));
    EXPECT_EQ(labelText(diag, QStringLiteral("diagnosticsThreshold")),
              QStringLiteral("Threshold: 0.150 g"));
    EXPECT_EQ(labelText(diag, QStringLiteral("diagnosticsExplanation")),
              QStringLiteral("If the graph stays flat, the system isn't returning accelerometer "
                             "data \u2014 either the machine lacks one or device permissions are "
                             "blocked."));
    const QStringList texts = test::visibleTexts(diag);
    EXPECT_TRUE(texts.contains(QStringLiteral("Live accelerometer magnitude")));
    EXPECT_TRUE(texts.contains(QStringLiteral("Now:")));
}

TEST_F(SettingsTabsTest, AnEmptySeriesKeepsTheGraphHeightAndTheLastMagnitude) {
    showTab(SettingsRootView::diagnostics);
    QWidget* diag = tab("diagnosticsTab");
    auto* graph = child<MagnitudeGraph>(diag, QStringLiteral("diagnosticsGraph"));
    f.state->liveSeries.set({0.1, 0.2});
    f.state->liveMagnitude.set(0.2);
    f.state->liveSeries.set({});
    EXPECT_TRUE(graph->series().empty());
    EXPECT_EQ(graph->height(), 160);
    EXPECT_GT(graph->width(), 400);
    EXPECT_EQ(labelText(diag, QStringLiteral("nowValue")), QStringLiteral("0.2000 g"));
    f.state->sensitivity.set(0.3);
    EXPECT_EQ(graph->threshold(), 0.3);
}

// ---- About ----

TEST_F(SettingsTabsTest, AboutShowsTheSameFourLinesWhateverTheState) {
    showTab(SettingsRootView::about);
    QWidget* about = tab("aboutTab");
    auto lines = [&] {
        return QStringList{labelText(about, QStringLiteral("aboutTitle")),
                           labelText(about, QStringLiteral("aboutVersion")),
                           labelText(about, QStringLiteral("aboutSlogan"))};
    };
    const QStringList expected{QStringLiteral("Bonkwell"),
                               QStringLiteral("Version 1.0.0 \u00B7 Native port of thuzz"),
                               QStringLiteral("Slap your laptop. Hear it complain.")};
    EXPECT_EQ(lines(), expected);
    EXPECT_FALSE(child<QLabel>(about, QStringLiteral("aboutImage"))->pixmap().isNull());
    f.state->listeningEnabled.set(false);
    f.state->todayCount.set(99);
    f.state->engineStatus.set(QStringLiteral("Engine stopped"));
    f.state->liveMagnitude.set(3.0);
    EXPECT_EQ(lines(), expected);
    EXPECT_FALSE(child<QLabel>(about, QStringLiteral("aboutImage"))->pixmap().isNull());
}

}  // namespace
}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
// The Sounds, Sensitivity, Diagnostics and About tabs of the Settings window.
#include "SettingsWindow.h"

#include "FormParts.h"
#include "Formats.h"
#include "MagnitudeGraph.h"
#include "Style.h"
#include "Widgets.h"

#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace bonkwell {

using style::TextStyle;

namespace {

QPushButton* textButton(const QString& title, const QString& objectName, QWidget* parent) {
    auto* button = new QPushButton(title, parent);
    button->setObjectName(objectName);
    button->setAutoDefault(false);
    return button;
}

// "Title ……… value" above a slider.
QLabel* valueHeader(const QString& title, const QString& valueName, QVBoxLayout* into,
                    QWidget* parent) {
    auto* line = new QHBoxLayout;
    line->addWidget(new QLabel(title, parent));
    line->addStretch(1);
    auto* value = new QLabel(parent);
    value->setObjectName(valueName);
    line->addWidget(value);
    into->addLayout(line);
    return value;
}

}  // namespace

QWidget* SettingsRootView::buildSoundsTab() {
    auto* content = new QWidget;
    content->setObjectName(QStringLiteral("soundsTab"));
    auto* layout = new QVBoxLayout(content);
    layout->setSpacing(10);

    auto* card = new form::Card(content);
    auto* fields = new QFormLayout;
    fields->setLabelAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    fields->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    fields->setHorizontalSpacing(16);
    fields->setVerticalSpacing(10);

    auto* pack = new QComboBox(card);
    pack->setObjectName(QStringLiteral("packPicker"));
    pack->setAccessibleName(QStringLiteral("Sound pack"));
    bindings_.packPicker(pack, state_.selectedPackName, state_.availablePacks);
    fields->addRow(QStringLiteral("Sound pack"), pack);

    auto* mode = new QComboBox(card);
    mode->setObjectName(QStringLiteral("modePicker"));
    mode->setAccessibleName(QStringLiteral("Mode"));
    bindings_.modePicker(mode, state_.mode);
    fields->addRow(QStringLiteral("Mode"), mode);

    auto* volumeRow = new QHBoxLayout;
    auto* volume = new DoubleSlider(0.0, 2.0, card);
    volume->setObjectName(QStringLiteral("volumeSlider"));
    volume->setAccessibleName(QStringLiteral("Volume"));
    bindings_.slider(volume, state_.volume);
    volumeRow->addWidget(volume, 1);
    auto* percent = new QLabel(card);
    percent->setObjectName(QStringLiteral("volumeValue"));
    percent->setFixedWidth(56);
    percent->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    bindings_.text<double>(percent, state_.volume, format::percent);
    volumeRow->addWidget(percent);
    fields->addRow(QStringLiteral("Volume"), volumeRow);
    card->rows()->addLayout(fields);
    layout->addWidget(card);

    auto* buttons = new QHBoxLayout;
    QPushButton* test =
        textButton(QStringLiteral("Test sound"), QStringLiteral("testSoundButton"), content);
    connect(test, &QPushButton::clicked, this, [this] {
        const SoundPack pack = packManager_.pack(state_.selectedPackName.get());
        if (!pack.files.isEmpty()) {  // a pack without files plays nothing
            audio_.playTest(pack, state_.volume.get());
        }
    });
    buttons->addWidget(test);
    QPushButton* reload =
        textButton(QStringLiteral("Reload packs"), QStringLiteral("reloadPacksButton"), content);
    connect(reload, &QPushButton::clicked, this,
            [this] { state_.refreshAvailablePacks(packManager_); });
    buttons->addWidget(reload);
    QPushButton* custom = textButton(QStringLiteral("Open custom folder…"),
                                     QStringLiteral("openCustomFolderButton"), content);
    connect(custom, &QPushButton::clicked, this, [this] { packManager_.openCustomFolder(); });
    buttons->addWidget(custom);
    buttons->addStretch(1);
    layout->addLayout(buttons);

    layout->addWidget(
        form::note(QStringLiteral("Drop MP3s into the Custom folder to use them as a pack."),
                   TextStyle::caption, content, QStringLiteral("customFolderNote")));
    layout->addStretch(1);
    return content;
}

QWidget* SettingsRootView::buildSensitivityTab() {
    auto* content = new QWidget;
    content->setObjectName(QStringLiteral("sensitivityTab"));
    auto* layout = new QVBoxLayout(content);
    layout->setSpacing(10);

    auto* card = new form::Card(content);
    QVBoxLayout* rows = card->rows();
    rows->setSpacing(4);
    QLabel* threshold =
        valueHeader(QStringLiteral("Threshold"), QStringLiteral("thresholdValue"), rows, card);
    bindings_.text<double>(threshold, state_.sensitivity, format::threshold);
    auto* thresholdSlider = new DoubleSlider(0.05, 0.5, card);
    thresholdSlider->setObjectName(QStringLiteral("thresholdSlider"));
    thresholdSlider->setAccessibleName(QStringLiteral("Threshold"));
    bindings_.slider(thresholdSlider, state_.sensitivity);
    rows->addWidget(thresholdSlider);
    rows->addSpacing(12);

    QLabel* cooldown =
        valueHeader(QStringLiteral("Cooldown"), QStringLiteral("cooldownValue"), rows, card);
    bindings_.text<double>(cooldown, state_.cooldown, format::milliseconds);
    auto* cooldownSlider = new DoubleSlider(0.1, 3.0, card);
    cooldownSlider->setObjectName(QStringLiteral("cooldownSlider"));
    cooldownSlider->setAccessibleName(QStringLiteral("Cooldown"));
    bindings_.slider(cooldownSlider, state_.cooldown);
    rows->addWidget(cooldownSlider);
    layout->addWidget(card);

    auto* buttons = new QHBoxLayout;
    QPushButton* calibrate = textButton(QStringLiteral("Open Calibration…"),
                                        QStringLiteral("openCalibrationButton"), content);
    connect(calibrate, &QPushButton::clicked, this, [this] {
        if (openCalibration_) {
            openCalibration_();
        }
    });
    buttons->addWidget(calibrate);
    buttons->addStretch(1);
    layout->addLayout(buttons);
    layout->addStretch(1);
    return content;
}

QWidget* SettingsRootView::buildDiagnosticsTab() {
    auto* content = new QWidget;
    content->setObjectName(QStringLiteral("diagnosticsTab"));
    auto* layout = new QVBoxLayout(content);
    layout->setSpacing(10);
    layout->addWidget(
        form::label(QStringLiteral("Live accelerometer magnitude"), TextStyle::headline, content));

    auto* now = new QHBoxLayout;
    now->addWidget(new QLabel(QStringLiteral("Now:"), content));
    auto* magnitude = new QLabel(content);
    magnitude->setObjectName(QStringLiteral("nowValue"));
    fixSizeForText(magnitude, QStringLiteral("88.8888 g"));
    bindings_.liveText(magnitude, state_.liveMagnitude, format::magnitude);
    now->addWidget(magnitude);
    now->addStretch(1);
    auto* threshold = new QLabel(content);
    threshold->setObjectName(QStringLiteral("diagnosticsThreshold"));
    style::setSecondary(threshold);
    bindings_.text<double>(threshold, state_.sensitivity, [](const double& t) {
        return QStringLiteral("Threshold: ") + format::threshold(t);
    });
    now->addWidget(threshold);
    layout->addLayout(now);

    auto* graph = new MagnitudeGraph(content);
    graph->setObjectName(QStringLiteral("diagnosticsGraph"));
    graph->setFixedHeight(160);
    bindings_.observe<std::vector<double>>(
        state_.liveSeries, [graph](const std::vector<double>& s) { graph->setSeries(s); });
    bindings_.observe<double>(state_.sensitivity,
                              [graph](const double& t) { graph->setThreshold(t); });
    layout->addWidget(graph);

    layout->addWidget(form::note(
        QStringLiteral("If the graph stays flat, the system isn't returning accelerometer data "
                       "\u2014 either the machine lacks one or device permissions are blocked."),
        TextStyle::caption, content, QStringLiteral("diagnosticsExplanation")));
    layout->addStretch(1);
    return content;
}

QWidget* SettingsRootView::buildAboutTab() {
    auto* content = new QWidget;
    content->setObjectName(QStringLiteral("aboutTab"));
    auto* layout = new QVBoxLayout(content);
    layout->setSpacing(12);
    layout->setAlignment(Qt::AlignHCenter);
    layout->addSpacing(12);
    aboutImage_ = new QLabel(content);
    aboutImage_->setObjectName(QStringLiteral("aboutImage"));
    layout->addWidget(aboutImage_, 0, Qt::AlignHCenter);
    layout->addWidget(form::label(QStringLiteral("Bonkwell"), TextStyle::title, content,
                                  QStringLiteral("aboutTitle")),
                      0, Qt::AlignHCenter);
    QLabel* version = form::label(QStringLiteral("Version 1.0.0 \u00B7 Native port of thuzz"),
                                  TextStyle::caption, content, QStringLiteral("aboutVersion"));
    style::setSecondary(version);
    layout->addWidget(version, 0, Qt::AlignHCenter);
    QLabel* slogan = form::label(QStringLiteral("Slap your laptop. Hear it complain."),
                                 TextStyle::callout, content, QStringLiteral("aboutSlogan"));
    style::setSecondary(slogan);
    layout->addWidget(slogan, 0, Qt::AlignHCenter);
    layout->addStretch(1);
    return content;
}

}  // namespace bonkwell

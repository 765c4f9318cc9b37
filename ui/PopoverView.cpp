// SPDX-License-Identifier: GPL-3.0-or-later
#include "PopoverView.h"

#include "Formats.h"
#include "Style.h"
#include "Symbols.h"
#include "Widgets.h"

#include <QComboBox>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace bonkwell {

using style::TextStyle;

namespace {

QLabel* makeLabel(const QString& text, TextStyle textStyle, QWidget* parent,
                  const QString& objectName = {}) {
    auto* label = new QLabel(text, parent);
    style::setTextStyle(label, textStyle);
    if (!objectName.isEmpty()) {
        label->setObjectName(objectName);
    }
    return label;
}

QHBoxLayout* row(QWidget* host, int spacing = -1) {
    auto* layout = new QHBoxLayout(host);
    layout->setContentsMargins(0, 0, 0, 0);
    if (spacing >= 0) {
        layout->setSpacing(spacing);
    }
    return layout;
}

QVBoxLayout* column(QWidget* host, int spacing) {
    auto* layout = new QVBoxLayout(host);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(spacing);
    return layout;
}

}  // namespace

PopoverView::PopoverView(AppState& state, SlapDetectorInterface& detector,
                         AudioPlayerInterface& audio, SoundPackManagerInterface& packManager,
                         ThuzzEngineInterface& engine, std::function<void()> openSettings,
                         std::function<void()> openCalibration, std::function<void()> quit,
                         QWidget* parent)
    : QWidget(parent),
      state_(state),
      detector_(detector),
      audio_(audio),
      packManager_(packManager),
      engine_(engine),
      openSettings_(std::move(openSettings)),
      openCalibration_(std::move(openCalibration)),
      quit_(std::move(quit)) {
    setObjectName(QStringLiteral("popoverView"));
    setFixedWidth(kWidth);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(14, 14, 14, 14);
    layout->setSpacing(14);
    layout->addWidget(buildHeader());
    layout->addWidget(buildBanner());
    layout->addWidget(makeDivider(this));
    layout->addWidget(buildControls());
    layout->addWidget(makeDivider(this));
    layout->addWidget(buildCounts());
    layout->addWidget(makeDivider(this));
    layout->addWidget(buildFooter());

    updateIcons();
    refresh();
    // The panel is redrawn on every change of the model; the install state, which nothing
    // announces, is read again each time.
    bindings_.onAnyChange(state_, [this] { refresh(); });
}

PopoverView::~PopoverView() {
    bindings_.clear();
}

QWidget* PopoverView::buildHeader() {
    auto* header = new QWidget(this);
    auto* layout = row(header);
    handImage_ = new QLabel(header);
    handImage_->setObjectName(QStringLiteral("headerImage"));
    layout->addWidget(handImage_);
    layout->addWidget(makeLabel(QStringLiteral("Bonkwell"), TextStyle::headline, header,
                                QStringLiteral("titleLabel")));
    layout->addStretch(1);
    listeningSwitch_ = new ToggleSwitch(header);
    listeningSwitch_->setObjectName(QStringLiteral("listeningSwitch"));
    listeningSwitch_->setAccessibleName(QStringLiteral("Listening"));
    bindings_.toggle(listeningSwitch_, state_.listeningEnabled);
    ToggleSwitch* toggle = listeningSwitch_;
    bindings_.observe<bool>(state_.listeningEnabled, [toggle](const bool& on) {
        toggle->setToolTip(on ? QStringLiteral("Listening") : QStringLiteral("Paused"));
    });
    layout->addWidget(listeningSwitch_);
    return header;
}

QWidget* PopoverView::buildBanner() {
    auto* banner = new QWidget(this);
    banner->setObjectName(QStringLiteral("engineBanner"));
    auto* layout = row(banner, 6);
    bannerImage_ = new QLabel(banner);
    bannerImage_->setObjectName(QStringLiteral("engineBannerImage"));
    layout->addWidget(bannerImage_);
    bannerText_ = new ElidedLabel(banner);
    bannerText_->setObjectName(QStringLiteral("engineStatusLabel"));
    style::setTextStyle(bannerText_, TextStyle::caption);
    ElidedLabel* text = bannerText_;
    bindings_.observe<QString>(state_.engineStatus,
                               [text](const QString& status) { text->setText(status); });
    layout->addWidget(bannerText_, 1);
    installButton_ = new QPushButton(QStringLiteral("Install…"), banner);
    installButton_->setObjectName(QStringLiteral("installButton"));
    style::setTextStyle(installButton_, TextStyle::caption);
    installButton_->setAutoDefault(false);
    installButton_->setToolTip(
        QStringLiteral("Install the detection engine in Settings → General: it feels slaps from "
                       "every direction. Without it, only slaps on the lid or the palm rest, "
                       "along gravity, are felt."));
    installButton_->setAccessibleDescription(installButton_->toolTip());
    connect(installButton_, &QPushButton::clicked, this, [this] {
        if (openSettings_) {
            openSettings_();
        }
    });
    layout->addWidget(installButton_);
    return banner;
}

QWidget* PopoverView::buildControls() {
    auto* controls = new QWidget(this);
    auto* layout = column(controls, 10);

    auto* packRow = new QWidget(controls);
    auto* packLayout = row(packRow);
    auto* packLabel = makeLabel(QStringLiteral("Sound pack"), TextStyle::body, packRow);
    packLabel->setFixedWidth(100);
    packLayout->addWidget(packLabel);
    auto* packPicker = new QComboBox(packRow);
    packPicker->setObjectName(QStringLiteral("packPicker"));
    packPicker->setAccessibleName(QStringLiteral("Sound pack"));
    packPicker->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    bindings_.packPicker(packPicker, state_.selectedPackName, state_.availablePacks);
    packLayout->addWidget(packPicker, 1);
    layout->addWidget(packRow);

    auto* modeRow = new QWidget(controls);
    auto* modeLayout = row(modeRow);
    auto* modeLabel = makeLabel(QStringLiteral("Mode"), TextStyle::body, modeRow);
    modeLabel->setFixedWidth(100);
    modeLayout->addWidget(modeLabel);
    QStringList titles;
    for (PlayMode mode : kAllPlayModes) {
        titles.append(playModeTitle(mode));
    }
    auto* modePicker = new SegmentedControl(titles, modeRow);
    modePicker->setObjectName(QStringLiteral("modePicker"));
    modePicker->setAccessibleName(QStringLiteral("Mode"));
    bindings_.segmented(modePicker, state_.mode);
    modeLayout->addWidget(modePicker, 1);
    layout->addWidget(modeRow);

    // Sensitivity: value, slider, hint.
    auto* sensitivity = new QWidget(controls);
    auto* sensLayout = column(sensitivity, 4);
    auto* sensHeader = new QWidget(sensitivity);
    auto* sensHeaderLayout = row(sensHeader);
    sensHeaderLayout->addWidget(
        makeLabel(QStringLiteral("Sensitivity"), TextStyle::body, sensHeader));
    sensHeaderLayout->addStretch(1);
    auto* sensValue =
        makeLabel({}, TextStyle::body, sensHeader, QStringLiteral("sensitivityValue"));
    style::setSecondary(sensValue);
    bindings_.text<double>(sensValue, state_.sensitivity, format::sensitivityShort);
    sensHeaderLayout->addWidget(sensValue);
    sensLayout->addWidget(sensHeader);
    auto* sensSlider = new DoubleSlider(0.05, 0.5, sensitivity);
    sensSlider->setObjectName(QStringLiteral("sensitivitySlider"));
    sensSlider->setAccessibleName(QStringLiteral("Sensitivity"));
    bindings_.slider(sensSlider, state_.sensitivity);
    sensLayout->addWidget(sensSlider);
    auto* hint = makeLabel({}, TextStyle::caption2, sensitivity, QStringLiteral("sensitivityHint"));
    style::setSecondary(hint);
    bindings_.text<double>(hint, state_.sensitivity, format::sensitivityHint);
    sensLayout->addWidget(hint);
    layout->addWidget(sensitivity);

    // Volume: value and slider.
    auto* volume = new QWidget(controls);
    auto* volLayout = column(volume, 4);
    auto* volHeader = new QWidget(volume);
    auto* volHeaderLayout = row(volHeader);
    volHeaderLayout->addWidget(makeLabel(QStringLiteral("Volume"), TextStyle::body, volHeader));
    volHeaderLayout->addStretch(1);
    auto* volValue = makeLabel({}, TextStyle::body, volHeader, QStringLiteral("volumeValue"));
    style::setSecondary(volValue);
    bindings_.text<double>(volValue, state_.volume, format::percent);
    volHeaderLayout->addWidget(volValue);
    volLayout->addWidget(volHeader);
    auto* volSlider = new DoubleSlider(0.0, 2.0, volume);
    volSlider->setObjectName(QStringLiteral("volumeSlider"));
    volSlider->setAccessibleName(QStringLiteral("Volume"));
    bindings_.slider(volSlider, state_.volume);
    volLayout->addWidget(volSlider);
    layout->addWidget(volume);
    return controls;
}

QWidget* PopoverView::buildCounts() {
    auto* counts = new QWidget(this);
    auto* layout = row(counts);
    auto addCounter = [&](const QString& title, Published<std::int64_t>& property,
                          const QString& objectName) {
        auto* box = new QWidget(counts);
        auto* boxLayout = column(box, 0);
        auto* caption = makeLabel(title, TextStyle::caption, box);
        style::setSecondary(caption);
        boxLayout->addWidget(caption);
        auto* value = makeLabel({}, TextStyle::title2, box, objectName);
        bindings_.text<std::int64_t>(value, property,
                                     [](const std::int64_t& n) { return QString::number(n); });
        boxLayout->addWidget(value);
        layout->addWidget(box);
    };
    addCounter(QStringLiteral("Today"), state_.todayCount, QStringLiteral("todayCount"));
    layout->addSpacing(12);
    addCounter(QStringLiteral("Total"), state_.totalCount, QStringLiteral("totalCount"));
    layout->addStretch(1);
    testButton_ = new QPushButton(QStringLiteral("Test"), counts);
    testButton_->setObjectName(QStringLiteral("testButton"));
    testButton_->setAutoDefault(false);
    testButton_->setMinimumHeight(30);
    connect(testButton_, &QPushButton::clicked, this, [this] { playTest(); });
    layout->addWidget(testButton_);
    return counts;
}

QWidget* PopoverView::buildFooter() {
    auto* footer = new QWidget(this);
    auto* layout = row(footer, 12);
    auto addButton = [&](const QString& title, const QString& objectName,
                         std::function<void()>* action) {
        auto* button = new QPushButton(title, footer);
        button->setObjectName(objectName);
        button->setAutoDefault(false);
        style::setTextStyle(button, TextStyle::callout);
        connect(button, &QPushButton::clicked, this, [action] {
            if (*action) {
                (*action)();
            }
        });
        return button;
    };
    layout->addWidget(
        addButton(QStringLiteral("Settings…"), QStringLiteral("settingsButton"), &openSettings_));
    layout->addWidget(addButton(QStringLiteral("Calibrate…"), QStringLiteral("calibrateButton"),
                                &openCalibration_));
    layout->addStretch(1);
    QPushButton* quitButton =
        addButton(QStringLiteral("Quit"), QStringLiteral("quitButton"), &quit_);
    quitButton_ = quitButton;
    layout->addWidget(quitButton);
    return footer;
}

void PopoverView::playTest() {
    // The pack manager always yields a pack, possibly without files: then nothing plays.
    const SoundPack pack = packManager_.pack(state_.selectedPackName.get());
    if (pack.files.isEmpty()) {
        return;
    }
    audio_.playTest(pack, state_.volume.get());
}

void PopoverView::refresh() {
    engineInstalled_ = engine_.installState() == InstallState::installed;
    const QString symbol = engineInstalled_ ? QStringLiteral("checkmark.circle.fill")
                                            : QStringLiteral("exclamationmark.triangle.fill");
    const QColor color = engineInstalled_ ? style::green() : style::orange();
    bannerImage_->setPixmap(symbols::pixmap(symbol, color, 14, devicePixelRatioF()));
    bannerImage_->setProperty("symbol", symbol);
    installButton_->setVisible(!engineInstalled_);
}

void PopoverView::updateIcons() {
    const QPalette& p = palette();
    handImage_->setPixmap(symbols::handPixmap(style::accent(p), 22, devicePixelRatioF()));
    // Prominent: filled with the accent colour, in the theme's highlighted text colour.
    const QColor fill = style::accent(p);
    const QColor text = p.color(QPalette::HighlightedText);
    const auto prominent = [&](const QString& padding) {
        return QStringLiteral(
                   "QPushButton { background-color: %1; color: %2; border: 1px solid %3;"
                   " border-radius: 5px; padding: %5; font-weight: 600; }"
                   " QPushButton:hover { background-color: %4; }"
                   " QPushButton:pressed { background-color: %3; }")
            .arg(fill.name(), text.name(), fill.darker(125).name(), fill.lighter(110).name(),
                 padding);
    };
    testButton_->setStyleSheet(prominent(QStringLiteral("4px 14px")));
    testButton_->setIcon(symbols::icon(QStringLiteral("play.fill"), text));
    // Without the engine only jolts along gravity count: installing it is the next step, so
    // its button stands out the same way.
    installButton_->setStyleSheet(prominent(QStringLiteral("2px 10px")));
    // Quit is destructive: red text.
    QPalette quitPalette = p;
    quitPalette.setColor(QPalette::ButtonText, style::destructiveText(p));
    quitButton_->setPalette(quitPalette);
}

void PopoverView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    refresh();
}

void PopoverView::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange && handImage_ != nullptr) {
        updateIcons();
        refresh();
    }
}

}  // namespace bonkwell

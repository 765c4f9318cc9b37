// SPDX-License-Identifier: GPL-3.0-or-later
// The Settings window's content and its General tab with the engine row.
#include "SettingsWindow.h"

#include "FormParts.h"
#include "Formats.h"
#include "Log.h"
#include "Style.h"
#include "Symbols.h"
#include "Widgets.h"

#include <QApplication>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QTabBar>
#include <QTabWidget>
#include <QVBoxLayout>

namespace bonkwell {

using style::TextStyle;

namespace {

struct TabInfo {
    const char* title;
    const char* symbol;
};
constexpr TabInfo kTabs[] = {
    {"General", "gearshape"},    {"Sounds", "speaker.wave.2.fill"}, {"Sensitivity", "dial.high"},
    {"Diagnostics", "waveform"}, {"About", "info.circle"},
};

struct EngineLook {
    QString text;
    QString symbol;
    QColor color;
};

EngineLook engineLook(InstallState s) {
    switch (s) {
        case InstallState::bundleMissing:
            return {QStringLiteral("Helper binary missing from bundle"),
                    QStringLiteral("xmark.octagon.fill"), style::red()};
        case InstallState::notInstalled:
            return {QStringLiteral("Not installed"), QStringLiteral("xmark.circle.fill"),
                    style::orange()};
        case InstallState::notSetuid:
            return {QStringLiteral("Installed but not setuid root"),
                    QStringLiteral("exclamationmark.triangle.fill"), style::orange()};
        case InstallState::installed:
            break;
    }
    return {QStringLiteral("Installed"), QStringLiteral("checkmark.circle.fill"), style::green()};
}

}  // namespace

SettingsRootView::SettingsRootView(AppState& state, AudioPlayerInterface& audio,
                                   SoundPackManagerInterface& packManager,
                                   ThuzzEngineInterface& engine,
                                   std::function<void()> openCalibration,
                                   DesktopIntegration& desktop, QWidget* parent)
    : QWidget(parent),
      state_(state),
      audio_(audio),
      packManager_(packManager),
      engine_(engine),
      openCalibration_(std::move(openCalibration)),
      desktop_(desktop) {
    setObjectName(QStringLiteral("settingsRootView"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);
    tabs_ = new QTabWidget(this);
    tabs_->setObjectName(QStringLiteral("settingsTabs"));
    tabs_->setDocumentMode(false);
    tabs_->setUsesScrollButtons(false);
    // Five titled tabs with symbols fit the fixed width with slightly smaller tab text.
    tabs_->tabBar()->setFont(style::font(TextStyle::callout));
    tabs_->setIconSize(QSize(14, 14));
    QWidget* pages[] = {buildGeneralTab(), buildSoundsTab(), buildSensitivityTab(),
                        buildDiagnosticsTab(), buildAboutTab()};
    for (std::size_t i = 0; i < std::size(kTabs); ++i) {
        tabs_->addTab(form::page(pages[i], tabs_), QLatin1String(kTabs[i].title));
    }
    tabs_->setCurrentIndex(general);
    layout->addWidget(tabs_);
    updateIcons();
    fitTabTitles();

    refreshEngineRow();
    // The engine row is redrawn on every change of the model, reading the install state again.
    bindings_.onAnyChange(state_, [this] { refreshEngineRow(); });
}

SettingsRootView::~SettingsRootView() {
    bindings_.clear();
}

void SettingsRootView::fitTabTitles() {
    // With a large interface font the five tabs would not fit the fixed width: shrink
    // their text until they do.
    tabs_->tabBar()->ensurePolished();
    QFont tabFont = tabs_->tabBar()->font();
    const int room = SettingsWindowController::kWidth - 2 * 16 - 4;
    while (tabs_->tabBar()->sizeHint().width() > room && tabFont.pointSizeF() > 6.0) {
        tabFont.setPointSizeF(tabFont.pointSizeF() - 0.5);
        tabs_->tabBar()->setFont(tabFont);
    }
}

void SettingsRootView::updateIcons() {
    const QColor text = style::primaryText(palette());
    for (std::size_t i = 0; i < std::size(kTabs); ++i) {
        tabs_->setTabIcon(static_cast<int>(i), symbols::icon(QLatin1String(kTabs[i].symbol), text));
    }
    aboutImage_->setPixmap(symbols::handPixmap(style::accent(palette()), 52, devicePixelRatioF()));
}

void SettingsRootView::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange && tabs_ != nullptr) {
        updateIcons();
        refreshEngineRow();
    }
}

QWidget* SettingsRootView::buildGeneralTab() {
    auto* content = new QWidget;
    content->setObjectName(QStringLiteral("generalTab"));
    auto* layout = new QVBoxLayout(content);
    layout->setSpacing(4);

    QVBoxLayout* engine = form::section(QStringLiteral("Detection engine"), layout, content);
    engine->addWidget(buildEngineRow(content));
    layout->addSpacing(6);

    QVBoxLayout* app = form::section(QStringLiteral("App"), layout, content);
    app->setSpacing(2);
    auto addSwitch = [&](const QString& title, const QString& objectName) {
        auto* line = new QWidget(content);
        auto* lineLayout = new QHBoxLayout(line);
        lineLayout->setContentsMargins(0, 0, 0, 0);
        auto* text = new QLabel(title, line);
        lineLayout->addWidget(text, 1);
        auto* toggle = new ToggleSwitch(line);
        toggle->setObjectName(objectName);
        toggle->setAccessibleName(title);
        text->setBuddy(toggle);
        lineLayout->addWidget(toggle);
        app->addWidget(line);
        return toggle;
    };

    ToggleSwitch* launch =
        addSwitch(QStringLiteral("Launch at login"), QStringLiteral("launchAtLoginSwitch"));
    bindings_.observe<bool>(state_.launchAtLogin, [launch](const bool& on) {
        const QSignalBlocker blocker(launch);
        launch->setChecked(on);
    });
    connect(launch, &ToggleSwitch::clicked, this, [this](bool on) { changeLaunchAtLogin(on); });

    ToggleSwitch* taskbar =
        addSwitch(QStringLiteral("Show in taskbar"), QStringLiteral("showInTaskbarSwitch"));
    taskbar->setChecked(showInTaskbar_);
    connect(taskbar, &ToggleSwitch::clicked, this, [this](bool on) { changeShowInTaskbar(on); });

    bindings_.toggle(
        addSwitch(QStringLiteral("Listening enabled"), QStringLiteral("listeningSwitch")),
        state_.listeningEnabled);
    bindings_.toggle(addSwitch(QStringLiteral("Scale volume with slap amplitude"),
                               QStringLiteral("volumeScalingSwitch")),
                     state_.volumeScaling);
    layout->addStretch(1);
    return content;
}

QWidget* SettingsRootView::buildEngineRow(QWidget* parent) {
    auto* rowWidget = new QWidget(parent);
    rowWidget->setObjectName(QStringLiteral("engineRow"));
    auto* layout = new QVBoxLayout(rowWidget);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);

    auto* statusRow = new QHBoxLayout;
    statusRow->setSpacing(6);
    engineIcon_ = new QLabel(rowWidget);
    engineIcon_->setObjectName(QStringLiteral("engineStateIcon"));
    statusRow->addWidget(engineIcon_);
    engineLabel_ = new QLabel(rowWidget);
    engineLabel_->setObjectName(QStringLiteral("engineStateLabel"));
    statusRow->addWidget(engineLabel_);
    statusRow->addStretch(1);
    installButton_ = new QPushButton(rowWidget);
    installButton_->setObjectName(QStringLiteral("installEngineButton"));
    installButton_->setAutoDefault(false);
    connect(installButton_, &QPushButton::clicked, this, [this] { installEngine(); });
    statusRow->addWidget(installButton_);
    layout->addLayout(statusRow);

    layout->addWidget(form::note(
        QStringLiteral("The detection engine is a tiny helper that reads the laptop's "
                       "accelerometer through the kernel's IIO and input interfaces. It needs "
                       "to run as root, so we copy it to %1 and chmod it setuid root. You'll be "
                       "asked for your admin password once.")
            .arg(format::helperFolderForDisplay()),
        TextStyle::caption, rowWidget, QStringLiteral("engineExplanation")));

    QLabel* status = form::note({}, TextStyle::caption2, rowWidget, QStringLiteral("engineStatus"));
    status->setTextFormat(Qt::PlainText);
    bindings_.text<QString>(status, state_.engineStatus, [](const QString& s) { return s; });
    layout->addWidget(status);
    return rowWidget;
}

void SettingsRootView::refreshEngineRow() {
    (void)engineStateTick_;  // the row depends on the tick: each new value re-reads the state
    const InstallState s = engine_.installState();
    const EngineLook look = engineLook(s);
    engineLabel_->setText(look.text);
    style::setTextColor(engineLabel_, look.color);
    engineIcon_->setPixmap(symbols::pixmap(look.symbol, look.color, 16, devicePixelRatioF()));
    engineIcon_->setProperty("symbol", look.symbol);
    installButton_->setText(s == InstallState::installed
                                ? QStringLiteral("Reinstall")
                                : QStringLiteral("Install detection engine"));
    installButton_->setEnabled(s != InstallState::bundleMissing);
}

void SettingsRootView::installEngine() {
    // The administrator prompt blocks this thread; say so with the cursor.
    QApplication::setOverrideCursor(Qt::WaitCursor);
    // Let the cursor reach the display before the thread blocks.
    QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
    const bool installed = engine_.installHelper();
    QApplication::restoreOverrideCursor();
    if (installed && state_.listeningEnabled.get()) {
        engine_.stop();
        engine_.start();
    }
    ++engineStateTick_;
    refreshEngineRow();
}

void SettingsRootView::changeLaunchAtLogin(bool enabled) {
    // The stored value records the user's choice, even when the desktop refuses it.
    state_.launchAtLogin.set(enabled);
    QString error;
    if (!desktop_.setLaunchAtLogin(enabled, &error)) {
        logLine(QStringLiteral("Bonkwell: launch-at-login change failed: ") + error);
    }
    state_.save();
}

void SettingsRootView::changeShowInTaskbar(bool show) {
    showInTaskbar_ = show;
    desktop_.setShowInTaskbar(show);
}

}  // namespace bonkwell

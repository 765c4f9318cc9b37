// SPDX-License-Identifier: GPL-3.0-or-later
#include "SettingsWindow.h"

#include "WindowHost.h"

#include <QVBoxLayout>

namespace bonkwell {

SettingsWindowController::SettingsWindowController(AppState& state, SlapDetectorInterface& detector,
                                                   AudioPlayerInterface& audio,
                                                   SoundPackManagerInterface& packManager,
                                                   ThuzzEngineInterface& engine,
                                                   std::function<void()> openCalibration,
                                                   DesktopIntegration& desktop)
    : state_(state),
      detector_(detector),
      audio_(audio),
      packManager_(packManager),
      engine_(engine),
      openCalibration_(std::move(openCalibration)),
      desktop_(desktop) {}

SettingsWindowController::~SettingsWindowController() {
    delete window_.data();
}

QWidget* SettingsWindowController::window() const {
    return window_.data();
}

void SettingsWindowController::show() {
    if (window_ != nullptr) {
        // Same window, same content: the selected tab and the switches stay as they are.
        bringToFront(window_);
        return;
    }
    // Titled, closable, minimisable; not resizable.
    WindowHost* window = makeWindowHost(
        QStringLiteral("settingsWindow"), QStringLiteral("Bonkwell Settings"),
        Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowSystemMenuHint |
            Qt::WindowCloseButtonHint | Qt::WindowMinimizeButtonHint,
        [this] {
            window_ = nullptr;
            root_ = nullptr;
            liveView_.reset();
        });
    root_ = new SettingsRootView(state_, audio_, packManager_, engine_, openCalibration_, desktop_,
                                 window);
    window->layout()->addWidget(root_);
    window->setFixedSize(kWidth, kHeight);
    window_ = window;
    // Its live graph wants every magnitude promptly while the window is open.
    liveView_.emplace(state_);
    presentCentred(window);
}

}  // namespace bonkwell

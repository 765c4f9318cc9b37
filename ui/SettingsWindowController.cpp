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
    auto* window = new WindowHost;
    window->setObjectName(QStringLiteral("settingsWindow"));
    window->setWindowTitle(QStringLiteral("Bonkwell Settings"));
    // Titled, closable, minimisable; not resizable.
    window->setWindowFlags(Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                           Qt::WindowSystemMenuHint | Qt::WindowCloseButtonHint |
                           Qt::WindowMinimizeButtonHint);
    auto* layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    root_ = new SettingsRootView(state_, audio_, packManager_, engine_, openCalibration_, desktop_,
                                 window);
    layout->addWidget(root_);
    window->setFixedSize(kWidth, kHeight);
    centerOnScreen(window);
    QObject::connect(window, &WindowHost::closed, window, [this, window] {
        if (window_ == window) {
            window_ = nullptr;
            root_ = nullptr;
            liveView_.reset();
        }
        window->deleteLater();
    });
    window_ = window;
    // Its live graph wants every magnitude promptly while the window is open.
    liveView_.emplace(detector_);
    bringToFront(window);
    centerOnScreen(window);  // again, now that the frame's size is known
}

}  // namespace bonkwell

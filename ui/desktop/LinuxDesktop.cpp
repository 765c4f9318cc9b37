// SPDX-License-Identifier: GPL-3.0-or-later
#include "LinuxDesktop.h"

#include "Autostart.h"

#include <QCoreApplication>

namespace bonkwell {

LinuxDesktop::LinuxDesktop() = default;

bool LinuxDesktop::setLaunchAtLogin(bool enabled, QString* error) {
    return enabled ? autostart::enable(QCoreApplication::applicationFilePath(), error)
                   : autostart::disable(error);
}

void LinuxDesktop::setShowInTaskbar(bool show) {
    taskbar_.setShown(show);
}

}  // namespace bonkwell

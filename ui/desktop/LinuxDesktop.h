// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "DesktopIntegration.h"
#include "TaskbarPresence.h"

namespace bonkwell {

// The real desktop: an XDG autostart entry for launch at login, the X11 taskbar hint.
class LinuxDesktop final : public DesktopIntegration {
  public:
    LinuxDesktop();
    bool setLaunchAtLogin(bool enabled, QString* error) override;
    void setShowInTaskbar(bool show) override;

  private:
    TaskbarPresence taskbar_;
};

}  // namespace bonkwell

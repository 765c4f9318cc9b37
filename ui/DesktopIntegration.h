// SPDX-License-Identifier: GPL-3.0-or-later
// The two desktop-level actions the Settings window needs and cannot perform by itself.
#pragma once

#include <QString>

namespace bonkwell {
class DesktopIntegration {
  public:
    virtual ~DesktopIntegration() = default;
    // Writes or deletes the autostart entry. False with a one-line reason on failure.
    virtual bool setLaunchAtLogin(bool enabled, QString* error) = 0;
    // Shows or hides the app's windows in the taskbar (X11 hint; no-op on Wayland).
    virtual void setShowInTaskbar(bool show) = 0;
};
}  // namespace bonkwell

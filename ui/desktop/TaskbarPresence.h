// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

class QWindow;

namespace bonkwell {

// Keeps the app's windows out of the taskbar and pager (the default: a tray utility has no
// taskbar entry) or puts them back. On X11 this is the _NET_WM_STATE_SKIP_TASKBAR and
// _SKIP_PAGER hint: set on each top-level window before it is first mapped, and sent to the
// window manager for windows already on screen. Wayland offers no such hint: there the
// request is logged once and ignored.
class TaskbarPresence : public QObject {
  public:
    // A top-level widget whose property of this name is true keeps its taskbar entry
    // whatever the setting: the window that stands in for a missing tray is the whole app,
    // and once minimised the taskbar is the only way back to it.
    static constexpr const char* kAlwaysInTaskbar = "bonkwellAlwaysInTaskbar";

    explicit TaskbarPresence(QObject* parent = nullptr);
    ~TaskbarPresence() override;

    void setShown(bool shown);
    bool shown() const { return shown_; }

    // Whether `window` currently carries the skip hints (X11 only; false elsewhere).
    static bool windowSkipsTaskbar(QWindow* window);

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void apply(QWindow* window) const;

    bool shown_ = false;
    bool x11_ = false;
    bool warnedUnsupported_ = false;
};

}  // namespace bonkwell

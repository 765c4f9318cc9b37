// SPDX-License-Identifier: GPL-3.0-or-later
// A top-level window that tells its owner when the user closes it.
#pragma once

#include <QWidget>

namespace bonkwell {

class WindowHost : public QWidget {
    Q_OBJECT
  public:
    explicit WindowHost(QWidget* parent = nullptr);

  signals:
    // The window was closed (title-bar button, the window manager, or close()).
    void closed();

  protected:
    void closeEvent(QCloseEvent* event) override;
};

// Moves `window` so that it sits in the middle of the available area of its screen.
void centerOnScreen(QWidget* window);
// Shows `window` (un-minimising it), raises it and asks for keyboard focus.
void bringToFront(QWidget* window);

}  // namespace bonkwell

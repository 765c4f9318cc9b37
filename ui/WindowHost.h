// SPDX-License-Identifier: GPL-3.0-or-later
// A top-level window that tells its owner when the user closes it.
#pragma once

#include <QWidget>

#include <functional>

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

// A new top-level window for one content widget (add it to the window's margin-less vertical
// layout). When the user closes it, `forget` runs, once, and the window and its content are
// deleted on the next turn of the event loop, so that the next opening builds a fresh one.
WindowHost* makeWindowHost(const QString& objectName, const QString& title, Qt::WindowFlags flags,
                           std::function<void()> forget);
// Shows a freshly built window in the middle of its screen (centred again once shown, now that
// the frame's size is known) and gives it the keyboard.
void presentCentred(QWidget* window);

// Moves `window` so that it sits in the middle of the available area of its screen.
void centerOnScreen(QWidget* window);
// Shows `window` (un-minimising it), raises it and asks for keyboard focus.
void bringToFront(QWidget* window);

}  // namespace bonkwell

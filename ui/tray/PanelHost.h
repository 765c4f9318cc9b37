// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QString>
#include <QWidget>

#include <functional>
#include <memory>
#include <optional>

namespace bonkwell {

// The top-level window that holds the panel while it drops down from the tray icon.
//
// On a plain X11 desktop it is a popup anchored at the icon: it takes the keyboard and a click
// anywhere else closes it. Under a Wayland compositor (as a Wayland client, or as an X11 client
// through XWayland) popups cannot grab the pointer, and a compositor that tiles would tile an
// ordinary window; there it is a small dialog of fixed size (minimum = maximum, so tiling
// compositors float it) that takes the keyboard and closes on Escape and when it loses focus.
class PanelHost : public QObject {
  public:
    enum class Style { popup, window };
    // Why the panel went away ("panel hidden by …" in the desktop tests' events).
    enum class HideReason { escape, focusLost, iconClick, menu };

    // The style that works on the running platform: a popup on X11 without a Wayland
    // compositor, the floating window everywhere else.
    static Style styleForPlatform();
    static QString describe(HideReason reason);

    explicit PanelHost(Style style, QObject* parent = nullptr);
    ~PanelHost() override;

    Style style() const { return style_; }
    QWidget* window() const;
    bool isShown() const;

    // Puts `content` into the window (taking it from wherever it was).
    void setContent(QWidget* content);
    QWidget* content() const { return content_; }

    // Shows the panel with its top-left corner at `topLeft` (ignored where the platform places
    // windows itself), sized to its content, and gives it the keyboard.
    void show(const QPoint& topLeft);
    // The size the panel takes on screen for its current content.
    QSize panelSize() const;
    // Hides the panel for `reason`.
    void hide(HideReason reason);

    // A click on the tray icon, or the menu opening, right after the panel went away by itself:
    // that click is what closed it. True when the panel closed by itself (not by Escape or a
    // toggle) within the last moment, and then the reason reported for that hiding becomes
    // `reason`.
    bool justHidden(HideReason reason);

  private:
    class Window;
    void onHidden();
    void onActivated();
    void reportReason(HideReason reason);

    Style style_;
    std::unique_ptr<Window> window_;
    QPointer<QWidget> content_;
    qint64 hiddenAtMs_ = 0;
    std::optional<HideReason> explicitReason_;
    std::optional<HideReason> pendingReason_;
    bool activeReported_ = false;
    int hideSerial_ = 0;
};

}  // namespace bonkwell

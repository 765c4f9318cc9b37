// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QIcon>
#include <QPoint>
#include <QRect>
#include <QString>
#include <QSystemTrayIcon>

#include <functional>
#include <memory>
#include <optional>

class QMenu;

namespace bonkwell {

// The icon in the system tray, whichever protocol carries it.
class TrayIcon {
  public:
    // A click on the icon: what kind, and where on screen when the host says so.
    using ActivationHandler =
        std::function<void(QSystemTrayIcon::ActivationReason, std::optional<QPoint>)>;

    virtual ~TrayIcon() = default;
    virtual void setIcon(const QIcon& icon) = 0;
    virtual void setToolTip(const QString& text) = 0;
    // The menu hosts show for a right click (kept by the caller).
    virtual void setContextMenu(QMenu* menu) = 0;
    // False when the icon could not be put in the tray.
    virtual bool show() = 0;
    virtual void hide() = 0;
    // The icon's place on screen, invalid when the tray does not tell.
    virtual QRect geometry() const = 0;
    void setActivationHandler(ActivationHandler handler) { onActivated_ = std::move(handler); }

  protected:
    void activated(QSystemTrayIcon::ActivationReason reason, std::optional<QPoint> at = {}) {
        if (onActivated_) {
            onActivated_(reason, at);
        }
    }

  private:
    ActivationHandler onActivated_;
};

// Qt's own tray icon: the XEmbed tray (_NET_SYSTEM_TRAY), where the icon is our window.
std::unique_ptr<TrayIcon> makeXEmbedTrayIcon();
// Our StatusNotifierItem on the session bus, with its menu exported over DBusMenu: the host
// tells where a click was, and finds the symbolic icon through the item's icon theme path.
std::unique_ptr<TrayIcon> makeStatusNotifierTrayIcon();

}  // namespace bonkwell

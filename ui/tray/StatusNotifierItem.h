// SPDX-License-Identifier: GPL-3.0-or-later
// Our tray item for hosts that speak StatusNotifierItem (KDE Plasma, GNOME's AppIndicator
// extension, XFCE's tray, waybar), with its menu exported over DBusMenu. Qt's own item drops
// the click position that Activate(x, y) carries and has no icon theme path; this one keeps
// both.
#pragma once

#include "DBusTrayTypes.h"
#include "TrayIcon.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QPointer>

#include <functional>

class QAction;
class QDBusServiceWatcher;

namespace bonkwell {

class StatusNotifierItem;

// org.kde.StatusNotifierItem at /StatusNotifierItem.
class StatusNotifierItemAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(int WindowId READ windowId)
    Q_PROPERTY(QString IconThemePath READ iconThemePath)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QString IconName READ iconName)
    Q_PROPERTY(bonkwell::dbustray::IconPixmapList IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ empty)
    Q_PROPERTY(bonkwell::dbustray::IconPixmapList OverlayIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionIconName READ empty)
    Q_PROPERTY(bonkwell::dbustray::IconPixmapList AttentionIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionMovieName READ empty)
    Q_PROPERTY(bonkwell::dbustray::ToolTip ToolTip READ toolTip)

  public:
    explicit StatusNotifierItemAdaptor(StatusNotifierItem* item);

    QString category() const { return QStringLiteral("ApplicationStatus"); }
    QString id() const { return QStringLiteral("com.bonkwell.Bonkwell"); }
    QString title() const;
    QString status() const { return QStringLiteral("Active"); }
    int windowId() const { return 0; }
    QString iconThemePath() const;
    QDBusObjectPath menu() const { return QDBusObjectPath(QStringLiteral("/MenuBar")); }
    bool itemIsMenu() const { return false; }
    QString iconName() const;
    dbustray::IconPixmapList iconPixmap() const;
    QString empty() const { return {}; }
    dbustray::IconPixmapList noPixmaps() const { return {}; }
    dbustray::ToolTip toolTip() const;

  public slots:
    void Activate(int x, int y);
    void SecondaryActivate(int x, int y);
    void ContextMenu(int x, int y);
    void Scroll(int delta, const QString& orientation);
    // Hosts on Wayland (Plasma, GNOME's AppIndicator extension) hand over an activation token
    // before Activate or a menu entry's click, so that the window that opens may take the
    // keyboard.
    void ProvideXdgActivationToken(const QString& token);

  signals:
    void NewTitle();
    void NewIcon();
    void NewAttentionIcon();
    void NewOverlayIcon();
    void NewToolTip();
    void NewStatus(const QString& status);

  private slots:
    // The desktop changed its colours (KDE's global settings signal): hosts that recolour the
    // symbolic icon draw it again in the new colour once told the icon changed.
    void desktopColorsChanged();

  private:
    StatusNotifierItem* item_;
};

// com.canonical.dbusmenu at /MenuBar: the context menu's entries; a host's "clicked" event
// triggers the matching action.
class DBusMenuAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
    Q_PROPERTY(uint Version READ version)
    Q_PROPERTY(QString TextDirection READ textDirection)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(QStringList IconThemePath READ iconThemePath)

  public:
    explicit DBusMenuAdaptor(StatusNotifierItem* item);

    uint version() const { return 3; }
    QString textDirection() const { return QStringLiteral("ltr"); }
    QString status() const { return QStringLiteral("normal"); }
    QStringList iconThemePath() const { return {}; }

  public slots:
    uint GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                   bonkwell::dbustray::MenuLayout& layout);
    bonkwell::dbustray::MenuItemList GetGroupProperties(const QList<int>& ids,
                                                        const QStringList& propertyNames);
    QDBusVariant GetProperty(int id, const QString& name);
    void Event(int id, const QString& eventId, const QDBusVariant& data, uint timestamp);
    QList<int> EventGroup(const bonkwell::dbustray::MenuEventList& events);
    bool AboutToShow(int id);
    QList<int> AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors);

  signals:
    void ItemsPropertiesUpdated(const bonkwell::dbustray::MenuItemList& updated,
                                const bonkwell::dbustray::MenuItemKeysList& removed);
    void LayoutUpdated(uint revision, int parent);
    void ItemActivationRequested(int id, uint timestamp);

  private:
    StatusNotifierItem* item_;
};

class StatusNotifierItem final : public QObject, public TrayIcon {
  public:
    StatusNotifierItem();
    ~StatusNotifierItem() override;

    void setIcon(const QIcon& icon) override;
    void setToolTip(const QString& text) override;
    void setContextMenu(QMenu* menu) override;
    bool show() override;
    void hide() override;
    QRect geometry() const override { return {}; }

    // The unique name of the item's own bus connection while shown: hosts know it by that.
    QString busName() const { return shown_ ? bus_.baseService() : QString(); }

  private:
    friend class StatusNotifierItemAdaptor;
    friend class DBusMenuAdaptor;

    void registerWithWatcher();
    void closeBus();
    // Runs `what` with the token the host provided last (if any) in XDG_ACTIVATION_TOKEN.
    void withActivationToken(const std::function<void()>& what);
    dbustray::MenuLayout layout() const;
    QVariantMap itemProperties(int id) const;
    QAction* action(int id) const;

    QDBusConnection bus_;
    QIcon icon_;
    QString toolTip_;
    QPointer<QMenu> menu_;
    StatusNotifierItemAdaptor* itemAdaptor_ = nullptr;
    DBusMenuAdaptor* menuAdaptor_ = nullptr;
    QObject menuObject_;
    QDBusServiceWatcher* watcherWatch_ = nullptr;
    QString activationToken_;
    bool shown_ = false;
    uint revision_ = 1;
};

}  // namespace bonkwell

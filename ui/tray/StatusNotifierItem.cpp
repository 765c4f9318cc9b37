// SPDX-License-Identifier: GPL-3.0-or-later
#include "StatusNotifierItem.h"

#include "Log.h"
#include "TrayIconArt.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDir>
#include <QFileInfo>
#include <QMenu>
#include <QTimer>

namespace bonkwell {
namespace {

const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kItemPath = QStringLiteral("/StatusNotifierItem");
const QString kMenuPath = QStringLiteral("/MenuBar");

// The build tree's (or an unusual prefix's) icon folder, when it holds our symbolic icon;
// installed under /usr the host finds it in its own icon theme.
QString ownIconThemePath() {
    const QString dir =
        QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/icons"));
    const QString icon = dir + QStringLiteral("/hicolor/symbolic/apps/") +
                         trayicon::symbolicName() + QStringLiteral(".svg");
    if (dir == QLatin1String("/usr/share/icons") || !QFileInfo::exists(icon)) {
        return {};
    }
    return dir;
}

// Menu item ids: 0 is the root, item N is the menu's Nth action.
constexpr int kRootId = 0;

}  // namespace

// --- org.kde.StatusNotifierItem

StatusNotifierItemAdaptor::StatusNotifierItemAdaptor(StatusNotifierItem* item)
    : QDBusAbstractAdaptor(item), item_(item) {}

QString StatusNotifierItemAdaptor::title() const {
    return QStringLiteral("Bonkwell");
}

QString StatusNotifierItemAdaptor::iconThemePath() const {
    static const QString path = ownIconThemePath();
    return path;
}

QString StatusNotifierItemAdaptor::iconName() const {
    return item_->icon_.name();
}

dbustray::IconPixmapList StatusNotifierItemAdaptor::iconPixmap() const {
    return dbustray::pixmapsOf(item_->icon_);
}

dbustray::ToolTip StatusNotifierItemAdaptor::toolTip() const {
    dbustray::ToolTip tip;
    tip.title = item_->toolTip_;
    return tip;
}

void StatusNotifierItemAdaptor::Activate(int x, int y) {
    // Hosts that do not know pass 0, 0.
    const std::optional<QPoint> at =
        x != 0 || y != 0 ? std::optional<QPoint>(QPoint(x, y)) : std::nullopt;
    QTimer::singleShot(0, item_, [item = item_, at] {
        item->withActivationToken([item, at] { item->activated(QSystemTrayIcon::Trigger, at); });
    });
}

void StatusNotifierItemAdaptor::ProvideXdgActivationToken(const QString& token) {
    item_->activationToken_ = token;
}

void StatusNotifierItemAdaptor::SecondaryActivate(int x, int y) {
    const std::optional<QPoint> at =
        x != 0 || y != 0 ? std::optional<QPoint>(QPoint(x, y)) : std::nullopt;
    QTimer::singleShot(0, item_,
                       [item = item_, at] { item->activated(QSystemTrayIcon::MiddleClick, at); });
}

void StatusNotifierItemAdaptor::ContextMenu(int x, int y) {
    // A host that does not draw the exported menu asks us to show it.
    QTimer::singleShot(0, item_, [item = item_, x, y] {
        item->activated(QSystemTrayIcon::Context, QPoint(x, y));
        if (item->menu_ != nullptr) {
            item->menu_->popup(QPoint(x, y));
        }
    });
}

void StatusNotifierItemAdaptor::Scroll(int, const QString&) {}

void StatusNotifierItemAdaptor::desktopColorsChanged() {
    if (item_->shown_) {
        emit NewIcon();
    }
}

// --- com.canonical.dbusmenu

DBusMenuAdaptor::DBusMenuAdaptor(StatusNotifierItem* item)
    : QDBusAbstractAdaptor(&item->menuObject_), item_(item) {}

uint DBusMenuAdaptor::GetLayout(int parentId, int recursionDepth, const QStringList&,
                                dbustray::MenuLayout& layout) {
    layout = item_->layout();
    if (parentId != kRootId) {
        // Our menu is flat: an item has no children.
        const int id = parentId;
        layout = dbustray::MenuLayout{id, item_->itemProperties(id), {}};
    } else if (recursionDepth == 0) {
        layout.children.clear();
    }
    return item_->revision_;
}

dbustray::MenuItemList DBusMenuAdaptor::GetGroupProperties(const QList<int>& ids,
                                                           const QStringList&) {
    dbustray::MenuItemList items;
    for (int id : ids) {
        if (id == kRootId || item_->action(id) != nullptr) {
            items.append(dbustray::MenuItem{id, item_->itemProperties(id)});
        }
    }
    return items;
}

QDBusVariant DBusMenuAdaptor::GetProperty(int id, const QString& name) {
    return QDBusVariant(item_->itemProperties(id).value(name));
}

void DBusMenuAdaptor::Event(int id, const QString& eventId, const QDBusVariant&, uint) {
    if (eventId == QLatin1String("clicked")) {
        // After the reply: the action may end the app.
        QTimer::singleShot(0, item_, [item = item_, id] {
            if (QAction* action = item->action(id)) {
                // A window the entry opens may take the keyboard with the host's token.
                item->withActivationToken([action] { action->trigger(); });
            }
        });
    } else if (eventId == QLatin1String("opened") && id == kRootId && item_->menu_ != nullptr) {
        emit item_->menu_->aboutToShow();
    }
}

QList<int> DBusMenuAdaptor::EventGroup(const dbustray::MenuEventList& events) {
    QList<int> errors;
    for (const dbustray::MenuEvent& e : events) {
        if (e.id != kRootId && item_->action(e.id) == nullptr) {
            errors.append(e.id);
        } else {
            Event(e.id, e.eventId, e.data, e.timestamp);
        }
    }
    return errors;
}

bool DBusMenuAdaptor::AboutToShow(int id) {
    if (id == kRootId && item_->menu_ != nullptr) {
        // The app builds its entries afresh each time the menu opens; ids stay the same.
        emit item_->menu_->aboutToShow();
    }
    return false;
}

QList<int> DBusMenuAdaptor::AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors) {
    for (int id : ids) {
        if (id == kRootId) {
            AboutToShow(id);
        } else if (item_->action(id) == nullptr) {
            idErrors.append(id);
        }
    }
    return {};
}

// --- the item

StatusNotifierItem::StatusNotifierItem() : bus_(QStringLiteral("none")) {
    dbustray::registerTypes();
    menuObject_.setParent(this);
    itemAdaptor_ = new StatusNotifierItemAdaptor(this);
    menuAdaptor_ = new DBusMenuAdaptor(this);
}

StatusNotifierItem::~StatusNotifierItem() {
    hide();
}

void StatusNotifierItem::setIcon(const QIcon& icon) {
    icon_ = icon;
    if (shown_) {
        emit itemAdaptor_->NewIcon();
    }
}

void StatusNotifierItem::setToolTip(const QString& text) {
    toolTip_ = text;
    if (shown_) {
        emit itemAdaptor_->NewToolTip();
    }
}

void StatusNotifierItem::setContextMenu(QMenu* menu) {
    menu_ = menu;
    ++revision_;
    if (shown_) {
        emit menuAdaptor_->LayoutUpdated(revision_, kRootId);
    }
}

bool StatusNotifierItem::show() {
    if (shown_) {
        return true;
    }
    // The item has a connection of its own: its objects are on the bus before the host hears
    // of it, the host knows it by that connection's unique name (never a well-known name that
    // the host would watch come and go while it reads the item), and closing the connection
    // takes the item off every panel at once.
    static int counter = 0;
    bus_ = QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                         QStringLiteral("bonkwell-tray-item-%1").arg(++counter));
    if (!bus_.isConnected()) {
        logLine(QStringLiteral("Bonkwell: no session bus for the tray item: %1")
                    .arg(bus_.lastError().message()));
        closeBus();
        return false;
    }
    if (!bus_.registerObject(kItemPath, this, QDBusConnection::ExportAdaptors) ||
        !bus_.registerObject(kMenuPath, &menuObject_, QDBusConnection::ExportAdaptors)) {
        logLine(QStringLiteral("Bonkwell: cannot export the tray item: %1")
                    .arg(bus_.lastError().message()));
        closeBus();
        return false;
    }
    shown_ = true;
    registerWithWatcher();
    // KDE announces a new colour scheme to every app this way.
    bus_.connect(QString(), QStringLiteral("/KGlobalSettings"),
                 QStringLiteral("org.kde.KGlobalSettings"), QStringLiteral("notifyChange"),
                 itemAdaptor_, SLOT(desktopColorsChanged()));
    // A panel that restarts (or a watcher that comes back) learns of the item again.
    if (watcherWatch_ == nullptr) {
        watcherWatch_ = new QDBusServiceWatcher(kWatcher, bus_,
                                                QDBusServiceWatcher::WatchForRegistration, this);
        connect(watcherWatch_, &QDBusServiceWatcher::serviceRegistered, this, [this] {
            if (shown_) {
                registerWithWatcher();
            }
        });
    }
    return true;
}

void StatusNotifierItem::registerWithWatcher() {
    QDBusMessage call =
        QDBusMessage::createMethodCall(kWatcher, QStringLiteral("/StatusNotifierWatcher"), kWatcher,
                                       QStringLiteral("RegisterStatusNotifierItem"));
    // By object path: the host takes the caller's unique name as the item's.
    call << kItemPath;
    // Not waited for: the watcher calls back into the item while it registers it. Sent
    // without a reply watch, which would outlive the connection when the item goes first.
    bus_.send(call);
}

void StatusNotifierItem::hide() {
    if (!shown_) {
        return;
    }
    shown_ = false;
    bus_.disconnect(QString(), QStringLiteral("/KGlobalSettings"),
                    QStringLiteral("org.kde.KGlobalSettings"), QStringLiteral("notifyChange"),
                    itemAdaptor_, SLOT(desktopColorsChanged()));
    delete watcherWatch_;
    watcherWatch_ = nullptr;
    bus_.unregisterObject(kMenuPath);
    bus_.unregisterObject(kItemPath);
    closeBus();
}

void StatusNotifierItem::closeBus() {
    // The connection closes with its last reference.
    const QString name = bus_.name();
    bus_ = QDBusConnection(QStringLiteral("none"));
    QDBusConnection::disconnectFromBus(name);
}

void StatusNotifierItem::withActivationToken(const std::function<void()>& what) {
    // Qt hands the token to the compositor when a window asks to be activated; it serves once.
    const QString token = std::exchange(activationToken_, QString());
    if (!token.isEmpty()) {
        qputenv("XDG_ACTIVATION_TOKEN", token.toUtf8());
    }
    what();
    qunsetenv("XDG_ACTIVATION_TOKEN");
}

QAction* StatusNotifierItem::action(int id) const {
    if (menu_ == nullptr || id <= kRootId) {
        return nullptr;
    }
    const QList<QAction*> actions = menu_->actions();
    return id <= actions.size() ? actions.at(id - 1) : nullptr;
}

QVariantMap StatusNotifierItem::itemProperties(int id) const {
    QVariantMap properties;
    if (id == kRootId) {
        properties.insert(QStringLiteral("children-display"), QStringLiteral("submenu"));
        return properties;
    }
    const QAction* a = action(id);
    if (a == nullptr) {
        return properties;
    }
    if (a->isSeparator()) {
        properties.insert(QStringLiteral("type"), QStringLiteral("separator"));
    } else {
        // DBusMenu marks mnemonics with "_"; a literal "_" is doubled.
        QString label = a->text();
        label.replace(QLatin1Char('_'), QStringLiteral("__"));
        label.replace(QLatin1Char('&'), QLatin1Char('_'));
        properties.insert(QStringLiteral("label"), label);
    }
    if (!a->isEnabled()) {
        properties.insert(QStringLiteral("enabled"), false);
    }
    if (!a->isVisible()) {
        properties.insert(QStringLiteral("visible"), false);
    }
    return properties;
}

dbustray::MenuLayout StatusNotifierItem::layout() const {
    dbustray::MenuLayout root{kRootId, itemProperties(kRootId), {}};
    const int count = menu_ != nullptr ? static_cast<int>(menu_->actions().size()) : 0;
    for (int id = 1; id <= count; ++id) {
        root.children.append(dbustray::MenuLayout{id, itemProperties(id), {}});
    }
    return root;
}

std::unique_ptr<TrayIcon> makeStatusNotifierTrayIcon() {
    return std::make_unique<StatusNotifierItem>();
}

}  // namespace bonkwell

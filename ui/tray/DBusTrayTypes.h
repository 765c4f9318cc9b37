// SPDX-License-Identifier: GPL-3.0-or-later
// The structures the StatusNotifierItem and DBusMenu interfaces pass over D-Bus.
#pragma once

#include <QByteArray>
#include <QDBusArgument>
#include <QDBusVariant>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

class QIcon;

namespace bonkwell::dbustray {

// (iiay): one picture, ARGB32 in network byte order.
struct IconPixmap {
    int width = 0;
    int height = 0;
    QByteArray bytes;
};
using IconPixmapList = QList<IconPixmap>;

// (sa(iiay)ss)
struct ToolTip {
    QString iconName;
    IconPixmapList image;
    QString title;
    QString description;
};

// (ia{sv}): one menu item's properties.
struct MenuItem {
    int id = 0;
    QVariantMap properties;
};
using MenuItemList = QList<MenuItem>;

// (ia{sv}av): a menu item with its children (each a variant holding the same structure).
struct MenuLayout {
    int id = 0;
    QVariantMap properties;
    QList<MenuLayout> children;
};

// (ias): the properties removed from an item.
struct MenuItemKeys {
    int id = 0;
    QStringList names;
};
using MenuItemKeysList = QList<MenuItemKeys>;

// (isvu): one event of a group.
struct MenuEvent {
    int id = 0;
    QString eventId;
    QDBusVariant data;
    uint timestamp = 0;
};
using MenuEventList = QList<MenuEvent>;

// Registers the types above with Qt's D-Bus type system (once).
void registerTypes();

// The icon's pictures at the sizes tray hosts use.
IconPixmapList pixmapsOf(const QIcon& icon);

QDBusArgument& operator<<(QDBusArgument& arg, const IconPixmap& v);
const QDBusArgument& operator>>(const QDBusArgument& arg, IconPixmap& v);
QDBusArgument& operator<<(QDBusArgument& arg, const ToolTip& v);
const QDBusArgument& operator>>(const QDBusArgument& arg, ToolTip& v);
QDBusArgument& operator<<(QDBusArgument& arg, const MenuItem& v);
const QDBusArgument& operator>>(const QDBusArgument& arg, MenuItem& v);
QDBusArgument& operator<<(QDBusArgument& arg, const MenuLayout& v);
const QDBusArgument& operator>>(const QDBusArgument& arg, MenuLayout& v);
QDBusArgument& operator<<(QDBusArgument& arg, const MenuItemKeys& v);
const QDBusArgument& operator>>(const QDBusArgument& arg, MenuItemKeys& v);
QDBusArgument& operator<<(QDBusArgument& arg, const MenuEvent& v);
const QDBusArgument& operator>>(const QDBusArgument& arg, MenuEvent& v);

}  // namespace bonkwell::dbustray

Q_DECLARE_METATYPE(bonkwell::dbustray::IconPixmap)
Q_DECLARE_METATYPE(bonkwell::dbustray::ToolTip)
Q_DECLARE_METATYPE(bonkwell::dbustray::MenuItem)
Q_DECLARE_METATYPE(bonkwell::dbustray::MenuLayout)
Q_DECLARE_METATYPE(bonkwell::dbustray::MenuItemKeys)
Q_DECLARE_METATYPE(bonkwell::dbustray::MenuEvent)

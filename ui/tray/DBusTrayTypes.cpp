// SPDX-License-Identifier: GPL-3.0-or-later
#include "DBusTrayTypes.h"

#include <QDBusMetaType>
#include <QIcon>
#include <QImage>
#include <QtEndian>

namespace bonkwell::dbustray {

void registerTypes() {
    static const bool done = [] {
        qDBusRegisterMetaType<IconPixmap>();
        qDBusRegisterMetaType<IconPixmapList>();
        qDBusRegisterMetaType<ToolTip>();
        qDBusRegisterMetaType<MenuItem>();
        qDBusRegisterMetaType<MenuItemList>();
        qDBusRegisterMetaType<MenuLayout>();
        qDBusRegisterMetaType<MenuItemKeys>();
        qDBusRegisterMetaType<MenuItemKeysList>();
        qDBusRegisterMetaType<MenuEvent>();
        qDBusRegisterMetaType<MenuEventList>();
        // The adaptors' signatures name the lists by these aliases.
        qRegisterMetaType<IconPixmapList>("bonkwell::dbustray::IconPixmapList");
        qRegisterMetaType<MenuItemList>("bonkwell::dbustray::MenuItemList");
        qRegisterMetaType<MenuItemKeysList>("bonkwell::dbustray::MenuItemKeysList");
        qRegisterMetaType<MenuEventList>("bonkwell::dbustray::MenuEventList");
        return true;
    }();
    (void)done;
}

IconPixmapList pixmapsOf(const QIcon& icon) {
    IconPixmapList list;
    for (int size : {16, 22, 24, 32, 48}) {
        const QImage image =
            icon.pixmap(size, size).toImage().convertToFormat(QImage::Format_ARGB32);
        if (image.isNull()) {
            continue;
        }
        IconPixmap pixmap;
        pixmap.width = image.width();
        pixmap.height = image.height();
        pixmap.bytes.resize(static_cast<qsizetype>(image.width()) * image.height() * 4);
        auto* out = reinterpret_cast<quint32*>(pixmap.bytes.data());
        for (int y = 0; y < image.height(); ++y) {
            const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
            for (int x = 0; x < image.width(); ++x) {
                *out++ = qToBigEndian(line[x]);  // 0xAARRGGBB as the bytes A, R, G, B
            }
        }
        list.append(pixmap);
    }
    return list;
}

namespace {

// A D-Bus structure of the given fields, in order.
template <typename... Fields>
QDBusArgument& writeStructure(QDBusArgument& arg, const Fields&... fields) {
    arg.beginStructure();
    (arg << ... << fields);
    arg.endStructure();
    return arg;
}

template <typename... Fields>
const QDBusArgument& readStructure(const QDBusArgument& arg, Fields&... fields) {
    arg.beginStructure();
    (arg >> ... >> fields);
    arg.endStructure();
    return arg;
}

}  // namespace

QDBusArgument& operator<<(QDBusArgument& arg, const IconPixmap& v) {
    return writeStructure(arg, v.width, v.height, v.bytes);
}

const QDBusArgument& operator>>(const QDBusArgument& arg, IconPixmap& v) {
    return readStructure(arg, v.width, v.height, v.bytes);
}

QDBusArgument& operator<<(QDBusArgument& arg, const ToolTip& v) {
    return writeStructure(arg, v.iconName, v.image, v.title, v.description);
}

const QDBusArgument& operator>>(const QDBusArgument& arg, ToolTip& v) {
    return readStructure(arg, v.iconName, v.image, v.title, v.description);
}

QDBusArgument& operator<<(QDBusArgument& arg, const MenuItem& v) {
    return writeStructure(arg, v.id, v.properties);
}

const QDBusArgument& operator>>(const QDBusArgument& arg, MenuItem& v) {
    return readStructure(arg, v.id, v.properties);
}

QDBusArgument& operator<<(QDBusArgument& arg, const MenuLayout& v) {
    arg.beginStructure();
    arg << v.id << v.properties;
    arg.beginArray(qMetaTypeId<QDBusVariant>());
    for (const MenuLayout& child : v.children) {
        arg << QDBusVariant(QVariant::fromValue(child));
    }
    arg.endArray();
    arg.endStructure();
    return arg;
}

const QDBusArgument& operator>>(const QDBusArgument& arg, MenuLayout& v) {
    arg.beginStructure();
    arg >> v.id >> v.properties;
    arg.beginArray();
    v.children.clear();
    while (!arg.atEnd()) {
        QDBusVariant child;
        arg >> child;
        v.children.append(qdbus_cast<MenuLayout>(child.variant()));
    }
    arg.endArray();
    arg.endStructure();
    return arg;
}

QDBusArgument& operator<<(QDBusArgument& arg, const MenuItemKeys& v) {
    return writeStructure(arg, v.id, v.names);
}

const QDBusArgument& operator>>(const QDBusArgument& arg, MenuItemKeys& v) {
    return readStructure(arg, v.id, v.names);
}

QDBusArgument& operator<<(QDBusArgument& arg, const MenuEvent& v) {
    return writeStructure(arg, v.id, v.eventId, v.data, v.timestamp);
}

const QDBusArgument& operator>>(const QDBusArgument& arg, MenuEvent& v) {
    return readStructure(arg, v.id, v.eventId, v.data, v.timestamp);
}

}  // namespace bonkwell::dbustray

// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrayWaiter.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QDateTime>
#include <QGuiApplication>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>

namespace bonkwell {

TrayWaiter::TrayWaiter(QObject* parent) : QObject(parent) {
    connect(&timer_, &QTimer::timeout, this, [this] { poll(); });
}

void TrayWaiter::wait(std::function<void(Host)> onReady, int timeoutMs, int intervalMs,
                      int laterIntervalMs) {
    onReady_ = std::move(onReady);
    deadline_ = QDateTime::currentMSecsSinceEpoch() + timeoutMs;
    laterIntervalMs_ = laterIntervalMs;
    gaveUp_ = false;
    timer_.setInterval(intervalMs);
    watchBus();
    poll();
    if (onReady_) {
        timer_.start();
    }
}

void TrayWaiter::watchBus() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || busWatch_ != nullptr) {
        return;
    }
    const QString watcher = QStringLiteral("org.kde.StatusNotifierWatcher");
    busWatch_ =
        new QDBusServiceWatcher(watcher, bus, QDBusServiceWatcher::WatchForRegistration, this);
    connect(busWatch_, &QDBusServiceWatcher::serviceRegistered, this, [this] {
        if (onReady_) {
            poll();
        }
    });
    // A watcher that is there before its host: the host's registration is announced.
    bus.connect(watcher, QStringLiteral("/StatusNotifierWatcher"), watcher,
                QStringLiteral("StatusNotifierHostRegistered"), this, SLOT(hostRegistered()));
}

void TrayWaiter::hostRegistered() {
    if (onReady_) {
        poll();
    }
}

void TrayWaiter::poll() {
    if (!onReady_) {
        return;
    }
    const Host host = currentHost();
    if (host == Host::none) {
        if (gaveUp_ || QDateTime::currentMSecsSinceEpoch() < deadline_) {
            return;
        }
        // No tray in time: say so once, then keep looking, less often.
        gaveUp_ = true;
        timer_.setInterval(laterIntervalMs_);
        onReady_(Host::none);
        return;
    }
    timer_.stop();
    auto callback = std::exchange(onReady_, {});
    callback(host);
}

TrayWaiter::Host TrayWaiter::currentHost() {
    if (statusNotifierHostReady()) {
        return Host::statusNotifier;
    }
    if (xembedTrayReady()) {
        return Host::xembed;
    }
    return Host::none;
}

bool TrayWaiter::statusNotifierHostReady() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || bus.interface() == nullptr) {
        return false;
    }
    const QString watcher = QStringLiteral("org.kde.StatusNotifierWatcher");
    if (!bus.interface()->isServiceRegistered(watcher)) {
        return false;
    }
    QDBusMessage get = QDBusMessage::createMethodCall(
        watcher, QStringLiteral("/StatusNotifierWatcher"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << watcher << QStringLiteral("IsStatusNotifierHostRegistered");
    const QDBusMessage reply = bus.call(get, QDBus::Block, 2000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return false;
    }
    return reply.arguments().first().value<QDBusVariant>().variant().toBool();
}

bool TrayWaiter::xembedTrayReady() {
    if (QGuiApplication::platformName() != QLatin1String("xcb")) {
        return false;
    }
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t* c = x11 != nullptr ? x11->connection() : nullptr;
    if (c == nullptr) {
        return false;
    }
    // The screen number is the part after the dot of DISPLAY (":0.1"); 0 by default.
    int screen = 0;
    if (const char* display = std::getenv("DISPLAY"); display != nullptr) {
        if (const char* dot = std::strrchr(display, '.'); dot != nullptr) {
            screen = std::atoi(dot + 1);
        }
    }
    const QByteArray name = "_NET_SYSTEM_TRAY_S" + QByteArray::number(screen);
    xcb_intern_atom_reply_t* atomReply = xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, static_cast<uint16_t>(name.size()), name.constData()), nullptr);
    if (atomReply == nullptr) {
        return false;
    }
    xcb_get_selection_owner_reply_t* owner =
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, atomReply->atom), nullptr);
    std::free(atomReply);
    const bool ready = owner != nullptr && owner->owner != XCB_NONE;
    std::free(owner);
    return ready;
}

QString TrayWaiter::describe(Host host) {
    switch (host) {
        case Host::statusNotifier:
            return QStringLiteral("StatusNotifierItem");
        case Host::xembed:
            return QStringLiteral("XEmbed");
        case Host::none:
            break;
    }
    return QStringLiteral("none");
}

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
#include "PortalColorScheme.h"

#include "Log.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>

namespace bonkwell {
namespace {

const QString kService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kInterface = QStringLiteral("org.freedesktop.portal.Settings");
const QString kNamespace = QStringLiteral("org.freedesktop.appearance");
const QString kKey = QStringLiteral("color-scheme");

// The portal may take its time to start when the bus activates it; nothing waits for it.
constexpr int kAnswerTimeoutMs = 10000;

}  // namespace

PortalColorScheme::PortalColorScheme(QObject* parent)
    : PortalColorScheme(QDBusConnection::sessionBus(), parent) {}

PortalColorScheme::PortalColorScheme(const QDBusConnection& bus, QObject* parent)
    : ColorSchemeSource(parent), bus_(bus) {
    if (!bus_.isConnected()) {
        giveUp(QStringLiteral("no session bus"));
        return;
    }
    // The slot's argument types must be known by name before QtDBus can match it.
    qRegisterMetaType<QDBusVariant>();
    if (!bus_.connect(kService, kPath, kInterface, QStringLiteral("SettingChanged"), this,
                      SLOT(settingChanged(QString, QString, QDBusVariant)))) {
        logLine(QStringLiteral("Bonkwell: cannot follow the desktop portal's setting changes (%1)")
                    .arg(bus_.lastError().message()));
    }
    // ReadOne is the current call; portals before version 2 of the interface only have Read.
    ask(QStringLiteral("ReadOne"));
}

void PortalColorScheme::ask(const QString& method) {
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, method);
    call << kNamespace << kKey;
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call, kAnswerTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, method](QDBusPendingCallWatcher* w) { answered(w, method); });
}

void PortalColorScheme::answered(QDBusPendingCallWatcher* call, const QString& method) {
    call->deleteLater();
    const QDBusMessage reply = call->reply();
    if (reply.type() == QDBusMessage::ErrorMessage) {
        const QString name = reply.errorName();
        const bool noPortal = name == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
                              name == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner");
        if (method == QLatin1String("ReadOne") && !noPortal) {
            ask(QStringLiteral("Read"));
            return;
        }
        giveUp(QStringLiteral("the desktop portal gave no colour scheme (%1: %2)")
                   .arg(name, reply.errorMessage()));
        return;
    }
    if (reply.arguments().isEmpty()) {
        giveUp(QStringLiteral("the desktop portal's %1 answered nothing").arg(method));
        return;
    }
    take(reply.arguments().constFirst(), QStringLiteral("the desktop portal's %1").arg(method));
}

void PortalColorScheme::settingChanged(const QString& nameSpace, const QString& key,
                                       const QDBusVariant& value) {
    if (nameSpace != kNamespace || key != kKey) {
        return;
    }
    take(QVariant::fromValue(value), QStringLiteral("the desktop portal's SettingChanged"));
}

void PortalColorScheme::take(const QVariant& value, const QString& where) {
    settled_ = true;
    QString error;
    const auto scheme = fromPortalValue(value, &error);
    if (!scheme) {
        giveUp(QStringLiteral("%1 sent an unusable colour scheme (%2)").arg(where, error));
        return;
    }
    if (*scheme == scheme_) {
        return;
    }
    scheme_ = *scheme;
    emit changed(scheme_);
}

void PortalColorScheme::giveUp(const QString& why) {
    settled_ = true;
    if (!warned_) {
        warned_ = true;
        logLine(QStringLiteral("Bonkwell: %1; following the style's own colours").arg(why));
    }
    if (scheme_ != ColorScheme::noPreference) {
        scheme_ = ColorScheme::noPreference;
        emit changed(scheme_);
    }
}

std::optional<ColorScheme> PortalColorScheme::fromPortalValue(const QVariant& value,
                                                              QString* error) {
    QVariant inner = value;
    // ReadOne's reply is a variant, Read's a variant in a variant.
    for (int depth = 0; depth < 3 && inner.metaType() == QMetaType::fromType<QDBusVariant>();
         ++depth) {
        inner = inner.value<QDBusVariant>().variant();
    }
    if (inner.metaType() != QMetaType::fromType<uint>()) {
        if (error != nullptr) {
            *error = QStringLiteral("expected an unsigned number, got %1")
                         .arg(inner.isValid() ? QString::fromLatin1(inner.typeName())
                                              : QStringLiteral("nothing"));
        }
        return std::nullopt;
    }
    switch (inner.toUInt()) {
        case 0:
            return ColorScheme::noPreference;
        case 1:
            return ColorScheme::preferDark;
        case 2:
            return ColorScheme::preferLight;
        default:
            if (error != nullptr) {
                *error = QStringLiteral("unknown value %1").arg(inner.toUInt());
            }
            return std::nullopt;
    }
}

}  // namespace bonkwell

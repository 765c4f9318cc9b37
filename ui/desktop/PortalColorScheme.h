// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "ColorScheme.h"

#include <QDBusConnection>
#include <QDBusVariant>
#include <QString>
#include <QVariant>

#include <optional>

class QDBusPendingCallWatcher;

namespace bonkwell {

// The colour-scheme preference from the XDG desktop portal's Settings interface
// ("org.freedesktop.appearance" "color-scheme": 0 no preference, 1 dark, 2 light), which GNOME
// and other desktops publish. Asks without waiting (start-up never blocks on the bus) and
// follows the portal's SettingChanged signal. No bus, no portal or an answer that makes no
// sense: "no preference", said once in the log.
class PortalColorScheme final : public ColorSchemeSource {
    Q_OBJECT
  public:
    explicit PortalColorScheme(QObject* parent = nullptr);
    // On `bus` instead of the session bus (tests run a private bus).
    explicit PortalColorScheme(const QDBusConnection& bus, QObject* parent = nullptr);

    ColorScheme current() const override { return scheme_; }
    // True once the portal answered or the asking failed.
    bool settled() const { return settled_; }

    // The preference a portal value stands for: a uint, possibly wrapped in variants (Read
    // wraps it in one more than ReadOne). nullopt with the reason for anything else.
    static std::optional<ColorScheme> fromPortalValue(const QVariant& value, QString* error);

  private slots:
    void settingChanged(const QString& nameSpace, const QString& key, const QDBusVariant& value);

  private:
    void ask(const QString& method);
    void answered(QDBusPendingCallWatcher* call, const QString& method);
    void giveUp(const QString& why);
    void take(const QVariant& value, const QString& where);

    QDBusConnection bus_;
    ColorScheme scheme_ = ColorScheme::noPreference;
    bool settled_ = false;
    bool warned_ = false;
};

}  // namespace bonkwell

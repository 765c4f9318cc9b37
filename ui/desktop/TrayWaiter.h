// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

namespace bonkwell {

// Waits for a system tray to exist before the app makes its tray icon. Qt decides once per
// process whether to use the D-Bus tray (StatusNotifierItem), at the first tray icon it
// makes; an app started at login before the panel would otherwise never get its icon. So no
// Qt tray code runs until either a StatusNotifierWatcher with a registered host or an XEmbed
// tray (the _NET_SYSTEM_TRAY_S<n> selection) is there.
class TrayWaiter : public QObject {
  public:
    enum class Host { none, statusNotifier, xembed };

    explicit TrayWaiter(QObject* parent = nullptr);

    // Calls `onReady` with the host found, at once if one is there, or with Host::none after
    // `timeoutMs` without one. Polls every `intervalMs` meanwhile.
    void wait(std::function<void(Host)> onReady, int timeoutMs = 30000, int intervalMs = 250);

    static Host currentHost();
    static bool statusNotifierHostReady();
    static bool xembedTrayReady();
    static QString describe(Host host);

  private:
    void poll();

    QTimer timer_;
    qint64 deadline_ = 0;
    std::function<void(Host)> onReady_;
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

class QDBusServiceWatcher;

namespace bonkwell {

// Waits for a system tray to exist before the app makes its tray icon. Qt decides once per
// process whether to use the D-Bus tray (StatusNotifierItem), at the first tray icon it
// makes; an app started at login before the panel would otherwise never get its icon. So no
// Qt tray code runs until either a StatusNotifierWatcher with a registered host or an XEmbed
// tray (the _NET_SYSTEM_TRAY_S<n> selection) is there. The watcher's bus name is watched
// too, so a host that comes up is seen at once.
class TrayWaiter : public QObject {
    Q_OBJECT
  public:
    enum class Host { none, statusNotifier, xembed };

    explicit TrayWaiter(QObject* parent = nullptr);

    // Calls `onReady` with the host found, at once if one is there, or with Host::none after
    // `timeoutMs` without one. Polls every `intervalMs` meanwhile. After Host::none it keeps
    // looking (every `laterIntervalMs`) and calls `onReady` once more when a host appears
    // later (an autostart that beat the panel).
    void wait(std::function<void(Host)> onReady, int timeoutMs = 1500, int intervalMs = 250,
              int laterIntervalMs = 1000);
    // True while no host was found yet (before or after the timeout).
    bool waiting() const { return static_cast<bool>(onReady_); }

    static Host currentHost();
    static bool statusNotifierHostReady();
    static bool xembedTrayReady();
    static QString describe(Host host);

  private slots:
    void hostRegistered();

  private:
    void poll();
    void watchBus();

    QTimer timer_;
    qint64 deadline_ = 0;
    int laterIntervalMs_ = 1000;
    bool gaveUp_ = false;
    QDBusServiceWatcher* busWatch_ = nullptr;
    std::function<void(Host)> onReady_;
};

}  // namespace bonkwell

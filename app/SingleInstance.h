// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QLocalServer>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

namespace bonkwell {

// One running copy per user session. The first copy claims a local socket; a later start
// reaches it, asks it to show itself, and learns that it should exit.
class InstanceGuard {
  public:
    enum class Role {
        primary,    // no other copy runs: this one now answers later starts
        secondary,  // another copy runs and has been asked to show its panel
    };
    virtual ~InstanceGuard() = default;
    // Decides this process's role; nullopt (with `error` set) when neither can be decided.
    virtual std::optional<Role> claim(QString* error) = 0;
    // What the primary does when a later start asks it to show itself (on the main thread).
    virtual void setShowRequestHandler(std::function<void()> handler) = 0;
};

// The guard over a per-user socket, by default $XDG_RUNTIME_DIR/bonkwell/instance.
class SingleInstance : public QObject, public InstanceGuard {
  public:
    explicit SingleInstance(QString socketPath = defaultSocketPath(), int replyTimeoutMs = 3000);
    ~SingleInstance() override;

    std::optional<Role> claim(QString* error) override;
    void setShowRequestHandler(std::function<void()> handler) override;

    // While the show-request handler runs: the activation token the later start brought from
    // its launcher (XDG_ACTIVATION_TOKEN or DESKTOP_STARTUP_ID), or empty.
    QString requestToken() const { return requestToken_; }

    // $XDG_RUNTIME_DIR/bonkwell/instance; without it /run/user/<uid>/bonkwell/instance when
    // that is this user's private folder, else ~/.cache/bonkwell/instance; empty when there is
    // no HOME either (claim() then reports that it cannot guard).
    static QString defaultSocketPath();
    static QString socketPathFor(const QString& runtimeDir, const QString& userRunDir,
                                 const QString& home);
    QString socketPath() const { return socketPath_; }

  private:
    enum class Ask { answered, nobody, noAnswer };
    Ask askRunningCopy(QString* error);
    void onNewConnection();

    QString socketPath_;
    int replyTimeoutMs_;
    std::unique_ptr<QLocalServer> server_;
    std::function<void()> handler_;
    QString requestToken_;
};

}  // namespace bonkwell

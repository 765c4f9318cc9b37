// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QStringList>
#include <QTemporaryDir>

#include <cstdlib>
#include <mutex>

namespace bonkwell::test {

// Runs every task posted to the main queue so far, and those they post in turn.
inline void drainMainQueue() {
    for (int i = 0; i < 100; ++i) {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
}

// Collects log lines for the life of the object instead of writing them out.
class LogCapture {
  public:
    LogCapture() {
        setLogSinkForTesting([this](const QString& line) {
            std::lock_guard lock(mutex_);
            lines_.append(line);
        });
    }
    ~LogCapture() { setLogSinkForTesting({}); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QStringList lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

  private:
    mutable std::mutex mutex_;
    QStringList lines_;
};

// Points the XDG folders at a fresh temporary home for the life of the object.
class TemporaryXdgHome {
  public:
    // In the temp folder, or, given `parent`, in a new folder inside it.
    explicit TemporaryXdgHome(const QString& parent = QString())
        : dir_(parent.isEmpty() ? QDir::tempPath() + QStringLiteral("/bonkwell-xdg-XXXXXX")
                                : parent + QStringLiteral("/.bonkwell-xdg-XXXXXX")) {
        ::setenv("XDG_CONFIG_HOME", qPrintable(dir_.path() + QStringLiteral("/config")), 1);
        ::setenv("XDG_DATA_HOME", qPrintable(dir_.path() + QStringLiteral("/data")), 1);
    }
    ~TemporaryXdgHome() {
        ::unsetenv("XDG_CONFIG_HOME");
        ::unsetenv("XDG_DATA_HOME");
    }
    bool isValid() const { return dir_.isValid(); }
    QString path() const { return dir_.path(); }
    QString configHome() const { return dir_.path() + QStringLiteral("/config"); }
    QString dataHome() const { return dir_.path() + QStringLiteral("/data"); }

  private:
    QTemporaryDir dir_;
};

}  // namespace bonkwell::test

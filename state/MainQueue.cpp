// SPDX-License-Identifier: GPL-3.0-or-later
#include "MainQueue.h"

#include "Log.h"

#include <QCoreApplication>
#include <QMetaObject>

namespace bonkwell::MainQueue {

void post(std::function<void()> task) {
    QCoreApplication* app = QCoreApplication::instance();
    if (app == nullptr) {
        fatal(QStringLiteral("main queue used before the application object exists"));
    }
    QMetaObject::invokeMethod(app, std::move(task), Qt::QueuedConnection);
}

void post(QObject* context, std::function<void()> task) {
    if (QCoreApplication::instance() == nullptr) {
        fatal(QStringLiteral("main queue used before the application object exists"));
    }
    if (context == nullptr) {
        return;
    }
    // Queued to an object that lives on the main thread; Qt drops the call if the context
    // dies first. A context on another thread would run the task there, so guard by pointer.
    QPointer<QObject> guard(context);
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [guard, task = std::move(task)]() {
            if (guard) {
                task();
            }
        },
        Qt::QueuedConnection);
}

}  // namespace bonkwell::MainQueue

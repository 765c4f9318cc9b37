// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QPointer>

#include <functional>

namespace bonkwell {

// "Post this to the main thread, asynchronously": the task runs later on the thread of the
// Qt application object, from its event loop, in the order tasks were posted. Callable from
// any thread. Needs a QCoreApplication (or subclass) to exist.
namespace MainQueue {

void post(std::function<void()> task);

// The same, but the task is dropped if `context` is destroyed before it runs: the task holds
// its owner weakly.
void post(QObject* context, std::function<void()> task);

}  // namespace MainQueue
}  // namespace bonkwell

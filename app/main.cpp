// SPDX-License-Identifier: GPL-3.0-or-later
// Bonkwell: slap your laptop, hear it complain.
#include "AppState.h"
#include "Log.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <sys/signalfd.h>
#include <unistd.h>
#include <csignal>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Bonkwell"));

    bonkwell::AppState state;
    state.load();
    bonkwell::logLine(QStringLiteral("Bonkwell: started; %1 slaps today, %2 in all")
                          .arg(state.todayCount.get())
                          .arg(state.totalCount.get()));

    // Quit cleanly on SIGINT/SIGTERM.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    const int sfd = signalfd(-1, &mask, SFD_CLOEXEC);
    QSocketNotifier notifier(sfd, QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &app,
                     [] { QCoreApplication::quit(); });
    const int rc = QCoreApplication::exec();
    ::close(sfd);
    return rc;
}

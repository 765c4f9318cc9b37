// SPDX-License-Identifier: GPL-3.0-or-later
// Bonkwell: slap your laptop, hear it complain. Reads no options.
#include "AppDelegate.h"
#include "AudioPlayer.h"
#include "Clock.h"
#include "ColorSchemeFollower.h"
#include "LinuxDesktop.h"
#include "Log.h"
#include "MenuBarController.h"
#include "PortalColorScheme.h"
#include "SingleInstance.h"
#include "SlapDetector.h"
#include "SoundPackManager.h"
#include "ThuzzEngine.h"

#include <QApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

using namespace bonkwell;

namespace {

int signalPipe[2] = {-1, -1};

void onTerminationSignal(int) {
    const char byte = 'q';
    [[maybe_unused]] const ssize_t n = ::write(signalPipe[1], &byte, 1);
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Bonkwell"));
    QApplication::setDesktopFileName(QStringLiteral("com.bonkwell.Bonkwell"));
    // A tray app: closing Settings or Calibration must not end it.
    QApplication::setQuitOnLastWindowClosed(false);

    // A second start (autostart plus a click in the menu) opens the running copy's panel
    // and ends here.
    SingleInstance instance;
    QString instanceError;
    const auto role = instance.claim(&instanceError);
    if (role == InstanceGuard::Role::secondary) {
        return 0;
    }
    if (!role) {
        logLine(QStringLiteral("Bonkwell: cannot tell whether Bonkwell already runs (%1); "
                               "starting anyway")
                    .arg(instanceError));
    }

    // The desktop's light or dark preference, where Qt does not follow it by itself. The
    // portal answers later; the windows repaint when it does.
    PortalColorScheme colorScheme;
    ColorSchemeFollower followColorScheme(colorScheme);

    LinuxDesktop desktop;
    AppDelegate::Parts parts{std::make_unique<AppState>(), std::make_unique<SlapDetector>(),
                             std::make_unique<AudioPlayer>(Clock::system()),
                             std::make_unique<SoundPackManager>(), std::make_unique<ThuzzEngine>()};
    AppDelegate delegate(std::move(parts), [&desktop, &instance](AppDelegate& d) {
        auto menuBar = std::make_unique<MenuBarController>(d.state(), d.detector(), d.audio(),
                                                           d.packManager(), d.engine(), desktop);
        instance.setShowRequestHandler([controller = menuBar.get(), &instance] {
            controller->showPanel(instance.requestToken());
        });
        menuBar->start();
        return menuBar;
    });
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &app, [&delegate, &instance] {
        instance.setShowRequestHandler({});
        delegate.applicationWillTerminate();
    });

    // SIGINT and SIGTERM end the app through the event loop, like "Quit Bonkwell". The
    // handler only writes to a pipe; no signal mask is changed, so children start clean.
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) == 0) {
        struct sigaction action {};
        action.sa_handler = onTerminationSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
    }
    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &app,
                     [] { QCoreApplication::quit(); });

    QTimer::singleShot(0, &app, [&delegate] { delegate.applicationDidFinishLaunching(); });
    return QApplication::exec();
}

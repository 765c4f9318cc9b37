// SPDX-License-Identifier: GPL-3.0-or-later
#include "WindowHost.h"

#include "Symbols.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>

#include <utility>

namespace bonkwell {

WindowHost::WindowHost(QWidget* parent) : QWidget(parent, Qt::Window) {}

void WindowHost::closeEvent(QCloseEvent* event) {
    QWidget::closeEvent(event);
    if (event->isAccepted()) {
        emit closed();
    }
}

WindowHost* makeWindowHost(const QString& objectName, const QString& title, Qt::WindowFlags flags,
                           std::function<void()> forget) {
    auto* window = new WindowHost;
    window->setObjectName(objectName);
    window->setWindowTitle(title);
    window->setWindowIcon(symbols::appIcon());
    window->setWindowFlags(flags);
    auto* layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    QObject::connect(window, &WindowHost::closed, window,
                     [window, forget = std::move(forget)]() mutable {
                         if (forget) {
                             std::exchange(forget, nullptr)();
                         }
                         window->deleteLater();
                     });
    return window;
}

void presentCentred(QWidget* window) {
    centerOnScreen(window);
    bringToFront(window);
    centerOnScreen(window);
}

void centerOnScreen(QWidget* window) {
    QScreen* screen = window->screen();
    if (screen == nullptr) {
        screen = QGuiApplication::primaryScreen();
    }
    if (screen == nullptr) {
        return;
    }
    const QRect available = screen->availableGeometry();
    const QSize size = window->frameGeometry().size().expandedTo(window->size());
    window->move(available.center() - QPoint(size.width() / 2, size.height() / 2) + QPoint(1, 1));
}

void bringToFront(QWidget* window) {
    if (window->isMinimized()) {
        window->showNormal();
    } else {
        window->show();
    }
    window->raise();
    window->activateWindow();
}

}  // namespace bonkwell

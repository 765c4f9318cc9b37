// SPDX-License-Identifier: GPL-3.0-or-later
#include "WindowHost.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QScreen>

namespace bonkwell {

WindowHost::WindowHost(QWidget* parent) : QWidget(parent, Qt::Window) {}

void WindowHost::closeEvent(QCloseEvent* event) {
    QWidget::closeEvent(event);
    if (event->isAccepted()) {
        emit closed();
    }
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

// SPDX-License-Identifier: GPL-3.0-or-later
#include "MenuBarController.h"

#include "CalibrationView.h"
#include "Log.h"
#include "PopoverView.h"
#include "SettingsWindow.h"
#include "Symbols.h"
#include "TaskbarPresence.h"
#include "TestEvents.h"
#include "Widgets.h"

#include <QApplication>
#include <QCloseEvent>
#include <QCursor>
#include <QGuiApplication>
#include <QLabel>
#include <QPainter>
#include <QPalette>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

namespace bonkwell {
namespace {

// A click outside the open panel closes it before the tray sees the click; a trigger that
// close behind it is that same click and must not reopen the panel.
constexpr qint64 kReopenGuardMs = 250;

// Closing the fallback window ends the app.
class FallbackWindow final : public QWidget {
  protected:
    void closeEvent(QCloseEvent* event) override {
        event->accept();
        QCoreApplication::quit();
    }
};

QString geometryText(const QWidget* w) {
    return QStringLiteral("%1,%2 %3x%4").arg(w->x()).arg(w->y()).arg(w->width()).arg(w->height());
}

// For the desktop tests: where each named control of a window is on screen.
void reportWidgets(const QString& where, const QWidget* top) {
    if (!testEventsEnabled()) {
        return;
    }
    for (const QWidget* child : top->findChildren<QWidget*>()) {
        if (child->objectName().isEmpty() || !child->isVisible()) {
            continue;
        }
        const QPoint at = child->mapToGlobal(QPoint(0, 0));
        testEvent(QStringLiteral("%1 widget %2 at %3,%4 %5x%6")
                      .arg(where, child->objectName())
                      .arg(at.x())
                      .arg(at.y())
                      .arg(child->width())
                      .arg(child->height()));
    }
}

// For the desktop tests: the text a named label of the panel shows right now.
void reportText(const QWidget* top, const QString& name) {
    if (const auto* label = top->findChild<QLabel*>(name)) {
        testEvent(QStringLiteral("panel text %1 %2").arg(name, label->text()));
    } else if (const auto* elided = top->findChild<ElidedLabel*>(name)) {
        testEvent(QStringLiteral("panel text %1 %2").arg(name, elided->text()));
    }
}

}  // namespace

MenuBarController::MenuBarController(AppState& state, SlapDetectorInterface& detector,
                                     AudioPlayerInterface& audio,
                                     SoundPackManagerInterface& packManager,
                                     ThuzzEngineInterface& engine, DesktopIntegration& desktop)
    : state_(state),
      detector_(detector),
      audio_(audio),
      packManager_(packManager),
      engine_(engine),
      desktop_(desktop) {
    QPointer<MenuBarController> weak(this);
    popup_ = std::make_unique<QWidget>(nullptr, Qt::Popup | Qt::FramelessWindowHint);
    popup_->setObjectName(QStringLiteral("panelPopup"));
    auto* layout = new QVBoxLayout(popup_.get());
    layout->setContentsMargins(0, 0, 0, 0);
    popover_ = new PopoverView(
        state_, detector_, audio_, packManager_, engine_,
        [weak] {
            if (weak) {
                weak->openSettings();
            }
        },
        [weak] {
            if (weak) {
                weak->openCalibration();
            }
        },
        [] { QCoreApplication::quit(); });
    layout->addWidget(popover_);
    popup_->installEventFilter(this);

    watchWindowsForTests(this);
    // For the desktop tests: what the open panel's "Today" counter shows, each time it changes.
    if (testEventsEnabled()) {
        todayEvents_ = state_.todayCount.subscribe([weak](const std::int64_t&) {
            // Will-set: the label takes the new value during this call; read it afterwards.
            QTimer::singleShot(0, weak, [weak] {
                if (weak && weak->panelShown()) {
                    reportText(weak->popup_.get(), QStringLiteral("todayCount"));
                }
            });
        });
    }

    connect(&menu_, &QMenu::aboutToShow, this, [this] {
        rebuildMenu();
        testEvent(QStringLiteral("menu shown"));
    });
    rebuildMenu();
}

MenuBarController::~MenuBarController() {
    if (trayIcon_) {
        trayIcon_->hide();
    }
}

void MenuBarController::start(int trayTimeoutMs) {
    waiter_.wait(
        [this](TrayWaiter::Host host) {
            if (host == TrayWaiter::Host::none) {
                showFallbackWindow();
            } else {
                createTrayIcon(host);
            }
        },
        trayTimeoutMs);
}

void MenuBarController::createTrayIcon(TrayWaiter::Host host) {
    trayIcon_ = std::make_unique<QSystemTrayIcon>(makeIcon());
    trayIcon_->setToolTip(QStringLiteral("Bonkwell"));
    // The same menu for every host: hosts that draw the menu themselves export this one.
    trayIcon_->setContextMenu(&menu_);
    connect(trayIcon_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) { handleActivation(reason); });
    trayIcon_->show();
    testEvent(QStringLiteral("tray icon shown (%1)").arg(TrayWaiter::describe(host)));
}

void MenuBarController::showFallbackWindow() {
    logLine(QStringLiteral(
        "Bonkwell: no system tray found; showing the Bonkwell window instead (on GNOME, the "
        "AppIndicator extension adds a tray)"));
    auto* window = new FallbackWindow;
    window->setObjectName(QStringLiteral("fallbackWindow"));
    // It is the whole app here: never hidden from the taskbar, or once minimised it could
    // only come back by starting the app again.
    window->setProperty(TaskbarPresence::kAlwaysInTaskbar, true);
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->setWindowTitle(QStringLiteral("Bonkwell"));
    window->setWindowIcon(makeIcon());
    auto* layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    // The panel moves from the popup into the window for the rest of the run.
    popup_->hide();
    layout->addWidget(popover_);
    fallbackWindow_ = window;
    popover_->refresh();
    window->show();
    testEvent(QStringLiteral("window shown Bonkwell"));
}

void MenuBarController::handleActivation(QSystemTrayIcon::ActivationReason reason) {
    switch (reason) {
        case QSystemTrayIcon::Trigger:
        case QSystemTrayIcon::DoubleClick:
            togglePopover();
            break;
        case QSystemTrayIcon::Context:
        case QSystemTrayIcon::MiddleClick:
        case QSystemTrayIcon::Unknown:
            break;
    }
}

QWidget* MenuBarController::panel() const {
    return popup_.get();
}

bool MenuBarController::panelShown() const {
    return popup_->isVisible();
}

void MenuBarController::togglePopover() {
    if (fallbackWindow_ != nullptr) {
        fallbackWindow_->show();
        fallbackWindow_->raise();
        fallbackWindow_->activateWindow();
        return;
    }
    if (popup_->isVisible()) {
        popup_->close();
        return;
    }
    if (QDateTime::currentMSecsSinceEpoch() - popupHiddenAtMs_ < kReopenGuardMs) {
        return;
    }
    popover_->refresh();
    popup_->adjustSize();
    positionPanel();
    popup_->show();
    popup_->raise();
    popup_->activateWindow();
    popover_->setFocus(Qt::PopupFocusReason);
    testEvent(QStringLiteral("panel shown at %1").arg(geometryText(popup_.get())));
    reportWidgets(QStringLiteral("panel"), popup_.get());
    if (testEventsEnabled()) {
        reportText(popup_.get(), QStringLiteral("engineStatusLabel"));
        reportText(popup_.get(), QStringLiteral("todayCount"));
    }
}

void MenuBarController::showPanel() {
    if (fallbackWindow_ != nullptr) {
        fallbackWindow_->setWindowState(fallbackWindow_->windowState() & ~Qt::WindowMinimized);
    } else if (popup_->isVisible()) {
        popup_->raise();
        popup_->activateWindow();
        return;
    }
    popupHiddenAtMs_ = 0;  // an explicit request, not the click that just closed the panel
    togglePopover();
}

void MenuBarController::positionPanel() {
    const QSize size = popup_->size();
    const QRect icon = trayIcon_ ? trayIcon_->geometry() : QRect();
    const QPoint anchor =
        icon.isValid() ? QPoint(icon.center().x(), icon.bottom() + 1) : QCursor::pos();
    QScreen* screen = QGuiApplication::screenAt(anchor);
    if (screen == nullptr) {
        screen = QGuiApplication::primaryScreen();
    }
    const QRect area = screen != nullptr ? screen->availableGeometry() : QRect(QPoint(), size);
    QPoint topLeft(anchor.x() - size.width() / 2, anchor.y());
    // A tray at the bottom of the screen: open upwards, above the icon.
    if (icon.isValid() && topLeft.y() + size.height() > area.bottom()) {
        topLeft.setY(icon.top() - size.height());
    }
    topLeft.setX(std::clamp(topLeft.x(), area.left(),
                            std::max(area.left(), area.right() - size.width() + 1)));
    topLeft.setY(std::clamp(topLeft.y(), area.top(),
                            std::max(area.top(), area.bottom() - size.height() + 1)));
    popup_->move(topLeft);
}

bool MenuBarController::eventFilter(QObject* watched, QEvent* event) {
    if (watched == popup_.get() && event->type() == QEvent::Hide) {
        popupHiddenAtMs_ = QDateTime::currentMSecsSinceEpoch();
        testEvent(QStringLiteral("panel hidden"));
    }
    return QObject::eventFilter(watched, event);
}

void MenuBarController::rebuildMenu() {
    // A fresh set of items each time the menu opens.
    menu_.clear();
    QAction* open = menu_.addAction(QStringLiteral("Open Bonkwell"));
    connect(open, &QAction::triggered, this, [this] { togglePopover(); });
    menu_.addSeparator();
    QAction* settings = menu_.addAction(QStringLiteral("Settings\u2026"));
    settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    connect(settings, &QAction::triggered, this, [this] { openSettings(); });
    QAction* calibration = menu_.addAction(QStringLiteral("Calibration\u2026"));
    connect(calibration, &QAction::triggered, this, [this] { openCalibration(); });
    menu_.addSeparator();
    QAction* quitAction = menu_.addAction(QStringLiteral("Quit Bonkwell"));
    quitAction->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(quitAction, &QAction::triggered, this, [this] { quit(); });
    ++menusBuilt_;
}

void MenuBarController::openSettings() {
    if (!settingsWindow_) {
        QPointer<MenuBarController> weak(this);
        settingsWindow_ = std::make_unique<SettingsWindowController>(
            state_, detector_, audio_, packManager_, engine_,
            [weak] {
                if (weak) {
                    weak->openCalibration();
                }
            },
            desktop_);
    }
    settingsWindow_->show();
    if (QWidget* w = settingsWindow_->window()) {
        testEvent(QStringLiteral("window shown %1").arg(w->windowTitle()));
    }
}

void MenuBarController::openCalibration() {
    if (!calibrationWindow_) {
        calibrationWindow_ = std::make_unique<CalibrationWindowController>(state_, detector_);
    }
    calibrationWindow_->show();
    if (QWidget* w = calibrationWindow_->window()) {
        testEvent(QStringLiteral("window shown %1").arg(w->windowTitle()));
    }
}

void MenuBarController::quit() {
    QCoreApplication::quit();
}

QIcon MenuBarController::makeIcon() {
    // Symbolic: our hand in the panel's text colour.
    const QColor ink = QGuiApplication::palette().color(QPalette::WindowText);
    QIcon icon = symbols::handIcon(ink);
    if (!icon.isNull()) {
        return icon;
    }
    // Without it: an 18×18 image holding a filled circle of diameter 12, centred.
    QPixmap pixmap(18, 18);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(ink);
    painter.drawEllipse(QRectF(3, 3, 12, 12));
    painter.end();
    return QIcon(pixmap);
}

}  // namespace bonkwell

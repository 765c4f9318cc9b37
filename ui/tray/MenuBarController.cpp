// SPDX-License-Identifier: GPL-3.0-or-later
#include "MenuBarController.h"

#include "CalibrationView.h"
#include "Log.h"
#include "PopoverView.h"
#include "SettingsWindow.h"
#include "Symbols.h"
#include "TestEvents.h"
#include "Widgets.h"
#include "WindowHost.h"

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

// How long after showing the icon the panel behind it is looked at.
constexpr int kLookAtPanelMs = 1500;

// How long the desktop has to bring a window forward before the log says it did not.
constexpr int kActivationCheckMs = 1000;

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
    panelHost_ = std::make_unique<PanelHost>(PanelHost::styleForPlatform());
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
    panelHost_->setContent(popover_);
    // The menu's place on screen, and the desktop's theme, which the icon follows.
    qApp->installEventFilter(this);

    watchWindowsForTests(this);
    // For the desktop tests: what the open panel's "Today" counter shows, each time it changes.
    if (testEventsEnabled()) {
        todayEvents_ = state_.todayCount.subscribe([weak](const std::int64_t&) {
            // Will-set: the label takes the new value during this call; read it afterwards.
            QTimer::singleShot(0, weak, [weak] {
                if (weak && weak->panelShown()) {
                    reportText(weak->panel(), QStringLiteral("todayCount"));
                }
            });
        });
    }

    connect(&menu_, &QMenu::aboutToShow, this, [this] {
        rebuildMenu();
        // The click that opened the menu also closed the panel.
        panelHost_->justHidden(PanelHost::HideReason::menu);
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
                retireFallbackWindow();
            }
        },
        trayTimeoutMs);
}

void MenuBarController::createTrayIcon(TrayWaiter::Host host) {
    shownVariant_ = iconVariant();
    trayIcon_ = host == TrayWaiter::Host::statusNotifier ? makeStatusNotifierTrayIcon()
                                                         : makeXEmbedTrayIcon();
    trayIcon_->setIcon(trayicon::makeIcon(*shownVariant_));
    trayIcon_->setToolTip(QStringLiteral("Bonkwell"));
    // The same menu for every host: hosts that draw the menu themselves get it exported.
    trayIcon_->setContextMenu(&menu_);
    trayIcon_->setActivationHandler(
        [this](QSystemTrayIcon::ActivationReason reason, std::optional<QPoint> at) {
            handleActivation(reason, at);
        });
    if (!trayIcon_->show()) {
        logLine(QStringLiteral("Bonkwell: the tray icon could not be shown"));
    }
    // Once the tray has placed the icon, the panel behind it can be looked at.
    QTimer::singleShot(kLookAtPanelMs, this, [this] { updateTrayIcon(); });
    testEvent(QStringLiteral("tray icon shown (%1)").arg(TrayWaiter::describe(host)));
    testEvent(QStringLiteral("tray icon theme %1").arg(trayicon::describe(*shownVariant_)));
}

void MenuBarController::showFallbackWindow() {
    logLine(QStringLiteral(
        "Bonkwell: no system tray found; showing the Bonkwell window instead (on GNOME, the "
        "AppIndicator extension adds a tray)"));
    auto* window = new FallbackWindow;
    window->setAttribute(Qt::WA_DeleteOnClose);
    window->setObjectName(QStringLiteral("fallbackWindow"));
    window->setWindowTitle(QStringLiteral("Bonkwell"));
    window->setWindowIcon(symbols::appIcon());
    auto* layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    // The panel moves from the popup into the window until a tray shows up.
    panelHost_->window()->hide();
    layout->addWidget(popover_);
    fallbackWindow_ = window;
    popover_->refresh();
    window->show();
    testEvent(QStringLiteral("window shown Bonkwell"));
}

void MenuBarController::handleActivation(QSystemTrayIcon::ActivationReason reason,
                                         std::optional<QPoint> at) {
    if (at) {
        activationPoint_ = at;
    }
    // The panel may have changed its colours since (a theme the app is not told about).
    updateTrayIcon();
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

void MenuBarController::retireFallbackWindow() {
    if (fallbackWindow_ == nullptr) {
        return;
    }
    // A tray came after all: the panel goes back to dropping down from the icon, and the
    // window goes without ending the app.
    QWidget* window = fallbackWindow_;
    fallbackWindow_ = nullptr;
    window->hide();
    panelHost_->setContent(popover_);
    window->deleteLater();
    testEvent(QStringLiteral("window hidden Bonkwell"));
}

QWidget* MenuBarController::panel() const {
    return panelHost_->window();
}

bool MenuBarController::panelShown() const {
    return panelHost_->isShown();
}

void MenuBarController::togglePopover() {
    togglePanel(PanelHost::HideReason::iconClick);
}

void MenuBarController::togglePanel(PanelHost::HideReason closeReason) {
    if (fallbackWindow_ != nullptr) {
        bringToFront(fallbackWindow_);
        return;
    }
    if (panelHost_->isShown()) {
        panelHost_->hide(closeReason);
        return;
    }
    if (panelHost_->justHidden(closeReason)) {
        return;  // the click that closed the panel a moment ago
    }
    openPanel();
}

void MenuBarController::openPanel() {
    popover_->refresh();
    panelHost_->show(panelPosition(panelHost_->panelSize()));
    QWidget* window = panelHost_->window();
    reportWidgets(QStringLiteral("panel"), window);
    if (testEventsEnabled()) {
        reportText(window, QStringLiteral("engineStatusLabel"));
        reportText(window, QStringLiteral("todayCount"));
    }
}

void MenuBarController::showPanel(const QString& activationToken) {
    if (!activationToken.isEmpty()) {
        // Handed to the compositor when the window asks to be activated (Wayland).
        qputenv("XDG_ACTIVATION_TOKEN", activationToken.toUtf8());
    }
    if (fallbackWindow_ != nullptr) {
        bringToFront(fallbackWindow_);
    } else if (panelHost_->isShown()) {
        bringToFront(panelHost_->window());
    } else {
        openPanel();  // an explicit request, not the click that just closed the panel
    }
    // Not for the helper or anything else this process starts later.
    qunsetenv("XDG_ACTIVATION_TOKEN");

    QPointer<QWidget> shown = fallbackWindow_ != nullptr ? fallbackWindow_.data() : panel();
    const bool hadToken = !activationToken.isEmpty();
    QTimer::singleShot(kActivationCheckMs, this, [shown, hadToken] {
        if (shown == nullptr || !shown->isVisible() || shown->isActiveWindow() ||
            QApplication::activePopupWidget() == shown) {
            return;
        }
        logLine(QStringLiteral("Bonkwell: the desktop did not bring the Bonkwell window forward "
                               "for this start (%1)")
                    .arg(hadToken ? QStringLiteral("it did not honour the launcher's activation "
                                                   "token")
                                  : QStringLiteral("the launcher passed no activation token")));
    });
}

void MenuBarController::setActivationPoint(const QPoint& point) {
    activationPoint_ = point;
}

QPoint MenuBarController::panelPosition(const QSize& size) const {
    const QRect icon = trayIcon_ ? trayIcon_->geometry() : QRect();
    // The icon's place when the tray tells it; else where the host said the last click was;
    // else the pointer, where the app knows it (plain X11: under a Wayland compositor it is
    // only where the pointer last crossed one of our windows); else the top right corner,
    // where trays mostly are.
    std::optional<QPoint> anchor;
    if (icon.isValid()) {
        anchor = QPoint(icon.center().x(), icon.bottom() + 1);
    } else if (activationPoint_) {
        anchor = *activationPoint_;
    } else if (panelHost_->style() == PanelHost::Style::popup) {
        anchor = QCursor::pos();
    }
    QScreen* screen = anchor ? QGuiApplication::screenAt(*anchor) : nullptr;
    if (screen == nullptr) {
        screen = QGuiApplication::primaryScreen();
    }
    const QRect area = screen != nullptr ? screen->availableGeometry() : QRect(QPoint(), size);
    if (!anchor) {
        return QPoint(area.right() + 1 - size.width(), area.top());
    }
    QPoint topLeft(anchor->x() - size.width() / 2, anchor->y());
    // A tray at the bottom of the screen: open upwards, above the icon (or the click).
    if (topLeft.y() + size.height() > area.bottom() && anchor->y() > area.center().y()) {
        topLeft.setY((icon.isValid() ? icon.top() : anchor->y()) - size.height());
    }
    topLeft.setX(std::clamp(topLeft.x(), area.left(),
                            std::max(area.left(), area.right() - size.width() + 1)));
    topLeft.setY(std::clamp(topLeft.y(), area.top(),
                            std::max(area.top(), area.bottom() - size.height() + 1)));
    return topLeft;
}

bool MenuBarController::eventFilter(QObject* watched, QEvent* event) {
    switch (event->type()) {
        case QEvent::Show:
            if (watched == &menu_) {
                testEvent(QStringLiteral("menu shown at %1").arg(geometryText(&menu_)));
            }
            break;
        case QEvent::ApplicationPaletteChange:
        case QEvent::ThemeChange:
            if (watched == qApp || watched == panelHost_->window()) {
                updateTrayIcon();
            }
            break;
        default:
            break;
    }
    return QObject::eventFilter(watched, event);
}

trayicon::Variant MenuBarController::iconVariant() const {
    // Where the tray says where the icon is (XEmbed), the panel behind it decides.
    const QRect icon = trayIcon_ ? trayIcon_->geometry() : QRect();
    if (icon.isValid()) {
        if (QScreen* screen = QGuiApplication::screenAt(icon.center())) {
            const QPoint at = icon.topLeft() - screen->geometry().topLeft();
            const QImage behind =
                screen->grabWindow(0, at.x(), at.y(), icon.width(), icon.height()).toImage();
            if (const auto variant = trayicon::variantForBackground(behind)) {
                return *variant;
            }
        }
    }
    return trayicon::variantFor(QGuiApplication::palette(),
                                qEnvironmentVariable("XDG_CURRENT_DESKTOP"));
}

void MenuBarController::updateTrayIcon() {
    if (!trayIcon_) {
        return;
    }
    const trayicon::Variant variant = iconVariant();
    if (shownVariant_ == variant) {
        return;
    }
    shownVariant_ = variant;
    trayIcon_->setIcon(trayicon::makeIcon(variant));
    testEvent(QStringLiteral("tray icon theme %1").arg(trayicon::describe(variant)));
}

void MenuBarController::rebuildMenu() {
    // A fresh set of items each time the menu opens.
    menu_.clear();
    QAction* open = menu_.addAction(QStringLiteral("Open Bonkwell"));
    connect(open, &QAction::triggered, this, [this] { togglePanel(PanelHost::HideReason::menu); });
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

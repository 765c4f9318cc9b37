// SPDX-License-Identifier: GPL-3.0-or-later
#include "PanelHost.h"

#include "TestEvents.h"

#include <QApplication>
#include <QDateTime>
#include <QEvent>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QTimer>
#include <QVBoxLayout>

namespace bonkwell {
namespace {

// A click outside the open panel closes it before the tray (or the menu) sees that click; a
// trigger this soon behind the closing is the same click.
constexpr qint64 kSameClickMs = 400;
// How long a loss of focus must last before it closes the panel.
constexpr int kFocusSettleMs = 200;
// When an X11 client of a Wayland compositor asks for the keyboard a second time.
constexpr int kReactivateMs = 150;

qint64 nowMs() {
    return QDateTime::currentMSecsSinceEpoch();
}

QString geometryText(const QWidget* w) {
    return QStringLiteral("%1,%2 %3x%4").arg(w->x()).arg(w->y()).arg(w->width()).arg(w->height());
}

}  // namespace

class PanelHost::Window final : public QWidget {
  public:
    Window(PanelHost& owner, Qt::WindowFlags flags) : QWidget(nullptr, flags), owner_(owner) {}

  protected:
    void keyPressEvent(QKeyEvent* event) override {
        if (event->key() == Qt::Key_Escape) {
            event->accept();
            owner_.hide(HideReason::escape);
            return;
        }
        QWidget::keyPressEvent(event);
    }

    bool event(QEvent* event) override {
        switch (event->type()) {
            case QEvent::WindowActivate:
                owner_.onActivated();
                break;
            case QEvent::WindowDeactivate:
                if (owner_.style_ == Style::window) {
                    // Looked at once the focus has settled: a list dropping down from the
                    // panel's own picker, or a keyboard joining the seat (Wayland), takes the
                    // focus for a moment without closing it.
                    // A focus change from before the panel was last shown is not looked at:
                    // closed and opened again within the moment, it is a new showing.
                    QTimer::singleShot(kFocusSettleMs, this, [this, showing = showings_] {
                        if (showing == showings_ && isVisible() && !isActiveWindow() &&
                            QApplication::activePopupWidget() == nullptr) {
                            owner_.hide(HideReason::focusLost);
                        }
                    });
                }
                break;
            case QEvent::Show:
                ++showings_;
                break;
            case QEvent::Hide:
                if (!event->spontaneous()) {
                    owner_.onHidden();
                }
                break;
            default:
                break;
        }
        return QWidget::event(event);
    }

  private:
    PanelHost& owner_;
    int showings_ = 0;  // how often it has been shown
};

PanelHost::Style PanelHost::styleForPlatform() {
    if (QGuiApplication::platformName() != QLatin1String("xcb")) {
        return QGuiApplication::platformName() == QLatin1String("offscreen") ? Style::popup
                                                                             : Style::window;
    }
    // An X11 client of a Wayland compositor (XWayland) gets no pointer grab for popups.
    const bool underWayland = !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
                              qEnvironmentVariable("XDG_SESSION_TYPE") == QLatin1String("wayland");
    return underWayland ? Style::window : Style::popup;
}

QString PanelHost::describe(HideReason reason) {
    switch (reason) {
        case HideReason::escape:
            return QStringLiteral("escape");
        case HideReason::focusLost:
            return QStringLiteral("focus-lost");
        case HideReason::iconClick:
            return QStringLiteral("icon-click");
        case HideReason::menu:
            return QStringLiteral("menu");
    }
    return {};
}

PanelHost::PanelHost(Style style, QObject* parent) : QObject(parent), style_(style) {
    const Qt::WindowFlags flags =
        style == Style::popup ? Qt::Popup | Qt::FramelessWindowHint
                              : Qt::Dialog | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint;
    window_ = std::make_unique<Window>(*this, flags);
    window_->setObjectName(QStringLiteral("panelPopup"));
    window_->setWindowTitle(QStringLiteral("Bonkwell"));
    auto* layout = new QVBoxLayout(window_.get());
    layout->setContentsMargins(0, 0, 0, 0);
    // The panel keeps the size of its content: rows never stretch apart.
    layout->setSizeConstraint(QLayout::SetFixedSize);
}

// The content goes with the window when it is in it.
PanelHost::~PanelHost() = default;

QWidget* PanelHost::window() const {
    return window_.get();
}

bool PanelHost::isShown() const {
    return window_->isVisible();
}

void PanelHost::setContent(QWidget* content) {
    content_ = content;
    window_->layout()->addWidget(content);
    content->show();
}

QSize PanelHost::panelSize() const {
    window_->adjustSize();
    return window_->size();
}

void PanelHost::show(const QPoint& topLeft) {
    const QSize size = panelSize();
    if (style_ == Style::window) {
        window_->setFixedSize(size);
    }
    window_->move(topLeft);
    explicitReason_.reset();
    if (pendingReason_) {
        reportReason(*std::exchange(pendingReason_, std::nullopt));
    }
    activeReported_ = false;
    window_->show();
    window_->raise();
    window_->activateWindow();
    if (style_ == Style::window && QGuiApplication::platformName() == QLatin1String("xcb")) {
        // Through XWayland the first request can carry an X time from before the click that
        // opened the panel (the click went to the compositor, not to us), and the compositor
        // may then leave its focus elsewhere. Asked again once the window is mapped (which
        // brings the app a fresh time), it gives the panel the keyboard.
        QTimer::singleShot(kReactivateMs, window_.get(), [w = window_.get()] {
            if (w->isVisible()) {
                w->activateWindow();
            }
        });
    }
    if (content_ != nullptr) {
        content_->setFocus(Qt::PopupFocusReason);
    }
    testEvent(QStringLiteral("panel shown at %1").arg(geometryText(window_.get())));
    // A popup has the keyboard from the moment it is shown (it grabs it); a window once the
    // window manager activates it.
    if (style_ == Style::popup && QApplication::activePopupWidget() == window_.get()) {
        onActivated();
    }
}

void PanelHost::hide(HideReason reason) {
    if (!window_->isVisible()) {
        return;
    }
    explicitReason_ = reason;
    window_->close();
}

bool PanelHost::justHidden(HideReason reason) {
    // Only a hiding nobody asked for (a click elsewhere) can be that click; Escape or a
    // toggle is not.
    if (window_->isVisible() || !pendingReason_ || nowMs() - hiddenAtMs_ >= kSameClickMs) {
        return false;
    }
    pendingReason_ = reason;
    return true;
}

void PanelHost::onActivated() {
    if (!activeReported_ && window_->isVisible()) {
        activeReported_ = true;
        testEvent(QStringLiteral("panel active"));
    }
}

void PanelHost::onHidden() {
    hiddenAtMs_ = nowMs();
    testEvent(QStringLiteral("panel hidden"));
    if (explicitReason_) {
        reportReason(*std::exchange(explicitReason_, std::nullopt));
        return;
    }
    // Closed by a click elsewhere, unless that click turns out to be on the icon or to open
    // the menu (justHidden() within the next moment).
    pendingReason_ = HideReason::focusLost;
    const int serial = ++hideSerial_;
    QTimer::singleShot(kSameClickMs, this, [this, serial] {
        if (serial == hideSerial_ && pendingReason_) {
            reportReason(*std::exchange(pendingReason_, std::nullopt));
        }
    });
}

void PanelHost::reportReason(HideReason reason) {
    testEvent(QStringLiteral("panel hidden by %1").arg(describe(reason)));
}

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
#include "TaskbarPresence.h"

#include "Log.h"

#include <QApplication>
#include <QEvent>
#include <QGuiApplication>
#include <QWidget>
#include <QWindow>

#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace bonkwell {
namespace {

xcb_connection_t* x11Connection() {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    return x11 != nullptr ? x11->connection() : nullptr;
}

xcb_atom_t atom(xcb_connection_t* c, const char* name) {
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, static_cast<uint16_t>(std::strlen(name)), name), nullptr);
    if (reply == nullptr) {
        return XCB_ATOM_NONE;
    }
    const xcb_atom_t a = reply->atom;
    std::free(reply);
    return a;
}

std::vector<xcb_atom_t> readState(xcb_connection_t* c, xcb_window_t w, xcb_atom_t netWmState) {
    std::vector<xcb_atom_t> atoms;
    xcb_get_property_reply_t* reply = xcb_get_property_reply(
        c, xcb_get_property(c, 0, w, netWmState, XCB_ATOM_ATOM, 0, 1024), nullptr);
    if (reply != nullptr) {
        if (reply->format == 32 && reply->type == XCB_ATOM_ATOM) {
            const auto* data = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply));
            atoms.assign(data, data + xcb_get_property_value_length(reply) / 4);
        }
        std::free(reply);
    }
    return atoms;
}

// Whether the window belongs to a widget marked to keep its taskbar entry.
bool alwaysInTaskbar(QWindow* window) {
    if (window->property(TaskbarPresence::kAlwaysInTaskbar).toBool()) {
        return true;
    }
    for (const QWidget* widget : QApplication::topLevelWidgets()) {
        if (widget->windowHandle() == window) {
            return widget->property(TaskbarPresence::kAlwaysInTaskbar).toBool();
        }
    }
    return false;
}

}  // namespace

TaskbarPresence::TaskbarPresence(QObject* parent)
    : QObject(parent), x11_(QGuiApplication::platformName() == QLatin1String("xcb")) {
    qApp->installEventFilter(this);
    for (QWindow* w : QGuiApplication::topLevelWindows()) {
        apply(w);
    }
}

TaskbarPresence::~TaskbarPresence() {
    if (qApp != nullptr) {
        qApp->removeEventFilter(this);
    }
}

void TaskbarPresence::setShown(bool shown) {
    shown_ = shown;
    if (!x11_) {
        if (!warnedUnsupported_) {
            logLine(
                QStringLiteral(
                    "Bonkwell: this desktop (%1) offers no way to hide or show a taskbar entry; "
                    "\"Show in taskbar\" has no effect")
                    .arg(QGuiApplication::platformName()));
            warnedUnsupported_ = true;
        }
        return;
    }
    for (QWindow* w : QGuiApplication::topLevelWindows()) {
        apply(w);
    }
}

bool TaskbarPresence::eventFilter(QObject* watched, QEvent* event) {
    // A widget's Show event comes after its native window exists and before it is mapped:
    // the moment to set the hint so the taskbar never sees the window.
    if (x11_ && event->type() == QEvent::Show) {
        if (auto* widget = qobject_cast<QWidget*>(watched);
            widget != nullptr && widget->isWindow()) {
            apply(widget->windowHandle());
        }
    }
    return QObject::eventFilter(watched, event);
}

void TaskbarPresence::apply(QWindow* window) const {
    if (!x11_ || window == nullptr || window->type() == Qt::Popup ||
        window->type() == Qt::ToolTip || window->handle() == nullptr || alwaysInTaskbar(window)) {
        return;
    }
    xcb_connection_t* c = x11Connection();
    if (c == nullptr) {
        return;
    }
    const auto w = static_cast<xcb_window_t>(window->winId());
    const xcb_atom_t netWmState = atom(c, "_NET_WM_STATE");
    const xcb_atom_t skipTaskbar = atom(c, "_NET_WM_STATE_SKIP_TASKBAR");
    const xcb_atom_t skipPager = atom(c, "_NET_WM_STATE_SKIP_PAGER");

    if (window->isVisible()) {
        // Mapped: ask the window manager, which owns the property now.
        xcb_client_message_event_t msg{};
        msg.response_type = XCB_CLIENT_MESSAGE;
        msg.format = 32;
        msg.window = w;
        msg.type = netWmState;
        msg.data.data32[0] = shown_ ? 0 : 1;  // _NET_WM_STATE_REMOVE / _ADD
        msg.data.data32[1] = skipTaskbar;
        msg.data.data32[2] = skipPager;
        msg.data.data32[3] = 1;  // a normal application
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
        xcb_send_event(c, 0, root,
                       XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                       reinterpret_cast<const char*>(&msg));
    }
    // Not yet mapped (or in case the manager ignores us): keep the property itself right.
    std::vector<xcb_atom_t> atoms = readState(c, w, netWmState);
    std::erase(atoms, skipTaskbar);
    std::erase(atoms, skipPager);
    if (!shown_) {
        atoms.push_back(skipTaskbar);
        atoms.push_back(skipPager);
    }
    if (!window->isVisible()) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, netWmState, XCB_ATOM_ATOM, 32,
                            static_cast<uint32_t>(atoms.size()), atoms.data());
    }
    xcb_flush(c);
}

bool TaskbarPresence::windowSkipsTaskbar(QWindow* window) {
    if (QGuiApplication::platformName() != QLatin1String("xcb") || window == nullptr) {
        return false;
    }
    xcb_connection_t* c = x11Connection();
    if (c == nullptr) {
        return false;
    }
    const auto atoms =
        readState(c, static_cast<xcb_window_t>(window->winId()), atom(c, "_NET_WM_STATE"));
    const xcb_atom_t skip = atom(c, "_NET_WM_STATE_SKIP_TASKBAR");
    return std::find(atoms.begin(), atoms.end(), skip) != atoms.end();
}

}  // namespace bonkwell

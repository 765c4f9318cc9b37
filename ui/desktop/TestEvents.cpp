// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestEvents.h"

#include <QAbstractButton>
#include <QApplication>
#include <QHash>
#include <QLabel>
#include <QSet>
#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace bonkwell {

bool testEventsEnabled() {
    static const bool enabled = std::getenv("BONKWELL_TEST_EVENTS") != nullptr;
    return enabled;
}

void testEvent(const QString& what) {
    if (!testEventsEnabled()) {
        return;
    }
    std::fprintf(stderr, "bonkwell-event: %s\n", what.toUtf8().constData());
    std::fflush(stderr);
}

namespace {

constexpr int kWatchIntervalMs = 100;

// What was last reported for each "WINDOW/NAME": its text, or its place on screen.
struct Reported {
    QHash<QString, QString> texts;
    QHash<QString, QString> places;
};

void reportChanges(Reported& reported) {
    // A window shown again reports everything afresh.
    QSet<QString> seen;
    for (QWidget* top : QApplication::topLevelWidgets()) {
        if (!top->isVisible() || top->objectName().isEmpty()) {
            continue;
        }
        const QString window = top->objectName();
        for (QWidget* child : top->findChildren<QWidget*>()) {
            if (child->objectName().isEmpty() || !child->isVisible()) {
                continue;
            }
            const QString key = window + QLatin1Char('/') + child->objectName();
            seen.insert(key);
            const QPoint at = child->mapToGlobal(QPoint(0, 0));
            const QString place = QStringLiteral("%1,%2 %3x%4")
                                      .arg(at.x())
                                      .arg(at.y())
                                      .arg(child->width())
                                      .arg(child->height());
            if (reported.places.value(key) != place) {
                reported.places.insert(key, place);
                testEvent(QStringLiteral("widget %1 at %2").arg(key, place));
            }
            QString text;
            bool hasText = false;
            if (const auto* label = qobject_cast<QLabel*>(child)) {
                text = label->text();
                hasText = true;
            } else if (const auto* button = qobject_cast<QAbstractButton*>(child)) {
                text = button->text();
                hasText = true;
            } else if (!child->accessibleName().isEmpty()) {
                // A control drawn by hand names its text for screen readers.
                text = child->accessibleName();
                hasText = true;
            }
            if (hasText && (!reported.texts.contains(key) || reported.texts.value(key) != text)) {
                reported.texts.insert(key, text);
                // One line per event: line breaks in a text are shown as spaces.
                QString flat = text;
                flat.replace(QLatin1Char('\n'), QLatin1Char(' '));
                testEvent(QStringLiteral("text %1 %2").arg(key, flat));
            }
        }
    }
    for (QHash<QString, QString>* map : {&reported.texts, &reported.places}) {
        map->removeIf([&seen](const QHash<QString, QString>::iterator& it) {
            return !seen.contains(it.key());
        });
    }
}

}  // namespace

void watchWindowsForTests(QObject* owner) {
    // "lean": the events without the watch's wake-ups, for benchmarks.
    if (!testEventsEnabled() || qEnvironmentVariable("BONKWELL_TEST_EVENTS") == "lean") {
        return;
    }
    auto* timer = new QTimer(owner);
    auto reported = std::make_shared<Reported>();
    QObject::connect(timer, &QTimer::timeout, timer, [reported] { reportChanges(*reported); });
    timer->start(kWatchIntervalMs);
}

}  // namespace bonkwell

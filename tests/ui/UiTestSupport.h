// SPDX-License-Identifier: GPL-3.0-or-later
// A complete set of doubles around one AppState for the view tests, and widget lookups that
// fail loudly.
#pragma once

#include "AppState.h"
#include "DesktopIntegration.h"
#include "Doubles.h"
#include "ManualClock.h"
#include "TestSupport.h"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLabel>
#include <QTemporaryDir>
#include <QThread>
#include <QWidget>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>

// Readable strings in test failure messages.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
QT_END_NAMESPACE

namespace bonkwell::test {

// Records every call; setLaunchAtLogin fails with `failure` when it is not empty.
class RecordingDesktop final : public DesktopIntegration {
  public:
    explicit RecordingDesktop(CallJournal& journal) : journal_(journal) {}
    bool setLaunchAtLogin(bool enabled, QString* error) override {
        journal_.calls.append(
            QStringLiteral("desktop.setLaunchAtLogin(%1)").arg(enabled ? "true" : "false"));
        if (!failure.isEmpty()) {
            if (error != nullptr) {
                *error = failure;
            }
            return false;
        }
        return true;
    }
    void setShowInTaskbar(bool show) override {
        journal_.calls.append(
            QStringLiteral("desktop.setShowInTaskbar(%1)").arg(show ? "true" : "false"));
    }

    QString failure;

  private:
    CallJournal& journal_;
};

// The model with its store in a fresh temporary folder, plus one double of each component.
struct ViewFixture {
    QTemporaryDir dir;
    CallJournal journal;
    RecordingStore store{dir.path(), journal};
    ManualClock clock;
    std::unique_ptr<AppState> state = std::make_unique<AppState>(&store, &clock);
    RecordingDetector detector{journal};
    RecordingAudio audio{journal};
    FakePackManager packs{journal};
    RecordingEngine engine{journal};
    RecordingDesktop desktop{journal};

    // The calls recorded since the last take.
    QStringList takeCalls() {
        QStringList calls = journal.calls;
        journal.calls.clear();
        return calls;
    }
};

// Runs the event loop until `condition` holds or `timeoutMs` pass; returns the condition.
inline bool waitFor(const std::function<bool()>& condition, int timeoutMs = 2000) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(2);
    }
    return true;
}

// The child of `root` with this object name and type; fails the test when there is none.
template <typename T>
T* child(const QWidget* root, const QString& name) {
    T* found = root->findChild<T*>(name);
    EXPECT_NE(found, nullptr) << "no " << name.toStdString();
    if (found == nullptr) {
        throw std::runtime_error("missing widget " + name.toStdString());
    }
    return found;
}

inline QString labelText(const QWidget* root, const QString& name) {
    return child<QLabel>(root, name)->text();
}

// Every visible label text under `root`.
inline QStringList visibleTexts(const QWidget* root) {
    QStringList texts;
    for (const QLabel* label : root->findChildren<QLabel*>()) {
        if (label->isVisibleTo(root->window()) && !label->text().isEmpty()) {
            texts.append(label->text());
        }
    }
    for (const QAbstractButton* button : root->findChildren<QAbstractButton*>()) {
        if (button->isVisibleTo(root->window()) && !button->text().isEmpty()) {
            texts.append(button->text());
        }
    }
    return texts;
}

inline  // The panel's secondary texts: values, the hint, and the counters' captions.
    QList<QLabel*>
    secondaryLabels(QWidget* panel) {
    QList<QLabel*> found;
    for (QLabel* label : panel->findChildren<QLabel*>()) {
        const QString name = label->objectName();
        if (name == QLatin1String("sensitivityValue") || name == QLatin1String("volumeValue") ||
            name == QLatin1String("sensitivityHint") || label->text() == QLatin1String("Today") ||
            label->text() == QLatin1String("Total")) {
            found.append(label);
        }
    }
    return found;
}

}  // namespace bonkwell::test

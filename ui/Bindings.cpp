// SPDX-License-Identifier: GPL-3.0-or-later
#include "Bindings.h"

#include "Widgets.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QSignalBlocker>

#include <QTimer>

#include <memory>
#include <optional>

namespace bonkwell {

QString playModeTitle(PlayMode mode) {
    return mode == PlayMode::escalation ? QStringLiteral("Escalation") : QStringLiteral("Random");
}

void Bindings::toggle(QAbstractButton* button, Published<bool>& property) {
    button->setCheckable(true);
    observe<bool>(property, [button](const bool& on) {
        const QSignalBlocker blocker(button);
        button->setChecked(on);
    });
    // clicked() fires for the user's clicks and key presses only, never for setChecked().
    QObject::connect(button, &QAbstractButton::clicked, button,
                     [&property](bool checked) { property.set(checked); });
}

void Bindings::slider(DoubleSlider* slider, Published<double>& property) {
    observe<double>(property, [slider](const double& v) { slider->setDoubleValue(v); });
    QObject::connect(slider, &DoubleSlider::doubleValueChanged, slider,
                     [&property](double v) { property.set(v); });
}

void Bindings::segmented(SegmentedControl* control, Published<PlayMode>& property) {
    observe<PlayMode>(property, [control](const PlayMode& mode) {
        for (std::size_t i = 0; i < kAllPlayModes.size(); ++i) {
            if (kAllPlayModes[i] == mode) {
                control->setCurrentIndex(static_cast<int>(i));
            }
        }
    });
    QObject::connect(control, &SegmentedControl::activated, control, [&property](int index) {
        if (index >= 0 && index < static_cast<int>(kAllPlayModes.size())) {
            property.set(kAllPlayModes[static_cast<std::size_t>(index)]);
        }
    });
}

void Bindings::modePicker(QComboBox* combo, Published<PlayMode>& property) {
    {
        const QSignalBlocker blocker(combo);
        combo->clear();
        for (PlayMode mode : kAllPlayModes) {
            combo->addItem(playModeTitle(mode), rawValue(mode));
        }
    }
    observe<PlayMode>(property, [combo](const PlayMode& mode) {
        const QSignalBlocker blocker(combo);
        combo->setCurrentIndex(combo->findData(rawValue(mode)));
    });
    // activated() fires for the user's choices only.
    QObject::connect(combo, &QComboBox::activated, combo, [combo, &property](int index) {
        property.set(playModeFromRawValue(combo->itemData(index).toString()));
    });
}

void Bindings::packPicker(QComboBox* combo, Published<QString>& selected,
                          Published<QStringList>& available) {
    auto select = [combo](const QString& name) {
        const QSignalBlocker blocker(combo);
        combo->setCurrentIndex(combo->findData(name));  // -1 (nothing) when absent
    };
    // The list handler runs before the new list is stored, so it works from the value it is
    // given and reads the selection, which is unchanged, from the state.
    observe<QStringList>(available, [combo, select, &selected](const QStringList& names) {
        {
            const QSignalBlocker blocker(combo);
            combo->clear();
            for (const QString& name : names) {
                combo->addItem(name, name);
            }
        }
        select(selected.get());
    });
    observe<QString>(selected, select);
    QObject::connect(combo, &QComboBox::activated, combo, [combo, &selected](int index) {
        selected.set(combo->itemData(index).toString());
    });
}

void Bindings::liveText(QLabel* label, Published<double>& property,
                        std::function<QString(const double&)> format, int intervalMs) {
    struct Throttle {
        QTimer* timer = nullptr;
        std::optional<double> pending;
        bool primed = false;
    };
    auto throttle = std::make_shared<Throttle>();
    throttle->timer = new QTimer(label);  // ends with the label
    throttle->timer->setSingleShot(true);
    throttle->timer->setInterval(intervalMs);
    QObject::connect(throttle->timer, &QTimer::timeout, label, [label, format, throttle] {
        if (throttle->pending) {
            label->setText(format(*throttle->pending));
            throttle->pending.reset();
            throttle->timer->start();  // keep gathering while values keep coming
        }
    });
    observe<double>(property, [label, format, throttle](const double& value) {
        if (!throttle->primed) {
            throttle->primed = true;  // the current value, at subscription
            label->setText(format(value));
        } else if (throttle->timer->isActive()) {
            throttle->pending = value;
        } else {
            label->setText(format(value));
            throttle->timer->start();
        }
    });
}

void Bindings::onAnyChange(AppState& state, std::function<void()> handler) {
    auto shared = std::make_shared<std::function<void()>>(std::move(handler));
    auto hook = [this, shared](auto& property) {
        using Value = std::decay_t<decltype(property.get())>;
        auto primed = std::make_shared<bool>(false);
        subscriptions_.push_back(property.subscribe([shared, primed](const Value&) {
            if (*primed) {
                (*shared)();
            }
        }));
        *primed = true;
    };
    hook(state.listeningEnabled);
    hook(state.sensitivity);
    hook(state.cooldown);
    hook(state.volume);
    hook(state.volumeScaling);
    hook(state.mode);
    hook(state.selectedPackName);
    hook(state.availablePacks);
    hook(state.todayCount);
    hook(state.totalCount);
    hook(state.lastCountDate);
    hook(state.launchAtLogin);
    hook(state.engineStatus);
}

}  // namespace bonkwell

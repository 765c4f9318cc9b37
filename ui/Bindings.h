// SPDX-License-Identifier: GPL-3.0-or-later
// Connects widgets to the published properties of AppState.
//
// State → widget: every published value (the current one at once, then each new one) is
// shown without the widget reporting it back, so a state-driven update never writes the
// state again. Widget → state: only the user's own edits are assigned to the property.
// A Bindings object owns its subscriptions; keep it as a member of the view that owns the
// widgets, so the subscriptions end before the widgets are destroyed.
#pragma once

#include "AppState.h"
#include "Observable.h"

#include <QLabel>
#include <QString>

#include <functional>
#include <type_traits>
#include <vector>

class QAbstractButton;
class QComboBox;

namespace bonkwell {

class DoubleSlider;
class SegmentedControl;

class Bindings {
  public:
    Bindings() = default;
    Bindings(const Bindings&) = delete;
    Bindings& operator=(const Bindings&) = delete;

    // Checkable button (switch, check box) ↔ bool property.
    void toggle(QAbstractButton* button, Published<bool>& property);
    // Slider ↔ double property; every intermediate value while dragging is assigned.
    void slider(DoubleSlider* slider, Published<double>& property);
    // One segment per PlayMode, in declaration order ↔ mode.
    void segmented(SegmentedControl* control, Published<PlayMode>& property);
    // Pop-up with one entry per PlayMode ("Random", "Escalation") ↔ mode.
    void modePicker(QComboBox* combo, Published<PlayMode>& property);
    // Pop-up with one entry per name of `available`, in order ↔ `selected`. A selected name
    // that is not in the list leaves the pop-up without a selection.
    void packPicker(QComboBox* combo, Published<QString>& selected,
                    Published<QStringList>& available);

    // Label text ← property, through `format`.
    template <typename T>
    void text(QLabel* label, Published<T>& property,
              std::type_identity_t<std::function<QString(const T&)>> format) {
        observe(property, [label, format = std::move(format)](const T& value) {
            label->setText(format(value));
        });
    }

    // Label text ← a property that may change a hundred times a second, at most one new text
    // per `intervalMs`: a change after a quiet spell shows at once; changes that follow
    // quickly are gathered and the latest is shown when the interval ends.
    void liveText(QLabel* label, Published<double>& property,
                  std::function<QString(const double&)> format, int intervalMs = 33);

    // Any handler ← property (delivered at once and on every assignment).
    template <typename T>
    void observe(Published<T>& property,
                 std::type_identity_t<std::function<void(const T&)>> handler) {
        subscriptions_.push_back(property.subscribe(std::move(handler)));
    }

    // `handler` after every assignment of any setting, counter or status property of `state`
    // (not at subscription time). The live accelerometer samples, which arrive many times a
    // second, are left out.
    void onAnyChange(AppState& state, std::function<void()> handler);

    void clear() { subscriptions_.clear(); }
    std::size_t size() const { return subscriptions_.size(); }

  private:
    std::vector<Subscription> subscriptions_;
};

// The label shown for each play mode.
QString playModeTitle(PlayMode mode);

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace bonkwell {

// Ends a subscription when destroyed (or on cancel()). Holds the observed property weakly:
// once the property is gone, cancelling does nothing.
class Subscription {
  public:
    Subscription() = default;
    explicit Subscription(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
    Subscription(Subscription&& other) noexcept : cancel_(std::exchange(other.cancel_, {})) {}
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            cancel();
            cancel_ = std::exchange(other.cancel_, {});
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription() { cancel(); }

    void cancel() {
        if (cancel_) {
            std::exchange(cancel_, {})();
        }
    }

  private:
    std::function<void()> cancel_;
};

// An observable ("published") value with will-set semantics:
//  - set(v) first calls every subscriber with v, then stores v; a subscriber that reads the
//    property back during the call still sees the old value;
//  - subscribe(h) calls h with the current value at once, synchronously, and then on every
//    assignment, equal values included;
//  - subscriptions end when their handle is destroyed or when the property is destroyed.
// Main-thread only, like the views that use it.
template <typename T>
class Published {
  public:
    using Handler = std::function<void(const T&)>;

    explicit Published(T initial = T{}) : value_(std::move(initial)) {}
    Published(const Published&) = delete;
    Published& operator=(const Published&) = delete;

    const T& get() const { return value_; }

    void set(T newValue) {
        // Snapshot the list: a handler may subscribe or cancel while we notify.
        const std::vector<std::shared_ptr<Entry>> entries = core_->entries;
        for (const auto& entry : entries) {
            if (entry->active) {
                entry->handler(newValue);
            }
        }
        value_ = std::move(newValue);
    }

    [[nodiscard]] Subscription subscribe(Handler handler) {
        auto entry = std::make_shared<Entry>(Entry{std::move(handler), true});
        core_->entries.push_back(entry);
        std::weak_ptr<Core> weakCore = core_;
        std::weak_ptr<Entry> weakEntry = entry;
        Subscription subscription([weakCore, weakEntry] {
            auto core = weakCore.lock();
            auto target = weakEntry.lock();
            if (!core || !target) {
                return;
            }
            target->active = false;
            std::erase(core->entries, target);
        });
        entry->handler(value_);
        return subscription;
    }

    std::size_t subscriberCount() const { return core_->entries.size(); }

  private:
    struct Entry {
        Handler handler;
        bool active;
    };
    struct Core {
        std::vector<std::shared_ptr<Entry>> entries;
    };

    T value_;
    std::shared_ptr<Core> core_ = std::make_shared<Core>();
};

}  // namespace bonkwell

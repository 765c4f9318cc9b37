// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppState.h"

#include "Log.h"
#include "MainQueue.h"

#include <QPointer>

#include <cmath>
#include <limits>

namespace bonkwell {

std::int64_t cooldownMilliseconds(double seconds) {
    const double ms = seconds * 1000.0;
    // 2^63 is exactly representable; anything at or beyond it does not fit.
    constexpr double kLimit = 9223372036854775808.0;
    if (!std::isfinite(ms) || ms >= kLimit || ms <= -kLimit) {
        fatal(QStringLiteral("cooldown %1 s cannot be converted to milliseconds").arg(seconds));
    }
    return static_cast<std::int64_t>(std::trunc(ms));
}

AppState::AppState(PreferencesStore* store, const Clock* clock)
    : ownedStore_(store != nullptr ? nullptr : std::make_unique<PreferencesStore>()),
      store_(store != nullptr ? store : ownedStore_.get()),
      clock_(clock != nullptr ? clock : &Clock::system()) {
    lastCountDate.set(clock_->now());
}

AppState::~AppState() {
    // End the subscriptions before the properties they observe.
    cancellables.clear();
}

void AppState::refreshAvailablePacks(const SoundPackManagerInterface& from) {
    QStringList names = from.builtInPacks();
    if (!from.customPacks().isEmpty()) {
        names.append(QStringLiteral("Custom"));
    }
    availablePacks.set(std::move(names));
}

AppState::Snapshot AppState::snapshot() const {
    Snapshot s;
    s.listeningEnabled = listeningEnabled.get();
    s.sensitivity = sensitivity.get();
    s.cooldown = cooldown.get();
    s.volume = volume.get();
    s.volumeScaling = volumeScaling.get();
    s.mode = rawValue(mode.get());
    s.selectedPackName = selectedPackName.get();
    s.todayCount = todayCount.get();
    s.totalCount = totalCount.get();
    s.lastCountDate = lastCountDate.get();
    s.launchAtLogin = launchAtLogin.get();
    return s;
}

void AppState::save() {
    const std::optional<QByteArray> bytes = snapshot().encode();
    if (!bytes) {
        return;  // Nothing JSON can hold; the stored value stays as it was.
    }
    QString error;
    if (!store_->setData(defaultsKey, *bytes, &error)) {
        // Logged once per run of failures, not on every slap.
        if (!lastSaveFailed_) {
            logLine(QStringLiteral("Bonkwell: saving settings to %1 failed: %2")
                        .arg(store_->pathForKey(defaultsKey), error));
        }
        lastSaveFailed_ = true;
        return;
    }
    lastSaveFailed_ = false;
}

void AppState::load() {
    store_->removeStrayTemporaries();
    const std::optional<QByteArray> bytes = store_->data(defaultsKey);
    if (!bytes) {
        return;
    }
    const std::optional<Snapshot> s = Snapshot::decode(*bytes);
    if (!s) {
        return;  // Defaults stay; the next save replaces the bad value.
    }
    listeningEnabled.set(s->listeningEnabled);
    sensitivity.set(s->sensitivity);
    cooldown.set(s->cooldown);
    volume.set(s->volume);
    volumeScaling.set(s->volumeScaling);
    mode.set(playModeFromRawValue(s->mode));
    selectedPackName.set(s->selectedPackName);
    todayCount.set(s->todayCount);
    totalCount.set(s->totalCount);
    lastCountDate.set(s->lastCountDate);
    launchAtLogin.set(s->launchAtLogin);
}

void AppState::bind(SlapDetectorInterface* detectorRef, AudioPlayerInterface* audioRef,
                    SoundPackManagerInterface* packManagerRef, ThuzzEngineInterface* engineRef) {
    detector = detectorRef;
    audio = audioRef;
    packManager = packManagerRef;
    engine = engineRef;

    QPointer<AppState> weak(this);

    cancellables.push_back(listeningEnabled.subscribe([weak](const bool& on) {
        if (!weak) {
            return;
        }
        if (on) {
            if (weak->engine != nullptr &&
                weak->engine->installState() == InstallState::installed) {
                weak->engine->start();
            } else if (weak->detector != nullptr) {
                weak->detector->start();
            }
        } else {
            if (weak->engine != nullptr) {
                weak->engine->stop();
            }
            if (weak->detector != nullptr) {
                weak->detector->stop();
            }
        }
        weak->save();
    }));

    cancellables.push_back(sensitivity.subscribe([weak](const double& v) {
        if (!weak) {
            return;
        }
        if (weak->detector != nullptr) {
            weak->detector->setMinAmplitude(v);
        }
        if (weak->engine != nullptr) {
            weak->engine->updateTuning(v, cooldownMilliseconds(weak->cooldown.get()));
        }
        weak->save();
    }));

    cancellables.push_back(cooldown.subscribe([weak](const double& v) {
        if (!weak) {
            return;
        }
        if (weak->detector != nullptr) {
            weak->detector->setCooldown(v);
        }
        if (weak->engine != nullptr) {
            weak->engine->updateTuning(weak->sensitivity.get(), cooldownMilliseconds(v));
        }
        weak->save();
    }));

    auto saveOnly = [weak](const auto&) {
        if (weak) {
            weak->save();
        }
    };
    cancellables.push_back(volume.subscribe(saveOnly));
    cancellables.push_back(volumeScaling.subscribe(saveOnly));
    cancellables.push_back(mode.subscribe(saveOnly));

    cancellables.push_back(selectedPackName.subscribe([weak](const QString&) {
        if (!weak) {
            return;
        }
        if (weak->audio != nullptr) {
            weak->audio->resetTracker();
        }
        weak->save();
    }));

    if (detector != nullptr) {
        detector->setOnMagnitudeSample([weak](double m) {
            if (weak) {
                weak->handleMagnitudeSample(m);
            }
        });
    }
    if (engine != nullptr) {
        // The engine calls this on its reader thread: the check of `weak` waits for the
        // main thread.
        engine->setOnSample([weak](double jolt) {
            MainQueue::post([weak, jolt] {
                if (weak) {
                    weak->showLiveSample(jolt);
                }
            });
        });
    }
    // Viewers opened before binding.
    for (int i = 0; i < liveViewers_; ++i) {
        if (detector != nullptr) {
            detector->addLiveViewer();
        }
        if (engine != nullptr) {
            engine->addLiveViewer();
        }
    }
}

void AppState::addLiveViewer() {
    ++liveViewers_;
    if (detector != nullptr) {
        detector->addLiveViewer();
    }
    if (engine != nullptr) {
        engine->addLiveViewer();
    }
}

void AppState::removeLiveViewer() {
    if (liveViewers_ <= 0) {
        fatal(QStringLiteral("AppState::removeLiveViewer without a viewer"));
    }
    --liveViewers_;
    if (detector != nullptr) {
        detector->removeLiveViewer();
    }
    if (engine != nullptr) {
        engine->removeLiveViewer();
    }
}

void AppState::handleMagnitudeSample(double magnitude) {
    MainQueue::post(this, [this, magnitude] { showLiveSample(magnitude); });
}

void AppState::showLiveSample(double magnitude) {
    liveMagnitude.set(magnitude);
    std::vector<double> series = liveSeries.get();
    series.push_back(magnitude);
    if (series.size() > kMaxLiveSamples) {
        series.erase(series.begin(),
                     series.begin() + static_cast<std::ptrdiff_t>(series.size() - kMaxLiveSamples));
    }
    liveSeries.set(std::move(series));
}

void AppState::bumpCounts() {
    countSlap();
    save();
}

void AppState::countSlap() {
    const Date now = clock_->now();
    if (!isSameLocalDay(lastCountDate.get(), now)) {
        todayCount.set(0);
    }
    std::int64_t today = 0;
    std::int64_t total = 0;
    if (__builtin_add_overflow(todayCount.get(), 1, &today)) {
        fatal(QStringLiteral("today's slap count overflowed"));
    }
    todayCount.set(today);
    if (__builtin_add_overflow(totalCount.get(), 1, &total)) {
        fatal(QStringLiteral("total slap count overflowed"));
    }
    totalCount.set(total);
    lastCountDate.set(now);
}

}  // namespace bonkwell

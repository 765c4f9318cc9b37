// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppDelegate.h"

#include <QPointer>

namespace bonkwell {

AppDelegate::AppDelegate(Parts parts, MenuBarFactory makeMenuBar)
    : state_(std::move(parts.state)),
      detector_(std::move(parts.detector)),
      audio_(std::move(parts.audio)),
      packManager_(std::move(parts.packManager)),
      engine_(std::move(parts.engine)),
      makeMenuBar_(std::move(makeMenuBar)) {}

AppDelegate::~AppDelegate() {
    // The tray and its windows refer to the objects below: let them go first.
    menuBar_.reset();
}

void AppDelegate::applicationDidFinishLaunching() {
    packManager_->bootstrapUserPacks();
    state_->refreshAvailablePacks(*packManager_);
    state_->load();
    state_->bind(detector_.get(), audio_.get(), packManager_.get(), engine_.get());

    detector_->setMinAmplitude(state_->sensitivity.get());
    detector_->setCooldown(state_->cooldown.get());
    QPointer<AppDelegate> weak(this);
    detector_->setOnSlap([weak](double amplitude) {
        if (weak) {
            weak->handleSlap(amplitude);
        }
    });
    engine_->setMinAmplitude(state_->sensitivity.get());
    engine_->setCooldownMs(cooldownMilliseconds(state_->cooldown.get()));
    engine_->setOnEvent([weak](const ThuzzEvent& event) {
        if (weak) {
            weak->handleSlap(event.amplitude);
        }
    });
    engine_->setOnStatus([weak](const QString& status) {
        if (!weak) {
            return;
        }
        // Once the helper reads the accelerometer (after an install from Settings, say), the
        // in-process reader stands down: one slap is never counted twice.
        if (status == ThuzzEngineInterface::runningStatus) {
            weak->detector_->stop();
        } else if (status == ThuzzEngineInterface::outOfDateStatus) {
            weak->detector_->start();  // until the helper is reinstalled
        }
        weak->state_->engineStatus.set(status);
    });

    if (makeMenuBar_) {
        menuBar_ = makeMenuBar_(*this);
    }

    if (state_->listeningEnabled.get()) {
        if (engine_->installState() == InstallState::installed) {
            engine_->start();
        } else {
            detector_->start();
            state_->engineStatus.set(kHelperNotInstalled);
        }
    }
}

void AppDelegate::handleSlap(double amplitude) {
    // Counted at once, so the views show it; saved once the sound is on its way, since the
    // durable save waits for the disk and would otherwise delay the sound by milliseconds.
    state_->countSlap();
    const SoundPack pack = packManager_->pack(state_->selectedPackName.get());
    // A pack without sounds (a stale name, a Custom folder with only sub-folders, deleted
    // files) plays nothing; the slap above is counted and saved all the same.
    if (!pack.files.isEmpty()) {
        const PlayMode mode = state_->mode.get();
        const double volume = state_->volume.get();
        const bool scaling = state_->volumeScaling.get();
        audio_->playSlap(pack, mode, amplitude, volume, scaling);
    }
    state_->save();
}

void AppDelegate::applicationWillTerminate() {
    engine_->stop();
    detector_->stop();
}

}  // namespace bonkwell

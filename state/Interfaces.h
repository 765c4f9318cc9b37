// SPDX-License-Identifier: GPL-3.0-or-later
// The narrow faces of the detection and sound objects that the state model drives.
// The real SlapDetector, ThuzzEngine, AudioPlayer and SoundPackManager implement them;
// tests substitute recording doubles.
#pragma once

#include "SharedTypes.h"

#include <cstdint>
#include <functional>

namespace bonkwell {

class SlapDetectorInterface {
  public:
    virtual ~SlapDetectorInterface() = default;
    virtual void setMinAmplitude(double g) = 0;
    virtual void setCooldown(double seconds) = 0;
    // Called synchronously with every magnitude sample the detector takes.
    virtual void setOnMagnitudeSample(std::function<void(double)> handler) = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
};

class ThuzzEngineInterface {
  public:
    virtual ~ThuzzEngineInterface() = default;
    virtual InstallState installState() const = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void updateTuning(double amplitude, std::int64_t cooldownMs) = 0;
};

class AudioPlayerInterface {
  public:
    virtual ~AudioPlayerInterface() = default;
    virtual void resetTracker() = 0;
};

class SoundPackManagerInterface {
  public:
    virtual ~SoundPackManagerInterface() = default;
    // Exactly "Pain", "Sexy", "Halo", "Lizard", in this order.
    virtual QStringList builtInPacks() const = 0;
    // The sub-folders of the user's Custom folder, in listing order.
    virtual QStringList customPacks() const = 0;
};

}  // namespace bonkwell

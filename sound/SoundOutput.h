// SPDX-License-Identifier: GPL-3.0-or-later
// What the audio player plays through. The real ones are PulseSoundOutput and SdlSoundOutput
// (ChoosingSoundOutput picks one); tests record instead.
#pragma once

#include <QString>

#include <memory>

namespace bonkwell {

// One sound that was started. It keeps its decoded samples alive until it is destroyed.
class Voice {
  public:
    virtual ~Voice() = default;
    virtual bool isPlaying() const = 0;
};

// All calls come from the audio player's worker thread.
class SoundOutput {
  public:
    virtual ~SoundOutput() = default;
    // Reads and decodes the file now and starts it at once at the linear `gain` (0 ... 1),
    // alongside whatever is already sounding. On failure returns null and sets `error` to a
    // text fit for the log; an empty error means there is no output device (already logged).
    virtual std::unique_ptr<Voice> play(const QString& path, float gain, QString& error) = 0;
    // Nothing has sounded for a while: release what costs power while silent.
    virtual void goIdle() {}
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
// The output the audio player uses by default: each time the device is opened (at the first
// sound after a silence) it looks at the session's sound server and plays through our own
// PulseAudio stream where a real PulseAudio serves the session, and through SDL2_mixer
// otherwise (PipeWire, ALSA without a server, or an SDL driver named in $SDL_AUDIODRIVER).
#pragma once

#include "SoundOutput.h"
#include "SoundServer.h"

#include <functional>
#include <memory>
#include <optional>

namespace bonkwell {

class ChoosingSoundOutput : public SoundOutput {
  public:
    enum class Kind { pulse, sdl };
    using Factory = std::function<std::unique_ptr<SoundOutput>(Kind)>;

    // PulseSoundOutput and SdlSoundOutput with their defaults (makeOutput).
    ChoosingSoundOutput();
    static std::unique_ptr<SoundOutput> makeOutput(Kind kind);
    // Outputs made by `factory` (tests).
    explicit ChoosingSoundOutput(Factory factory);
    ~ChoosingSoundOutput() override;
    ChoosingSoundOutput(const ChoosingSoundOutput&) = delete;
    ChoosingSoundOutput& operator=(const ChoosingSoundOutput&) = delete;

    std::unique_ptr<Voice> play(const QString& path, float gain, QString& error) override;
    void goIdle() override;

    // The output for `server`, given whether $SDL_AUDIODRIVER names an SDL driver and which
    // output was used last. With no server at all the last one stays: a PulseAudio that went
    // away is waited for by the output that already told the user it went.
    static Kind kindFor(sound::SoundServer server, bool sdlDriverNamed, std::optional<Kind> last);
    // kindFor() this session's server and environment.
    static Kind sessionKind(std::optional<Kind> last = std::nullopt);
    // The kind in use since the last opening, if any.
    std::optional<Kind> currentKind() const { return kind_; }

  private:
    Factory factory_;
    std::unique_ptr<SoundOutput> output_;
    std::optional<Kind> kind_;
    bool chosen_ = false;  // until the next goIdle()
};

}  // namespace bonkwell

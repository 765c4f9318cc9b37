// SPDX-License-Identifier: GPL-3.0-or-later
#include "ChoosingSoundOutput.h"

#include "PulseSoundOutput.h"
#include "SdlSoundOutput.h"

namespace bonkwell {

std::unique_ptr<SoundOutput> ChoosingSoundOutput::makeOutput(Kind kind) {
    if (kind == Kind::pulse) {
        return std::make_unique<PulseSoundOutput>();
    }
    return std::make_unique<SdlSoundOutput>();
}

ChoosingSoundOutput::ChoosingSoundOutput() : ChoosingSoundOutput(&makeOutput) {}

ChoosingSoundOutput::ChoosingSoundOutput(Factory factory) : factory_(std::move(factory)) {}

ChoosingSoundOutput::~ChoosingSoundOutput() = default;

ChoosingSoundOutput::Kind ChoosingSoundOutput::kindFor(sound::SoundServer server,
                                                       bool sdlDriverNamed,
                                                       std::optional<Kind> last) {
    if (sdlDriverNamed) {
        return Kind::sdl;
    }
    switch (server) {
        case sound::SoundServer::pulseAudio:
        case sound::SoundServer::named:
            return Kind::pulse;
        case sound::SoundServer::pipeWire:
            return Kind::sdl;
        case sound::SoundServer::none:
            break;
    }
    return last.value_or(Kind::sdl);
}

ChoosingSoundOutput::Kind ChoosingSoundOutput::sessionKind(std::optional<Kind> last) {
    return kindFor(sound::sessionSoundServer(), !qEnvironmentVariableIsEmpty("SDL_AUDIODRIVER"),
                   last);
}

std::unique_ptr<Voice> ChoosingSoundOutput::play(const QString& path, float gain, QString& error) {
    if (!chosen_) {
        const Kind kind = sessionKind(kind_);
        if (!output_ || kind != kind_) {
            if (output_) {
                output_->goIdle();
            }
            output_ = factory_(kind);
            kind_ = kind;
        }
        chosen_ = true;
    }
    return output_->play(path, gain, error);
}

void ChoosingSoundOutput::goIdle() {
    if (output_) {
        output_->goIdle();
    }
    chosen_ = false;
}

}  // namespace bonkwell

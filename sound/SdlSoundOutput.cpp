// SPDX-License-Identifier: GPL-3.0-or-later
#include "SdlSoundOutput.h"

#include "Log.h"
#include "SoundFile.h"
#include "SoundServer.h"

#include <SDL.h>
#include <SDL_mixer.h>

#include <algorithm>
#include <atomic>
#include <vector>

namespace bonkwell {

struct SdlSoundOutput::Shared {
    // Atomic so that isOpen() and openCount() may be asked from any thread.
    std::atomic<bool> open{false};
    std::atomic<std::uint64_t> generation{0};  // counts device openings; a voice belongs to one
    std::vector<bool> channelHeld;
};

namespace {

constexpr int kInitialChannels = 8;
constexpr int kMaxChannels = 256;

QString sdlError() {
    return QString::fromUtf8(SDL_GetError());
}

class SdlVoice final : public Voice {
  public:
    SdlVoice(std::shared_ptr<SdlSoundOutput::Shared> shared, int channel, Mix_Chunk* chunk)
        : shared_(std::move(shared)),
          generation_(shared_->generation),
          channel_(channel),
          chunk_(chunk) {}
    ~SdlVoice() override {
        if (current()) {
            Mix_HaltChannel(channel_);
            shared_->channelHeld[static_cast<std::size_t>(channel_)] = false;
        }
        Mix_FreeChunk(chunk_);
    }
    SdlVoice(const SdlVoice&) = delete;
    SdlVoice& operator=(const SdlVoice&) = delete;

    bool isPlaying() const override { return current() && Mix_Playing(channel_) != 0; }

  private:
    bool current() const { return shared_->open && shared_->generation == generation_; }

    std::shared_ptr<SdlSoundOutput::Shared> shared_;
    std::uint64_t generation_;
    int channel_;
    Mix_Chunk* chunk_;
};

}  // namespace

QString SdlSoundOutput::preferredAudioDrivers() {
    return sound::sessionSoundServer() == sound::SoundServer::pipeWire
               ? QStringLiteral("pipewire,pulseaudio,alsa")
               : QStringLiteral("pulseaudio,pipewire,alsa");
}

int SdlSoundOutput::bufferFramesFor(const QString& driver) {
    // PipeWire (its own driver) runs the graph at the period a client asks for: 128 frames
    // put a sound on the sink in about 6 ms, 256 in about 11. In 30 s of sound 128 ran dry
    // 2-4 times at rest and 2-9 times with every core busy, 256 0 times at rest and 1-2 busy.
    // PipeWire's own player at the same period and priority ran dry about as often (0-3 at
    // rest, 3-13 busy at 128; 0 and 1-2 at 256): where we measured, a realtime thread now and
    // then wakes more than a period late (up to 9 ms, at rest too), which no buffer of either
    // size rides out. So the larger buffer buys little and costs 5 ms.
    if (driver == QLatin1String("pipewire")) {
        return 128;
    }
    // PulseAudio (where the app normally plays through its own stream instead, see
    // PulseSoundOutput; SDL plays there when $SDL_AUDIODRIVER asks for it): SDL asks the
    // server for exactly one buffer and refills only once all of it has played, so a buffer
    // that small runs dry whenever the refill is a little late; 512 frames ran dry least.
    return 512;  // also ALSA straight to a card, and the file and silent drivers of tests
}

int SdlSoundOutput::bufferFrames() const {
    return shared_->open ? openFrames_ : 0;
}

SdlSoundOutput::SdlSoundOutput() : SdlSoundOutput(Options{}) {}

SdlSoundOutput::SdlSoundOutput(Options options)
    : options_(options), shared_(std::make_shared<Shared>()) {}

SdlSoundOutput::~SdlSoundOutput() {
    close();
    // SDL keeps per-thread data (its error text) for threads it did not create; the output
    // is destroyed on the thread that used it, so release that thread's data here.
    SDL_TLSCleanup();
}

bool SdlSoundOutput::isOpen() const {
    return shared_->open;
}

std::uint64_t SdlSoundOutput::openCount() const {
    return shared_->generation;
}

QString SdlSoundOutput::driverName() const {
    const char* name = shared_->open ? SDL_GetCurrentAudioDriver() : nullptr;
    return name != nullptr ? QString::fromUtf8(name) : QString();
}

bool SdlSoundOutput::ensureOpen() {
    if (shared_->open) {
        return true;
    }
    // SDL must leave SIGINT/SIGTERM to the application.
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    SDL_SetHint(SDL_HINT_AUDIO_DEVICE_APP_NAME, "Bonkwell");
    SDL_SetHint(SDL_HINT_AUDIO_DEVICE_STREAM_NAME, "Slap sounds");
    // $SDL_AUDIODRIVER, when set, still takes precedence over this hint.
    SDL_SetHint(SDL_HINT_AUDIODRIVER, preferredAudioDrivers().toUtf8().constData());
    QString error;
    int frames = options_.bufferFrames;
    if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
        error = sdlError();
    } else {
        if (frames <= 0) {
            const char* driver = SDL_GetCurrentAudioDriver();
            frames = bufferFramesFor(driver != nullptr ? QString::fromUtf8(driver) : QString());
        }
        if (Mix_OpenAudioDevice(options_.frequency, AUDIO_S16SYS, 2, frames, nullptr, 0) != 0) {
            error = sdlError();
            SDL_QuitSubSystem(SDL_INIT_AUDIO);
        }
    }
    if (!error.isEmpty()) {
        // One line per outage, not one per slap; every playback tries again.
        if (!lastOpenFailed_) {
            logLine(QStringLiteral("Bonkwell: no sound output (%1); slaps stay silent until "
                                   "one is available")
                        .arg(error));
        }
        lastOpenFailed_ = true;
        return false;
    }
    if (lastOpenFailed_) {
        logLine(QStringLiteral("Bonkwell: sound output available again"));
    }
    lastOpenFailed_ = false;
    Mix_Init(MIX_INIT_MP3);
    shared_->channelHeld.assign(static_cast<std::size_t>(Mix_AllocateChannels(kInitialChannels)),
                                false);
    openFrames_ = frames;
    shared_->open = true;
    ++shared_->generation;
    return true;
}

void SdlSoundOutput::close() {
    if (!shared_->open) {
        return;
    }
    shared_->open = false;
    shared_->channelHeld.clear();
    Mix_CloseAudio();
    Mix_Quit();
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
}

void SdlSoundOutput::goIdle() {
    close();
}

std::unique_ptr<Voice> SdlSoundOutput::play(const QString& path, float gain, QString& error) {
    std::optional<QByteArray> data = sound::readSoundFile(path, options_.maxFileBytes, error);
    if (!data) {
        return nullptr;
    }
    if (!ensureOpen()) {
        error.clear();  // already logged once for this outage
        return nullptr;
    }

    Mix_Chunk* chunk =
        sound::decodeSound(*data, {options_.maxFileBytes, options_.maxSeconds}, gain, error);
    if (chunk == nullptr) {
        return nullptr;
    }

    // A channel no live voice holds; grow the mixer when all are taken.
    auto& held = shared_->channelHeld;
    auto freeSlot = std::find(held.begin(), held.end(), false);
    if (freeSlot == held.end()) {
        const int wanted = std::min(static_cast<int>(held.size()) * 2, kMaxChannels);
        held.resize(static_cast<std::size_t>(Mix_AllocateChannels(wanted)), false);
        freeSlot = std::find(held.begin(), held.end(), false);
        if (freeSlot == held.end()) {
            Mix_FreeChunk(chunk);
            error = QStringLiteral("too many sounds at once");
            return nullptr;
        }
    }
    const int channel = static_cast<int>(freeSlot - held.begin());
    Mix_Volume(channel, MIX_MAX_VOLUME);
    if (Mix_PlayChannel(channel, chunk, 0) < 0) {
        error = sdlError();
        Mix_FreeChunk(chunk);
        return nullptr;
    }
    *freeSlot = true;
    return std::make_unique<SdlVoice>(shared_, channel, chunk);
}

}  // namespace bonkwell

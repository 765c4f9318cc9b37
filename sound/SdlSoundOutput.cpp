// SPDX-License-Identifier: GPL-3.0-or-later
#include "SdlSoundOutput.h"

#include "Log.h"

#include <SDL.h>
#include <SDL_mixer.h>

#include <QFile>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <optional>
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

// Reads a whole regular file without ever blocking on it (a FIFO named "x.mp3" must not
// hang the audio thread).
std::optional<QByteArray> readSoundFile(const QString& path, qint64 maxBytes, QString& error) {
    const QByteArray name = QFile::encodeName(path);
    const int fd = ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return std::nullopt;
    }
    struct stat st {};
    std::optional<QByteArray> result;
    if (::fstat(fd, &st) != 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
    } else if (!S_ISREG(st.st_mode)) {
        error = QStringLiteral("not a regular file");
    } else if (st.st_size == 0) {
        error = QStringLiteral("the file is empty");
    } else if (st.st_size > maxBytes) {
        error = QStringLiteral("the file is too large (%1 MB; sounds over %2 MB are not played)")
                    .arg(static_cast<double>(st.st_size) / (1024.0 * 1024.0), 0, 'f', 1)
                    .arg(maxBytes / (1024 * 1024));
    } else {
        QByteArray data(static_cast<qsizetype>(st.st_size), Qt::Uninitialized);
        qsizetype got = 0;
        while (got < data.size()) {
            const ssize_t n = ::read(fd, data.data() + got, static_cast<size_t>(data.size() - got));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                error = QString::fromLocal8Bit(std::strerror(errno));
                break;
            }
            if (n == 0) {
                break;  // the file shrank while we read it: play what is there
            }
            got += n;
        }
        if (error.isEmpty()) {
            data.truncate(got);
            result = std::move(data);
        }
    }
    ::close(fd);
    return result;
}

// Multiplies the decoded samples by `gain`, rounding, so that the level is exactly linear.
void applyGain(Mix_Chunk* chunk, float gain) {
    if (gain == 1.0F) {
        return;
    }
    auto* samples = reinterpret_cast<Sint16*>(chunk->abuf);
    const std::size_t count = chunk->alen / sizeof(Sint16);
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<Sint16>(std::lrint(static_cast<float>(samples[i]) * gain));
    }
}

}  // namespace

QString SdlSoundOutput::preferredAudioDrivers() {
    const QString pulseFirst = QStringLiteral("pulseaudio,pipewire,alsa");
    if (qEnvironmentVariableIsSet("PULSE_SERVER")) {
        return pulseFirst;  // an explicitly named server: let PulseAudio's client find it
    }
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    const QByteArray socketPath = QFile::encodeName(runtime + QStringLiteral("/pulse/native"));
    sockaddr_un address{};
    if (runtime.isEmpty() || socketPath.size() >= static_cast<qsizetype>(sizeof address.sun_path)) {
        return pulseFirst;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath.constData(), static_cast<size_t>(socketPath.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return pulseFirst;
    }
    QString result = pulseFirst;
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.pid > 0) {
        QFile comm(QStringLiteral("/proc/%1/comm").arg(peer.pid));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().startsWith("pipewire")) {
            result = QStringLiteral("pipewire,pulseaudio,alsa");
        }
    }
    ::close(fd);
    return result;
}

int SdlSoundOutput::bufferFramesFor(const QString& driver) {
    // PipeWire (its own driver) runs the graph at the period a client asks for: 128 frames
    // put a sound on the sink in about 6 ms, 256 in about 11. 128 ran dry 0-2 times in 6 s
    // of sound at rest and 0-3 times with every core busy, 256 never; the gain in latency
    // was judged worth the rare gap under full load.
    if (driver == QLatin1String("pipewire")) {
        return 128;
    }
    // PulseAudio: SDL asks the server for exactly one buffer and refills only once all of it
    // has played, so a buffer that small runs dry whenever the refill is a little late; 512
    // frames ran dry least.
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
    std::optional<QByteArray> data = readSoundFile(path, options_.maxFileBytes, error);
    if (!data) {
        return nullptr;
    }
    if (!ensureOpen()) {
        error.clear();  // already logged once for this outage
        return nullptr;
    }

    // Measure first: decoding a long recording would take seconds and a lot of memory.
    if (Mix_Music* music = Mix_LoadMUS_RW(
            SDL_RWFromConstMem(data->constData(), static_cast<int>(data->size())), 1)) {
        const double seconds = Mix_MusicDuration(music);
        Mix_FreeMusic(music);
        if (seconds > options_.maxSeconds) {
            error = QStringLiteral("the sound is too long (%1 s; sounds over %2 s are not played)")
                        .arg(seconds, 0, 'f', 0)
                        .arg(options_.maxSeconds);
            return nullptr;
        }
    }
    Mix_Chunk* chunk =
        Mix_LoadWAV_RW(SDL_RWFromConstMem(data->constData(), static_cast<int>(data->size())), 1);
    if (chunk == nullptr) {
        error = sdlError();
        return nullptr;
    }
    if (chunk->alen == 0) {
        Mix_FreeChunk(chunk);
        error = QStringLiteral("no sound could be decoded");
        return nullptr;
    }
    applyGain(chunk, gain);

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

// SPDX-License-Identifier: GPL-3.0-or-later
#include "PulseSoundOutput.h"

#include "Log.h"
#include "VoiceMixer.h"

#include <SDL.h>
#include <SDL_mixer.h>

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <vector>

namespace bonkwell {

struct PulseSoundOutput::State {
    std::atomic<bool> open{false};
    std::atomic<std::uint64_t> opens{0};
    std::atomic<std::uint64_t> underruns{0};
    // Set while sound is unavailable: the outage has been logged once.
    std::atomic<bool> outage{false};
};

namespace {

constexpr int kFrameBytes = 4;  // 16-bit stereo
constexpr int kConnectTimeoutMs = 3000;
// A server busy for longer than this gets the next sound behind its queue.
constexpr int kAnswerTimeoutMs = 500;
// How far ahead of where the server reads a sound is mixed in: what the server may read while
// our write travels to it, at most.
constexpr pa_usec_t kRewriteAheadUs = 1500;
// How much of what was written is kept for rewriting, in queues.
constexpr std::size_t kKeptQueues = 4;
// SDL's silent driver only runs the decoders; a large buffer keeps its thread asleep.
constexpr int kDecoderBufferFrames = 4096;

class PulseVoice final : public Voice {
  public:
    explicit PulseVoice(std::shared_ptr<sound::VoiceMixer::Track> track)
        : track_(std::move(track)) {}
    ~PulseVoice() override { track_->stop(); }
    PulseVoice(const PulseVoice&) = delete;
    PulseVoice& operator=(const PulseVoice&) = delete;
    bool isPlaying() const override { return track_->isPlaying(); }

  private:
    std::shared_ptr<sound::VoiceMixer::Track> track_;
};

// SDL2_mixer opened on SDL's silent driver, at the stream's format, for decoding only.
bool openDecoder(QString& error) {
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    // Beats $SDL_AUDIODRIVER; reset at once so that other SDL users choose as usual.
    SDL_SetHintWithPriority(SDL_HINT_AUDIODRIVER, "dummy", SDL_HINT_OVERRIDE);
    bool ok = SDL_InitSubSystem(SDL_INIT_AUDIO) == 0;
    if (ok && Mix_OpenAudioDevice(PulseSoundOutput::kRate, AUDIO_S16SYS, 2, kDecoderBufferFrames,
                                  nullptr, 0) != 0) {
        SDL_QuitSubSystem(SDL_INIT_AUDIO);
        ok = false;
    }
    if (!ok) {
        error =
            QStringLiteral("cannot start the decoder: %1").arg(QString::fromUtf8(SDL_GetError()));
    }
    SDL_ResetHint(SDL_HINT_AUDIODRIVER);
    if (ok) {
        Mix_Init(MIX_INIT_MP3);
    }
    return ok;
}

void closeDecoder() {
    Mix_CloseAudio();
    Mix_Quit();
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
}

}  // namespace

struct PulseSoundOutput::Connection {
    Connection(State& s, const Options& o) : state(s), options(o) {}
    ~Connection() {
        if (mainloop != nullptr) {
            pa_threaded_mainloop_stop(mainloop);
        }
        if (stream != nullptr) {
            pa_stream_set_state_callback(stream, nullptr, nullptr);
            pa_stream_set_write_callback(stream, nullptr, nullptr);
            pa_stream_set_underflow_callback(stream, nullptr, nullptr);
            pa_stream_disconnect(stream);
            pa_stream_unref(stream);
        }
        if (context != nullptr) {
            pa_context_set_state_callback(context, nullptr, nullptr);
            pa_context_disconnect(context);
            pa_context_unref(context);
        }
        if (mainloop != nullptr) {
            pa_threaded_mainloop_free(mainloop);
        }
        mixer.clear();
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Opens the connection and the stream; false with `error` set when that fails.
    bool open(QString& error);

    // The server lost us, or we it: stop every sound and, once the stream had been playing,
    // say so once (a connection that fails while opening is reported by the opener).
    void lose(const char* what) {
        if (lost) {
            return;
        }
        lost = true;
        state.open = false;
        mixer.clear();
        if (established && !state.outage.exchange(true)) {
            logLine(QStringLiteral("Bonkwell: the sound server went away (%1); slaps stay silent "
                                   "until it is back")
                        .arg(QString::fromUtf8(what)));
        }
        pa_threaded_mainloop_signal(mainloop, 0);
    }

    // Writes what the server asks for (on the stream's thread, or with the lock held).
    void fill(std::size_t bytes) {
        while (bytes >= kFrameBytes && !lost) {
            void* data = nullptr;
            std::size_t size = bytes;
            if (pa_stream_begin_write(stream, &data, &size) < 0 || data == nullptr) {
                return;
            }
            const std::size_t frames = size / kFrameBytes;
            if (frames == 0) {
                pa_stream_cancel_write(stream);
                return;
            }
            auto* samples = static_cast<std::int16_t*>(data);
            mixer.render(samples, frames);
            remember(samples, writeFrame, frames);
            if (pa_stream_write(stream, data, frames * kFrameBytes, nullptr, 0, PA_SEEK_RELATIVE) <
                0) {
                return;
            }
            writeFrame += static_cast<std::int64_t>(frames);
            bytes -= frames * kFrameBytes;
        }
    }

    // Keeps a copy of what was written at stream position `at`, for rewriting it later.
    void remember(const std::int16_t* samples, std::int64_t at, std::size_t frames) {
        const std::size_t size = recent.size() / 2;
        for (std::size_t slot = static_cast<std::size_t>(at) % size; frames > 0; slot = 0) {
            const std::size_t n = std::min(frames, size - slot);
            std::memcpy(recent.data() + 2 * slot, samples, n * kFrameBytes);
            samples += 2 * n;
            frames -= n;
        }
    }

    // What was written at stream position `at` (kept by remember()).
    void recall(std::int16_t* samples, std::int64_t at, std::size_t frames) const {
        const std::size_t size = recent.size() / 2;
        for (std::size_t slot = static_cast<std::size_t>(at) % size; frames > 0; slot = 0) {
            const std::size_t n = std::min(frames, size - slot);
            std::memcpy(samples, recent.data() + 2 * slot, n * kFrameBytes);
            samples += 2 * n;
            frames -= n;
        }
    }

    // The earliest stream position (frames) that a write sent now still reaches before the
    // sink has passed it: where the server reads, asked of the server, plus how far it will
    // have read by the time the write arrives. Nothing when the server does not tell within a
    // moment. With the lock held; lets the stream's thread run meanwhile.
    std::optional<std::int64_t> earliestRewrite();

    // Starts `samples`. With rewriting, what is still queued at the server is written anew
    // from just ahead of where the server reads, with the new sound mixed in, so it starts at
    // once instead of behind the queue, and the sounds already playing go on sample for
    // sample. Otherwise (or when the server does not say where it reads) it starts behind the
    // queue.
    std::shared_ptr<sound::VoiceMixer::Track> start(std::vector<std::int16_t> samples);

    State& state;
    const Options& options;
    sound::VoiceMixer mixer;
    pa_threaded_mainloop* mainloop = nullptr;
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;
    bool ready = false;                // stream thread and opener, under the main loop's lock
    bool lost = false;                 // ditto
    bool timedOut = false;             // ditto
    bool established = false;          // ditto: the stream was open and playing
    bool answered = false;             // ditto: the server told where it reads
    std::int64_t writeFrame = 0;       // ditto: the stream position of our next write
    std::vector<std::int16_t> recent;  // ditto: what was written last, by stream position
};

namespace {

void onContextState(pa_context* context, void* userdata) {
    auto* c = static_cast<PulseSoundOutput::Connection*>(userdata);
    const pa_context_state_t s = pa_context_get_state(context);
    if (s == PA_CONTEXT_FAILED || s == PA_CONTEXT_TERMINATED) {
        c->lose(pa_strerror(pa_context_errno(context)));
    }
    pa_threaded_mainloop_signal(c->mainloop, 0);
}

void onStreamState(pa_stream* stream, void* userdata) {
    auto* c = static_cast<PulseSoundOutput::Connection*>(userdata);
    const pa_stream_state_t s = pa_stream_get_state(stream);
    if (s == PA_STREAM_READY) {
        c->ready = true;
    } else if (s == PA_STREAM_FAILED || s == PA_STREAM_TERMINATED) {
        c->lose(pa_strerror(pa_context_errno(c->context)));
    }
    pa_threaded_mainloop_signal(c->mainloop, 0);
}

void onWrite(pa_stream* /*stream*/, std::size_t bytes, void* userdata) {
    static_cast<PulseSoundOutput::Connection*>(userdata)->fill(bytes);
}

void onTimingInfo(pa_stream* /*stream*/, int /*success*/, void* userdata) {
    auto* c = static_cast<PulseSoundOutput::Connection*>(userdata);
    c->answered = true;
    pa_threaded_mainloop_signal(c->mainloop, 0);
}

void onUnderflow(pa_stream* /*stream*/, void* userdata) {
    ++static_cast<PulseSoundOutput::Connection*>(userdata)->state.underruns;
}

void onTimeout(pa_mainloop_api* /*api*/, pa_time_event* /*event*/, const timeval* /*tv*/,
               void* userdata) {
    auto* c = static_cast<PulseSoundOutput::Connection*>(userdata);
    c->timedOut = true;
    pa_threaded_mainloop_signal(c->mainloop, 0);
}

}  // namespace

std::optional<std::int64_t> PulseSoundOutput::Connection::earliestRewrite() {
    answered = false;
    timedOut = false;
    pa_operation* op = pa_stream_update_timing_info(stream, onTimingInfo, this);
    if (op == nullptr) {
        return std::nullopt;
    }
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop);
    timeval deadline{};
    pa_time_event* timer = api->time_new(
        api, pa_timeval_add(pa_gettimeofday(&deadline), kAnswerTimeoutMs * PA_USEC_PER_MSEC),
        onTimeout, this);
    while (!answered && !lost && !timedOut) {
        pa_threaded_mainloop_wait(mainloop);
    }
    api->time_free(timer);
    if (pa_operation_get_state(op) == PA_OPERATION_RUNNING) {
        pa_operation_cancel(op);  // no answer wanted any more
    }
    pa_operation_unref(op);
    const pa_timing_info* timing = answered && !lost ? pa_stream_get_timing_info(stream) : nullptr;
    if (timing == nullptr || timing->read_index_corrupt != 0) {
        return std::nullopt;
    }
    // The server reads on while its answer and our write travel (or starts to, if it was
    // waiting for data); a sink at its shortest latency cannot rewind what it has passed.
    const pa_usec_t age = pa_timeval_age(&timing->timestamp);
    return timing->read_index / kFrameBytes +
           static_cast<std::int64_t>((age + kRewriteAheadUs) * kRate / PA_USEC_PER_SEC);
}

std::shared_ptr<sound::VoiceMixer::Track> PulseSoundOutput::Connection::start(
    std::vector<std::int16_t> samples) {
    // -1: not known.
    const std::int64_t from = options.rewriteQueue ? earliestRewrite().value_or(-1) : -1;
    auto track = mixer.add(std::move(samples));
    if (lost) {
        mixer.clear();  // the server went just now: the sound is not heard
        return track;
    }
    const auto kept = static_cast<std::int64_t>(recent.size() / 2);
    if (from >= 0 && from < writeFrame && writeFrame - from <= kept) {
        const auto frames = static_cast<std::size_t>(writeFrame - from);
        std::vector<std::int16_t> block(frames * 2);
        recall(block.data(), from, frames);
        mixer.mixIncoming(block.data(), frames);
        // The server drops what it has passed by the time this arrives, and rewinds its
        // sink for what it had taken but not yet played.
        pa_stream_write(stream, block.data(), frames * kFrameBytes, nullptr, from * kFrameBytes,
                        PA_SEEK_ABSOLUTE);
        remember(block.data(), from, frames);
    }
    const std::size_t room = pa_stream_writable_size(stream);
    if (room != static_cast<std::size_t>(-1)) {
        fill(room);
    }
    return track;
}

bool PulseSoundOutput::Connection::open(QString& error) {
    mainloop = pa_threaded_mainloop_new();
    if (mainloop == nullptr) {
        error = QStringLiteral("out of memory");
        return false;
    }
    pa_threaded_mainloop_set_name(mainloop, "bonkwell-sound");
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop);
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Bonkwell");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ICON_NAME, "bonkwell");
    context = pa_context_new_with_proplist(api, "Bonkwell", props);
    pa_proplist_free(props);
    if (context == nullptr) {
        error = QStringLiteral("out of memory");
        return false;
    }
    pa_context_set_state_callback(context, onContextState, this);
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        error = QString::fromUtf8(pa_strerror(pa_context_errno(context)));
        return false;
    }
    pa_threaded_mainloop_lock(mainloop);
    if (pa_threaded_mainloop_start(mainloop) < 0) {
        pa_threaded_mainloop_unlock(mainloop);
        error = QStringLiteral("cannot start the sound thread");
        return false;
    }
    // A server that accepts but never answers must not hang the player.
    timeval deadline{};
    pa_time_event* timer = api->time_new(
        api, pa_timeval_add(pa_gettimeofday(&deadline), kConnectTimeoutMs * PA_USEC_PER_MSEC),
        onTimeout, this);
    const auto stateOf = [this] { return pa_context_get_state(context); };
    while (stateOf() != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(stateOf()) && !timedOut) {
        pa_threaded_mainloop_wait(mainloop);
    }
    bool ok = stateOf() == PA_CONTEXT_READY;
    if (ok) {
        const pa_sample_spec format{PA_SAMPLE_S16NE, kRate, 2};
        pa_proplist* streamProps = pa_proplist_new();
        pa_proplist_sets(streamProps, PA_PROP_MEDIA_ROLE, "event");
        stream = pa_stream_new_with_proplist(context, "Slap sounds", &format, nullptr, streamProps);
        pa_proplist_free(streamProps);
        ok = stream != nullptr;
    }
    if (ok) {
        pa_stream_set_state_callback(stream, onStreamState, this);
        pa_stream_set_write_callback(stream, onWrite, this);
        pa_stream_set_underflow_callback(stream, onUnderflow, this);
        const auto period = static_cast<std::uint32_t>(options.periodFrames * kFrameBytes);
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<std::uint32_t>(-1);
        attr.tlength = period * static_cast<std::uint32_t>(options.periods);
        attr.prebuf = static_cast<std::uint32_t>(-1);
        attr.minreq = period;
        attr.fragsize = static_cast<std::uint32_t>(-1);
        // Room for a few queues (the server may grant a longer one than asked for).
        recent.assign(2 * std::max<std::size_t>(kKeptQueues * attr.tlength / kFrameBytes, 8192), 0);
        const auto flags = static_cast<pa_stream_flags_t>(
            (options.requests == Requests::adjustLatency ? PA_STREAM_ADJUST_LATENCY
                                                         : PA_STREAM_EARLY_REQUESTS) |
            PA_STREAM_START_UNMUTED);
        ok = pa_stream_connect_playback(stream, nullptr, &attr, flags, nullptr, nullptr) == 0;
        while (ok && !ready && !lost && !timedOut) {
            pa_threaded_mainloop_wait(mainloop);
        }
        ok = ok && ready && !lost;
    }
    api->time_free(timer);
    established = ok;
    if (!ok) {
        error = timedOut && !lost ? QStringLiteral("the sound server does not answer")
                                  : QString::fromUtf8(pa_strerror(pa_context_errno(context)));
    }
    pa_threaded_mainloop_unlock(mainloop);
    return ok;
}

PulseSoundOutput::PulseSoundOutput() : PulseSoundOutput(Options{}) {}

PulseSoundOutput::PulseSoundOutput(Options options)
    : options_(options), state_(std::make_unique<State>()) {}

PulseSoundOutput::~PulseSoundOutput() {
    close();
    SDL_TLSCleanup();  // SDL's per-thread data of this (the player's) thread
}

bool PulseSoundOutput::isOpen() const {
    return state_->open;
}

std::uint64_t PulseSoundOutput::openCount() const {
    return state_->opens;
}

std::uint64_t PulseSoundOutput::underruns() const {
    return state_->underruns;
}

bool PulseSoundOutput::ensureOpen() {
    if (connection_ && state_->open) {
        return true;
    }
    close();  // what is left of a connection the server dropped
    QString error;
    if (!openDecoder(error)) {
        logLine(QStringLiteral("Bonkwell: %1").arg(error));
        return false;
    }
    connection_ = std::make_unique<Connection>(*state_, options_);
    if (!connection_->open(error)) {
        connection_.reset();
        closeDecoder();
        // One line per outage, not one per slap; every playback tries again.
        if (!state_->outage.exchange(true)) {
            logLine(QStringLiteral("Bonkwell: no sound output (%1); slaps stay silent until "
                                   "one is available")
                        .arg(error));
        }
        return false;
    }
    if (state_->outage.exchange(false)) {
        logLine(QStringLiteral("Bonkwell: sound output available again"));
    }
    state_->open = true;
    ++state_->opens;
    return true;
}

void PulseSoundOutput::close() {
    if (!connection_) {
        return;
    }
    state_->open = false;
    connection_.reset();
    closeDecoder();
}

void PulseSoundOutput::goIdle() {
    close();
}

std::unique_ptr<Voice> PulseSoundOutput::play(const QString& path, float gain, QString& error) {
    std::optional<QByteArray> data =
        sound::readSoundFile(path, options_.limits.maxFileBytes, error);
    if (!data) {
        return nullptr;
    }
    if (!ensureOpen()) {
        error.clear();  // already logged once for this outage
        return nullptr;
    }
    Mix_Chunk* chunk = sound::decodeSound(*data, options_.limits, gain, error);
    if (chunk == nullptr) {
        return nullptr;
    }
    std::vector<std::int16_t> samples(chunk->alen / sizeof(std::int16_t));
    std::memcpy(samples.data(), chunk->abuf, samples.size() * sizeof(std::int16_t));
    Mix_FreeChunk(chunk);
    // The sound need not wait for the server's next request.
    pa_threaded_mainloop_lock(connection_->mainloop);
    auto track = connection_->start(std::move(samples));
    pa_threaded_mainloop_unlock(connection_->mainloop);
    return std::make_unique<PulseVoice>(std::move(track));
}

}  // namespace bonkwell

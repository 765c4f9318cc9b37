// SPDX-License-Identifier: GPL-3.0-or-later
// Sound output straight to a PulseAudio server: one playback stream with a short queue,
// refilled from the server's requests by our own mixer, so a sound starts within a few
// milliseconds. Files are decoded by SDL2_mixer (on SDL's
// silent driver, only for its decoders and format conversion).
#pragma once

#include "SoundFile.h"
#include "SoundOutput.h"

#include <cstdint>
#include <memory>

namespace bonkwell {

class PulseSoundOutput : public SoundOutput {
  public:
    static constexpr int kRate = 48000;

    // How the stream asks the server to queue.
    enum class Requests {
        adjustLatency,  // the server sizes the sink's own buffer to our queue
        earlyRequests,  // the server asks for data early, without resizing the sink's buffer
    };

    // The defaults (bench/slap-to-sound compares others, at rest and with every core busy):
    // a queue of two 21 ms periods, so that our thread may be 21 ms late before the queue runs
    // dry (with two 4 ms or 8 ms periods it ran dry now and then with every core busy), and
    // every sound that starts is mixed into what is queued, rewritten from just ahead of
    // where the server reads, so the sink has it within about 2.5 ms whatever the queue's
    // length, also while another sound plays.
    struct Options {
        // The server asks for (at least) this much at a time.
        int periodFrames = 1024;
        // The queue the server keeps filled, in periods: how long our thread may be late.
        int periods = 2;
        Requests requests = Requests::adjustLatency;
        // A sound that starts is mixed into what is queued, written anew from just ahead of
        // where the server reads, instead of waiting behind the queue.
        bool rewriteQueue = true;
        sound::FileLimits limits;
    };

    PulseSoundOutput();
    explicit PulseSoundOutput(Options options);
    // Closes the stream. Destroy the output on the thread that used it.
    ~PulseSoundOutput() override;
    PulseSoundOutput(const PulseSoundOutput&) = delete;
    PulseSoundOutput& operator=(const PulseSoundOutput&) = delete;

    std::unique_ptr<Voice> play(const QString& path, float gain, QString& error) override;
    // Closes the stream and the connection; nothing runs until the next playback.
    void goIdle() override;

    // Whether the stream is open now (false also once the server has gone), how often it
    // has been opened, and how often the server found the queue empty while it was open
    // (any thread).
    bool isOpen() const;
    std::uint64_t openCount() const;
    std::uint64_t underruns() const;

    struct State;       // what the stream's thread shares with us
    struct Connection;  // the libpulse objects while open

  private:
    bool ensureOpen();
    void close();

    Options options_;
    std::unique_ptr<State> state_;
    std::unique_ptr<Connection> connection_;
};

}  // namespace bonkwell

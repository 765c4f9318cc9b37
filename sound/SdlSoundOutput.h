// SPDX-License-Identifier: GPL-3.0-or-later
// Sound output through SDL2_mixer: every playback decodes its file afresh, scales the samples
// by the exact gain and starts them on a channel of their own, so sounds overlap.
#pragma once

#include "SoundOutput.h"

#include <cstdint>
#include <memory>

namespace bonkwell {

class SdlSoundOutput : public SoundOutput {
  public:
    struct Options {
        int frequency = 48000;
        // Most of the slap-to-sound latency. 0: bufferFramesFor() the driver in use.
        int bufferFrames = 0;
        qint64 maxFileBytes = 16 * 1024 * 1024;
        double maxSeconds = 60.0;  // longer sounds are refused: they decode into memory
    };

    SdlSoundOutput();
    explicit SdlSoundOutput(Options options);
    // Closes the device. Destroy the output on the thread that used it.
    ~SdlSoundOutput() override;
    SdlSoundOutput(const SdlSoundOutput&) = delete;
    SdlSoundOutput& operator=(const SdlSoundOutput&) = delete;

    std::unique_ptr<Voice> play(const QString& path, float gain, QString& error) override;
    // Closes the device; the next playback opens it again.
    void goIdle() override;

    // Whether the device is open now, and how often it has been opened so far (any thread).
    bool isOpen() const;
    std::uint64_t openCount() const;
    // The audio driver in use ("pulseaudio", "disk", …), empty while closed.
    QString driverName() const;

    // The SDL audio drivers to try, in order. SDL 2.26 tries PulseAudio before PipeWire,
    // which on PipeWire desktops nearly doubles the latency; but a PipeWire daemon may also
    // run beside a real PulseAudio (for screen sharing only) and then has no speakers. So
    // PipeWire comes first only when the session's PulseAudio socket is served by PipeWire.
    static QString preferredAudioDrivers();

    // The device buffer, in frames, for an SDL audio driver ("pulseaudio", "pipewire", …):
    // the smallest that ran dry least on that sound server at rest and with every core busy
    // (bench/slap-to-sound compares them). The device is released after a few seconds of
    // silence, so a small buffer costs nothing while nothing plays.
    static int bufferFramesFor(const QString& driver);
    // The buffer of the open device, 0 while closed.
    int bufferFrames() const;

    struct Shared;  // state the voices share with the output

  private:
    bool ensureOpen();
    void close();

    Options options_;
    std::shared_ptr<Shared> shared_;
    bool lastOpenFailed_ = false;
    int openFrames_ = 0;
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-or-later
// Our own PulseAudio stream against a real, private PulseAudio server with a null sink: what
// the sink's monitor hears, what the server shows, and what happens when the server dies.
#include "AudioAnalysis.h"
#include "AudioPlayer.h"
#include "ManualClock.h"
#include "PrivatePulseServer.h"
#include "PulseSoundOutput.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <future>
#include <thread>

using bonkwell::AudioPlayer;
using bonkwell::PlayMode;
using bonkwell::PulseSoundOutput;
using bonkwell::SoundPack;
using namespace bonkwell::test;
using namespace std::chrono_literals;

namespace {

const QString kData = QStringLiteral(BONKWELL_SOUND_TEST_DATA);

SoundPack packWith(const QString& file) {
    SoundPack pack;
    pack.name = QStringLiteral("Test");
    pack.directoryURL = QFileInfo(file).absolutePath();
    pack.files << file;
    return pack;
}

// A WAV of `seconds` of a 440 Hz sine at half scale, 48 kHz stereo.
QByteArray longTone(double seconds) {
    const auto frames = static_cast<std::uint32_t>(seconds * kRate);
    QByteArray wav;
    const auto put = [&wav](std::uint32_t v, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            wav.append(static_cast<char>((v >> (8 * i)) & 0xff));
        }
    };
    wav.append("RIFF");
    put(36 + frames * 4, 4);
    wav.append("WAVEfmt ");
    put(16, 4);
    put(1, 2);
    put(2, 2);
    put(kRate, 4);
    put(kRate * 4, 4);
    put(4, 2);
    put(16, 2);
    wav.append("data");
    put(frames * 4, 4);
    for (std::uint32_t i = 0; i < frames; ++i) {
        const auto v = static_cast<std::int16_t>(
            std::lrint(16383.0 * std::sin(2.0 * M_PI * 440.0 * i / kRate)));
        put(static_cast<std::uint16_t>(v), 2);
        put(static_cast<std::uint16_t>(v), 2);
    }
    return wav;
}

class PulseOutputTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // This test needs the server program: without it, it fails (never skips).
        const QString missing = PrivatePulseServer::missing();
        ASSERT_TRUE(missing.isEmpty()) << qPrintable(missing);
        ASSERT_TRUE(dir_.isValid());
        ::chmod(qPrintable(dir_.path()), 0700);
        ::unsetenv("PULSE_SERVER");
        startServer();
    }

    void startServer() {
        QString error;
        ASSERT_TRUE(server_.start(error)) << qPrintable(error);
        recorder_ = std::make_unique<MonitorRecorder>();
        ASSERT_TRUE(recorder_->error().isEmpty()) << qPrintable(recorder_->error());
        // An idle null sink works in 2 s blocks: the recording keeps up only after the first.
        std::this_thread::sleep_for(2500ms);
    }

    void startPlayer(std::chrono::milliseconds idleRelease = 60s) {
        auto output = std::make_unique<PulseSoundOutput>();
        output_ = output.get();
        player_ = std::make_unique<AudioPlayer>(clock_, std::move(output), idleRelease);
    }
    void settle() {
        auto done = std::async(std::launch::async, [this] { player_->waitUntilIdleForTesting(); });
        ASSERT_EQ(done.wait_for(10s), std::future_status::ready) << "the audio queue hangs";
    }
    void slap(const QString& file, double amplitude, double userVolume = 1.0, bool scaling = true) {
        player_->playSlap(packWith(file), PlayMode::random, amplitude, userVolume, scaling);
    }
    // Stops the player and the recording; what the monitor heard.
    std::vector<float> finish() {
        player_.reset();
        std::vector<float> left = recorder_->left();
        recorder_.reset();
        return left;
    }
    QString writeFile(const QString& name, const QByteArray& content) {
        QFile file(dir_.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        return file.fileName();
    }
    bool streamThreadRuns() const {
        for (const QString& task :
             QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(task));
            const QByteArray name = comm.open(QIODevice::ReadOnly) ? comm.readAll() : QByteArray();
            // Our stream's thread, and SDL's audio thread of the decoder.
            if (name.startsWith("bonkwell-sound") || name.startsWith("SDLAudio")) {
                return true;
            }
        }
        return false;
    }

    QTemporaryDir dir_;
    ScopedEnv runtime_{"XDG_RUNTIME_DIR", dir_.path()};
    ScopedEnv home_{"HOME", dir_.path()};
    PrivatePulseServer server_{dir_.path()};
    std::unique_ptr<MonitorRecorder> recorder_;
    ManualClock clock_;
    PulseSoundOutput* output_ = nullptr;
    std::unique_ptr<AudioPlayer> player_;
};

TEST_F(PulseOutputTest, ASlapIsHeardAtTheSink) {
    startPlayer();
    slap(kData + "/tone-440.mp3", 0.8);  // gain 1.0
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(output_->underruns(), 0U);
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left, 0.001F);
    ASSERT_EQ(segments.size(), 1U);
    EXPECT_NEAR(steadyToneAmplitude(left, segments[0], 0.2, 440), 0.5, 0.03);
    EXPECT_NEAR(static_cast<double>(segments[0].end - segments[0].begin) / kRate, 0.3, 0.02)
        << "the whole 300 ms tone, once";
}

TEST_F(PulseOutputTest, GainIsExactlyLinear) {
    startPlayer();
    slap(kData + "/tone-440.mp3", 0.8);  // gain 1.0
    std::this_thread::sleep_for(500ms);
    slap(kData + "/tone-440.mp3", 0.05);  // gain 0.125
    std::this_thread::sleep_for(500ms);
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left, 0.001F);
    ASSERT_EQ(segments.size(), 2U);
    const auto level = [&](const Segment& s) {
        return rms(left, s.begin + kRate / 20, s.begin + kRate / 4);
    };
    EXPECT_NEAR(peak(left, segments[0].begin + kRate / 20, segments[0].begin + kRate / 4), 0.5,
                0.03);
    EXPECT_NEAR(level(segments[1]) / level(segments[0]), 0.125, 0.125 * 0.05);
}

TEST_F(PulseOutputTest, OverlappingSoundsMix) {
    startPlayer();
    slap(kData + "/tone-440.mp3", 0.4, 0.5, false);
    std::this_thread::sleep_for(100ms);
    slap(kData + "/tone-660.mp3", 0.4, 0.5, false);
    std::this_thread::sleep_for(600ms);
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 1U) << "one stretch of sound, the second tone within the first";
    const std::size_t start = segments[0].begin;
    EXPECT_GT(segments[0].end - start, static_cast<std::size_t>(kRate * 0.35));
    const std::size_t b = start + kRate * 24 / 100;
    const std::size_t e = start + kRate * 28 / 100;
    EXPECT_NEAR(toneAmplitude(left, b, e, 440), 0.25, 0.05);
    EXPECT_NEAR(toneAmplitude(left, b, e, 660), 0.25, 0.05);
    EXPECT_NEAR(toneAmplitude(left, start + kRate / 50, start + kRate * 6 / 100, 440), 0.25, 0.05);
    EXPECT_LT(toneAmplitude(left, start + kRate / 50, start + kRate * 6 / 100, 660), 0.02);
}

TEST_F(PulseOutputTest, GoingIdleReleasesTheStreamAndTheNextSlapOpensItAgain) {
    startPlayer(100ms);
    EXPECT_EQ(server_.playbackStreams(), 0);
    slap(kData + "/tone-440.mp3", 0.8);
    settle();
    EXPECT_TRUE(output_->isOpen());
    EXPECT_EQ(server_.playbackStreams(), 1);
    EXPECT_TRUE(streamThreadRuns());
    std::this_thread::sleep_for(800ms);
    EXPECT_FALSE(output_->isOpen()) << "released after the sound ended and 100 ms passed";
    EXPECT_EQ(server_.playbackStreams(), 0) << "the server shows no stream of ours";
    EXPECT_FALSE(streamThreadRuns()) << "nothing of ours runs while closed";

    slap(kData + "/tone-660.mp3", 0.8);
    settle();
    EXPECT_EQ(output_->openCount(), 2U);
    std::this_thread::sleep_for(450ms);
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 2U);
    EXPECT_NEAR(steadyToneAmplitude(left, segments[1], 0.2, 660), 0.5, 0.05);
}

TEST_F(PulseOutputTest, AServerKilledWhilePlayingIsLoggedOnceAndTheNextSlapAfterARestartPlays) {
    LogCapture log;
    startPlayer(300ms);
    const QString tone = writeFile(QStringLiteral("long.wav"), longTone(3.0));
    slap(tone, 0.8);
    settle();
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(output_->isOpen());
    recorder_.reset();
    server_.kill();
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(output_->isOpen());
    ASSERT_EQ(log.lines().size(), 1) << qPrintable(log.lines().join('\n'));
    EXPECT_TRUE(log.lines().at(0).startsWith("Bonkwell: the sound server went away ("))
        << qPrintable(log.lines().at(0));

    // Slaps while no server runs: silent, no hang, no more lines.
    for (int i = 0; i < 3; ++i) {
        const auto start = std::chrono::steady_clock::now();
        slap(tone, 0.8);
        settle();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    }
    EXPECT_EQ(log.lines().size(), 1) << qPrintable(log.lines().join('\n'));

    startServer();
    slap(kData + "/tone-440.mp3", 0.8);
    settle();
    std::this_thread::sleep_for(500ms);
    ASSERT_EQ(log.lines().size(), 2) << qPrintable(log.lines().join('\n'));
    EXPECT_EQ(log.lines().at(1), "Bonkwell: sound output available again");
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 1U);
    EXPECT_NEAR(steadyToneAmplitude(left, segments[0], 0.2, 440), 0.5, 0.05);
}

TEST_F(PulseOutputTest, WithoutAServerOneLineThenEveryPlaybackTriesAgain) {
    LogCapture log;
    {
        ScopedEnv nowhere("PULSE_SERVER", QStringLiteral("unix:/nonexistent/bonkwell-test"));
        startPlayer();
        for (int i = 0; i < 3; ++i) {
            slap(kData + "/tone-440.mp3", 0.8);
            settle();
        }
        ASSERT_EQ(log.lines().size(), 1) << qPrintable(log.lines().join('\n'));
        EXPECT_TRUE(log.lines().at(0).startsWith("Bonkwell: no sound output ("))
            << qPrintable(log.lines().at(0));
        EXPECT_FALSE(output_->isOpen());
    }
    // The session's server (the private one) is found by the very next slap.
    slap(kData + "/tone-440.mp3", 0.8);
    settle();
    std::this_thread::sleep_for(450ms);
    EXPECT_EQ(log.lines().value(1), "Bonkwell: sound output available again");
    const std::vector<float> left = finish();
    EXPECT_EQ(soundingSegments(left).size(), 1U);
}

TEST_F(PulseOutputTest, BadFilesAreRefusedWithTheSameTextsAsEver) {
    LogCapture log;
    startPlayer();
    slap(writeFile(QStringLiteral("empty.mp3"), {}), 0.8);
    settle();
    slap(writeFile(QStringLiteral("text.mp3"), "These are my notes, not a sound.\n"), 0.8);
    settle();
    slap(dir_.filePath(QStringLiteral("missing.mp3")), 0.8);
    settle();
    ASSERT_EQ(log.lines().size(), 3) << qPrintable(log.lines().join('\n'));
    EXPECT_EQ(log.lines().at(0), "Bonkwell: failed to play empty.mp3: the file is empty");
    EXPECT_TRUE(log.lines().at(1).startsWith("Bonkwell: failed to play text.mp3: "));
    EXPECT_EQ(log.lines().at(2), "Bonkwell: failed to play missing.mp3: No such file or directory");
    // A WAV plays too.
    slap(kData + "/tone-880.wav", 0.8);
    std::this_thread::sleep_for(450ms);
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 1U);
    EXPECT_NEAR(steadyToneAmplitude(left, segments[0], 0.125, 880), 0.5, 0.05);
}

}  // namespace

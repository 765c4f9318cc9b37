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

// The left (= right) samples of `seconds` of a sine at `hz`, `level` of full scale, starting
// at `phase` (radians), 48 kHz.
std::vector<std::int16_t> sine(double seconds, double hz, double level, double phase = 0.0) {
    std::vector<std::int16_t> samples(static_cast<std::size_t>(seconds * kRate));
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<std::int16_t>(
            std::lrint(32767.0 * level * std::sin(2.0 * M_PI * hz * i / kRate + phase)));
    }
    return samples;
}

// A 48 kHz stereo WAV of `samples` on both channels.
QByteArray wavOf(const std::vector<std::int16_t>& samples) {
    const auto frames = static_cast<std::uint32_t>(samples.size());
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
    for (const std::int16_t v : samples) {
        put(static_cast<std::uint16_t>(v), 2);
        put(static_cast<std::uint16_t>(v), 2);
    }
    return wav;
}

// A WAV of `seconds` of a 440 Hz sine at half scale, 48 kHz stereo.
QByteArray longTone(double seconds) {
    return wavOf(sine(seconds, 440.0, 0.5));
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

    void startPlayer(std::chrono::milliseconds idleRelease = 60s,
                     PulseSoundOutput::Options options = {}) {
        auto output = std::make_unique<PulseSoundOutput>(options);
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

// A long queue (50-100 ms), so that waiting behind it could not pass for starting at once.
PulseSoundOutput::Options longQueue() {
    PulseSoundOutput::Options options;
    options.periodFrames = 2400;
    options.periods = 2;
    return options;
}

// How many of `expected` (16-bit samples) differ from `heard` (the monitor's floats) when laid
// over it from `at` on; a sample past the end of `heard` counts as different.
long long mismatches(const std::vector<float>& heard, std::size_t at,
                     const std::vector<std::int32_t>& expected) {
    long long wrong = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto want = static_cast<float>(expected[i]) / 32768.0F;
        if (at + i >= heard.size() || std::fabs(heard[at + i] - want) > 1.5F / 32768.0F) {
            ++wrong;
        }
    }
    return wrong;
}

// A sound that starts while another plays is mixed into what is already queued: the sink has
// it from its first sample on within the queue's length, and the sound that was playing goes
// on sample for sample, neither repeated nor skipped.
TEST_F(PulseOutputTest, ASoundStartedDuringAnotherIsMixedInAtOnceAndLeavesItIntact) {
    startPlayer(60s, longQueue());
    const std::vector<std::int16_t> first = sine(2.0, 440.0, 0.25, 0.5);
    const std::vector<std::int16_t> second = sine(0.3, 1000.0, 0.25, 1.0);
    const QString a = writeFile(QStringLiteral("first.wav"), wavOf(first));
    const QString b = writeFile(QStringLiteral("second.wav"), wavOf(second));
    // The stream is open (a moment of digital silence opened it) and plays silence.
    slap(writeFile(QStringLiteral("silence.wav"), wavOf(std::vector<std::int16_t>(kRate / 20))),
         0.8);
    settle();
    std::this_thread::sleep_for(300ms);
    slap(a, 0.8);  // gain 1.0: the samples as they are
    settle();
    std::this_thread::sleep_for(700ms);
    const std::size_t recordedBefore = recorder_->frames();
    slap(b, 0.8);
    settle();
    std::this_thread::sleep_for(1800ms);
    EXPECT_EQ(output_->underruns(), 0U);
    const std::vector<float> left = finish();

    const auto segments = soundingSegments(left, 0.0001F);
    ASSERT_EQ(segments.size(), 1U);
    const std::size_t start = segments[0].begin;
    // The first sound alone, up to where the second one starts.
    std::size_t second0 = start;
    while (second0 < left.size() && second0 - start < first.size() &&
           std::fabs(left[second0] - static_cast<float>(first[second0 - start]) / 32768.0F) <
               1.5F / 32768.0F) {
        ++second0;
    }
    ASSERT_LT(second0 - start + second.size(), first.size())
        << "the second sound was not heard within the first";
    std::vector<std::int32_t> both(first.begin(), first.end());
    for (std::size_t i = 0; i < second.size(); ++i) {
        both[second0 - start + i] += second[i];
    }
    EXPECT_EQ(mismatches(left, start, both), 0)
        << "the first sound, with the second from its first sample on, and nothing else";
    // The monitor had recorded up to `recordedBefore` when the second sound was started;
    // behind the queue it would have come 50-100 ms after that.
    const double waited =
        (static_cast<double>(second0) - static_cast<double>(recordedBefore)) / kRate;
    EXPECT_LT(waited, 0.04) << "the second sound waited behind the queue";
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

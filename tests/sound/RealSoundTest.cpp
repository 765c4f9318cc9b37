// SPDX-License-Identifier: GPL-3.0-or-later
// The real output path, rendered offline: SDL's "disk" driver writes the mixed output to a
// file in real time, at exactly the level a sound server would receive.
#include "AudioAnalysis.h"
#include "AudioPlayer.h"
#include "ManualClock.h"
#include "SdlSoundOutput.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

using bonkwell::AudioPlayer;
using bonkwell::PlayMode;
using bonkwell::SdlSoundOutput;
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

// A player whose output goes to a raw file through SDL's disk driver.
class RealSoundTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(dir_.isValid()); }

    QString output() const { return dir_.filePath(QStringLiteral("mixed.raw")); }

    void startPlayer() {
        player_ = std::make_unique<AudioPlayer>(clock_, std::make_unique<SdlSoundOutput>());
    }
    // Waits (at most 10 s, so a hang fails instead of blocking) for queued work to finish.
    void settle() {
        auto done = std::async(std::launch::async, [this] { player_->waitUntilIdleForTesting(); });
        ASSERT_EQ(done.wait_for(10s), std::future_status::ready) << "the audio queue hangs";
    }
    // Closes the device, which completes the file, and returns its left channel.
    std::vector<float> finish() {
        player_.reset();
        return readLeftChannel(output());
    }
    void slap(const QString& file, double amplitude, double userVolume = 1.0, bool scaling = true) {
        player_->playSlap(packWith(file), PlayMode::random, amplitude, userVolume, scaling);
    }
    QString copyOf(const QString& source, const QString& name) {
        const QString target = dir_.filePath(name);
        QFile::remove(target);
        EXPECT_TRUE(QFile::copy(source, target));
        return target;
    }
    QString writeFile(const QString& name, const QByteArray& content) {
        QFile file(dir_.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        return file.fileName();
    }

    QTemporaryDir dir_;
    ScopedEnv driver_{"SDL_AUDIODRIVER", QStringLiteral("disk")};
    ScopedEnv file_{"SDL_DISKAUDIOFILE", dir_.filePath(QStringLiteral("mixed.raw"))};
    ManualClock clock_;
    std::unique_ptr<AudioPlayer> player_;
};

TEST_F(RealSoundTest, GainIsExactlyLinear) {
    startPlayer();
    slap(kData + "/tone-440.mp3", 0.8);  // gain 1.0
    std::this_thread::sleep_for(500ms);
    slap(kData + "/tone-440.mp3", 0.05);  // gain 0.125
    std::this_thread::sleep_for(500ms);
    const std::vector<float> left = finish();

    const auto segments = soundingSegments(left, 0.001F);
    ASSERT_EQ(segments.size(), 2U);
    // Compare the steady middle of both tones (0.3 s each).
    const auto middle = [](const Segment& s) {
        return std::pair{s.begin + kRate / 20, s.begin + kRate / 4};
    };
    const auto [b0, e0] = middle(segments[0]);
    const auto [b1, e1] = middle(segments[1]);
    const double loud = rms(left, b0, e0);
    const double soft = rms(left, b1, e1);
    EXPECT_NEAR(peak(left, b0, e0), 0.5, 0.03) << "a -6 dBFS tone plays at -6 dBFS";
    EXPECT_NEAR(soft / loud, 0.125, 0.125 * 0.05);
}

TEST_F(RealSoundTest, OverlappingSoundsMix) {
    startPlayer();
    slap(kData + "/tone-440.mp3", 0.4, 0.5, false);
    std::this_thread::sleep_for(100ms);
    slap(kData + "/tone-660.mp3", 0.4, 0.5, false);
    std::this_thread::sleep_for(600ms);
    const std::vector<float> left = finish();

    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 1U) << "one stretch of sound, the second tone within the first";
    const std::size_t start = segments[0].begin;
    const std::size_t length = segments[0].end - start;
    EXPECT_GT(length, static_cast<std::size_t>(kRate * 0.35)) << "longer than either tone";
    // 300 ms tones started ~100 ms apart: look at 240-280 ms, where both sound.
    const std::size_t b = start + kRate * 24 / 100;
    const std::size_t e = start + kRate * 28 / 100;
    EXPECT_NEAR(toneAmplitude(left, b, e, 440), 0.25, 0.05);
    EXPECT_NEAR(toneAmplitude(left, b, e, 660), 0.25, 0.05);
    // And at 20-60 ms only the first one.
    EXPECT_NEAR(toneAmplitude(left, start + kRate / 50, start + kRate * 6 / 100, 440), 0.25, 0.05);
    EXPECT_LT(toneAmplitude(left, start + kRate / 50, start + kRate * 6 / 100, 660), 0.02);
}

TEST_F(RealSoundTest, CorruptFileGivesSilenceAndTheLogLineAndTheNextSlapPlays) {
    LogCapture log;
    startPlayer();
    QByteArray corrupt("ID3\x04\x00\x00\x00\x00\x00\x00", 10);
    corrupt.append(QByteArray(8192, 'U'));
    slap(writeFile(QStringLiteral("corrupt.mp3"), corrupt), 0.8);
    settle();
    std::this_thread::sleep_for(200ms);
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines().at(0).startsWith("Bonkwell: failed to play corrupt.mp3: "))
        << qPrintable(log.lines().at(0));
    EXPECT_GT(log.lines().at(0).size(),
              QStringLiteral("Bonkwell: failed to play corrupt.mp3: ").size());

    slap(kData + "/tone-440.mp3", 0.8);
    std::this_thread::sleep_for(450ms);
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 1U) << "the corrupt file added nothing, the good one plays";
    EXPECT_GT(segments[0].begin, static_cast<std::size_t>(kRate / 10)) << "silence came first";
    EXPECT_EQ(log.lines().size(), 1);
}

TEST_F(RealSoundTest, ReplacedFilePlaysItsNewContentAtTheNextSlap) {
    startPlayer();
    const QString file = copyOf(kData + "/tone-440.mp3", QStringLiteral("mine.mp3"));
    slap(file, 0.8);
    std::this_thread::sleep_for(450ms);
    copyOf(kData + "/tone-660.mp3", QStringLiteral("mine.mp3"));
    slap(file, 0.8);
    std::this_thread::sleep_for(450ms);
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 2U);
    const auto at = [&](const Segment& s, double hz) {
        return toneAmplitude(left, s.begin + kRate / 20, s.begin + kRate / 4, hz);
    };
    EXPECT_GT(at(segments[0], 440), 10 * at(segments[0], 660));
    EXPECT_GT(at(segments[1], 660), 10 * at(segments[1], 440));
}

TEST_F(RealSoundTest, BadFilesAreRefusedWithoutCrashOrHang) {
    LogCapture log;
    startPlayer();
    struct Case {
        QString name;
        QString expect;  // part of the error text
    };
    std::vector<Case> cases;
    cases.push_back({QStringLiteral("empty.mp3"), QStringLiteral("empty")});
    writeFile(QStringLiteral("empty.mp3"), {});
    cases.push_back({QStringLiteral("text.mp3"), {}});
    writeFile(QStringLiteral("text.mp3"), "These are my notes, not a sound.\n");
    {
        // 50 MB of genuine MP3 frames.
        QFile tone(kData + "/tone-440.mp3");
        ASSERT_TRUE(tone.open(QIODevice::ReadOnly));
        const QByteArray one = tone.readAll();
        QFile big(dir_.filePath(QStringLiteral("big.mp3")));
        ASSERT_TRUE(big.open(QIODevice::WriteOnly));
        while (big.size() < 50 * 1024 * 1024) {
            big.write(one.repeated(256));
        }
        cases.push_back({QStringLiteral("big.mp3"), QStringLiteral("too large")});
    }
    cases.push_back({QStringLiteral("long-75s.mp3"), QStringLiteral("too long")});
    copyOf(kData + "/long-75s.mp3", QStringLiteral("long-75s.mp3"));
    ASSERT_EQ(::mkfifo(qPrintable(dir_.filePath(QStringLiteral("fifo.mp3"))), 0600), 0);
    cases.push_back({QStringLiteral("fifo.mp3"), QStringLiteral("not a regular file")});
    QDir().mkpath(dir_.filePath(QStringLiteral("folder.mp3")));
    cases.push_back({QStringLiteral("folder.mp3"), QStringLiteral("not a regular file")});
    QFile::link(dir_.filePath(QStringLiteral("loop.mp3")),
                dir_.filePath(QStringLiteral("loop.mp3")));
    cases.push_back({QStringLiteral("loop.mp3"), QStringLiteral("symbolic links")});
    cases.push_back({QStringLiteral("missing.mp3"), QStringLiteral("No such file")});

    for (const Case& c : cases) {
        log.clear();
        const auto start = std::chrono::steady_clock::now();
        slap(dir_.filePath(c.name), 0.8);
        settle();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << qPrintable(c.name);
        ASSERT_EQ(log.lines().size(), 1) << qPrintable(c.name);
        const QString line = log.lines().at(0);
        EXPECT_TRUE(line.startsWith("Bonkwell: failed to play " + c.name + ": "))
            << qPrintable(line);
        EXPECT_TRUE(line.contains(c.expect)) << qPrintable(line);
    }

    // A WAV named .mp3 is still a sound: it plays. Then a good file plays.
    log.clear();
    slap(copyOf(kData + "/tone-880.wav", QStringLiteral("wave.mp3")), 0.8);
    std::this_thread::sleep_for(350ms);
    slap(kData + "/tone-440.mp3", 0.8);
    std::this_thread::sleep_for(450ms);
    const std::vector<float> left = finish();
    EXPECT_TRUE(log.lines().isEmpty()) << qPrintable(log.lines().join('\n'));
    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 2U);
    const auto at = [&](const Segment& s, double hz) {
        return toneAmplitude(left, s.begin + kRate / 50, s.begin + kRate / 6, hz);
    };
    EXPECT_NEAR(at(segments[0], 880), 0.5, 0.05);
    EXPECT_NEAR(at(segments[1], 440), 0.5, 0.05);
}

TEST_F(RealSoundTest, UnreadableFileIsRefused) {
    const QString path = copyOf(kData + "/tone-440.mp3", QStringLiteral("locked.mp3"));
    ASSERT_EQ(::chmod(qPrintable(path), 0), 0);
    ::chmod(qPrintable(dir_.path()), 0755);  // others may enter the folder
    // Root reads any file, so the check runs in a child that gives up root first.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(fds[0]);
        if (::geteuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) {
            ::_exit(3);
        }
        SdlSoundOutput output;
        QString error;
        const bool played = output.play(path, 1.0F, error) != nullptr;
        const QByteArray text = error.toUtf8();
        (void)!::write(fds[1], text.constData(), static_cast<size_t>(text.size()));
        ::_exit(played ? 1 : 0);
    }
    ::close(fds[1]);
    QByteArray error;
    char buffer[256];
    for (ssize_t n = 0; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) {
        error.append(buffer, n);
    }
    ::close(fds[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "exit 1: it played; exit 3: could not drop root";
    EXPECT_EQ(error, "Permission denied");
}

TEST_F(RealSoundTest, DeviceIsReleasedWhenQuietAndReopenedByTheNextSlap) {
    auto output = std::make_unique<SdlSoundOutput>();
    const SdlSoundOutput* out = output.get();
    player_ = std::make_unique<AudioPlayer>(clock_, std::move(output), 100ms);
    EXPECT_FALSE(out->isOpen()) << "nothing is opened before the first sound";
    slap(kData + "/tone-440.mp3", 0.8);
    settle();
    EXPECT_TRUE(out->isOpen());
    EXPECT_EQ(out->driverName(), "disk");
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(out->isOpen()) << "still sounding";
    std::this_thread::sleep_for(600ms);
    EXPECT_FALSE(out->isOpen()) << "released after the sound ended and 100 ms passed";
    EXPECT_EQ(out->openCount(), 1U);

    slap(kData + "/tone-660.mp3", 0.8);  // the disk driver starts a new file on reopening
    settle();
    EXPECT_EQ(out->openCount(), 2U);
    std::this_thread::sleep_for(450ms);
    const std::vector<float> left = finish();
    const auto segments = soundingSegments(left);
    ASSERT_EQ(segments.size(), 1U);
    EXPECT_NEAR(steadyToneAmplitude(left, segments[0], 0.2, 660), 0.5, 0.05);
}

TEST_F(RealSoundTest, WithoutAnyDeviceOneLineThenTheNextPlaybackTriesAgain) {
    LogCapture log;
    {
        ScopedEnv noServer("SDL_AUDIODRIVER", QStringLiteral("pulseaudio"));
        ScopedEnv nowhere("PULSE_SERVER", QStringLiteral("unix:/nonexistent/bonkwell-test"));
        startPlayer();
        for (int i = 0; i < 3; ++i) {
            slap(kData + "/tone-440.mp3", 0.8);
            settle();
        }
        ASSERT_EQ(log.lines().size(), 1) << qPrintable(log.lines().join('\n'));
        EXPECT_TRUE(log.lines().at(0).startsWith("Bonkwell: no sound output"))
            << qPrintable(log.lines().at(0));
    }
    // A device appears (here: the disk driver again); the very next slap plays.
    slap(kData + "/tone-440.mp3", 0.8);
    std::this_thread::sleep_for(450ms);
    const std::vector<float> left = finish();
    EXPECT_EQ(log.lines().size(), 2);
    EXPECT_EQ(log.lines().value(1), "Bonkwell: sound output available again");
    EXPECT_EQ(soundingSegments(left).size(), 1U);
}

}  // namespace

TEST_F(RealSoundTest, TheBufferIsTheDriversUnlessOneIsGiven) {
    {
        auto output = std::make_unique<SdlSoundOutput>();
        const SdlSoundOutput* out = output.get();
        player_ = std::make_unique<AudioPlayer>(clock_, std::move(output));
        EXPECT_EQ(out->bufferFrames(), 0) << "closed";
        slap(kData + "/tone-440.mp3", 0.8);
        settle();
        ASSERT_TRUE(out->isOpen());
        EXPECT_EQ(out->bufferFrames(), SdlSoundOutput::bufferFramesFor(QStringLiteral("disk")));
        player_.reset();
    }
    SdlSoundOutput::Options options;
    options.bufferFrames = 128;
    auto output = std::make_unique<SdlSoundOutput>(options);
    const SdlSoundOutput* out = output.get();
    player_ = std::make_unique<AudioPlayer>(clock_, std::move(output));
    slap(kData + "/tone-440.mp3", 0.8);
    settle();
    ASSERT_TRUE(out->isOpen());
    EXPECT_EQ(out->bufferFrames(), 128);
}

TEST(SoundBufferTest, PipeWireGetsTheSmallestBufferPulseAudioTheSafeOne) {
    EXPECT_EQ(SdlSoundOutput::bufferFramesFor(QStringLiteral("pipewire")), 128);
    EXPECT_EQ(SdlSoundOutput::bufferFramesFor(QStringLiteral("pulseaudio")), 512);
}

TEST(SoundBufferTest, DriversWithoutAMeasuredSizeGetTheSafeOne) {
    EXPECT_EQ(SdlSoundOutput::bufferFramesFor(QStringLiteral("alsa")), 512);
    EXPECT_EQ(SdlSoundOutput::bufferFramesFor(QStringLiteral("disk")), 512);
    EXPECT_EQ(SdlSoundOutput::bufferFramesFor(QString()), 512);
}

// SPDX-License-Identifier: GPL-3.0-or-later
// The four built-in packs as the build lays them out: enough files, each a short, mono,
// unclipped clip that starts at once, each louder than the one before it in its pack,
// decoded exactly as the player decodes it.
#include "SoundPackManager.h"
#include "TestSupport.h"

#include <SDL.h>
#include <SDL_mixer.h>

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

using bonkwell::SoundPackManager;

namespace {

const QString kPacks = QStringLiteral(BONKWELL_BUILD_BIN_DIR "/Resources/SoundPacks");
constexpr int kRate = 48000;

struct FrameHeader {
    bool found = false;
    bool mono = false;
    int sampleRate = 0;
};

// The first MPEG audio frame header after any ID3v2 tag.
FrameHeader firstFrame(const QByteArray& data) {
    qsizetype pos = 0;
    if (data.startsWith("ID3") && data.size() > 10) {
        const auto b = [&](int i) { return static_cast<unsigned char>(data[i]) & 0x7F; };
        pos = 10 + ((b(6) << 21) | (b(7) << 14) | (b(8) << 7) | b(9));
    }
    for (; pos + 4 <= data.size(); ++pos) {
        const auto h1 = static_cast<unsigned char>(data[pos + 1]);
        if (static_cast<unsigned char>(data[pos]) != 0xFF || (h1 & 0xE0) != 0xE0) {
            continue;
        }
        const auto h2 = static_cast<unsigned char>(data[pos + 2]);
        const auto h3 = static_cast<unsigned char>(data[pos + 3]);
        static const int mpeg1Rates[] = {44100, 48000, 32000, 0};
        FrameHeader header;
        header.found = true;
        header.mono = (h3 >> 6) == 3;
        header.sampleRate = (h1 & 0x18) == 0x18 ? mpeg1Rates[(h2 >> 2) & 3] : 0;
        return header;
    }
    return {};
}

// The left channel of a clip decoded as the player decodes it (48 kHz, 16-bit stereo), in
// -1 ... 1; empty when it cannot be decoded.
std::vector<double> decodeLeft(const QString& path) {
    std::vector<double> left;
    Mix_Chunk* chunk = Mix_LoadWAV(qPrintable(path));
    if (chunk == nullptr) {
        return left;
    }
    const auto* s = reinterpret_cast<const Sint16*>(chunk->abuf);
    const std::size_t frames = chunk->alen / 4;
    left.reserve(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        left.push_back(s[2 * i] / 32768.0);
    }
    Mix_FreeChunk(chunk);
    return left;
}

// Short-term loudness: the momentary maximum, in LUFS. The largest mean square of the
// K-weighted signal (the two filters of ITU-R BS.1770 at 48 kHz) over a 400 ms window moved
// in 10 ms steps, the clip counted as silent outside itself. scripts/loudness computes the
// same when the packs are made.
double momentaryMaxLufs(const std::vector<double>& clip) {
    constexpr std::size_t kWindow = kRate * 400 / 1000;
    constexpr std::size_t kHop = kRate * 10 / 1000;
    struct Biquad {
        double b0, b1, b2, a1, a2;
    };
    constexpr Biquad kWeighting[] = {
        {1.53512485958697, -2.69169618940638, 1.19839281085285, -1.69065929318241,
         0.73248077421585},
        {1.0, -2.0, 1.0, -1.99004745483398, 0.99007225036621},
    };
    std::vector<double> y = clip;
    y.resize(clip.size() + kWindow, 0.0);  // the filters ring on after the clip
    for (const Biquad& f : kWeighting) {
        double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
        for (double& v : y) {
            const double out = f.b0 * v + f.b1 * x1 + f.b2 * x2 - f.a1 * y1 - f.a2 * y2;
            x2 = x1;
            x1 = v;
            y2 = y1;
            y1 = out;
            v = out;
        }
    }
    std::vector<double> sums(y.size() + 1, 0.0);
    for (std::size_t i = 0; i < y.size(); ++i) {
        sums[i + 1] = sums[i] + y[i] * y[i];
    }
    double best = 0;
    // Windows [start, start + kWindow) with start = kHop - kWindow, then every kHop, while
    // the window starts inside the clip.
    for (long long start = static_cast<long long>(kHop) - static_cast<long long>(kWindow);
         start < static_cast<long long>(clip.size()); start += kHop) {
        const auto lo = static_cast<std::size_t>(std::max(start, 0LL));
        const auto hi =
            std::min(static_cast<std::size_t>(start + static_cast<long long>(kWindow)), y.size());
        best = std::max(best, (sums[hi] - sums[lo]) / kWindow);
    }
    return best > 0 ? -0.691 + 10 * std::log10(best) : -HUGE_VAL;
}

class BuiltInPacksTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ::setenv("SDL_AUDIODRIVER", "dummy", 1);
        ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_AUDIO), 0) << SDL_GetError();
        ASSERT_EQ(Mix_OpenAudioDevice(kRate, AUDIO_S16SYS, 2, 512, nullptr, 0), 0)
            << Mix_GetError();
    }
    static void TearDownTestSuite() {
        Mix_CloseAudio();
        SDL_QuitSubSystem(SDL_INIT_AUDIO);
    }
};

TEST_F(BuiltInPacksTest, EveryPackHasSixToTenNumberedClips) {
    for (const QString& name : SoundPackManager().builtInPacks()) {
        const QStringList files = SoundPackManager::mp3s(kPacks + '/' + name);
        EXPECT_GE(files.size(), 6) << qPrintable(name);
        EXPECT_LE(files.size(), 10) << qPrintable(name);
        int expected = 1;
        for (const QString& file : files) {
            // Names sort mildest first: "01-…", "02-…", …
            EXPECT_TRUE(QFileInfo(file).fileName().startsWith(
                QStringLiteral("%1-").arg(expected++, 2, 10, QLatin1Char('0'))))
                << qPrintable(file);
        }
    }
}

TEST_F(BuiltInPacksTest, EveryClipIsShortMonoUnclippedAndStartsAtOnce) {
    int clips = 0;
    for (const QString& name : SoundPackManager().builtInPacks()) {
        for (const QString& path : SoundPackManager::mp3s(kPacks + '/' + name)) {
            SCOPED_TRACE(qPrintable(path));
            ++clips;
            QFile file(path);
            ASSERT_TRUE(file.open(QIODevice::ReadOnly));
            const FrameHeader header = firstFrame(file.readAll());
            ASSERT_TRUE(header.found);
            EXPECT_TRUE(header.mono);
            EXPECT_EQ(header.sampleRate, kRate);

            Mix_Chunk* chunk = Mix_LoadWAV(qPrintable(path));
            ASSERT_NE(chunk, nullptr) << Mix_GetError();
            const auto* s = reinterpret_cast<const Sint16*>(chunk->abuf);
            const std::size_t frames = chunk->alen / 4;
            const double seconds = static_cast<double>(frames) / kRate;
            EXPECT_GE(seconds, 0.15);
            EXPECT_LE(seconds, 2.0);
            int peak = 0;
            std::size_t onset = frames;
            for (std::size_t i = 0; i < frames; ++i) {
                const int v = std::abs(static_cast<int>(s[2 * i]));
                peak = std::max(peak, v);
                if (onset == frames && v > 328) {  // 0.01 of full scale
                    onset = i;
                }
            }
            EXPECT_LT(peak, 31000) << "clipped, or less than 0.5 dB from it";
            EXPECT_LE(static_cast<double>(onset) / kRate, 0.005) << "leading silence";
            Mix_FreeChunk(chunk);
        }
    }
    EXPECT_GE(clips, 24);
}

// In escalation mode a quick series of slaps walks a pack from its first file to its last:
// each clip is clearly louder than the one before (by at least 0.5 dB; the packs are made
// 1.25 dB apart) and the last at least 6 dB louder than the first. None is too quiet to hear.
TEST_F(BuiltInPacksTest, LoudnessGrowsAlongEveryPack) {
    for (const QString& name : SoundPackManager().builtInPacks()) {
        SCOPED_TRACE(qPrintable(name));
        const QStringList files = SoundPackManager::mp3s(kPacks + '/' + name);
        ASSERT_GE(files.size(), 2);
        std::vector<double> loudness;
        for (const QString& path : files) {
            const std::vector<double> clip = decodeLeft(path);
            ASSERT_FALSE(clip.empty()) << qPrintable(path) << ": " << Mix_GetError();
            loudness.push_back(momentaryMaxLufs(clip));
            EXPECT_GT(loudness.back(), -26.0) << qPrintable(path) << " is too quiet";
            if (loudness.size() > 1) {
                EXPECT_GE(loudness.back(), loudness[loudness.size() - 2] + 0.5)
                    << qPrintable(path) << " is not louder than the clip before it";
            }
        }
        EXPECT_GE(loudness.back() - loudness.front(), 6.0)
            << "from " << loudness.front() << " to " << loudness.back() << " LUFS";
    }
}

// The measure itself: a full-scale 1 kHz sine lasting 1 s reads about -3.0 LUFS (BS.1770
// gives +0.7 dB of K-weighting gain at 1 kHz against the -3 dB of a sine's mean square), a
// tenth of it 20 dB less, and a clip of 0.2 s, filling half the 400 ms window, 3 dB less.
TEST_F(BuiltInPacksTest, TheLoudnessMeasureReadsKnownSignals) {
    const auto sine = [](double amplitude, double seconds) {
        std::vector<double> out(static_cast<std::size_t>(seconds * kRate));
        for (std::size_t i = 0; i < out.size(); ++i) {
            out[i] = amplitude * std::sin(2 * M_PI * 1000.0 * static_cast<double>(i) / kRate);
        }
        return out;
    };
    const double full = momentaryMaxLufs(sine(1.0, 1.0));
    EXPECT_NEAR(full, -3.0, 0.1);
    EXPECT_NEAR(momentaryMaxLufs(sine(0.1, 1.0)), full - 20.0, 0.05);
    EXPECT_NEAR(momentaryMaxLufs(sine(1.0, 0.2)), full - 3.0, 0.1);
    EXPECT_EQ(momentaryMaxLufs(std::vector<double>(kRate, 0.0)), -HUGE_VAL);
}

}  // namespace

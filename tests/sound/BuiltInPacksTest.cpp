// SPDX-License-Identifier: GPL-3.0-or-later
// The four built-in packs as the build lays them out: enough files, each a short, mono,
// normalised clip that starts at once, decoded exactly as the player decodes it.
#include "SoundPackManager.h"
#include "TestSupport.h"

#include <SDL.h>
#include <SDL_mixer.h>

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cstdlib>

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

TEST_F(BuiltInPacksTest, EveryClipIsShortMonoNormalisedAndStartsAtOnce) {
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
            EXPECT_LT(peak, 32767) << "clipped";
            EXPECT_GT(peak, 16384) << "not normalised: peak below -6 dBFS";
            EXPECT_LE(static_cast<double>(onset) / kRate, 0.005) << "leading silence";
            Mix_FreeChunk(chunk);
        }
    }
    EXPECT_GE(clips, 24);
}

}  // namespace

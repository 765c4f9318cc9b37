// SPDX-License-Identifier: GPL-3.0-or-later
// Bounded random testing of everything in the helper that reads untrusted input: its
// arguments, its stdin lines and the IIO scan decoder. Fixed seeds, so a failure repeats.
#include "ImpactDetector.h"
#include "Protocol.h"
#include "ScanDecoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

using namespace bonkwell;

namespace {

std::string randomText(std::mt19937& rng, std::string_view alphabet, std::size_t maxLength) {
    std::uniform_int_distribution<std::size_t> length(0, maxLength);
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    std::string text(length(rng), ' ');
    for (auto& c : text) {
        c = alphabet[pick(rng)];
    }
    return text;
}

std::string randomBytes(std::mt19937& rng, std::size_t maxLength) {
    std::uniform_int_distribution<std::size_t> length(0, maxLength);
    std::uniform_int_distribution<int> byte(0, 255);
    std::string text(length(rng), '\0');
    for (auto& c : text) {
        c = static_cast<char>(byte(rng));
    }
    return text;
}

}  // namespace

TEST(HelperFuzzTest, ArgumentsNeverCrashAndAcceptedValuesAreInRange) {
    std::mt19937 rng(1);
    const std::vector<std::string> words = {"--stdio",
                                            "--detect-only",
                                            "--min-amplitude",
                                            "--cooldown",
                                            "--version",
                                            "0.0500",
                                            "750",
                                            "-1",
                                            "1e308",
                                            "nan",
                                            "",
                                            "0x10",
                                            "16",
                                            "16.0001",
                                            "600000"};
    std::uniform_int_distribution<std::size_t> count(0, 8);
    std::uniform_int_distribution<std::size_t> word(0, words.size());
    int accepted = 0;
    for (int i = 0; i < 100000; ++i) {
        std::vector<std::string> storage;
        if (i % 2 == 0) {
            // The four items in a random order with values drawn from the pool.
            std::vector<std::vector<std::string>> items = {
                {"--stdio"},
                {"--detect-only"},
                {"--min-amplitude", words[5 + rng() % 10]},
                {"--cooldown", words[5 + rng() % 10]}};
            std::shuffle(items.begin(), items.end(), rng);
            for (const auto& item : items) {
                storage.insert(storage.end(), item.begin(), item.end());
            }
        } else {
            const std::size_t n = count(rng);
            for (std::size_t k = 0; k < n; ++k) {
                const std::size_t w = word(rng);
                storage.push_back(w < words.size() ? words[w] : randomBytes(rng, 12));
            }
        }
        const std::vector<std::string_view> args(storage.begin(), storage.end());
        const auto parsed = thuzz::parseArguments(args);
        if (parsed.outcome == thuzz::ParseOutcome::run) {
            ++accepted;
            EXPECT_GT(parsed.options.minAmplitude, 0.0);
            EXPECT_LE(parsed.options.minAmplitude, thuzz::kMaxAmplitude);
            EXPECT_GE(parsed.options.cooldownMs, 0);
            EXPECT_LE(parsed.options.cooldownMs, thuzz::kMaxCooldownMs);
        } else if (parsed.outcome == thuzz::ParseOutcome::usage) {
            EXPECT_FALSE(parsed.error.empty());
        }
    }
    EXPECT_GT(accepted, 0);  // the generator does reach valid command lines
}

TEST(HelperFuzzTest, StdinNeverCrashesAndStaysBounded) {
    std::mt19937 rng(2);
    const std::string valid = R"({"cmd":"set","amplitude":0.3,"cooldown":500})";
    int commands = 0;
    thuzz::LineReader reader(
        [&](std::string_view line) {
            EXPECT_LE(line.size(), thuzz::LineReader::kMaxLine);
            if (auto c = thuzz::parseSetCommand(line)) {
                ++commands;
                if (c->amplitude) {
                    EXPECT_GT(*c->amplitude, 0.0);
                    EXPECT_LE(*c->amplitude, thuzz::kMaxAmplitude);
                }
                if (c->cooldownMs) {
                    EXPECT_GE(*c->cooldownMs, 0);
                    EXPECT_LE(*c->cooldownMs, thuzz::kMaxCooldownMs);
                }
            }
        },
        {});
    std::uniform_int_distribution<int> kind(0, 3);
    for (int i = 0; i < 100000; ++i) {
        std::string chunk;
        switch (kind(rng)) {
            case 0:
                chunk = randomBytes(rng, 64);
                break;
            case 1:
                chunk = randomText(rng, "{}[]\":,.-+eE0123456789 abcdmstplitudeoown\\\n", 80);
                break;
            case 2: {
                // A valid command with a few bytes changed.
                chunk = valid + "\n";
                std::uniform_int_distribution<std::size_t> at(0, chunk.size() - 1);
                for (int k = 0; k < 3; ++k) {
                    chunk[at(rng)] = static_cast<char>(rng() & 0xFF);
                }
                break;
            }
            default:
                chunk = std::string(std::uniform_int_distribution<std::size_t>(0, 3000)(rng), 'x');
                break;
        }
        reader.feed(chunk);
        EXPECT_LE(reader.buffered(), thuzz::LineReader::kMaxLine);
    }
    reader.feed("\n" + valid + "\n");
    EXPECT_GT(commands, 0);
}

TEST(HelperFuzzTest, ScanDecoderNeverReadsOutOfBounds) {
    std::mt19937 rng(3);
    int parsed = 0;
    for (int i = 0; i < 100000; ++i) {
        std::string typeText = randomText(rng, "lebs:u/0123456789X>>", 20);
        if (i % 2 == 0) {
            // Mostly well-formed, with random numbers.
            typeText = std::string(rng() % 2 ? "le:" : "be:") + (rng() % 2 ? "s" : "u") +
                       std::to_string(rng() % 70) + "/" + std::to_string(8u << (rng() % 5)) +
                       (rng() % 3 == 0 ? "X" + std::to_string(rng() % 5) : "") + ">>" +
                       std::to_string(rng() % 70);
        }
        const auto type = accel::parseChannelType(typeText);
        if (!type) {
            continue;
        }
        ++parsed;
        EXPECT_LE(type->bits, type->storageBits);
        // Decode from a heap buffer of exactly the random size: AddressSanitizer catches any
        // read past its end.
        const std::string bytes = randomBytes(rng, 24);
        std::vector<std::uint8_t> scan(bytes.begin(), bytes.end());
        const std::size_t offset = rng() % 32;
        const unsigned element = static_cast<unsigned>(rng() % 6);
        const auto value = accel::decodeChannel(*type, scan, offset, element);
        const std::size_t end = offset + (element + 1) * type->storageBytes();
        EXPECT_EQ(value.has_value(), element < type->repeat && end <= scan.size()) << typeText;
        if (value && type->bits < 64) {
            const std::int64_t limit = std::int64_t{1} << type->bits;
            EXPECT_LT(*value, limit);
            EXPECT_GE(*value, type->isSigned ? -limit / 2 : 0);
        }
    }
    EXPECT_GT(parsed, 1000);
}

TEST(HelperFuzzTest, DetectorSurvivesArbitrarySamples) {
    std::mt19937 rng(4);
    std::uniform_real_distribution<double> any(-1e6, 1e6);
    thuzz::ImpactDetector d(0.05, 0.75);
    double t = 0;
    for (int i = 0; i < 200000; ++i) {
        t += (rng() % 10 == 0) ? any(rng) * 1e-6 : 0.01;  // sometimes time runs backwards
        auto axis = [&] { return (rng() % 50 == 0) ? any(rng) : (rng() % 100) * 0.001; };
        const double x = axis();
        const double y = axis();
        const double z = 1.0 + axis();
        if (auto impact = d.addSample(t, x, y, z)) {
            EXPECT_TRUE(std::isfinite(impact->amplitude));
            EXPECT_GT(impact->slapNumber, 0);
        }
    }
}

// SPDX-License-Identifier: GPL-3.0-or-later
#include "Protocol.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <string>
#include <vector>

using namespace bonkwell::thuzz;

namespace {

ParsedArgs parse(std::vector<std::string_view> args) {
    return parseArguments(args);
}

}  // namespace

TEST(HelperArgumentsTest, AcceptsTheLaunchWords) {
    const auto p =
        parse({"--stdio", "--detect-only", "--min-amplitude", "0.0500", "--cooldown", "750"});
    ASSERT_EQ(p.outcome, ParseOutcome::run);
    EXPECT_DOUBLE_EQ(p.options.minAmplitude, 0.05);
    EXPECT_EQ(p.options.cooldownMs, 750);
}

TEST(HelperArgumentsTest, AcceptsThePairsInAnyOrder) {
    const auto p =
        parse({"--cooldown", "500", "--min-amplitude", "0.3000", "--detect-only", "--stdio"});
    ASSERT_EQ(p.outcome, ParseOutcome::run);
    EXPECT_DOUBLE_EQ(p.options.minAmplitude, 0.3);
    EXPECT_EQ(p.options.cooldownMs, 500);
    EXPECT_EQ(
        parse({"--detect-only", "--min-amplitude", "1", "--stdio", "--cooldown", "0"}).outcome,
        ParseOutcome::run);
}

TEST(HelperArgumentsTest, VersionStandsAlone) {
    EXPECT_EQ(parse({"--version"}).outcome, ParseOutcome::version);
    EXPECT_EQ(parse({"--version", "--stdio"}).outcome, ParseOutcome::usage);
}

TEST(HelperArgumentsTest, RefusesEverythingElse) {
    const std::vector<std::vector<std::string_view>> bad = {
        {},
        {"--stdio", "--detect-only", "--min-amplitude", "0.05"},
        {"--stdio", "--detect-only", "--min-amplitude", "0.05", "--cooldown"},
        {"--stdio", "--detect-only", "--min-amplitude", "0.05", "--cooldown", "750", "--extra"},
        {"--stdio", "--stdio", "--detect-only", "--min-amplitude", "0.05", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "abc", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "-0.05", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "0", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "nan", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "inf", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "17", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "0.05", "--cooldown", "-1"},
        {"--stdio", "--detect-only", "--min-amplitude", "0.05", "--cooldown", "7.5"},
        {"--stdio", "--detect-only", "--min-amplitude", "0.05", "--cooldown", "600001"},
        {"--stdio", "--detect-only", "--min-amplitude", "0.05 ", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude=0.05", "--cooldown", "750"},
        {"--stdio", "--detect-only", "--min-amplitude", "0.05", "--min-amplitude", "0.1",
         "--cooldown", "750"},
        {"--device", "/dev/input/event0"},
    };
    for (const auto& args : bad) {
        const auto p = parse(args);
        EXPECT_EQ(p.outcome, ParseOutcome::usage) << (args.empty() ? "" : std::string(args.back()));
        EXPECT_FALSE(p.error.empty());
    }
}

TEST(SetCommandTest, ReadsTheSetCommand) {
    auto c = parseSetCommand(R"({"cmd":"set","amplitude":0.3,"cooldown":500})");
    ASSERT_TRUE(c);
    EXPECT_DOUBLE_EQ(*c->amplitude, 0.3);
    EXPECT_EQ(*c->cooldownMs, 500);

    c = parseSetCommand(R"({"cmd":"set","amplitude":1e-05,"cooldown":750})");
    ASSERT_TRUE(c);
    EXPECT_DOUBLE_EQ(*c->amplitude, 1e-05);

    c = parseSetCommand(" { \"cooldown\" : 100 , \"cmd\" : \"set\" , \"other\" : [1] }\r");
    EXPECT_FALSE(c);  // nested values are not part of the command language
    c = parseSetCommand(" { \"cooldown\" : 100 , \"cmd\" : \"set\" , \"other\" : null }\r");
    ASSERT_TRUE(c);
    EXPECT_FALSE(c->amplitude);
    EXPECT_EQ(*c->cooldownMs, 100);
}

TEST(SetCommandTest, IgnoresOtherLinesSilently) {
    for (const char* line : {"", "ready", "{}", "[1,2]", R"({"cmd":"get"})", R"({"cmd":1})",
                             R"({"amplitude":0.3,"cooldown":500})", "{\"cmd\":\"set\"",
                             R"({"cmd":"set","amplitude":0.3,})", R"({"cmd":"set","amplitude":.3})",
                             R"({"cmd":"set","amplitude":01})"}) {
        std::string why;
        EXPECT_FALSE(parseSetCommand(line, &why)) << line;
        EXPECT_TRUE(why.empty()) << line;
    }
}

TEST(SetCommandTest, RefusesBadValuesWithAReason) {
    for (const char* line :
         {R"({"cmd":"set","amplitude":"0.3","cooldown":500})", R"({"cmd":"set","amplitude":-1})",
          R"({"cmd":"set","amplitude":0})", R"({"cmd":"set","amplitude":100})",
          R"({"cmd":"set","cooldown":-5})", R"({"cmd":"set","cooldown":1.5})",
          R"({"cmd":"set","cooldown":1e9})", R"({"cmd":"set"})"}) {
        std::string why;
        EXPECT_FALSE(parseSetCommand(line, &why)) << line;
        EXPECT_FALSE(why.empty()) << line;
    }
}

TEST(LineReaderTest, SplitsLinesAcrossChunks) {
    std::vector<std::string> lines;
    int overlong = 0;
    LineReader reader([&](std::string_view l) { lines.emplace_back(l); }, [&] { ++overlong; });
    reader.feed("one\ntw");
    EXPECT_EQ(lines, std::vector<std::string>{"one"});
    reader.feed("o\n\nthree");
    EXPECT_EQ(lines, (std::vector<std::string>{"one", "two", ""}));
    EXPECT_EQ(reader.buffered(), 5u);  // "three" waits for its newline
    EXPECT_EQ(overlong, 0);
}

TEST(LineReaderTest, DropsOverlongLinesWholeAndCarriesOn) {
    std::vector<std::string> lines;
    int overlong = 0;
    LineReader reader([&](std::string_view l) { lines.emplace_back(l); }, [&] { ++overlong; });
    const std::string big(LineReader::kMaxLine + 1, 'x');
    reader.feed(big.substr(0, 600));
    reader.feed(big.substr(600));
    EXPECT_LE(reader.buffered(), LineReader::kMaxLine);
    reader.feed("tail of the long line\nnext\n");
    EXPECT_EQ(overlong, 1);
    EXPECT_EQ(lines, std::vector<std::string>{"next"});

    const std::string exact(LineReader::kMaxLine, 'y');
    reader.feed(exact + "\n");
    EXPECT_EQ(lines.back(), exact);
}

TEST(EventLineTest, WritesOneJsonObject) {
    EXPECT_EQ(eventLine(0.3125, "smack", 4),
              R"({"amplitude":0.3125,"severity":"smack","slapNumber":4})");
    EXPECT_EQ(eventLine(1.23456, "wallop", 12),
              R"({"amplitude":1.2346,"severity":"wallop","slapNumber":12})");
}

TEST(SamplesCommandTest, TurnsSamplesOnAndOff) {
    EXPECT_EQ(parseSamplesCommand(R"({"cmd":"samples","on":true})"), std::optional<bool>(true));
    EXPECT_EQ(parseSamplesCommand(R"({"cmd":"samples","on":false})"), std::optional<bool>(false));
    EXPECT_EQ(parseSamplesCommand(R"( { "on" : true , "cmd" : "samples" } )"),
              std::optional<bool>(true));
}

TEST(SamplesCommandTest, OtherLinesAreNotSamplesCommands) {
    for (const char* line :
         {R"({"cmd":"samples"})", R"({"cmd":"samples","on":1})", R"({"cmd":"samples","on":"true"})",
          R"({"cmd":"set","on":true})", R"({"cmd":"set","amplitude":0.1})", "samples on", "",
          R"({"cmd":"samples","on":true)"}) {
        EXPECT_EQ(parseSamplesCommand(line), std::nullopt) << line;
        EXPECT_EQ(parseSetCommand(R"({"cmd":"samples","on":true})"), std::nullopt);
    }
}

TEST(SampleLineTest, OneJoltInGWithFourDecimals) {
    EXPECT_EQ(sampleLine(0.01234), R"({"jolt":0.0123})");
    EXPECT_EQ(sampleLine(0.0), R"({"jolt":0.0000})");
    EXPECT_EQ(sampleLine(2.5), R"({"jolt":2.5000})");
    EXPECT_EQ(sampleLine(1e300), R"({"jolt":99.0000})");
    EXPECT_EQ(sampleLine(std::nan("")), R"({"jolt":0.0000})");
}

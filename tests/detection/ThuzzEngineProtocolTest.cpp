// SPDX-License-Identifier: GPL-3.0-or-later
#include "ThuzzEngineProtocol.h"

#include <QProcess>
#include <QTemporaryFile>

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

using bonkwell::decodeThuzzEvent;
using bonkwell::decodeThuzzSample;
using bonkwell::isThuzzSampleLine;
using bonkwell::LineSplitter;
using bonkwell::shortestRoundTrip;
using bonkwell::thuzzLaunchArguments;
using bonkwell::thuzzSamplesCommand;
using bonkwell::thuzzSetCommand;

namespace {

TEST(ThuzzLaunchArguments, DefaultsAreTheSixWords) {
    EXPECT_EQ(thuzzLaunchArguments(0.05, 750),
              (QStringList{"--stdio", "--detect-only", "--min-amplitude", "0.0500", "--cooldown",
                           "750"}));
}

TEST(ThuzzLaunchArguments, AmplitudeHasExactlyFourDecimals) {
    EXPECT_EQ(thuzzLaunchArguments(0.3, 500)[3], "0.3000");
    EXPECT_EQ(thuzzLaunchArguments(0.12345, 0)[3], "0.1235");
    EXPECT_EQ(thuzzLaunchArguments(2.0, 1)[3], "2.0000");
    EXPECT_EQ(thuzzLaunchArguments(0.00001, 1)[3], "0.0000");
    EXPECT_EQ(thuzzLaunchArguments(0.3, 500)[5], "500");
    EXPECT_EQ(thuzzLaunchArguments(0.3, -1)[5], "-1");
}

TEST(ThuzzSetCommand, TextForAmplitudeAndCooldown) {
    EXPECT_EQ(thuzzSetCommand(0.3, 500).value(),
              QByteArray("{\"cmd\":\"set\",\"amplitude\":0.3,\"cooldown\":500}\n"));
    EXPECT_EQ(thuzzSetCommand(0.05, 750).value(),
              QByteArray("{\"cmd\":\"set\",\"amplitude\":0.05,\"cooldown\":750}\n"));
    EXPECT_EQ(thuzzSetCommand(1.0, 0).value(),
              QByteArray("{\"cmd\":\"set\",\"amplitude\":1.0,\"cooldown\":0}\n"));
    EXPECT_EQ(thuzzSetCommand(0.00001, 10).value(),
              QByteArray("{\"cmd\":\"set\",\"amplitude\":1e-05,\"cooldown\":10}\n"));
}

TEST(ThuzzSetCommand, NonFiniteAmplitudeGivesNoLine) {
    EXPECT_FALSE(thuzzSetCommand(std::nan(""), 1));
    EXPECT_FALSE(thuzzSetCommand(std::numeric_limits<double>::infinity(), 1));
}

TEST(ShortestRoundTrip, KnownValues) {
    EXPECT_EQ(shortestRoundTrip(0.05), "0.05");
    EXPECT_EQ(shortestRoundTrip(0.125), "0.125");
    EXPECT_EQ(shortestRoundTrip(1.0), "1.0");
    EXPECT_EQ(shortestRoundTrip(0.00001), "1e-05");
    EXPECT_EQ(shortestRoundTrip(0.0001), "0.0001");
    EXPECT_EQ(shortestRoundTrip(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(shortestRoundTrip(0.0), "0.0");
    EXPECT_EQ(shortestRoundTrip(-0.0), "-0.0");
    EXPECT_EQ(shortestRoundTrip(-2.5), "-2.5");
    EXPECT_EQ(shortestRoundTrip(1e15), "1000000000000000.0");
    EXPECT_EQ(shortestRoundTrip(1e16), "1e+16");
    EXPECT_EQ(shortestRoundTrip(123456.0), "123456.0");
    EXPECT_EQ(shortestRoundTrip(5e-324), "5e-324");
    EXPECT_EQ(shortestRoundTrip(DBL_MAX), "1.7976931348623157e+308");
}

// Python's repr() of a float is the reference for this form: compare many values.
TEST(ShortestRoundTrip, AgreesWithPythonRepr) {
    std::mt19937_64 rng(20261121);
    std::vector<double> values{
        0.05, 0.125, 1.0,       0.3,  0.0001, 0.00009999999999999999, 1e15, 9999999999999998.0,
        1e16, 0.1,   2.0 / 3.0, 1e-5, 123.456};
    std::uniform_real_distribution<double> exponent(-4.0, 15.0);
    std::uniform_real_distribution<double> mantissa(1.0, 10.0);
    for (int i = 0; i < 20000; ++i) {
        values.push_back(mantissa(rng) * std::pow(10.0, std::floor(exponent(rng))));
    }
    for (int i = 0; i < 5000; ++i) {
        // Any finite bit pattern, including subnormals and huge values.
        std::uint64_t bits = rng();
        double d = 0;
        std::memcpy(&d, &bits, sizeof d);
        if (std::isfinite(d)) {
            values.push_back(d);
        }
    }
    for (int i = 0; i < 2000; ++i) {
        // Short decimals as a slider produces them.
        values.push_back(static_cast<double>(rng() % 100000) / 10000.0);
    }

    QTemporaryFile input;
    ASSERT_TRUE(input.open());
    for (const double v : values) {
        char hex[64];
        std::snprintf(hex, sizeof hex, "%a\n", v);
        input.write(hex);
    }
    input.flush();

    QProcess python;
    python.start(QStringLiteral("python3"),
                 {QStringLiteral("-c"),
                  QStringLiteral("import sys\n"
                                 "for line in open(sys.argv[1]):\n"
                                 "    print(repr(float.fromhex(line.strip())))\n"),
                  input.fileName()});
    ASSERT_TRUE(python.waitForFinished(60000)) << "python3 is needed (scripts/deps)";
    ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    const QList<QByteArray> expected = python.readAllStandardOutput().trimmed().split('\n');
    ASSERT_EQ(expected.size(), static_cast<qsizetype>(values.size()));
    int mismatches = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::string mine = shortestRoundTrip(values[i]);
        if (mine != expected[static_cast<qsizetype>(i)].toStdString() && ++mismatches <= 10) {
            ADD_FAILURE() << "value " << i << ": " << mine << " vs python "
                          << expected[static_cast<qsizetype>(i)].toStdString();
        }
        // And it reads back as the same double.
        EXPECT_EQ(std::strtod(mine.c_str(), nullptr), values[i]);
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(DecodeThuzzEvent, FullEvent) {
    const auto event = decodeThuzzEvent(R"({"amplitude":0.31,"severity":"hard","slapNumber":4})");
    ASSERT_TRUE(event);
    EXPECT_DOUBLE_EQ(event->amplitude, 0.31);
    EXPECT_EQ(event->severity, "hard");
    EXPECT_EQ(event->slapNumber, 4);
}

TEST(DecodeThuzzEvent, MissingSeverityIsEmpty) {
    const auto event = decodeThuzzEvent(R"({"amplitude":0.2,"slapNumber":1})");
    ASSERT_TRUE(event);
    EXPECT_EQ(event->severity, "");
    EXPECT_EQ(event->slapNumber, 1);
}

TEST(DecodeThuzzEvent, NonStringSeverityIsEmpty) {
    const auto event = decodeThuzzEvent(R"({"amplitude":0.2,"slapNumber":1,"severity":3})");
    ASSERT_TRUE(event);
    EXPECT_EQ(event->severity, "");
    EXPECT_EQ(decodeThuzzEvent(R"({"amplitude":0.2,"slapNumber":1,"severity":null})")->severity,
              "");
}

TEST(DecodeThuzzEvent, OtherKeysAreIgnored) {
    const auto event = decodeThuzzEvent(R"({"x":[1,2],"amplitude":1,"slapNumber":-3,"y":{}})");
    ASSERT_TRUE(event);
    EXPECT_EQ(event->amplitude, 1.0);
    EXPECT_EQ(event->slapNumber, -3);
}

TEST(DecodeThuzzEvent, IntegralSlapNumberWrittenAsFloatCounts) {
    const auto event = decodeThuzzEvent(R"({"amplitude":0.2,"slapNumber":2.0})");
    ASSERT_TRUE(event);
    EXPECT_EQ(event->slapNumber, 2);
    EXPECT_EQ(decodeThuzzEvent(R"({"amplitude":0.2,"slapNumber":9007199254740993})")->slapNumber,
              9007199254740993LL);
}

TEST(DecodeThuzzEvent, CarriageReturnBeforeNewlineIsWhiteSpace) {
    EXPECT_TRUE(decodeThuzzEvent("{\"amplitude\":0.2,\"slapNumber\":1}\r"));
}

TEST(DecodeThuzzEvent, NotEvents) {
    for (const char* line : {
             R"({"amplitude":"0.2","slapNumber":1})",   // amplitude a string of digits
             R"({"amplitude":0.2,"slapNumber":1.5})",   // not integral
             R"({"amplitude":0.2,"slapNumber":"1"})",   // not a number
             R"({"amplitude":0.2,"slapNumber":1e30})",  // does not fit 64 bits
             R"({"amplitude":0.2})",                    // missing slapNumber
             R"({"slapNumber":1})",                     // missing amplitude
             R"({"amplitude":null,"slapNumber":1})",    // null
             R"({"amplitude":true,"slapNumber":1})",    // boolean
             R"([{"amplitude":0.2,"slapNumber":1}])",   // not an object
             R"("amplitude")",                          // a string
             "42",                                      // a number
             "ready",                                   // plain text
             "",                                        // empty
             R"({"amplitude":0.2,"slapNumber":1} x)",   // trailing garbage
             R"({"amplitude":0.2,"slapNumber":1)",      // unfinished
         }) {
        EXPECT_FALSE(decodeThuzzEvent(QByteArray(line))) << line;
    }
}

TEST(DecodeThuzzEvent, DeepNestingIsRejectedNotFatal) {
    QByteArray deep = "{\"amplitude\":0.2,\"slapNumber\":1,\"x\":";
    deep += QByteArray(100000, '[');
    deep += QByteArray(100000, ']');
    deep += '}';
    EXPECT_FALSE(decodeThuzzEvent(deep));
}

std::vector<QByteArray> split(LineSplitter& splitter, const QByteArray& chunk, int* overlong) {
    std::vector<QByteArray> lines;
    splitter.append(
        chunk.constData(), static_cast<std::size_t>(chunk.size()),
        [&lines](const QByteArray& line) { lines.push_back(line); }, [overlong]() { ++*overlong; });
    return lines;
}

TEST(LineSplitter, CutsAtNewlinesAndKeepsTheRest) {
    LineSplitter splitter;
    int overlong = 0;
    EXPECT_EQ(split(splitter, "a\nbb\n\nccc", &overlong), (std::vector<QByteArray>{"a", "bb", ""}));
    EXPECT_EQ(splitter.pendingBytes(), 3u);
    EXPECT_EQ(split(splitter, "d\r\n", &overlong), (std::vector<QByteArray>{"cccd\r"}));
    EXPECT_EQ(splitter.pendingBytes(), 0u);
    EXPECT_EQ(overlong, 0);
}

TEST(LineSplitter, LineOfExactlyTheLimitIsKeptOneMoreIsDropped) {
    LineSplitter splitter(8);
    int overlong = 0;
    EXPECT_EQ(split(splitter, "12345678\n", &overlong), (std::vector<QByteArray>{"12345678"}));
    EXPECT_EQ(overlong, 0);
    EXPECT_EQ(split(splitter, "1234", &overlong), std::vector<QByteArray>{});
    EXPECT_EQ(split(splitter, "56789", &overlong), std::vector<QByteArray>{});
    EXPECT_EQ(overlong, 1);
    EXPECT_EQ(splitter.pendingBytes(), 0u);
    EXPECT_EQ(split(splitter, "more", &overlong), std::vector<QByteArray>{});
    EXPECT_EQ(overlong, 1) << "one report per dropped line";
    EXPECT_EQ(split(splitter, "tail\nok\n", &overlong), (std::vector<QByteArray>{"ok"}));
    EXPECT_EQ(overlong, 1);
}

}  // namespace

TEST(ThuzzSamples, TheCommandsAreOneLineEach) {
    EXPECT_EQ(thuzzSamplesCommand(true), QByteArray("{\"cmd\":\"samples\",\"on\":true}\n"));
    EXPECT_EQ(thuzzSamplesCommand(false), QByteArray("{\"cmd\":\"samples\",\"on\":false}\n"));
}

TEST(ThuzzSamples, SampleLinesAreRecognisedByTheirStart) {
    EXPECT_TRUE(isThuzzSampleLine("{\"jolt\":0.0123}"));
    EXPECT_TRUE(isThuzzSampleLine("{\"jolt\":garbage"));
    EXPECT_FALSE(isThuzzSampleLine("{\"amplitude\":0.2,\"slapNumber\":1}"));
    EXPECT_FALSE(isThuzzSampleLine(" {\"jolt\":0.1}"));
    EXPECT_FALSE(isThuzzSampleLine("reading iio:device0"));
}

TEST(ThuzzSamples, DecodesTheJolt) {
    EXPECT_EQ(decodeThuzzSample("{\"jolt\":0.0123}"), std::optional<double>(0.0123));
    EXPECT_EQ(decodeThuzzSample("{\"jolt\":0}"), std::optional<double>(0.0));
    EXPECT_EQ(decodeThuzzSample("{\"jolt\":1e-3}"), std::optional<double>(0.001));
    for (const char* bad :
         {"{\"jolt\":}", "{\"jolt\":-0.5}", "{\"jolt\":nan}", "{\"jolt\":inf}", "{\"jolt\":0.1",
          "{\"jolt\":0.1 }", "{\"jolt\":0.1,\"x\":1}", "{\"amplitude\":0.1}"}) {
        EXPECT_EQ(decodeThuzzSample(bad), std::nullopt) << bad;
    }
}

// SPDX-License-Identifier: GPL-3.0-or-later
// The engine's standard-output path: chunks in, events on the main thread and log lines out.
#include "ThuzzEngine.h"

#include "TestSupport.h"

#include <QCoreApplication>
#include <QStringDecoder>
#include <QThread>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

using bonkwell::ThuzzEngine;
using bonkwell::ThuzzEngineTestAccess;
using bonkwell::ThuzzEvent;
using bonkwell::test::drainMainQueue;
using bonkwell::test::LogCapture;

namespace {

class EngineLines : public ::testing::Test {
  protected:
    void SetUp() override {
        engine.setOnEvent([this](const ThuzzEvent& event) {
            EXPECT_EQ(QThread::currentThread(), QCoreApplication::instance()->thread());
            events.push_back(event);
        });
        engine.setOnStatus([this](const QString& status) { statuses << status; });
    }

    // Feeds the chunks the way the reader does: on a thread of its own.
    void feed(const std::vector<QByteArray>& chunks) {
        std::thread reader([&] {
            for (const QByteArray& chunk : chunks) {
                ThuzzEngineTestAccess::handleStdout(engine, chunk.constData(),
                                                    static_cast<std::size_t>(chunk.size()));
            }
        });
        reader.join();
    }
    void feed(const QByteArray& chunk) { feed(std::vector<QByteArray>{chunk}); }

    LogCapture log;
    ThuzzEngine engine;
    std::vector<ThuzzEvent> events;
    QStringList statuses;
};

TEST_F(EngineLines, TwoEventsInOneChunkGiveTwoCallsInOrder) {
    feed(
        QByteArray("{\"amplitude\":0.2,\"slapNumber\":1}\n{\"amplitude\":0.4,\"slapNumber\":2}\n"));
    EXPECT_TRUE(events.empty()) << "events reach the main thread only through its queue";
    drainMainQueue();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].slapNumber, 1);
    EXPECT_EQ(events[1].slapNumber, 2);
    EXPECT_DOUBLE_EQ(events[1].amplitude, 0.4);
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_TRUE(statuses.isEmpty()) << "output never becomes a status";
}

TEST_F(EngineLines, EventSplitAcrossChunksIsDecodedOnceWhenItsNewlineArrives) {
    feed(QByteArray("{\"amplitude\":0.2,\"sla"));
    drainMainQueue();
    EXPECT_TRUE(events.empty());
    feed(QByteArray("pNumber\":5}"));
    drainMainQueue();
    EXPECT_TRUE(events.empty());
    feed(QByteArray("\n"));
    drainMainQueue();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].slapNumber, 5);
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(EngineLines, FinalLineWithoutNewlineStaysInTheBuffer) {
    const QByteArray tail("{\"amplitude\":0.2,\"slapNumber\":3}");
    feed(tail);
    drainMainQueue();
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(ThuzzEngineTestAccess::bufferedBytes(engine), static_cast<std::size_t>(tail.size()));
    feed(QByteArray());  // end of file: an empty chunk changes nothing
    drainMainQueue();
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(ThuzzEngineTestAccess::bufferedBytes(engine), static_cast<std::size_t>(tail.size()));
}

TEST_F(EngineLines, SeverityAbsentOrNotAStringIsEmpty) {
    feed(
        QByteArray("{\"amplitude\":0.2,\"slapNumber\":1}\n"
                   "{\"amplitude\":0.2,\"slapNumber\":1,\"severity\":3}\n"
                   "{\"amplitude\":0.2,\"slapNumber\":1,\"severity\":\"soft\"}\n"));
    drainMainQueue();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].severity, "");
    EXPECT_EQ(events[1].severity, "");
    EXPECT_EQ(events[2].severity, "soft");
}

TEST_F(EngineLines, AmplitudeAsStringIsLoggedNotAnEvent) {
    feed(QByteArray("{\"amplitude\":\"0.2\",\"slapNumber\":1}\n"));
    drainMainQueue();
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(log.lines(), QStringList{"thuzz-detector: {\"amplitude\":\"0.2\",\"slapNumber\":1}"});
}

TEST_F(EngineLines, FractionalSlapNumberIsNotAnEvent) {
    feed(QByteArray("{\"amplitude\":0.2,\"slapNumber\":1.5}\n"));
    drainMainQueue();
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(log.lines(), QStringList{"thuzz-detector: {\"amplitude\":0.2,\"slapNumber\":1.5}"});
}

TEST_F(EngineLines, ReadyIsLoggedEmptyAndInvalidUtf8AreDropped) {
    feed(QByteArray("ready\n\n\xff\xfe bad\n"));
    drainMainQueue();
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(log.lines(), QStringList{"thuzz-detector: ready"});
}

TEST_F(EngineLines, CarriageReturnIsKeptAndTheEventStillDecodes) {
    feed(QByteArray("{\"amplitude\":0.2,\"slapNumber\":8}\r\nhello\r\n"));
    drainMainQueue();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].slapNumber, 8);
    EXPECT_EQ(log.lines(), QStringList{"thuzz-detector: hello\r"});
}

TEST_F(EngineLines, EventsAreDeliveredOnlyIfTheSlotIsSetWhenTheyRun) {
    feed(QByteArray("{\"amplitude\":0.2,\"slapNumber\":1}\n"));
    engine.setOnEvent({});
    drainMainQueue();  // must not crash
    EXPECT_TRUE(events.empty());
}

TEST_F(EngineLines, OverlongLineIsDroppedWithOneLogLineAndTheNextLineCounts) {
    std::vector<QByteArray> chunks;
    for (int i = 0; i < 5; ++i) {
        chunks.push_back(QByteArray(20000, 'x'));  // 100000 bytes, no newline yet
    }
    chunks.push_back(QByteArray("yyy\n{\"amplitude\":0.2,\"slapNumber\":1}\n"));
    feed(chunks);
    drainMainQueue();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(
        log.lines(),
        QStringList{"Bonkwell: dropped a thuzz-detector output line longer than 65536 bytes"});
}

TEST_F(EngineLines, LineOfExactly64KiBIsStillALine) {
    feed(QByteArray(65536, 'z') + '\n');
    drainMainQueue();
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_EQ(log.lines()[0].size(), QStringLiteral("thuzz-detector: ").size() + 65536);
}

TEST_F(EngineLines, HundredMegabyteLineWithoutNewlineKeepsTheBufferBounded) {
    const QByteArray chunk(64 * 1024, 'a');
    std::size_t largest = 0;
    std::thread reader([&] {
        for (int i = 0; i < 1600; ++i) {  // 1600 x 64 KiB = 100 MiB
            ThuzzEngineTestAccess::handleStdout(engine, chunk.constData(),
                                                static_cast<std::size_t>(chunk.size()));
            largest = std::max(largest, ThuzzEngineTestAccess::bufferedBytes(engine));
        }
    });
    reader.join();
    EXPECT_LE(largest, 64u * 1024u);
    EXPECT_EQ(log.lines().size(), 1);
    feed(QByteArray("\n{\"amplitude\":0.5,\"slapNumber\":2}\n"));
    drainMainQueue();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].slapNumber, 2);
    EXPECT_EQ(log.lines().size(), 1);
}

// Random lines of every kind, cut into random chunks: each valid event comes out exactly
// once and in order, and nothing else becomes an event.
TEST_F(EngineLines, FuzzRandomChunkingOfRandomAndValidLines) {
    std::mt19937 rng(4242);
    auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    for (int round = 0; round < 60; ++round) {
        QByteArray stream;
        std::vector<ThuzzEvent> expected;
        int expectedLogLines = 0;
        int expectedDrops = 0;
        std::int64_t number = 0;
        const int lineCount = 50 + pick(150);
        for (int i = 0; i < lineCount; ++i) {
            switch (pick(8)) {
                case 0:
                case 1:
                case 2: {
                    ThuzzEvent event;
                    event.amplitude = pick(100000) / 1000.0;
                    event.slapNumber = ++number;
                    QByteArray line =
                        "{\"amplitude\":" + QByteArray::number(event.amplitude, 'g', 17) +
                        ",\"slapNumber\":" + QByteArray::number(event.slapNumber);
                    if (pick(2) == 0) {
                        event.severity = QStringLiteral("s%1").arg(pick(5));
                        line += ",\"severity\":\"" + event.severity.toUtf8() + "\"";
                    }
                    line += pick(4) == 0 ? "}\r" : "}";
                    stream += line + '\n';
                    expected.push_back(event);
                    break;
                }
                case 3: {  // random bytes (no newline): logged when valid UTF-8 and non-empty
                    QByteArray line;
                    const int len = pick(200);
                    for (int k = 0; k < len; ++k) {
                        char c = static_cast<char>(pick(256));
                        line += c == '\n' ? 'n' : c;
                    }
                    line.prepend('#');  // never JSON
                    stream += line + '\n';
                    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
                    [[maybe_unused]] const QString text = decoder(line);
                    expectedLogLines += decoder.hasError() ? 0 : 1;
                    break;
                }
                case 4: {  // near misses
                    const char* misses[] = {"{\"amplitude\":0.2,\"slapNumber\":1.5}",
                                            "{\"amplitude\":\"1\",\"slapNumber\":1}",
                                            "{\"amplitude\":0.2}",
                                            "[1,2,3]",
                                            "{\"amplitude\":0.2,\"slapNumber\":1",
                                            "ready"};
                    stream += QByteArray(misses[pick(6)]) + '\n';
                    ++expectedLogLines;
                    break;
                }
                case 5:
                    stream += '\n';  // empty: dropped silently
                    break;
                case 6:
                    if (pick(10) == 0) {  // overlong: one log line for the drop
                        stream += QByteArray(65537 + pick(70000), '{') + '\n';
                        ++expectedLogLines;
                        ++expectedDrops;
                    } else {
                        stream += "{}\n";
                        ++expectedLogLines;
                    }
                    break;
                default:
                    stream += "{\"amplitude\":0.2,\"slapNumber\":1} trailing\n";
                    ++expectedLogLines;
                    break;
            }
        }
        std::vector<QByteArray> chunks;
        for (qsizetype at = 0; at < stream.size();) {
            const int kind = pick(4);
            const qsizetype len = kind == 0   ? 1
                                  : kind == 1 ? pick(16)
                                  : kind == 2 ? pick(512)
                                              : pick(70000);
            chunks.push_back(stream.mid(at, len));
            at += len;
        }
        events.clear();
        log.clear();
        feed(chunks);
        drainMainQueue();
        ASSERT_EQ(events, expected) << "round " << round;
        ASSERT_EQ(log.lines().size(), expectedLogLines) << "round " << round;
        ASSERT_EQ(log.lines().filter(QStringLiteral("Bonkwell: dropped")).size(), expectedDrops);
        ASSERT_EQ(ThuzzEngineTestAccess::bufferedBytes(engine), 0u);
    }
}

}  // namespace

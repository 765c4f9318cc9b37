// SPDX-License-Identifier: GPL-3.0-or-later
// Prints figures for the detection engine client: line handling throughput, the hop of an
// event to the main thread, memory for an endless line, and (as root, with a stand-in helper)
// launch time and the idle cost of a running engine.
#include "Log.h"
#include "ThuzzEngine.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

using namespace bonkwell;
using Clock = std::chrono::steady_clock;

namespace {

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

void drain() {
    for (int i = 0; i < 3; ++i) {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
}

long peakResidentKiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:")) {
            return line.mid(6).trimmed().split(' ').first().toLong();
        }
    }
    return -1;
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void feedChunks(ThuzzEngine& engine, const QByteArray& stream, std::size_t chunk) {
    std::thread reader([&] {
        for (qsizetype at = 0; at < stream.size(); at += static_cast<qsizetype>(chunk)) {
            const qsizetype len =
                std::min<qsizetype>(static_cast<qsizetype>(chunk), stream.size() - at);
            ThuzzEngineTestAccess::handleStdout(engine, stream.constData() + at,
                                                static_cast<std::size_t>(len));
        }
    });
    reader.join();
}

void lineThroughput() {
    ThuzzEngine engine;
    long delivered = 0;
    engine.setOnEvent([&](const ThuzzEvent&) { ++delivered; });
    QByteArray stream;
    long lines = 0;
    while (stream.size() < 32 * 1024 * 1024) {
        stream += "{\"amplitude\":0.3141,\"severity\":\"medium\",\"slapNumber\":" +
                  QByteArray::number(++lines) + "}\n";
    }
    const auto t0 = Clock::now();
    feedChunks(engine, stream, 64 * 1024);
    const auto t1 = Clock::now();
    drain();
    const auto t2 = Clock::now();
    std::printf("event lines: %ld lines, %.1f MiB in 64 KiB chunks\n", lines,
                static_cast<double>(stream.size()) / (1 << 20));
    std::printf("  reader thread (split + decode + queue): %.0f lines/s, %.1f MiB/s\n",
                static_cast<double>(lines) / seconds(t1 - t0),
                static_cast<double>(stream.size()) / (1 << 20) / seconds(t1 - t0));
    std::printf("  main thread delivery: %.0f events/s (%ld delivered)\n",
                static_cast<double>(delivered) / seconds(t2 - t1), delivered);

    QByteArray text;
    long textLines = 0;
    while (text.size() < 16 * 1024 * 1024) {
        text += "calibrating axis z, baseline 0.998 g, noise 0.0021 g\n";
        ++textLines;
    }
    const auto t3 = Clock::now();
    feedChunks(engine, text, 64 * 1024);
    const auto t4 = Clock::now();
    std::printf("diagnostic lines (logged, log sink discarding): %.0f lines/s\n",
                static_cast<double>(textLines) / seconds(t4 - t3));
}

void endlessLine() {
    ThuzzEngine engine;
    const QByteArray chunk(64 * 1024, 'a');
    const long before = peakResidentKiB();
    std::size_t largest = 0;
    const auto t0 = Clock::now();
    std::thread reader([&] {
        for (int i = 0; i < 16 * 1024; ++i) {  // 1 GiB
            ThuzzEngineTestAccess::handleStdout(engine, chunk.constData(),
                                                static_cast<std::size_t>(chunk.size()));
            largest = std::max(largest, ThuzzEngineTestAccess::bufferedBytes(engine));
        }
    });
    reader.join();
    const auto t1 = Clock::now();
    std::printf(
        "1 GiB line without newline: %.0f MiB/s, largest buffer %zu bytes, peak RSS "
        "growth %ld KiB\n",
        1024.0 / seconds(t1 - t0), largest, peakResidentKiB() - before);
}

void hopLatency() {
    ThuzzEngine engine;
    constexpr int kEvents = 2000;
    std::vector<Clock::time_point> sent(kEvents);
    std::vector<double> latency;
    latency.reserve(kEvents);
    engine.setOnEvent([&](const ThuzzEvent& event) {
        latency.push_back(seconds(Clock::now() - sent[static_cast<std::size_t>(event.slapNumber)]));
    });
    std::atomic<bool> done{false};
    std::thread reader([&] {
        for (int i = 0; i < kEvents; ++i) {
            const QByteArray line =
                "{\"amplitude\":0.2,\"slapNumber\":" + QByteArray::number(i) + "}\n";
            sent[static_cast<std::size_t>(i)] = Clock::now();
            ThuzzEngineTestAccess::handleStdout(engine, line.constData(),
                                                static_cast<std::size_t>(line.size()));
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        done = true;
    });
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (done && latency.size() == kEvents) {
            loop.quit();
        }
    });
    poll.start(10);
    loop.exec();
    reader.join();
    std::sort(latency.begin(), latency.end());
    std::printf(
        "reader-to-main-thread hop (%d events, idle event loop): median %.1f us, "
        "p99 %.1f us, max %.1f us\n",
        kEvents, latency[kEvents / 2] * 1e6, latency[kEvents * 99 / 100] * 1e6,
        latency.back() * 1e6);
}

void processFigures() {
    if (::geteuid() != 0) {
        std::printf("launch and idle figures: skipped (need root to install a stand-in helper)\n");
        return;
    }
    QTemporaryDir home;
    ::setenv("XDG_DATA_HOME", qPrintable(home.path()), 1);
    const QString helper = home.path() + QStringLiteral("/Bonkwell/Helpers/thuzz-detector");
    QDir().mkpath(QFileInfo(helper).absolutePath());
    QFile file(helper);
    file.open(QIODevice::WriteOnly);
    file.write("#!/bin/sh\nexec sleep 30\n");
    file.close();
    ::chmod(QFile::encodeName(helper).constData(), 04755);

    ThuzzEngine engine;
    QString last;
    engine.setOnStatus([&](const QString& status) { last = status; });
    std::vector<double> starts;
    std::vector<double> stops;
    for (int i = 0; i < 20; ++i) {
        const auto t0 = Clock::now();
        engine.start();
        starts.push_back(seconds(Clock::now() - t0));
        const auto t1 = Clock::now();
        engine.stop();
        while (last != QLatin1String("Engine stopped")) {
            drain();
        }
        stops.push_back(seconds(Clock::now() - t1));
        last.clear();
    }
    std::sort(starts.begin(), starts.end());
    std::sort(stops.begin(), stops.end());
    std::printf(
        "start() (launch + readers): median %.2f ms; stop() to \"Engine stopped\": "
        "median %.2f ms\n",
        starts[10] * 1e3, stops[10] * 1e3);

    engine.start();
    const double cpu0 = cpuSeconds();
    QEventLoop loop;
    QTimer::singleShot(3000, &loop, &QEventLoop::quit);
    loop.exec();
    const double cpu1 = cpuSeconds();
    std::printf("idle while the helper runs: %.2f ms CPU over 3 s for the whole app process\n",
                (cpu1 - cpu0) * 1e3);
    engine.stop();
    ::unsetenv("XDG_DATA_HOME");
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    setLogSinkForTesting([](const QString&) {});
    lineThroughput();
    endlessLine();
    hopLatency();
    processFigures();
    setLogSinkForTesting({});
    return 0;
}

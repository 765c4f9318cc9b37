// SPDX-License-Identifier: GPL-3.0-or-later
// The engine path as the app runs it: the state model bound to a real ThuzzEngine that runs
// the real thuzz-detector, installed root-owned and set-user-ID in a scratch home, on an
// emulated accelerometer polled through sysfs (umockdev testbed; the program runs under
// umockdev-wrapper and the helper inherits the testbed). Sensitivity set on the model reaches the
// running helper; a live viewer on the model makes the helper stream its jolt into liveMagnitude
// and the graph's series, never into the log; closing the viewer stops the stream. The
// in-process reader (a recording double here) is never started.
#include "AppState.h"
#include "DetectionTestSupport.h"
#include "Doubles.h"
#include "ThuzzEngine.h"
#include "UmockdevSupport.h"

#include <gtest/gtest.h>
#include <umockdev.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

const std::string kZ = "/sys/bus/iio/devices/iio:device0/in_accel_z_raw";

std::string readValue(const std::string& path) {
    std::ifstream in(path);
    std::string value;
    in >> value;
    return value;
}

class EngineLiveTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(runningAsRoot());
        const char* preload = std::getenv("LD_PRELOAD");
        ASSERT_TRUE(preload && std::strstr(preload, "libumockdev-preload"))
            << "run this program under umockdev-wrapper (package umockdev)";
        ::setenv("XDG_DATA_DIRS", qPrintable(scratch.path() + QStringLiteral("/no-bundle")), 1);
        // The real helper, installed the way the setup program leaves it.
        writeFile(engine.installDir() + QStringLiteral("thuzz-detector"),
                  readFile(QStringLiteral(THUZZ_DETECTOR_PATH)), 04755);
        ASSERT_EQ(engine.installState(), InstallState::installed);
        engine.setOnEvent([this](const ThuzzEvent& event) { events.push_back(event); });
        bed.addFile(BONKWELL_TEST_DATA "/accel/iio-poll-i2c-like.umockdev");
        restingZ = readValue(kZ);
        ASSERT_FALSE(restingZ.empty());
    }

    void TearDown() override {
        engine.stop();
        spinUntil([] { return false; }, 0.1);
        ::unsetenv("XDG_DATA_DIRS");
    }

    // Samples in the live series so far (it keeps the newest 600).
    std::size_t seriesSize() const { return state->liveSeries.get().size(); }

    // Waits until the helper has streamed `n` more samples.
    bool waitForSamples(std::size_t n, double seconds = 5.0) {
        std::size_t seen = 0;
        Subscription sub = state->liveSeries.subscribe([&](const std::vector<double>&) { ++seen; });
        seen = 0;
        return spinUntil([&] { return seen >= n; }, seconds);
    }

    // A jolt of `counts` (1024 per g) on Z, held until the live samples show it (so the
    // helper has read it), then back, and another 20 samples for the detector to finish.
    void jolt(int counts) {
        ASSERT_NO_FATAL_FAILURE(writeInPlace(kZ, std::to_string(std::stoi(restingZ) + counts)));
        double peak = 0;
        Subscription sub =
            state->liveMagnitude.subscribe([&](const double& m) { peak = std::max(peak, m); });
        const double expected = counts / 1024.0;
        EXPECT_TRUE(spinUntil([&] { return peak > 0.8 * expected; }, 5.0)) << "peak " << peak;
        EXPECT_LT(peak, 1.2 * expected) << "the graph shows the helper's jolt";
        ASSERT_NO_FATAL_FAILURE(writeInPlace(kZ, restingZ));
        ASSERT_TRUE(waitForSamples(20));
    }

    bool logMentions(const QString& text) const {
        const QStringList lines = log.lines();
        return std::any_of(lines.begin(), lines.end(),
                           [&](const QString& line) { return line.contains(text); });
    }

    TemporaryXdgHome xdg;
    QTemporaryDir scratch;
    LogCapture log;
    Testbed bed;
    std::string restingZ;
    CallJournal journal;
    RecordingStore store{scratch.path() + QStringLiteral("/prefs"), journal};
    RecordingDetector detector{journal};
    RecordingAudio audio{journal};
    FakePackManager packs;
    ThuzzEngine engine;
    std::unique_ptr<AppState> state = std::make_unique<AppState>(&store);
    std::vector<ThuzzEvent> events;
};

}  // namespace

TEST_F(EngineLiveTest, SensitivityReachesTheRunningHelperAndTheGraphShowsItsJolt) {
    state->bind(&detector, &audio, &packs, &engine);  // listening: the engine starts
    ASSERT_TRUE(engine.isRunning());
    ASSERT_TRUE(spinUntil([&] { return logMentions(QStringLiteral("reading iio:device0")); }, 10))
        << log.lines().join('\n').toStdString();
    EXPECT_FALSE(journal.calls.contains(QStringLiteral("detector.start")));

    // Nobody watches: the helper sends no samples.
    spinUntil([] { return false; }, 0.3);
    EXPECT_EQ(seriesSize(), 0u);

    // Raised above the jolt while the helper runs (the launch value, 0.05 g, is below it).
    // The samples turned on after it travel the same pipe, so once they flow the helper has
    // the new threshold.
    state->sensitivity.set(0.5);
    std::optional<LiveViewerHold> window(*state);
    ASSERT_TRUE(waitForSamples(3)) << "no samples while a live viewer is open";
    ASSERT_NO_FATAL_FAILURE(jolt(215));
    EXPECT_TRUE(events.empty()) << "0.21 g is not a slap at 0.5 g";
    EXPECT_FALSE(journal.calls.contains(QStringLiteral("detector.start")));

    // The window closes: the stream stops, and stays stopped (3 s, in which the helper's
    // background bar also settles after that jolt).
    window.reset();
    ASSERT_TRUE(spinUntil(
        [&] {
            const std::size_t before = seriesSize();
            spinUntil([] { return false; }, 0.3);
            return seriesSize() == before;
        },
        5.0))
        << "samples still arrive with no viewer";
    const std::size_t closed = seriesSize();
    spinUntil([] { return false; }, 3.0);
    EXPECT_EQ(seriesSize(), closed) << "samples arrived with no viewer";

    // Lowered below a 0.4 g jolt, which the old 0.5 g would have missed: now it is a slap.
    state->sensitivity.set(0.1);
    window.emplace(*state);
    ASSERT_TRUE(waitForSamples(3));
    ASSERT_NO_FATAL_FAILURE(jolt(410));
    ASSERT_TRUE(spinUntil([&] { return !events.empty(); }, 3.0));
    EXPECT_EQ(events.size(), 1u);
    EXPECT_NEAR(events[0].amplitude, 0.4, 0.03);
    EXPECT_FALSE(journal.calls.contains(QStringLiteral("detector.start")));

    // Hundreds of sample lines went by; not one reached the log.
    EXPECT_GT(seriesSize(), 40u);
    EXPECT_FALSE(logMentions(QStringLiteral("jolt")));
}

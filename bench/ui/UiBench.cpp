// SPDX-License-Identifier: GPL-3.0-or-later
// Prints what the views cost: time to build each of them, time to paint the magnitude graph,
// and the CPU used while accelerometer samples stream in at 100 Hz with the Calibration
// window open, with the Settings window on its Diagnostics tab, and with only the (hidden)
// panel alive. Runs offscreen; not a test, nothing is asserted.
//
//   cmake --build --preset default --target ui_bench && ./build/default/bench/ui_bench
#include "AppState.h"
#include "CalibrationView.h"
#include "DesktopIntegration.h"
#include "MagnitudeGraph.h"
#include "PopoverView.h"
#include "PreferencesStore.h"
#include "SettingsWindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTimer>

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

using namespace bonkwell;

namespace {

struct NullDetector final : SlapDetectorInterface {
    void setMinAmplitude(double) override {}
    void setCooldown(double) override {}
    void setOnMagnitudeSample(std::function<void(double)> h) override { sample = std::move(h); }
    void setOnSlap(std::function<void(double)>) override {}
    void start() override {}
    void stop() override {}
    void addLiveViewer() override {}
    void removeLiveViewer() override {}
    std::function<void(double)> sample;
};
struct NullEngine final : ThuzzEngineInterface {
    InstallState installState() const override { return InstallState::installed; }
    void start() override {}
    void stop() override {}
    void updateTuning(double, std::int64_t) override {}
    void setMinAmplitude(double) override {}
    void setCooldownMs(std::int64_t) override {}
    void setOnEvent(std::function<void(const ThuzzEvent&)>) override {}
    void setOnStatus(std::function<void(const QString&)>) override {}
    void setOnSample(std::function<void(double)>) override {}
    void addLiveViewer() override {}
    void removeLiveViewer() override {}
    bool installHelper() override { return true; }
};
struct NullAudio final : AudioPlayerInterface {
    void resetTracker() override {}
    void playSlap(const SoundPack&, PlayMode, double, double, bool) override {}
    void playTest(const SoundPack&, double) override {}
};
struct NullPacks final : SoundPackManagerInterface {
    QStringList builtInPacks() const override { return {"Pain", "Sexy", "Halo", "Lizard"}; }
    QStringList customPacks() const override { return {}; }
    void bootstrapUserPacks() const override {}
    SoundPack pack(const QString& name) const override { return SoundPack{name, {}, {}, false}; }
    void openCustomFolder() const override {}
};
struct NullDesktop final : DesktopIntegration {
    bool setLaunchAtLogin(bool, QString*) override { return true; }
    void setShowInTaskbar(bool) override {}
};

double cpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

long rssKiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').value(0).toLong();
        }
    }
    return -1;
}

double medianMs(int runs, const std::function<void()>& work) {
    std::vector<double> ms;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer t;
        t.start();
        work();
        ms.push_back(static_cast<double>(t.nsecsElapsed()) / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2];
}

// Feeds `seconds` of 100 Hz samples through the state model and returns the CPU used, in
// percent of one core.
double cpuWhileStreaming(NullDetector& detector, double seconds) {
    QTimer feed;
    feed.setTimerType(Qt::PreciseTimer);
    int n = 0;
    QObject::connect(&feed, &QTimer::timeout, [&] {
        detector.sample(0.01 + 0.005 * std::sin(n * 0.3) + (n % 150 == 0 ? 0.4 : 0.0));
        ++n;
    });
    QEventLoop loop;
    QTimer::singleShot(static_cast<int>(seconds * 1000), &loop, &QEventLoop::quit);
    const double before = cpuSeconds();
    QElapsedTimer wall;
    wall.start();
    feed.start(10);
    loop.exec();
    feed.stop();
    const double used = cpuSeconds() - before;
    return 100.0 * used / (static_cast<double>(wall.elapsed()) / 1000.0);
}

}  // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    QTemporaryDir dir;
    PreferencesStore store(dir.path());
    AppState state(&store);
    NullDetector detector;
    NullEngine engine;
    NullAudio audio;
    NullPacks packs;
    NullDesktop desktop;
    state.bind(&detector, &audio, &packs, &engine);

    const long rssStart = rssKiB();
    std::printf("ui_bench (offscreen, Qt %s)\n", qVersion());

    std::printf("build panel:               %7.2f ms (median of 20)\n", medianMs(20, [&] {
                    PopoverView view(state, detector, audio, packs, engine, {}, {}, {});
                    view.adjustSize();
                }));
    std::printf("open Settings window:      %7.2f ms (median of 20, show + close)\n",
                medianMs(20, [&] {
                    SettingsWindowController c(state, detector, audio, packs, engine, {}, desktop);
                    c.show();
                    QCoreApplication::processEvents();
                }));
    std::printf("open Calibration window:   %7.2f ms (median of 20, show + close)\n",
                medianMs(20, [&] {
                    CalibrationWindowController c(state, detector);
                    c.show();
                    QCoreApplication::processEvents();
                }));

    std::vector<double> series;
    for (int i = 0; i < 600; ++i) {
        series.push_back(0.01 + 0.005 * std::sin(i * 0.3) + (i % 150 == 0 ? 0.4 : 0.0));
    }
    MagnitudeGraph graph;
    graph.resize(488, 180);
    graph.setSeries(series);
    graph.setThreshold(0.05);
    QImage canvas(488, 180, QImage::Format_ARGB32_Premultiplied);
    std::printf("paint graph (600 points):  %7.3f ms (median of 200)\n",
                medianMs(200, [&] { graph.render(&canvas); }));

    const double seconds = 5.0;
    std::printf("CPU, 100 Hz samples, no view (baseline):     %5.2f %% of a core\n",
                cpuWhileStreaming(detector, seconds));
    {
        PopoverView panel(state, detector, audio, packs, engine, {}, {}, {});
        std::printf("CPU, 100 Hz samples, panel hidden:           %5.2f %% of a core\n",
                    cpuWhileStreaming(detector, seconds));
        panel.show();
        std::printf("CPU, 100 Hz samples, panel shown:            %5.2f %% of a core\n",
                    cpuWhileStreaming(detector, seconds));
    }
    {
        CalibrationWindowController calibration(state, detector);
        calibration.show();
        std::printf("CPU, 100 Hz samples, Calibration open:       %5.2f %% of a core\n",
                    cpuWhileStreaming(detector, seconds));
    }
    {
        SettingsWindowController settings(state, detector, audio, packs, engine, {}, desktop);
        settings.show();
        settings.rootView()->tabs()->setCurrentIndex(SettingsRootView::diagnostics);
        std::printf("CPU, 100 Hz samples, Settings/Diagnostics:   %5.2f %% of a core\n",
                    cpuWhileStreaming(detector, seconds));
    }
    std::printf("RSS: %ld KiB at start, %ld KiB after all of the above\n", rssStart, rssKiB());
    return 0;
}

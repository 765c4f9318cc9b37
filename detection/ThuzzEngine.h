// SPDX-License-Identifier: GPL-3.0-or-later
// The client of the thuzz-detector helper: launches the installed helper as a child, reads
// its slap events from standard output on a background thread and hands each one to the
// main thread, logs its diagnostic output, and reports its state as one-line statuses.
// Commands (tuning, samples on or off) go to the helper through a pipe on its standard input.
// While a live viewer is open the helper streams its jolt measure of every reading; those
// sample lines go to the sample handler and never to the log.
// The installation operations (installState, installDir, installHelper, bundledHelperURL)
// live in HelperInstall.cpp.
#pragma once

#include "Interfaces.h"
#include "SharedTypes.h"

#include <QString>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace bonkwell {

class ChildProcess;
class PipeReader;

class ThuzzEngine : public ThuzzEngineInterface {
  public:
    using EventHandler = std::function<void(const ThuzzEvent&)>;
    using StatusHandler = std::function<void(const QString&)>;
    using SampleHandler = std::function<void(double)>;

    ThuzzEngine();
    // Stops reading the helper's output but leaves a running helper running; only stop()
    // ends it.
    ~ThuzzEngine() override;
    ThuzzEngine(const ThuzzEngine&) = delete;
    ThuzzEngine& operator=(const ThuzzEngine&) = delete;

    // Callback slots, filled in by the owner before start(). Both are called on the main
    // thread only.
    void setOnEvent(EventHandler handler) override;
    void setOnStatus(StatusHandler handler) override;
    // Called on the standard-output reader's thread; may be set at any time.
    void setOnSample(SampleHandler handler) override;

    // Launches the installed helper unless it is already running. Reports "Engine running",
    // "Failed to launch helper: …" or the not-installed status synchronously.
    void start() override;
    // Asks the helper to end (no wait) and stops reading its output. "Engine stopped"
    // arrives through the main queue once the child has ended.
    void stop() override;
    // Stores the values for the next launch and, while the helper runs, writes the set
    // command to the pipe on the child's standard input.
    void updateTuning(double amplitude, std::int64_t cooldownMs) override;

    // The first viewer turns the helper's sample lines on, the last one off; a helper
    // launched while viewers are open gets them on at once.
    void addLiveViewer() override;
    void removeLiveViewer() override;
    int liveViewers() const { return liveViewers_; }

    // Launch tuning for the next start(), without telling a running helper.
    void setMinAmplitude(double amplitude) override { minAmplitude_ = amplitude; }
    void setCooldownMs(std::int64_t cooldownMs) override { cooldownMs_ = cooldownMs; }
    double minAmplitude() const { return minAmplitude_; }
    std::int64_t cooldownMs() const { return cooldownMs_; }
    // True while a child of the last successful launch is running.
    bool isRunning() const;

    // Installation (HelperInstall.cpp).
    InstallState installState() const override;
    // The folder the helper is installed into, with a trailing slash.
    QString installDir() const;
    std::optional<QString> bundledHelperURL() const;
    // Installs the helper, asking for administrator rights; blocks until that has finished.
    // True only when the helper ends up installed. Reports progress through the status slot.
    bool installHelper() override;

  private:
    friend struct ThuzzEngineTestAccess;
    struct Shared;

    void report(const QString& status) const;
    // Writes one command line to a running helper's standard input; never blocks.
    void send(const QByteArray& line);
    void closeCommandPipe();
    static void handleStdout(const std::shared_ptr<Shared>& shared, const char* data,
                             std::size_t size);

    std::shared_ptr<Shared> shared_;
    std::shared_ptr<ChildProcess> process_;
    std::unique_ptr<PipeReader> stdoutPipe_;
    std::unique_ptr<PipeReader> stderrPipe_;
    int stdinPipe_ = -1;  // write end of the pipe on the helper's standard input
    int liveViewers_ = 0;
    double minAmplitude_ = 0.05;
    std::int64_t cooldownMs_ = 750;
};

// The status strings the engine reports.
namespace ThuzzStatus {
inline const QString running = ThuzzEngineInterface::runningStatus;
inline const QString stopped = QStringLiteral("Engine stopped");
inline const QString outOfDate = ThuzzEngineInterface::outOfDateStatus;
inline const QString launchFailedPrefix = QStringLiteral("Failed to launch helper: ");
inline const QString notInstalled = QStringLiteral(
    "Helper not installed \u2014 open Settings \u2192 General \u2192 Install detection engine");
}  // namespace ThuzzStatus

// Test seam: the standard-output path without a child process.
struct ThuzzEngineTestAccess {
    // What the standard-output reader does with one chunk (call from any thread).
    static void handleStdout(ThuzzEngine& engine, const char* data, std::size_t size);
    // Bytes of an unfinished line held in the buffer right now.
    static std::size_t bufferedBytes(const ThuzzEngine& engine);
};

}  // namespace bonkwell

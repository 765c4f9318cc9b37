// SPDX-License-Identifier: GPL-3.0-or-later
// The in-process slap detector: reads three-axis samples of the machine's accelerometer,
// turns each into a magnitude (how far the acceleration's length is from 1 g), streams every
// magnitude to the live graph, and declares a slap when the magnitude is strictly above the
// threshold and strictly more than the cooldown after the previous slap.
//
// Samples arrive as raw values the way a HID sensor reports them: usage page 0x20, usages
// 0x453/0x454/0x455 for X/Y/Z, in signed 16-bit counts of 1/1024 g; X and Y are remembered,
// Z triggers the evaluation. On Linux the AccelerometerReader feeds them from IIO sysfs or a
// position file.
#pragma once

#include "AccelerometerReader.h"
#include "Clock.h"
#include "Interfaces.h"
#include "Observable.h"

#include <QObject>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>

namespace bonkwell {

class SlapDetector final : public SlapDetectorInterface {
  public:
    static constexpr std::int64_t kSensorUsagePage = 32;  // 0x20, Sensors
    static constexpr std::int64_t kAccel3DUsage = 115;    // 0x73, Motion: Accelerometer 3D
    static constexpr std::int64_t kAccelXUsage = 1107;    // 0x453
    static constexpr std::int64_t kAccelYUsage = 1108;    // 0x454
    static constexpr std::int64_t kAccelZUsage = 1109;    // 0x455

    // Opens the sample source; the default finds the machine's accelerometer.
    using SourceOpener = std::function<AccelerometerOpenResult()>;

    explicit SlapDetector(const Clock& clock = Clock::system(), SourceOpener opener = {});
    ~SlapDetector() override;
    SlapDetector(const SlapDetector&) = delete;
    SlapDetector& operator=(const SlapDetector&) = delete;

    // No effect while listening. Opening failures and missing devices are logged; the
    // detector is listening afterwards in every case.
    void start() override;
    // No effect unless listening.
    void stop() override;

    void setMinAmplitude(double g) override;
    void setCooldown(double seconds) override { cooldown_ = seconds; }
    void setOnMagnitudeSample(std::function<void(double)> handler) override {
        onMagnitudeSample_ = std::move(handler);
    }
    void setOnSlap(std::function<void(double)> handler) override { onSlap_ = std::move(handler); }
    void addLiveViewer() override;
    void removeLiveViewer() override;
    int liveViewers() const { return liveViewers_; }
    // How long magnitudes that cannot be a slap may wait, with and without a live viewer.
    static constexpr double kWatchedBatchSeconds = 0.05;
    static constexpr double kUnwatchedBatchSeconds = 1.0;
    double minAmplitude() const { return minAmplitude_; }
    double cooldown() const { return cooldown_; }

    std::int64_t slapCount() const { return slapCount_.get(); }
    bool isListening() const { return isListening_.get(); }
    // Observers are told the new value before it is stored, and the current value at once.
    [[nodiscard]] Subscription observeSlapCount(std::function<void(const std::int64_t&)> h) {
        return slapCount_.subscribe(std::move(h));
    }
    [[nodiscard]] Subscription observeIsListening(std::function<void(const bool&)> h) {
        return isListening_.subscribe(std::move(h));
    }

    // One input value from the sample source (on the main thread): usage page, usage and the
    // raw integer, of which the low 16 bits are a signed count of 1/1024 g.
    void handleValue(std::int64_t usagePage, std::int64_t usage, std::int64_t integerValue);

    double lastX() const { return lastX_; }
    double lastY() const { return lastY_; }
    double lastZ() const { return lastZ_; }

  private:
    void evaluate();

    const Clock& clock_;
    SourceOpener opener_;
    std::unique_ptr<AccelerometerReader> reader_;
    bool sourceOpen_ = false;
    int liveViewers_ = 0;  // the "manager": set by start(), cleared by stop()
    double lastX_ = 0;
    double lastY_ = 0;
    double lastZ_ = 0;
    double lastYellTime_ = -std::numeric_limits<double>::infinity();
    double minAmplitude_ = 0.05;
    double cooldown_ = 0.75;
    Published<std::int64_t> slapCount_{0};
    Published<bool> isListening_{false};
    std::function<void(double)> onSlap_;
    std::function<void(double)> onMagnitudeSample_;
    // Tasks queued to the main thread hold this: they are dropped once the detector is gone.
    QObject guard_;
};

}  // namespace bonkwell

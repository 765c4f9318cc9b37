// SPDX-License-Identifier: GPL-3.0-or-later
#include "SlapDetector.h"

#include "Log.h"
#include "MainQueue.h"

#include <cmath>

namespace bonkwell {

SlapDetector::SlapDetector(const Clock& clock, SourceOpener opener)
    : clock_(clock), opener_(opener ? std::move(opener) : SourceOpener(openPolledAccelerometer)) {}

SlapDetector::~SlapDetector() {
    // Nothing may reach a detector that is gone.
    if (reader_) {
        reader_->stop();
    }
}

void SlapDetector::start() {
    if (isListening_.get()) {
        return;
    }
    AccelerometerOpenResult opened = opener_();
    if (!opened.source && opened.matched > 0) {
        logLine(QStringLiteral("Bonkwell: opening the accelerometer failed (%1). Accelerometer "
                               "unavailable.")
                    .arg(QString::fromStdString(opened.error)));
    }
    if (opened.source) {
        reader_ = std::make_unique<AccelerometerReader>(
            std::move(opened.source), [this](std::int16_t x, std::int16_t y, std::int16_t z) {
                handleValue(kSensorUsagePage, kAccelXUsage, x);
                handleValue(kSensorUsagePage, kAccelYUsage, y);
                handleValue(kSensorUsagePage, kAccelZUsage, z);
            });
        // Samples that cannot be a slap may reach us a few at a time; the others at once.
        reader_->setUrgentAbove(minAmplitude_);
        reader_->setQuietBatchSeconds(liveViewers_ > 0 ? kWatchedBatchSeconds
                                                       : kUnwatchedBatchSeconds);
    }
    sourceOpen_ = true;
    isListening_.set(true);
    logLine(QStringLiteral("Bonkwell: matched %1 accelerometer device(s)").arg(opened.matched));
    if (opened.matched == 0) {
        logLine(QStringLiteral(
            "Bonkwell: This machine doesn't expose an accelerometer through IIO or the input "
            "subsystem. Detection won't fire automatically — use the Test / simulate path. The "
            "full UI is still functional."));
    }
}

void SlapDetector::setMinAmplitude(double g) {
    minAmplitude_ = g;
    if (reader_) {
        reader_->setUrgentAbove(g);
    }
}

void SlapDetector::addLiveViewer() {
    if (++liveViewers_ == 1 && reader_) {
        reader_->setQuietBatchSeconds(kWatchedBatchSeconds);
    }
}

void SlapDetector::removeLiveViewer() {
    if (liveViewers_ == 0) {
        fatal(QStringLiteral("SlapDetector::removeLiveViewer without a viewer"));
    }
    if (--liveViewers_ == 0 && reader_) {
        reader_->setQuietBatchSeconds(kUnwatchedBatchSeconds);
    }
}

void SlapDetector::stop() {
    if (!isListening_.get() || !sourceOpen_) {
        return;
    }
    if (reader_) {
        reader_->stop();
        reader_.reset();
    }
    sourceOpen_ = false;
    isListening_.set(false);
}

void SlapDetector::handleValue(std::int64_t usagePage, std::int64_t usage,
                               std::int64_t integerValue) {
    if (usagePage != kSensorUsagePage) {
        return;
    }
    const auto counts =
        static_cast<std::int16_t>(static_cast<std::uint16_t>(integerValue & 0xFFFF));
    const double g = static_cast<double>(counts) / 1024.0;
    switch (usage) {
        case kAccelXUsage:
            lastX_ = g;
            break;
        case kAccelYUsage:
            lastY_ = g;
            break;
        case kAccelZUsage:
            lastZ_ = g;
            evaluate();
            break;
        default:
            break;
    }
}

void SlapDetector::evaluate() {
    const double magnitude =
        std::fabs(std::sqrt(lastX_ * lastX_ + lastY_ * lastY_ + lastZ_ * lastZ_) - 1.0);
    if (onMagnitudeSample_) {
        onMagnitudeSample_(magnitude);
    }
    if (!(minAmplitude_ < magnitude)) {
        return;
    }
    const double now = clock_.monotonicSeconds();
    if (!(cooldown_ < now - lastYellTime_)) {
        return;  // inside the cooldown: dropped, and the cooldown is not extended
    }
    lastYellTime_ = now;
    MainQueue::post(&guard_, [this, magnitude] {
        slapCount_.set(slapCount_.get() + 1);
        if (onSlap_) {
            onSlap_(magnitude);
        }
    });
}

}  // namespace bonkwell

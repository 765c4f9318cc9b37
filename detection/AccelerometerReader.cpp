// SPDX-License-Identifier: GPL-3.0-or-later
#include "AccelerometerReader.h"

#include "GravityCalibration.h"
#include "Log.h"
#include "MainQueue.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

namespace bonkwell {

AccelerometerOpenResult openPolledAccelerometer() {
    accel::OpenOptions options;
    options.allowBuffer = false;  // root only, and the helper's job
    options.allowEvdev = false;
    options.maxPollHz = 100.0;
    options.probePolled = false;  // this runs on the main thread: no bus reads here
    auto opened = accel::openAccelerometer(options);
    return AccelerometerOpenResult{std::move(opened.source), opened.matched,
                                   std::move(opened.error)};
}

std::int16_t AccelerometerReader::toCounts(double g) {
    if (!std::isfinite(g)) {
        return 0;
    }
    const double counts = std::round(g * 1024.0);
    return static_cast<std::int16_t>(std::clamp(counts, -32768.0, 32767.0));
}

namespace {

std::int64_t monotonicNs() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// Sleeps until the monotonic time `ns` (one system call, no lock: the cheapest wake-up there
// is, which matters at 100 per second).
void sleepUntil(std::int64_t ns) {
    timespec at{};
    at.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
    at.tv_nsec = static_cast<long>(ns % 1'000'000'000);
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
    }
}

// The longest single sleep: a stop request is noticed within this time at any rate.
constexpr std::int64_t kLongestSleepNs = 50'000'000;

}  // namespace

struct AccelerometerReader::Shared {
    std::mutex mutex;
    std::condition_variable finishedChanged;
    bool finished = false;  // guarded by mutex
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> delivering{true};  // main thread: handler may still run
    std::atomic<double> urgentAbove{0.0};
    std::atomic<double> quietBatchSeconds{kQuietBatchSeconds};
    std::thread thread;
};

AccelerometerReader::AccelerometerReader(std::unique_ptr<accel::SampleSource> source,
                                         SampleHandler handler)
    : shared_(std::make_shared<Shared>()) {
    auto shared = shared_;
    shared_->thread =
        std::thread([shared, handler = std::move(handler), source = std::move(source)]() mutable {
            pthread_setname_np(pthread_self(), "accel-reader");
            const double rate = source->rateHz() > 0 ? source->rateHz() : 20.0;
            const auto periodNs = static_cast<std::int64_t>(1e9 / rate);
            std::int64_t next = monotonicNs();
            std::vector<accel::Sample> samples;
            // Biased sensors read more or less than 1 g at rest: scale that away before the
            // detector measures the jolt.
            GravityCalibration calibration;
            struct Counts {
                std::int16_t x, y, z;
            };
            std::vector<Counts> pending;
            std::int64_t lastPost = monotonicNs();
            // One task for everything pending, in order. `delivering` is cleared on the main
            // thread by stop(), before the handler's owner can go away; tasks still queued
            // then do nothing.
            auto postPending = [&](std::int64_t now) {
                MainQueue::post([shared, handler, batch = std::move(pending)] {
                    for (const Counts& c : batch) {
                        if (!shared->delivering.load()) {
                            return;
                        }
                        handler(c.x, c.y, c.z);
                    }
                });
                pending.clear();
                lastPost = now;
            };
            while (!shared->stopRequested.load()) {
                samples.clear();
                std::string error;
                if (!source->read(samples, error)) {
                    logLine(QStringLiteral("Bonkwell: reading the accelerometer failed (%1). "
                                           "Accelerometer unavailable.")
                                .arg(QString::fromStdString(error)));
                    break;
                }
                // Once stopped, post nothing more: the owner may be on its way out.
                if (shared->stopRequested.load()) {
                    break;
                }
                const double urgentAbove = shared->urgentAbove.load();
                bool urgent = false;
                for (const auto& sample : samples) {
                    const accel::Vec3 g = calibration.apply(sample.g, sample.time);
                    const Counts c{toCounts(g.x), toCounts(g.y), toCounts(g.z)};
                    pending.push_back(c);
                    // The detector's own measure, on the same counts.
                    const double x = c.x / 1024.0;
                    const double y = c.y / 1024.0;
                    const double z = c.z / 1024.0;
                    const double magnitude = std::fabs(std::sqrt(x * x + y * y + z * z) - 1.0);
                    urgent = urgent || !(magnitude <= urgentAbove);
                }
                const std::int64_t now = monotonicNs();
                const auto batchNs = static_cast<std::int64_t>(
                    shared->quietBatchSeconds.load() * 1e9 - 0.5 * periodNs);
                if (!pending.empty() && (urgent || now - lastPost >= batchNs)) {
                    postPending(now);
                }
                next += periodNs;
                if (next < now) {
                    next = now;  // a slow read: do not try to catch up
                }
                // Long periods are slept in slices, so that stop() is heard in time.
                for (std::int64_t at = now; at < next && !shared->stopRequested.load();) {
                    at = std::min(next, at + kLongestSleepNs);
                    sleepUntil(at);
                }
            }
            source->restore();
            source.reset();
            std::lock_guard lock(shared->mutex);
            shared->finished = true;
            shared->finishedChanged.notify_all();
        });
}

AccelerometerReader::~AccelerometerReader() {
    stop();
}

void AccelerometerReader::setUrgentAbove(double g) {
    if (shared_) {
        shared_->urgentAbove.store(std::isfinite(g) ? g : 0.0);
    }
}

void AccelerometerReader::setQuietBatchSeconds(double seconds) {
    if (shared_ && std::isfinite(seconds)) {
        shared_->quietBatchSeconds.store(std::clamp(seconds, 0.0, 1.0));
    }
}

void AccelerometerReader::stop() {
    if (!shared_ || !shared_->thread.joinable()) {
        return;
    }
    shared_->delivering.store(false);
    shared_->stopRequested.store(true);
    bool finished = false;
    {
        // The reader notices within one period (at most 50 ms) unless stuck in a read.
        std::unique_lock lock(shared_->mutex);
        finished = shared_->finishedChanged.wait_for(lock, std::chrono::milliseconds(250),
                                                     [this] { return shared_->finished; });
    }
    if (finished) {
        shared_->thread.join();
    } else {
        shared_->thread.detach();  // stuck in a slow read; it ends by itself
    }
}

}  // namespace bonkwell

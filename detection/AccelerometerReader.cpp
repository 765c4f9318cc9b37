// SPDX-License-Identifier: GPL-3.0-or-later
#include "AccelerometerReader.h"

#include "Log.h"
#include "MainQueue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
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

struct AccelerometerReader::Shared {
    std::mutex mutex;
    std::condition_variable wake;
    bool stopRequested = false;          // guarded by mutex
    bool finished = false;               // guarded by mutex
    std::atomic<bool> delivering{true};  // main thread: handler may still run
    std::atomic<double> urgentAbove{0.0};
    std::thread thread;
};

AccelerometerReader::AccelerometerReader(std::unique_ptr<accel::SampleSource> source,
                                         SampleHandler handler)
    : shared_(std::make_shared<Shared>()) {
    auto shared = shared_;
    shared_->thread = std::thread([shared, handler = std::move(handler),
                                   source = std::move(source)]() mutable {
        const double rate = source->rateHz() > 0 ? source->rateHz() : 20.0;
        const auto period = std::chrono::duration<double>(1.0 / rate);
        auto next = std::chrono::steady_clock::now();
        std::vector<accel::Sample> samples;
        struct Counts {
            std::int16_t x, y, z;
        };
        std::vector<Counts> pending;
        auto lastPost = std::chrono::steady_clock::now();
        // One task for everything pending, in order. `delivering` is cleared on the main
        // thread by stop(), before the handler's owner can go away; tasks still queued
        // then do nothing.
        auto postPending = [&] {
            MainQueue::post([shared, handler, batch = std::move(pending)] {
                for (const Counts& c : batch) {
                    if (!shared->delivering.load()) {
                        return;
                    }
                    handler(c.x, c.y, c.z);
                }
            });
            pending.clear();
            lastPost = std::chrono::steady_clock::now();
        };
        while (true) {
            samples.clear();
            std::string error;
            if (!source->read(samples, error)) {
                logLine(QStringLiteral("Bonkwell: reading the accelerometer failed (%1). "
                                       "Accelerometer unavailable.")
                            .arg(QString::fromStdString(error)));
                break;
            }
            {
                // Once stopped, post nothing more: the owner may be on its way out.
                std::lock_guard lock(shared->mutex);
                if (shared->stopRequested) {
                    break;
                }
            }
            const double urgentAbove = shared->urgentAbove.load();
            bool urgent = false;
            for (const auto& sample : samples) {
                const Counts c{toCounts(sample.g.x), toCounts(sample.g.y), toCounts(sample.g.z)};
                pending.push_back(c);
                // The detector's own measure, on the same counts.
                const double x = c.x / 1024.0;
                const double y = c.y / 1024.0;
                const double z = c.z / 1024.0;
                const double magnitude = std::fabs(std::sqrt(x * x + y * y + z * z) - 1.0);
                urgent = urgent || !(magnitude <= urgentAbove);
            }
            const auto now = std::chrono::steady_clock::now();
            if (!pending.empty() &&
                (urgent || now - lastPost >=
                               std::chrono::duration<double>(kQuietBatchSeconds - 0.5 / rate))) {
                postPending();
            }
            next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(period);
            if (next < now) {
                next = now;  // a slow read: do not try to catch up
            }
            std::unique_lock lock(shared->mutex);
            if (shared->wake.wait_until(lock, next, [&] { return shared->stopRequested; })) {
                break;
            }
        }
        source->restore();
        source.reset();
        std::lock_guard lock(shared->mutex);
        shared->finished = true;
        shared->wake.notify_all();
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

void AccelerometerReader::stop() {
    if (!shared_ || !shared_->thread.joinable()) {
        return;
    }
    shared_->delivering.store(false);
    bool finished = false;
    {
        std::unique_lock lock(shared_->mutex);
        shared_->stopRequested = true;
        shared_->wake.notify_all();
        finished = shared_->wake.wait_for(lock, std::chrono::milliseconds(250),
                                          [this] { return shared_->finished; });
    }
    if (finished) {
        shared_->thread.join();
    } else {
        shared_->thread.detach();  // stuck in a slow read; it ends by itself
    }
}

}  // namespace bonkwell

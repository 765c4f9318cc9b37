// SPDX-License-Identifier: GPL-3.0-or-later
// The in-process accelerometer reader: polls the IIO sysfs attributes or a lis3lv02d /
// hdaps / applesmc `position` file on a thread of its own (a single read can take seconds on
// some machines) and hands each sample to the main thread, in order, as signed 16-bit counts
// of 1/1024 g, calibrated so that the acceleration's length at rest reads 1 g (see
// GravityCalibration).
#pragma once

#include "AccelDevice.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace bonkwell {

struct AccelerometerOpenResult {
    std::unique_ptr<accel::SampleSource> source;  // null when nothing could be opened
    int matched = 0;                              // accelerometers found
    std::string error;                            // why opening failed
};

// Finds the machine's accelerometer among the sources any user may read: IIO sysfs polling
// (at the device's rate, at most 100 Hz), then the position files.
AccelerometerOpenResult openPolledAccelerometer();

class AccelerometerReader {
  public:
    // x, y, z in 1/1024 g.
    using SampleHandler = std::function<void(std::int16_t, std::int16_t, std::int16_t)>;

    // Starts reading at once. `handler` runs on the main thread, from the main queue, and
    // never after stop() (the destructor stops).
    AccelerometerReader(std::unique_ptr<accel::SampleSource> source, SampleHandler handler);
    ~AccelerometerReader();
    AccelerometerReader(const AccelerometerReader&) = delete;
    AccelerometerReader& operator=(const AccelerometerReader&) = delete;

    // Ends reading. Waits briefly for the reading thread; a thread stuck in a slow read is
    // left to finish on its own and delivers nothing more.
    void stop();

    // Samples whose magnitude |‖(x, y, z)‖ − 1 g| is at or below `g` (so cannot be a slap at
    // that threshold) may wait up to the quiet-batch time (kQuietBatchSeconds unless set) and
    // reach the main thread together, which spares it a wake-up per sample; a sample above it
    // goes at once, after any that wait. 0, the default: every sample goes at once. Callable
    // from any thread.
    void setUrgentAbove(double g);
    static constexpr double kQuietBatchSeconds = 0.05;
    // How long quiet samples may wait, 0 to 1 s: short while someone watches them live, up to
    // a second when nobody does. Callable from any thread.
    void setQuietBatchSeconds(double seconds);

    // g → counts of 1/1024 g, rounded and clamped to the 16-bit range.
    static std::int16_t toCounts(double g);

  private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace bonkwell

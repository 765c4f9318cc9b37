// SPDX-License-Identifier: GPL-3.0-or-later
// Finding and reading the laptop's accelerometer on Linux, without Qt.
//
// Sources, in order of preference:
//   1. IIO buffer (/dev/iio:deviceN): full rate, root only, one reader at a time;
//   2. evdev accelerometer (/dev/input/eventN, e.g. lis3lv02d): root or group input;
//   3. IIO sysfs polling (in_accel_{x,y,z}_raw): any user;
//   4. the lis3lv02d / hdaps / applesmc `position` attribute: any user.
// Every source delivers acceleration in g with scale, offset and mount matrix applied.
// Only compiled-in paths and strictly enumerated /sys and /dev entries are opened.
#pragma once

#include "SettingChanges.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace bonkwell::accel {

struct Vec3 {
    double x = 0;
    double y = 0;
    double z = 0;
};

double length(const Vec3& v);

// Row-major 3×3, applied as v' = M·v.
using Matrix3 = std::array<double, 9>;
inline constexpr Matrix3 kIdentity{1, 0, 0, 0, 1, 0, 0, 0, 1};

// Parses "a, b, c; d, e, f; g, h, i". nullopt when malformed.
std::optional<Matrix3> parseMountMatrix(const std::string& text);
Vec3 rotate(const Matrix3& m, const Vec3& v);

inline constexpr double kStandardGravity = 9.80665;  // m/s² per g

struct Sample {
    Vec3 g;             // acceleration in g, device mount applied
    double time = 0.0;  // CLOCK_MONOTONIC seconds
};

enum class SourceKind { iioBuffer, evdev, iioPoll, positionFile };
const char* kindName(SourceKind kind);

class SampleSource {
  public:
    virtual ~SampleSource() = default;
    SampleSource(const SampleSource&) = delete;
    SampleSource& operator=(const SampleSource&) = delete;

    SourceKind kind() const { return kind_; }
    // Names the device, e.g. "iio:device0 (accel_3d)".
    const std::string& description() const { return description_; }
    // The device's sampling rate in Hz; for polled sources the rate we poll at (≤ 100 Hz).
    // 0 when the device does not say (event-driven sources).
    double rateHz() const { return rateHz_; }
    // A descriptor that becomes readable when samples are waiting, or -1 for sources that must
    // be read once every 1/rateHz() seconds.
    virtual int waitFd() const = 0;
    // Event-driven: takes every sample waiting. Polled: takes one sample. Appends to `out`.
    // Returns false on an error that ends the source, with the reason in `error`.
    virtual bool read(std::vector<Sample>& out, std::string& error) = 0;
    // Puts back every device setting the source changed (all of them are recorded in
    // changes()). Safe to call more than once, also from a shutdown path after privileges were
    // dropped or in a forked copy (descriptors were opened beforehand).
    void restore() { changes_.restore(); }
    // The settings changed so far; a source records each change here as it makes it.
    SettingChanges& changes() { return changes_; }
    const SettingChanges& changes() const { return changes_; }

  protected:
    SampleSource(SourceKind kind, std::string description, double rateHz)
        : kind_(kind), description_(std::move(description)), rateHz_(rateHz) {}
    void setRate(double rateHz) { rateHz_ = rateHz; }

  private:
    SettingChanges changes_;
    SourceKind kind_;
    std::string description_;
    double rateHz_;
};

struct OpenOptions {
    bool allowBuffer = true;
    bool allowEvdev = true;
    bool allowSysfsPoll = true;
    bool allowPosition = true;
    double maxPollHz = 100.0;
    // Raise the device's own rate (IIO sampling_frequency from its _available list, the
    // lis3lv02d input device's poll interval) up to maxRaisedHz. Needs root; every change is
    // recorded in the source's changes() and put back by restore().
    bool raiseRate = false;
    double maxRaisedHz = 200.0;
    // Read each polled source once while opening, so that a busy or broken one is skipped.
    // Off for callers on a thread that must not wait for a slow bus.
    bool probePolled = true;
};

struct OpenResult {
    std::unique_ptr<SampleSource> source;  // null when nothing could be opened
    int matched = 0;                       // accelerometer devices found
    std::string error;                     // why the candidates failed, "; "-separated
};

// Looks for accelerometers and opens the best source that works. A busy device (EBUSY) or
// any other failure moves on to the next candidate.
OpenResult openAccelerometer(const OpenOptions& options = {});

double monotonicNow();

}  // namespace bonkwell::accel

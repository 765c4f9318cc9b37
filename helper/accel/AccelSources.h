// SPDX-License-Identifier: GPL-3.0-or-later
// The individual accelerometer sources behind openAccelerometer(). Internal to the library.
#pragma once

#include "AccelDevice.h"

#include <array>
#include <memory>
#include <string>

namespace bonkwell::accel {

inline constexpr const char* kIioDevices = "/sys/bus/iio/devices";
inline constexpr const char* kInputClass = "/sys/class/input";

// Scale, offset and mount of one IIO accelerometer: g = M · ((raw + offset) · scale / g0).
struct IioCalibration {
    std::array<double, 3> scale{1, 1, 1};
    std::array<double, 3> offset{0, 0, 0};
    Matrix3 mount = kIdentity;

    Vec3 toG(const std::array<double, 3>& raw) const;
};

// Reads in_accel_[xyz_]scale, _offset and the mount matrix of an IIO device directory.
// False (with a reason) when no scale can be found.
bool readIioCalibration(const std::string& dir, IioCalibration& out, std::string& error);
// The device's sampling frequency, 0 when it does not say.
double readIioRate(const std::string& dir);
// "iio:device0 (accel_3d)" or "iio:device0 (accel_3d, accel-display)".
std::string describeIio(const std::string& device);

// Opens a /dev node for non-blocking reading; fails (errno ENODEV) unless it is a character
// device.
int openCharDevice(const std::string& path);

// Sets the device's sampling frequency to the highest rate it offers up to `limitHz`, when
// that is above the current one; the change goes into `changes`. Best effort: a device that
// offers no list, or refuses the write, keeps its rate.
void raiseIioRate(const std::string& dir, double limitHz, SettingChanges& changes);

std::unique_ptr<SampleSource> openIioBuffer(const std::string& device, double raiseToHz,
                                            std::string& error);
std::unique_ptr<SampleSource> openEvdev(const std::string& event, double raiseToHz,
                                        std::string& error);
std::unique_ptr<SampleSource> openIioPoll(const std::string& device, double maxHz, bool probe,
                                          double raiseToHz, std::string& error);

struct PositionFile {
    const char* path;
    const char* name;
    const char* rateAttribute;  // may be null
    double gPerCount;
    bool twoAxes;
};
std::unique_ptr<SampleSource> openPosition(const PositionFile& file, double maxHz, bool probe,
                                           std::string& error);
// Parses "(x,y,z)" or "(x,y)" as written by the position attributes.
bool parsePosition(const std::string& text, std::array<double, 3>& out, int& axes);

}  // namespace bonkwell::accel

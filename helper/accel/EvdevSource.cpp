// SPDX-License-Identifier: GPL-3.0-or-later
// The evdev source: an input device with absolute X, Y and Z (lis3lv02d and others).
#include "AccelSources.h"
#include "Sysfs.h"

#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace bonkwell::accel {
namespace {

class EvdevSource final : public SampleSource {
  public:
    EvdevSource(std::string description, double rate, int fd)
        : SampleSource(SourceKind::evdev, std::move(description), rate), fd_(fd) {}
    ~EvdevSource() override { ::close(fd_); }

    int waitFd() const override { return fd_; }
    void setPollRate(double rate) { setRate(rate); }

    // Reads the current axis values and their units; ioctls the device lacks leave defaults.
    void sync() {
        for (int axis = 0; axis < 3; ++axis) {
            input_absinfo info{};
            if (::ioctl(fd_, EVIOCGABS(axis), &info) == 0) {
                value_[axis] = info.value;
                // Accelerometers give resolution in units per g; drivers that leave it at 0
                // (lis3lv02d, the common case) report milli-g.
                gPerUnit_[axis] = info.resolution > 0 ? 1.0 / info.resolution : 0.001;
            }
        }
    }

    bool read(std::vector<Sample>& out, std::string& error) override {
        input_event events[64];
        while (true) {
            const ssize_t n = ::read(fd_, events, sizeof events);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                if (errno == EAGAIN) {
                    return true;
                }
                error = std::string("reading the input device failed: ") + std::strerror(errno);
                return false;
            }
            if (n == 0) {
                error = "the input device went away";
                return false;
            }
            const std::size_t count = static_cast<std::size_t>(n) / sizeof(input_event);
            for (std::size_t i = 0; i < count; ++i) {
                handle(events[i], out);
            }
            if (static_cast<std::size_t>(n) < sizeof events) {
                return true;
            }
        }
    }

  private:
    void handle(const input_event& e, std::vector<Sample>& out) {
        if (e.type == EV_ABS && e.code <= ABS_Z) {
            if (!dropped_) {
                value_[e.code] = e.value;
            }
        } else if (e.type == EV_SYN && e.code == SYN_DROPPED) {
            dropped_ = true;  // the kernel queue overflowed: discard until the next report
        } else if (e.type == EV_SYN && e.code == SYN_REPORT) {
            if (dropped_) {
                dropped_ = false;
                sync();
            }
            out.push_back(Sample{
                Vec3{value_[0] * gPerUnit_[0], value_[1] * gPerUnit_[1], value_[2] * gPerUnit_[2]},
                monotonicNow()});
        }
    }

    int fd_;
    double value_[3] = {0, 0, 0};
    double gPerUnit_[3] = {0.001, 0.001, 0.001};
    bool dropped_ = false;
};

}  // namespace

std::unique_ptr<SampleSource> openEvdev(const std::string& event, double raiseToHz,
                                        std::string& error) {
    const std::string node = "/dev/input/" + event;
    const int fd = openCharDevice(node);
    if (fd < 0) {
        error = node + ": " + std::strerror(errno);
        return nullptr;
    }
    const std::string dev = std::string(kInputClass) + "/" + event + "/device";
    double rate = 0;
    if (auto poll = parseDouble(readAttribute(dev + "/poll").value_or("")); poll && *poll > 0) {
        rate = 1000.0 / *poll;  // lis3lv02d polls every `poll` milliseconds
    }
    std::string description = event;
    if (auto name = readAttribute(dev + "/name")) {
        description += " (" + *name + ")";
    }
    auto source = std::make_unique<EvdevSource>(description, rate, fd);
    // A polled input device (lis3lv02d) reads the chip every `poll` milliseconds.
    if (raiseToHz > 0 && rate > 0 && rate < raiseToHz) {
        const long wanted = std::max(10L, std::lround(1000.0 / raiseToHz));
        std::string ignored;
        if (wanted < std::lround(1000.0 / rate) &&
            source->changes().set(dev + "/poll", std::to_string(wanted), ignored)) {
            source->setPollRate(1000.0 / static_cast<double>(wanted));
        }
    }
    source->sync();
    return source;
}

}  // namespace bonkwell::accel

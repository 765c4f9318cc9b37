// SPDX-License-Identifier: GPL-3.0-or-later
// The IIO buffer source: /dev/iio:deviceN at the device's full rate.
#include "AccelSources.h"
#include "ScanDecoder.h"
#include "Sysfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace bonkwell::accel {
namespace {

class IioBufferSource final : public SampleSource {
  public:
    IioBufferSource(std::string description, double rate)
        : SampleSource(SourceKind::iioBuffer, std::move(description), rate) {}
    ~IioBufferSource() override {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        restore();
    }

    int waitFd() const override { return fd_; }
    void setDeviceRate(double rate) { setRate(rate); }

    bool read(std::vector<Sample>& out, std::string& error) override {
        std::uint8_t chunk[4096];
        while (true) {
            const ssize_t n = ::read(fd_, chunk, sizeof chunk);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                if (errno == EAGAIN) {
                    break;
                }
                error = std::string("reading the buffer failed: ") + std::strerror(errno);
                return false;
            }
            if (n == 0) {
                error = "the buffer device closed";
                return false;
            }
            pending_.insert(pending_.end(), chunk, chunk + n);
            if (static_cast<std::size_t>(n) < sizeof chunk) {
                break;
            }
        }
        decodeScans(out);
        return true;
    }

    int fd_ = -1;
    ScanLayout layout_;
    IioCalibration cal_;

  private:
    void decodeScans(std::vector<Sample>& out) {
        const std::size_t size = layout_.scanBytes;
        const std::size_t count = pending_.size() / size;
        if (count == 0) {
            return;
        }
        const double now = monotonicNow();
        const auto* x = layout_.find("in_accel_x");
        const auto* y = layout_.find("in_accel_y");
        const auto* z = layout_.find("in_accel_z");
        const auto* ts = layout_.find("in_timestamp");
        auto timestampOf = [&](std::size_t i) -> std::optional<std::int64_t> {
            if (!ts) {
                return std::nullopt;
            }
            return decodeChannel(ts->type, std::span(pending_).subspan(i * size, size), ts->offset);
        };
        const auto lastStamp = timestampOf(count - 1);
        for (std::size_t i = 0; i < count; ++i) {
            const auto scan = std::span<const std::uint8_t>(pending_).subspan(i * size, size);
            const auto vx = decodeChannel(x->type, scan, x->offset);
            const auto vy = decodeChannel(y->type, scan, y->offset);
            const auto vz = decodeChannel(z->type, scan, z->offset);
            if (!vx || !vy || !vz) {
                continue;
            }
            // Scans read together are placed in time by their own timestamps, measured back
            // from now; the timestamp clock may be the wall clock, which can jump.
            double t = now;
            if (const auto stamp = timestampOf(i); stamp && lastStamp) {
                const double back = static_cast<double>(*lastStamp - *stamp) * 1e-9;
                if (back >= 0 && back < 2.0) {
                    t = now - back;
                }
            }
            out.push_back(Sample{cal_.toG({static_cast<double>(*vx), static_cast<double>(*vy),
                                           static_cast<double>(*vz)}),
                                 t});
        }
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(count * size));
    }

    std::vector<std::uint8_t> pending_;
};

std::vector<std::string> enabledChannels(const std::string& scanDir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(scanDir.c_str());
    if (!d) {
        return names;
    }
    while (const dirent* entry = ::readdir(d)) {
        const std::string name = entry->d_name;
        if (name.size() > 3 && name.size() < 64 && name.ends_with("_en") &&
            readAttribute(scanDir + "/" + name).value_or("0") == "1") {
            names.push_back(name.substr(0, name.size() - 3));
        }
    }
    ::closedir(d);
    return names;
}

}  // namespace

std::unique_ptr<SampleSource> openIioBuffer(const std::string& device, double raiseToHz,
                                            std::string& error) {
    const std::string dir = std::string(kIioDevices) + "/" + device;
    auto source = std::make_unique<IioBufferSource>(describeIio(device), readIioRate(dir));
    if (!readIioCalibration(dir, source->cal_, error)) {
        return nullptr;
    }
    if (readAttribute(dir + "/buffer/enable").value_or("") == "1") {
        error = "its buffer is already streaming to another reader";
        return nullptr;
    }
    const std::string node = "/dev/" + device;
    source->fd_ = openCharDevice(node);
    if (source->fd_ < 0) {
        error = node + ": " + std::strerror(errno);
        return nullptr;
    }
    const std::string scanDir = dir + "/scan_elements";
    for (const char* axis : {"in_accel_x_en", "in_accel_y_en", "in_accel_z_en"}) {
        if (!source->changes().set(scanDir + "/" + axis, "1", error)) {
            return nullptr;
        }
    }
    if (::access((scanDir + "/in_timestamp_en").c_str(), F_OK) == 0 &&
        !source->changes().set(scanDir + "/in_timestamp_en", "1", error)) {
        return nullptr;
    }
    std::vector<ScanChannel> channels;
    for (const auto& name : enabledChannels(scanDir)) {
        ScanChannel channel;
        channel.name = name;
        const auto index =
            parseInteger(readAttribute(scanDir + "/" + name + "_index").value_or(""));
        const auto type =
            parseChannelType(readAttribute(scanDir + "/" + name + "_type").value_or(""), &error);
        if (!index || !type) {
            error = "scan channel " + name + ": " + (type ? "no index" : error);
            return nullptr;
        }
        channel.index = static_cast<int>(*index);
        channel.type = *type;
        channels.push_back(channel);
    }
    auto layout = layoutScan(std::move(channels), &error);
    if (!layout || !layout->find("in_accel_x") || !layout->find("in_accel_y") ||
        !layout->find("in_accel_z")) {
        if (layout) {
            error = "the scan lacks an axis";
        }
        return nullptr;
    }
    source->layout_ = std::move(*layout);
    // A HID sensor hub needs its own trigger, named after the device ("accel_3d-dev0").
    const std::string trigger = dir + "/trigger/current_trigger";
    if (::access(trigger.c_str(), F_OK) == 0 && readAttribute(trigger).value_or("x").empty()) {
        const auto name = readAttribute(dir + "/name").value_or("");
        const std::string number = device.substr(std::string("iio:device").size());
        if (!name.empty() && !source->changes().set(trigger, name + "-dev" + number, error)) {
            return nullptr;
        }
    }
    const auto length = parseInteger(readAttribute(dir + "/buffer/length").value_or(""));
    if (length && *length < 16 && !source->changes().set(dir + "/buffer/length", "64", error)) {
        return nullptr;
    }
    if (raiseToHz > 0) {
        raiseIioRate(dir, raiseToHz, source->changes());
        source->setDeviceRate(readIioRate(dir));
    }
    if (!source->changes().set(dir + "/buffer/enable", "1", error)) {
        return nullptr;
    }
    return source;
}

}  // namespace bonkwell::accel

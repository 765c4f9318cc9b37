// SPDX-License-Identifier: GPL-3.0-or-later
#include "AccelDevice.h"

#include "AccelSources.h"
#include "Sysfs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <sstream>

namespace bonkwell::accel {

double length(const Vec3& v) {
    return std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
}

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string::npos ? end : end - start));
        if (end == std::string::npos) {
            return parts;
        }
        start = end + 1;
    }
}

}  // namespace

std::optional<Matrix3> parseMountMatrix(const std::string& text) {
    Matrix3 m{};
    const auto rows = split(trimmed(text), ';');
    if (rows.size() != 3) {
        return std::nullopt;
    }
    for (std::size_t r = 0; r < 3; ++r) {
        const auto cells = split(rows[r], ',');
        if (cells.size() != 3) {
            return std::nullopt;
        }
        for (std::size_t c = 0; c < 3; ++c) {
            auto value = parseDouble(cells[c]);
            if (!value) {
                return std::nullopt;
            }
            m[r * 3 + c] = *value;
        }
    }
    return m;
}

Vec3 rotate(const Matrix3& m, const Vec3& v) {
    return Vec3{m[0] * v.x + m[1] * v.y + m[2] * v.z, m[3] * v.x + m[4] * v.y + m[5] * v.z,
                m[6] * v.x + m[7] * v.y + m[8] * v.z};
}

const char* kindName(SourceKind kind) {
    switch (kind) {
        case SourceKind::iioBuffer:
            return "IIO buffer";
        case SourceKind::evdev:
            return "input device";
        case SourceKind::iioPoll:
            return "IIO sysfs polling";
        case SourceKind::positionFile:
            return "position file";
    }
    return "unknown";
}

double monotonicNow() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

Vec3 IioCalibration::toG(const std::array<double, 3>& raw) const {
    Vec3 v{(raw[0] + offset[0]) * scale[0] / kStandardGravity,
           (raw[1] + offset[1]) * scale[1] / kStandardGravity,
           (raw[2] + offset[2]) * scale[2] / kStandardGravity};
    return rotate(mount, v);
}

bool readIioCalibration(const std::string& dir, IioCalibration& out, std::string& error) {
    static constexpr const char* kAxes[3] = {"x", "y", "z"};
    const auto shared = readAttribute(dir + "/in_accel_scale");
    const auto sharedOffset = readAttribute(dir + "/in_accel_offset");
    for (int i = 0; i < 3; ++i) {
        auto own = readAttribute(dir + "/in_accel_" + kAxes[i] + "_scale");
        auto scale = own ? parseDouble(*own) : (shared ? parseDouble(*shared) : std::nullopt);
        if (!scale || *scale == 0.0) {
            error = "no usable in_accel_scale";
            return false;
        }
        out.scale[i] = *scale;
        auto ownOffset = readAttribute(dir + "/in_accel_" + kAxes[i] + "_offset");
        auto offset = ownOffset ? parseDouble(*ownOffset)
                                : (sharedOffset ? parseDouble(*sharedOffset) : std::nullopt);
        out.offset[i] = offset.value_or(0.0);
    }
    out.mount = kIdentity;
    for (const char* name : {"in_accel_mount_matrix", "mount_matrix", "in_mount_matrix"}) {
        if (auto text = readAttribute(dir + "/" + name)) {
            if (auto m = parseMountMatrix(*text)) {
                out.mount = *m;
            }
            break;
        }
    }
    return true;
}

double readIioRate(const std::string& dir) {
    for (const char* name : {"in_accel_sampling_frequency", "sampling_frequency"}) {
        if (auto text = readAttribute(dir + "/" + name)) {
            if (auto rate = parseDouble(*text); rate && *rate > 0) {
                return *rate;
            }
        }
    }
    return 0.0;
}

void raiseIioRate(const std::string& dir, double limitHz, SettingChanges& changes) {
    for (const char* name : {"in_accel_sampling_frequency", "sampling_frequency"}) {
        const std::string path = dir + "/" + name;
        const auto current = readAttribute(path);
        const auto offered = readAttribute(path + "_available");
        if (!current || !offered) {
            continue;
        }
        const double now = parseDouble(*current).value_or(0.0);
        std::string best;
        double bestHz = now;
        std::stringstream words(*offered);
        std::string word;
        while (words >> word) {
            const auto hz = parseDouble(word);
            if (hz && *hz > bestHz && *hz <= limitHz) {
                bestHz = *hz;
                best = word;
            }
        }
        std::string ignored;
        if (!best.empty()) {
            changes.set(path, best, ignored);
        }
        return;
    }
}

std::string describeIio(const std::string& device) {
    const std::string dir = std::string(kIioDevices) + "/" + device;
    std::string text = device;
    const auto name = readAttribute(dir + "/name");
    const auto label = readAttribute(dir + "/label");
    if (name || label) {
        text += " (" + name.value_or("") + (name && label ? ", " : "") + label.value_or("") + ")";
    }
    return text;
}

namespace {

double pollRate(double deviceRate, double maxHz) {
    const double fallback = 20.0;  // devices that do not say are polled at a modest rate
    const double rate = deviceRate > 0 ? deviceRate : fallback;
    return std::min(rate, maxHz > 0 ? maxHz : 100.0);
}

// Polls in_accel_{x,y,z}_raw through descriptors kept open.
class IioPollSource final : public SampleSource {
  public:
    IioPollSource(std::string description, double rate, std::array<int, 3> fds, IioCalibration cal)
        : SampleSource(SourceKind::iioPoll, std::move(description), rate), fds_(fds), cal_(cal) {}
    ~IioPollSource() override {
        for (int fd : fds_) {
            ::close(fd);
        }
    }
    int waitFd() const override { return -1; }
    void setPollRate(double rate) { setRate(rate); }
    bool read(std::vector<Sample>& out, std::string& error) override {
        std::array<double, 3> raw{};
        for (int i = 0; i < 3; ++i) {
            int err = 0;
            auto text = readAttributeFd(fds_[i], &err);
            if (!text) {
                if (err == EBUSY || err == EAGAIN || err == ETIMEDOUT || err == EIO) {
                    return true;  // someone streams the buffer, or the bus hiccuped: skip a tick
                }
                error = std::string("reading the axis failed: ") + std::strerror(err);
                return false;
            }
            auto value = parseDouble(*text);
            if (!value) {
                return true;  // a torn or empty value: skip this tick
            }
            raw[i] = *value;
        }
        out.push_back(Sample{cal_.toG(raw), monotonicNow()});
        return true;
    }

  private:
    std::array<int, 3> fds_;
    IioCalibration cal_;
};

class PositionSource final : public SampleSource {
  public:
    PositionSource(std::string description, double rate, int fd, PositionFile file)
        : SampleSource(SourceKind::positionFile, std::move(description), rate),
          fd_(fd),
          file_(file) {}
    ~PositionSource() override { ::close(fd_); }
    int waitFd() const override { return -1; }
    bool read(std::vector<Sample>& out, std::string& error) override {
        int err = 0;
        auto text = readAttributeFd(fd_, &err);
        if (!text) {
            if (err == EBUSY || err == EAGAIN || err == EIO) {
                return true;
            }
            error = std::string("reading the position failed: ") + std::strerror(err);
            return false;
        }
        std::array<double, 3> v{};
        int axes = 0;
        if (!parsePosition(*text, v, axes)) {
            return true;
        }
        Vec3 g{v[0] * file_.gPerCount, v[1] * file_.gPerCount, v[2] * file_.gPerCount};
        if (file_.twoAxes) {
            // Two axes only (hdaps): their counts have an arbitrary zero, so measure from the
            // first reading and let the missing axis carry the rest of gravity.
            if (!origin_) {
                origin_ = g;
            }
            g.x -= origin_->x;
            g.y -= origin_->y;
            g.z = std::sqrt(std::max(0.0, 1.0 - g.x * g.x - g.y * g.y));
        }
        out.push_back(Sample{g, monotonicNow()});
        return true;
    }

  private:
    int fd_;
    PositionFile file_;
    std::optional<Vec3> origin_;
};

// lis3lv02d reports milli-g. applesmc and hdaps report uncalibrated counts; about 256 per g
// is the usual figure for both, which is good enough for a jolt detector.
constexpr PositionFile kPositionFiles[] = {
    {"/sys/devices/platform/lis3lv02d/position", "lis3lv02d",
     "/sys/devices/platform/lis3lv02d/rate", 0.001, false},
    {"/sys/devices/platform/applesmc.768/position", "applesmc", nullptr, 1.0 / 256.0, false},
    {"/sys/devices/platform/hdaps/position", "hdaps", nullptr, 1.0 / 256.0, true},
};

bool isIioAccel(const std::string& device, bool& hasBuffer, bool& hasRaw) {
    const std::string dir = std::string(kIioDevices) + "/" + device;
    hasRaw = ::access((dir + "/in_accel_x_raw").c_str(), F_OK) == 0 &&
             ::access((dir + "/in_accel_y_raw").c_str(), F_OK) == 0 &&
             ::access((dir + "/in_accel_z_raw").c_str(), F_OK) == 0;
    hasBuffer = ::access((dir + "/scan_elements/in_accel_x_en").c_str(), F_OK) == 0 &&
                ::access((dir + "/scan_elements/in_accel_y_en").c_str(), F_OK) == 0 &&
                ::access((dir + "/scan_elements/in_accel_z_en").c_str(), F_OK) == 0;
    return hasRaw || hasBuffer;
}

unsigned long long lastHexWord(const std::string& text) {
    const std::string t = trimmed(text);
    const std::size_t space = t.find_last_of(' ');
    return std::strtoull(t.substr(space == std::string::npos ? 0 : space + 1).c_str(), nullptr, 16);
}

// An input device is an accelerometer when it says so (INPUT_PROP_ACCELEROMETER), or when it
// has absolute X, Y and Z and no keys or buttons at all (the lis3lv02d kind).
bool isEvdevAccel(const std::string& event) {
    const std::string dev = std::string(kInputClass) + "/" + event + "/device";
    const auto ev = readAttribute(dev + "/capabilities/ev");
    const auto abs = readAttribute(dev + "/capabilities/abs");
    if (!ev || !abs || !(lastHexWord(*ev) & (1u << 3)) || (lastHexWord(*abs) & 7u) != 7u) {
        return false;
    }
    if (auto props = readAttribute(dev + "/properties"); props && (lastHexWord(*props) & 0x40)) {
        return true;
    }
    const auto keys = readAttribute(dev + "/capabilities/key");
    if (!keys) {
        return true;
    }
    const std::string k = trimmed(*keys);
    return std::all_of(k.begin(), k.end(), [](char c) { return c == '0' || c == ' '; });
}

// Prefers a sensor that is not in the display half of a 2-in-1: the base is what gets slapped.
std::vector<std::string> iioAccelDevices(std::vector<std::string>& withBuffer,
                                         std::vector<std::string>& withRaw) {
    std::vector<std::string> all;
    for (const auto& device : numberedEntries(kIioDevices, "iio:device")) {
        bool buffer = false;
        bool raw = false;
        if (isIioAccel(device, buffer, raw)) {
            all.push_back(device);
        }
    }
    std::stable_sort(all.begin(), all.end(), [](const std::string& a, const std::string& b) {
        auto display = [](const std::string& d) {
            return readAttribute(std::string(kIioDevices) + "/" + d + "/label").value_or("") ==
                   "accel-display";
        };
        return !display(a) && display(b);
    });
    for (const auto& device : all) {
        bool buffer = false;
        bool raw = false;
        isIioAccel(device, buffer, raw);
        if (buffer) {
            withBuffer.push_back(device);
        }
        if (raw) {
            withRaw.push_back(device);
        }
    }
    return all;
}

void addReason(std::string& all, const std::string& what, const std::string& why) {
    if (!all.empty()) {
        all += "; ";
    }
    all += what + ": " + why;
}

}  // namespace

int openCharDevice(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return -1;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode)) {
        ::close(fd);
        errno = ENODEV;
        return -1;
    }
    return fd;
}

bool parsePosition(const std::string& text, std::array<double, 3>& out, int& axes) {
    const std::string t = trimmed(text);
    if (t.size() < 5 || t.front() != '(' || t.back() != ')') {
        return false;
    }
    std::stringstream parts(t.substr(1, t.size() - 2));
    std::string item;
    axes = 0;
    while (std::getline(parts, item, ',')) {
        auto value = parseInteger(item);
        if (!value || axes >= 3) {
            return false;
        }
        out[static_cast<std::size_t>(axes++)] = static_cast<double>(*value);
    }
    return axes >= 2;
}

std::unique_ptr<SampleSource> openIioPoll(const std::string& device, double maxHz, bool probe,
                                          double raiseToHz, std::string& error) {
    const std::string dir = std::string(kIioDevices) + "/" + device;
    IioCalibration cal;
    if (!readIioCalibration(dir, cal, error)) {
        return nullptr;
    }
    std::array<int, 3> fds{-1, -1, -1};
    static constexpr const char* kRaw[3] = {"in_accel_x_raw", "in_accel_y_raw", "in_accel_z_raw"};
    for (int i = 0; i < 3; ++i) {
        fds[i] = ::open((dir + "/" + kRaw[i]).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        int err = fds[i] < 0 ? errno : 0;
        if (fds[i] >= 0 && probe && !readAttributeFd(fds[i], &err)) {
            ::close(fds[i]);
            fds[i] = -1;
        }
        if (fds[i] < 0) {
            error = std::string(kRaw[i]) + ": " + std::strerror(err);
            for (int j = 0; j < i; ++j) {
                ::close(fds[j]);
            }
            return nullptr;
        }
    }
    auto source = std::make_unique<IioPollSource>(describeIio(device),
                                                  pollRate(readIioRate(dir), maxHz), fds, cal);
    if (raiseToHz > 0) {
        raiseIioRate(dir, raiseToHz, source->changes());
        source->setPollRate(pollRate(readIioRate(dir), maxHz));
    }
    return source;
}

std::unique_ptr<SampleSource> openPosition(const PositionFile& file, double maxHz, bool probe,
                                           std::string& error) {
    const int fd = ::open(file.path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        error = std::strerror(errno);
        return nullptr;
    }
    if (probe) {
        int err = 0;
        auto text = readAttributeFd(fd, &err);
        std::array<double, 3> v{};
        int axes = 0;
        if (!text || !parsePosition(*text, v, axes)) {
            error = text ? "unreadable position \"" + *text + "\"" : std::strerror(err);
            ::close(fd);
            return nullptr;
        }
    }
    double rate = 0;
    if (file.rateAttribute) {
        if (auto r = readAttribute(file.rateAttribute)) {
            rate = parseDouble(*r).value_or(0.0);
        }
    }
    return std::make_unique<PositionSource>(file.name, pollRate(rate, maxHz), fd, file);
}

OpenResult openAccelerometer(const OpenOptions& options) {
    OpenResult result;
    std::vector<std::string> withBuffer;
    std::vector<std::string> withRaw;
    const auto iio = iioAccelDevices(withBuffer, withRaw);
    std::vector<std::string> events;
    for (const auto& event : numberedEntries(kInputClass, "event")) {
        if (isEvdevAccel(event)) {
            events.push_back(event);
        }
    }
    std::vector<const PositionFile*> positions;
    for (const auto& file : kPositionFiles) {
        if (::access(file.path, F_OK) == 0) {
            positions.push_back(&file);
        }
    }
    // A lis3lv02d shows up both as an input device and as a position file: count it once.
    const bool lis3Input = std::any_of(events.begin(), events.end(), [](const std::string& e) {
        return readAttribute(std::string(kInputClass) + "/" + e + "/device/name").value_or("") ==
               "ST LIS3LV02DL Accelerometer";
    });
    result.matched =
        static_cast<int>(iio.size() + events.size() + positions.size()) -
        (lis3Input && !positions.empty() && std::string(positions.front()->name) == "lis3lv02d"
             ? 1
             : 0);

    std::string why;
    const double raiseToHz = options.raiseRate ? options.maxRaisedHz : 0.0;
    if (options.allowBuffer) {
        for (const auto& device : withBuffer) {
            if (auto s = openIioBuffer(device, raiseToHz, why)) {
                result.source = std::move(s);
                return result;
            }
            addReason(result.error, device + " buffer", why);
        }
    }
    if (options.allowEvdev) {
        for (const auto& event : events) {
            if (auto s = openEvdev(event, raiseToHz, why)) {
                result.source = std::move(s);
                return result;
            }
            addReason(result.error, event, why);
        }
    }
    if (options.allowSysfsPoll) {
        for (const auto& device : withRaw) {
            if (auto s =
                    openIioPoll(device, options.maxPollHz, options.probePolled, raiseToHz, why)) {
                result.source = std::move(s);
                return result;
            }
            addReason(result.error, device, why);
        }
    }
    if (options.allowPosition) {
        for (const auto* file : positions) {
            if (auto s = openPosition(*file, options.maxPollHz, options.probePolled, why)) {
                result.source = std::move(s);
                return result;
            }
            addReason(result.error, file->path, why);
        }
    }
    return result;
}

}  // namespace bonkwell::accel

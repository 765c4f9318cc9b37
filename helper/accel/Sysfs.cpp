// SPDX-License-Identifier: GPL-3.0-or-later
#include "Sysfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace bonkwell::accel {

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r' ||
                             text.back() == '\t')) {
        text.pop_back();
    }
    std::size_t start = 0;
    while (start < text.size() && (text[start] == ' ' || text[start] == '\t')) {
        ++start;
    }
    return text.substr(start);
}

std::optional<std::string> readAttributeFd(int fd, int* err) {
    char buffer[4096];
    ssize_t n;
    do {
        n = ::pread(fd, buffer, sizeof buffer - 1, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (err) {
            *err = errno;
        }
        return std::nullopt;
    }
    return trimmed(std::string(buffer, static_cast<std::size_t>(n)));
}

std::optional<std::string> readAttribute(const std::string& path, int* err) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        if (err) {
            *err = errno;
        }
        return std::nullopt;
    }
    auto value = readAttributeFd(fd, err);
    ::close(fd);
    return value;
}

bool writeAttributeFd(int fd, const std::string& value) {
    // As echo(1) would: with a newline, which sysfs attributes accept and which makes an
    // empty value (no trigger) a real write.
    const std::string line = value + "\n";
    ssize_t n;
    do {
        n = ::pwrite(fd, line.data(), line.size(), 0);
    } while (n < 0 && errno == EINTR);
    // sysfs ignores the file size; an ordinary file (as in tests) must not keep a longer tail.
    // Only the write's result decides: where there is no size to set, failing is fine.
    [[maybe_unused]] const int truncated = ::ftruncate(fd, static_cast<off_t>(line.size()));
    return n == static_cast<ssize_t>(line.size());
}

std::optional<double> parseDouble(const std::string& text) {
    const std::string t = trimmed(text);
    if (t.empty()) {
        return std::nullopt;
    }
    double value = 0;
    auto [ptr, ec] = std::from_chars(t.data(), t.data() + t.size(), value);
    if (ec != std::errc{} || ptr != t.data() + t.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<long long> parseInteger(const std::string& text) {
    const std::string t = trimmed(text);
    long long value = 0;
    auto [ptr, ec] = std::from_chars(t.data(), t.data() + t.size(), value);
    if (t.empty() || ec != std::errc{} || ptr != t.data() + t.size()) {
        return std::nullopt;
    }
    return value;
}

std::vector<std::string> numberedEntries(const std::string& dir, const std::string& prefix) {
    std::vector<std::pair<long long, std::string>> found;
    DIR* d = ::opendir(dir.c_str());
    if (!d) {
        return {};
    }
    while (const dirent* entry = ::readdir(d)) {
        const std::string name = entry->d_name;
        if (name.size() <= prefix.size() || !name.starts_with(prefix) || name.size() > 32) {
            continue;
        }
        const std::string digits = name.substr(prefix.size());
        if (!std::all_of(digits.begin(), digits.end(),
                         [](char c) { return c >= '0' && c <= '9'; })) {
            continue;
        }
        found.emplace_back(std::atoll(digits.c_str()), name);
    }
    ::closedir(d);
    std::sort(found.begin(), found.end());
    std::vector<std::string> names;
    for (auto& [number, name] : found) {
        names.push_back(std::move(name));
    }
    return names;
}

}  // namespace bonkwell::accel

// SPDX-License-Identifier: GPL-3.0-or-later
#include "SettingChanges.h"

#include "Sysfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace bonkwell::accel {

SettingChanges::~SettingChanges() {
    restore();
    for (const auto& change : changes_) {
        ::close(change.fd);
    }
}

bool SettingChanges::set(const std::string& path, const std::string& value, std::string& error) {
    int err = 0;
    const auto original = readAttribute(path, &err);
    if (!original) {
        error = path + ": " + std::strerror(err);
        return false;
    }
    if (*original == value) {
        return true;
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 || !writeAttributeFd(fd, value)) {
        error = path + ": " + std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    changes_.push_back(Change{fd, *original});
    restored_ = false;
    return true;
}

void SettingChanges::restore() {
    if (restored_) {
        return;
    }
    for (auto it = changes_.rbegin(); it != changes_.rend(); ++it) {
        writeAttributeFd(it->fd, it->original);
    }
    restored_ = true;
}

}  // namespace bonkwell::accel

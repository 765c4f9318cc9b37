// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trust.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

namespace bonkwell::thuzz {

bool servesItsOwner(std::string& why) {
    if (::geteuid() == ::getuid()) {
        return true;  // nothing to give away
    }
    // The kernel's own name for the running file: no link or argument of the caller's in it.
    char exe[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) {
        why = "cannot tell where this copy of the detection engine is installed";
        return false;
    }
    const std::string path(exe, static_cast<std::size_t>(n));
    const auto slash = path.rfind('/');
    const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
    struct stat info {};
    if (slash == std::string::npos || ::lstat(folder.c_str(), &info) != 0 ||
        !S_ISDIR(info.st_mode)) {
        why = "cannot tell where this copy of the detection engine is installed";
        return false;
    }
    if (info.st_uid != ::getuid()) {
        why =
            "this copy of the detection engine belongs to another account; each user "
            "installs their own from Settings";
        return false;
    }
    return true;
}

}  // namespace bonkwell::thuzz

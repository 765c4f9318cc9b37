// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trust.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace bonkwell::thuzz {

namespace {

class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// Reads up to `size` bytes, fewer only at the end of the file.
ssize_t readFull(int fd, char* data, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, data + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool sameBytes(int running, const char* trustedPath) {
    Fd trusted(::open(trustedPath, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat t {};
    struct stat r {};
    if (trusted.get() < 0 || ::fstat(trusted.get(), &t) != 0 || ::fstat(running, &r) != 0 ||
        !S_ISREG(t.st_mode) || t.st_uid != 0 || (t.st_mode & 022) != 0 || t.st_size != r.st_size ||
        ::lseek(running, 0, SEEK_SET) != 0) {
        return false;
    }
    char a[16384];
    char b[16384];
    while (true) {
        const ssize_t n = readFull(running, a, sizeof a);
        const ssize_t m = readFull(trusted.get(), b, sizeof b);
        if (n < 0 || n != m) {
            return false;
        }
        if (n == 0) {
            return true;
        }
        if (std::memcmp(a, b, static_cast<std::size_t>(n)) != 0) {
            return false;
        }
    }
}

}  // namespace

bool isTrustedCopy() {
    if (::geteuid() == ::getuid()) {
        return true;
    }
    Fd running(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    if (running.get() < 0) {
        return false;
    }
    for (const char* trusted : {THUZZ_TRUSTED_PACKAGED, THUZZ_TRUSTED_BUILT}) {
        if (sameBytes(running.get(), trusted)) {
            return true;
        }
    }
    return false;
}

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

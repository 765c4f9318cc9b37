// SPDX-License-Identifier: GPL-3.0-or-later
#include "Privileges.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace bonkwell::thuzz {

void sanitizeDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
            const int opened = ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
            if (opened >= 0 && opened != fd) {
                ::dup2(opened, fd);
                ::close(opened);
            }
        }
    }
    if (::syscall(SYS_close_range, 3U, ~0U, 0U) != 0) {
        for (int fd = 3; fd < 1024; ++fd) {
            ::close(fd);
        }
    }
}

bool dropPrivileges(std::string& error) {
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    auto fail = [&error](const char* step) {
        error = std::string(step) + " failed: " + std::strerror(errno);
        return false;
    };
    if (::geteuid() == 0 && ::setgroups(0, nullptr) != 0) {
        return fail("setgroups");
    }
    if (::setresgid(gid, gid, gid) != 0) {
        return fail("setresgid");
    }
    if (::setresuid(uid, uid, uid) != 0) {
        return fail("setresuid");
    }
    uid_t r = 0, e = 0, s = 0;
    gid_t rg = 0, eg = 0, sg = 0;
    if (::getresuid(&r, &e, &s) != 0 || r != uid || e != uid || s != uid ||
        ::getresgid(&rg, &eg, &sg) != 0 || rg != gid || eg != gid || sg != gid) {
        error = "the user and group ids did not all change";
        return false;
    }
    if (uid != 0 && (::setuid(0) == 0 || ::seteuid(0) == 0)) {
        error = "root could be regained after dropping privileges";
        return false;
    }
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return fail("prctl(PR_SET_NO_NEW_PRIVS)");
    }
    return true;
}

}  // namespace bonkwell::thuzz

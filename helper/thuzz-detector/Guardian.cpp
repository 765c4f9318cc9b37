// SPDX-License-Identifier: GPL-3.0-or-later
#include "Guardian.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace bonkwell::thuzz {

namespace {

// Runs in the forked child and never returns.
[[noreturn]] void guard(accel::SampleSource& source, int lifeline) {
    // Fully root again (real and saved ids too) when we were started set-user-ID: the user may
    // then neither signal nor trace this process.
    if (::geteuid() == 0) {
        ::setresgid(0, 0, 0);
        ::setresuid(0, 0, 0);
    }
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    ::prctl(PR_SET_NAME, "thuzz-guardian", 0, 0, 0);
    // Out of the caller's session, so that a terminal's ^C or hangup reaches only the reader.
    ::setsid();
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGTTIN, SIGTTOU, SIGPIPE}) {
        ::signal(sig, SIG_IGN);
    }
    // Hold none of the reader's pipes: the app must see its helper's output end when it ends.
    const int devnull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; fd <= 2; ++fd) {
        if (devnull >= 0) {
            ::dup2(devnull, fd);
        }
    }
    char byte = 0;
    while (true) {
        const ssize_t n = ::read(lifeline, &byte, 1);
        if (n == 0 || (n < 0 && errno != EINTR)) {
            break;
        }
    }
    source.restore();
    ::_exit(0);
}

}  // namespace

bool Guardian::start(accel::SampleSource& source, std::string& error) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        error = std::string("cannot create the guardian's pipe: ") + std::strerror(errno);
        return false;
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
        error = std::string("cannot start the guardian: ") + std::strerror(errno);
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    if (pid == 0) {
        ::close(fds[1]);
        guard(source, fds[0]);
    }
    ::close(fds[0]);
    pid_ = pid;
    lifeline_ = fds[1];
    return true;
}

Guardian::~Guardian() {
    if (lifeline_ >= 0) {
        ::close(lifeline_);
    }
    if (pid_ > 0) {
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

}  // namespace bonkwell::thuzz

// SPDX-License-Identifier: GPL-3.0-or-later
// Runs a program for a test and collects what it writes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace bonkwell::test {

struct RunResult {
    int exitCode = -1;  // -1 when it ended by a signal or was killed for running too long
    bool timedOut = false;
    std::string out;
    std::string err;

    // stdout lines that are JSON objects.
    std::vector<std::string> jsonLines() const {
        std::vector<std::string> lines;
        std::size_t start = 0;
        while (start < out.size()) {
            std::size_t end = out.find('\n', start);
            if (end == std::string::npos) {
                end = out.size();
            }
            const std::string line = out.substr(start, end - start);
            if (!line.empty() && line.front() == '{') {
                lines.push_back(line);
            }
            start = end + 1;
        }
        return lines;
    }
    std::string firstLine() const { return out.substr(0, out.find('\n')); }
};

// Runs argv with stdin on /dev/null; kills it after `timeoutSeconds`.
inline RunResult run(const std::vector<std::string>& argv, double timeoutSeconds = 20.0) {
    RunResult result;
    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
        return result;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int devnull = ::open("/dev/null", O_RDONLY);
        ::dup2(devnull, 0);
        ::dup2(outPipe[1], 1);
        ::dup2(errPipe[1], 2);
        std::vector<char*> args;
        for (const auto& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    int open = 2;
    while (open > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            result.timedOut = true;
            ::kill(pid, SIGKILL);
            break;
        }
        if (::poll(fds, 2, static_cast<int>(left)) <= 0) {
            continue;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd >= 0 && fds[i].revents) {
                char buffer[4096];
                const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
                if (n <= 0) {
                    ::close(fds[i].fd);
                    fds[i].fd = -1;
                    --open;
                } else {
                    (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
                }
            }
        }
    }
    for (auto& fd : fds) {
        if (fd.fd >= 0) {
            ::close(fd.fd);
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!result.timedOut && WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    }
    return result;
}

}  // namespace bonkwell::test

// SPDX-License-Identifier: GPL-3.0-or-later
#include "ThuzzEngineProcess.h"

#include <QFile>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

extern char** environ;

namespace bonkwell {
namespace {

QString systemError(int code) {
    return QString::fromLocal8Bit(std::strerror(code));
}

}  // namespace

Pipe::~Pipe() {
    if (readEnd >= 0) {
        ::close(readEnd);
    }
    closeWriteEnd();
}

bool Pipe::open(QString* error) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        *error = systemError(errno);
        return false;
    }
    readEnd = fds[0];
    writeEnd = fds[1];
    return true;
}

void Pipe::closeWriteEnd() {
    if (writeEnd >= 0) {
        ::close(writeEnd);
        writeEnd = -1;
    }
}

int Pipe::takeReadEnd() {
    const int fd = readEnd;
    readEnd = -1;
    return fd;
}

int Pipe::takeWriteEnd() {
    const int fd = writeEnd;
    writeEnd = -1;
    return fd;
}

std::shared_ptr<ChildProcess> ChildProcess::launch(const QString& program,
                                                   const QStringList& arguments, int stdoutFd,
                                                   int stderrFd, QString* error, int stdinFd) {
    const QByteArray path = QFile::encodeName(program);
    std::vector<QByteArray> storage;
    storage.reserve(static_cast<std::size_t>(arguments.size()) + 1);
    storage.push_back(path);
    for (const QString& argument : arguments) {
        storage.push_back(argument.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& word : storage) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stdinFd, STDIN_FILENO);
    }
    if (stdoutFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
    }
    if (stderrFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stderrFd, STDERR_FILENO);
    }
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);

    // The child starts with default signal handling and an empty mask, whatever this
    // process has set up for itself.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, path.constData(), &actions, &attr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        *error = systemError(rc);
        return nullptr;
    }
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    return std::shared_ptr<ChildProcess>(new ChildProcess(pid, pidfd));
}

ChildProcess::~ChildProcess() {
    if (pidfd_ >= 0) {
        ::close(pidfd_);
    }
}

void ChildProcess::terminate() {
    if (!running_.load()) {
        return;
    }
    if (pidfd_ >= 0) {
        // A process descriptor keeps naming this child even after it has been reaped.
        ::syscall(SYS_pidfd_send_signal, pidfd_, SIGTERM, nullptr, 0);
    } else {
        ::kill(pid_, SIGTERM);
    }
}

int ChildProcess::reap() {
    int status = 0;
    pid_t rc;
    do {
        rc = ::waitpid(pid_, &status, 0);
    } while (rc < 0 && errno == EINTR);
    running_.store(false);
    return rc < 0 ? -1 : status;
}

void ChildProcess::watchTermination(std::function<void(int status)> onExit) {
    std::thread([self = shared_from_this(), onExit = std::move(onExit)]() {
        onExit(self->reap());
    }).detach();
}

int ChildProcess::wait() {
    return reap();
}

PipeReader::PipeReader(int fd, std::function<void(const char*, std::size_t)> onChunk)
    : fd_(fd), cancelFd_(::eventfd(0, EFD_CLOEXEC)), onChunk_(std::move(onChunk)) {
    thread_ = std::thread([this] { run(); });
}

PipeReader::~PipeReader() {
    cancelled_.store(true);
    const std::uint64_t one = 1;
    if (cancelFd_ >= 0) {
        [[maybe_unused]] const ssize_t n = ::write(cancelFd_, &one, sizeof one);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    if (cancelFd_ >= 0) {
        ::close(cancelFd_);
    }
    ::close(fd_);
}

void PipeReader::run() {
    std::vector<char> chunk(64 * 1024);
    for (;;) {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {cancelFd_, POLLIN, 0}};
        // Without a cancel descriptor (the system refused one) look at the flag now and then.
        const int ready = ::poll(fds, cancelFd_ >= 0 ? 2 : 1, cancelFd_ >= 0 ? -1 : 100);
        if (cancelled_.load()) {
            return;
        }
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            return;
        }
        if (fds[0].revents == 0) {
            continue;
        }
        const ssize_t n = ::read(fd_, chunk.data(), chunk.size());
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return;
        }
        onChunk_(chunk.data(), static_cast<std::size_t>(n));
        if (n == 0) {
            return;
        }
    }
}

}  // namespace bonkwell

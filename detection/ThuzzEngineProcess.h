// SPDX-License-Identifier: GPL-3.0-or-later
// Child processes and pipe readers for the detection engine: launching a program with its
// standard input, output and error on pipes, watching for its end on a
// background thread, and reading a pipe on a background thread in chunks.
#pragma once

#include <QString>
#include <QStringList>

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

namespace bonkwell {

// Both ends of a pipe, close-on-exec. Closes what it still owns.
struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;

    Pipe() = default;
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe();

    // Creates the pipe; false with `error` set when the system refuses.
    bool open(QString* error);
    void closeWriteEnd();
    // Hands the read or the write end over to the caller.
    int takeReadEnd();
    int takeWriteEnd();
};

class ChildProcess : public std::enable_shared_from_this<ChildProcess> {
  public:
    // Starts `program` (an absolute path) with `arguments`, the caller's environment and
    // working directory. Standard input, output and error come from the given descriptors,
    // or are inherited when -1. Descriptors from 3 up are not passed on. On failure returns
    // nullptr and sets `error` to the system's description ("Permission denied").
    static std::shared_ptr<ChildProcess> launch(const QString& program,
                                                const QStringList& arguments, int stdoutFd,
                                                int stderrFd, QString* error, int stdinFd = -1);

    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    bool isRunning() const { return running_.load(); }

    // Asks the child to end (SIGTERM) without waiting. Never signals a recycled process id.
    void terminate();

    // Waits on a detached background thread for the child to end, then calls `onExit` with
    // its status (as from waitpid(), -1 when unknown) on that thread. The thread keeps the
    // process object alive. Call at most once, or use wait().
    void watchTermination(std::function<void(int status)> onExit);

    // Blocks until the child ends. Returns the exit status as from waitpid().
    int wait();

  private:
    ChildProcess(pid_t pid, int pidfd) : pid_(pid), pidfd_(pidfd) {}
    int reap();

    const pid_t pid_;
    const int pidfd_;
    std::atomic<bool> running_{true};
};

// Reads one descriptor on its own thread and passes every chunk read (up to 64 KiB) to
// `onChunk` on that thread, ending with one empty chunk at end of file. Destroying the
// reader stops it (without waiting for end of file), waits for its thread and closes the
// descriptor; `onChunk` is not called afterwards.
class PipeReader {
  public:
    PipeReader(int fd, std::function<void(const char* data, std::size_t size)> onChunk);
    ~PipeReader();
    PipeReader(const PipeReader&) = delete;
    PipeReader& operator=(const PipeReader&) = delete;

  private:
    void run();

    int fd_;
    int cancelFd_;
    std::atomic<bool> cancelled_{false};
    std::function<void(const char*, std::size_t)> onChunk_;
    std::thread thread_;
};

}  // namespace bonkwell

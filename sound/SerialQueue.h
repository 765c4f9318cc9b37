// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace bonkwell {

// One worker thread that runs tasks strictly in the order they were posted, at raised
// priority where the system allows it. Destroying the queue finishes the running task,
// drops the pending ones and joins the thread.
class SerialQueue {
  public:
    using Task = std::function<void()>;
    using TimePoint = std::chrono::steady_clock::time_point;

    explicit SerialQueue(std::string name);
    ~SerialQueue();  // shutdown()
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    // Queues a task; returns at once. False (task dropped) once the queue is shutting down.
    // Callable from any thread.
    bool post(Task task);
    // Runs `task` on the worker once nothing is queued and `when` has passed; replaces an
    // earlier timer. Callable from any thread.
    void setTimer(TimePoint when, Task task);
    // Runs `task` on the worker after everything queued before it, and waits for it.
    // Must not be called from the worker itself.
    void sync(const Task& task);
    // Lets the running task finish, drops the pending ones, runs the exit task and joins the
    // thread. Later posts are ignored. Idempotent; must not be called from the worker.
    void shutdown();
    // Runs just before the worker thread ends, on it (after the last task).
    void setOnExit(Task task);

    bool isWorkerThread() const { return std::this_thread::get_id() == worker_.get_id(); }

  private:
    void run();

    const std::string name_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    std::optional<std::pair<TimePoint, Task>> timer_;
    Task onExit_;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace bonkwell

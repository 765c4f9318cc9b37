// SPDX-License-Identifier: GPL-3.0-or-later
#include "SerialQueue.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <future>

namespace bonkwell {
namespace {

// The worker's tasks are short and latency-bound (decode a clip, start it). Ask for a
// real-time slot first, then for a better nice value; without the privilege both fail and
// the thread stays at normal priority, which still works.
void raiseThreadPriority() {
    sched_param param{};
    param.sched_priority = sched_get_priority_min(SCHED_RR);
    if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0) {
        return;
    }
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), -10);
}

}  // namespace

SerialQueue::SerialQueue(std::string name) : name_(std::move(name)) {
    worker_ = std::thread([this] { run(); });
}

SerialQueue::~SerialQueue() {
    shutdown();
}

void SerialQueue::shutdown() {
    if (!worker_.joinable()) {
        return;
    }
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        tasks_.clear();
        timer_.reset();
    }
    wake_.notify_all();
    worker_.join();
}

bool SerialQueue::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return false;
        }
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
    return true;
}

void SerialQueue::setTimer(TimePoint when, Task task) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return;
        }
        timer_.emplace(when, std::move(task));
    }
    wake_.notify_one();
}

void SerialQueue::sync(const Task& task) {
    std::promise<void> done;
    if (post([&] {
            task();
            done.set_value();
        })) {
        done.get_future().wait();
    }
}

void SerialQueue::setOnExit(Task task) {
    std::lock_guard lock(mutex_);
    onExit_ = std::move(task);
}

void SerialQueue::run() {
    pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
    raiseThreadPriority();
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        Task next;
        if (!tasks_.empty()) {
            next = std::move(tasks_.front());
            tasks_.pop_front();
        } else if (timer_ && std::chrono::steady_clock::now() >= timer_->first) {
            next = std::move(timer_->second);
            timer_.reset();
        } else if (timer_) {
            wake_.wait_until(lock, timer_->first);
            continue;
        } else {
            wake_.wait(lock);
            continue;
        }
        lock.unlock();
        next();
        next = nullptr;  // the task's captures die outside the lock, too
        lock.lock();
    }
    Task onExit = std::move(onExit_);
    lock.unlock();
    if (onExit) {
        onExit();
    }
}

}  // namespace bonkwell

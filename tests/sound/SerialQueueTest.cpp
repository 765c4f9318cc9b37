// SPDX-License-Identifier: GPL-3.0-or-later
#include "SerialQueue.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

using bonkwell::SerialQueue;
using namespace std::chrono_literals;

namespace {

TEST(SerialQueue, RunsTasksInOrderOnOneOtherThread) {
    SerialQueue queue("test-queue");
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    for (int i = 0; i < 100; ++i) {
        queue.post([&, i] {
            order.push_back(i);
            threads.push_back(std::this_thread::get_id());
        });
    }
    queue.sync([] {});
    ASSERT_EQ(order.size(), 100U);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
        EXPECT_EQ(threads[static_cast<std::size_t>(i)], threads[0]);
    }
    EXPECT_NE(threads[0], std::this_thread::get_id());
}

TEST(SerialQueue, TimerFiresWhenDueAndALaterOneReplacesIt) {
    SerialQueue queue("test-queue");
    std::promise<int> fired;
    queue.setTimer(std::chrono::steady_clock::now() + 10s, [&] { fired.set_value(1); });
    queue.setTimer(std::chrono::steady_clock::now() + 50ms, [&] { fired.set_value(2); });
    auto result = fired.get_future();
    ASSERT_EQ(result.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(result.get(), 2);
}

TEST(SerialQueue, ShutdownFinishesTheRunningTaskAndDropsThePending) {
    std::atomic<int> ran{0};
    std::promise<void> started;
    std::promise<void> release;
    std::atomic<bool> exitRan{false};
    auto queue = std::make_unique<SerialQueue>("test-queue");
    queue->setOnExit([&] { exitRan = true; });
    queue->post([&] {
        started.set_value();
        release.get_future().wait();
        ++ran;
    });
    started.get_future().wait();
    queue->post([&] { ++ran; });
    queue->post([&] { ++ran; });
    std::thread stopper([&] { queue->shutdown(); });
    std::this_thread::sleep_for(50ms);
    release.set_value();
    stopper.join();
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(exitRan);
    EXPECT_FALSE(queue->post([&] { ++ran; })) << "posts after shutdown are refused";
    queue->sync([&] { ++ran; });  // returns at once instead of waiting forever
    EXPECT_EQ(ran, 1);
}

TEST(SerialQueue, WorkerAsksForHigherPriority) {
    SerialQueue queue("test-queue");
    int policy = -1;
    int nice = 0;
    queue.sync([&] {
        sched_param param{};
        pthread_getschedparam(pthread_self(), &policy, &param);
        nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    });
    // Allowed to (root, or CAP_SYS_NICE): a real-time slot. Otherwise the thread runs on at
    // normal priority, possibly with a better nice value where RLIMIT_NICE allows it.
    // Probe on this thread, then put it back.
    sched_param probe{};
    probe.sched_priority = sched_get_priority_min(SCHED_RR);
    const bool allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &probe) == 0;
    if (allowed) {
        sched_param normal{};
        pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
    }
    if (allowed) {
        EXPECT_EQ(policy, SCHED_RR);
    } else {
        EXPECT_EQ(policy, SCHED_OTHER);
        EXPECT_LE(nice, getpriority(PRIO_PROCESS, 0));
    }
}

}  // namespace

// SPDX-License-Identifier: GPL-3.0-or-later
#include "MainQueue.h"

#include "TestSupport.h"

#include <QObject>
#include <QThread>

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

using bonkwell::MainQueue::post;
using bonkwell::test::drainMainQueue;

TEST(MainQueue, RunsLaterNotInsidePost) {
    bool ran = false;
    post([&] { ran = true; });
    EXPECT_FALSE(ran);
    drainMainQueue();
    EXPECT_TRUE(ran);
}

TEST(MainQueue, KeepsPostingOrder) {
    std::vector<int> order;
    for (int i = 0; i < 50; ++i) {
        post([&order, i] { order.push_back(i); });
    }
    drainMainQueue();
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(order[static_cast<size_t>(i)], i);
    }
}

TEST(MainQueue, TasksFromAnotherThreadRunOnTheMainThread) {
    QThread* mainThread = QThread::currentThread();
    std::vector<int> order;
    std::vector<bool> onMain;
    std::thread worker([&] {
        for (int i = 0; i < 20; ++i) {
            post([&, i] {
                order.push_back(i);
                onMain.push_back(QThread::currentThread() == mainThread);
            });
        }
    });
    worker.join();
    drainMainQueue();
    ASSERT_EQ(order.size(), 20u);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(order[static_cast<size_t>(i)], i);
        EXPECT_TRUE(onMain[static_cast<size_t>(i)]);
    }
}

TEST(MainQueue, TaskWithDestroyedContextIsDropped) {
    auto context = std::make_unique<QObject>();
    bool ran = false;
    post(context.get(), [&] { ran = true; });
    context.reset();
    drainMainQueue();
    EXPECT_FALSE(ran);
}

TEST(MainQueue, TaskWithLiveContextRuns) {
    QObject context;
    bool ran = false;
    post(&context, [&] { ran = true; });
    drainMainQueue();
    EXPECT_TRUE(ran);
}

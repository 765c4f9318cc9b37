// SPDX-License-Identifier: GPL-3.0-or-later
#include "Observable.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using bonkwell::Published;
using bonkwell::Subscription;

TEST(Published, SubscribingDeliversTheCurrentValueAtOnce) {
    Published<int> p(7);
    std::vector<int> seen;
    Subscription s = p.subscribe([&](const int& v) { seen.push_back(v); });
    EXPECT_EQ(seen, std::vector<int>{7});
}

TEST(Published, HandlerSeesNewValueWhileThePropertyStillHoldsTheOld) {
    Published<int> p(1);
    std::vector<std::pair<int, int>> seen;  // (argument, value read back)
    Subscription s = p.subscribe([&](const int& v) { seen.emplace_back(v, p.get()); });
    p.set(2);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].first, 2);
    EXPECT_EQ(seen[1].second, 1);
    EXPECT_EQ(p.get(), 2);
}

TEST(Published, EveryAssignmentNotifiesEvenWithAnEqualValue) {
    Published<int> p(3);
    int calls = 0;
    Subscription s = p.subscribe([&](const int&) { ++calls; });
    p.set(3);
    p.set(3);
    EXPECT_EQ(calls, 3);
}

TEST(Published, SubscribersAreCalledInSubscriptionOrder) {
    Published<int> p(0);
    std::vector<char> order;
    Subscription a = p.subscribe([&](const int&) { order.push_back('a'); });
    Subscription b = p.subscribe([&](const int&) { order.push_back('b'); });
    order.clear();
    p.set(1);
    EXPECT_EQ(order, (std::vector<char>{'a', 'b'}));
}

TEST(Published, DestroyingTheHandleEndsTheSubscription) {
    Published<int> p(0);
    int calls = 0;
    {
        Subscription s = p.subscribe([&](const int&) { ++calls; });
    }
    p.set(1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(p.subscriberCount(), 0u);
}

TEST(Published, HandleOutlivingThePropertyIsHarmless) {
    Subscription s;
    int calls = 0;
    {
        auto p = std::make_unique<Published<int>>(0);
        s = p->subscribe([&](const int&) { ++calls; });
    }
    s.cancel();  // the property is gone: nothing to do, nothing crashes
    EXPECT_EQ(calls, 1);
}

TEST(Published, HandlerMayCancelAnotherDuringNotification) {
    Published<int> p(0);
    Subscription second;
    int secondCalls = 0;
    Subscription first = p.subscribe([&](const int& v) {
        if (v == 1) {
            second.cancel();
        }
    });
    second = p.subscribe([&](const int&) { ++secondCalls; });
    p.set(1);
    EXPECT_EQ(secondCalls, 1);  // only the initial delivery
}

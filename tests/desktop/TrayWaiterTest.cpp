// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrayWaiter.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QTest>

#include <gtest/gtest.h>

#include <optional>

using bonkwell::TrayWaiter;

TEST(TrayWaiter, WithoutAnyTrayItGivesUpAfterItsTimeout) {
    // Offscreen: neither a StatusNotifierWatcher host nor an X server.
    TrayWaiter waiter;
    std::optional<TrayWaiter::Host> result;
    QElapsedTimer clock;
    clock.start();
    waiter.wait([&](TrayWaiter::Host h) { result = h; }, 400, 50);
    EXPECT_FALSE(result.has_value());  // not decided at once
    ASSERT_TRUE(QTest::qWaitFor([&] { return result.has_value(); }, 5000));
    EXPECT_EQ(*result, TrayWaiter::Host::none);
    EXPECT_GE(clock.elapsed(), 380);
}

TEST(TrayWaiter, DescribesHosts) {
    EXPECT_EQ(TrayWaiter::describe(TrayWaiter::Host::statusNotifier), "StatusNotifierItem");
    EXPECT_EQ(TrayWaiter::describe(TrayWaiter::Host::xembed), "XEmbed");
    EXPECT_EQ(TrayWaiter::describe(TrayWaiter::Host::none), "none");
}

// SPDX-License-Identifier: GPL-3.0-or-later
#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // Headless unless a test run asks for a real display (QT_QPA_PLATFORM=xcb under Xvfb).
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

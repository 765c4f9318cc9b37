// SPDX-License-Identifier: GPL-3.0-or-later
// main() for the widget tests: a full QApplication (offscreen), with a fixed style and font
// so that sizes do not depend on the machine's desktop settings.
#include <QApplication>
#include <QFont>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // Death tests re-run the program; keep them away from the GUI threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Always headless, also when the build lists the tests (which runs this program without
    // the test environment).
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication::setStyle(QStringLiteral("Fusion"));
    QApplication app(argc, argv);
    QApplication::setFont(QFont(QStringLiteral("DejaVu Sans"), 10));
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

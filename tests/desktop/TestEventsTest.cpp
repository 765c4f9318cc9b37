// SPDX-License-Identifier: GPL-3.0-or-later
// What the window watch tells a desktop test: texts and control places as they change.
#include "TestEvents.h"

#include <QLabel>
#include <QObject>
#include <QPushButton>
#include <QTest>
#include <QVBoxLayout>
#include <QWidget>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

// Everything the app wrote to stderr while `what` ran.
template <typename F>
std::string stderrOf(F what) {
    testing::internal::CaptureStderr();
    what();
    return testing::internal::GetCapturedStderr();
}

int occurrences(const std::string& text, const std::string& part) {
    int n = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

class TestEventsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ::setenv("BONKWELL_TEST_EVENTS", "1", 1);
        window.setObjectName(QStringLiteral("someWindow"));
        auto* layout = new QVBoxLayout(&window);
        label = new QLabel(QStringLiteral("Hello"), &window);
        label->setObjectName(QStringLiteral("greeting"));
        layout->addWidget(label);
        button = new QPushButton(QStringLiteral("Go"), &window);
        button->setObjectName(QStringLiteral("goButton"));
        layout->addWidget(button);
        auto* unnamed = new QLabel(QStringLiteral("Anonymous"), &window);
        layout->addWidget(unnamed);
    }
    void TearDown() override { ::setenv("BONKWELL_TEST_EVENTS", "1", 1); }

    QWidget window;
    QLabel* label = nullptr;
    QPushButton* button = nullptr;
    QObject owner;
};

}  // namespace

TEST_F(TestEventsTest, ReportsNamedTextsAndControlPlacesOnceEachThenChanges) {
    window.show();
    bonkwell::watchWindowsForTests(&owner);
    const std::string first = stderrOf([] { QTest::qWait(350); });
    EXPECT_EQ(occurrences(first, "bonkwell-event: text someWindow/greeting Hello\n"), 1) << first;
    EXPECT_EQ(occurrences(first, "bonkwell-event: text someWindow/goButton Go\n"), 1) << first;
    EXPECT_EQ(occurrences(first, "bonkwell-event: widget someWindow/goButton at "), 1) << first;
    // Labels too: a test measures the contrast of a text where the label is.
    EXPECT_EQ(occurrences(first, "bonkwell-event: widget someWindow/greeting at "), 1) << first;
    EXPECT_EQ(occurrences(first, "bonkwell-event: widget "), 2) << first;
    EXPECT_EQ(occurrences(first, "Anonymous"), 0) << first;

    label->setText(QStringLiteral("Bye\nnow"));
    const std::string second = stderrOf([] { QTest::qWait(350); });
    // One line per event; the unchanged button text is not repeated (its place may be: the
    // taller label pushes it down).
    EXPECT_EQ(occurrences(second, "bonkwell-event: text someWindow/greeting Bye now\n"), 1)
        << second;
    EXPECT_EQ(occurrences(second, "bonkwell-event: text "), 1) << second;
    EXPECT_EQ(occurrences(second, "Hello"), 0) << second;
}

TEST_F(TestEventsTest, AWindowShownAgainIsReportedAfresh) {
    window.show();
    bonkwell::watchWindowsForTests(&owner);
    QTest::qWait(250);
    window.hide();
    const std::string hidden = stderrOf([] { QTest::qWait(250); });
    EXPECT_EQ(hidden, "");
    window.show();
    const std::string again = stderrOf([] { QTest::qWait(350); });
    EXPECT_EQ(occurrences(again, "text someWindow/greeting Hello\n"), 1) << again;
}

TEST_F(TestEventsTest, LeanEventsWatchNothing) {
    ::setenv("BONKWELL_TEST_EVENTS", "lean", 1);
    window.show();
    bonkwell::watchWindowsForTests(&owner);
    const std::string out = stderrOf([] { QTest::qWait(350); });
    EXPECT_EQ(out, "");
    EXPECT_TRUE(owner.children().isEmpty());
}

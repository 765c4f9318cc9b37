// SPDX-License-Identifier: GPL-3.0-or-later
#include "Formats.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>

namespace bonkwell {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(FormatsTest, PanelSensitivityHasTwoDecimalsAndAGSuffix) {
    EXPECT_EQ(format::sensitivityShort(0.25), QStringLiteral("0.25g"));
    EXPECT_EQ(format::sensitivityShort(0.05), QStringLiteral("0.05g"));
    EXPECT_EQ(format::sensitivityShort(0.5), QStringLiteral("0.50g"));
    EXPECT_EQ(format::sensitivityShort(0.149), QStringLiteral("0.15g"));
}

TEST(FormatsTest, PercentIsTruncatedNeverRounded) {
    EXPECT_EQ(format::percent(1.255), QStringLiteral("125%"));
    EXPECT_EQ(format::percent(0.555), QStringLiteral("55%"));
    EXPECT_EQ(format::percent(0.0), QStringLiteral("0%"));
    EXPECT_EQ(format::percent(0.8), QStringLiteral("80%"));
    EXPECT_EQ(format::percent(1.5), QStringLiteral("150%"));
    EXPECT_EQ(format::percent(2.0), QStringLiteral("200%"));
    EXPECT_EQ(format::percent(0.999), QStringLiteral("99%"));
}

TEST(FormatsTest, ThresholdHasThreeDecimalsASpaceAndG) {
    EXPECT_EQ(format::threshold(0.05), QStringLiteral("0.050 g"));
    EXPECT_EQ(format::threshold(0.5), QStringLiteral("0.500 g"));
    EXPECT_EQ(format::threshold(0.15), QStringLiteral("0.150 g"));
}

TEST(FormatsTest, MagnitudeHasFourDecimals) {
    EXPECT_EQ(format::magnitude(1.0), QStringLiteral("1.0000 g"));
    EXPECT_EQ(format::magnitude(0.0123), QStringLiteral("0.0123 g"));
    EXPECT_EQ(format::magnitude(0.0), QStringLiteral("0.0000 g"));
}

TEST(FormatsTest, CooldownIsWholeMillisecondsTruncated) {
    EXPECT_EQ(format::milliseconds(3.0), QStringLiteral("3000 ms"));
    EXPECT_EQ(format::milliseconds(0.1), QStringLiteral("100 ms"));
    EXPECT_EQ(format::milliseconds(0.25), QStringLiteral("250 ms"));
    EXPECT_EQ(format::milliseconds(0.7509), QStringLiteral("750 ms"));
}

// The formats round as printf's "%.Nf" does (ties on the exact binary value go to even),
// but always with a full stop: printf's separator, which follows the locale, is put back.
TEST(FormatsTest, RoundingMatchesPrintfWithAFullStop) {
    const auto printed = [](const char* fmt, double v) {
        char buffer[400];
        std::snprintf(buffer, sizeof buffer, fmt, v);
        return QString::fromLatin1(buffer).replace(QLatin1Char(','), QLatin1Char('.'));
    };
    for (int i = -2000; i <= 2000; ++i) {
        for (double v : {i / 1000.0, i / 8.0, i / 16.0, i / 2000.0 + 1e-9, i * 1e-5}) {
            ASSERT_EQ(format::sensitivityShort(v), printed("%.2fg", v)) << v;
            ASSERT_EQ(format::threshold(v), printed("%.3f g", v)) << v;
            ASSERT_EQ(format::magnitude(v), printed("%.4f g", v)) << v;
        }
    }
    EXPECT_EQ(format::sensitivityShort(0.125), QStringLiteral("0.12g"));
    EXPECT_EQ(format::magnitude(1e300), printed("%.4f g", 1e300));
    EXPECT_EQ(format::magnitude(-std::numeric_limits<double>::max()),
              printed("%.4f g", -std::numeric_limits<double>::max()));
}

TEST(FormatsTest, SensitivityHintBandsIncludeTheirBoundsInTheMiddle) {
    EXPECT_EQ(format::sensitivityHint(0.05), QStringLiteral("Light taps trigger sounds"));
    EXPECT_EQ(format::sensitivityHint(0.149), QStringLiteral("Light taps trigger sounds"));
    EXPECT_EQ(format::sensitivityHint(0.15), QStringLiteral("Balanced"));
    EXPECT_EQ(format::sensitivityHint(0.25), QStringLiteral("Balanced"));
    EXPECT_EQ(format::sensitivityHint(0.35), QStringLiteral("Balanced"));
    EXPECT_EQ(format::sensitivityHint(0.351), QStringLiteral("Only firm slaps trigger"));
    EXPECT_EQ(format::sensitivityHint(0.5), QStringLiteral("Only firm slaps trigger"));
}

TEST(FormatsTest, HelperFolderShowsTheHomeAsTilde) {
    EXPECT_EQ(format::helperFolderForDisplay(QStringLiteral("/home/ann/.local/share"),
                                             QStringLiteral("/home/ann")),
              QStringLiteral("~/.local/share/Bonkwell/Helpers/"));
    EXPECT_EQ(format::helperFolderForDisplay(QStringLiteral("/home/ann/data/"),
                                             QStringLiteral("/home/ann/")),
              QStringLiteral("~/data/Bonkwell/Helpers/"));
    // Outside the home folder, and a home that is only a prefix of another folder's name.
    EXPECT_EQ(
        format::helperFolderForDisplay(QStringLiteral("/srv/share"), QStringLiteral("/home/ann")),
        QStringLiteral("/srv/share/Bonkwell/Helpers/"));
    EXPECT_EQ(format::helperFolderForDisplay(QStringLiteral("/home/anna/share"),
                                             QStringLiteral("/home/ann")),
              QStringLiteral("/home/anna/share/Bonkwell/Helpers/"));
}

TEST(FormatsTest, HelperFolderFollowsXdgDataHome) {
    const QByteArray saved = qgetenv("XDG_DATA_HOME");
    const QString home = qEnvironmentVariable("HOME");
    qputenv("XDG_DATA_HOME", (home + QStringLiteral("/xdg-data")).toUtf8());
    EXPECT_EQ(format::helperFolderForDisplay(), QStringLiteral("~/xdg-data/Bonkwell/Helpers/"));
    qunsetenv("XDG_DATA_HOME");
    EXPECT_EQ(format::helperFolderForDisplay(), QStringLiteral("~/.local/share/Bonkwell/Helpers/"));
    qputenv("XDG_DATA_HOME", "relative/is/ignored");
    EXPECT_EQ(format::helperFolderForDisplay(), QStringLiteral("~/.local/share/Bonkwell/Helpers/"));
    if (saved.isNull()) {
        qunsetenv("XDG_DATA_HOME");
    } else {
        qputenv("XDG_DATA_HOME", saved);
    }
}

TEST(FormatsDeathTest, NonFiniteValuesAreProgrammingFaults) {
    EXPECT_DEATH(format::percent(kNaN), "fatal: cannot show volume");
    EXPECT_DEATH(format::percent(kInf), "fatal: cannot show volume");
    EXPECT_DEATH(format::milliseconds(kInf), "fatal: cannot show cooldown");
    EXPECT_DEATH(format::percent(1e17), "fatal: cannot show volume");  // × 100 exceeds int64
    EXPECT_DEATH(format::sensitivityShort(kNaN), "fatal: cannot show a non-finite sensitivity");
    EXPECT_DEATH(format::threshold(-kInf), "fatal: cannot show a non-finite threshold");
    EXPECT_DEATH(format::magnitude(kNaN), "fatal: cannot show a non-finite magnitude");
    EXPECT_DEATH(format::sensitivityHint(kNaN), "fatal");
}

}  // namespace
}  // namespace bonkwell

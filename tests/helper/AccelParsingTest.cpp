// SPDX-License-Identifier: GPL-3.0-or-later
// The small parsers behind device discovery: mount matrices, position files, sysfs numbers.
#include "AccelDevice.h"
#include "AccelSources.h"
#include "Sysfs.h"

#include <gtest/gtest.h>

using namespace bonkwell::accel;

TEST(MountMatrixTest, ParsesAndRotates) {
    const auto m = parseMountMatrix("0, -1, 0; -1, 0, 0; 0, 0, -1\n");
    ASSERT_TRUE(m);
    const Vec3 v = rotate(*m, Vec3{1, 2, 3});
    EXPECT_DOUBLE_EQ(v.x, -2);
    EXPECT_DOUBLE_EQ(v.y, -1);
    EXPECT_DOUBLE_EQ(v.z, -3);

    // Not every entry is a proper rotation; whatever the matrix says is applied.
    const auto scaled = parseMountMatrix("0.5,0,0;0,1,0;0,0,2");
    ASSERT_TRUE(scaled);
    EXPECT_DOUBLE_EQ(rotate(*scaled, Vec3{2, 2, 2}).x, 1);
    EXPECT_DOUBLE_EQ(rotate(*scaled, Vec3{2, 2, 2}).z, 4);
}

TEST(MountMatrixTest, RefusesMalformedText) {
    for (const char* bad :
         {"", "1, 0, 0; 0, 1, 0", "1, 0; 0, 1, 0; 0, 0, 1", "1, 0, 0, 0; 0, 1, 0; 0, 0, 1",
          "1, 0, 0; 0, 1, 0; 0, 0, x", "1, 0, 0; 0, 1, 0; 0, 0, 1; 0, 0, 0", "1,,0;0,1,0;0,0,1"}) {
        EXPECT_FALSE(parseMountMatrix(bad)) << bad;
    }
}

TEST(PositionFileTest, ParsesThreeAndTwoAxes) {
    std::array<double, 3> v{};
    int axes = 0;
    ASSERT_TRUE(parsePosition("(-18,12,1002)\n", v, axes));
    EXPECT_EQ(axes, 3);
    EXPECT_EQ(v[0], -18);
    EXPECT_EQ(v[1], 12);
    EXPECT_EQ(v[2], 1002);
    ASSERT_TRUE(parsePosition("(510,498)", v, axes));
    EXPECT_EQ(axes, 2);
    for (const char* bad : {"", "()", "(1)", "(1,2,3,4)", "1,2,3", "(1,a,3)", "(1,2,3"}) {
        EXPECT_FALSE(parsePosition(bad, v, axes)) << bad;
    }
}

TEST(SysfsTextTest, TrimsAndParsesNumbers) {
    EXPECT_EQ(trimmed("  0.009576806\n"), "0.009576806");
    EXPECT_EQ(parseDouble("0.000010\n"), 0.00001);
    EXPECT_EQ(parseDouble("-957076"), -957076.0);
    EXPECT_FALSE(parseDouble(""));
    EXPECT_FALSE(parseDouble("12abc"));
    EXPECT_FALSE(parseDouble("nan"));
    EXPECT_EQ(parseInteger("128\n"), 128);
    EXPECT_FALSE(parseInteger("1.5"));
}

TEST(IioCalibrationTest, ConvertsRawToG) {
    IioCalibration cal;
    cal.scale = {0.009576806, 0.009576806, 0.009576806};
    const Vec3 g = cal.toG({0, 0, 1024});
    EXPECT_NEAR(g.z, 1.0, 1e-4);
    cal.offset = {0, 0, -24};
    EXPECT_NEAR(cal.toG({0, 0, 1048}).z, 1.0, 1e-4);
    cal.mount = *parseMountMatrix("0, 0, 1; 0, 1, 0; 1, 0, 0");
    EXPECT_NEAR(cal.toG({0, 0, 1048}).x, 1.0, 1e-4);
    EXPECT_NEAR(length(cal.toG({0, 0, 1048})), 1.0, 1e-4);
}

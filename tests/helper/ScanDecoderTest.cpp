// SPDX-License-Identifier: GPL-3.0-or-later
#include "ScanDecoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <vector>

using namespace bonkwell::accel;

namespace {

std::vector<std::uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The layout of the recorded HID captures.
ScanLayout hidLayout() {
    std::vector<ScanChannel> channels;
    const char* names[] = {"in_accel_x", "in_accel_y", "in_accel_z"};
    for (int i = 0; i < 3; ++i) {
        channels.push_back({names[i], i, *parseChannelType("le:s16/32>>0\n"), 0});
    }
    channels.push_back({"in_timestamp", 3, *parseChannelType("le:s64/64>>0"), 0});
    return *layoutScan(channels);
}

std::int64_t field(const ScanLayout& layout, std::span<const std::uint8_t> scan, const char* name) {
    const auto* channel = layout.find(name);
    EXPECT_NE(channel, nullptr);
    auto value = decodeChannel(channel->type, scan, channel->offset);
    EXPECT_TRUE(value.has_value());
    return value.value_or(0);
}

}  // namespace

TEST(ScanDecoderTest, ParsesTypeStrings) {
    auto t = parseChannelType("le:s12/16>>4");
    ASSERT_TRUE(t);
    EXPECT_FALSE(t->bigEndian);
    EXPECT_TRUE(t->isSigned);
    EXPECT_EQ(t->bits, 12u);
    EXPECT_EQ(t->storageBits, 16u);
    EXPECT_EQ(t->shift, 4u);
    EXPECT_EQ(t->repeat, 1u);

    t = parseChannelType("be:u10/16X3>>2\n");
    ASSERT_TRUE(t);
    EXPECT_TRUE(t->bigEndian);
    EXPECT_FALSE(t->isSigned);
    EXPECT_EQ(t->repeat, 3u);
    EXPECT_EQ(t->totalBytes(), 6u);
}

TEST(ScanDecoderTest, RefusesMalformedTypeStrings) {
    for (const char* bad : {"", "xx:s16/32>>0", "le:q16/32", "le:s16", "le:s16/24", "le:s40/32",
                            "le:s16/16>>1", "le:s0/16", "le:s16/32>>", "le:s16/32X0",
                            "le:s16/32>>0 junk", "le:s-1/32", "le:s16/32>>32"}) {
        std::string why;
        EXPECT_FALSE(parseChannelType(bad, &why)) << bad;
        EXPECT_FALSE(why.empty()) << bad;
    }
}

TEST(ScanDecoderTest, AlignsFieldsAndPadsToTheLargest) {
    const auto layout = hidLayout();
    EXPECT_EQ(layout.find("in_accel_x")->offset, 0u);
    EXPECT_EQ(layout.find("in_accel_y")->offset, 4u);
    EXPECT_EQ(layout.find("in_accel_z")->offset, 8u);
    EXPECT_EQ(layout.find("in_timestamp")->offset, 16u);  // 4 bytes of padding before it
    EXPECT_EQ(layout.scanBytes, 24u);

    // Three 16-bit axes: 6 bytes, then an 8-byte timestamp aligned to 8; 16 bytes in all.
    std::vector<ScanChannel> small;
    small.push_back({"in_accel_z", 2, *parseChannelType("le:s16/16>>0"), 0});
    small.push_back({"in_accel_x", 0, *parseChannelType("le:s16/16>>0"), 0});
    small.push_back({"in_accel_y", 1, *parseChannelType("le:s16/16>>0"), 0});
    small.push_back({"in_timestamp", 3, *parseChannelType("le:s64/64>>0"), 0});
    const auto l2 = layoutScan(small);
    ASSERT_TRUE(l2);
    EXPECT_EQ(l2->channels.front().name, "in_accel_x");  // ordered by index
    EXPECT_EQ(l2->find("in_timestamp")->offset, 8u);
    EXPECT_EQ(l2->scanBytes, 16u);

    // Without a timestamp three 16-bit fields take 6 bytes.
    small.pop_back();
    EXPECT_EQ(layoutScan(small)->scanBytes, 6u);
}

TEST(ScanDecoderTest, RefusesDuplicateIndexesAndEmptyScans) {
    std::vector<ScanChannel> channels;
    channels.push_back({"in_accel_x", 0, *parseChannelType("le:s16/16>>0"), 0});
    channels.push_back({"in_accel_y", 0, *parseChannelType("le:s16/16>>0"), 0});
    EXPECT_FALSE(layoutScan(channels));
    EXPECT_FALSE(layoutScan({}));
}

TEST(ScanDecoderTest, DecodesTheRecordedCaptureExactly) {
    const auto bytes = readFile(BONKWELL_TEST_DATA "/accel/orientation-left-up.bin");
    ASSERT_EQ(bytes.size(), 15u * 24u);
    const auto layout = hidLayout();
    const std::span<const std::uint8_t> all(bytes);
    const auto first = all.subspan(0, 24);
    EXPECT_EQ(field(layout, first, "in_accel_x"), 173);
    EXPECT_EQ(field(layout, first, "in_accel_y"), -829);
    EXPECT_EQ(field(layout, first, "in_accel_z"), -581);
    EXPECT_EQ(field(layout, first, "in_timestamp"), 1611158408510212975LL);
    const auto last = all.subspan(14 * 24, 24);
    EXPECT_EQ(field(layout, last, "in_accel_x"), 840);
    EXPECT_EQ(field(layout, last, "in_accel_y"), -238);
    EXPECT_EQ(field(layout, last, "in_accel_z"), -201);
    // Every scan is about 1 g (1000 counts) in length: the masking is right throughout.
    for (std::size_t i = 0; i < 15; ++i) {
        const auto scan = all.subspan(i * 24, 24);
        const double x = static_cast<double>(field(layout, scan, "in_accel_x"));
        const double y = static_cast<double>(field(layout, scan, "in_accel_y"));
        const double z = static_cast<double>(field(layout, scan, "in_accel_z"));
        const double length = std::sqrt(x * x + y * y + z * z);
        EXPECT_GT(length, 600.0) << i;
        EXPECT_LT(length, 1350.0) << i;
    }
}

TEST(ScanDecoderTest, ShiftsMasksAndSignExtends) {
    // le:s12/16>>4: the 12 bits sit above 4 status bits.
    const auto t = *parseChannelType("le:s12/16>>4");
    const std::uint8_t minusOne[] = {0xF5, 0xFF};  // 0xFFF5 >> 4 = 0xFFF = -1, status bits 5
    EXPECT_EQ(decodeChannel(t, minusOne, 0), -1);
    const std::uint8_t positive[] = {0x03, 0x7F};  // 0x7F03 >> 4 = 0x7F0 = 2032
    EXPECT_EQ(decodeChannel(t, positive, 0), 2032);

    // Storage bits above `bits` are not trusted: they hold something else.
    const auto s16in32 = *parseChannelType("le:s16/32>>0");
    const std::uint8_t slot[] = {0xFF, 0xFF, 0x34, 0x12};
    EXPECT_EQ(decodeChannel(s16in32, slot, 0), -1);

    // Unsigned values are not sign-extended.
    const auto u8 = *parseChannelType("le:u8/8>>0");
    const std::uint8_t byte[] = {0xFE};
    EXPECT_EQ(decodeChannel(u8, byte, 0), 254);
}

TEST(ScanDecoderTest, HonoursByteOrderAndRepeat) {
    const auto be = *parseChannelType("be:s16/16>>0");
    const std::uint8_t bytes[] = {0xFF, 0x38, 0x01, 0x00};
    EXPECT_EQ(decodeChannel(be, bytes, 0), -200);
    EXPECT_EQ(decodeChannel(be, bytes, 2), 256);
    const auto le = *parseChannelType("le:s16/16>>0");
    EXPECT_EQ(decodeChannel(le, bytes, 0), 0x38FF);

    const auto repeated = *parseChannelType("le:s16/16X2>>0");
    EXPECT_EQ(decodeChannel(repeated, bytes, 0, 1), 1);
    EXPECT_FALSE(decodeChannel(repeated, bytes, 0, 2));  // there is no third element
}

TEST(ScanDecoderTest, NeverReadsPastTheScan) {
    const auto t = *parseChannelType("le:s64/64>>0");
    const std::uint8_t bytes[8] = {};
    EXPECT_TRUE(decodeChannel(t, bytes, 0));
    EXPECT_FALSE(decodeChannel(t, std::span(bytes, 7), 0));
    EXPECT_FALSE(decodeChannel(t, bytes, 1));
    EXPECT_FALSE(decodeChannel(t, bytes, SIZE_MAX - 2));
}

#include <krcommon/util/KRSDKUtility.h>

#include <krcommon/platform/ui/ImageContext.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <set>
#include <string>

using krcommon::KRSDKUtility;
using namespace krcommon::platform;

namespace {

// A component as the parser makes it: the byte divided as a float by 255.
double c8(unsigned v) { return static_cast<double>(static_cast<float>(v) / 255.0f); }

std::array<double, 4> rgba(const Color& color) {
    std::array<double, 4> out{-1, -1, -1, -1};
    EXPECT_TRUE(color.getRed(out[0], out[1], out[2], out[3]));
    return out;
}

struct ColorRow {
    std::optional<std::string> text;
    std::array<double, 4> expected;
};

const std::array<double, 4> kRed{1, 0, 0, 1};
const std::array<double, 4> kClear{0, 0, 0, 0};

class ColorWithTest : public testing::TestWithParam<ColorRow> {};

TEST_P(ColorWithTest, ParsesOrGivesClear) {
    const auto& row = GetParam();
    const auto text = row.text ? std::optional<std::string_view>(*row.text) : std::nullopt;
    EXPECT_EQ(rgba(KRSDKUtility::colorWith(text)), row.expected) << (row.text ? *row.text : "(nil)");
}

INSTANTIATE_TEST_SUITE_P(
    Accepted, ColorWithTest,
    testing::Values(ColorRow{"#ff0000", kRed}, ColorRow{"FF0000", kRed}, ColorRow{"0xff0000", kRed},
                    ColorRow{" # F F 0 0 0 0 ", kRed}, ColorRow{"\t\n #FF 00 00\r\n", kRed},
                    ColorRow{"0X#FF0000", kRed}, ColorRow{"FF0000FF", kRed},
                    ColorRow{"#FF000080", {1, 0, 0, c8(0x80)}}, ColorRow{"0x0f97ff", {c8(15), c8(151), 1, 1}},
                    ColorRow{"#646464", {c8(100), c8(100), c8(100), 1}},
                    ColorRow{"\xC2\xA0" "FF0000\xE3\x80\x80", kRed},  // no-break and ideographic spaces trimmed
                    // Pairs are scanned: leading hex digits only, none reads 0.
                    ColorRow{"GG0000", {0, 0, 0, 1}}, ColorRow{"1G2233", {c8(1), c8(0x22), c8(0x33), 1}},
                    ColorRow{"FFFFFFZZ", {1, 1, 1, 0}},
                    // "0X" only counts before "#": otherwise it is the red pair of RRGGBBAA.
                    ColorRow{"#0XFF0000", {0, 1, 0, 0}}, ColorRow{"0X0XFF0000", {0, 1, 0, 0}},
                    // Lengths count UTF-16 units: "红" is one, an emoji two.
                    ColorRow{"\xE7\xBA\xA2" "FF000", {0, c8(0xF0), 0, 1}},
                    ColorRow{"\xF0\x9F\x98\x80" "FF00", {0, 1, 0, 1}}));

INSTANTIATE_TEST_SUITE_P(
    Refused, ColorWithTest,
    testing::Values(ColorRow{std::nullopt, kClear}, ColorRow{"", kClear}, ColorRow{"#FFF", kClear},
                    ColorRow{"FF00000", kClear}, ColorRow{"#FF00000", kClear}, ColorRow{"##FF0000", kClear}, ColorRow{"#FF0000FF00", kClear},
                    ColorRow{"FF\nFF00", kClear},  // a line break inside is no space
                    ColorRow{"\xFF\xFE" "FF0000", kClear},  // not UTF-8
                    ColorRow{"\xE7\xBA\xA2" "FF00", kClear}));  // 5 UTF-16 units

TEST(KRSDKUtility, ClearColourIsTheToolkitsClearColour) {
    EXPECT_EQ(KRSDKUtility::colorWith("nope"), Color::clearColor());
    EXPECT_EQ(KRSDKUtility::colorWith("#00FF00").space(), Color::Space::RGB);
}

TEST(KRSDKUtility, ImageWithColorFillsEveryPixelAtTheScreenScale) {
    const double savedScale = Screen::mainScreen().scale();
    for (double scale : {1.0, 2.0, 3.0}) {
        Screen::mainScreen().setScale(scale);
        const auto image = KRSDKUtility::imageWithColor(Color::colorWithRed(1, 0.5, 0, 0.5), {10, 20});
        ASSERT_TRUE(image);
        EXPECT_EQ(image->size(), (Size{10, 20}));
        EXPECT_EQ(image->scale(), scale);
        ASSERT_EQ(image->pixelWidth(), static_cast<int>(10 * scale));
        ASSERT_EQ(image->pixelHeight(), static_cast<int>(20 * scale));
        std::set<std::uint32_t> words(image->pixels().begin(), image->pixels().end());
        EXPECT_EQ(words.size(), 1u);
        const Pixel p = image->pixelAt(image->pixelWidth() - 1, image->pixelHeight() - 1);
        EXPECT_EQ(p.alpha, 128);
        EXPECT_EQ(p.red, 255);
        EXPECT_NEAR(p.green, 128, 1);
        EXPECT_EQ(p.blue, 0);
    }
    Screen::mainScreen().setScale(savedScale);

    // No colour: the context's default fill, opaque black.
    const auto black = KRSDKUtility::imageWithColor(std::nullopt, {2, 2});
    ASSERT_TRUE(black);
    EXPECT_EQ(black->pixelAt(1, 1), (Pixel{0, 0, 0, 255}));
}

TEST(KRSDKUtility, ImageWithColorWithoutAreaIsNothing) {
    krcommon::test::LogCapture log;
    for (const Size size : {Size{0, 10}, Size{10, 0}, Size{-1, 5}, Size{1e9, 1}}) {
        EXPECT_EQ(KRSDKUtility::imageWithColor(Color::whiteColor(), size), nullptr);
    }
    EXPECT_EQ(log.count("beginImageContext() failed to allocate a bitmap context"), 4u);
    EXPECT_EQ(getCurrentContext(), nullptr);  // every failed context was closed again
}

TEST(KRSDKUtility, RandomUUIDStringsAreCanonicalVersion4AndDistinct) {
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        const std::string uuid = KRSDKUtility::randomUUIDString();
        ASSERT_EQ(uuid.size(), 36u);
        for (std::size_t k = 0; k < uuid.size(); ++k) {
            if (k == 8 || k == 13 || k == 18 || k == 23) {
                ASSERT_EQ(uuid[k], '-') << uuid;
            } else {
                ASSERT_TRUE((uuid[k] >= '0' && uuid[k] <= '9') || (uuid[k] >= 'a' && uuid[k] <= 'f')) << uuid;
            }
        }
        EXPECT_EQ(uuid[14], '4') << uuid;
        EXPECT_NE(std::string("89ab").find(uuid[19]), std::string::npos) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 2000u);
}

}  // namespace

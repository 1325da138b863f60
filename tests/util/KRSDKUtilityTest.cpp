// Colour text, solid-colour images and random identifiers.
#include <krcommon/util/KRSDKUtility.h>

#include <krcommon/platform/ui/ImageContext.h>

#include <gtest/gtest.h>

#include <array>
#include <regex>
#include <set>

using krcommon::KRSDKUtility;
using namespace krcommon::platform;

namespace {

double c8(unsigned v) { return static_cast<double>(static_cast<float>(v) / 255.0f); }  // as the parser divides

TEST(KRSDKUtility, ColourTextIsParsedOrGivesTheClearColour) {
    const std::array<double, 4> red{1, 0, 0, 1}, clear{0, 0, 0, 0};
    const std::pair<std::optional<std::string>, std::array<double, 4>> rows[] = {
        {"#ff0000", red}, {"0xff0000", red}, {" # F F 0 0 0 0 ", red}, {"0X#FF0000", red}, {"FF0000FF", red},
        {"\t\n\v\f\r\xC2\x85\xC2\xA0\xE1\x9A\x80\xE2\x80\x80\xE2\x80\x8A" "FF0000"  // trimmed: every white space
         "\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAF\xE2\x81\x9F\xE3\x80\x80", red},  // and line break at the ends
        // Pairs are scanned for leading hex digits, none reads 0; "0X" after "#" is the red pair.
        {"#FF000080", {1, 0, 0, c8(0x80)}}, {"GG0000", {0, 0, 0, 1}}, {"1G2233", {c8(1), c8(0x22), c8(0x33), 1}},
        {"#0XFF0000", {0, 1, 0, 0}}, {"\xE7\xBA\xA2" "FF000", {0, c8(0xF0), 0, 1}},  // lengths count UTF-16 units
        {"\xF0\x9F\x98\x80" "FF00", {0, 1, 0, 1}}, {std::nullopt, clear}, {"", clear}, {"#FFF", clear},
        {"FF00000", clear}, {"#FF00000", clear}, {"##FF0000", clear}, {"#FF0000FF00", clear}, {"FF\nFF00", clear},
        {"\xFF\xFE" "FF0000", clear}, {"\xE7\xBA\xA2" "FF00", clear}};
    for (const auto& [text, expected] : rows) {
        std::array<double, 4> got{-1, -1, -1, -1};
        EXPECT_TRUE(KRSDKUtility::colorWith(text).getRed(got[0], got[1], got[2], got[3]));
        EXPECT_EQ(got, expected) << text.value_or("(absent)");
    }
}

TEST(KRSDKUtility, SolidImagesFillEveryPixelAtTheScreenScale) {
    const double saved = Screen::mainScreen().scale();
    Screen::mainScreen().setScale(2);
    const auto image = KRSDKUtility::imageWithColor(Color::colorWithRed(1, 0.5, 0, 0.5), {10, 20});
    Screen::mainScreen().setScale(saved);
    ASSERT_TRUE(image && image->size() == (Size{10, 20}) && image->pixelWidth() * image->pixelHeight() == 800);
    EXPECT_EQ(std::set<std::uint32_t>(image->pixels().begin(), image->pixels().end()).size(), 1u);
    const Pixel p = image->pixelAt(19, 39);
    EXPECT_TRUE(p.red == 255 && std::abs(p.green - 128) <= 1 && p.blue == 0 && p.alpha == 128);
}

TEST(KRSDKUtility, RandomUUIDsAreCanonicalVersion4AndDistinct) {
    static const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 500; ++i)
        ASSERT_TRUE(std::regex_match(*seen.insert(KRSDKUtility::randomUUIDString()).first, form));
    EXPECT_EQ(seen.size(), 500u);
}

}  // namespace

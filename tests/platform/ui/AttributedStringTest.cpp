#include <krcommon/platform/ui/AttributedString.h>

#include <krcommon/platform/core/Exception.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace krcommon::platform;

namespace {

const Color kRed = Color::colorWithRed(1, 0, 0, 1);
const Color kBlue = Color::colorWithRed(0, 0, 1, 1);

TEST(AttributedString, CountsUTF16UnitsAndMapsThemToUTF8Bytes) {
    struct Row {
        std::string text;
        std::size_t length;
        std::vector<std::size_t> offsets;  // byteOffset(0...length)
    };
    const Row rows[] = {
        {"", 0, {0}},
        {"abc", 3, {0, 1, 2, 3}},
        {"网络", 2, {0, 3, 6}},
        {"a\xF0\x9F\x98\x80" "b", 4, {0, 1, 1, 5, 6}},  // the emoji's second half maps to its start
        {"\xC3\xA9", 1, {0, 2}},
        {"x\xFFy", 3, {0, 1, 4, 5}},  // a malformed byte becomes U+FFFD (3 bytes)
    };
    for (const auto& row : rows) {
        const AttributedString s(row.text);
        EXPECT_EQ(s.length(), row.length) << row.text;
        for (std::size_t i = 0; i < row.offsets.size(); ++i) EXPECT_EQ(s.byteOffset(i), row.offsets[i]) << row.text << i;
    }
    EXPECT_EQ(AttributedString("x\xFFy").string(), "x\xEF\xBF\xBDy");
    EXPECT_EQ(AttributedString("请检查您的  网络设置").length(), 11u);
}

TEST(AttributedString, AttributesSplitAndMergeRuns) {
    AttributedString s("请检查您的  网络设置", TextAttributes{Font::systemFontOfSize(15), std::nullopt});
    s.addAttribute(AttributeName::ForegroundColor, kRed, {0, 11});
    s.addAttribute(AttributeName::ForegroundColor, kBlue, {6, 5});
    ASSERT_EQ(s.runs().size(), 2u);
    EXPECT_EQ(s.runs()[0].range, (Range{0, 6}));
    EXPECT_EQ(s.runs()[1].range, (Range{6, 5}));
    EXPECT_EQ(s.runs()[1].attributes.foregroundColor, kBlue);
    EXPECT_EQ(s.runs()[1].attributes.font, Font::systemFontOfSize(15));  // kept

    Range effective;
    EXPECT_EQ(s.attributesAtIndex(7, &effective).foregroundColor, kBlue);
    EXPECT_EQ(effective, (Range{6, 5}));

    // A change in the middle makes three runs; undoing it merges them again.
    s.addAttribute(AttributeName::Font, Font::boldSystemFontOfSize(15), {2, 2});
    EXPECT_EQ(s.runs().size(), 4u);
    s.addAttribute(AttributeName::Font, Font::systemFontOfSize(15), {2, 2});
    EXPECT_EQ(s.runs().size(), 2u);
    s.removeAttribute(AttributeName::ForegroundColor, {0, 11});
    ASSERT_EQ(s.runs().size(), 1u);
    EXPECT_FALSE(s.runs()[0].attributes.foregroundColor);

    s.setAttributes({}, {0, 1});
    EXPECT_EQ(s.runs().size(), 2u);
    s.addAttribute(AttributeName::Font, Font::systemFontOfSize(15), {0, 0});  // an empty range changes nothing
    EXPECT_EQ(s.runs().size(), 2u);

    AttributedString tail("!", TextAttributes{Font::systemFontOfSize(15), std::nullopt});
    s.appendAttributedString(tail);
    EXPECT_EQ(s.string(), "请检查您的  网络设置!");
    EXPECT_EQ(s.length(), 12u);
    EXPECT_EQ(s.runs().size(), 2u);  // the appended run merges with the equal one before it
    EXPECT_EQ(s.byteOffset(12), s.string().size());
}

TEST(AttributedString, RefusesRangesPastTheEndAndMismatchedValues) {
    AttributedString s("网络");
    const auto raises = [&](const char* name, auto&& call) {
        try {
            call();
            ADD_FAILURE() << "no " << name;
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), name);
        }
    };
    raises("NSRangeException", [&] { s.addAttribute(AttributeName::ForegroundColor, kRed, {1, 2}); });
    raises("NSRangeException", [&] { s.addAttribute(AttributeName::ForegroundColor, kRed, {3, 0}); });
    raises("NSRangeException", [&] { s.setAttributes({}, {1, static_cast<std::size_t>(-1)}); });  // no overflow
    raises("NSRangeException", [&] { (void)s.attributesAtIndex(2); });
    raises("NSInvalidArgumentException", [&] { s.addAttribute(AttributeName::Font, kRed, {0, 1}); });
    EXPECT_NO_THROW(s.addAttribute(AttributeName::ForegroundColor, kRed, {2, 0}));
    EXPECT_EQ(s, AttributedString("网络"));
}

}  // namespace

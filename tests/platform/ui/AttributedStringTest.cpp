#include <krcommon/platform/ui/AttributedString.h>

#include <krcommon/platform/core/Exception.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using namespace krcommon::platform;

namespace {

const Color kRed = Color::colorWithRed(1, 0, 0, 1);
const Color kBlue = Color::colorWithRed(0, 0, 1, 1);

// Ranges count UTF-16 units; byteOffset maps each to its UTF-8 byte (the second half of a
// surrogate pair to its start; a malformed byte becomes U+FFFD, three bytes).
TEST(AttributedString, CountsUTF16UnitsAndMapsThemToUTF8Bytes) {
    const std::tuple<std::string, std::size_t, std::vector<std::size_t>> rows[] = {
        {"", 0, {0}}, {"abc", 3, {0, 1, 2, 3}}, {"网络", 2, {0, 3, 6}}, {"a\xF0\x9F\x98\x80" "b", 4, {0, 1, 1, 5, 6}},
        {"\xC3\xA9", 1, {0, 2}}, {"x\xFFy", 3, {0, 1, 4, 5}}};
    for (const auto& [text, length, offsets] : rows) {
        const AttributedString s(text);
        EXPECT_EQ(s.length(), length) << text;
        for (std::size_t i = 0; i < offsets.size(); ++i) EXPECT_EQ(s.byteOffset(i), offsets[i]) << text << i;
    }
    EXPECT_EQ(AttributedString("x\xFFy").string(), "x\xEF\xBF\xBDy");
}

// Attributes split runs where they change and merge equal neighbours again.
TEST(AttributedString, AttributesSplitAndMergeRuns) {
    const TextAttributes plain{Font::systemFontOfSize(15), std::nullopt};
    AttributedString s("请检查您的  网络设置", plain);
    s.addAttribute(AttributeName::ForegroundColor, kRed, {0, 11});
    s.addAttribute(AttributeName::ForegroundColor, kBlue, {6, 5});
    ASSERT_EQ(s.runs().size(), 2u);
    EXPECT_EQ(s.runs()[1].range, (Range{6, 5}));
    EXPECT_EQ(s.runs()[1].attributes, (TextAttributes{Font::systemFontOfSize(15), kBlue}));
    Range effective;
    EXPECT_EQ(s.attributesAtIndex(7, &effective).foregroundColor, kBlue);
    EXPECT_EQ(effective, (Range{6, 5}));
    s.addAttribute(AttributeName::Font, Font::boldSystemFontOfSize(15), {2, 2});  // a change in the middle
    EXPECT_EQ(s.runs().size(), 4u);
    s.addAttribute(AttributeName::Font, Font::systemFontOfSize(15), {2, 2});  // undone: merged again
    s.removeAttribute(AttributeName::ForegroundColor, {0, 11});
    ASSERT_EQ(s.runs().size(), 1u);
    EXPECT_EQ(s.runs()[0].attributes, plain);
    s.setAttributes({}, {0, 1});
    s.addAttribute(AttributeName::Font, Font::systemFontOfSize(15), {0, 0});  // an empty range changes nothing
    EXPECT_EQ(s.runs().size(), 2u);
    s.appendAttributedString(AttributedString("!", plain));
    EXPECT_EQ(s.string(), "请检查您的  网络设置!");
    EXPECT_EQ(s.runs().size(), 2u);  // the appended run merges with the equal one before it
    EXPECT_EQ(s.byteOffset(12), s.string().size());
}

TEST(AttributedString, RefusesRangesPastTheEndAndMismatchedValues) {
    AttributedString s("网络");
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"NSRangeException", [&] { s.addAttribute(AttributeName::ForegroundColor, kRed, {1, 2}); }},
        {"NSRangeException", [&] { s.addAttribute(AttributeName::ForegroundColor, kRed, {3, 0}); }},
        {"NSRangeException", [&] { s.setAttributes({}, {1, static_cast<std::size_t>(-1)}); }},  // no overflow
        {"NSRangeException", [&] { (void)s.attributesAtIndex(2); }},
        {"NSInvalidArgumentException", [&] { s.addAttribute(AttributeName::Font, kRed, {0, 1}); }}};
    for (const auto& [name, call] : calls) {
        try {
            call();
            ADD_FAILURE() << "no " << name;
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), name);
        }
    }
    EXPECT_NO_THROW(s.addAttribute(AttributeName::ForegroundColor, kRed, {2, 0}));
    EXPECT_EQ(s, AttributedString("网络"));
}

}  // namespace

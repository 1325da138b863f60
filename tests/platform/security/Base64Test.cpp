#include <krcommon/platform/security/Base64.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

using namespace krcommon::platform;

namespace {

struct DecodeRow {
    const char* name;
    std::string text;
    std::optional<std::string> bytes;  // nothing: refused
};

class Base64Decode : public ::testing::TestWithParam<DecodeRow> {};

TEST_P(Base64Decode, DecodesStrictly) {
    const auto& row = GetParam();
    const auto decoded = Base64::decode(row.text);
    if (!row.bytes) {
        EXPECT_FALSE(decoded.has_value());
    } else {
        ASSERT_TRUE(decoded.has_value());
        EXPECT_EQ(std::string(decoded->begin(), decoded->end()), *row.bytes);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rfc4648, Base64Decode,
    ::testing::Values(DecodeRow{"Empty", "", std::string()}, DecodeRow{"F", "Zg==", "f"},
                      DecodeRow{"Fo", "Zm8=", "fo"}, DecodeRow{"Foo", "Zm9v", "foo"},
                      DecodeRow{"Foob", "Zm9vYg==", "foob"}, DecodeRow{"Fooba", "Zm9vYmE=", "fooba"},
                      DecodeRow{"Foobar", "Zm9vYmFy", "foobar"},
                      DecodeRow{"BinaryEdges", "AP+A/w==", std::string("\x00\xff\x80\xff", 4)},
                      DecodeRow{"PlusSlash", "+/+/", std::string("\xfb\xff\xbf", 3)},
                      DecodeRow{"MissingPadding", "Zg", std::nullopt},
                      DecodeRow{"ShortPadding", "Zg=", std::nullopt},
                      DecodeRow{"PaddingThenData", "Zg=A", std::nullopt},
                      DecodeRow{"ThreePads", "Z===", std::nullopt}, DecodeRow{"OnlyPads", "====", std::nullopt},
                      DecodeRow{"PaddingInTheMiddle", "Zg==Zg==", std::nullopt},
                      DecodeRow{"TrailingLineFeed", "Zm9v\n", std::nullopt},
                      DecodeRow{"LineBreakInside", "Zm9v\r\nYmFy", std::nullopt},
                      DecodeRow{"LeadingSpace", " Zm9vYmE", std::nullopt},
                      DecodeRow{"UrlSafeAlphabet", "Zm-_", std::nullopt},
                      DecodeRow{"HighByte", "Zm9\x80", std::nullopt},
                      DecodeRow{"EmbeddedNul", std::string("Zm\0v", 4), std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace

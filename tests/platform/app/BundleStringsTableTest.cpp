#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/StringsTable.h>

#include "platform/io/TempFolder.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>

using krcommon::platform::Bundle;
using krcommon::platform::StringsTable;
using Map = StringsTable::Map;

namespace {

struct TextRow {
    const char* name;
    std::string input;
    std::optional<Map> expected;  // nullopt: the text is refused
    friend void PrintTo(const TextRow& r, std::ostream* os) { *os << r.name; }
};

class StringsTableText : public ::testing::TestWithParam<TextRow> {};

TEST_P(StringsTableText, Parses) { EXPECT_EQ(StringsTable::parse(GetParam().input), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    Grammar, StringsTableText,
    ::testing::Values(
        TextRow{"Empty", "", Map{}},
        TextRow{"OnlyComments", "/* a */ // b\n  /* c\n d */", Map{}},
        TextRow{"CommentsBetweenTokens", "\"a\" /*x*/ = // y\n \"b\" /* z */ ;", Map{{"a", "b"}}},
        TextRow{"SlashInsideQuotesIsText", "\"url\" = \"http://x/*y*/\";", Map{{"url", "http://x/*y*/"}}},
        TextRow{"UnquotedWords", "key_1 = value.2-3:$+/;", Map{{"key_1", "value.2-3:$+/"}}},
        TextRow{"UnquotedWordsOfEveryRange", "az09 = AZ;", Map{{"az09", "AZ"}}},
        TextRow{"SingleQuotes", "'a' = 'b \"c\"';", Map{{"a", "b \"c\""}}},
        TextRow{"KeyAloneMapsToItself", "\"same\";", Map{{"same", "same"}}},
        TextRow{"Braced", "{ \"a\" = \"1\"; b = 2; }", Map{{"a", "1"}, {"b", "2"}}},
        TextRow{"LaterKeyWins", "\"a\" = \"1\"; \"a\" = \"2\";", Map{{"a", "2"}}},
        TextRow{"ControlEscapes", R"("k" = "\t\r\n\a\b\f\v";)", Map{{"k", "\t\r\n\a\b\f\v"}}},
        TextRow{"QuoteAndBackslashEscapes", R"("k" = "\"\'\\";)", Map{{"k", "\"'\\"}}},
        TextRow{"UnknownEscapeIsTheCharacter", R"("k" = "\q\%";)", Map{{"k", "q%"}}},
        TextRow{"UnicodeEscapes", R"("k" = "\U4E2D\u6587 \U41\U00e9";)", Map{{"k", "中文 Aé"}}},
        TextRow{"SurrogatePairEscapes", R"("k" = "\UD83D\UDE00";)", Map{{"k", "\xF0\x9F\x98\x80"}}},
        TextRow{"LoneSurrogateBecomesReplacement", R"("k" = "\UD83Dx\UDE00";)",
                Map{{"k", "\xEF\xBF\xBDx\xEF\xBF\xBD"}}},
        TextRow{"UnicodeEscapeWithoutDigits", R"("k" = "\Uzz";)", Map{{"k", "Uzz"}}},
        TextRow{"OctalEscapes", R"("k" = "\101\0610\7";)", Map{{"k", "A10\a"}}},
        TextRow{"EscapedKey", R"("a\"b" = "c";)", Map{{"a\"b", "c"}}},
        TextRow{"UTF8ByteOrderMark", "\xEF\xBB\xBF\"a\" = \"\xC3\xA9\";", Map{{"a", "\xC3\xA9"}}},
        TextRow{"UTF16LittleEndianWithoutMark", std::string("\"\0a\0\"\0;\0", 8), Map{{"a", "a"}}},
        TextRow{"UTF16BigEndianWithoutMark", std::string("\0\"\0a\0\"\0;", 8), Map{{"a", "a"}}},
        TextRow{"XMLListAfterWhiteSpace", " \t\r\n<?xml version=\"1.0\"?><plist><dict><key>a</key><string>b</string>"
                "<key>n</key><integer>5</integer></dict></plist>", Map{{"a", "b"}}},  // strings only
        TextRow{"MissingSemicolon", "\"a\" = \"b\"", std::nullopt},
        TextRow{"MissingValue", "\"a\" = ;", std::nullopt},
        TextRow{"MissingEquals", "\"a\" \"b\";", std::nullopt},
        TextRow{"UnterminatedString", "\"a\" = \"b;", std::nullopt},
        TextRow{"UnterminatedEscape", "\"a\" = \"b\\", std::nullopt},
        TextRow{"UnterminatedComment", "\"a\" = \"b\"; /* open", std::nullopt},
        TextRow{"NestedArrayRefused", "\"a\" = (\"b\");", std::nullopt},
        TextRow{"NestedDictionaryRefused", "\"a\" = {\"b\" = \"c\";};", std::nullopt},
        TextRow{"UnclosedBrace", "{ \"a\" = \"b\";", std::nullopt},
        TextRow{"TextAfterClosingBrace", "{ } \"a\";", std::nullopt},
        TextRow{"InvalidUTF8", "\"a\" = \"\xC3\x28\";", std::nullopt},
        TextRow{"OddUTF16", std::string("\xFF\xFE\x22\x00\x61", 5), std::nullopt},
        TextRow{"UnpairedUTF16Surrogate", std::string("\xFF\xFE\x3D\xD8\x22\x00", 6), std::nullopt},
        TextRow{"XMLListOfAnArray", "<plist><array><string>a</string></array></plist>", std::nullopt},
        TextRow{"CutXMLList", "<?xml version=\"1.0\"?><plist><dict><key>a</key>", std::nullopt},
        TextRow{"CutBinaryList", std::string("bplist00\x01\x02", 10), std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });


// The preferred language's table is broken: lookups fall back to the
// development region's, and one line names the broken file.
TEST(StringsTableLog, ABrokenTableIsNamedOncePerFile) {
    krcommon::test::TempFolder tmp;
    std::filesystem::create_directories(tmp / "fr.lproj");
    std::filesystem::create_directories(tmp / "en.lproj");
    std::ofstream(tmp / "fr.lproj/Errors.strings") << "\"kr_param_error\" = \"Paramètre invalide\"\n";  // no ';'
    std::ofstream(tmp / "en.lproj/Errors.strings") << "\"kr_param_error\" = \"Invalid parameter\";\n";
    Bundle::setPreferredLanguages({"fr"});
    krcommon::test::LogCapture log;
    auto bundle = Bundle::bundleWithPath(tmp.path());
    ASSERT_TRUE(bundle);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(bundle->localizedStringForKey("kr_param_error", {}, "Errors"), "Invalid parameter");
    Bundle::setPreferredLanguages({});
    const auto lines = log.lines();
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(StringsTable::readFile(tmp / "fr.lproj/Errors.strings"));
    EXPECT_EQ(log.lines(), lines) << "read again outside the bundle";
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(tmp / "fr.lproj/Errors.strings"), std::string::npos) << lines[0];
}

}  // namespace

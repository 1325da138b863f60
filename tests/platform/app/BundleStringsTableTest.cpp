#include <krcommon/platform/app/StringsTable.h>

#include "platform/app/BundleTestSupport.h"
#include "platform/io/TempFolder.h"

#include <gtest/gtest.h>

using krcommon::platform::StringsTable;
using krcommon::test::Entries;
using krcommon::test::TableForm;

namespace {

// Entries that exercise quoting, escapes and characters outside the BMP.
const Entries kEntries{
    {"kr_param_error", "Parameter error"},
    {"kr_quote", "say \"hi\" \\ back"},
    {"kr_lines", "one\ntwo"},
    {"kr_chinese", "参数错误"},
    {"kr_emoji", "ok \xF0\x9F\x98\x80"},
    {"kr_empty", ""},
    {"键", "value under a non-ASCII key"},
};

class StringsTableForms : public ::testing::TestWithParam<TableForm> {};

TEST_P(StringsTableForms, EveryShippedFormReadsToTheSameEntries) {
    const auto map = StringsTable::parse(krcommon::test::encodeTable(GetParam(), kEntries));
    ASSERT_TRUE(map.has_value());
    EXPECT_EQ(map->size(), kEntries.size());
    for (const auto& [key, value] : kEntries) {
        auto it = map->find(key);
        ASSERT_NE(it, map->end()) << key;
        EXPECT_EQ(it->second, value) << key;
    }
}

TEST_P(StringsTableForms, ReadsFromAFile) {
    krcommon::test::TempFolder folder;
    krcommon::test::writeBytes(folder / "T.strings", krcommon::test::encodeTable(GetParam(), kEntries));
    const auto map = StringsTable::readFile(folder / "T.strings");
    ASSERT_TRUE(map.has_value());
    EXPECT_EQ(map->at("kr_chinese"), "参数错误");
    EXPECT_FALSE(StringsTable::readFile(folder / "missing.strings").has_value());
}

INSTANTIATE_TEST_SUITE_P(All, StringsTableForms,
                         ::testing::Values(TableForm::UTF8Text, TableForm::UTF8TextWithBOM, TableForm::UTF16LEText,
                                           TableForm::UTF16BEText, TableForm::UTF16LETextNoBOM, TableForm::XMLPlist,
                                           TableForm::BinaryPlist),
                         [](const auto& info) { return krcommon::test::tableFormName(info.param); });

struct TextRow {
    const char* name;
    std::string input;
    std::optional<StringsTable::Map> expected;  // nullopt: the text is refused
};

class StringsTableText : public ::testing::TestWithParam<TextRow> {};

TEST_P(StringsTableText, Parses) {
    const auto map = StringsTable::parse(GetParam().input);
    ASSERT_EQ(map.has_value(), GetParam().expected.has_value()) << GetParam().input;
    if (map) {
        EXPECT_EQ(*map, *GetParam().expected);
    }
}

using Map = StringsTable::Map;

INSTANTIATE_TEST_SUITE_P(
    Grammar, StringsTableText,
    ::testing::Values(
        TextRow{"Empty", "", Map{}},
        TextRow{"OnlyComments", "/* a */ // b\n  /* c\n d */", Map{}},
        TextRow{"CommentsBetweenTokens", "\"a\" /*x*/ = // y\n \"b\" /* z */ ;", Map{{"a", "b"}}},
        TextRow{"SlashInsideQuotesIsText", "\"url\" = \"http://x/*y*/\";", Map{{"url", "http://x/*y*/"}}},
        TextRow{"UnquotedWords", "key_1 = value.2-3:$+/;", Map{{"key_1", "value.2-3:$+/"}}},
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
        TextRow{"UnpairedUTF16Surrogate", std::string("\xFF\xFE\x3D\xD8\x22\x00", 6), std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(StringsTable, PropertyListsKeepOnlyStringValuesAndNeedADictionaryRoot) {
    using krcommon::platform::Array;
    using krcommon::platform::Dictionary;
    using krcommon::platform::PropertyList;
    using krcommon::platform::Value;
    const auto mixed = PropertyList::writeXML(Value(Dictionary{{"text", "t"}, {"number", 5}, {"list", Array{"x"}}}));
    const auto map = StringsTable::parse(*mixed);
    ASSERT_TRUE(map.has_value());
    EXPECT_EQ(*map, (Map{{"text", "t"}}));

    EXPECT_FALSE(StringsTable::parse(*PropertyList::writeXML(Value(Array{"a"}))).has_value());
    EXPECT_FALSE(StringsTable::parse("<?xml version=\"1.0\"?><plist><dict><key>a</key>").has_value());
    EXPECT_FALSE(StringsTable::parse(std::string("bplist00\x01\x02", 10)).has_value());
}

}  // namespace

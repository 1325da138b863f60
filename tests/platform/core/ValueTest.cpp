#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Value.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <random>
#include <regex>

using namespace krcommon::platform;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

Data counting(std::size_t n) {
    Data d(n);
    for (std::size_t i = 0; i < n; ++i) d[i] = static_cast<std::uint8_t>(i);
    return d;
}

struct DescriptionRow {
    const char* name;
    Value value;
    std::string text;
    friend void PrintTo(const DescriptionRow& r, std::ostream* os) { *os << r.name; }
};

class ValueDescription : public ::testing::TestWithParam<DescriptionRow> {};

// What `%@` shows for each kind, in the platform's property-list look.
TEST_P(ValueDescription, PrintsWhatThePlatformPrints) { EXPECT_EQ(GetParam().value.description(), GetParam().text); }

const DescriptionRow kDescriptions[] = {
    {"Nil", Value(), "(null)"},
    {"NullObject", Value(Null{}), "<null>"},
    {"Booleans", Array{true, false}, "(\n    1,\n    0\n)"},
    {"NegativeInteger", Value(-42), "-42"},
    {"LowestInteger", Value(INT64_MIN), "-9223372036854775808"},
    {"Tenth", Value(0.1), "0.1"},
    {"WholeReal", Value(5.0), "5"},
    {"NegativeHalf", Value(-0.5), "-0.5"},
    {"LargeReal", Value(1e20), "1e+20"},
    {"FifteenDigitReal", Value(123456789012345.0), "123456789012345"},
    {"Infinity", Value(kInf), "inf"},
    {"NegativeInfinity", Value(-kInf), "-inf"},
    {"NaN", Value(std::nan("")), "nan"},
    {"NegativeZero", Value(-0.0), "-0"},
    {"TopLevelStringIsNeverQuoted", Value("say \"hi\"\n"), "say \"hi\"\n"},
    {"LettersAndDigitsStayBare", Array{"azAZ09", 7}, "(\n    azAZ09,\n    7\n)"},
    {"NeighboursOfPlainRangesAreQuoted", Array{"`", "{", "@", "["}, "(\n    \"`\",\n    \"{\",\n    \"@\",\n    \"[\"\n)"},
    {"EmptyStringIsQuoted", Array{""}, "(\n    \"\"\n)"},
    {"Escapes", Array{"q\"b\\n\nt\tr\r\x01\x1f"}, "(\n    \"q\\\"b\\\\n\\nt\\tr\\r\\001\\037\"\n)"},
    {"NonASCIIAsUTF16Units", Array{"\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"}, "(\n    \"\\U00e9\\U4e2d\\Ud83d\\Ude00\"\n)"},
    {"MalformedUTF8", Array{"a\x80\xFF" "b\xC3"}, "(\n    \"a\\Ufffd\\Ufffdb\\Ufffd\"\n)"},
    {"ShortData", Value(Data{0x61, 0x62, 0x63}), "{length = 3, bytes = 0x616263}"},
    {"EmptyData", Value(Data{}), "{length = 0, bytes = 0x}"},
    {"DataUpTo24BytesInFull", Value(counting(24)),
     "{length = 24, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617}"},
    {"LongerDataAbbreviated", Value(counting(25)),
     "{length = 25, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f ... 11121314 15161718 }"},
    {"Epoch", Value(Date{0.75}), "1970-01-01 00:00:00 +0000"},
    {"BeforeTheEpoch", Value(Date{-0.25}), "1969-12-31 23:59:59 +0000"},
    {"LastSecondOfYear9999", Value(Date{253402300799.0}), "9999-12-31 23:59:59 +0000"},
    {"DateWithoutCalendar", Value(Date{-1e300}), "-1e+300 seconds since 1970-01-01 00:00:00 +0000"},
    {"NaNDate", Value(Date{std::nan("")}), "nan seconds since 1970-01-01 00:00:00 +0000"},
    {"EmptyCollections", Array{Array{}, Dictionary{}}, "(\n        (\n    ),\n        {\n    }\n)"},
    {"DictionarySortsAndQuotesKeys", Dictionary{{"b", 2}, {"a b", "x"}, {"A", "y"}},
     "{\n    A = y;\n    \"a b\" = x;\n    b = 2;\n}"},
    {"NestedCollections", Dictionary{{"list", Array{Dictionary{{"id", 1}}, 2}}, {"map", Dictionary{{"k", Array{}}}}},
     "{\n    list =     (\n                {\n            id = 1;\n        },\n        2\n    );\n"
     "    map =     {\n        k =         (\n        );\n    };\n}"},
};

INSTANTIATE_TEST_SUITE_P(Kinds, ValueDescription, ::testing::ValuesIn(kDescriptions),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Value, LargeDictionariesPrintSortedAndObjectsByClassAndAddress) {
    Dictionary d;
    for (int i = 19; i >= 0; --i) d.set("k" + std::to_string(i % 10) + std::to_string(i), i);  // past 16 keys
    std::string expected = "{\n";
    std::vector<std::string> keys = d.keys();
    std::sort(keys.begin(), keys.end());
    for (const auto& key : keys) expected += "    " + key + " = " + d[key].description() + ";\n";
    EXPECT_EQ(Value(d).description(), expected + "}");

    struct Widget : Object {};
    const auto widget = std::make_shared<Widget>();
    EXPECT_TRUE(std::regex_match(Value(widget).description(), std::regex("<Widget: 0x[0-9a-f]+>")));
    EXPECT_EQ(Value(Array{widget}).description(), "(\n    " + widget->description() + "\n)");
}

struct NumberRow {
    const char* name;
    Value value;
    std::optional<std::int64_t> integer;
    std::optional<double> real;
    std::optional<bool> boolean;
    friend void PrintTo(const NumberRow& r, std::ostream* os) { *os << r.name; }
};

class ValueNumbers : public ::testing::TestWithParam<NumberRow> {};

TEST_P(ValueNumbers, ReadAsEachNumberKind) {
    const auto& row = GetParam();
    EXPECT_EQ(row.value.integerValue(), row.integer);
    EXPECT_EQ(row.value.realValue(), row.real);
    EXPECT_EQ(row.value.boolValue(), row.boolean);
    EXPECT_EQ(row.value.isNumber(), row.real.has_value());
}

const NumberRow kNumbers[] = {
    {"True", Value(true), 1, 1.0, true},
    {"False", Value(false), 0, 0.0, false},
    {"Zero", Value(0), 0, 0.0, false},
    {"NegativeInteger", Value(-3), -3, -3.0, true},
    {"RealTruncatesTowardZero", Value(-2.7), -2, -2.7, true},
    {"SmallRealIsTrue", Value(0.5), 0, 0.5, true},
    {"RealZero", Value(0.0), 0, 0.0, false},
    {"LowestInt64AsReal", Value(-9.2233720368547758e18), INT64_MIN, -9.2233720368547758e18, true},
    {"RealPastInt64", Value(9.2233720368547758e18), std::nullopt, 9.2233720368547758e18, true},
    {"RealBelowInt64", Value(-9.3e18), std::nullopt, -9.3e18, true},
    {"Infinity", Value(kInf), std::nullopt, kInf, true},
    {"UnsignedAtInt64Max", Value(std::uint64_t{INT64_MAX}), INT64_MAX, 9223372036854775807.0, true},
    {"UnsignedPastInt64BecomesReal", Value(std::uint64_t{INT64_MAX} + 1), std::nullopt, 9223372036854775808.0, true},
    {"String", Value("1"), std::nullopt, std::nullopt, std::nullopt},
    {"Nil", Value(), std::nullopt, std::nullopt, std::nullopt},
};

INSTANTIATE_TEST_SUITE_P(Kinds, ValueNumbers, ::testing::ValuesIn(kNumbers),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Value, EqualityComparesNumbersByValueDictionariesWithoutOrderAndObjectsByIdentity) {
    const auto error = Error::make("D", 1);
    const std::tuple<const char*, Value, Value, bool> rows[] = {
        {"integer and real", 1, 1.0, true},
        {"boolean and integer", true, 1, true},
        {"real with a fraction and its integer part", 0.5, 0, false},
        {"neighbouring large integers", INT64_MAX, INT64_MAX - 1, false},
        {"string and number", "1", 1, false},
        {"nil and null", Value(), Null{}, false},
        {"nil and nil", Value(), Value(), true},
        {"dictionaries in another order", Dictionary{{"a", 1}, {"b", 2}}, Dictionary{{"b", 2}, {"a", 1}}, true},
        {"dictionaries with another value", Dictionary{{"a", 1}, {"b", 2}}, Dictionary{{"a", 1}, {"b", 3}}, false},
        {"dictionary and its subset", Dictionary{{"a", 1}, {"b", 2}}, Dictionary{{"a", 1}}, false},
        {"dictionaries with another key", Dictionary{{"a", 1}}, Dictionary{{"c", 1}}, false},
        {"arrays in another order", Array{1, 2}, Array{2, 1}, false},
        {"data", Data{1, 2}, Data{1, 2}, true},
        {"dates", Date{1}, Date{2}, false},
        {"the same object", error, error, true},
        {"equal objects", error, Error::make("D", 1), false},
    };
    for (const auto& [what, a, b, equal] : rows) {
        EXPECT_EQ(a == b, equal) << what;
        EXPECT_EQ(b == a, equal) << what;
    }
}

// Random sets, removals and clears over a few hundred keys, checked against a plain list
// after every step. Phases of growth and shrinkage take the dictionary across the size at
// which it starts indexing and through every rehash, in both directions.
TEST(Dictionary, AgreesWithAPlainListThroughGrowthRemovalAndReinsertion) {
    std::mt19937 random(5);
    Dictionary d;
    std::vector<std::pair<std::string, int>> model;
    for (int step = 0; step < 6000; ++step) {
        const std::string key = "key" + std::to_string(random() % 300);
        const auto found = std::find_if(model.begin(), model.end(), [&](const auto& e) { return e.first == key; });
        const bool shrinking = step / 1500 % 2 == 1;
        if (step == 5000) {
            d.clear();
            model.clear();
        } else if (random() % 10 < (shrinking ? 8u : 2u)) {
            ASSERT_EQ(d.remove(key), found != model.end()) << key;
            if (found != model.end()) model.erase(found);
        } else {
            d.set(key, step);
            if (found != model.end()) found->second = step;
            else model.emplace_back(key, step);
        }
        ASSERT_EQ(d.size(), model.size()) << "step " << step;
        std::vector<std::string> order;
        for (const auto& [k, v] : model) {
            order.push_back(k);
            ASSERT_EQ(d[k], Value(v)) << k << " at step " << step;
        }
        ASSERT_EQ(d.keys(), order) << "step " << step;
        for (int absent = 300; absent < 310; ++absent) ASSERT_FALSE(d.contains("key" + std::to_string(absent)));
    }
}

// Taking over a list of entries must leave what the same entries set one by one
// would: small lists are checked by scanning, large ones through the index.
TEST(Dictionary, TakesOverEntriesAsSettingThemInTurnWould) {
    for (const std::size_t size : {1u, 3u, 7u, 8u, 50u}) {
        for (const bool repeat : {false, true}) {
            std::vector<Dictionary::Entry> entries;
            for (std::size_t i = 0; i < size; ++i) entries.emplace_back("k" + std::to_string(i), static_cast<int>(i));
            if (repeat) {
                entries.emplace_back("k0", "last");
                entries.emplace_back("k" + std::to_string(size / 2), "middle");
            }
            Dictionary expected;
            for (const auto& [key, value] : entries) expected.set(key, value);
            const Dictionary taken(entries);
            EXPECT_EQ(taken.keys(), expected.keys()) << size << (repeat ? " with repeats" : "");
            for (const auto& [key, value] : expected) EXPECT_EQ(taken[key], value) << key;
            EXPECT_TRUE(taken["absent"].isNil());
        }
    }
}

// Mutable iteration rewrites values in place; the keys, which the hash index is built on,
// stay read-only, so lookups after the loop still find every member.
template <class D>
concept KeysWritableThroughIteration = requires(D& d) { d.begin()->first = std::string(); };

TEST(Dictionary, MutableIterationChangesValuesButNeverKeys) {
    EXPECT_FALSE(KeysWritableThroughIteration<Dictionary>);
    Dictionary d;
    for (int i = 0; i < 40; ++i) d.set("k" + std::to_string(i), i);
    for (auto&& [key, value] : d) value = key + "!";
    d.begin()->second = "first";
    for (int i = 1; i < 40; ++i) EXPECT_EQ(d["k" + std::to_string(i)], Value("k" + std::to_string(i) + "!"));
    EXPECT_EQ(d["k0"], Value("first"));
}

TEST(Error, DescriptionAndLocalizedDescription) {
    Error plain("KRSDKResponseDataIsNull", -1);
    EXPECT_EQ(plain.localizedDescription(),
              "The operation couldn\xE2\x80\x99t be completed. (KRSDKResponseDataIsNull error -1.)");
    EXPECT_EQ(plain.description(), "Error Domain=KRSDKResponseDataIsNull Code=-1 \"" + plain.localizedDescription() + "\"");
    Error described("NSURLErrorDomain", -1001, {{LocalizedDescriptionKey, "The request timed out."}, {"n", 2}});
    EXPECT_EQ(described.description(),
              "Error Domain=NSURLErrorDomain Code=-1001 \"The request timed out.\" "
              "UserInfo={NSLocalizedDescription=The request timed out., n=2}");
}

}  // namespace

#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/core/Error.h>

#include <gtest/gtest.h>

#include <limits>

#include <cmath>

using namespace krcommon::platform;

TEST(Value, DescriptionsMatchThePlatform) {
    struct Row { Value value; const char* text; };
    const Row rows[] = {
        {Value(), "(null)"},
        {Value(Null{}), "<null>"},
        {Value(true), "1"},
        {Value(-42), "-42"},
        {Value(0.1), "0.1"},
        {Value(5.0), "5"},
        {Value("plain text"), "plain text"},
        {Value(Data{0x61, 0x62, 0x63}), "{length = 3, bytes = 0x616263}"},
        {Value(Date{0}), "1970-01-01 00:00:00 +0000"},
        {Value(Date{NAN}), "nan seconds since 1970-01-01 00:00:00 +0000"},
        {Value(Date{-1e300}), "-1e+300 seconds since 1970-01-01 00:00:00 +0000"},
        {Value(Array{}), "(\n)"},
        {Value(Array{1, "a b"}), "(\n    1,\n    \"a b\"\n)"},
        {Value(Dictionary{{"b", 2}, {"a", Array{"x"}}}), "{\n    a =     (\n        x\n    );\n    b = 2;\n}"},
        {Value(Dictionary{{"k", ""}}), "{\n    k = \"\";\n}"},
        {Value(Dictionary{{"k", "\xC3\xA9\"\n"}}), "{\n    k = \"\\U00e9\\\"\\n\";\n}"},
        {Value(Array{"ab c\"d\\e\tf\x01g\xE4\xB8\xADh"}), "(\n    \"ab c\\\"d\\\\e\\tf\\001g\\U4e2dh\"\n)"},
    };
    for (const auto& row : rows) EXPECT_EQ(row.value.description(), row.text);
}

TEST(Value, LongDataIsAbbreviated) {
    Data d(40);
    for (std::size_t i = 0; i < d.size(); ++i) d[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(Value(d).description(),
              "{length = 40, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f ... 20212223 24252627 }");
}

TEST(Value, NumbersCompareByValueAcrossKinds) {
    EXPECT_EQ(Value(1), Value(1.0));
    EXPECT_EQ(Value(true), Value(1));
    EXPECT_FALSE(Value(1) == Value("1"));
    EXPECT_FALSE(Value() == Value(Null{}));
    EXPECT_EQ(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"b", 2}, {"a", 1}}));
    auto e = Error::make("D", 1);
    EXPECT_EQ(Value(e), Value(e));
    EXPECT_FALSE(Value(e) == Value(Error::make("D", 1)));
}

TEST(Value, UnsignedIntegersBeyondTheSignedRangeBecomeReals) {
    constexpr auto top = std::numeric_limits<std::uint64_t>::max();
    const struct {
        Value value;
        Value::Kind kind;
        double number;
    } rows[] = {
        {Value(std::uint64_t{INT64_MAX}), Value::Kind::Integer, 9223372036854775807.0},
        {Value(std::uint64_t{INT64_MAX} + 1), Value::Kind::Real, 9223372036854775808.0},
        {Value(top), Value::Kind::Real, 18446744073709551615.0},
        {Value(std::uint32_t{UINT32_MAX}), Value::Kind::Integer, 4294967295.0},
        {Value(std::int64_t{INT64_MIN}), Value::Kind::Integer, -9223372036854775808.0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.value.kind(), row.kind) << row.number;
        EXPECT_EQ(row.value.realValue(), row.number);
    }
}

TEST(Dictionary, KeepsInsertionOrderAndFindsEveryKeyWhenLarge) {
    Dictionary d;
    for (int i = 0; i < 1000; ++i) d.set("k" + std::to_string(999 - i), i);
    d.set("k500", "replaced");
    ASSERT_EQ(d.size(), 1000u);
    EXPECT_EQ(d.begin()->first, "k999");
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(d.contains("k" + std::to_string(i))) << i;
    EXPECT_EQ(*d["k500"].string(), "replaced");
    EXPECT_TRUE(d.remove("k999"));
    EXPECT_FALSE(d.remove("k999"));
    EXPECT_EQ(d.begin()->first, "k998");
    EXPECT_EQ(d["k1"].integerValue(), 998);
    EXPECT_TRUE(d["missing"].isNil());
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
            std::vector<std::string> order;
            for (const auto& [key, value] : taken) order.push_back(key);
            EXPECT_EQ(order, expected.keys()) << size << (repeat ? " with repeats" : "");
            EXPECT_EQ(taken, expected) << size;
            for (const auto& [key, value] : expected) EXPECT_EQ(taken[key], value) << key;
            EXPECT_TRUE(taken["absent"].isNil());
        }
    }
}

TEST(Error, DescriptionAndLocalizedDescription) {
    Error plain("KRSDKResponseDataIsNull", -1);
    EXPECT_EQ(plain.localizedDescription(),
              "The operation couldn\xE2\x80\x99t be completed. (KRSDKResponseDataIsNull error -1.)");
    Error described("NSURLErrorDomain", -1001, {{LocalizedDescriptionKey, "The request timed out."}});
    EXPECT_EQ(described.description(),
              "Error Domain=NSURLErrorDomain Code=-1001 \"The request timed out.\" "
              "UserInfo={NSLocalizedDescription=The request timed out.}");
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

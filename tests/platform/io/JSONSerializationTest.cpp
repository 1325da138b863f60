#include <krcommon/platform/io/JSONSerialization.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace krcommon::platform;

namespace {

std::string nestedArrays(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

}  // namespace

TEST(JSONSerialization, ReadsValuesOfEveryKind) {
    const std::pair<std::string, Value> rows[] = {
        {R"([1, -1, 1.0, 2.5e3, -0.0])", Array{1, -1, 1.0, 2500.0, -0.0}},
        {R"([9223372036854775807, -9223372036854775808])", Array{INT64_MAX, INT64_MIN}},
        {R"([9223372036854775808, 18446744073709551616, -9223372036854775809])",
         Array{9223372036854775808.0, 18446744073709551616.0, -9223372036854775809.0}},
        // Correctly rounded, extremes, zero significands and underflow included.
        {R"([0.1, 1.7976931348623157e308, 5e-324, 0e-300, 0.0e-300, 1e-400, 2.2250738585072011e-308])",
         Array{0.1, 1.7976931348623157e308, 5e-324, 0.0, 0.0, 0.0, 2.2250738585072011e-308}},
        {R"([9007199254740993])", Array{9007199254740992.0}},
        {R"(["\u00e9\ud83d\ude00", "a\/b", "q\"\\\b\f\n\r\t", "\u0000"])",
         Array{"\xC3\xA9\xF0\x9F\x98\x80", "a/b", "q\"\\\b\f\n\r\t", std::string(1, '\0')}},
        {R"({"b": true, "a": false, "n": null, "b": 2})", Dictionary{{"b", 2}, {"a", false}, {"n", Null{}}}},
        {"\xEF\xBB\xBF [ ] ", Array{}},
        {"{\"\xE4\xB8\xAD\": {}}", Dictionary{{"\xE4\xB8\xAD", Dictionary{}}}},
    };
    for (const auto& [text, expected] : rows) EXPECT_EQ(JSONSerialization::parse(text), expected) << text;
    EXPECT_TRUE(std::signbit(*JSONSerialization::parse("[-1e-400]")->array()->front().realValue()));
    // Integers stay integers, others are reals; duplicate keys keep their first place. Equality ignores both.
    const auto read = JSONSerialization::parse(R"({"b": 1, "a": 1.0, "c": 7, "b": 9223372036854775808})");
    EXPECT_EQ((*read)["a"].kind(), Value::Kind::Real);
    EXPECT_EQ((*read)["b"].kind(), Value::Kind::Real);
    EXPECT_EQ((*read)["c"].kind(), Value::Kind::Integer);
    EXPECT_EQ(read->dictionary()->keys(), (std::vector<std::string>{"b", "a", "c"}));
}

TEST(JSONSerialization, RejectsInvalidTextWithAnError) {
    const std::pair<std::string, const char*> rows[] = {  // text, part of the debug description
        {"", "empty"}, {"   ", "empty"}, {"1", "did not start with array or object"},
        {"null", "did not start with array or object"}, {"[1,]", "Invalid value"}, {"{\"a\"}", "colon"},
        {"{'a': 1}", "name"}, {"[1] [2]", "root must not be followed"}, {"[01]", "Missing a comma"},
        {"[NaN]", "Invalid value"}, {"[1e400]", "too big"}, {"[1.8e308]", "too big"},
        {"[\"\xC3(\"]", "Invalid encoding"}, {"[\"\\ud800\"]", "surrogate"}, {"{\"\\udfff\": 1}", "surrogate"},
        {"[\"tab\there\"]", "Invalid escape"}, {"[", "Invalid value"}, {std::string("[]\0[]", 5), "Garbage at end"},
        {"[" + nestedArrays(600) + "]", "Too many nested"},
    };
    for (const auto& [text, mentions] : rows) {
        std::shared_ptr<Error> error;
        EXPECT_FALSE(JSONSerialization::parse(text, &error)) << text;
        ASSERT_TRUE(error) << text;
        EXPECT_EQ(error->domain(), "NSCocoaErrorDomain");
        EXPECT_EQ(error->code(), 3840);
        const auto* description = error->userInfo()["NSDebugDescription"].string();
        ASSERT_TRUE(description) << text;
        EXPECT_NE(description->find(mentions), std::string::npos) << text << " -> " << *description;
        EXPECT_TRUE(error->userInfo()["NSJSONSerializationErrorIndex"].isNumber());
    }
}

TEST(JSONSerialization, NestingStopsAtTheLimitWithoutRecursing) {
    EXPECT_TRUE(JSONSerialization::parse(nestedArrays(512)));
    EXPECT_FALSE(JSONSerialization::parse(nestedArrays(513)));
    EXPECT_FALSE(JSONSerialization::parse(std::string(2000000, '[')));
    EXPECT_FALSE(JSONSerialization::parse(std::string(1000000, '{').replace(1, 0, "\"k\":")));
    Value deep = Array{};
    for (int i = 0; i < 511; ++i) deep = Array{deep};
    EXPECT_TRUE(JSONSerialization::isValidJSONObject(deep));
    EXPECT_FALSE(JSONSerialization::isValidJSONObject(Array{deep}));
}

TEST(JSONSerialization, WritesThePlatformsTextAndReadsItBack) {
    const Value document = Dictionary{{"url", "https://a.example/p?q"}, {"list", Array{1, 2.5, true, Null{}, 1e21, 3.0}},
                                      {"empty", Dictionary{}}, {"text", "\"\\\n\x01\xC3\xA9"}};
    EXPECT_EQ(*JSONSerialization::write(document, false),
              R"({"url":"https:\/\/a.example\/p?q","list":[1,2.5,true,null,1e+21,3],"empty":{},"text":"\"\\\n\u0001)"
              "\xC3\xA9\"}");
    EXPECT_EQ(*JSONSerialization::write(Dictionary{{"a", Array{1, Dictionary{}}}, {"b", Array{}}}, true),
              "{\n  \"a\" : [\n    1,\n    {\n\n    }\n  ],\n  \"b\" : [\n\n  ]\n}");
    const Value numbersAndText = Dictionary{
        {"numbers", Array{0.1, -0.0, 5e-324, 1.7976931348623157e308, INT64_MIN, INT64_MAX, 123456789012345.0,
                          1e15, 9007199254740993.0}},
        {"strings", Array{"", std::string("\0\x1F\x7F", 3), "\xF0\x9F\x98\x80/\\\"", "\xE2\x80\xA8"}},
        {"mixed", Array{Dictionary{{"a", Null{}}}, Array{true, false}}},
    };
    for (bool pretty : {false, true}) {
        const auto text = JSONSerialization::write(numbersAndText, pretty);
        ASSERT_TRUE(text);
        EXPECT_EQ(JSONSerialization::parse(*text), numbersAndText) << *text;
    }
}

TEST(JSONSerialization, RefusesWhatJSONCannotHold) {
    const Value rows[] = {Value("top-level string"), Value(), Array{Value()}, Array{Data{1}},
                          Dictionary{{"d", Date{0}}}, Array{Error::make("D", 1)}, Array{std::nan("")},
                          Dictionary{{"x", -std::numeric_limits<double>::infinity()}},
                          Array{"\xC0\x80"}, Array{"a\x80"}, Dictionary{{"\xED\xA0\x80", 1}}};  // invalid UTF-8
    for (const auto& row : rows) {
        EXPECT_FALSE(JSONSerialization::isValidJSONObject(row)) << row.description();
        for (bool pretty : {false, true}) {
            std::shared_ptr<Error> error;
            EXPECT_FALSE(JSONSerialization::write(row, pretty, &error)) << row.description();
            ASSERT_TRUE(error) << row.description();
            EXPECT_EQ(error->domain(), "NSCocoaErrorDomain");
            EXPECT_EQ(error->code(), 3851);
        }
    }
    EXPECT_TRUE(JSONSerialization::isValidJSONObject(Dictionary{{"a", Array{1, "b", Null{}, false}}}));
}

#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/platform/io/JSONSerialization.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace krcommon;
using krcommon::platform::Array;
using krcommon::platform::Dictionary;
using krcommon::platform::Null;
using krcommon::platform::Value;
using krcommon::test::LogCapture;

namespace {

TEST(KRParamsEncdoe, EncodesReservedAndNonAsciiBytesOnly) {
    struct Row { const char* in; const char* out; };
    const Row rows[] = {
        {"a b&c", "a%20b%26c"},
        {"\xC3\xA9", "%C3%A9"},
        {"x#y%z<w", "x#y%z<w"},
        {"$&+,/:;=?@ ", "%24%26%2B%2C%2F%3A%3B%3D%3F%40%20"},
        {"AZaz09-._~!*'()", "AZaz09-._~!*'()"},
        {"\x01\x7F\t", "\x01\x7F\t"},
        {"\xF0\x9F\x98\x80", "%F0%9F%98%80"},
        {"", ""},
    };
    for (const auto& row : rows) EXPECT_EQ(KRParamsEncdoe(row.in), row.out) << row.in;
}

TEST(KRParamsEncdoe, AbsentOrInvalidUtf8GivesAbsent) {
    EXPECT_EQ(KRParamsEncdoe(std::nullopt), std::nullopt);
    for (const char* bad : {"\xC3", "\xC0\xAF", "\xED\xA0\x80", "a\xFF", "\xF4\x90\x80\x80"})
        EXPECT_EQ(KRParamsEncdoe(bad), std::nullopt) << bad;
}

TEST(KRQueryStringFromParameters, SortsKeysByBytesAndEncodesValuesOnly) {
    struct Row { Dictionary params; const char* query; };
    const Row rows[] = {
        {{{"b", "2"}, {"a", "1"}}, "a=1&b=2"},
        {{{"B", "x"}, {"a", "y"}}, "B=x&a=y"},
        {{{"b", "1"}, {"_", "2"}, {"B", "3"}}, "B=3&_=2&b=1"},
        {{{"q", "a b+c/d"}}, "q=a%20b%2Bc%2Fd"},
        {{{"p", "100%"}}, "p=100%"},
        {{{"my key", "a b"}}, "my key=a%20b"},
        {{{"k", "\xFF raw"}}, "k=\xFF raw"},
        {{}, ""},
        {{{"ab", "1"}, {"a", "2"}, {"abc", "3"}}, "a=2&ab=1&abc=3"},
    };
    for (const auto& row : rows) EXPECT_EQ(KRQueryStringFromParameters(row.params), row.query) << row.query;
    EXPECT_EQ(KRQueryStringFromParameters(Value()), "");
}

TEST(KRQueryStringFromParameters, AnyNonStringValueDiscardsTheWholeQuery) {
    const Value nonStrings[] = {Value(5), Value(true), Value(Null{}), Value(Array{"a"}), Value(Dictionary{})};
    for (const auto& bad : nonStrings) {
        LogCapture capture;
        EXPECT_EQ(KRQueryStringFromParameters(Dictionary{{"k", "v"}, {"n", bad}}), std::nullopt);
        EXPECT_EQ(capture.count("value is not NSString"), 1u);
        EXPECT_EQ(capture.count("-ERROR-KRRequestSerialization-"), 1u);
    }
    LogCapture capture;
    EXPECT_EQ(KRQueryStringFromParameters(Value("a=1")), std::nullopt);
    EXPECT_EQ(capture.count("[KRSDK-Common-ERROR-KRRequestSerialization-"), 1u);
}

TEST(KRJsonFromParameters, PrettyJsonThatReadsBackEqual) {
    const Dictionary params{{"name", "a \"q\" /\xC3\xA9"},
                            {"n", 5},
                            {"r", 1.5},
                            {"ok", true},
                            {"none", Null{}},
                            {"list", Array{1, "two", Dictionary{{"x", Array{}}}}}};
    const auto json = KRJsonFromParameters(Value(params));
    ASSERT_TRUE(json);
    EXPECT_NE(json->find("\n  \"name\" : "), std::string::npos) << *json;
    // Members keep their insertion order.
    EXPECT_LT(json->find("\"name\""), json->find("\"list\""));
    const auto back = platform::JSONSerialization::parse(*json);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, Value(params));
}

TEST(KRJsonFromParameters, UnserialisableValuesLogTheErrorAndGiveAbsent) {
    const Value bad[] = {Value(Dictionary{{"d", platform::Data{1, 2}}}), Value(Dictionary{{"x", Value()}}),
                         Value(Dictionary{{"inf", 1.0 / 0.0}}), Value()};
    for (const auto& params : bad) {
        LogCapture capture;
        EXPECT_EQ(KRJsonFromParameters(params), std::nullopt) << params.description();
        ASSERT_EQ(capture.lines().size(), 1u);
        EXPECT_EQ(capture.lines()[0].rfind("[KRSDK-Common-ERROR-KRRequestSerialization-", 0), 0u);
        EXPECT_NE(capture.lines()[0].find("]=>Got an error: Error Domain="), std::string::npos) << capture.lines()[0];
    }
}

}  // namespace

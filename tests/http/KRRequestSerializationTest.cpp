// Request serialization: the exported encoding functions and the manager's request builder.

#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/core/Exception.h>

#include "support/LogCapture.h"

#include <gmock/gmock.h>

namespace krcommon {
namespace {

using namespace platform;

TEST(KRParamsEncdoe, EncodesTheReservedSetAndNonAsciiBytesOnly) {
    const std::pair<std::optional<std::string>, std::optional<std::string>> rows[] = {
        {"$&+,/:;=?@ ", "%24%26%2B%2C%2F%3A%3B%3D%3F%40%20"}, {"x#y%z<w-._~!*'()\x01\x7F\t", "x#y%z<w-._~!*'()\x01\x7F\t"},
        {"\xC3\xA9\xF0\x9F\x98\x80", "%C3%A9%F0%9F%98%80"}, {"", ""}, {std::nullopt, std::nullopt},
        {"a\xFF", std::nullopt}, {"\xC0\xAF", std::nullopt}, {"\xED\xA0\x80", std::nullopt},  // not UTF-8
    };
    for (const auto& [in, out] : rows) EXPECT_EQ(KRParamsEncdoe(in), out) << in.value_or("(absent)");
}

TEST(KRQueryStringFromParameters, SortsKeysByBytesAndEncodesValuesOnly) {
    const std::pair<Dictionary, const char*> rows[] = {
        {{{"b", "1"}, {"_", "2"}, {"B", "3"}}, "B=3&_=2&b=1"}, {{{"ab", "1"}, {"a", "2"}, {"abc", "3"}}, "a=2&ab=1&abc=3"},
        {{{"q", "a b+c/d"}, {"p", "100%"}, {"my key", "a b"}}, "my key=a%20b&p=100%&q=a%20b%2Bc%2Fd"},
        {{{"k", "\xFF raw"}}, "k=\xFF raw"}, {{}, ""},  // what cannot be encoded goes as it is
    };
    for (const auto& [params, query] : rows) EXPECT_EQ(KRQueryStringFromParameters(params), query);
    EXPECT_EQ(KRQueryStringFromParameters(Value()), "");
    EXPECT_EQ(KRQueryStringFromParameters(Dictionary{{"a", "v"}, {"n", Null{}}, {"z", "v"}}), std::nullopt) << "one non-string";
}

std::string bodyText(const URLRequest& r) { return r.HTTPBody() ? std::string(r.HTTPBody()->begin(), r.HTTPBody()->end()) : "<no body>"; }

TEST(RequestWithMethod, ParametersOfUriMethodsJoinTheURLAndLeaveNoBody) {
    enum Log { None, Joined, Repaired };  // which URL line is logged
    const std::tuple<const char*, const char*, Dictionary, const char*, Log> rows[] = {
        {"GET", "https://h/p?x=1", {{"y", "2"}}, "https://h/p?x=1&y=2", Joined},
        {"get", "https://h/p", {{"b", "2"}, {"a", "1"}}, "https://h/p?a=1&b=2", Joined},
        {"DELETE", "https://h/p", {{"id", "a/b"}}, "https://h/p?id=a%2Fb", Joined},
        {"HEAD", "https://h/p?", {{"q", "1"}}, "https://h/p?&q=1", Joined},
        {"GET", "https://h/p#f", {{"k", "v v"}}, "https://h/p#f?k=v%20v", Joined},
        {"GET", "https://h/p", {{"my key", "a b"}}, "https://h/p?my%20key=a%2520b", Repaired},
        {"GET", "https://h/p#f", {{"k", "#"}}, "https://h/p%23f?k=%23", Repaired},
        {"GET", "https://h/p", {}, "https://h/p", None}, {"GET", "https://h/p", {{"k", "v"}, {"n", 5}}, "https://h/p", None},
    };
    for (const auto& [method, url, params, expected, log] : rows) {
        auto manager = KRSDKMemberHttpManager::create();
        test::LogCapture capture;
        const URLRequest request = manager->requestWithMethod(method, url, Value(params), false);
        EXPECT_EQ(request.URL()->absoluteString(), expected);
        EXPECT_EQ(request.HTTPMethod(), method) << "the method is kept as given";
        EXPECT_EQ(bodyText(request) + request.valueForHTTPHeaderField("Content-Type").value_or(""), "<no body>");
        EXPECT_EQ(capture.count("]=>mutable rqeust url is:" + std::string(expected)), log == Joined ? 1u : 0u);
        EXPECT_EQ(capture.count("]=>mutable rqeust after deal url is:" + std::string(expected)), log == Repaired ? 1u : 0u);
    }
}

TEST(RequestWithMethod, BodiesAreFormJsonOrTextAndLoggedBelow2000Utf16Units) {
    const Dictionary map{{"b", "x y"}, {"a", "1"}};
    std::string a1997(1997, 'a'), emoji = "\xF0\x9F\x98\x80", emojis;  // an emoji is two UTF-16 units
    for (int i = 0; i < 1000; ++i) emojis += emoji;
    const std::tuple<Value, bool, std::optional<std::string>, const char*> rows[] = {
        // parameters, isFormatParam, body, the logged "http post data is:" text (nullptr: not logged)
        {Value(map), true, "a=1&b=x%20y", "a=1&b=x%20y"}, {Value(map), false, KRJsonFromParameters(Value(map)), "{\n  \"b\" : "},
        {Value("a=1"), true, "a=1", "a=1"}, {Value(Dictionary{{"n", 5}}), true, "", ""},
        {Value(Dictionary{{"d", Data{1}}}), false, "", ""}, {Value(), true, std::nullopt, "(null)"},
        {Value(Array{"a"}), false, std::nullopt, "(null)"},
        {Value(a1997 + "aa"), false, a1997 + "aa", "aaa"}, {Value(a1997 + "aaa"), false, a1997 + "aaa", nullptr},
        {Value(a1997 + emoji), false, a1997 + emoji, "aaa"}, {Value(emojis), false, emojis, nullptr},
    };
    for (const auto& [params, isFormat, body, logged] : rows) {
        SCOPED_TRACE(params.description().substr(0, 40));
        auto manager = KRSDKMemberHttpManager::create();
        test::LogCapture capture;
        const URLRequest r = manager->requestWithMethod("PUT", "https://h/p", params, isFormat);
        EXPECT_EQ(bodyText(r), body.value_or("<no body>"));
        EXPECT_EQ(r.URL()->absoluteString() + " " + *r.valueForHTTPHeaderField("content-type"),
                  "https://h/p application/x-www-form-urlencoded");
        EXPECT_EQ(capture.count("]=>unknow parameters calss...."), body ? 0u : 1u);
        // A map the body form cannot take (a number to form-encode, bytes in JSON) is logged and sent empty.
        EXPECT_EQ(capture.count(isFormat ? "]=>value is not NSString" : "]=>Got an error: Error Domain="), body == "" ? 1u : 0u);
        EXPECT_EQ(capture.count("http post data is:"), logged ? 1u : 0u);
        EXPECT_EQ(capture.count(std::string("]=>http post data is:") + (logged ? logged : "")), logged ? 1u : 0u);
    }
}

TEST(RequestWithMethod, AbsentOrUnparseablePartsRaiseBeforeAnyRequestIsMade) {
    auto manager = KRSDKMemberHttpManager::create();
    const auto cb = [](auto&&...) {};
    const auto raises = [](const std::string& name) {
        return testing::ThrowsMessage<InternalInconsistencyException>(testing::StrEq("Invalid parameter not satisfying: " + name));
    };
    EXPECT_THAT([&] { (void)manager->requestWithMethod(std::nullopt, std::nullopt, Value(), false); }, raises("method"));
    EXPECT_THAT([&] { (void)manager->requestWithMethod("GET", std::nullopt, Value(), false); }, raises("URLString"));
    EXPECT_THAT([&] { (void)manager->requestWithMethod("GET", "https://h/a b", Value(), false); }, raises("url"));
    EXPECT_THAT([&] { manager->GET("http://bad host/", Value(), Value(), std::nullopt, cb, cb); }, raises("URLString"));
    EXPECT_THAT([&] { manager->POST(std::nullopt, Value(), Value(), std::nullopt, true, cb, cb); }, raises("URLString"));
    EXPECT_THAT([&] { manager->uploadData("http://bad host/", Value(), std::nullopt, "f", cb, cb); }, raises("URLString"));
    EXPECT_THAT([&] { (void)manager->postUploadData("http://bad host/", Value(), std::nullopt, "f"); }, raises("url"));
}

}  // namespace
}  // namespace krcommon

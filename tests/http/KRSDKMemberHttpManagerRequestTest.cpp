#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/net/URL.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace krcommon;
using krcommon::platform::Array;
using krcommon::platform::Dictionary;
using krcommon::platform::URLRequest;
using krcommon::platform::Value;
using krcommon::test::LogCapture;

namespace {

std::string bodyText(const URLRequest& r) {
    const auto& body = r.HTTPBody();
    return body ? std::string(body->begin(), body->end()) : std::string("<no body>");
}

std::string urlText(const URLRequest& r) { return r.URL() ? r.URL()->absoluteString() : "<no url>"; }

struct URIRow {
    const char* method;
    const char* url;
    Dictionary params;
    const char* expectedURL;
    const char* logLine;  // nullptr: no URL line
};

class ParametersInURI : public ::testing::TestWithParam<URIRow> {};

TEST_P(ParametersInURI, QueryJoinsTheURL) {
    const auto& row = GetParam();
    auto manager = KRSDKMemberHttpManager::create();
    LogCapture capture;
    const URLRequest request = manager->requestWithMethod(row.method, row.url, Value(row.params), false);
    EXPECT_EQ(urlText(request), row.expectedURL);
    EXPECT_EQ(request.HTTPMethod(), row.method) << "the method is kept as given";
    EXPECT_FALSE(request.HTTPBody());
    EXPECT_FALSE(request.valueForHTTPHeaderField("Content-Type"));
    EXPECT_EQ(request.timeoutInterval(), 60.0);
    const auto urlLines = capture.count("mutable rqeust");
    if (row.logLine) {
        EXPECT_EQ(urlLines, 1u);
        EXPECT_EQ(capture.count(row.logLine), 1u) << row.logLine;
        EXPECT_EQ(capture.count("[KRSDK-Common-DEBUG-KRSDKMemberHttpManager-"), 1u);
    } else {
        EXPECT_EQ(urlLines, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ParametersInURI,
    ::testing::Values(
        URIRow{"GET", "https://h/p?x=1", {{"y", "2"}}, "https://h/p?x=1&y=2", "]=>mutable rqeust url is:https://h/p?x=1&y=2"},
        URIRow{"GET", "https://h/p", {{"y", "2"}}, "https://h/p?y=2", "]=>mutable rqeust url is:https://h/p?y=2"},
        URIRow{"get", "https://h/p", {{"b", "2"}, {"a", "1"}}, "https://h/p?a=1&b=2", "url is:https://h/p?a=1&b=2"},
        URIRow{"DELETE", "https://h/p", {{"id", "a/b"}}, "https://h/p?id=a%2Fb", "url is:"},
        URIRow{"HEAD", "https://h/p?", {{"q", "1"}}, "https://h/p?&q=1", "url is:"},
        URIRow{"GET", "https://h/p", {{"my key", "a b"}}, "https://h/p?my%20key=a%2520b",
               "]=>mutable rqeust after deal url is:https://h/p?my%20key=a%2520b"},
        URIRow{"GET", "https://h/p#frag", {{"k", "v v"}}, "https://h/p#frag?k=v%20v", "url is:https://h/p#frag?k=v%20v"},
        URIRow{"GET", "https://h/p#frag", {{"k", "#"}}, "https://h/p%23frag?k=%23", "after deal url is:"},
        URIRow{"GET", "https://h/p", {}, "https://h/p", nullptr},
        URIRow{"GET", "https://h/p", {{"k", "v"}, {"n", 5}}, "https://h/p", nullptr}));

TEST(RequestWithMethod, BodyMethodsTable) {
    struct Row {
        const char* method;
        Value params;
        bool isFormat;
        std::string body;
        const char* logged;  // the "http post data is:" text, or nullptr when not logged
    };
    const Dictionary map{{"b", "x y"}, {"a", "1"}};
    const std::string json = *KRJsonFromParameters(Value(map));
    const Row rows[] = {
        {"POST", Value(map), true, "a=1&b=x%20y", "]=>http post data is:a=1&b=x%20y"},
        {"POST", Value(map), false, json, "]=>http post data is:{"},
        {"PUT", Value("a=1"), true, "a=1", "]=>http post data is:a=1"},
        {"POST", Value(Dictionary{{"n", 5}}), true, "", "]=>http post data is:"},
        {"POST", Value(Dictionary{{"d", platform::Data{1}}}), false, "", "]=>http post data is:"},
    };
    for (const auto& row : rows) {
        auto manager = KRSDKMemberHttpManager::create();
        LogCapture capture;
        const URLRequest r = manager->requestWithMethod(row.method, "https://h/p", row.params, row.isFormat);
        EXPECT_EQ(bodyText(r), row.body) << row.method << " " << row.params.description();
        EXPECT_EQ(urlText(r), "https://h/p");
        EXPECT_EQ(r.valueForHTTPHeaderField("content-type"), "application/x-www-form-urlencoded");
        EXPECT_EQ(capture.count(row.logged), 1u) << row.logged;
    }
}

TEST(RequestWithMethod, JsonBodyReadsBackAndIsStillLabelledAsAForm) {
    auto manager = KRSDKMemberHttpManager::create();
    const Value params(Dictionary{{"list", Array{1, "two"}}, {"ok", true}});
    const URLRequest r = manager->requestWithMethod("POST", "https://h/p", params, false);
    EXPECT_EQ(platform::JSONSerialization::parse(bodyText(r)), params);
    EXPECT_EQ(r.valueForHTTPHeaderField("Content-Type"), "application/x-www-form-urlencoded");

    manager->setValue("application/json", "Content-Type");
    EXPECT_EQ(manager->requestWithMethod("POST", "https://h/p", params, false).valueForHTTPHeaderField("Content-Type"),
              "application/json");
}

TEST(RequestWithMethod, UnknownParameterKindsSendNoBody) {
    for (const Value& params : {Value(), Value(Array{"a"}), Value(5)}) {
        auto manager = KRSDKMemberHttpManager::create();
        LogCapture capture;
        const URLRequest r = manager->requestWithMethod("POST", "https://h/p", params, true);
        EXPECT_FALSE(r.HTTPBody());
        const auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_NE(lines[0].find("]=>unknow parameters calss...."), std::string::npos);
        EXPECT_NE(lines[1].find("]=>http post data is:(null)"), std::string::npos);
    }
}

TEST(RequestWithMethod, BodiesOf2000Utf16UnitsOrMoreAreNotLogged) {
    struct Row { std::string body; bool logged; };
    const std::string han = "\xE5\x90\x8D";          // one UTF-16 unit, three bytes
    const std::string emoji = "\xF0\x9F\x98\x80";    // two UTF-16 units
    const Row rows[] = {
        {std::string(1999, 'a'), true},
        {std::string(2000, 'a'), false},
        {[&] { std::string s; for (int i = 0; i < 1999; ++i) s += han; return s; }(), true},
        {[&] { std::string s; for (int i = 0; i < 1000; ++i) s += emoji; return s; }(), false},
        {[&] { std::string s(1997, 'a'); return s + emoji; }(), true},
    };
    for (const auto& row : rows) {
        auto manager = KRSDKMemberHttpManager::create();
        LogCapture capture;
        const URLRequest r = manager->requestWithMethod("POST", "https://h/p", Value(row.body), false);
        EXPECT_EQ(bodyText(r), row.body);
        EXPECT_EQ(capture.count("http post data is:"), row.logged ? 1u : 0u) << row.body.size();
    }
}

TEST(RequestWithMethod, DefaultHeadersNeverReplaceAndCanBeRemoved) {
    auto manager = KRSDKMemberHttpManager::create();
    EXPECT_EQ(manager->HTTPMethodsEncodingParametersInURI(), (std::set<std::string>{"GET", "HEAD", "DELETE"}));
    manager->setValue("text/plain", "Content-Type");
    manager->setValue("a", "X-One");
    manager->setValue("b", "x-one");  // a second field of another case: the first one set wins
    URLRequest r = manager->requestWithMethod("POST", "https://h/p", Value("x"), false);
    EXPECT_EQ(r.valueForHTTPHeaderField("CONTENT-TYPE"), "text/plain");
    EXPECT_EQ(r.valueForHTTPHeaderField("X-One"), "a");

    manager->setValue(std::nullopt, "Content-Type");
    EXPECT_FALSE(manager->mutableHTTPRequestHeaders().contains("Content-Type"));
    r = manager->requestWithMethod("GET", "https://h/p", Value(), false);
    EXPECT_FALSE(r.valueForHTTPHeaderField("Content-Type"));
    EXPECT_EQ(r.valueForHTTPHeaderField("x-one"), "a");

    manager->setHTTPMethodsEncodingParametersInURI({"POST"});
    r = manager->requestWithMethod("post", "https://h/p", Value(Dictionary{{"k", "v"}}), false);
    EXPECT_EQ(urlText(r), "https://h/p?k=v");
    EXPECT_FALSE(r.HTTPBody());
}

TEST(RequestWithMethod, PreconditionsRaiseWithTheExactDescription) {
    auto manager = KRSDKMemberHttpManager::create();
    struct Row { std::optional<std::string_view> method, url; const char* description; };
    const Row rows[] = {
        {std::nullopt, "https://h/p", "Invalid parameter not satisfying: method"},
        {std::nullopt, std::nullopt, "Invalid parameter not satisfying: method"},
        {"GET", std::nullopt, "Invalid parameter not satisfying: URLString"},
        {"GET", "https://h/a b", "Invalid parameter not satisfying: url"},
        {"GET", "", "Invalid parameter not satisfying: url"},
    };
    for (const auto& row : rows) {
        try {
            (void)manager->requestWithMethod(row.method, row.url, Value(), false);
            ADD_FAILURE() << "no exception for " << row.description;
        } catch (const platform::InternalInconsistencyException& e) {
            EXPECT_EQ(e.description(), row.description);
            EXPECT_EQ(e.name(), "NSInternalInconsistencyException");
            EXPECT_EQ(e.file(), "KRSDKMemberHttpManager");
            EXPECT_GT(e.line(), 0u);
        }
    }
}

}  // namespace

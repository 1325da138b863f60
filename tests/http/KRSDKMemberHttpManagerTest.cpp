#include "http/HttpTestSupport.h"
#include "support/LogCapture.h"
#include "support/TempAppHome.h"
#include "support/TestServer.h"

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/http/KRSDKResponseHandler.h>
#include <krcommon/platform/app/NotificationCenter.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/io/PropertyList.h>

#include <gtest/gtest.h>

#include <regex>

namespace krcommon {
namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;
using test::LogCapture;
using test::Outcome;
using test::TestCertificates;
using test::TestServer;

std::string text(const Data& d) { return {d.begin(), d.end()}; }
Data bytes(std::string_view s) { return {s.begin(), s.end()}; }

class ManagerWireTest : public ::testing::Test {
protected:
    void SetUp() override {
        server = TestServer::http();
        server->route("GET", "/get", [](const auto&, auto& res) { res.set_content(R"({"ok":1})", "application/json"); });
        server->route("POST", "/post", [](const auto&, auto& res) { res.set_content(R"({"ok":2})", "application/json"); });
        server->start();
        manager = KRSDKMemberHttpManager::create();
    }
    std::string url(const std::string& path) const { return server->origin("http") + path; }

    std::shared_ptr<Outcome> get(const Value& headers, const Value& params, std::optional<std::string> type = {}) {
        auto outcome = std::make_shared<Outcome>();
        auto [success, failure] = test::callbacksInto(outcome);
        manager->GET(url("/get"), headers, params, std::move(type), success, failure);
        EXPECT_TRUE(test::waitFor(outcome));
        return outcome;
    }
    std::shared_ptr<Outcome> post(const Value& headers, const Value& params, bool form) {
        auto outcome = std::make_shared<Outcome>();
        auto [success, failure] = test::callbacksInto(outcome);
        manager->POST(url("/post"), headers, params, std::nullopt, form, success, failure);
        EXPECT_TRUE(test::waitFor(outcome));
        return outcome;
    }

    std::unique_ptr<TestServer> server;
    std::shared_ptr<KRSDKMemberHttpManager> manager;
};

TEST_F(ManagerWireTest, GetCarriesTheQueryAndAFifteenSecondTimeout) {
    auto outcome = get(Value(), Value(Dictionary{{"b", "2 3"}, {"a", "1"}}));
    ASSERT_TRUE(outcome->succeeded);
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_TRUE(outcome->onMainQueue);
    EXPECT_EQ(outcome->object, Value(Dictionary{{"ok", 1}}));
    const auto received = server->requests().at(0);
    EXPECT_EQ(received.method, "GET");
    EXPECT_EQ(received.queryValue("a"), "1");
    EXPECT_EQ(received.queryValue("b"), "2 3");
    EXPECT_EQ(outcome->task->originalRequest().timeoutInterval(), 15.0);
    EXPECT_EQ(outcome->task->originalRequest().URL()->absoluteString(), url("/get?a=1&b=2%203"));
    EXPECT_TRUE(manager->mutableTaskHandlerByTaskIdentifier().empty());
}

TEST_F(ManagerWireTest, PostSendsAFormOrJsonBody) {
    const Value params(Dictionary{{"name", "kr user"}, {"age", "7"}});
    auto form = post(Value(), params, true);
    ASSERT_TRUE(form->succeeded);
    auto received = server->requests().at(0);
    EXPECT_EQ(received.body, "age=7&name=kr%20user");
    EXPECT_EQ(received.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(form->task->originalRequest().timeoutInterval(), 15.0);

    auto json = post(Value(Dictionary{{"Content-Type", "application/json"}}), params, false);
    ASSERT_TRUE(json->succeeded);
    received = server->requests().at(1);
    EXPECT_EQ(received.header("Content-Type"), "application/json");
    EXPECT_EQ(platform::JSONSerialization::parse(received.body).value_or(Value()), params);
}

TEST_F(ManagerWireTest, DefaultHeadersWinOnGetAndCallerHeadersWinOnPost) {
    manager->setValue("default", "X-Shared");
    manager->setValue("only-default", "X-Default");
    const Value caller(Dictionary{{"X-Shared", "caller"}, {"X-Caller", "yes"}});
    get(caller, Value(Dictionary{}));
    post(caller, Value(Dictionary{{"a", "1"}}), true);
    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), 2u);
    struct Row {
        std::size_t index;
        const char* shared;
    } rows[] = {{0, "default"}, {1, "caller"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(requests[row.index].method);
        EXPECT_EQ(requests[row.index].header("X-Shared"), row.shared);
        EXPECT_EQ(requests[row.index].header("X-Default"), "only-default");
        EXPECT_EQ(requests[row.index].header("X-Caller"), "yes");
    }
}

TEST_F(ManagerWireTest, UploadIsParsedByTheServersMultipartReaderWithoutDefaultHeaders) {
    manager->setValue("default", "X-Default");
    server->route("POST", "/upload", [](const auto&, auto& res) { res.set_content(R"({"stored":true})", "application/json"); });
    auto outcome = std::make_shared<Outcome>();
    auto [success, failure] = test::callbacksInto(outcome);
    const std::string file("\x89PNG\r\n\x1a\n\0\xff binary", 17);
    LogCapture capture;
    manager->uploadData(url("/upload"), Value(Dictionary{{"user", "kr"}, {"count", 3}}), bytes(file), "avatar", success,
                        failure);
    ASSERT_TRUE(test::waitFor(outcome));
    ASSERT_TRUE(outcome->succeeded) << (outcome->error ? outcome->error->description() : "");
    EXPECT_EQ(outcome->object, Value(Dictionary{{"stored", true}}));
    const auto received = server->requests().at(0);
    EXPECT_FALSE(received.hasHeader("X-Default"));
    EXPECT_TRUE(std::regex_match(received.header("Content-Type"),
                                 std::regex("multipart/form-data; boundary=-----Boundary[0-9A-F]{16}")));
    ASSERT_EQ(received.parts.count("user"), 1u);
    EXPECT_EQ(received.parts.find("user")->second.content, "kr");
    EXPECT_EQ(received.parts.find("count")->second.content, "3");
    ASSERT_EQ(received.parts.count("avatar"), 1u);
    const auto& part = received.parts.find("avatar")->second;
    EXPECT_EQ(part.filename, "avatar");
    EXPECT_EQ(part.contentType, "avatar");
    EXPECT_EQ(part.content, file);
    EXPECT_EQ(outcome->task->originalRequest().timeoutInterval(), 60.0);
    EXPECT_EQ(capture.count("]=>httpBody is:(null)"), 1u) << "a binary body logs as the null text";
    EXPECT_EQ(capture.count("[KRSDK-Common-ERROR-KRSDKMemberHttpManager-"), 1u);
}

TEST_F(ManagerWireTest, UnparseableURLRaisesBeforeAnyRequest) {
    auto [success, failure] = test::callbacksInto(std::make_shared<Outcome>());
    const struct {
        std::function<void()> call;
        const char* reason;
    } rows[] = {
        {[&] { manager->GET("http://bad host/", Value(), Value(), std::nullopt, success, failure); },
         "Invalid parameter not satisfying: URLString"},
        {[&] { manager->POST(std::nullopt, Value(), Value(), std::nullopt, true, success, failure); },
         "Invalid parameter not satisfying: URLString"},
        {[&] { manager->uploadData("http://bad host/", Value(), std::nullopt, "f", success, failure); },
         "Invalid parameter not satisfying: URLString"},
        {[&] { (void)manager->postUploadData("http://bad host/", Value(), std::nullopt, "f"); },
         "Invalid parameter not satisfying: url"},
    };
    for (const auto& row : rows) {
        try {
            row.call();
            ADD_FAILURE() << "no exception for " << row.reason;
        } catch (const platform::InternalInconsistencyException& e) {
            EXPECT_EQ(e.reason(), row.reason);
        }
    }
    EXPECT_EQ(server->requestCount(), 0u);
    EXPECT_TRUE(manager->mutableTaskHandlerByTaskIdentifier().empty());
}

TEST_F(ManagerWireTest, PostWithoutCallbacksCompletesQuietlyAndEmptiesTheTable) {
    auto task = manager->POST(url("/post"), Value(), Value(Dictionary{}), std::nullopt, true, nullptr, nullptr);
    ASSERT_NE(task, nullptr);
    EXPECT_TRUE(manager->mutableTaskHandlerByTaskIdentifier().contains(task->taskIdentifier()));
    EXPECT_TRUE(platform::MainQueue::runUntil([&] { return manager->mutableTaskHandlerByTaskIdentifier().empty(); }, 20));
}

TEST_F(ManagerWireTest, ManagerDroppedByItsCallerLivesUntilItsCallbackHasRun) {
    auto outcome = std::make_shared<Outcome>();
    auto [success, failure] = test::callbacksInto(outcome);
    std::weak_ptr<KRSDKMemberHttpManager> weak = manager;
    manager->GET(url("/get"), Value(), Value(), std::nullopt, success, failure);
    manager.reset();
    EXPECT_FALSE(weak.expired()) << "the running task keeps its manager";
    ASSERT_TRUE(test::waitFor(outcome));
    EXPECT_TRUE(outcome->succeeded);
    EXPECT_TRUE(platform::MainQueue::runUntil([&] { return weak.expired(); }, 5)) << "the manager leaked";
}

// ---- Multipart bodies

TEST(ManagerMultipartTest, BoundaryHasTheFixedShapeAndIsFreshEachTime) {
    const std::regex shape("-----Boundary[0-9A-F]{16}");
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const auto boundary = KRSDKMemberHttpManager::AFCreateMultipartFormBoundary();
        EXPECT_EQ(boundary.size(), 29u);
        EXPECT_TRUE(std::regex_match(boundary, shape)) << boundary;
        seen.insert(boundary);
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(ManagerMultipartTest, BodyLayoutIsExact) {
    const std::string B = "-----Boundary0123456789ABCDEF";
    struct Row {
        const char* name;
        Value params;
        std::optional<Data> file;
        std::string expected;
    } rows[] = {
        {"nothing", Value(), std::nullopt, "--" + B + "--\r\n"},
        {"field and file", Value(Dictionary{{"a", "1"}}), bytes("D"),
         "--" + B + "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--" + B +
             "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"file\"\r\nContent-Type: file\r\n\r\nD\r\n--" +
             B + "--\r\n"},
        {"numbers and order kept", Value(Dictionary{{"z", 10}, {"a", 2.5}}), std::nullopt,
         "--" + B + "\r\nContent-Disposition: form-data; name=\"z\"\r\n\r\n10\r\n--" + B +
             "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n2.5\r\n--" + B + "--\r\n"},
        {"unescaped", Value(Dictionary{{"q\"x", "a\r\nb"}}), bytes(""),
         "--" + B + "\r\nContent-Disposition: form-data; name=\"q\"x\"\r\n\r\na\r\nb\r\n--" + B +
             "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"file\"\r\nContent-Type: file\r\n\r\n\r\n--" +
             B + "--\r\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(text(KRSDKMemberHttpManager::createBodyWithBoundary(B, row.params, row.file, "file")), row.expected)
            << row.name;
    }
}

TEST(ManagerMultipartTest, RequestCarriesTypeLengthAndBodyAndLogsTheBody) {
    auto manager = KRSDKMemberHttpManager::create();
    manager->setValue("ignored", "X-Default");
    LogCapture capture;
    const auto empty = manager->postUploadData("https://h/up", Value(), std::nullopt, "file");
    EXPECT_EQ(empty.HTTPMethod(), "POST");
    EXPECT_EQ(empty.valueForHTTPHeaderField("Content-Length"), "35");
    EXPECT_EQ(empty.HTTPBody()->size(), 35u);
    EXPECT_FALSE(empty.valueForHTTPHeaderField("X-Default"));
    EXPECT_EQ(empty.timeoutInterval(), 60.0);
    const auto type = *empty.valueForHTTPHeaderField("Content-Type");
    const auto boundary = type.substr(type.find('=') + 1);
    EXPECT_EQ(text(*empty.HTTPBody()), "--" + boundary + "--\r\n");
    EXPECT_EQ(capture.count("]=>httpBody is:--" + boundary + "--\r\n"), 1u);

    const auto full = manager->postUploadData("https://h/up", Value(Dictionary{{"a", "1"}}), bytes("xyz"), "k");
    EXPECT_EQ(full.valueForHTTPHeaderField("Content-Length"), std::to_string(full.HTTPBody()->size()));
}

// ---- The response handler, through a real server

struct HandlerRow {
    const char* name;
    int status;
    std::string body;
    std::optional<std::string> respType;
    bool succeeds;
    Value object;
    const char* domain;  // nullptr: no error
    std::int64_t code;
    bool underlying;
    int notifications;
};

class ManagerHandlerTest : public ::testing::TestWithParam<HandlerRow> {};

TEST_P(ManagerHandlerTest, CallerGetsTheHandlersObjectAndError) {
    const auto& row = GetParam();
    auto server = TestServer::http();
    server->route("GET", "/answer", [&row](const auto&, auto& res) {
        res.status = row.status;
        res.set_content(row.body, "application/json");
    });
    server->start();
    int notifications = 0;
    int seenBeforeCallback = -1;
    auto token = platform::NotificationCenter::defaultCenter().addObserverForName(
        SDK_INVALID_GRANT_NOTIFICATION_NAME, [&](const platform::Notification& n) {
            ++notifications;
            EXPECT_EQ(Value(n.userInfo()), Value(Dictionary{{"error", "invalid_grant"}}));
        });
    auto manager = KRSDKMemberHttpManager::create();
    auto outcome = std::make_shared<Outcome>();
    auto [success, failure] = test::callbacksInto(outcome);
    manager->GET(server->origin("http") + "/answer", Value(), Value(), row.respType,
                 [&, success = success](const auto& task, const Value& object) {
                     seenBeforeCallback = notifications;
                     success(task, object);
                 },
                 [&, failure = failure](const auto& task, const Value& object, const auto& error) {
                     seenBeforeCallback = notifications;
                     failure(task, object, error);
                 });
    ASSERT_TRUE(test::waitFor(outcome));
    platform::NotificationCenter::defaultCenter().removeObserver(token);

    EXPECT_EQ(outcome->calls, 1);
    EXPECT_TRUE(outcome->onMainQueue);
    EXPECT_EQ(outcome->succeeded, row.succeeds);
    EXPECT_EQ(outcome->object, row.object) << outcome->object.description();
    EXPECT_EQ(notifications, row.notifications);
    EXPECT_EQ(seenBeforeCallback, row.notifications) << "the notification comes before the callback";
    if (!row.domain) {
        EXPECT_EQ(outcome->error, nullptr);
        return;
    }
    ASSERT_NE(outcome->error, nullptr);
    EXPECT_EQ(outcome->error->domain(), row.domain);
    EXPECT_EQ(outcome->error->code(), row.code);
    const auto& info = outcome->error->userInfo();
    ASSERT_NE(info["URL"].objectAs<platform::URL>(), nullptr);
    EXPECT_EQ(info["URL"].objectAs<platform::URL>()->absoluteString(), server->origin("http") + "/answer");
    EXPECT_NE(info["errorResponse"].objectAs<platform::HTTPURLResponse>(), nullptr);
    EXPECT_EQ(info.contains(NSUnderlyingErrorKey), row.underlying);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ManagerHandlerTest,
    ::testing::Values(
        HandlerRow{"JsonObject", 200, R"({"a":[1,2]})", std::nullopt, true,
                   Value(Dictionary{{"a", platform::Array{1, 2}}}), nullptr, 0, false, 0},
        HandlerRow{"JsonArrayExplicitType", 200, "[1]", "json", true, Value(platform::Array{1}), nullptr, 0, false, 0},
        HandlerRow{"OneSpace", 200, " ", std::nullopt, false, Value(), KRSDKResponseDataIsNull, 600, false, 0},
        HandlerRow{"Empty", 200, "", "json", false, Value(), KRSDKResponseDataIsNull, 600, false, 0},
        HandlerRow{"NotJson", 200, "hello", "json", false, Value("hello"), KRSDKResponseDataFromatError, 600, true, 0},
        HandlerRow{"UnknownType", 200, R"({"a":1})", "xml", false, Value(R"({"a":1})"), KRSDKResponseDataFromatError, 600,
                   false, 0},
        HandlerRow{"StringType", 200, "plain text", "string", true, Value("plain text"), nullptr, 0, false, 0},
        HandlerRow{"InvalidGrantExempt", 401, R"({"error":"invalid_grant","error_description":"expired"})", std::nullopt,
                   false, Value(Dictionary{{"error", "invalid_grant"}, {"error_description", "expired"}}),
                   KRSDKResponseHttpCodeError, 401, false, 1},
        HandlerRow{"InvalidGrantWithErrorCode", 401, R"({"error":"INVALID_GRANT","errorCode":7})", std::nullopt, false,
                   Value(), KRSDKResponseHttpCodeError, 401, false, 1},
        HandlerRow{"OtherOAuthError", 404, R"({"error":"not_found"})", std::nullopt, false,
                   Value(Dictionary{{"error", "not_found"}}), KRSDKResponseHttpCodeError, 404, false, 0},
        HandlerRow{"ServerError", 500, "oops", std::nullopt, false, Value(), KRSDKResponseHttpCodeError, 500, false, 0},
        HandlerRow{"GrantOnSuccess", 200, R"({"error":"Invalid_Grant","errorCode":1})", std::nullopt, true,
                   Value(Dictionary{{"error", "Invalid_Grant"}, {"errorCode", 1}}), nullptr, 0, false, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ManagerImageTest, ImageCarriesTheBytesAndTheSessionsCookieStore) {
    auto server = TestServer::http();
    const std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
    server->route("GET", "/captcha", [&](const auto&, auto& res) {
        res.set_header("Set-Cookie", "captcha=42; Path=/");
        res.set_content(png, "image/png");
    });
    server->route("GET", "/blank", [](const auto&, auto& res) { res.set_content("", "image/png"); });
    server->start();
    auto manager = KRSDKMemberHttpManager::create();
    LogCapture capture;

    auto outcome = std::make_shared<Outcome>();
    auto [success, failure] = test::callbacksInto(outcome);
    manager->GET(server->origin("http") + "/captcha", Value(), Value(), "image", success, failure);
    ASSERT_TRUE(test::waitFor(outcome));
    ASSERT_TRUE(outcome->succeeded);
    EXPECT_EQ(outcome->object["data"], Value(bytes(png)));
    auto store = outcome->object["cookie"].objectAs<platform::HTTPCookieStorage>();
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store, manager->session()->configuration().HTTPCookieStorage());
    ASSERT_EQ(store->cookies().size(), 1u);
    EXPECT_EQ(store->cookies()[0].value, "42");
    EXPECT_EQ(capture.count("http received"), 0u) << "image bodies are not logged";

    auto blank = std::make_shared<Outcome>();
    auto [s2, f2] = test::callbacksInto(blank);
    manager->GET(server->origin("http") + "/blank", Value(), Value(), "image", s2, f2);
    ASSERT_TRUE(test::waitFor(blank));
    EXPECT_FALSE(blank->succeeded);
    EXPECT_EQ(blank->object["data"], Value(""));
    EXPECT_EQ(blank->object["cookie"].objectAs<platform::HTTPCookieStorage>(), store);
    EXPECT_EQ(blank->error->domain(), KRSDKResponseDataIsNull);
}

// ---- Server trust and the whitelist

struct TrustRow {
    const char* name;
    bool anchored;                  // the configuration trusts the test authority
    std::optional<Value> whitelist;  // nullopt: no file
    bool accepted;
    std::vector<std::string> lines;  // the log lines, in order, after "[KRSDK-Common-"
};

Value lists(std::optional<std::string> login, std::optional<std::string> portal) {
    Dictionary d;
    d.set("otherModuleKey", Value("ignored"));
    if (login) d.set("loginSrvIpList", Value(*login));
    if (portal) d.set("portalSrvIpList", Value(*portal));
    return Value(std::move(d));
}

const std::string kHttps127 = R"([{"type":"https","ip":"127.0.0.1"}])";
const std::string kHttp127 = R"([{"type":"http","ip":"127.0.0.1"},{"type":"https","ip":"10.0.0.1"}])";
const std::string kPadded = R"([{"type":"https","ip":"127.0.0.1 "}])";
const std::string kNil = "ERROR-KRSDKMemberHttpManager-]=>portal loginSrvIpList or portalSrvIpList string is nil";
const std::string kHost = "ERROR-KRSDKMemberHttpManager-]=>ip host is:127.0.0.1";
const std::string kFail = "ERROR-KRSDKMemberHttpManager-]=>Secure Trust Evaluate fail the https CA is invalid  .....  ";

class ManagerTrustTest : public ::testing::TestWithParam<TrustRow> {};

TEST_P(ManagerTrustTest, UntrustedServersPassOnlyThroughAnHttpsWhitelistEntry) {
    const auto& row = GetParam();
    test::TempAppHome home;
    if (row.whitelist) {
        ASSERT_TRUE(platform::FileManager::createDirectoryAtPath(home.library() + "/kr_sdks_kvstorage", true));
        ASSERT_TRUE(platform::PropertyList::writeFile(KRSDKMemberHttpManager::plistFilePath(), *row.whitelist, true));
    }
    auto server = TestServer::https(row.anchored ? TestCertificates::shared().server : TestCertificates::shared().selfSigned);
    server->route("GET", "/hello", [](const auto&, auto& res) { res.set_content(R"({"hi":1})", "application/json"); });
    server->start();
    auto manager = KRSDKMemberHttpManager::create();
    manager->sessionConfiguration()->addTrustAnchorPEM(TestCertificates::shared().authorityPEM());

    LogCapture capture;
    auto outcome = std::make_shared<Outcome>();
    auto [success, failure] = test::callbacksInto(outcome);
    manager->GET(server->origin("https") + "/hello", Value(), Value(), std::nullopt, success, failure);
    ASSERT_TRUE(test::waitFor(outcome));
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_EQ(outcome->succeeded, row.accepted);
    if (!row.accepted) {
        ASSERT_NE(outcome->error, nullptr);
        EXPECT_EQ(outcome->error->domain(), platform::URLErrorDomain);
        EXPECT_EQ(outcome->error->code(), platform::URLErrorCancelled);
        EXPECT_EQ(server->requestCount(), 0u);
    }
    EXPECT_TRUE(manager->mutableTaskHandlerByTaskIdentifier().empty());

    // The trust lines, with the line numbers taken out.
    std::vector<std::string> lines;
    const std::regex trustLine(R"(\[KRSDK-Common-(\w+-KRSDKMemberHttpManager-)\d+(\]=>.*))");
    for (const auto& line : capture.lines()) {
        std::smatch m;
        if (std::regex_match(line, m, trustLine)) lines.push_back(m[1].str() + m[2].str());
    }
    EXPECT_EQ(lines, row.lines);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ManagerTrustTest,
    ::testing::Values(
        TrustRow{"Trusted", true, std::nullopt, true,
                 {"DEBUG-KRSDKMemberHttpManager-]=>Secure Trust Evaluate succ .....  "}},
        TrustRow{"PortalListOnly", false, lists(std::nullopt, kHttps127), true, {kHost, kNil}},
        TrustRow{"LoginList", false, lists(kHttps127, std::nullopt), true, {kHost}},
        TrustRow{"HttpEntryOnly", false, lists(kHttp127, kHttp127), false, {kHost, kFail}},
        TrustRow{"NoFile", false, std::nullopt, false,
                 {kHost, "ERROR-KRSDKMemberHttpManager-]=>portal infodic is nil", kFail}},
        TrustRow{"NoLists", false, lists(std::nullopt, std::nullopt), false, {kHost, kNil, kNil, kFail}},
        TrustRow{"EmptyLists", false, lists("", ""), false, {kHost, kNil, kNil, kFail}},
        TrustRow{"ListIsAnObject", false, lists(R"({"type":"https","ip":"127.0.0.1"})", std::nullopt), false,
                 {kHost, kNil, kFail}},
        TrustRow{"ListIsNotJson", false, lists("127.0.0.1", kPadded), false, {kHost, kFail}},
        TrustRow{"RootIsAnArray", false, Value(platform::Array{Value("127.0.0.1")}), false,
                 {kHost, "ERROR-KRSDKMemberHttpManager-]=>portal infodic is nil", kFail}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ManagerWhitelistTest, ComparisonIsExactAndEntriesOfOtherShapesNeverMatch) {
    test::TempAppHome home;
    ASSERT_TRUE(platform::FileManager::createDirectoryAtPath(home.library() + "/kr_sdks_kvstorage", true));
    const std::string list =
        R"([1, "x", {"type":"https"}, {"type":"https","ip":7}, {"type":"HTTPS","ip":"10.0.0.3"},
            {"type":"https","ip":"10.0.0.1"}, {"type":"https","ip":"Api.Example"}, {"type":"http","ip":"10.0.0.2"}])";
    Dictionary root;
    root.set("loginSrvIpList", Value(list));
    root.set("portalSrvIpList", Value(platform::Array{Value("10.0.0.9")}));  // not text: never matches
    ASSERT_TRUE(platform::PropertyList::writeFile(KRSDKMemberHttpManager::plistFilePath(), Value(root), true));
    EXPECT_EQ(KRSDKMemberHttpManager::plistFilePath(), home.library() + "/kr_sdks_kvstorage/krmemberproperty.plist");

    auto manager = KRSDKMemberHttpManager::create();
    LogCapture capture;
    const struct {
        std::optional<std::string> host;
        bool listed;
    } rows[] = {{"10.0.0.1", true},    {"10.0.0.1 ", false},   {"10.0.0.2", false}, {"10.0.0.3", false},
                {"api.example", false}, {"Api.Example", true}, {"10.0.0.9", false}};
    for (const auto& row : rows) EXPECT_EQ(manager->isHostInTheWhiteList(row.host), row.listed) << *row.host;
    EXPECT_EQ(capture.count("portal"), 0u);

    // An empty host is refused without reading anything.
    EXPECT_FALSE(manager->isHostInTheWhiteList(""));
    EXPECT_FALSE(manager->isHostInTheWhiteList(std::nullopt));
    EXPECT_TRUE(capture.lines().empty());

    // The file is read afresh on every call.
    root.set("loginSrvIpList", Value(std::string(R"([{"type":"https","ip":"10.0.0.5"}])")));
    ASSERT_TRUE(platform::PropertyList::writeFile(KRSDKMemberHttpManager::plistFilePath(), Value(root), true));
    EXPECT_TRUE(manager->isHostInTheWhiteList("10.0.0.5"));
    EXPECT_FALSE(manager->isHostInTheWhiteList("10.0.0.1"));
}

// ---- Faults through the manager

TEST(ManagerFaultTest, EveryFaultGivesOneFailureAndAnEmptyTable) {
    auto http = TestServer::http();
    http->route("GET", "/cut", [](const auto&, auto& res) {
        res.set_content_provider(100000, "application/json", [](std::size_t, std::size_t, httplib::DataSink& sink) {
            sink.write("{\"partial\":", 11);
            return false;
        });
    });
    http->route("GET", "/stall", [&](const auto&, auto& res) {
        http->stall(30);
        res.set_content("{}", "application/json");
    });
    http->start();
    auto selfSigned = TestServer::https(TestCertificates::shared().selfSigned);
    selfSigned->route("GET", "/x", [](const auto&, auto& res) { res.set_content("{}", "application/json"); });
    selfSigned->start();
    test::TempAppHome home;  // no whitelist

    const struct {
        const char* name;
        std::string url;
        bool cancelAfterStart;
        std::int64_t code;
    } rows[] = {
        {"refused", "http://127.0.0.1:" + std::to_string(test::closedPort()) + "/", false,
         platform::URLErrorCannotConnectToHost},
        {"reset mid-body", http->origin("http") + "/cut", false, platform::URLErrorNetworkConnectionLost},
        {"stalled, then cancelled", http->origin("http") + "/stall", true, platform::URLErrorCancelled},
        {"refused certificate", selfSigned->origin("https") + "/x", false, platform::URLErrorCancelled},
    };
    auto manager = KRSDKMemberHttpManager::create();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto outcome = std::make_shared<Outcome>();
        auto [success, failure] = test::callbacksInto(outcome);
        auto task = manager->GET(row.url, Value(), Value(), std::nullopt, success, failure);
        if (row.cancelAfterStart) {
            platform::MainQueue::runUntil([] { return false; }, 0.2);
            task->cancel();
        }
        ASSERT_TRUE(test::waitFor(outcome));
        EXPECT_EQ(outcome->calls, 1);
        EXPECT_FALSE(outcome->succeeded);
        EXPECT_EQ(outcome->task, task);
        EXPECT_TRUE(outcome->object.isNil());
        ASSERT_NE(outcome->error, nullptr);
        EXPECT_EQ(outcome->error->domain(), platform::URLErrorDomain);
        EXPECT_EQ(outcome->error->code(), row.code);
        EXPECT_TRUE(manager->mutableTaskHandlerByTaskIdentifier().empty());
    }
}

// ---- Delegate forwarding

struct DownloadOnly : platform::Object, platform::URLSessionDownloadFinishDelegate {
    int calls = 0;
    void didFinishDownloadingToURL(const std::shared_ptr<platform::URLSession>&,
                                   const std::shared_ptr<platform::URLSessionDownloadTask>&,
                                   const std::shared_ptr<platform::URL>&) override {
        ++calls;
    }
};
struct DownloadAndData : DownloadOnly, platform::URLSessionDataReceiveDelegate, platform::URLSessionTaskCompletionDelegate {
    int dataCalls = 0;
    int completions = 0;
    void didReceiveData(const std::shared_ptr<platform::URLSession>&, const std::shared_ptr<platform::URLSessionDataTask>&,
                        std::optional<std::span<const std::uint8_t>>) override {
        ++dataCalls;
    }
    void didCompleteWithError(const std::shared_ptr<platform::URLSession>&, const std::shared_ptr<platform::URLSessionTask>&,
                              const std::shared_ptr<platform::Error>&) override {
        ++completions;
    }
};

TEST(ManagerForwardingTest, EventsReachTheFiledHandlerAndTheDownloadTestIsForDataEvents) {
    auto manager = KRSDKMemberHttpManager::create();
    auto session = manager->session();
    auto task1 = session->downloadTaskWithRequest(platform::URLRequest(platform::URL::URLWithString("http://h/1")));
    auto task2 = session->downloadTaskWithRequest(platform::URLRequest(platform::URL::URLWithString("http://h/2")));
    auto data3 = session->dataTaskWithRequest(platform::URLRequest(platform::URL::URLWithString("http://h/3")));
    auto downloadOnly = std::make_shared<DownloadOnly>();
    auto both = std::make_shared<DownloadAndData>();
    manager->setMutableTaskHandlerByTaskIdentifier({{task1->taskIdentifier(), downloadOnly},
                                                   {task2->taskIdentifier(), both},
                                                   {data3->taskIdentifier(), both}});
    const auto location = platform::URL::fileURLWithPath("/tmp/nothing");
    manager->didFinishDownloadingToURL(session, task1, location);
    manager->didFinishDownloadingToURL(session, task2, location);
    EXPECT_EQ(downloadOnly->calls, 0) << "a handler without data events is not told of downloads";
    EXPECT_EQ(both->calls, 1);

    const Data chunk = bytes("abc");
    manager->didReceiveData(session, data3, std::span<const std::uint8_t>(chunk));
    manager->didCompleteWithError(session, data3, nullptr);
    EXPECT_EQ(both->dataCalls, 1);
    EXPECT_EQ(both->completions, 1);

    // Unknown tasks and handlers without the operation: nothing happens.
    auto stray = session->dataTaskWithRequest(platform::URLRequest(platform::URL::URLWithString("http://h/4")));
    manager->didReceiveData(session, stray, std::span<const std::uint8_t>(chunk));
    manager->didBecomeDownloadTask(session, data3, task1);

    bool allowed = false;
    manager->didReceiveResponse(session, data3, nullptr, [&](platform::URLSessionResponseDisposition d) {
        allowed = d == platform::URLSessionResponseDisposition::Allow;
    });
    EXPECT_TRUE(allowed);
    manager->didReceiveResponse(session, data3, nullptr, nullptr);  // no completion: no call
}

}  // namespace
}  // namespace krcommon

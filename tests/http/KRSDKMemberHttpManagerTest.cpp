#include "http/HttpTestSupport.h"
#include "support/LogCapture.h"
#include "support/TempAppHome.h"
#include "support/TestServer.h"

#include <krcommon/http/KRSDKResponseHandler.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/JSONSerialization.h>

#include <regex>

namespace krcommon {
namespace {

using namespace platform;
using test::run;

Data bytes(std::string_view s) { return {s.begin(), s.end()}; }

TEST(ManagerWireTest, RequestsCarryTheirParametersHeadersAndTimeoutsOnTheWire) {
    auto server = test::TestServer::http();
    const auto ok = [](const auto&, auto& res) { res.set_content(R"({"ok":1})", "application/json"); };
    server->route("GET", "/echo", ok).route("POST", "/echo", ok).start();
    const std::string url = server->origin("http") + "/echo", file("\x89PNG\r\n\0\xff", 8);
    auto manager = KRSDKMemberHttpManager::create();
    manager->setValue("default", "X-Shared");
    const Value headers(Dictionary{{"X-Shared", "caller"}, {"Content-Type", "application/json"}});
    const Value params(Dictionary{{"b", "2 3"}, {"a", "1"}}), fields(Dictionary{{"user", "kr"}, {"n", 3}});
    test::LogCapture capture;
    const std::shared_ptr<test::Outcome> outcomes[] = {
        run(*manager, [&](auto s, auto f) { manager->GET(url, headers, params, std::nullopt, s, f); }),
        run(*manager, [&](auto s, auto f) { manager->POST(url, headers, params, std::nullopt, false, s, f); }),
        run(*manager, [&](auto s, auto f) { manager->POST(url, Value(), params, "json", true, s, f); }),
        run(*manager, [&](auto s, auto f) { manager->uploadData(url, fields, bytes(file), "avatar", s, f); })};
    const std::tuple<const char*, const char*, const char*, const char*, const char*, double> rows[] = {
        // method, query, body (nullptr: JSON of the parameters), X-Shared, Content-Type pattern, timeout
        {"GET", "?a=1&b=2%203", "", "default", "application/json", 15},
        {"POST", "", nullptr, "caller", "application/json", 15},
        {"POST", "", "a=1&b=2%203", "default", "application/x-www-form-urlencoded", 15},
        {"POST", "", "", "", "multipart/form-data; boundary=-----Boundary[0-9A-F]{16}", 60}};
    const auto received = server->requests();
    ASSERT_EQ(received.size(), 4u);
    for (std::size_t i = 0; i < 4; ++i) {
        const auto& [method, query, body, shared, type, timeout] = rows[i];
        const auto& request = outcomes[i]->task->originalRequest();
        SCOPED_TRACE(i);
        EXPECT_EQ(outcomes[i]->error, nullptr);
        EXPECT_EQ(outcomes[i]->object, Value(Dictionary{{"ok", 1}}));
        EXPECT_EQ(request.URL()->absoluteString() + " " + std::to_string(request.timeoutInterval()),
                  url + query + " " + std::to_string(timeout));
        EXPECT_EQ(received[i].method + " " + received[i].header("X-Shared"), method + std::string(" ") + shared);
        EXPECT_EQ(body ? Value(received[i].body) : JSONSerialization::parse(received[i].body).value_or(Value()),
                  body ? Value(body) : params);
        EXPECT_TRUE(std::regex_match(received[i].header("Content-Type"), std::regex(type)));
    }
    // The upload as the server's multipart reader saw it, and as it was logged.
    std::string parts;
    for (const auto& [name, p] : received[3].parts) parts += name + "=" + p.filename + "|" + p.contentType + "|" + p.content + ";";
    EXPECT_EQ(parts, "avatar=avatar|avatar|" + file + ";n=||3;user=||kr;");
    const auto& upload = outcomes[3]->task->originalRequest();
    EXPECT_EQ(upload.valueForHTTPHeaderField("Content-Length"), std::to_string(upload.HTTPBody()->size()));
    EXPECT_EQ(capture.count("ERROR-KRSDKMemberHttpManager-"), 1u) << "a binary body logs as the null text at the error level";
    EXPECT_EQ(capture.count("]=>httpBody is:(null)"), 1u);
    EXPECT_TRUE(manager->mutableTaskHandlerByTaskIdentifier().empty());
}

// A transport failure reaches the failure callback; a POST without callbacks ends quietly;
// a running task keeps its manager alive, and no longer.
TEST(ManagerWireTest, FailuresReachTheCallerAndARunningTaskKeepsItsManagerAlive) {
    auto manager = KRSDKMemberHttpManager::create();
    const std::string url = "http://127.0.0.1:" + std::to_string(test::closedPort());
    const auto refused = run(*manager, [&](auto s, auto f) { manager->GET(url, Value(), Value(), std::nullopt, s, f); });
    EXPECT_EQ(refused->error ? refused->error->domain() + std::to_string(refused->error->code()) : "", "NSURLErrorDomain-1004");
    EXPECT_TRUE(refused->object.isNil());
    auto task = manager->POST(url, Value(), Value(), std::nullopt, true, nullptr, nullptr);
    EXPECT_TRUE(manager->mutableTaskHandlerByTaskIdentifier().contains(task->taskIdentifier()));
    std::weak_ptr<KRSDKMemberHttpManager> weak = manager;
    manager.reset();
    EXPECT_FALSE(weak.expired()) << "the running task keeps its manager";
    EXPECT_TRUE(MainQueue::runUntil([&] { return weak.expired(); }, 20)) << "the manager leaked";
}

TEST(ManagerMultipartTest, BoundariesAreFreshAndBodiesHaveTheExactLayout) {
    EXPECT_NE(KRSDKMemberHttpManager::AFCreateMultipartFormBoundary(), KRSDKMemberHttpManager::AFCreateMultipartFormBoundary());
    const std::string B = "-----Boundary0123456789ABCDEF", name = "\r\nContent-Disposition: form-data; name=",
                      file = name + "\"file\"; filename=\"file\"\r\nContent-Type: file\r\n\r\n", end = "--" + B + "--\r\n";
    const std::tuple<Value, std::optional<Data>, std::string> rows[] = {
        {Value(), std::nullopt, end},
        {Value(Dictionary{{"a", "1"}}), bytes("D"), "--" + B + name + "\"a\"\r\n\r\n1\r\n--" + B + file + "D\r\n" + end},
        {Value(Dictionary{{"z", 10}, {"q\"x", "a\r\nb"}}), bytes(""), "--" + B + name + "\"z\"\r\n\r\n10\r\n--" + B + name +
                                                                         "\"q\"x\"\r\n\r\na\r\nb\r\n--" + B + file + "\r\n" + end},
    };
    for (const auto& [params, data, expected] : rows) {
        EXPECT_EQ(KRSDKMemberHttpManager::createBodyWithBoundary(B, params, data, "file"), bytes(expected));
    }
}

// The challenge decision: a trusted server passes at once; an untrusted one only
// through an "https" entry for its host in the whitelist files of tests/data/http.
TEST(ManagerTrustTest, AnUntrustedServerPassesOnlyThroughAnHttpsWhitelistEntry) {
    const std::tuple<const char*, const char*, bool, bool, std::size_t, bool> rows[] = {
        // whitelist, host, trusted by the evaluation, accepted, "string is nil" lines, "infodic is nil" line
        {"mixed", "10.0.0.1", true, true, 0, false},     {"mixed", "10.0.0.1", false, true, 0, false},
        {"mixed", "Api.Example", false, true, 0, false}, {"mixed", "api.example", false, false, 1, false},
        {"mixed", "10.0.0.2", false, false, 1, false},   {"mixed", "10.0.0.3", false, false, 1, false},
        {"mixed", "", false, false, 0, false},           {"loopback-in-portal-list", "127.0.0.1", false, true, 1, false},
        {"no-lists", "10.0.0.1", false, false, 2, false},
        {"empty-or-broken-lists", "10.0.0.1", false, false, 1, false}, {"lists-not-arrays", "10.0.0.1", false, false, 0, false},
        {"root-not-a-dictionary", "10.0.0.1", false, false, 0, true},   {"missing", "10.0.0.1", false, false, 0, true},
    };
    auto manager = KRSDKMemberHttpManager::create();
    for (const auto& [whitelist, host, trusted, accepted, nilLines, noFile] : rows) {
        SCOPED_TRACE(std::string(host) + (trusted ? " trusted" : "") + " with " + whitelist);
        test::TempAppHome home;  // the file is read afresh on every challenge
        const std::string folder = home.library() + "/kr_sdks_kvstorage";
        if (const auto fixture = FileManager::contentsAtPath(KRCOMMON_TEST_DATA "/http/" + std::string(whitelist) + ".plist")) {
            ASSERT_TRUE(FileManager::createDirectoryAtPath(folder, true));
            ASSERT_TRUE(FileManager::writeAtomically(folder + "/krmemberproperty.plist", *fixture));
        }
        const auto trust = std::make_shared<ServerTrust>(
            host, std::vector<Data>{}, TrustEvaluation{0, trusted ? TrustResultType::Unspecified : TrustResultType::RecoverableTrustFailure});
        test::LogCapture capture;
        using D = URLSessionAuthChallengeDisposition;
        std::pair<D, std::shared_ptr<URLCredential>> answer;
        manager->didReceiveChallenge(nullptr, std::make_shared<URLAuthenticationChallenge>(std::make_shared<URLProtectionSpace>(
                                                  host, 443, "https", URLProtectionSpace::AuthenticationMethodServerTrust, trust)),
                                     [&](auto disposition, auto credential) { answer = {disposition, credential}; });
        EXPECT_EQ(answer.first, accepted ? D::UseCredential : D::CancelAuthenticationChallenge);
        EXPECT_EQ(answer.second ? answer.second->serverTrust() : nullptr, accepted ? trust : nullptr);
        // One line for the evaluation, one per list that is missing or empty, one for a refusal.
        EXPECT_EQ(capture.count("]=>portal infodic is nil"), noFile ? 1u : 0u);
        EXPECT_EQ(capture.count("]=>portal loginSrvIpList or portalSrvIpList string is nil"), nilLines);
        EXPECT_EQ(capture.lines().size(), 1 + noFile + nilLines + !accepted);
    }
    EXPECT_FALSE(manager->isHostInTheWhiteList(std::nullopt));
}

// A handler is told of a finished download only when it also takes data events, as the
// manager's own handlers do.
struct DownloadOnly : Object, URLSessionDownloadFinishDelegate {
    int downloads = 0;
    void didFinishDownloadingToURL(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDownloadTask>&,
                                   const std::shared_ptr<URL>&) override { ++downloads; }
};

TEST(ManagerForwardingTest, OnlyAHandlerThatTakesDataEventsHearsOfAFinishedDownload) {
    auto manager = KRSDKMemberHttpManager::create();
    auto session = manager->session();
    auto first = session->downloadTaskWithRequest(URLRequest()), second = session->downloadTaskWithRequest(URLRequest());
    auto downloadOnly = std::make_shared<DownloadOnly>();
    auto handler = std::make_shared<KRSDKResponseHandler>();
    int named = 0;
    handler->setDownloadTaskDidFinishDownloading([&](auto&&...) { return ++named, nullptr; });
    manager->setMutableTaskHandlerByTaskIdentifier({{first->taskIdentifier(), downloadOnly}, {second->taskIdentifier(), handler}});
    for (const auto& task : {first, second}) manager->didFinishDownloadingToURL(session, task, URL::fileURLWithPath("/x"));
    EXPECT_EQ(downloadOnly->downloads, 0);
    EXPECT_EQ(named, 1);
}

}  // namespace
}  // namespace krcommon

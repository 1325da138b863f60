#include "SessionRecorder.h"
#include "support/TestServer.h"

#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/net/URLSession.h>

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace krcommon::platform {
namespace {

using test::TestCertificates;
using test::TestServer;

class URLSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto text = [](std::function<std::string(const httplib::Request&)> answer) {
            return [answer](const auto& req, auto& res) { res.set_content(answer(req), "Text/Plain; charset=utf-8"); };
        };
        server->route("GET", "/hello", text([](const auto&) { return "hello world"; }));
        server->route("GET", "/big", text([](const auto&) { return std::string(300000, 'x'); }));
        server->route("GET", "/cookie", [](const auto& req, auto& res) {  // answers with the cookies sent, and sets one
            res.set_header("Set-Cookie", "session=abc; Path=/"), res.set_content(req.get_header_value("Cookie"), "text/plain");
        });
        server->route("GET", "/moved", [](const auto&, auto& res) { res.set_header("X-Hop", "1"), res.set_redirect("/hello?m=1"); });
        server->route("GET", "/stall", [this](const auto&, auto&) { server->stall(30); });
        server->route("GET", "/cut", [](const auto&, auto& res) {  // drops the connection with most of the body unsent
            res.set_content_provider(100000, "text/plain", [](auto, auto, auto& sink) { return sink.write("0123456789", 10), false; });
        });
        for (const char* method : {"POST", "PUT", "DELETE"}) {
            server->route(method, "/echo", text([](const auto& req) { return req.method + ":" + req.body; }));
        }
        server->start();
    }
    std::string url(const std::string& path) const { return server->origin("http") + path; }
    std::shared_ptr<URLSession> makeSession() { return URLSession::sessionWithConfiguration(nullptr, recorder, recorder->queue); }
    // Runs `request` on `session` to its completion; answers what the delegate saw of it.
    Recorder::Seen load(URLSession& session, const URLRequest& request, std::shared_ptr<URLSessionTask>* started = nullptr) {
        auto task = session.dataTaskWithRequest(request);
        task->resume();
        EXPECT_TRUE(recorder->waitForCompletion(task->taskIdentifier()));
        if (started) *started = task;
        return recorder->of(task->taskIdentifier());
    }

    std::unique_ptr<TestServer> server = TestServer::http();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

// The delegate answers the response only after the transfer has ended, from another thread:
// until then the data and the completion wait, then they come in order.
TEST_F(URLSessionTest, DataTaskDeliversResponseDataAndCompletionInOrderOnTheDelegateQueue) {
    recorder->respond = Recorder::Respond::HoldFirst;
    auto session = makeSession();
    auto task = session->dataTaskWithRequest(requestFor(url("/big")));
    EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
    task->resume();
    ASSERT_TRUE(MainQueue::runUntil([&] { return task->state() == URLSessionTaskState::Completed; }, 20));
    EXPECT_EQ(load(*session, requestFor(url("/hello"))).body, "hello world");  // by its end, what the first left would have come
    recorder->queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(recorder->of(1).events, "response");
    recorder->release(true);
    ASSERT_TRUE(recorder->waitForCompletion(1));
    const auto seen = recorder->of(1);
    EXPECT_TRUE(std::regex_match(seen.events, std::regex("response(,data)+,complete"))) << seen.events;
    EXPECT_FALSE(recorder->offQueue);
    EXPECT_EQ(seen.body, std::string(300000, 'x'));
    EXPECT_EQ(seen.error, nullptr);
    EXPECT_EQ(task->countOfBytesReceived(), 300000);
    auto response = std::dynamic_pointer_cast<HTTPURLResponse>(task->response());
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->valueForHTTPHeaderField("content-type"), "Text/Plain; charset=utf-8");
    EXPECT_EQ(response->URL()->absoluteString() + " " + std::to_string(response->statusCode()), url("/big") + " 200");
}

// A redirect is followed: the response is the last one, from the URL it came from, with
// that answer's headers only. Cookies set by one task go with the session's later ones.
TEST_F(URLSessionTest, RedirectsAreFollowedAndCookiesKeptForTheSessionsLaterTasks) {
    auto session = makeSession();
    std::shared_ptr<URLSessionTask> task;
    EXPECT_EQ(load(*session, requestFor(url("/moved")), &task).body, "hello world");
    auto response = std::dynamic_pointer_cast<HTTPURLResponse>(task->response());
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->URL()->absoluteString() + " " + std::to_string(response->statusCode()), url("/hello?m=1") + " 200");
    EXPECT_FALSE(response->valueForHTTPHeaderField("X-Hop"));
    EXPECT_EQ(task->originalRequest().URL()->absoluteString(), url("/moved"));
    EXPECT_EQ(load(*session, requestFor(url("/cookie"))).body, "");
    EXPECT_EQ(load(*session, requestFor(url("/cookie"))).body, "session=abc");
}

// One connection carries the requests one after another: each goes out as its own,
// with nothing left over from the one before (method, body, agent, encodings).
TEST_F(URLSessionTest, SequentialRequestsShareAConnectionAndCarryNothingOfTheOneBefore) {
    const std::tuple<const char*, const char*, std::optional<std::string>, std::optional<std::string>, const char*> steps[] = {
        // method, path, body, a User-Agent of the request's own (with Accept-Encoding gzip), answer
        {"POST", "/echo", R"({"a":1})", "custom/2", R"(POST:{"a":1})"}, {"DELETE", "/echo", {}, {}, "DELETE:"},
        {"GET", "/hello", {}, {}, "hello world"}, {"PUT", "/echo", "put body", "custom/3", "PUT:put body"},
        {"HEAD", "/hello", {}, {}, ""}, {"POST", "/echo", "", {}, "POST:"}, {"GET", "/hello", {}, {}, "hello world"},
    };
    auto session = makeSession();
    std::set<std::string> peers;
    for (const auto& [method, path, body, agent, answer] : steps) {
        SCOPED_TRACE(std::string(method) + " " + path);
        URLRequest request = requestFor(url(path));
        request.setHTTPMethod(method);
        if (body) request.setHTTPBody(Data(body->begin(), body->end())), request.setValue("999", "Content-Length");  // framed by the transport
        if (agent) request.setValue(*agent, "User-Agent"), request.setValue("gzip", "Accept-Encoding");
        const auto seen = load(*session, request);
        EXPECT_EQ(seen.body + (seen.error ? seen.error->description() : ""), answer);
        const auto received = server->requests().back();
        EXPECT_EQ(received.method, method);
        EXPECT_EQ(received.header("Content-Length") + received.header("Expect"), body ? std::to_string(body->size()) : "");
        EXPECT_EQ(received.header("User-Agent"), agent.value_or("krcommon/1.0"));
        EXPECT_NE(received.header("Accept-Encoding").find(agent ? "gzip" : "deflate"), std::string::npos);
        peers.insert(received.header("REMOTE_PORT"));
    }
    EXPECT_EQ(peers.size(), 1u) << "the requests did not share one connection";
}

enum class Action { None, CancelBeforeResume, CancelOnceServed, RefuseResponse, DropResponseLate, BreakHeader, NulInValue,
                    NulInName, ColonInName };

// A fault: where the request goes (a path on the test server, "closed" for a port nothing listens
// on, or a URL), its timeout, what the test does, the error code and how many requests reach the server.
struct FaultRow {
    const char *name, *target;
    double timeout;
    Action action;
    std::int64_t code;
    std::size_t served;
    friend void PrintTo(const FaultRow& r, std::ostream* os) { *os << r.name; }
};

class URLSessionFaultTest : public URLSessionTest, public ::testing::WithParamInterface<FaultRow> {};

TEST_P(URLSessionFaultTest, EndsInOneCompletionWithTheURLError) {
    const auto& row = GetParam();
    if (row.action == Action::RefuseResponse) recorder->respond = Recorder::Respond::Refuse;
    if (row.action == Action::DropResponseLate) recorder->respond = Recorder::Respond::HoldFirst;
    auto session = makeSession();
    const std::string where = row.target, closed = "http://127.0.0.1:" + std::to_string(test::closedPort()) + "/";
    const std::string target = where == "closed" ? closed : where[0] == '/' ? url(where) : where;
    URLRequest request(URL::URLWithString(target), row.timeout);
    // Fields that cannot be sent as they are stop the task before anything reaches the wire.
    if (row.action == Action::BreakHeader) request.setValue("a\r\nX-Injected: yes", "X-Test");
    if (row.action == Action::NulInValue) request.setValue(std::string("a\0b", 3), "X-Test");
    if (row.action == Action::NulInName) request.setValue("v", std::string("X-\0Test", 7));
    if (row.action == Action::ColonInName) request.setValue("v", "X-Injected: 1");
    auto task = session->dataTaskWithRequest(request);
    if (row.action == Action::CancelBeforeResume) task->cancel();
    task->resume();
    if (row.action == Action::CancelOnceServed) {
        ASSERT_TRUE(server->waitForRequests(1));
        task->cancel(), task->cancel();
    } else if (row.action == Action::DropResponseLate) {
        const auto asked = [&] { return task->state() == URLSessionTaskState::Completed && recorder->of(1).events == "response"; };
        ASSERT_TRUE(MainQueue::runUntil(asked, 20));  // the transfer has ended; its answer waits for the delegate's
        recorder->release(false);
    }
    ASSERT_TRUE(recorder->waitForCompletion(task->taskIdentifier()));
    auto error = recorder->of(task->taskIdentifier()).error;
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain() + " " + std::to_string(error->code()), URLErrorDomain + (" " + std::to_string(row.code)));
    EXPECT_EQ(error->userInfo()["NSErrorFailingURLStringKey"], Value(target));
    EXPECT_EQ(task->error(), error);
    EXPECT_EQ(server->requestCount(), row.served);
    // A later task of the same session runs to its end: by then a second completion would have come.
    recorder->respond = Recorder::Respond::Allow;
    load(*session, requestFor(url("/hello")));
    recorder->queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(std::regex_match(recorder->of(task->taskIdentifier()).events, std::regex("[^c]*complete")));
    EXPECT_EQ(session->runningTaskCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, URLSessionFaultTest,
    ::testing::Values(FaultRow{"Refused", "closed", 10, Action::None, URLErrorCannotConnectToHost, 0},
                      FaultRow{"ResetMidBody", "/cut", 10, Action::None, URLErrorNetworkConnectionLost, 1},
                      FaultRow{"IdleTimeout", "/stall", 0.3, Action::None, URLErrorTimedOut, 1},
                      FaultRow{"HostNotFound", "http://no-such-host.invalid/", 10, Action::None, URLErrorCannotFindHost, 0},
                      FaultRow{"HeaderWithALineBreak", "/hello", 10, Action::BreakHeader, URLErrorBadURL, 0},
                      FaultRow{"HeaderWithANul", "/hello", 10, Action::NulInValue, URLErrorBadURL, 0},
                      FaultRow{"HeaderNameWithANul", "/hello", 10, Action::NulInName, URLErrorBadURL, 0},
                      FaultRow{"HeaderNameNotAToken", "/hello", 10, Action::ColonInName, URLErrorBadURL, 0},
                      FaultRow{"CancelledBeforeResume", "/hello", 10, Action::CancelBeforeResume, URLErrorCancelled, 0},
                      FaultRow{"CancelledWhileWaiting", "/stall", 10, Action::CancelOnceServed, URLErrorCancelled, 1},
                      FaultRow{"ResponseRefused", "/big", 10, Action::RefuseResponse, URLErrorCancelled, 1},
                      FaultRow{"ResponseLeftUnanswered", "/big", 10, Action::DropResponseLate, URLErrorCancelled, 1}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- TLS

// The delegate's answer: the default handling, a credential for the challenge's own trust (at once or later
// from another thread) or for another trust, no answer at all, or a refusal.
enum class Answer { Default, Own, OwnLater, Forged, Dropped, Cancel, Reject };
// The server's identity, whether the configuration trusts the test authority, the host asked for, the
// delegate's answer, what the evaluation says and the error (0: none).
struct TrustRow {
    const char* name;
    test::Identity TestCertificates::*identity;
    bool anchored;
    const char* host;
    Answer answer;
    bool trusted;
    std::int64_t error;
    friend void PrintTo(const TrustRow& r, std::ostream* os) { *os << r.name; }
};

class URLSessionTrustTest : public ::testing::TestWithParam<TrustRow> {};

TEST_P(URLSessionTrustTest, ChallengeCarriesTheEvaluationAndTheAnswerDecides) {
    const auto& row = GetParam();
    auto server = TestServer::https(TestCertificates::shared().*row.identity);
    server->route("GET", "/hello", [](const auto&, auto& res) { res.set_content("secure hello", "text/plain"); }).start();
    auto recorder = std::make_shared<Recorder>();
    std::thread answering;
    recorder->onChallenge = [&](const auto& challenge, URLSessionChallengeCompletion completion) {
        auto own = URLCredential::credentialForTrust(challenge->protectionSpace()->serverTrust());
        const auto forged = std::make_shared<ServerTrust>(row.host, std::vector<Data>{}, TrustEvaluation{0, TrustResultType::Proceed});
        switch (row.answer) {
            case Answer::Default: return completion(D::PerformDefaultHandling, nullptr);
            case Answer::Own: return completion(D::UseCredential, own);
            case Answer::OwnLater: answering = std::thread([=] { completion(D::UseCredential, own); }); return;
            case Answer::Forged: return completion(D::UseCredential, URLCredential::credentialForTrust(forged));
            case Answer::Dropped: return;
            case Answer::Cancel: return completion(D::CancelAuthenticationChallenge, nullptr);
            case Answer::Reject: return completion(D::RejectProtectionSpace, nullptr);
        }
    };
    auto configuration = URLSessionConfiguration::ephemeralSessionConfiguration();
    if (row.anchored) configuration->addTrustAnchorPEM(TestCertificates::shared().authorityPEM());
    auto session = URLSession::sessionWithConfiguration(configuration, recorder, recorder->queue);
    auto task = session->dataTaskWithRequest(requestFor(std::string("https://") + row.host + ":" + std::to_string(server->port()) + "/hello"));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletion(task->taskIdentifier()));
    if (answering.joinable()) answering.join();
    ASSERT_EQ(recorder->challenges.size(), 1u);
    const auto& space = recorder->challenges[0]->protectionSpace();
    EXPECT_EQ(space->host() + ":" + std::to_string(space->port()), row.host + (":" + std::to_string(server->port())));
    ASSERT_NE(space->serverTrust(), nullptr);
    EXPECT_EQ(space->serverTrust()->evaluate().result, row.trusted ? TrustResultType::Unspecified : TrustResultType::RecoverableTrustFailure);
    const auto seen = recorder->of(task->taskIdentifier());
    EXPECT_EQ(seen.error ? seen.error->code() : 0, row.error);
    EXPECT_EQ(server->requestCount(), row.error ? 0u : 1u);
    EXPECT_EQ(seen.body, row.error ? "" : "secure hello");
}

constexpr auto signedByAuthority = &TestCertificates::server, selfSigned = &TestCertificates::selfSigned;
constexpr std::int64_t kUntrusted = URLErrorServerCertificateUntrusted, kCancelled = URLErrorCancelled;
const char* kLoopback = "127.0.0.1";

INSTANTIATE_TEST_SUITE_P(
    Trust, URLSessionTrustTest,
    ::testing::Values(TrustRow{"AnchoredDefault", signedByAuthority, true, kLoopback, Answer::Default, true, 0},
                      TrustRow{"AnchoredByName", signedByAuthority, true, "localhost", Answer::Default, true, 0},
                      TrustRow{"AnchoredButCancelled", signedByAuthority, true, kLoopback, Answer::Cancel, true, kCancelled},
                      TrustRow{"UnknownAuthorityDefault", signedByAuthority, false, kLoopback, Answer::Default, false, kUntrusted},
                      TrustRow{"SelfSignedDefault", selfSigned, true, kLoopback, Answer::Default, false, kUntrusted},
                      TrustRow{"SelfSignedAccepted", selfSigned, false, kLoopback, Answer::Own, false, 0},
                      TrustRow{"SelfSignedAcceptedLater", selfSigned, false, kLoopback, Answer::OwnLater, false, 0},
                      TrustRow{"SelfSignedForgedCredential", selfSigned, false, kLoopback, Answer::Forged, false, kCancelled},
                      TrustRow{"SelfSignedUnanswered", selfSigned, false, kLoopback, Answer::Dropped, false, kCancelled},
                      TrustRow{"SelfSignedRejected", selfSigned, false, kLoopback, Answer::Reject, false, kCancelled},
                      TrustRow{"ExpiredDefault", &TestCertificates::expired, true, kLoopback, Answer::Default, false, kUntrusted},
                      TrustRow{"OtherHostDefault", &TestCertificates::otherHost, true, kLoopback, Answer::Default, false, kUntrusted}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace krcommon::platform

#include "support/TestServer.h"

#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/net/URLSession.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace krcommon::platform {
namespace {

using test::TestCertificates;
using test::TestServer;
using namespace std::chrono_literals;

// A delegate that writes down every event with the thread it ran on, and
// answers challenges as the test says.
class Recorder final : public URLSessionDelegate,
                       public URLSessionChallengeDelegate,
                       public URLSessionTaskCompletionDelegate,
                       public URLSessionDataResponseDelegate,
                       public URLSessionDataReceiveDelegate,
                       public URLSessionDownloadFinishDelegate {
public:
    std::function<void(const std::shared_ptr<URLAuthenticationChallenge>&, URLSessionChallengeCompletion)> onChallenge;
    URLSessionResponseDisposition responseDisposition = URLSessionResponseDisposition::Allow;
    // When set, takes the response's completion instead of answering it at once.
    std::function<void(URLSessionResponseCompletion)> keepResponseAnswer;
    std::shared_ptr<OperationQueue> queue;

    struct Completion {
        std::uint64_t task;
        std::shared_ptr<Error> error;
    };

    void didReceiveChallenge(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLAuthenticationChallenge>& c,
                             URLSessionChallengeCompletion completion) override {
        note("challenge", 0);
        {
            std::lock_guard lock(mutex);
            challenges.push_back(c);
        }
        if (onChallenge) {
            onChallenge(c, std::move(completion));
        } else {
            completion(URLSessionAuthChallengeDisposition::PerformDefaultHandling, nullptr);
        }
    }
    void didReceiveResponse(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDataTask>& task,
                            const std::shared_ptr<URLResponse>& response,
                            URLSessionResponseCompletion completion) override {
        note("response", task->taskIdentifier());
        {
            std::lock_guard lock(mutex);
            responses.push_back(std::dynamic_pointer_cast<HTTPURLResponse>(response));
        }
        if (keepResponseAnswer) {
            keepResponseAnswer(std::move(completion));
        } else {
            completion(responseDisposition);
        }
    }
    void didReceiveData(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDataTask>& task,
                        std::optional<std::span<const std::uint8_t>> data) override {
        note("data", task->taskIdentifier());
        std::lock_guard lock(mutex);
        auto& body = bodies[task->taskIdentifier()];
        body.append(reinterpret_cast<const char*>(data->data()), data->size());
    }
    void didFinishDownloadingToURL(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDownloadTask>& task,
                                   const std::shared_ptr<URL>& location) override {
        note("download", task->taskIdentifier());
        auto bytes = FileManager::contentsAtPath(location->path());
        std::lock_guard lock(mutex);
        downloaded = bytes ? std::string(bytes->begin(), bytes->end()) : "<unreadable>";
        downloadPath = location->path();
    }
    void didCompleteWithError(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionTask>& task,
                              const std::shared_ptr<Error>& error) override {
        note("complete", task->taskIdentifier());
        {
            std::lock_guard lock(mutex);
            completions.push_back({task->taskIdentifier(), error});
        }
        done.notify_all();
    }

    bool waitForCompletions(std::size_t count, double seconds = 20) {
        std::unique_lock lock(mutex);
        return done.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return completions.size() >= count; });
    }
    std::vector<std::string> eventsOf(std::uint64_t task) {
        std::lock_guard lock(mutex);
        std::vector<std::string> out;
        for (const auto& [name, id] : events) {
            if (id == task || (name == "challenge" && task == 0)) out.push_back(name);
        }
        return out;
    }
    std::shared_ptr<Error> errorOf(std::uint64_t task) {
        std::lock_guard lock(mutex);
        for (const auto& c : completions) {
            if (c.task == task) return c.error;
        }
        return nullptr;
    }

    std::mutex mutex;
    std::condition_variable done;
    std::vector<std::pair<std::string, std::uint64_t>> events;
    std::vector<std::shared_ptr<URLAuthenticationChallenge>> challenges;
    std::vector<std::shared_ptr<HTTPURLResponse>> responses;
    std::map<std::uint64_t, std::string> bodies;
    std::vector<Completion> completions;
    std::string downloaded;
    std::string downloadPath;
    bool offQueue = false;

private:
    void note(const char* name, std::uint64_t task) {
        std::lock_guard lock(mutex);
        if (queue && !queue->isCurrent()) offQueue = true;
        events.emplace_back(name, task);
    }
};

URLRequest requestFor(const std::string& text, double timeout = 10) {
    URLRequest request(URL::URLWithString(text));
    request.setTimeoutInterval(timeout);
    return request;
}

class URLSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        server = TestServer::http();
        server->route("GET", "/hello", [](const auto&, auto& res) { res.set_content("hello world", "text/plain"); });
        server->route("GET", "/big", [](const auto&, auto& res) { res.set_content(std::string(300000, 'x'), "text/plain"); });
        server->route("GET", "/cookie/set", [](const auto&, auto& res) {
            res.set_header("Set-Cookie", "session=abc123; Path=/");
            res.set_content("set", "text/plain");
        });
        server->route("GET", "/cookie/echo", [](const auto& req, auto& res) {
            res.set_content(req.get_header_value("Cookie"), "text/plain");
        });
        server->route("GET", "/stall", [this](const auto&, auto& res) {
            server->stall(30);
            res.set_content("late", "text/plain");
        });
        server->route("GET", "/cut", [](const auto&, auto& res) {
            res.set_content_provider(100000, "text/plain", [](std::size_t, std::size_t, httplib::DataSink& sink) {
                sink.write("0123456789", 10);
                return false;  // drop the connection with most of the body unsent
            });
        });
        server->route("GET", "/peer", [](const auto& req, auto& res) {
            res.set_content(std::to_string(req.remote_port), "text/plain");
        });
        server->route("GET", "/peer/after", [](const auto& req, auto& res) {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(req.get_param_value("ms"))));
            res.set_content(std::to_string(req.remote_port), "text/plain");
        });
        server->route("POST", "/echo", [](const auto& req, auto& res) { res.set_content(req.body, "text/plain"); });
        server->route("GET", "/moved", [](const auto&, auto& res) {
            res.set_header("X-Hop", "first");
            res.set_redirect("/hello?from=moved", 302);
        });
        server->start();
        recorder = std::make_shared<Recorder>();
        recorder->queue = std::make_shared<OperationQueue>(1);
        configuration = URLSessionConfiguration::ephemeralSessionConfiguration();
    }

public:
    std::string url(const std::string& path) const { return server->origin("http") + path; }

protected:
    std::shared_ptr<URLSession> makeSession() {
        return URLSession::sessionWithConfiguration(configuration, recorder, recorder->queue);
    }

    std::unique_ptr<TestServer> server;
    std::shared_ptr<Recorder> recorder;
    std::shared_ptr<URLSessionConfiguration> configuration;
};

TEST_F(URLSessionTest, DataTaskDeliversResponseDataAndCompletionInOrderOnTheDelegateQueue) {
    auto session = makeSession();
    auto task = session->dataTaskWithRequest(requestFor(url("/big")));
    EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));

    const auto events = recorder->eventsOf(task->taskIdentifier());
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events.front(), "response");
    EXPECT_EQ(events.back(), "complete");
    for (std::size_t i = 1; i + 1 < events.size(); ++i) EXPECT_EQ(events[i], "data");
    EXPECT_FALSE(recorder->offQueue);
    EXPECT_EQ(recorder->bodies[task->taskIdentifier()], std::string(300000, 'x'));
    EXPECT_EQ(recorder->errorOf(task->taskIdentifier()), nullptr);
    EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
    auto response = std::dynamic_pointer_cast<HTTPURLResponse>(task->response());
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->statusCode(), 200);
    EXPECT_EQ(response->valueForHTTPHeaderField("content-type"), "text/plain");
    EXPECT_EQ(response->MIMEType(), "text/plain");
    EXPECT_EQ(response->URL()->absoluteString(), url("/big"));
    EXPECT_EQ(task->countOfBytesReceived(), 300000);
}

// A redirect is followed: the response is the last one, from the URL it came
// from, with that answer's headers only.
TEST_F(URLSessionTest, FollowedRedirectAnswersFromTheURLItEndedAt) {
    auto session = makeSession();
    auto task = session->dataTaskWithRequest(requestFor(url("/moved")));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));

    EXPECT_EQ(recorder->errorOf(task->taskIdentifier()), nullptr);
    EXPECT_EQ(recorder->bodies[task->taskIdentifier()], "hello world");
    auto response = std::dynamic_pointer_cast<HTTPURLResponse>(task->response());
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->statusCode(), 200);
    EXPECT_EQ(response->URL()->absoluteString(), url("/hello?from=moved"));
    EXPECT_FALSE(response->valueForHTTPHeaderField("X-Hop"));
    EXPECT_EQ(task->originalRequest().URL()->absoluteString(), url("/moved"));
}

TEST_F(URLSessionTest, TaskIdentifiersAreUniqueAndCountUpFromOne) {
    auto session = makeSession();
    std::set<std::uint64_t> seen;
    for (int i = 0; i < 5; ++i) {
        auto task = session->dataTaskWithRequest(requestFor(url("/hello")));
        EXPECT_EQ(task->taskIdentifier(), static_cast<std::uint64_t>(i + 1));
        seen.insert(task->taskIdentifier());
    }
    EXPECT_EQ(seen.size(), 5u);
}

TEST_F(URLSessionTest, ConnectionsAreReusedBetweenSequentialTasks) {
    auto session = makeSession();
    for (int i = 0; i < 3; ++i) {
        session->dataTaskWithRequest(requestFor(url("/peer")))->resume();
        ASSERT_TRUE(recorder->waitForCompletions(static_cast<std::size_t>(i + 1)));
    }
    std::set<std::string> ports;
    for (const auto& [id, body] : recorder->bodies) ports.insert(body);
    EXPECT_EQ(ports.size(), 1u) << "each task opened a connection of its own";
}

// A burst opens as many connections as the host allows; as its tasks end one
// by one and nothing runs, the connections stay open, so the next burst opens none.
TEST_F(URLSessionTest, ConnectionsOfABurstOutlastTheLullAfterIt) {
    constexpr int burst = 6;
    configuration->setHTTPMaximumConnectionsPerHost(burst);
    auto session = makeSession();
    for (int round = 1; round <= 2; ++round) {
        for (int i = 0; i < burst; ++i) {
            // Every task needs a connection of its own, and each ends apart from the others.
            const std::string path = "/peer/after?ms=" + std::to_string(100 + 40 * i);
            session->dataTaskWithRequest(requestFor(url(path)))->resume();
        }
        ASSERT_TRUE(recorder->waitForCompletions(static_cast<std::size_t>(round * burst)));
    }
    std::set<std::string> ports;
    for (const auto& [id, body] : recorder->bodies) ports.insert(body);
    EXPECT_EQ(ports.size(), static_cast<std::size_t>(burst)) << "connections were closed between the bursts";
}

TEST_F(URLSessionTest, CookiesSetByOneTaskAreSentByTheNextAndVisibleInTheStore) {
    auto session = makeSession();
    session->dataTaskWithRequest(requestFor(url("/cookie/set")))->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    auto echo = session->dataTaskWithRequest(requestFor(url("/cookie/echo")));
    echo->resume();
    ASSERT_TRUE(recorder->waitForCompletions(2));
    EXPECT_EQ(recorder->bodies[echo->taskIdentifier()], "session=abc123");

    const auto cookies = session->configuration().HTTPCookieStorage()->cookies();
    ASSERT_EQ(cookies.size(), 1u);
    EXPECT_EQ(cookies[0].name, "session");
    EXPECT_EQ(cookies[0].value, "abc123");
    EXPECT_TRUE(cookies[0].isSessionOnly());
    EXPECT_EQ(session->configuration().HTTPCookieStorage()->cookiesForURL(*URL::URLWithString(url("/x"))).size(), 1u);

    // Another session has a store of its own.
    auto otherRecorder = std::make_shared<Recorder>();
    auto other = URLSession::sessionWithConfiguration(nullptr, otherRecorder);
    EXPECT_TRUE(other->configuration().HTTPCookieStorage()->cookies().empty());
}

TEST_F(URLSessionTest, PostSendsTheBodyAndHeaders) {
    auto session = makeSession();
    URLRequest request = requestFor(url("/echo"));
    request.setHTTPMethod("POST");
    request.setValue("application/json", "Content-Type");
    request.setValue("999", "Content-Length");  // the transport frames the body itself
    const std::string body = R"({"a":1})";
    request.setHTTPBody(Data(body.begin(), body.end()));
    auto task = session->dataTaskWithRequest(request);
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    EXPECT_EQ(recorder->bodies[task->taskIdentifier()], body);
    const auto received = server->requests().back();
    EXPECT_EQ(received.header("Content-Type"), "application/json");
    EXPECT_EQ(received.header("Content-Length"), "7");
    EXPECT_FALSE(received.hasHeader("Expect"));
}

// Sequential tasks run on one reused transfer handle: each request goes out as
// its own, with nothing left over from the one before (method, body, agent, encodings).
TEST_F(URLSessionTest, SequentialRequestsCarryNothingOfTheOneBefore) {
    server->route("DELETE", "/thing", [](const auto&, auto& res) { res.set_content("gone", "text/plain"); });
    server->route("PUT", "/thing", [](const auto& req, auto& res) { res.set_content(req.body, "text/plain"); });
    struct Step {
        const char* method;
        const char* path;
        std::optional<std::string> body;
        std::optional<std::string> agent;
        std::optional<std::string> encodings;
        const char* answer;  // what the delegate receives
    };
    const std::vector<Step> steps = {
        {"POST", "/echo", "first body", "custom/2", "gzip", "first body"},
        {"DELETE", "/thing", std::nullopt, std::nullopt, std::nullopt, "gone"},
        {"GET", "/hello", std::nullopt, std::nullopt, std::nullopt, "hello world"},
        {"PUT", "/thing", "put body", "custom/3", std::nullopt, "put body"},
        {"HEAD", "/hello", std::nullopt, std::nullopt, std::nullopt, ""},
        {"GET", "/hello", std::nullopt, std::nullopt, std::nullopt, "hello world"},
        {"POST", "/echo", "", std::nullopt, std::nullopt, ""},
        {"GET", "/hello", std::nullopt, std::nullopt, std::nullopt, "hello world"},
    };
    auto session = makeSession();
    std::set<std::string> peers;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const Step& step = steps[i];
        SCOPED_TRACE(std::to_string(i) + ": " + step.method + " " + step.path);
        URLRequest request = requestFor(url(step.path));
        request.setHTTPMethod(step.method);
        if (step.body) request.setHTTPBody(Data(step.body->begin(), step.body->end()));
        if (step.agent) request.setValue(*step.agent, "User-Agent");
        if (step.encodings) request.setValue(*step.encodings, "Accept-Encoding");
        auto task = session->dataTaskWithRequest(request);
        task->resume();
        ASSERT_TRUE(recorder->waitForCompletions(i + 1));
        EXPECT_EQ(recorder->errorOf(task->taskIdentifier()), nullptr);
        EXPECT_EQ(recorder->bodies[task->taskIdentifier()], step.answer);

        const auto received = server->requests().back();
        EXPECT_EQ(received.method, step.method);
        EXPECT_EQ(received.body, step.body.value_or(""));
        EXPECT_EQ(received.hasHeader("Content-Length"), step.body.has_value());
        EXPECT_EQ(received.header("User-Agent"), step.agent.value_or("krcommon/1.0"));
        if (step.encodings) {
            EXPECT_EQ(received.header("Accept-Encoding"), *step.encodings);
        } else {
            EXPECT_NE(received.header("Accept-Encoding").find("deflate"), std::string::npos);
        }
        peers.insert(received.header("REMOTE_PORT"));
    }
    EXPECT_EQ(peers.size(), 1u) << "the requests did not share one connection";
}

TEST_F(URLSessionTest, HeaderFieldWithALineBreakIsRefusedBeforeAnythingIsSent) {
    auto session = makeSession();
    URLRequest request = requestFor(url("/hello"));
    request.setValue("a\r\nX-Injected: yes", "X-Test");
    auto task = session->dataTaskWithRequest(request);
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    ASSERT_NE(recorder->errorOf(task->taskIdentifier()), nullptr);
    EXPECT_EQ(recorder->errorOf(task->taskIdentifier())->code(), URLErrorBadURL);
    EXPECT_EQ(server->requestCount(), 0u);
}

struct FaultCase {
    const char* name;
    std::function<std::string(URLSessionTest&)> target;
    double timeout;
    std::int64_t code;
};

class URLSessionFaultTest : public URLSessionTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(URLSessionFaultTest, EndsInOneCompletionWithTheURLErrorCode) {
    const auto& c = GetParam();
    auto session = makeSession();
    const std::string target = c.target(*this);
    auto task = session->dataTaskWithRequest(requestFor(target, c.timeout));
    const auto started = std::chrono::steady_clock::now();
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    auto error = recorder->errorOf(task->taskIdentifier());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), URLErrorDomain);
    EXPECT_EQ(error->code(), c.code) << error->description();
    EXPECT_EQ(error->userInfo()["NSErrorFailingURLStringKey"], Value(target));
    EXPECT_EQ(task->error(), error);
    EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
    EXPECT_LT(elapsed, c.timeout + 5);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(recorder->completions.size(), 1u);
    EXPECT_EQ(session->runningTaskCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, URLSessionFaultTest,
    ::testing::Values(
        FaultCase{"Refused", [](URLSessionTest&) { return "http://127.0.0.1:" + std::to_string(test::closedPort()) + "/"; },
                  10, URLErrorCannotConnectToHost},
        FaultCase{"ResetMidBody", [](URLSessionTest& t) { return t.url("/cut"); }, 10, URLErrorNetworkConnectionLost},
        FaultCase{"IdleTimeout", [](URLSessionTest& t) { return t.url("/stall"); }, 0.4, URLErrorTimedOut},
        FaultCase{"HostNotFound", [](URLSessionTest&) { return std::string("http://no-such-host.invalid/"); }, 10,
                  URLErrorCannotFindHost},
        FaultCase{"UnsupportedScheme", [](URLSessionTest&) { return std::string("ftp://127.0.0.1/file"); }, 10,
                  URLErrorUnsupportedURL}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(URLSessionTest, CancelWhileWaitingEndsCancelledOnce) {
    auto session = makeSession();
    auto task = session->dataTaskWithRequest(requestFor(url("/stall")));
    task->resume();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    task->cancel();
    task->cancel();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    EXPECT_EQ(recorder->errorOf(task->taskIdentifier())->code(), URLErrorCancelled);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(recorder->completions.size(), 1u);
}

TEST_F(URLSessionTest, CancelBeforeResumeStillCompletesOnce) {
    auto session = makeSession();
    auto task = session->dataTaskWithRequest(requestFor(url("/hello")));
    task->cancel();
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    EXPECT_EQ(recorder->errorOf(task->taskIdentifier())->code(), URLErrorCancelled);
    EXPECT_EQ(server->requestCount(), 0u);
}

TEST_F(URLSessionTest, ResponseDispositionCancelStopsTheTask) {
    recorder->responseDisposition = URLSessionResponseDisposition::Cancel;
    auto session = makeSession();
    auto task = session->dataTaskWithRequest(requestFor(url("/big")));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    EXPECT_EQ(recorder->errorOf(task->taskIdentifier())->code(), URLErrorCancelled);
}

// The delegate answers the response only after the transfer has ended, from
// another thread: until then the task's data and completion wait; then they run
// in order, or, refused or never answered, the data goes and the task ends cancelled.
TEST_F(URLSessionTest, ResponseAnsweredAfterTheTransferEndedReleasesOrDropsWhatWaited) {
    enum class Answer { Allow, Cancel, Dropped };
    for (const Answer answer : {Answer::Allow, Answer::Cancel, Answer::Dropped}) {
        SCOPED_TRACE(static_cast<int>(answer));
        recorder = std::make_shared<Recorder>();
        recorder->queue = std::make_shared<OperationQueue>(1);
        std::mutex mutex;
        std::condition_variable kept;
        URLSessionResponseCompletion completion;
        recorder->keepResponseAnswer = [&](URLSessionResponseCompletion c) {
            std::lock_guard lock(mutex);
            completion = std::move(c);
            kept.notify_all();
        };
        auto session = makeSession();
        auto task = session->dataTaskWithRequest(requestFor(url("/hello")));
        task->resume();
        {
            std::unique_lock lock(mutex);
            ASSERT_TRUE(kept.wait_for(lock, 10s, [&] { return completion != nullptr; }));
        }
        for (int i = 0; i < 1000 && task->state() != URLSessionTaskState::Completed; ++i) std::this_thread::sleep_for(5ms);
        ASSERT_EQ(task->state(), URLSessionTaskState::Completed);
        std::this_thread::sleep_for(50ms);  // the data and completion events reach the queue and wait there
        EXPECT_EQ(recorder->eventsOf(task->taskIdentifier()), (std::vector<std::string>{"response"}));

        std::thread([&, answer] {
            if (answer == Answer::Allow) completion(URLSessionResponseDisposition::Allow);
            if (answer == Answer::Cancel) completion(URLSessionResponseDisposition::Cancel);
            completion = nullptr;  // dropped unanswered: a refusal
        }).join();
        ASSERT_TRUE(recorder->waitForCompletions(1));
        if (answer == Answer::Allow) {
            EXPECT_EQ(recorder->eventsOf(task->taskIdentifier()),
                      (std::vector<std::string>{"response", "data", "complete"}));
            EXPECT_EQ(recorder->bodies[task->taskIdentifier()], "hello world");
            EXPECT_EQ(recorder->errorOf(task->taskIdentifier()), nullptr);
        } else {
            EXPECT_EQ(recorder->eventsOf(task->taskIdentifier()), (std::vector<std::string>{"response", "complete"}));
            ASSERT_NE(recorder->errorOf(task->taskIdentifier()), nullptr);
            EXPECT_EQ(recorder->errorOf(task->taskIdentifier())->code(), URLErrorCancelled);
        }
        EXPECT_FALSE(recorder->offQueue);
    }
}

TEST_F(URLSessionTest, DownloadTaskHandsOverATemporaryFileThenRemovesIt) {
    auto session = makeSession();
    auto task = session->downloadTaskWithRequest(requestFor(url("/hello")));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    EXPECT_EQ(recorder->eventsOf(task->taskIdentifier()), (std::vector<std::string>{"download", "complete"}));
    EXPECT_EQ(recorder->downloaded, "hello world");
    EXPECT_FALSE(FileManager::fileExistsAtPath(recorder->downloadPath));
}

TEST_F(URLSessionTest, DroppingTheSessionCancelsWhatIsRunningWithoutEvents) {
    auto session = makeSession();
    auto task = session->dataTaskWithRequest(requestFor(url("/stall")));
    task->resume();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    session.reset();
    EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
    ASSERT_NE(task->error(), nullptr);
    EXPECT_EQ(task->error()->code(), URLErrorCancelled);
    recorder->queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(recorder->completions.empty());
}

// The delegate holds the only reference to its session and drops it in the
// completion, for one task and for the last of several: the session ends there
// and then, with nothing left running and no event after.
TEST_F(URLSessionTest, SessionDroppedByItsDelegateInsideACompletionEndsCleanly) {
    struct Dropper final : URLSessionDelegate, URLSessionTaskCompletionDelegate {
        std::shared_ptr<URLSession> session;
        std::atomic<int> completions{0};
        std::atomic<int> afterDrop{0};
        int dropAt = 1;
        void didCompleteWithError(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionTask>&,
                                  const std::shared_ptr<Error>&) override {
            if (!session) ++afterDrop;
            if (++completions == dropAt) session.reset();
        }
    };
    for (int tasks : {1, 3}) {
        SCOPED_TRACE(tasks);
        auto dropper = std::make_shared<Dropper>();
        dropper->dropAt = tasks;
        auto queue = std::make_shared<OperationQueue>(1);
        dropper->session = URLSession::sessionWithConfiguration(configuration, dropper, queue);
        const std::weak_ptr<URLSession> watch = dropper->session;
        std::vector<std::shared_ptr<URLSessionDataTask>> started;
        for (int i = 0; i < tasks; ++i) {
            started.push_back(dropper->session->dataTaskWithRequest(requestFor(url("/hello"))));
            started.back()->resume();
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!watch.expired() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        ASSERT_TRUE(watch.expired());
        queue->waitUntilAllOperationsAreFinished();
        EXPECT_EQ(dropper->completions.load(), tasks);
        EXPECT_EQ(dropper->afterDrop.load(), 0);
        for (const auto& task : started) {
            EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
            EXPECT_EQ(task->error(), nullptr);
        }
    }
}

// ---- TLS

class URLSessionTrustTest : public ::testing::Test {
protected:
    std::unique_ptr<TestServer> serve(const test::Identity& identity) {
        auto server = TestServer::https(identity);
        server->route("GET", "/hello", [](const auto&, auto& res) { res.set_content("secure hello", "text/plain"); });
        server->start();
        return server;
    }
    std::shared_ptr<URLSession> session(bool trustTestAuthority) {
        auto configuration = URLSessionConfiguration::ephemeralSessionConfiguration();
        if (trustTestAuthority) configuration->addTrustAnchorPEM(TestCertificates::shared().authorityPEM());
        recorder->queue = std::make_shared<OperationQueue>(1);
        return URLSession::sessionWithConfiguration(configuration, recorder, recorder->queue);
    }
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

struct TrustCase {
    const char* name;
    const test::Identity& (*identity)();
    bool anchored;
    const char* host;  // "127.0.0.1" or "localhost"
    std::optional<URLSessionAuthChallengeDisposition> answer;  // nullopt: the default handling
    bool trusted;  // what the evaluation says
    std::int64_t expectedError;  // 0: success
};

class URLSessionTrustTableTest : public URLSessionTrustTest, public ::testing::WithParamInterface<TrustCase> {};

TEST_P(URLSessionTrustTableTest, ChallengeCarriesTheEvaluationAndTheAnswerDecides) {
    const auto& c = GetParam();
    auto server = serve(c.identity());
    auto s = session(c.anchored);
    recorder->onChallenge = [&c](const std::shared_ptr<URLAuthenticationChallenge>& challenge,
                                 URLSessionChallengeCompletion completion) {
        if (!c.answer) {
            completion(URLSessionAuthChallengeDisposition::PerformDefaultHandling, nullptr);
        } else if (*c.answer == URLSessionAuthChallengeDisposition::UseCredential) {
            completion(*c.answer, URLCredential::credentialForTrust(challenge->protectionSpace()->serverTrust()));
        } else {
            completion(*c.answer, nullptr);
        }
    };
    const std::string target = std::string("https://") + c.host + ":" + std::to_string(server->port()) + "/hello";
    auto task = s->dataTaskWithRequest(requestFor(target));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));

    ASSERT_EQ(recorder->challenges.size(), 1u);
    const auto& space = recorder->challenges[0]->protectionSpace();
    EXPECT_EQ(space->host(), c.host);
    EXPECT_EQ(space->port(), server->port());
    EXPECT_EQ(space->protocol(), "https");
    EXPECT_EQ(space->authenticationMethod(), URLProtectionSpace::AuthenticationMethodServerTrust);
    ASSERT_NE(space->serverTrust(), nullptr);
    EXPECT_EQ(space->serverTrust()->isTrusted(), c.trusted) << space->serverTrust()->failureReason();
    EXPECT_EQ(space->serverTrust()->evaluate().result,
              c.trusted ? TrustResultType::Unspecified : TrustResultType::RecoverableTrustFailure);
    EXPECT_FALSE(space->serverTrust()->certificates().empty());

    auto error = recorder->errorOf(task->taskIdentifier());
    if (c.expectedError == 0) {
        EXPECT_EQ(error, nullptr) << error->description();
        EXPECT_EQ(recorder->bodies[task->taskIdentifier()], "secure hello");
    } else {
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->code(), c.expectedError);
        EXPECT_EQ(server->requestCount(), 0u);
    }
}

const test::Identity& signedIdentity() { return TestCertificates::shared().server; }
const test::Identity& selfSignedIdentity() { return TestCertificates::shared().selfSigned; }
const test::Identity& expiredIdentity() { return TestCertificates::shared().expired; }

using D = URLSessionAuthChallengeDisposition;
INSTANTIATE_TEST_SUITE_P(
    Trust, URLSessionTrustTableTest,
    ::testing::Values(
        TrustCase{"AnchoredDefault", signedIdentity, true, "127.0.0.1", std::nullopt, true, 0},
        TrustCase{"AnchoredByName", signedIdentity, true, "localhost", std::nullopt, true, 0},
        TrustCase{"AnchoredButCancelled", signedIdentity, true, "127.0.0.1", D::CancelAuthenticationChallenge, true,
                  URLErrorCancelled},
        TrustCase{"UnknownAuthorityDefault", signedIdentity, false, "127.0.0.1", std::nullopt, false,
                  URLErrorServerCertificateUntrusted},
        TrustCase{"SelfSignedDefault", selfSignedIdentity, true, "127.0.0.1", std::nullopt, false,
                  URLErrorServerCertificateUntrusted},
        TrustCase{"SelfSignedAccepted", selfSignedIdentity, false, "127.0.0.1", D::UseCredential, false, 0},
        TrustCase{"SelfSignedRejected", selfSignedIdentity, false, "127.0.0.1", D::RejectProtectionSpace, false,
                  URLErrorCancelled},
        TrustCase{"ExpiredDefault", expiredIdentity, true, "127.0.0.1", std::nullopt, false,
                  URLErrorServerCertificateUntrusted}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(URLSessionTrustTest, HostNameMismatchIsUntrustedEvenWithAKnownAuthority) {
    auto server = serve(TestCertificates::shared().otherHost);
    auto s = session(true);
    auto task = s->dataTaskWithRequest(requestFor(server->origin("https") + "/hello"));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    ASSERT_EQ(recorder->challenges.size(), 1u);
    EXPECT_FALSE(recorder->challenges[0]->protectionSpace()->serverTrust()->isTrusted());
    EXPECT_EQ(recorder->errorOf(task->taskIdentifier())->code(), URLErrorServerCertificateUntrusted);
}

TEST_F(URLSessionTrustTest, CredentialForAnotherTrustDoesNotAcceptTheServer) {
    auto server = serve(selfSignedIdentity());
    auto s = session(false);
    auto forged = std::make_shared<ServerTrust>("127.0.0.1", std::vector<Data>{},
                                                TrustEvaluation{0, TrustResultType::Proceed});
    recorder->onChallenge = [forged](const auto&, URLSessionChallengeCompletion completion) {
        completion(URLSessionAuthChallengeDisposition::UseCredential, URLCredential::credentialForTrust(forged));
    };
    auto task = s->dataTaskWithRequest(requestFor(server->origin("https") + "/hello"));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    EXPECT_EQ(recorder->errorOf(task->taskIdentifier())->code(), URLErrorCancelled);
}

TEST_F(URLSessionTrustTest, ChallengeAnsweredLaterFromAnotherThreadAndDroppedAnswerRefuses) {
    auto server = serve(selfSignedIdentity());
    auto s = session(false);
    std::thread answering;
    recorder->onChallenge = [&answering](const auto& challenge, URLSessionChallengeCompletion completion) {
        answering = std::thread([challenge, completion = std::move(completion)] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            completion(URLSessionAuthChallengeDisposition::UseCredential,
                       URLCredential::credentialForTrust(challenge->protectionSpace()->serverTrust()));
        });
    };
    auto accepted = s->dataTaskWithRequest(requestFor(server->origin("https") + "/hello"));
    accepted->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    answering.join();
    EXPECT_EQ(recorder->errorOf(accepted->taskIdentifier()), nullptr);

    // A fresh session (no connection to reuse) whose delegate drops the completion.
    auto second = std::make_shared<Recorder>();
    second->onChallenge = [](const auto&, URLSessionChallengeCompletion) {};
    auto s2 = URLSession::sessionWithConfiguration(nullptr, second);
    auto dropped = s2->dataTaskWithRequest(requestFor(server->origin("https") + "/hello"));
    dropped->resume();
    ASSERT_TRUE(second->waitForCompletions(1));
    EXPECT_EQ(second->errorOf(dropped->taskIdentifier())->code(), URLErrorCancelled);
}

TEST_F(URLSessionTrustTest, UnreadableExtraAnchorFailsSecureLoads) {
    auto server = serve(signedIdentity());
    auto configuration = URLSessionConfiguration::ephemeralSessionConfiguration();
    configuration->addTrustAnchorPEM("not a certificate");
    auto s = URLSession::sessionWithConfiguration(configuration, recorder);
    auto task = s->dataTaskWithRequest(requestFor(server->origin("https") + "/hello"));
    task->resume();
    ASSERT_TRUE(recorder->waitForCompletions(1));
    EXPECT_EQ(recorder->errorOf(task->taskIdentifier())->code(), URLErrorSecureConnectionFailed);
    EXPECT_TRUE(recorder->challenges.empty());
}

}  // namespace
}  // namespace krcommon::platform

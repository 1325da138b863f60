// Sessions sharing the process's one transfer engine: a delegate slow to
// answer holds up nobody else, a slow delegate queue pauses its transfer, and
// what must never reach the wire does not.

#include "SessionRecorder.h"
#include "http/HttpTestSupport.h"
#include "support/LogCapture.h"
#include "support/TempAppHome.h"
#include "support/TestServer.h"
#include "support/ThreadCount.h"
#include "platform/io/TempFolder.h"

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/net/URLSession.h>
#include <krcommon/platform/net/detail/TrustEvaluator.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <filesystem>
#include <future>
#include <thread>

namespace krcommon::platform {
namespace {

using test::TestCertificates;
using test::TestServer;
using namespace std::chrono_literals;

// A configuration that trusts the test authority.
std::shared_ptr<URLSessionConfiguration> anchored() {
    auto configuration = URLSessionConfiguration::ephemeralSessionConfiguration();
    configuration->addTrustAnchorPEM(TestCertificates::shared().authorityPEM());
    return configuration;
}

// A session whose delegate is a Recorder that accepts trusted servers at once and others after
// `late`, or never (their answers are kept in `held`, read once the delegate queue is idle).
struct Client {
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::optional<std::chrono::milliseconds> late;
    std::vector<URLSessionChallengeCompletion> held;
    std::shared_ptr<URLSession> session;
    explicit Client(std::shared_ptr<URLSessionConfiguration> configuration = nullptr) {
        recorder->onChallenge = [this](const auto& challenge, URLSessionChallengeCompletion completion) {
            const auto trust = challenge->protectionSpace()->serverTrust();
            if (trust->isTrusted()) return completion(D::PerformDefaultHandling, nullptr);
            if (!late) return held.push_back(std::move(completion));
            std::thread([completion = std::move(completion), trust, wait = *late] {
                std::this_thread::sleep_for(wait);  // past the handshake's short wait for the answer
                completion(D::UseCredential, URLCredential::credentialForTrust(trust));
            }).detach();
        };
        session = URLSession::sessionWithConfiguration(std::move(configuration), recorder, recorder->queue);
    }
    std::int64_t code(std::uint64_t task) {
        const auto error = recorder->of(task).error;
        return error ? error->code() : 0;
    }
    // Runs a task to its end: its error code, 0 for none.
    std::int64_t run(const URLRequest& request) {
        auto task = session->dataTaskWithRequest(request);
        task->resume();
        EXPECT_TRUE(recorder->waitForCompletion(task->taskIdentifier()));
        return code(task->taskIdentifier());
    }
};

using test::threadCount;

std::unique_ptr<TestServer> helloServer(std::unique_ptr<TestServer> server) {
    server->route("GET", "/hello", [](const auto&, auto& res) { res.set_content("hello", "text/plain"); });
    server->start();
    return server;
}

TEST(URLSessionEngineTest, UnansweredChallengeTimesOutAloneWhileTheSessionGoesOn) {
    auto untrusted = helloServer(TestServer::https(TestCertificates::shared().selfSigned));
    auto trusted = helloServer(TestServer::https(TestCertificates::shared().server));
    Client client(anchored());
    constexpr double timeout = 1.5;
    const auto started = std::chrono::steady_clock::now();
    auto waiting = client.session->dataTaskWithRequest(requestFor(untrusted->origin("https") + "/hello", timeout));
    waiting->resume();
    EXPECT_EQ(client.run(requestFor(trusted->origin("https") + "/hello")), 0);
    EXPECT_NE(waiting->state(), URLSessionTaskState::Completed) << "the trusted task waited for the challenge";
    ASSERT_TRUE(client.recorder->waitForCompletion(waiting->taskIdentifier()));
    EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(), timeout);
    EXPECT_EQ(client.code(waiting->taskIdentifier()), URLErrorTimedOut);
    client.recorder->queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(client.recorder->of(waiting->taskIdentifier()).events, "complete");
    EXPECT_EQ(client.held.size(), 1u);
    EXPECT_EQ(untrusted->requestCount(), 0u);
    EXPECT_EQ(trusted->requestCount(), 1u);
}

// The connection one manager's delegate accepted stays with that manager's session: the next
// manager gets a challenge (and a connection) of its own.
TEST(URLSessionEngineTest, EachManagerDecidesTrustForItsOwnConnections) {
    test::TempAppHome home;
    ASSERT_TRUE(FileManager::createDirectoryAtPath(home.library() + "/kr_sdks_kvstorage", true));
    ASSERT_TRUE(FileManager::writeAtomically(KRSDKMemberHttpManager::plistFilePath(),  // 127.0.0.1 over https
                                             *FileManager::contentsAtPath(KRCOMMON_TEST_DATA "/http/loopback-in-portal-list.plist")));
    auto server = helloServer(TestServer::https(TestCertificates::shared().selfSigned));
    test::LogCapture capture;
    std::vector<std::shared_ptr<KRSDKMemberHttpManager>> managers;
    for (int i = 0; i < 2; ++i) {
        auto& manager = *managers.emplace_back(KRSDKMemberHttpManager::create());
        EXPECT_EQ(test::run(manager, [&](auto ok, auto fail) {
                      manager.GET(server->origin("https") + "/hello", Value(), Value(), std::string("string"), ok, fail);
                  })->error, nullptr);
    }
    EXPECT_EQ(capture.count("ip host is:127.0.0.1"), 2u);
}

// A hundred managers with a request each in flight together add no thread of their own: the
// transfers share the engine, the delegate queues the operation queues' workers.
TEST(URLSessionEngineTest, ManyManagersAddNoThreads) {
    auto plain = TestServer::http();
    plain->server().new_task_queue = [] { return new httplib::ThreadPool(128); };  // one per manager's connection
    auto server = helloServer(std::move(plain));
    const std::string url = server->origin("http") + "/hello";
    auto first = KRSDKMemberHttpManager::create();  // the engine and the workers are up
    EXPECT_EQ(test::run(*first, [&](auto ok, auto fail) { first->GET(url, Value(), Value(), std::string("string"), ok, fail); })->error,
              nullptr);
    const int before = threadCount();
    std::vector<std::shared_ptr<KRSDKMemberHttpManager>> managers(100);
    int answered = 0;
    int failed = 0;
    for (auto& manager : managers) {
        manager = KRSDKMemberHttpManager::create();
        manager->GET(url, Value(), Value(), std::string("string"), [&](const auto&, const Value&) { ++answered; },
                     [&](const auto&, const Value&, const auto&) { ++answered, ++failed; });
    }
    int during = threadCount();
    const auto sample = [&] { return during = std::max(during, threadCount()); };
    ASSERT_TRUE(MainQueue::runUntil([&] { return sample() && answered == 100; }, 60));
    managers.clear();
    EXPECT_EQ(failed, 0);
    // Room for the operation queues' workers to grow to their width, none per manager.
    const int room = static_cast<int>(std::max(2u, std::thread::hardware_concurrency()));
    EXPECT_LE(during, before + room);
    EXPECT_LE(threadCount(), before + room);
}

struct RedirectRow {
    const char* name;
    bool fromHTTPS;
    const char* landingHost;  // nullptr: the start server itself
    bool landingHTTPS;        // with a certificate the delegate accepts only after the handshake's wait
    std::int64_t error;       // 0: the load lands
    bool credentialsLand;
    friend void PrintTo(const RedirectRow& r, std::ostream* os) { *os << r.name; }
};

class URLSessionRedirectTest : public ::testing::TestWithParam<RedirectRow> {};

TEST_P(URLSessionRedirectTest, LeavesNoSecureSchemeAndTakesNoCredentialsElsewhere) {
    const auto& row = GetParam();
    auto landed = [](const auto&, auto& res) { res.set_content("landed", "text/plain"); };
    auto other = row.landingHTTPS ? TestServer::https(TestCertificates::shared().selfSigned) : TestServer::http();
    other->route("GET", "/landing", landed);
    other->start();
    auto start = row.fromHTTPS ? TestServer::https(TestCertificates::shared().server) : TestServer::http();
    const std::string scheme = row.fromHTTPS ? "https" : "http";
    const std::string target = row.landingHost ? (row.landingHTTPS ? "https://" : "http://") + std::string(row.landingHost) +
                                                     ":" + std::to_string(other->port()) + "/landing"
                                               : "/landing";
    start->route("GET", "/go", [&](const auto&, auto& res) { res.set_redirect(target, 302); });
    start->route("GET", "/landing", landed);
    start->start();

    URLRequest request = requestFor(start->origin(scheme) + "/go");
    request.setValue("Bearer secret", "Authorization");
    request.setValue("sid=1", "Cookie");
    request.setValue("kept", "X-Trace");
    Client client(anchored());
    client.late = 100ms;
    EXPECT_EQ(client.run(request), row.error);
    auto started = start->requests();
    std::erase_if(started, [](const auto& r) { return r.path != "/go"; });
    EXPECT_EQ(started.size(), 1u);  // a handshake made again never sends what went before it again

    auto arrived = (row.landingHost ? other : start)->requests();
    std::erase_if(arrived, [](const auto& r) { return r.path != "/landing"; });
    ASSERT_EQ(arrived.size(), row.error == 0 ? 1u : 0u);
    if (arrived.empty()) return;
    EXPECT_EQ(arrived[0].header("X-Trace"), "kept");
    EXPECT_EQ(arrived[0].headers.count("Authorization"), row.credentialsLand ? 1u : 0u);
    EXPECT_EQ(arrived[0].headers.count("Cookie"), row.credentialsLand ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, URLSessionRedirectTest,
    ::testing::Values(RedirectRow{"HttpsToHttpRefused", true, "127.0.0.1", false,
                                  URLErrorAppTransportSecurityRequiresSecureConnection, false},
                      RedirectRow{"OtherHostGetsNoCredentials", false, "localhost", false, 0, false},
                      RedirectRow{"OtherPortGetsNoCredentials", false, "127.0.0.1", false, 0, false},
                      RedirectRow{"LateTrustedOtherHostGetsNoCredentials", false, "localhost", true, 0, false},
                      RedirectRow{"SameServerKeepsThem", false, nullptr, false, 0, true}),
    [](const auto& info) { return std::string(info.param.name); });

// A listening socket on 127.0.0.1, served by hand: what reaches it is what went on the wire.
// With a reply, it answers one connection with it and then waits for the client to close it.
struct RawServer {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
    std::future<bool> closedByClient;
    explicit RawServer(std::string reply = {}) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        ::listen(fd, 4);
        if (reply.empty()) return;
        closedByClient = std::async(std::launch::async, [this, reply] {
            const int client = ::accept(fd, nullptr, nullptr);
            const timeval patience{30, 0};  // a client that never lets go fails the test, not hangs it
            ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
            char buffer[4096];
            (void)!::read(client, buffer, sizeof buffer);
            (void)!::write(client, reply.data(), reply.size());
            while (::read(client, buffer, sizeof buffer) > 0) {
            }
            ::close(client);
            return true;  // the client ended the connection
        });
    }
    ~RawServer() { ::close(fd); }
    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port) + "/"; }
};

TEST(URLSessionEngineTest, AnAnswerThatIsNotHTTPIsABadServerResponse) {
    RawServer server("SSH-2.0-OpenSSH_9.2\r\nnot a web server\r\n");
    EXPECT_EQ(Client().run(requestFor(server.url())), URLErrorBadServerResponse);
}

// Idle timeouts of one session each fire; a released session ends what runs at once, lets go of
// its transfers and closes its connections, and a task resumed afterwards ends cancelled.
TEST(URLSessionEngineTest, ASessionsTimeoutsFireAndItsReleaseFreesEverything) {
    RawServer silent;
    RawServer answering("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    auto client = std::make_unique<Client>();
    EXPECT_EQ(client->run(requestFor(answering.url())), 0);
    auto shorter = client->session->dataTaskWithRequest(requestFor(silent.url(), 0.3));
    shorter->resume();
    EXPECT_EQ(client->run(requestFor(silent.url(), 0.6)), URLErrorTimedOut);
    ASSERT_NE(shorter->error(), nullptr);
    EXPECT_EQ(shorter->error()->code(), URLErrorTimedOut);

    auto running = client->session->dataTaskWithRequest(requestFor(silent.url()));
    auto unstarted = client->session->dataTaskWithRequest(requestFor(answering.url()));
    running->resume();
    const std::weak_ptr<URLSessionTask> released = running;
    const std::weak_ptr<URLSession> session = client->session;
    client.reset();  // a delegate event still running may hold the session a moment longer
    ASSERT_TRUE(MainQueue::runUntil([&] { return session.expired(); }, 20));
    ASSERT_NE(running->error(), nullptr);
    EXPECT_EQ(running->error()->code(), URLErrorCancelled);
    running.reset();
    EXPECT_TRUE(MainQueue::runUntil([&] { return released.expired(); }, 20));
    EXPECT_EQ(answering.closedByClient.wait_for(20s), std::future_status::ready);
    unstarted->resume();
    EXPECT_EQ(unstarted->state(), URLSessionTaskState::Completed);
    EXPECT_EQ(unstarted->error()->code(), URLErrorCancelled);
}

// While the delegate queue is held up, a large body stops arriving after a few MiB; released,
// the queue receives all of it, once.
TEST(URLSessionEngineTest, ASlowDelegateQueuePausesItsTransferInsteadOfBufferingTheBody) {
    constexpr std::size_t total = 32u << 20;
    auto server = TestServer::http();
    server->server().set_write_timeout(60);
    server->route("GET", "/large", [](const auto&, auto& res) {
        res.set_content_provider(total, "application/octet-stream", [](std::size_t, std::size_t, httplib::DataSink& sink) {
            static const std::string chunk(64u << 10, 'x');
            return sink.write(chunk.data(), chunk.size());
        });
    });
    server->start();
    Client client;
    std::promise<void> release;
    client.recorder->queue->addOperation([held = release.get_future().share()] { held.wait(); });
    auto task = client.session->dataTaskWithRequest(requestFor(server->origin("http") + "/large", 60));
    task->resume();

    ASSERT_TRUE(MainQueue::runUntil([&] { return task->countOfBytesReceived() >= (3 << 20); }, 20));
    MainQueue::runUntil([] { return false; }, 0.5);  // a paused transfer takes nothing more meanwhile
    EXPECT_LT(task->countOfBytesReceived(), 8 << 20);
    release.set_value();
    ASSERT_TRUE(client.recorder->waitForCompletion(task->taskIdentifier()));
    const auto seen = client.recorder->of(task->taskIdentifier());
    EXPECT_EQ(seen.error, nullptr);
    EXPECT_EQ(seen.body.size(), total);
}

// The system's anchors come from its hashed certificate folder, read as chains need them.
TEST(URLSessionEngineTest, TheSystemCertificateFolderVouchesForServers) {
    auto server = helloServer(TestServer::https(TestCertificates::shared().server));
    test::TempFolder folder;
    const auto* authority = TestCertificates::shared().authority.certificate.get();
    char hashed[16];
    std::snprintf(hashed, sizeof hashed, "%08lx.0", X509_subject_name_hash(const_cast<X509*>(authority)));
    ASSERT_TRUE(FileManager::writeAtomically(folder.path() + "/" + hashed, TestCertificates::shared().authorityPEM()));
    ::setenv("SSL_CERT_DIR", folder.path().c_str(), 1);
    Client client;  // no extra anchors
    EXPECT_EQ(client.run(requestFor(server->origin("https") + "/hello")), 0);
    ::unsetenv("SSL_CERT_DIR");
    client.recorder->queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(client.held.empty());
}

// Wildcards stand for one whole leftmost label; a partial one matches nothing.
TEST(URLSessionEngineTest, PartialWildcardsMatchNoHost) {
    const auto leaf = test::makeIdentity("wild", nullptr, false, 9, -3600, 86400, "DNS:f*.example.com,DNS:*.example.org");
    std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> anchors(X509_STORE_new(), &X509_STORE_free);
    X509_STORE_add_cert(anchors.get(), leaf.certificate.get());  // the leaf vouches for itself
    for (const auto& [host, trusted] : std::vector<std::pair<const char*, bool>>{
             {"foo.example.com", false}, {"a.example.org", true}, {"A.Example.Org", true}, {"a.b.example.org", false}}) {
        EXPECT_EQ(detail::evaluateServerTrust(anchors.get(), leaf.certificate.get(), nullptr, host).trusted, trusted) << host;
    }
}

}  // namespace
}  // namespace krcommon::platform

// Sessions sharing the process's one transfer engine: a delegate slow to
// answer holds up nobody else, a slow delegate queue pauses its transfer, and
// what must never reach the wire does not.

#include "support/LogCapture.h"
#include "support/TempAppHome.h"
#include "support/TestServer.h"
#include "platform/io/TempFolder.h"

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/net/URLSession.h>
#include <krcommon/platform/net/detail/TrustEvaluator.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace krcommon::platform {
namespace {

using test::TestCertificates;
using test::TestServer;

// Completions with their order and errors, and the body bytes each task received.
class Watcher final : public URLSessionDelegate,
                      public URLSessionChallengeDelegate,
                      public URLSessionTaskCompletionDelegate,
                      public URLSessionDataReceiveDelegate {
public:
    // Trusted servers are accepted at once; untrusted ones never get an answer.
    void didReceiveChallenge(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLAuthenticationChallenge>& c,
                             URLSessionChallengeCompletion completion) override {
        const auto& trust = c->protectionSpace()->serverTrust();
        if (trust->isTrusted()) {
            completion(URLSessionAuthChallengeDisposition::UseCredential, URLCredential::credentialForTrust(trust));
            return;
        }
        std::lock_guard lock(mutex);
        unanswered.push_back(std::move(completion));
    }
    void didReceiveData(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDataTask>& task,
                        std::optional<std::span<const std::uint8_t>> data) override {
        std::lock_guard lock(mutex);
        auto& sum = checksums[task->taskIdentifier()];
        for (std::uint8_t byte : *data) sum = sum * 31 + byte;
    }
    void didCompleteWithError(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionTask>& task,
                              const std::shared_ptr<Error>& error) override {
        std::lock_guard lock(mutex);
        order.push_back(task->taskIdentifier());
        errors[task->taskIdentifier()] = error ? error->code() : 0;
        done.notify_all();
    }
    bool waitFor(std::size_t count, double seconds = 20) {
        std::unique_lock lock(mutex);
        return done.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return order.size() >= count; });
    }

    std::mutex mutex;
    std::condition_variable done;
    std::vector<URLSessionChallengeCompletion> unanswered;
    std::map<std::uint64_t, std::uint64_t> checksums;
    std::vector<std::uint64_t> order;
    std::map<std::uint64_t, std::int64_t> errors;
};

URLRequest requestFor(const std::string& text, double timeout = 10) {
    URLRequest request(URL::URLWithString(text));
    request.setTimeoutInterval(timeout);
    return request;
}

// A session whose delegate is a Watcher.
struct Client {
    std::shared_ptr<Watcher> watcher = std::make_shared<Watcher>();
    std::shared_ptr<URLSession> session;
    explicit Client(std::shared_ptr<URLSessionConfiguration> configuration = nullptr,
                    std::shared_ptr<OperationQueue> queue = nullptr)
        : session(URLSession::sessionWithConfiguration(configuration, watcher, std::move(queue))) {}
    // Runs a task to its end: its error code, 0 for none.
    std::int64_t run(const URLRequest& request) {
        auto task = session->dataTaskWithRequest(request);
        task->resume();
        std::unique_lock lock(watcher->mutex);
        EXPECT_TRUE(watcher->done.wait_for(lock, std::chrono::seconds(20), [&] { return watcher->errors.contains(task->taskIdentifier()); }));
        return watcher->errors[task->taskIdentifier()];
    }
};

// A manager's GET answered on the main queue: the object, or the error as one.
Value get(KRSDKMemberHttpManager& manager, const std::string& url) {
    auto answer = std::make_shared<std::optional<Value>>();
    manager.GET(url, Value(), Value(), std::nullopt, [answer](const auto&, const Value& object) { *answer = object; },
                [answer](const auto&, const Value&, const auto& error) { *answer = Value(error); });
    EXPECT_TRUE(MainQueue::runUntil([&] { return answer->has_value(); }, 20));
    return answer->value_or(Value());
}

std::unique_ptr<TestServer> helloServer(std::unique_ptr<TestServer> server) {
    server->route("GET", "/hello", [](const auto&, auto& res) { res.set_content("hello", "text/plain"); });
    server->start();
    return server;
}

TEST(URLSessionEngineTest, UnansweredChallengeTimesOutAloneWhileTheSessionGoesOn) {
    auto untrusted = helloServer(TestServer::https(TestCertificates::shared().selfSigned));
    auto trusted = helloServer(TestServer::https(TestCertificates::shared().server));
    auto configuration = URLSessionConfiguration::ephemeralSessionConfiguration();
    configuration->addTrustAnchorPEM(TestCertificates::shared().authorityPEM());
    auto watcher = std::make_shared<Watcher>();
    auto session = URLSession::sessionWithConfiguration(configuration, watcher);

    constexpr double timeout = 1.5;
    const auto started = std::chrono::steady_clock::now();
    auto waiting = session->dataTaskWithRequest(requestFor(untrusted->origin("https") + "/hello", timeout));
    auto passing = session->dataTaskWithRequest(requestFor(trusted->origin("https") + "/hello"));
    waiting->resume();
    passing->resume();
    ASSERT_TRUE(watcher->waitFor(2));
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    std::lock_guard lock(watcher->mutex);
    EXPECT_EQ(watcher->order, (std::vector<std::uint64_t>{passing->taskIdentifier(), waiting->taskIdentifier()}));
    EXPECT_EQ(watcher->errors[passing->taskIdentifier()], 0);
    EXPECT_EQ(watcher->errors[waiting->taskIdentifier()], URLErrorTimedOut);
    EXPECT_GE(elapsed, timeout);
    EXPECT_EQ(watcher->unanswered.size(), 1u);
    EXPECT_EQ(untrusted->requestCount(), 0u);
    EXPECT_EQ(trusted->requestCount(), 1u);
}

// The connection one manager's delegate accepted stays with that manager's session: the next
// manager gets a challenge (and a connection) of its own.
TEST(URLSessionEngineTest, EachManagerDecidesTrustForItsOwnConnections) {
    test::TempAppHome home;
    ASSERT_TRUE(FileManager::createDirectoryAtPath(home.library() + "/kr_sdks_kvstorage", true));
    Dictionary lists;
    lists.set("loginSrvIpList", Value(R"([{"type":"https","ip":"127.0.0.1"}])"));
    ASSERT_TRUE(PropertyList::writeFile(KRSDKMemberHttpManager::plistFilePath(), Value(lists), true));
    auto server = TestServer::https(TestCertificates::shared().selfSigned);
    server->route("GET", "/me", [](const auto& req, auto& res) {
        res.set_content(R"({"port":)" + std::to_string(req.remote_port) + "}", "application/json");
    });
    server->start();

    test::LogCapture capture;
    std::vector<std::shared_ptr<KRSDKMemberHttpManager>> managers;
    std::set<std::string> ports;
    for (int i = 0; i < 2; ++i) {
        managers.push_back(KRSDKMemberHttpManager::create());
        const Value answer = get(*managers.back(), server->origin("https") + "/me");
        ASSERT_TRUE(answer.dictionary()) << answer.description();
        ports.insert(answer["port"].description());
    }
    EXPECT_EQ(capture.count("ip host is:127.0.0.1"), 2u);
    EXPECT_EQ(ports.size(), 2u);
}

struct RedirectRow {
    const char* name;
    bool fromHTTPS;
    const char* landingHost;  // nullptr: the start server itself
    std::int64_t error;       // 0: the load lands
    bool credentialsLand;
    friend void PrintTo(const RedirectRow& r, std::ostream* os) { *os << r.name; }
};

class URLSessionRedirectTest : public ::testing::TestWithParam<RedirectRow> {};

TEST_P(URLSessionRedirectTest, LeavesNoSecureSchemeAndTakesNoCredentialsElsewhere) {
    const auto& row = GetParam();
    auto landed = [](const auto&, auto& res) { res.set_content("landed", "text/plain"); };
    auto other = TestServer::http();
    other->route("GET", "/landing", landed);
    other->start();
    auto start = row.fromHTTPS ? TestServer::https(TestCertificates::shared().server) : TestServer::http();
    const std::string scheme = row.fromHTTPS ? "https" : "http";
    const std::string target = row.landingHost ? "http://" + std::string(row.landingHost) + ":" +
                                                     std::to_string(other->port()) + "/landing"
                                               : "/landing";
    start->route("GET", "/go", [&](const auto&, auto& res) { res.set_redirect(target, 302); });
    start->route("GET", "/landing", landed);
    start->start();

    auto configuration = URLSessionConfiguration::ephemeralSessionConfiguration();
    configuration->addTrustAnchorPEM(TestCertificates::shared().authorityPEM());
    URLRequest request = requestFor(start->origin(scheme) + "/go");
    request.setValue("Bearer secret", "Authorization");
    request.setValue("sid=1", "Cookie");
    request.setValue("kept", "X-Trace");
    EXPECT_EQ(Client(configuration).run(request), row.error);

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
    ::testing::Values(RedirectRow{"HttpsToHttpRefused", true, "127.0.0.1",
                                  URLErrorAppTransportSecurityRequiresSecureConnection, false},
                      RedirectRow{"OtherHostGetsNoCredentials", false, "localhost", 0, false},
                      RedirectRow{"OtherPortGetsNoCredentials", false, "127.0.0.1", 0, false},
                      RedirectRow{"SameServerKeepsThem", false, nullptr, 0, true}),
    [](const auto& info) { return std::string(info.param.name); });

// A listening socket nobody serves unless told to: what reaches it is what went on the wire.
struct RawListener {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
    RawListener() {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        ::listen(fd, 4);
    }
    ~RawListener() { ::close(fd); }
    [[nodiscard]] bool hasConnection() const {
        pollfd p{fd, POLLIN, 0};
        return ::poll(&p, 1, 0) == 1;
    }
};

TEST(URLSessionEngineTest, AnAnswerThatIsNotHTTPIsABadServerResponse) {
    RawListener listener;
    auto serve = std::async(std::launch::async, [&] {
        const int client = ::accept(listener.fd, nullptr, nullptr);
        char buffer[1024];
        (void)!::read(client, buffer, sizeof buffer);
        const std::string reply = "SSH-2.0-OpenSSH_9.2\r\nnot a web server\r\n";
        (void)!::write(client, reply.data(), reply.size());
        ::close(client);
    });
    EXPECT_EQ(Client().run(requestFor("http://127.0.0.1:" + std::to_string(listener.port) + "/")),
              URLErrorBadServerResponse);
}

struct FieldRow {
    const char* name;
    std::string field;
    std::string value;
    friend void PrintTo(const FieldRow& r, std::ostream* os) { *os << r.name; }
};

class URLSessionFieldTest : public ::testing::TestWithParam<FieldRow> {};

TEST_P(URLSessionFieldTest, AFieldThatCannotBeSentAsItIsStopsTheTaskBeforeItConnects) {
    RawListener listener;
    URLRequest request = requestFor("http://127.0.0.1:" + std::to_string(listener.port) + "/");
    request.setValue(GetParam().value, GetParam().field);
    EXPECT_EQ(Client().run(request), URLErrorBadURL);
    EXPECT_FALSE(listener.hasConnection());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, URLSessionFieldTest,
    ::testing::Values(FieldRow{"NulInValue", "X-Note", std::string("a\0b", 3)},
                      FieldRow{"NulInName", std::string("X-\0Note", 7), "v"},
                      FieldRow{"LineFeedInValue", "X-Note", "a\nX-Injected: 1"},
                      FieldRow{"ColonInName", "X-Injected: 1\r\nX-Note", "v"},
                      FieldRow{"SpaceInName", "X Note", "v"}),
    [](const auto& info) { return std::string(info.param.name); });

// While the delegate queue is held up, a large body stops arriving after a few MiB; released,
// the queue receives all of it, intact and in order.
TEST(URLSessionEngineTest, ASlowDelegateQueuePausesItsTransferInsteadOfBufferingTheBody) {
    constexpr std::size_t total = 32u << 20;
    constexpr std::size_t chunk = 64u << 10;
    auto server = TestServer::http();
    server->server().set_write_timeout(60);
    server->route("GET", "/large", [](const auto&, auto& res) {
        res.set_content_provider(total, "application/octet-stream", [](std::size_t offset, std::size_t, httplib::DataSink& sink) {
            std::string bytes(chunk, '\0');
            for (std::size_t i = 0; i < chunk; ++i) bytes[i] = static_cast<char>((offset + i) * 7 % 251);
            return sink.write(bytes.data(), bytes.size());
        });
    });
    server->start();

    auto watcher = std::make_shared<Watcher>();
    auto queue = std::make_shared<OperationQueue>(1);
    std::promise<void> release;
    queue->addOperation([held = release.get_future().share()] { held.wait(); });
    auto session = URLSession::sessionWithConfiguration(nullptr, watcher, queue);
    auto task = session->dataTaskWithRequest(requestFor(server->origin("http") + "/large", 60));
    task->resume();

    ASSERT_TRUE(MainQueue::runUntil([&] { return task->countOfBytesReceived() >= (3 << 20); }, 20));
    MainQueue::runUntil([] { return false; }, 0.5);  // a paused transfer takes nothing more meanwhile
    EXPECT_LT(task->countOfBytesReceived(), 8 << 20);
    release.set_value();
    ASSERT_TRUE(watcher->waitFor(1, 60));

    std::uint64_t expected = 0;
    for (std::size_t i = 0; i < total; ++i) expected = expected * 31 + i * 7 % 251;
    std::lock_guard lock(watcher->mutex);
    EXPECT_EQ(watcher->errors[task->taskIdentifier()], 0);
    EXPECT_EQ(task->countOfBytesReceived(), static_cast<std::int64_t>(total));
    EXPECT_EQ(watcher->checksums[task->taskIdentifier()], expected);
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
    EXPECT_TRUE(client.watcher->unanswered.empty());
}

// Wildcards stand for one whole leftmost label; a partial one matches nothing.
TEST(URLSessionEngineTest, PartialWildcardsMatchNoHost) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* leaf = X509_new();
    X509_set_version(leaf, 2);
    X509_gmtime_adj(X509_getm_notBefore(leaf), -3600);
    X509_gmtime_adj(X509_getm_notAfter(leaf), 3600);
    X509_set_pubkey(leaf, key);
    X509_set_issuer_name(leaf, X509_get_subject_name(leaf));
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, leaf, leaf, nullptr, nullptr, 0);
    X509_EXTENSION* names = X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "DNS:f*.example.com,DNS:*.example.org");
    X509_add_ext(leaf, names, -1);
    X509_sign(leaf, key, EVP_sha256());
    X509_STORE* anchors = X509_STORE_new();  // the leaf vouches for itself
    X509_STORE_add_cert(anchors, leaf);
    X509_STORE_set_flags(anchors, X509_V_FLAG_PARTIAL_CHAIN);
    const std::vector<std::pair<const char*, bool>> hosts = {
        {"foo.example.com", false}, {"f.example.com", false},  {"a.example.org", true},
        {"A.Example.Org", true},    {"a.b.example.org", false}, {"example.org", false}};
    for (const auto& [host, trusted] : hosts) {
        EXPECT_EQ(detail::evaluateServerTrust(anchors, leaf, nullptr, host).trusted, trusted) << host;
    }
    X509_STORE_free(anchors);
    X509_EXTENSION_free(names);
    X509_free(leaf);
    EVP_PKEY_free(key);
}

}  // namespace
}  // namespace krcommon::platform

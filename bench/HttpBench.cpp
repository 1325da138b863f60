// Requests through KRSDKMemberHttpManager against raw libcurl multi doing the
// same keep-alive GETs and POSTs to the same local server, with 1 and with 32
// requests in flight. One iteration is one answered request, so the time per
// iteration is the inverse of the request rate; with one in flight it is the
// latency of a request, and KR minus BASE is what the manager adds to it.
// PAIR_ runs both clients in alternation within one run and reports their ratio.
//
// MEM_InFlight reports the heap held per request in flight: the server holds
// every answer back while the manager has N requests outstanding.

#include "support/TestServer.h"
#include "support/ThreadCount.h"

#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/net/URLSession.h>
#if __has_include(<krcommon/platform/net/detail/Transfer.h>)
#include <krcommon/platform/net/detail/Transfer.h>
#define KRCOMMON_BENCH_HANDSHAKES 1
#endif

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

using krcommon::KRSDKMemberHttpManager;
using krcommon::platform::Dictionary;
using krcommon::platform::MainQueue;
using krcommon::platform::Value;

const std::string kAnswer = R"({"code":0,"msg":"ok","data":{"uid":"10001","name":"kr"}})";
const Value kParams(Dictionary{{"appid", "1001"}, {"uid", "10001"}});

krcommon::test::TestServer& server() {
    static auto instance = [] {
        auto s = krcommon::test::TestServer::http();
        // A thread for every connection the paired cases keep open (32 of each client) and
        // more: a keep-alive connection holds its server thread while it lasts.
        s->server().new_task_queue = [] { return new httplib::ThreadPool(96); };
        // Straight on the server library: these routes record nothing, so memory stays flat.
        s->server().Get("/user", [](const auto&, auto& res) { res.set_content(kAnswer, "application/json"); });
        s->server().Post("/user", [](const auto&, auto& res) { res.set_content(kAnswer, "application/json"); });
        s->start();
        return s;
    }();
    return *instance;
}

// The module's trace lines are formatted as usual but not written anywhere:
// the figure is the client's, not the terminal's.
struct DiscardingSink final : krcommon::platform::LogSink {
    void write(std::string_view) override {}
};
const bool kQuiet = [] {
    krcommon::platform::SystemLog::setSink(std::make_shared<DiscardingSink>());
    return true;
}();

// Seconds of CPU the whole process has used: client and in-process server, all threads.
double processSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Reports the process's CPU per request in microseconds, the server's share
// included, so that the difference between two clients is their own cost.
void reportProcessCPU(benchmark::State& state, double since) {
    state.counters["process_cpu_us"] =
        benchmark::Counter((processSeconds() - since) * 1e6 / static_cast<double>(state.iterations()));
}

// ---- the two clients, each keeping a number of requests in flight

// Both clients run the same way: run(n) keeps `inFlight` requests going and
// returns once n more answers have come, leaving the rest in flight; batch(n)
// sends exactly n requests, `inFlight` at a time, and returns with none left.
constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();

// Requests through one manager; callbacks pumped on the main queue, where each
// answer starts the next request.
class ManagerLoad {
public:
    ManagerLoad(int inFlight, bool post)
        : manager_(KRSDKMemberHttpManager::create()), inFlight_(inFlight), post_(post) {
        manager_->sessionConfiguration()->setHTTPMaximumConnectionsPerHost(inFlight);
        manager_->setValue("identity", "Accept-Encoding");  // as the raw client: no compression
    }
    ~ManagerLoad() {
        limit_ = started_;
        MainQueue::runUntil([&] { return answered_ == started_; }, 30);
    }
    ManagerLoad(const ManagerLoad&) = delete;
    ManagerLoad& operator=(const ManagerLoad&) = delete;

    void run(std::int64_t answers) {
        limit_ = kUnlimited;
        fill();
        target_ += answers;
        if (answered_ < target_) MainQueue::runUntil([&] { return answered_ >= target_; }, 30);
    }
    void batch(std::int64_t count) {
        limit_ = started_ + count;
        fill();
        MainQueue::runUntil([&] { return answered_ == limit_; }, 30);
        target_ = answered_;
    }
    [[nodiscard]] std::int64_t failed() const { return failed_; }

private:
    void fill() {
        while (started_ - answered_ < inFlight_ && started_ < limit_) startOne();
    }
    void startOne() {
        ++started_;
        auto success = [this](const auto&, const Value&) { answer(false); };
        auto failure = [this](const auto&, const Value&, const auto&) { answer(true); };
        if (post_) {
            manager_->POST(url_, Value(), kParams, std::nullopt, false, success, failure);
        } else {
            manager_->GET(url_, Value(), kParams, std::nullopt, success, failure);
        }
    }
    void answer(bool failed) {
        ++answered_;
        failed_ += failed ? 1 : 0;
        fill();
    }

    std::shared_ptr<KRSDKMemberHttpManager> manager_;
    const std::string url_ = server().origin("http") + "/user";
    const std::int64_t inFlight_;
    const bool post_;
    std::int64_t limit_ = 0;  // requests that may be started in all
    std::int64_t started_ = 0;
    std::int64_t answered_ = 0;
    std::int64_t target_ = 0;
    std::int64_t failed_ = 0;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

// Raw libcurl multi on the calling thread, sending the bytes the manager sends
// for the same call: its query string or JSON body, content type, user agent
// and accepted encoding. A finished handle is added again for the next request.
class CurlLoad {
public:
    CurlLoad(int inFlight, bool post)
        : multi_(curl_multi_init()),
          url_(server().origin("http") + "/user" +
               (post ? "" : "?" + krcommon::KRQueryStringFromParameters(kParams).value_or(""))),
          body_(post ? krcommon::KRJsonFromParameters(kParams).value_or("") : ""),
          bodies_(static_cast<std::size_t>(inFlight)) {
        curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(inFlight));
        headers_ = curl_slist_append(nullptr, "Content-Type: application/x-www-form-urlencoded");
        headers_ = curl_slist_append(headers_, "Expect:");
        for (auto& received : bodies_) {
            CURL* easy = curl_easy_init();
            curl_easy_setopt(easy, CURLOPT_URL, url_.c_str());
            curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &collect);
            curl_easy_setopt(easy, CURLOPT_WRITEDATA, &received);
            curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
            curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 15000L);
            curl_easy_setopt(easy, CURLOPT_USERAGENT, "krcommon/1.0");
            curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "identity");
            if (post) {
                curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body_.size()));
                curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body_.c_str());
                curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers_);
            }
            handles_.push_back(easy);
            idle_.push_back(easy);
        }
    }
    ~CurlLoad() {
        for (CURL* easy : handles_) {
            curl_multi_remove_handle(multi_, easy);
            curl_easy_cleanup(easy);
        }
        curl_slist_free_all(headers_);
        curl_multi_cleanup(multi_);
    }
    CurlLoad(const CurlLoad&) = delete;
    CurlLoad& operator=(const CurlLoad&) = delete;

    void run(std::int64_t answers) {
        limit_ = kUnlimited;
        target_ += answers;
        perform(target_);
    }
    void batch(std::int64_t count) {
        limit_ = started_ + count;
        perform(limit_);
        target_ = finished_;
    }
    [[nodiscard]] std::int64_t failed() const { return failed_; }

private:
    void fill() {
        while (!idle_.empty() && started_ < limit_) {
            curl_multi_add_handle(multi_, idle_.back());
            idle_.pop_back();
            ++started_;
        }
    }
    void perform(std::int64_t until) {
        fill();
        while (finished_ < until) {
            int running = 0;
            curl_multi_perform(multi_, &running);
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
                if (message->msg != CURLMSG_DONE) continue;
                if (message->data.result != CURLE_OK) ++failed_;
                CURL* easy = message->easy_handle;
                curl_multi_remove_handle(multi_, easy);
                idle_.push_back(easy);
                ++finished_;
            }
            fill();  // the next requests on the same handles
            if (finished_ < until) curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
        }
    }

    CURLM* multi_;
    const std::string url_;
    const std::string body_;
    std::vector<std::string> bodies_;
    curl_slist* headers_ = nullptr;
    std::vector<CURL*> handles_;
    std::vector<CURL*> idle_;
    std::int64_t limit_ = 0;
    std::int64_t started_ = 0;
    std::int64_t finished_ = 0;
    std::int64_t target_ = 0;
    std::int64_t failed_ = 0;
};

// One iteration is one answered request.
template <class Load>
void runLoad(benchmark::State& state, bool post) {
    Load load(static_cast<int>(state.range(0)), post);
    const double cpuStart = processSeconds();
    for (auto _ : state) load.run(1);
    reportProcessCPU(state, cpuStart);
    if (load.failed()) state.SkipWithError("requests failed");
    state.SetItemsProcessed(state.iterations());
}

void KR_RequestGet(benchmark::State& state) { runLoad<ManagerLoad>(state, false); }
void KR_RequestPost(benchmark::State& state) { runLoad<ManagerLoad>(state, true); }
BENCHMARK(KR_RequestGet)->Arg(1)->Arg(32)->UseRealTime();
BENCHMARK(KR_RequestPost)->Arg(1)->Arg(32)->UseRealTime();

void BASE_RequestGet(benchmark::State& state) { runLoad<CurlLoad>(state, false); }
void BASE_RequestPost(benchmark::State& state) { runLoad<CurlLoad>(state, true); }
BENCHMARK(BASE_RequestGet)->Arg(1)->Arg(32)->UseRealTime();
BENCHMARK(BASE_RequestPost)->Arg(1)->Arg(32)->UseRealTime();

// The same loads for fixed numbers of requests, for counting instructions per
// request and thread under callgrind (scripts/count-instructions.sh), a measure
// this machine's drifting speed does not blur. Not part of the timed tables.
// Two counts per case: their difference leaves out start-up and connection set-up.
const bool kCountCases = [] {
    for (const benchmark::IterationCount requests : {1000, 3000}) {
        benchmark::RegisterBenchmark("COUNT_KR_RequestGet", KR_RequestGet)->Arg(32)->Iterations(requests);
        benchmark::RegisterBenchmark("COUNT_KR_RequestPost", KR_RequestPost)->Arg(32)->Iterations(requests);
        benchmark::RegisterBenchmark("COUNT_BASE_RequestGet", BASE_RequestGet)->Arg(32)->Iterations(requests);
        benchmark::RegisterBenchmark("COUNT_BASE_RequestPost", BASE_RequestPost)->Arg(32)->Iterations(requests);
    }
    return true;
}();

// ---- a client's start-up

// A new manager (and with it a session and a new connection)
// answering its first request, then going away.
void KR_FirstRequest(benchmark::State& state) {
    const std::string url = server().origin("http") + "/user";
    std::int64_t failed = 0;
    for (auto _ : state) {
        bool answered = false;
        auto manager = KRSDKMemberHttpManager::create();
        manager->setValue("identity", "Accept-Encoding");
        manager->GET(
            url, Value(), kParams, std::nullopt, [&](const auto&, const Value&) { answered = true; },
            [&](const auto&, const Value&, const auto&) {
                answered = true;
                ++failed;
            });
        MainQueue::runUntil([&] { return answered; }, 30);
    }
    if (failed) state.SkipWithError("requests failed");
}
BENCHMARK(KR_FirstRequest)->UseRealTime();

// The same with raw libcurl: a new multi and easy handle, one request, cleanup.
void BASE_FirstRequest(benchmark::State& state) {
    std::int64_t failed = 0;
    for (auto _ : state) {
        CurlLoad load(1, false);
        load.batch(1);
        failed += load.failed();
    }
    if (failed) state.SkipWithError("requests failed");
}
BENCHMARK(BASE_FirstRequest)->UseRealTime();

// ---- both clients in alternation

// This machine's speed drifts between runs by more than the difference between
// the clients, so KR and BASE from separate runs give a loose ratio. Here each
// iteration times a batch of requests through the manager and then the same
// number through raw libcurl, against the same server, moments apart. Each
// batch ends with nothing in flight, so neither client's requests run on into
// the other's time. The counters are the per-request times of each, their
// ratio (raw / manager) and the difference (with one in flight, the latency
// the manager adds).
void runPaired(benchmark::State& state, bool post) {
    const int inFlight = static_cast<int>(state.range(0));
    const std::int64_t batchSize = inFlight == 1 ? 200 : 2048;
    ManagerLoad manager(inFlight, post);
    CurlLoad raw(inFlight, post);
    using Seconds = std::chrono::duration<double>;
    Seconds managerTime{};
    Seconds rawTime{};
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        manager.batch(batchSize);
        const auto between = std::chrono::steady_clock::now();
        raw.batch(batchSize);
        managerTime += between - start;
        rawTime += std::chrono::steady_clock::now() - between;
    }
    const double requests = static_cast<double>(state.iterations() * batchSize);
    state.counters["kr_us"] = managerTime.count() * 1e6 / requests;
    state.counters["raw_us"] = rawTime.count() * 1e6 / requests;
    state.counters["added_us"] = (managerTime - rawTime).count() * 1e6 / requests;
    state.counters["pair_ratio"] = rawTime / managerTime;
    if (manager.failed() || raw.failed()) state.SkipWithError("requests failed");
    state.SetItemsProcessed(state.iterations() * batchSize * 2);
}

void PAIR_RequestGet(benchmark::State& state) { runPaired(state, false); }
void PAIR_RequestPost(benchmark::State& state) { runPaired(state, true); }
BENCHMARK(PAIR_RequestGet)->Arg(1)->Arg(32)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PAIR_RequestPost)->Arg(1)->Arg(32)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- the two thread hops a request through the manager takes

// The caller wakes a thread asleep in poll() on an eventfd, as a request start
// wakes the transfer thread; that thread posts a job to the main queue, as a
// completion reaches the caller. Raw libcurl on the caller's thread takes
// neither hop, so this round trip is what any client that runs transfers on
// their own thread and answers on the main queue adds to a request at least.
void HOP_ThreadRoundTrip(benchmark::State& state) {
    const int wake = ::eventfd(0, EFD_CLOEXEC);
    std::atomic<bool> stop{false};
    std::int64_t answered = 0;
    std::thread worker([&] {
        pollfd fd{wake, POLLIN, 0};
        std::uint64_t signals = 0;
        while (!stop.load()) {
            if (::poll(&fd, 1, -1) <= 0 || ::read(wake, &signals, sizeof signals) != sizeof signals) continue;
            MainQueue::async([&answered] { ++answered; });
        }
    });
    const std::uint64_t one = 1;
    std::int64_t sent = 0;
    for (auto _ : state) {
        ++sent;
        if (::write(wake, &one, sizeof one) != sizeof one) state.SkipWithError("eventfd write failed");
        MainQueue::runUntil([&] { return answered >= sent; }, 30);
    }
    stop = true;
    (void)!::write(wake, &one, sizeof one);
    worker.join();
    MainQueue::drain();
    ::close(wake);
}
BENCHMARK(HOP_ThreadRoundTrip)->UseRealTime();

// ---- servers in child processes

// A TCP socket bound to a free port on 127.0.0.1 and listening; `port` receives the port.
int loopbackListener(int& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    ::listen(fd, 4096);
    return fd;
}

// Forks a child that serves the listener with `serve` until it is killed; answers the port.
int forkServer(pid_t* child, void (*serve)(int listener)) {
    int port = 0;
    const int fd = loopbackListener(port);
    *child = ::fork();
    if (*child != 0) {
        ::close(fd);
        return port;
    }
    ::signal(SIGPIPE, SIG_IGN);
    serve(fd);
    ::_exit(0);
}

// ---- memory held per request in flight

// A server in a child process that accepts connections, reads, and never
// answers: what the parent's heap holds then is the client's alone.
void serveSilently(int fd) {
    std::vector<pollfd> fds{{fd, POLLIN, 0}};
    char buffer[4096];
    while (true) {
        ::poll(fds.data(), fds.size(), -1);
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (!(fds[i].revents & POLLIN)) continue;
            if (i == 0) {
                fds.push_back({::accept(fd, nullptr, nullptr), POLLIN, 0});
            } else if (::read(fds[i].fd, buffer, sizeof buffer) <= 0) {
                fds[i].events = 0;
            }
        }
    }
}
int silentServer(pid_t* child) { return forkServer(child, &serveSilently); }

void MEM_InFlight(benchmark::State& state) {
    const int inFlight = static_cast<int>(state.range(0));
    pid_t child = 0;
    const int port = silentServer(&child);
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/hold";
    double perRequest = 0;
    for (auto _ : state) {
        auto manager = KRSDKMemberHttpManager::create();
        manager->sessionConfiguration()->setHTTPMaximumConnectionsPerHost(inFlight);
        (void)manager->session();
        malloc_trim(0);
        const auto before = mallinfo2().uordblks;
        int answered = 0;
        std::vector<std::shared_ptr<krcommon::platform::URLSessionDataTask>> tasks;
        for (int i = 0; i < inFlight; ++i) {
            tasks.push_back(manager->GET(url, Value(), Value(Dictionary{{"i", std::to_string(i)}}), std::nullopt,
                                         [&](const auto&, const Value&) { ++answered; },
                                         [&](const auto&, const Value&, const auto&) { ++answered; }));
        }
        MainQueue::runUntil([] { return false; }, 0.3);  // every request connected and sent
        const auto during = mallinfo2().uordblks;
        for (auto& task : tasks) task->cancel();
        MainQueue::runUntil([&] { return answered == inFlight; }, 30);
        perRequest = static_cast<double>(during - before) / inFlight;
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    state.counters["bytes_per_request"] = perRequest;
}
BENCHMARK(MEM_InFlight)->Arg(16)->Arg(64)->Iterations(3)->Unit(benchmark::kMillisecond);


// ---- many clients at once

using krcommon::test::threadCount;

// A server in a child process that answers every request on every connection
// with the same small JSON answer, keeping connections open, from one epoll
// loop: it holds any number of connections, and its threads and memory are not
// the client's.
void serveAnswers(int fd) {
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                               std::to_string(kAnswer.size()) + "\r\n\r\n" + kAnswer;
    const int events = ::epoll_create1(0);
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    epoll_event listening{EPOLLIN, {.fd = fd}};
    ::epoll_ctl(events, EPOLL_CTL_ADD, fd, &listening);
    std::unordered_map<int, std::string> received;
    std::vector<epoll_event> ready(256);
    char buffer[65536];
    while (true) {
        const int count = ::epoll_wait(events, ready.data(), static_cast<int>(ready.size()), -1);
        for (int i = 0; i < count; ++i) {
            const int ready_fd = ready[static_cast<std::size_t>(i)].data.fd;
            if (ready_fd == fd) {
                while (true) {
                    const int client = ::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK);
                    if (client < 0) break;
                    const int one = 1;
                    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                    epoll_event event{EPOLLIN, {.fd = client}};
                    ::epoll_ctl(events, EPOLL_CTL_ADD, client, &event);
                }
                continue;
            }
            std::string& text = received[ready_fd];
            ssize_t got = 0;
            while ((got = ::read(ready_fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(got));
            std::size_t end = 0;
            std::string out;
            while ((end = text.find("\r\n\r\n")) != std::string::npos) {  // requests without a body
                text.erase(0, end + 4);
                out += answer;
            }
            if (!out.empty()) (void)!::write(ready_fd, out.data(), out.size());
            if (got == 0 || (got < 0 && errno != EAGAIN)) {
                ::close(ready_fd);
                received.erase(ready_fd);
            }
        }
    }
}
int answeringServer(pid_t* child) { return forkServer(child, &serveAnswers); }

struct ChildServer {
    pid_t pid = 0;
    int port;
    explicit ChildServer(int (*start)(pid_t*)) : port(start(&pid)) {}
    ~ChildServer() {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
};

// N managers made at once, one GET each, all in flight together, then all
// released. One iteration is the N requests; the counters are the process's
// threads: the most seen while they ran, and right after the managers went.
void KR_ManyManagers(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    ChildServer server(&answeringServer);
    const std::string url = "http://127.0.0.1:" + std::to_string(server.port) + "/user";
    const int before = threadCount();
    int during = 0;
    int after = 0;
    std::int64_t failed = 0;
    for (auto _ : state) {
        std::vector<std::shared_ptr<KRSDKMemberHttpManager>> managers;
        int answered = 0;
        for (int i = 0; i < count; ++i) {
            managers.push_back(KRSDKMemberHttpManager::create());
            managers.back()->setValue("identity", "Accept-Encoding");
            managers.back()->GET(
                url, Value(), kParams, std::nullopt, [&](const auto&, const Value&) { ++answered; },
                [&](const auto&, const Value&, const auto&) {
                    ++answered;
                    ++failed;
                });
        }
        during = std::max(during, threadCount());
        int polls = 0;
        MainQueue::runUntil(
            [&] {
                if (++polls % 50 == 0) during = std::max(during, threadCount());
                return answered == count;
            },
            60);
        during = std::max(during, threadCount());
        managers.clear();
        after = threadCount();
    }
    if (failed) state.SkipWithError("requests failed");
    state.counters["threads_before"] = before;
    state.counters["threads_during"] = during;
    state.counters["threads_after"] = after;
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(KR_ManyManagers)->Arg(500)->UseRealTime()->Unit(benchmark::kMillisecond);

// The same with raw libcurl: N easy handles on one multi, each opening its
// own connection, all in flight together, then cleaned up.
void BASE_ManyManagers(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    ChildServer server(&answeringServer);
    const std::string url =
        "http://127.0.0.1:" + std::to_string(server.port) + "/user?" + krcommon::KRQueryStringFromParameters(kParams).value_or("");
    std::int64_t failed = 0;
    for (auto _ : state) {
        CURLM* multi = curl_multi_init();
        std::vector<CURL*> handles;
        std::vector<std::string> bodies(static_cast<std::size_t>(count));
        for (auto& body : bodies) {
            CURL* easy = curl_easy_init();
            curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
            curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &collect);
            curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
            curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
            curl_easy_setopt(easy, CURLOPT_USERAGENT, "krcommon/1.0");
            curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "identity");
            curl_multi_add_handle(multi, easy);
            handles.push_back(easy);
        }
        int running = count;
        while (running > 0) {
            curl_multi_perform(multi, &running);
            if (running > 0) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
            if (message->msg == CURLMSG_DONE && message->data.result != CURLE_OK) ++failed;
        }
        for (CURL* easy : handles) {
            curl_multi_remove_handle(multi, easy);
            curl_easy_cleanup(easy);
        }
        curl_multi_cleanup(multi);
    }
    if (failed) state.SkipWithError("requests failed");
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BASE_ManyManagers)->Arg(500)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- a large answer nobody reads in time

// A server in a child process that answers one request with 1 GiB of bytes.
void serveLargeAnswer(int fd) {
    constexpr std::size_t total = std::size_t{1} << 30;
    while (true) {
        const int client = ::accept(fd, nullptr, nullptr);
        char buffer[4096];
        (void)!::read(client, buffer, sizeof buffer);
        const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                                 std::to_string(total) + "\r\nConnection: close\r\n\r\n";
        (void)!::write(client, head.data(), head.size());
        const std::string chunk(std::size_t{1} << 20, 'x');
        for (std::size_t sent = 0; sent < total; sent += chunk.size()) {
            if (::write(client, chunk.data(), chunk.size()) <= 0) break;
        }
        ::close(client);
    }
}
int largeAnswerServer(pid_t* child) { return forkServer(child, &serveLargeAnswer); }

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
    }
    return 0;
}

// A 1 GiB answer to a manager's GET (response type "image": the handler keeps the bytes as
// they are) while the main queue is not pumped for 5 s, then pumped until the answer is
// there. A sampling thread records the resident set; the counters are its growth beyond
// the bytes received so far (what the handler holds), at the most and at the end of the
// 5 s, in MiB, and how much had arrived by then.
void MEM_LargeAnswer(benchmark::State& state) {
    ChildServer server(&largeAnswerServer);
    const std::string url = "http://127.0.0.1:" + std::to_string(server.port) + "/large";
    double peakBeyond = 0;
    double endBeyond = 0;
    double arrived = 0;
    for (auto _ : state) {
        auto manager = KRSDKMemberHttpManager::create();
        bool answered = false;
        malloc_trim(0);
        const long base = residentKiB();
        auto task = manager->GET(
            url, Value(), Value(), std::string("image"), [&](const auto&, const Value&) { answered = true; },
            [&](const auto&, const Value&, const auto&) { answered = true; });
        std::atomic<bool> sampling{true};
        std::atomic<long> peak{0};
        std::thread sampler([&] {
            while (sampling.load()) {
                const long beyond = residentKiB() - base - static_cast<long>(task->countOfBytesReceived() / 1024);
                peak.store(std::max(peak.load(), beyond));
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        });
        std::this_thread::sleep_for(std::chrono::seconds(5));  // the main queue is not pumped meanwhile
        endBeyond = static_cast<double>(residentKiB() - base - task->countOfBytesReceived() / 1024) / 1024;
        arrived = static_cast<double>(task->countOfBytesReceived()) / (1 << 20);
        sampling = false;
        sampler.join();
        peakBeyond = static_cast<double>(peak.load()) / 1024;
        MainQueue::runUntil([&] { return answered; }, 120);
    }
    state.counters["peak_beyond_body_MiB"] = peakBeyond;
    state.counters["end_beyond_body_MiB"] = endBeyond;
    state.counters["received_in_5s_MiB"] = arrived;
}
BENCHMARK(MEM_LargeAnswer)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// The same answer to a session whose delegate queue is held up for 5 s: what
// waits for the delegate is bounded, so the resident set hardly grows at all.
void MEM_LargeAnswerSlowDelegateQueue(benchmark::State& state) {
    ChildServer server(&largeAnswerServer);
    const std::string url = "http://127.0.0.1:" + std::to_string(server.port) + "/large";
    struct Counting final : krcommon::platform::URLSessionDelegate, krcommon::platform::URLSessionTaskCompletionDelegate {
        std::atomic<bool> done{false};
        void didCompleteWithError(const std::shared_ptr<krcommon::platform::URLSession>&,
                                  const std::shared_ptr<krcommon::platform::URLSessionTask>&,
                                  const std::shared_ptr<krcommon::platform::Error>&) override {
            done = true;
        }
    };
    double peakGrowth = 0;
    double arrived = 0;
    for (auto _ : state) {
        auto delegate = std::make_shared<Counting>();
        auto queue = std::make_shared<krcommon::platform::OperationQueue>(1);
        std::promise<void> release;
        queue->addOperation([held = release.get_future().share()] { held.wait(); });
        auto session = krcommon::platform::URLSession::sessionWithConfiguration(nullptr, delegate, queue);
        malloc_trim(0);
        const long base = residentKiB();
        krcommon::platform::URLRequest request(krcommon::platform::URL::URLWithString(url), 120);
        auto task = session->dataTaskWithRequest(request);
        task->resume();
        long peak = 0;
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (std::chrono::steady_clock::now() < until) {
            peak = std::max(peak, residentKiB() - base);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        arrived = static_cast<double>(task->countOfBytesReceived()) / (1 << 20);
        peakGrowth = static_cast<double>(peak) / 1024;
        release.set_value();
        while (!delegate->done) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    state.counters["peak_growth_MiB"] = peakGrowth;
    state.counters["received_in_5s_MiB"] = arrived;
}
BENCHMARK(MEM_LargeAnswerSlowDelegateQueue)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);


// ---- trust decisions and the handshakes they cost
#if KRCOMMON_BENCH_HANDSHAKES

// New sessions, one HTTPS GET each to a server with a self-signed certificate, which the
// delegate accepts after `delay` ms (0: at once, on the delegate queue, as the manager
// does), N in flight together. A handshake waits a short while for the answer; past it,
// it fails and is made again once the answer is in. The counter is TLS handshakes (server
// certificates evaluated) per request.
void TRUST_HandshakesPerRequest(benchmark::State& state) {
    using namespace krcommon::platform;
    const int inFlight = static_cast<int>(state.range(0));
    const int delay = static_cast<int>(state.range(1));
    static auto secure = [] {
        auto s = krcommon::test::TestServer::https(krcommon::test::TestCertificates::shared().selfSigned);
        // One request per connection: a session's idle connection would hold a server thread
        // until the whole batch of sessions went away.
        s->server().set_keep_alive_max_count(1);
        s->server().Get("/user", [](const auto&, auto& res) { res.set_content(kAnswer, "application/json"); });
        s->start();
        return s;
    }();
    struct Accepting final : URLSessionDelegate, URLSessionChallengeDelegate, URLSessionTaskCompletionDelegate {
        int delay = 0;
        std::atomic<int>* done = nullptr;
        std::atomic<int>* failed = nullptr;
        void didReceiveChallenge(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLAuthenticationChallenge>& c,
                                 URLSessionChallengeCompletion completion) override {
            auto credential = URLCredential::credentialForTrust(c->protectionSpace()->serverTrust());
            if (delay == 0) {
                completion(URLSessionAuthChallengeDisposition::UseCredential, credential);
                return;
            }
            std::thread([completion = std::move(completion), credential, wait = delay] {
                std::this_thread::sleep_for(std::chrono::milliseconds(wait));
                completion(URLSessionAuthChallengeDisposition::UseCredential, credential);
            }).detach();
        }
        void didCompleteWithError(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionTask>&,
                                  const std::shared_ptr<Error>& error) override {
            if (error) ++*failed;
            ++*done;
        }
    };
    std::atomic<int> done{0};
    std::atomic<int> failed{0};
    const auto evaluationsBefore = krcommon::platform::detail::serverCertificateEvaluations();
    for (auto _ : state) {
        std::vector<std::shared_ptr<Accepting>> delegates;
        std::vector<std::shared_ptr<URLSession>> sessions;
        const int target = done.load() + inFlight;
        for (int i = 0; i < inFlight; ++i) {
            auto delegate = std::make_shared<Accepting>();
            delegate->delay = delay;
            delegate->done = &done;
            delegate->failed = &failed;
            sessions.push_back(URLSession::sessionWithConfiguration(nullptr, delegate));
            delegates.push_back(delegate);
            sessions.back()->dataTaskWithRequest(URLRequest(URL::URLWithString(secure->origin("https") + "/user")))->resume();
        }
        while (done.load() < target) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    if (failed.load() != 0) state.SkipWithError("requests failed");
    const double requests = static_cast<double>(state.iterations() * inFlight);
    state.counters["handshakes_per_request"] =
        static_cast<double>(krcommon::platform::detail::serverCertificateEvaluations() - evaluationsBefore) / requests;
    state.SetItemsProcessed(state.iterations() * inFlight);
}
BENCHMARK(TRUST_HandshakesPerRequest)->Args({1, 0})->Args({100, 0})->Args({1, 50})->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();

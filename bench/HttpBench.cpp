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

#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/dispatch/MainQueue.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <thread>
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
        s->setRecording(false);
        s->route("GET", "/user", [](const auto&, auto& res) { res.set_content(kAnswer, "application/json"); });
        s->route("POST", "/user", [](const auto&, auto& res) { res.set_content(kAnswer, "application/json"); });
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

// A new manager (and with it a session, its thread and a new connection)
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

// ---- memory held per request in flight

// A server in a child process that accepts connections, reads, and never
// answers: what the parent's heap holds then is the client's alone.
int silentServer(pid_t* child) {
    int port = 0;
    const int fd = krcommon::test::boundLoopbackSocket(port);
    ::listen(fd, 512);
    *child = ::fork();
    if (*child == 0) {
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
    ::close(fd);
    return port;
}

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

}  // namespace

BENCHMARK_MAIN();

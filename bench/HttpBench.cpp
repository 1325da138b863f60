// Requests through KRSDKMemberHttpManager against raw libcurl multi doing the
// same keep-alive GETs and POSTs to the same local server, with 1 and with 32
// requests in flight. One iteration is one answered request, so the time per
// iteration is the inverse of the request rate; with one in flight it is the
// latency of a request, and KR minus BASE is what the manager adds to it.
//
// MEM_InFlight reports the heap held per request in flight: the server holds
// every answer back while the manager has N requests outstanding.

#include "support/TestServer.h"

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
#include <ctime>
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
const std::string kPostBody = R"({"appid":"1001","uid":"10001"})";

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

// ---- krcommon: the manager, callbacks pumped on the main queue

void runManager(benchmark::State& state, bool post) {
    const int inFlight = static_cast<int>(state.range(0));
    auto manager = KRSDKMemberHttpManager::create();
    manager->sessionConfiguration()->setHTTPMaximumConnectionsPerHost(inFlight);
    manager->setValue("identity", "Accept-Encoding");  // as the raw client: no compression
    const std::string url = server().origin("http") + "/user";
    const Value params(Dictionary{{"appid", "1001"}, {"uid", "10001"}});
    std::int64_t answered = 0;
    std::int64_t failed = 0;
    bool keepGoing = true;

    std::function<void()> startOne = [&] {
        auto success = [&](const auto&, const Value&) {
            ++answered;
            if (keepGoing) startOne();
        };
        auto failure = [&](const auto&, const Value&, const auto&) {
            ++answered;
            ++failed;
            if (keepGoing) startOne();
        };
        if (post) {
            manager->POST(url, Value(), params, std::nullopt, false, success, failure);
        } else {
            manager->GET(url, Value(), params, std::nullopt, success, failure);
        }
    };
    for (int i = 0; i < inFlight; ++i) startOne();
    std::int64_t consumed = 0;  // answers counted so far; one pump may bring several
    const double cpuStart = processSeconds();
    for (auto _ : state) {
        ++consumed;
        if (answered < consumed) MainQueue::runUntil([&] { return answered >= consumed; }, 30);
    }
    reportProcessCPU(state, cpuStart);
    keepGoing = false;
    MainQueue::runUntil([&] { return manager->mutableTaskHandlerByTaskIdentifier().empty(); }, 30);
    if (failed) state.SkipWithError("requests failed");
    state.SetItemsProcessed(state.iterations());
}

void KR_RequestGet(benchmark::State& state) { runManager(state, false); }
void KR_RequestPost(benchmark::State& state) { runManager(state, true); }
BENCHMARK(KR_RequestGet)->Arg(1)->Arg(32)->UseRealTime();
BENCHMARK(KR_RequestPost)->Arg(1)->Arg(32)->UseRealTime();

// ---- baseline: raw libcurl multi, the same requests

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

void runCurl(benchmark::State& state, bool post) {
    const int inFlight = static_cast<int>(state.range(0));
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(inFlight));
    const std::string url = server().origin("http") + "/user" + (post ? "" : "?appid=1001&uid=10001");
    std::vector<CURL*> handles;
    std::vector<std::string> bodies(static_cast<std::size_t>(inFlight));
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    headers = curl_slist_append(headers, "Expect:");
    for (int i = 0; i < inFlight; ++i) {
        CURL* easy = curl_easy_init();
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &collect);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &bodies[static_cast<std::size_t>(i)]);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 15000L);
        if (post) {
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, kPostBody.c_str());
            curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        }
        handles.push_back(easy);
        curl_multi_add_handle(multi, easy);
    }
    std::int64_t failed = 0;
    std::int64_t finished = 0;  // one round of the multi handle may finish several
    std::int64_t consumed = 0;
    const double cpuStart = processSeconds();
    for (auto _ : state) {
        ++consumed;
        bool done = finished >= consumed;
        while (!done) {
            int running = 0;
            curl_multi_perform(multi, &running);
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
                if (message->msg != CURLMSG_DONE) continue;
                if (message->data.result != CURLE_OK) ++failed;
                CURL* easy = message->easy_handle;
                curl_multi_remove_handle(multi, easy);
                curl_multi_add_handle(multi, easy);  // the next request on the same handle
                ++finished;
                done = finished >= consumed;
            }
            if (!done) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
    }
    reportProcessCPU(state, cpuStart);
    for (CURL* easy : handles) {
        curl_multi_remove_handle(multi, easy);
        curl_easy_cleanup(easy);
    }
    curl_slist_free_all(headers);
    curl_multi_cleanup(multi);
    if (failed) state.SkipWithError("requests failed");
    state.SetItemsProcessed(state.iterations());
}

void BASE_RequestGet(benchmark::State& state) { runCurl(state, false); }
void BASE_RequestPost(benchmark::State& state) { runCurl(state, true); }
BENCHMARK(BASE_RequestGet)->Arg(1)->Arg(32)->UseRealTime();
BENCHMARK(BASE_RequestPost)->Arg(1)->Arg(32)->UseRealTime();

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

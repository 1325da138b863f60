// Queuing one statistics record with 1, 10 and 49 records already in the queue
// file, against the floor of that work: an atomic write (temporary file, fsync,
// rename, fsync of the folder) of the very bytes the adapter writes. With 10 and
// 49 records the call also builds the batch and starts its upload; the upload
// itself runs outside the timed region.
//
// Records come to wait in the queue because earlier uploads failed, so the
// server here answers every batch with 500, and the queue file before each
// timed call is the one the adapter itself wrote when the last record came.

#include <krcommon/config/KIHostService.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/io/SearchPaths.h>
#include <krcommon/report/KrCommonAdapter.h>

#include "support/TestServer.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using krcommon::KrCommonAdapter;
using krcommon::platform::Array;
using krcommon::platform::Dictionary;
using krcommon::platform::Value;

struct Quiet final : krcommon::platform::LogSink {
    void write(std::string_view) override {}
};

// A record of the size the account SDK reports: a dozen short fields.
Value record(int seq) {
    return Value(Dictionary{{"seq", seq},
                            {"event", "login"},
                            {"result", "success"},
                            {"code", 0},
                            {"cost", 183},
                            {"url", "https://account.example/login/v3"},
                            {"network", "wifi"},
                            {"time", "2026-11-23 08:00:00.123"},
                            {"flowid", "1795420800123"},
                            {"channel", "appstore"},
                            {"retry", 0},
                            {"note", "password"}});
}

std::string queueText(int count) {
    Array list;
    for (int i = 0; i < count; ++i) list.push_back(record(i));
    return *krcommon::platform::PropertyList::writeXML(Value(std::move(list)));
}

// The app home lives on the machine's disk (beside the program), not in memory.
struct Fixture {
    std::string home;
    std::unique_ptr<krcommon::test::TestServer> server;
    std::shared_ptr<KrCommonAdapter> adapter;

    Fixture() {
        krcommon::platform::SystemLog::setSink(std::make_shared<Quiet>());
        home = (std::filesystem::current_path() / "krcommon-bench-report-XXXXXX").string();
        if (!::mkdtemp(home.data())) std::abort();
        krcommon::platform::SearchPaths::setApplicationHome(home);
        server = krcommon::test::TestServer::https(krcommon::test::TestCertificates::shared().server);
        // Straight on the server library: these routes record nothing, so memory stays flat.
        server->server().Post("/loginstat", [](const auto&, auto& res) {
            res.status = 500;
            res.set_content("{}", "application/json");
        });
        server->start();
        krcommon::KIHostService::service().updateHostServers(
            Value(Dictionary{{"accountHost", "127.0.0.1:" + std::to_string(server->port())}}));
        adapter = KrCommonAdapter::create();
        adapter->httpManager()->sessionConfiguration()->addTrustAnchorPEM(
            krcommon::test::TestCertificates::shared().authorityPEM());
    }
    ~Fixture() {
        std::error_code ignored;
        std::filesystem::remove_all(home, ignored);
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

void waitIdle(KrCommonAdapter& adapter) {
    if (adapter.reporting()) krcommon::platform::MainQueue::runUntil([&] { return !adapter.reporting(); }, 20);
}

// Records arrive seconds apart, long after the file system has committed the
// previous write; flushing it before each timed call keeps the untimed set-up
// writes from being paid for inside the timed one (and treats every case alike).
void settle(const std::string& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::syncfs(fd);
        ::close(fd);
    }
}

// The floor: a plain atomic write of `bytes` to `folder`/statisticsInfoList.
bool floorWrite(const std::string& folder, const std::string& bytes) {
    const std::string target = folder + "/statisticsInfoList";
    const std::string temporary = target + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) || ::fsync(fd) != 0 ||
        ::close(fd) != 0 || ::rename(temporary.c_str(), target.c_str()) != 0)
        return false;
    const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::fsync(dir);
    ::close(dir);
    return true;
}

std::string floorFolder(const Fixture& f) {
    const std::string folder = f.home + "/floor";
    std::filesystem::create_directories(folder);
    return folder;
}

// Besides its own time, each iteration times the floor's write of the same
// bytes just before the call (untimed), so that the "floor_ratio" counter
// compares the two under the same disk conditions; the disk's fsync latency
// drifts too much between separate benchmarks for their ratio to be steady.
void KR_ReportRequestStatInfo(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    auto& f = fixture();
    const int queued = static_cast<int>(state.range(0));
    const std::string stored = queueText(queued - 1);
    const std::string written = queueText(queued + 1);
    const std::string path = KrCommonAdapter::statisInfoFilePathName();
    const std::string folder = floorFolder(f);
    Clock::duration floorTime{}, callTime{};
    for (auto _ : state) {
        state.PauseTiming();
        krcommon::platform::FileManager::writeAtomically(path, stored);
        f.adapter->reportRequestStatInfo(record(queued - 1));  // the adapter writes the queue of `queued`
        waitIdle(*f.adapter);
        settle(f.home);
        const auto floorStart = Clock::now();
        if (!floorWrite(folder, written)) {
            state.SkipWithError("write failed");
            break;
        }
        floorTime += Clock::now() - floorStart;
        settle(f.home);
        state.ResumeTiming();
        const auto callStart = Clock::now();
        f.adapter->reportRequestStatInfo(record(queued));
        callTime += Clock::now() - callStart;
        state.PauseTiming();
        waitIdle(*f.adapter);
        state.ResumeTiming();
    }
    if (callTime.count() > 0)
        state.counters["floor_ratio"] = static_cast<double>(floorTime.count()) / static_cast<double>(callTime.count());
}
BENCHMARK(KR_ReportRequestStatInfo)->Arg(1)->Arg(10)->Arg(49)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BASE_ReportRequestStatInfo(benchmark::State& state) {
    auto& f = fixture();
    const std::string bytes = queueText(static_cast<int>(state.range(0)) + 1);
    const std::string folder = floorFolder(f);
    for (auto _ : state) {
        state.PauseTiming();
        settle(f.home);
        state.ResumeTiming();
        if (!floorWrite(folder, bytes)) {
            state.SkipWithError("write failed");
            break;
        }
    }
}
BENCHMARK(BASE_ReportRequestStatInfo)->Arg(1)->Arg(10)->Arg(49)->Unit(benchmark::kMicrosecond)->UseRealTime();

// For reference: the file manager's own atomic write of the same bytes, the
// part of the adapter's call that is the floor's work.
void REF_ReportRequestStatInfo(benchmark::State& state) {
    auto& f = fixture();
    const std::string bytes = queueText(static_cast<int>(state.range(0)) + 1);
    const std::string folder = f.home + "/reference";
    std::filesystem::create_directories(folder);
    const std::string target = folder + "/statisticsInfoList";
    for (auto _ : state) {
        state.PauseTiming();
        settle(f.home);
        state.ResumeTiming();
        if (!krcommon::platform::FileManager::writeAtomically(target, bytes)) {
            state.SkipWithError("write failed");
            break;
        }
    }
}
BENCHMARK(REF_ReportRequestStatInfo)->Arg(1)->Arg(10)->Arg(49)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

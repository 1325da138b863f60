// Logger throughput: KRSDKLogger writing its lines to a file through the
// system log's file sink, against spdlog's synchronous file logger writing the
// same bytes to the same kind of file. Both hand every line to the kernel
// before returning (spdlog flushes on every level), so a crash loses nothing;
// the stdio-buffered spdlog default is measured too, for reference.

#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/platform/app/SystemLog.h>

#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <unistd.h>

#include <string>

namespace {

const std::string kURL = "https://account.example.test/loginstat?appid=100001&channel=official&v=1.0.3";

std::string benchFile(const char* name) {
    return "/tmp/krcommon-bench-" + std::string(name) + "-" + std::to_string(::getpid()) + ".log";
}

void KR_LoggerFile(benchmark::State& state) {
    static std::string path;
    if (state.thread_index() == 0) {
        path = benchFile("krsdk");
        ::unlink(path.c_str());
        krcommon::platform::SystemLog::setSink(std::make_shared<krcommon::platform::FileLogSink>(path));
    }
    const krcommon::platform::Value url(kURL);
    std::uint64_t line = 100;
    for (auto _ : state) {
        krcommon::KRSDKLogger::log("KRSDKMemberHttpManager", "requestWithMethod", ++line, "Common", 1,
                                   "mutable rqeust url is:%@", url);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        krcommon::platform::SystemLog::setSink(nullptr);
        ::unlink(path.c_str());
    }
}
BENCHMARK(KR_LoggerFile)->Threads(1)->Threads(2)->UseRealTime();

std::shared_ptr<spdlog::logger> makeSpdlog(const char* name, bool flushEveryLine, std::string& path) {
    path = benchFile(name);
    ::unlink(path.c_str());
    auto logger = spdlog::basic_logger_mt(name, path, true);
    logger->set_pattern("%v");
    logger->set_level(spdlog::level::trace);
    if (flushEveryLine) logger->flush_on(spdlog::level::trace);
    return logger;
}

void spdlogLines(benchmark::State& state, const char* name, bool flushEveryLine) {
    static std::shared_ptr<spdlog::logger> logger;
    static std::string path;
    if (state.thread_index() == 0) logger = makeSpdlog(name, flushEveryLine, path);
    std::uint64_t line = 100;
    for (auto _ : state) {
        logger->debug("[KRSDK-{}-{}-{}-{}]=>mutable rqeust url is:{}", "Common", "DEBUG", "KRSDKMemberHttpManager",
                      ++line, kURL);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        spdlog::drop(name);
        logger.reset();
        ::unlink(path.c_str());
    }
}

void BASE_LoggerFile(benchmark::State& state) { spdlogLines(state, "sync", true); }
BENCHMARK(BASE_LoggerFile)->Threads(1)->Threads(2)->UseRealTime();

void REF_LoggerFile(benchmark::State& state) { spdlogLines(state, "buffered", false); }
BENCHMARK(REF_LoggerFile)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

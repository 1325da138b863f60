#include <krcommon/platform/app/SystemLog.h>

#include <krcommon/platform/io/PosixIO.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <mutex>
#include <shared_mutex>

extern char* program_invocation_short_name;  // glibc

namespace krcommon::platform {

namespace {

struct SinkSlot {
    std::shared_mutex mutex;
    std::shared_ptr<LogSink> sink = std::make_shared<StderrLogSink>();
};

SinkSlot& slot() {
    static SinkSlot* instance = new SinkSlot;  // never destroyed: logging may run during exit
    return *instance;
}

}  // namespace

LogSink::~LogSink() = default;

void StderrLogSink::write(std::string_view line) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const auto seconds = time_point_cast<std::chrono::seconds>(now);
    const auto millis = duration_cast<milliseconds>(now - seconds).count();

    // Formatting the calendar time is the costly part; a thread keeps the text
    // of the last second it formatted.
    thread_local std::time_t cachedSecond = -1;
    thread_local char cachedText[32];
    const std::time_t t = system_clock::to_time_t(seconds);
    if (t != cachedSecond) {
        std::tm tm{};
        localtime_r(&t, &tm);
        std::strftime(cachedText, sizeof cachedText, "%Y-%m-%d %H:%M:%S", &tm);
        cachedSecond = t;
    }
    thread_local const long tid = static_cast<long>(::syscall(SYS_gettid));

    fmt::memory_buffer out;
    fmt::format_to(std::back_inserter(out), "{}.{:03d} {}[{}:{}] ", cachedText, static_cast<int>(millis),
                   program_invocation_short_name, static_cast<long>(::getpid()), tid);
    out.append(line.data(), line.data() + line.size());
    out.push_back('\n');
    std::lock_guard lock(mutex_);
    (void)posix::writeFully(fd_, std::string_view(out.data(), out.size()));  // nowhere left to report a failing log
}

FileLogSink::FileLogSink(const std::string& path)
    : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}

FileLogSink::~FileLogSink() {
    if (fd_ >= 0) ::close(fd_);
}

void FileLogSink::write(std::string_view line) {
    if (fd_ < 0) return;
    // Line and line feed leave in one write so that concurrent writers never interleave.
    char stackLine[1024];
    if (line.size() < sizeof stackLine) {
        std::memcpy(stackLine, line.data(), line.size());
        stackLine[line.size()] = '\n';
        (void)posix::writeFully(fd_, std::string_view(stackLine, line.size() + 1));
    } else {
        std::string copy;
        copy.reserve(line.size() + 1);
        copy.append(line).push_back('\n');
        (void)posix::writeFully(fd_, copy);
    }
}

void SystemLog::write(std::string_view line) {
    auto& s = slot();
    std::shared_lock lock(s.mutex);
    s.sink->write(line);
}

void SystemLog::setSink(std::shared_ptr<LogSink> sink) {
    auto& s = slot();
    std::unique_lock lock(s.mutex);
    s.sink = sink ? std::move(sink) : std::make_shared<StderrLogSink>();
}

std::shared_ptr<LogSink> SystemLog::sink() {
    auto& s = slot();
    std::shared_lock lock(s.mutex);
    return s.sink;
}

}  // namespace krcommon::platform

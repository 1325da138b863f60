#pragma once

// The system log: the one place where every line of the library leaves the
// process. Each line is handed to the current sink whole, in one call, so lines
// never interleave. The default sink writes to stderr with a time and process
// prefix, one write(2) per line; a host may install its own sink (a file,
// journald, logcat, a test capture).

#include <krcommon/platform/core/Format.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace krcommon::platform {

/// Receives whole lines (without a trailing line feed). Must be safe to call
/// from any thread; calls may come concurrently.
class KRCOMMON_EXPORT LogSink {
public:
    virtual ~LogSink();
    virtual void write(std::string_view line) = 0;
};

/// Writes "YYYY-MM-DD hh:mm:ss.mmm program[pid:tid] line\n" to a file descriptor
/// (stderr by default), each line whole: one write(2) when the descriptor takes
/// it all, and otherwise the rest of that line before any other line of this
/// sink. A non-blocking descriptor that is full (a pipe with a slow reader) is
/// waited on with poll(2), so no line is dropped or cut.
class KRCOMMON_EXPORT StderrLogSink final : public LogSink {
public:
    /// Writes to `fd`, which stays the caller's: the sink never closes it.
    /// Failed writes (the reader gone) are ignored.
    explicit StderrLogSink(int fd = 2) noexcept : fd_(fd) {}
    void write(std::string_view line) override;

private:
    int fd_;
    std::mutex mutex_;  // keeps a line that needs several writes together
};

/// Appends each line and a line feed to a file opened with O_APPEND, one
/// write(2) per line, so nothing is held back in a buffer when the process dies.
class KRCOMMON_EXPORT FileLogSink final : public LogSink {
public:
    /// Opens (creating) `path`; `isOpen()` tells whether that worked. A new
    /// file gets mode 0600 (less the umask): the log holds request and response
    /// bodies. An existing file keeps its mode.
    explicit FileLogSink(const std::string& path);
    ~FileLogSink() override;
    FileLogSink(const FileLogSink&) = delete;
    FileLogSink& operator=(const FileLogSink&) = delete;

    [[nodiscard]] bool isOpen() const noexcept { return fd_ >= 0; }
    /// Drops the line when the file did not open; failed writes are ignored.
    void write(std::string_view line) override;

private:
    int fd_;
};

/// The process-wide log.
class KRCOMMON_EXPORT SystemLog {
public:
    /// Hands one line to the current sink.
    static void write(std::string_view line);
    /// Installs `sink` for every later line; nullptr restores the stderr sink.
    static void setSink(std::shared_ptr<LogSink> sink);
    /// The sink in use.
    static std::shared_ptr<LogSink> sink();

    /// Formats printf-style with `%@` and writes the result as one line, like
    /// the platform's NSLog: used for the lines that bypass the module's logger.
    template <class... Args>
    static void log(std::string_view fmt, const Args&... args) {
        fmt::memory_buffer line;
        formatTo(line, fmt, args...);
        write(std::string_view(line.data(), line.size()));
    }
};

}  // namespace krcommon::platform

#pragma once

// Captures every line written to the system log while it is alive.

#include <krcommon/platform/app/SystemLog.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace krcommon::test {

class LogCapture {
public:
    LogCapture() : sink_(std::make_shared<Sink>()) { platform::SystemLog::setSink(sink_); }
    ~LogCapture() { platform::SystemLog::setSink(nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard lock(sink_->mutex);
        return sink_->lines;
    }
    bool contains(const std::string& line) const {
        auto all = lines();
        return std::find(all.begin(), all.end(), line) != all.end();
    }
    /// Lines containing `fragment`.
    std::size_t count(const std::string& fragment) const {
        auto all = lines();
        return static_cast<std::size_t>(std::count_if(
            all.begin(), all.end(), [&](const std::string& l) { return l.find(fragment) != std::string::npos; }));
    }
    void clear() {
        std::lock_guard lock(sink_->mutex);
        sink_->lines.clear();
    }

private:
    struct Sink : platform::LogSink {
        mutable std::mutex mutex;
        std::vector<std::string> lines;
        void write(std::string_view line) override {
            std::lock_guard lock(mutex);
            lines.emplace_back(line);
        }
    };
    std::shared_ptr<Sink> sink_;
};

}  // namespace krcommon::test

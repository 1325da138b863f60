#pragma once

// One load run by a URL session. A task is made suspended; resume() starts it
// and cancel() stops it. Its state, response and error may be read from any
// thread while it runs.

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/net/URLRequest.h>
#include <krcommon/platform/net/URLResponse.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace krcommon::platform {

namespace detail {
class SessionCore;
}

enum class URLSessionTaskState : std::int64_t {
    Running = 0,
    Suspended = 1,
    Canceling = 2,
    Completed = 3,
};

class KRCOMMON_EXPORT URLSessionTask : public Object, public std::enable_shared_from_this<URLSessionTask> {
public:
    ~URLSessionTask() override;

    /// Unique among the tasks of one session; the first task gets 1.
    [[nodiscard]] std::uint64_t taskIdentifier() const noexcept { return identifier_; }
    /// The request the task was made with. currentRequest() answers the same one: redirects,
    /// which the session follows, do not change it (response()->URL() tells where the answer came from).
    [[nodiscard]] const URLRequest& originalRequest() const noexcept { return request_; }
    [[nodiscard]] const URLRequest& currentRequest() const noexcept { return request_; }
    /// The response once its header has arrived; nullptr before.
    [[nodiscard]] std::shared_ptr<URLResponse> response() const;
    /// Why the task failed, once it has completed; nullptr on success.
    [[nodiscard]] std::shared_ptr<Error> error() const;
    /// Suspended until resume(), Running while it loads, Canceling from cancel() on, Completed
    /// once it has ended (possibly just before the delegate hears of the completion).
    [[nodiscard]] URLSessionTaskState state() const noexcept { return state_.load(std::memory_order_acquire); }
    /// Body bytes received so far.
    [[nodiscard]] std::int64_t countOfBytesReceived() const noexcept {
        return bytesReceived_.load(std::memory_order_relaxed);
    }

    /// Starts a suspended task; does nothing in any other state.
    void resume();
    /// Stops a task that has not completed: it completes with the URL error
    /// domain's cancelled error (-999). Callable from any thread.
    void cancel();

    /// "<URLSessionDataTask: 0x...> { taskIdentifier: N } { running }", with the class and the state.
    [[nodiscard]] std::string description() const override;

protected:
    URLSessionTask(std::shared_ptr<detail::SessionCore> session, std::uint64_t identifier, URLRequest request);

private:
    friend class detail::SessionCore;

    std::shared_ptr<detail::SessionCore> session_;
    const std::uint64_t identifier_;
    const URLRequest request_;
    std::atomic<URLSessionTaskState> state_{URLSessionTaskState::Suspended};
    std::atomic<bool> started_{false};
    std::atomic<bool> ended_{false};  // claimed by whoever completes the task, once
    std::atomic<std::int64_t> bytesReceived_{0};
    mutable std::mutex mutex_;  // guards response_ and error_
    std::shared_ptr<URLResponse> response_;
    std::shared_ptr<Error> error_;
};

/// A task whose body reaches the delegate as data events.
class KRCOMMON_EXPORT URLSessionDataTask final : public URLSessionTask {
public:
    URLSessionDataTask(std::shared_ptr<detail::SessionCore> session, std::uint64_t identifier, URLRequest request)
        : URLSessionTask(std::move(session), identifier, std::move(request)) {}
};

/// A task whose body goes to a temporary file handed to the delegate at the end.
class KRCOMMON_EXPORT URLSessionDownloadTask final : public URLSessionTask {
public:
    URLSessionDownloadTask(std::shared_ptr<detail::SessionCore> session, std::uint64_t identifier,
                           URLRequest request)
        : URLSessionTask(std::move(session), identifier, std::move(request)) {}
};

}  // namespace krcommon::platform

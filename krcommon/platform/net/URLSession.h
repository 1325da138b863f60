#pragma once

// Loads URLs over HTTP and HTTPS. A session runs all its transfers on one
// worker thread of its own, reuses connections between them, and reports to
// its delegate on its delegate queue, one event at a time and in order (see
// URLSessionDelegate.h).
//
// Every failure ends a task with one completion whose error is of the URL error
// domain: cancelled (-999), timed out (-1001), host not found (-1003), cannot
// connect (-1004), connection lost (-1005), TLS failure (-1200), untrusted
// certificate (-1202), and so on. A request's timeoutInterval is an idle time:
// the task fails when nothing is sent or received for that long.
//
// TLS: every new connection's certificate chain and host are evaluated against
// the system's trust store and the configuration's extra anchors, and the
// outcome is put to the delegate as a server-trust challenge while the handshake
// waits. Verification cannot be switched off; only the delegate's answer can
// accept an untrusted server.

#include <krcommon/platform/dispatch/OperationQueue.h>
#include <krcommon/platform/net/URLRequest.h>
#include <krcommon/platform/net/URLSessionConfiguration.h>
#include <krcommon/platform/net/URLSessionDelegate.h>
#include <krcommon/platform/net/URLSessionTask.h>

#include <memory>

namespace krcommon::platform {

class KRCOMMON_EXPORT URLSession final : public Object, public std::enable_shared_from_this<URLSession> {
public:
    /// A session with a copy of `configuration` (nullptr: an ephemeral one). The
    /// delegate is held weakly: events for a delegate that is gone are dropped
    /// (and its challenges refused). `delegateQueue` nullptr makes a serial queue.
    static std::shared_ptr<URLSession> sessionWithConfiguration(
        const std::shared_ptr<URLSessionConfiguration>& configuration,
        std::weak_ptr<URLSessionDelegate> delegate = {},
        std::shared_ptr<OperationQueue> delegateQueue = nullptr);

    /// Cancels the tasks still running (no more events reach the delegate) and
    /// stops the worker thread.
    ~URLSession() override;

    /// A suspended data task for `request`.
    [[nodiscard]] std::shared_ptr<URLSessionDataTask> dataTaskWithRequest(const URLRequest& request);
    /// A suspended download task for `request`.
    [[nodiscard]] std::shared_ptr<URLSessionDownloadTask> downloadTaskWithRequest(const URLRequest& request);

    /// The session's copy of its configuration.
    [[nodiscard]] const URLSessionConfiguration& configuration() const noexcept;
    /// The queue the delegate's events run on: the one given at creation, or the serial queue made then.
    [[nodiscard]] const std::shared_ptr<OperationQueue>& delegateQueue() const noexcept;

    /// Transfers started and not yet completed.
    [[nodiscard]] std::size_t runningTaskCount() const noexcept;

    struct Private;  // construction key

    URLSession(const Private&, std::shared_ptr<detail::SessionEngine> engine);

private:
    std::shared_ptr<detail::SessionEngine> engine_;
};

}  // namespace krcommon::platform

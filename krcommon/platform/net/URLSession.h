#pragma once

// Loads URLs over HTTP and HTTPS. A session is a logical object: the process's
// one transfer engine (a single thread, started on first use) runs the
// transfers of every session, while each session keeps what is its own: its
// configuration and cookies, its task identifiers, its connections (reused
// between its own tasks, never shared with another session), and its delegate,
// which hears of every event on the delegate queue, one event at a time and in
// order (see URLSessionDelegate.h). The engine thread never runs delegate code.
//
// Every failure ends a task with one completion whose error is of the URL error
// domain: cancelled (-999), timed out (-1001), host not found (-1003), cannot
// connect (-1004), connection lost (-1005), an answer that is not HTTP (-1011),
// a redirect from HTTPS to plain HTTP (-1022), TLS failure (-1200), untrusted
// certificate (-1202), and so on. A request's timeoutInterval is an idle time:
// the task fails when nothing is sent or received for that long (a timeout that
// is not a positive number means the default, a huge one is cut to a year).
// A header field whose name is not a token, or whose value holds CR, LF or NUL,
// fails the task (-1000) before anything is sent. On a redirect to another
// server, the caller's Authorization and Cookie fields are not sent along.
//
// TLS: every new connection's certificate chain and host (the one the handshake
// was made for; partial wildcards such as "f*.example.com" match nothing) are
// evaluated against the system's trust store and the configuration's extra
// anchors, and the outcome is put to the delegate as a server-trust challenge.
// Verification cannot be switched off; only the delegate's answer can accept an
// untrusted server. A delegate that answers late holds up no other transfer: the
// handshake waits a few milliseconds at most, then fails and is made again once
// the answer is in, which then holds for that chain and host. A challenge still
// unanswered when the request's timeout runs out ends the task timed out.
//
// Body bytes waiting for a slow delegate queue are bounded: past a few MiB the
// transfer pauses until the queue catches up.

#include <krcommon/platform/dispatch/OperationQueue.h>
#include <krcommon/platform/net/URLRequest.h>
#include <krcommon/platform/net/URLSessionConfiguration.h>
#include <krcommon/platform/net/URLSessionDelegate.h>
#include <krcommon/platform/net/URLSessionTask.h>

#include <memory>

namespace krcommon::platform {

/// The code of a load refused because it would leave HTTPS for plain HTTP (a redirect from an
/// https URL to an http one), as the platform's transport security reports it.
inline constexpr std::int64_t URLErrorAppTransportSecurityRequiresSecureConnection = -1022;

class KRCOMMON_EXPORT URLSession final : public Object, public std::enable_shared_from_this<URLSession> {
public:
    /// A session with a copy of `configuration` (nullptr: an ephemeral one). The
    /// delegate is held weakly: events for a delegate that is gone are dropped
    /// (and its challenges refused). `delegateQueue` nullptr makes a serial queue.
    static std::shared_ptr<URLSession> sessionWithConfiguration(
        const std::shared_ptr<URLSessionConfiguration>& configuration,
        std::weak_ptr<URLSessionDelegate> delegate = {},
        std::shared_ptr<OperationQueue> delegateQueue = nullptr);

    /// Ends the tasks still running as cancelled, at once and without events to the delegate;
    /// the engine then frees their transfers and closes the session's connections. Never
    /// waits for a thread.
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

    URLSession(const Private&, std::shared_ptr<detail::SessionCore> core);

private:
    std::shared_ptr<detail::SessionCore> core_;
};

}  // namespace krcommon::platform

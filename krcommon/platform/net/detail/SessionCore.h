#pragma once

// A session as the transfer engine sees it: its configuration, its delegate and
// delegate queue, its task identifiers and its own libcurl multi handle, whose
// connections no other session shares. The URLSession object, its tasks, the
// engine and the events waiting on the delegate queue hold it.

#include <krcommon/platform/net/URLSession.h>
#include <krcommon/platform/net/detail/EventGate.h>
#include <krcommon/platform/net/detail/TransferEngine.h>

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace krcommon::platform::detail {

struct Transfer;
struct TransferLink;
struct ChallengeAnswer;

class SessionCore final : public TransferEngine::Client, public std::enable_shared_from_this<SessionCore> {
public:
    /// How long the engine waits for the delegate's answer to a challenge inside the handshake
    /// before it fails that handshake and restarts the transfer once the answer is in.
    static constexpr std::chrono::milliseconds trustAnswerWait{20};
    /// The longest timeout a request may ask for; longer ones are cut to it.
    static constexpr double longestTimeoutInterval = 365.0 * 24 * 3600;

    SessionCore(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
                std::shared_ptr<OperationQueue> delegateQueue);
    ~SessionCore();

    // ---- any thread

    /// Starts a task that resume() moved to Running (or cancel() to Canceling before it started).
    void start(std::shared_ptr<URLSessionTask> task);
    /// Stops a started task; it completes cancelled.
    void cancel(std::shared_ptr<URLSessionTask> task);
    /// The session object is going away: its unfinished tasks end cancelled at once, without
    /// events; the engine then frees their transfers and the connections.
    void invalidate();

    const URLSessionConfiguration configuration;
    std::weak_ptr<URLSession> session;  // set once, just after creation
    const std::weak_ptr<URLSessionDelegate> delegate;
    const std::shared_ptr<EventQueue> events;
    std::atomic<std::uint64_t> lastIdentifier{0};
    std::atomic<std::size_t> running{0};

    // ---- engine thread: what a transfer's callbacks need

    /// The response has arrived (or the transfer ended without a body): the task gets it and
    /// the delegate hears of it.
    void deliverResponse(Transfer& transfer);
    /// `transfer` has body bytes of this round to queue for the delegate at its end.
    void flushAtEndOfRound(Transfer& transfer);
    /// Inside a handshake: the server's certificate chain is to be accepted (true) or not.
    bool decideTrust(Transfer& transfer, X509_STORE_CTX* context);
    /// Gives a new connection the session's trust store (the system's anchors and the
    /// configuration's extra ones); false when an extra anchor could not be read.
    bool prepareTLS(SSL_CTX* context);
    /// Counts body bytes received by `task`.
    static void countReceived(URLSessionTask& task, std::size_t bytes) noexcept;

    // ---- engine thread: from libcurl's multi callbacks
    void watchSocket(curl_socket_t fd, int what);
    void setCurlTimer(long milliseconds);

    void onSocket(curl_socket_t fd, int readiness) override;
    void onDeadline(TransferEngine::Clock::time_point now) override;
    void endOfRound() override;

private:
    friend struct ChallengeAnswer;
    using Clock = TransferEngine::Clock;

    void startOnEngine(const std::shared_ptr<URLSessionTask>& task);
    void cancelOnEngine(const std::shared_ptr<URLSessionTask>& task);
    void closeOnEngine();
    void resumeBody(const std::shared_ptr<TransferLink>& link);
    void applyLateAnswer(const std::shared_ptr<TransferLink>& link, const std::shared_ptr<ChallengeAnswer>& answer);

    bool ensureMulti();
    void socketAction(curl_socket_t fd, int readiness);
    void readDone();
    void finishTransfer(Transfer& transfer, CURLcode code);
    void flushData(Transfer& transfer);
    void restart(Transfer& transfer);
    void park(Transfer& transfer);
    std::unique_ptr<Transfer> detach(Transfer& transfer);
    void recycle(std::unique_ptr<Transfer> transfer);
    void expireIdle(Clock::time_point now);
    void noteIdleDeadline(const Transfer& transfer);
    void complete(const std::shared_ptr<URLSessionTask>& task, std::shared_ptr<Error> error,
                  const std::shared_ptr<ResponseGate>& gate = nullptr);
    bool claimCompletion(URLSessionTask& task, const std::shared_ptr<Error>& error);
    void handOver();

    URLSessionChallengeDelegate* challengeReceiver_ = nullptr;
    URLSessionDataResponseDelegate* responseReceiver_ = nullptr;
    URLSessionDataReceiveDelegate* dataReceiver_ = nullptr;
    URLSessionDownloadFinishDelegate* downloadReceiver_ = nullptr;
    URLSessionTaskCompletionDelegate* completionReceiver_ = nullptr;
    std::vector<X509*> anchors_;
    bool anchorsValid_ = true;
    X509_STORE* trustStore_ = nullptr;  // made on the engine at the first handshake

    // Tasks started and not completed, so that invalidation can end them at once.
    std::mutex liveMutex_;
    bool invalidated_ = false;
    std::vector<std::shared_ptr<URLSessionTask>> live_;

    // Engine thread only.
    CURLM* multi_ = nullptr;
    std::shared_ptr<SessionCore> selfWhileAttached_;  // the engine's hold while the multi handle exists
    bool closed_ = false;
    std::vector<std::unique_ptr<Transfer>> transfers_;  // on the multi handle; each knows its slot
    std::vector<std::unique_ptr<Transfer>> parked_;     // waiting for a challenge's answer
    std::vector<std::unique_ptr<Transfer>> idle_;       // handles kept for the next requests
    std::vector<Transfer*> withPendingData_;
    std::optional<Clock::time_point> curlDeadline_;
    bool kick_ = false;  // libcurl asked to be run again at once
    bool handOver_ = false;  // the round queued events for the delegate
    std::optional<Clock::time_point> idleCheck_;
};

}  // namespace krcommon::platform::detail

#pragma once

// One request running on one libcurl transfer handle, on the engine thread.
// A handle is made with what holds for every request of its session and goes
// back to the session's pool when its request ends; each request sets all of
// its own options.

#include <krcommon/platform/net/URLResponse.h>
#include <krcommon/platform/net/URLSessionTask.h>
#include <krcommon/platform/net/detail/EventGate.h>
#include <krcommon/platform/net/detail/TransferEngine.h>

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace krcommon::platform {
class ServerTrust;
}

namespace krcommon::platform::detail {

class SessionCore;
struct Transfer;
struct ChallengeAnswer;

/// What other threads hold to reach a request's transfer: the delegate queue releasing body
/// bytes, a late answer to a challenge. `transfer` is read and written on the engine only,
/// and is null once the request has ended.
struct TransferLink {
    Transfer* transfer = nullptr;
    BodyFlow flow;
};

/// The state of one request on its handle.
struct TransferRequest {
    std::shared_ptr<URLSessionTask> task;
    std::shared_ptr<URLSessionDataTask> dataTask;  // the same task when it is a data task
    std::shared_ptr<TransferLink> link;
    curl_slist* headers = nullptr;
    Data body;
    bool isDownload = false;
    int downloadFd = -1;
    std::string downloadPath;
    std::string requestedURL;  // as handed to the transport

    HTTPURLResponse::HeaderFields responseHeaders;
    bool sawStatusLine = false;
    int lastStatus = 0;
    bool responseDelivered = false;
    std::shared_ptr<ResponseGate> gate;  // set once the response went to a delegate that answers it
    Data pendingData;  // body bytes of this round, not yet queued for the delegate
    bool hasPendingData = false;
    bool paused = false;  // waiting for the delegate queue to catch up

    TransferEngine::Clock::duration idleTimeout{};
    TransferEngine::Clock::time_point lastProgress{};
    curl_off_t lastUploaded = 0;

    // Trust. A challenge the delegate has not answered within the bounded wait leaves the
    // handshake failed and the transfer parked, off its multi handle, until the answer comes.
    std::shared_ptr<ChallengeAnswer> unanswered;
    bool parked = false;
    // An accepted late answer, for the restarted handshake: it applies to that exact chain and host.
    std::shared_ptr<ServerTrust> accepted;
    // Where a restart begins when the handshake came after redirects: the URL reached, and the
    // status of the redirect that led there.
    std::string restartURL;
    int restartStatus = 0;

    std::shared_ptr<Error> forcedError;  // set by cancel, timeout, a refused challenge or redirect
    char errorBuffer[CURL_ERROR_SIZE] = {};
};

struct Transfer : TransferRequest {
    /// A handle with the options every request of `core`'s session shares; nullptr when
    /// the transport cannot make one.
    static std::unique_ptr<Transfer> make(SessionCore& core);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Sets every option of `task`'s request on the handle. An error when the request cannot
    /// be sent as it is (bad URL, scheme, header field); nothing has gone out then.
    std::shared_ptr<Error> prepare(std::shared_ptr<URLSessionTask> task);
    /// Points the handle at the redirect target a restart begins from (see restartURL),
    /// as the transport would have asked for it.
    void prepareRestartAfterRedirect();
    /// Ends the request: what it holds is released, its state reset for the next one.
    void endRequest();

    /// Progress now (a cheap clock: the round's start).
    void progressed() noexcept;

    SessionCore& core;
    CURL* const easy;
    std::size_t slot = 0;  // its place among the session's running transfers

private:
    Transfer(SessionCore& owner, CURL* handle);
    void releaseRequest() noexcept;
};

/// TLS handshakes whose server certificate this process has evaluated, all sessions together.
std::uint64_t serverCertificateEvaluations() noexcept;

}  // namespace krcommon::platform::detail

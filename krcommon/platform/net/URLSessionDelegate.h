#pragma once

// What a URL session tells its delegate. Each event is an interface of its own:
// a delegate implements the ones it wants, and the session asks with a
// dynamic_cast whether it does. Every event runs on the session's delegate
// queue; the events of one task arrive in this order: challenge (for a new TLS
// connection), response, data (zero or more), download finished (download
// tasks), completion.

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/net/ServerTrust.h>
#include <krcommon/platform/net/URL.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

namespace krcommon::platform {

class URLSession;
class URLSessionTask;
class URLSessionDataTask;
class URLSessionDownloadTask;
class URLResponse;

/// The delegate's answer to a challenge, with the platform's numbering.
enum class URLSessionAuthChallengeDisposition : std::int64_t {
    UseCredential = 0,           ///< accept with the credential given (for a trust: accept the server)
    PerformDefaultHandling = 1,  ///< accept exactly when the evaluation trusted the server
    CancelAuthenticationChallenge = 2,  ///< refuse; the task ends cancelled
    RejectProtectionSpace = 3,   ///< refuse as well
};

/// The delegate's answer to a response.
enum class URLSessionResponseDisposition : std::int64_t {
    Cancel = 0,          ///< stop loading; the task ends cancelled
    Allow = 1,           ///< go on loading
    BecomeDownload = 2,  ///< treated as Allow: this layer does not turn data tasks into downloads
};

using URLSessionChallengeCompletion =
    std::function<void(URLSessionAuthChallengeDisposition, std::shared_ptr<URLCredential>)>;
using URLSessionResponseCompletion = std::function<void(URLSessionResponseDisposition)>;

/// The type a session's delegate must have; the events are the interfaces below.
class KRCOMMON_EXPORT URLSessionDelegate {
public:
    virtual ~URLSessionDelegate() = default;
};

/// A new TLS connection needs the delegate's decision. `completion` may be called
/// later and from any thread: the task waits for it (no other transfer does), up
/// to its request's timeout, after which it ends timed out. Dropping it unanswered
/// refuses. A delegate without this interface gets the default handling.
class KRCOMMON_EXPORT URLSessionChallengeDelegate {
public:
    virtual ~URLSessionChallengeDelegate() = default;
    virtual void didReceiveChallenge(const std::shared_ptr<URLSession>& session,
                                     const std::shared_ptr<URLAuthenticationChallenge>& challenge,
                                     URLSessionChallengeCompletion completion) = 0;
};

/// A task has ended; `error` is nullptr on success and otherwise of the URL error domain.
class KRCOMMON_EXPORT URLSessionTaskCompletionDelegate {
public:
    virtual ~URLSessionTaskCompletionDelegate() = default;
    virtual void didCompleteWithError(const std::shared_ptr<URLSession>& session,
                                      const std::shared_ptr<URLSessionTask>& task,
                                      const std::shared_ptr<Error>& error) = 0;
};

/// A data task's response has arrived; loading goes on after `completion` says Allow.
class KRCOMMON_EXPORT URLSessionDataResponseDelegate {
public:
    virtual ~URLSessionDataResponseDelegate() = default;
    virtual void didReceiveResponse(const std::shared_ptr<URLSession>& session,
                                    const std::shared_ptr<URLSessionDataTask>& dataTask,
                                    const std::shared_ptr<URLResponse>& response,
                                    URLSessionResponseCompletion completion) = 0;
};

/// A data task was replaced by a download task.
class KRCOMMON_EXPORT URLSessionDataBecomeDownloadDelegate {
public:
    virtual ~URLSessionDataBecomeDownloadDelegate() = default;
    virtual void didBecomeDownloadTask(const std::shared_ptr<URLSession>& session,
                                       const std::shared_ptr<URLSessionDataTask>& dataTask,
                                       const std::shared_ptr<URLSessionDownloadTask>& downloadTask) = 0;
};

/// Body bytes of a data task, in order; `data` is nullopt only when a caller
/// other than the session passes "no data".
class KRCOMMON_EXPORT URLSessionDataReceiveDelegate {
public:
    virtual ~URLSessionDataReceiveDelegate() = default;
    virtual void didReceiveData(const std::shared_ptr<URLSession>& session,
                                const std::shared_ptr<URLSessionDataTask>& dataTask,
                                std::optional<std::span<const std::uint8_t>> data) = 0;
};

/// A download task's body is complete in the temporary file `location`, which is
/// removed when this returns: move it elsewhere to keep it.
class KRCOMMON_EXPORT URLSessionDownloadFinishDelegate {
public:
    virtual ~URLSessionDownloadFinishDelegate() = default;
    virtual void didFinishDownloadingToURL(const std::shared_ptr<URLSession>& session,
                                           const std::shared_ptr<URLSessionDownloadTask>& downloadTask,
                                           const std::shared_ptr<URL>& location) = 0;
};

}  // namespace krcommon::platform

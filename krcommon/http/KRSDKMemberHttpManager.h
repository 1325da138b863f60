#pragma once

// The module's HTTP client. A caller creates a manager with create(), asks it
// for a GET, a POST or a multipart upload and gets the running task back; the
// result arrives later, exactly once, through the caller's success or failure
// callback on the main queue. The manager owns one URL session whose delegate it
// is: it files a response handler per task, forwards the task's events to it and
// decides the server-trust challenges itself (a server that fails evaluation is
// accepted only when its host is listed as an "https" entry in the whitelist
// property list). It also carries the SDK's second logging path,
// "[CommonSDK-<label>-<file>]=>".
//
// A manager stays alive while any of its tasks is in flight, also when its
// creator has dropped it, and is freed once the last callback has run.

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/dispatch/Lock.h>
#include <krcommon/platform/dispatch/OperationQueue.h>
#include <krcommon/platform/net/URLRequest.h>
#include <krcommon/platform/net/URLSession.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace krcommon {

class KRCOMMON_EXPORT KRSDKMemberHttpManager : public platform::Object,
                                               public std::enable_shared_from_this<KRSDKMemberHttpManager>,
                                               public platform::URLSessionDelegate,
                                               public platform::URLSessionChallengeDelegate,
                                               public platform::URLSessionTaskCompletionDelegate,
                                               public platform::URLSessionDataResponseDelegate,
                                               public platform::URLSessionDataBecomeDownloadDelegate,
                                               public platform::URLSessionDataReceiveDelegate,
                                               public platform::URLSessionDownloadFinishDelegate {
public:
    /// Called on the main queue with (task, response object).
    using Success = std::function<void(const std::shared_ptr<platform::URLSessionDataTask>&, const platform::Value&)>;
    /// Called on the main queue with (task, response object or nil, error). Task
    /// and object are both absent when no task could be made.
    using Failure = std::function<void(const std::shared_ptr<platform::URLSessionDataTask>&, const platform::Value&,
                                       const std::shared_ptr<platform::Error>&)>;
    /// The task table: task identifier to the object handling that task's events.
    using TaskHandlerTable = std::unordered_map<std::uint64_t, std::shared_ptr<platform::Object>>;

    /// The name of the lock guarding the task table.
    static constexpr const char* lockName = "com.krmembersdk.http.manager.lock";
    /// Timeout of GET and POST requests, in seconds.
    static constexpr double requestTimeoutInterval = 15.0;

    /// A manager with an ephemeral session configuration, a serial delegate
    /// queue, no default headers and "GET", "HEAD" and "DELETE" as the methods
    /// that carry their parameters in the URL. Requests need a manager made here
    /// (or otherwise owned by a std::shared_ptr).
    static std::shared_ptr<KRSDKMemberHttpManager> create();
    /// The same manager as create() makes, for a caller that wraps it in a std::shared_ptr itself.
    /// One not owned by a std::shared_ptr throws std::bad_weak_ptr from session() and every request.
    KRSDKMemberHttpManager();
    ~KRSDKMemberHttpManager() override;
    KRSDKMemberHttpManager(const KRSDKMemberHttpManager&) = delete;
    KRSDKMemberHttpManager& operator=(const KRSDKMemberHttpManager&) = delete;

    // ---- Requests.

    /// Starts a GET of `URLString` with `parameters` in its query, a 15-second
    /// timeout and the response handled as `responseType` ("json" when absent).
    /// Header fields of `headerParam` (a dictionary, or nil) are added only where
    /// the request has none yet, so default headers win. Both callbacks must be
    /// set: the one chosen is called without a check (an empty one throws
    /// std::bad_function_call on the main queue). Returns the started task.
    /// Throws InternalInconsistencyException for an absent or unparseable URL.
    std::shared_ptr<platform::URLSessionDataTask> GET(std::optional<std::string_view> URLString,
                                                      const platform::Value& headerParam,
                                                      const platform::Value& parameters,
                                                      std::optional<std::string> responseType, Success success,
                                                      Failure failure);

    /// Starts a POST of `parameters`, form-encoded when `isFormatParam` and as
    /// JSON otherwise, with a 15-second timeout. Every field of `headerParam`
    /// is set, replacing default headers and the built "Content-Type". An absent
    /// `responseType` leaves the handler's default; absent callbacks are skipped.
    /// Throws InternalInconsistencyException for an absent or unparseable URL, as GET does.
    std::shared_ptr<platform::URLSessionDataTask> POST(std::optional<std::string_view> URLString,
                                                       const platform::Value& headerParam,
                                                       const platform::Value& parameters,
                                                       std::optional<std::string> responseType, bool isFormatParam,
                                                       Success success, Failure failure);

    /// Starts a multipart/form-data POST of the text fields `parameters` and,
    /// when `postData` is present, one file part named `dataKey`. No timeout
    /// (the platform's 60 seconds) and no default or caller headers; the default
    /// (JSON) response handling. Absent callbacks are skipped. Throws
    /// InternalInconsistencyException for an absent or unparseable URL, as GET does.
    std::shared_ptr<platform::URLSessionDataTask> uploadData(std::optional<std::string_view> URLString,
                                                             const platform::Value& parameters,
                                                             std::optional<platform::Data> postData,
                                                             const std::string& dataKey, Success success,
                                                             Failure failure);

    // ---- Multipart bodies.

    /// Builds the upload request: POST, "Content-Type" multipart/form-data with a
    /// fresh boundary, the body and its "Content-Length". Logs the body at the
    /// error level. Throws InternalInconsistencyException ("URLString", "url") for
    /// an absent or unparseable URL. `error` is never written.
    platform::URLRequest postUploadData(std::optional<std::string_view> URLString, const platform::Value& parameters,
                                        const std::optional<platform::Data>& postData, const std::string& postKey,
                                        std::shared_ptr<platform::Error>* error = nullptr);
    /// "-----Boundary" followed by two random 32-bit values as 8 upper-case hex digits each.
    static std::string AFCreateMultipartFormBoundary();
    /// The multipart body: each text field of `parameters` in its order, the file
    /// part when `data` is present, and the closing delimiter. Names and values go
    /// in unescaped.
    static platform::Data createBodyWithBoundary(std::string_view boundary, const platform::Value& parameters,
                                                 const std::optional<platform::Data>& data,
                                                 std::string_view fieldName);

    // ---- Server trust.

    /// Whether `host` is listed with "type" "https" in the whitelist's
    /// "loginSrvIpList" or "portalSrvIpList" (JSON arrays of {"type", "ip"}).
    /// Reads the file afresh on every call; exact, case-sensitive comparison.
    bool isHostInTheWhiteList(std::optional<std::string_view> host);
    /// Library/kr_sdks_kvstorage/krmemberproperty.plist of the app's data home.
    static std::string plistFilePath();

    // ---- Session delegate.

    /// Accepts a server the evaluation trusts, or an untrusted one whose host is
    /// whitelisted; cancels any other.
    void didReceiveChallenge(const std::shared_ptr<platform::URLSession>& session,
                             const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge,
                             platform::URLSessionChallengeCompletion completion) override;
    /// Hands the completion to the task's filed handler when it takes completions (the manager's
    /// own handler then calls the caller's callback on the main queue); otherwise ignored.
    void didCompleteWithError(const std::shared_ptr<platform::URLSession>& session,
                              const std::shared_ptr<platform::URLSessionTask>& task,
                              const std::shared_ptr<platform::Error>& error) override;
    /// Answers Allow at once; not forwarded.
    void didReceiveResponse(const std::shared_ptr<platform::URLSession>& session,
                            const std::shared_ptr<platform::URLSessionDataTask>& dataTask,
                            const std::shared_ptr<platform::URLResponse>& response,
                            platform::URLSessionResponseCompletion completion) override;
    /// Forwarded only to a handler that takes this event; the manager's own handlers do not.
    void didBecomeDownloadTask(const std::shared_ptr<platform::URLSession>& session,
                               const std::shared_ptr<platform::URLSessionDataTask>& dataTask,
                               const std::shared_ptr<platform::URLSessionDownloadTask>& downloadTask) override;
    /// Forwarded to the task's handler, which collects the body; ignored for a task without one.
    void didReceiveData(const std::shared_ptr<platform::URLSession>& session,
                        const std::shared_ptr<platform::URLSessionDataTask>& dataTask,
                        std::optional<std::span<const std::uint8_t>> data) override;
    /// Forwarded only to a handler that also takes data events.
    void didFinishDownloadingToURL(const std::shared_ptr<platform::URLSession>& session,
                                   const std::shared_ptr<platform::URLSessionDownloadTask>& downloadTask,
                                   const std::shared_ptr<platform::URL>& location) override;

    // ---- Properties.

    /// The configuration the session is made from. Changes made before the
    /// first request (or the first call of session()) take effect.
    [[nodiscard]] const std::shared_ptr<platform::URLSessionConfiguration>& sessionConfiguration() const noexcept {
        return sessionConfiguration_;
    }
    /// The serial queue the session's events run on.
    [[nodiscard]] const std::shared_ptr<platform::OperationQueue>& operationQueue() const noexcept {
        return operationQueue_;
    }
    /// The session, made on first use.
    [[nodiscard]] std::shared_ptr<platform::URLSession> session();
    /// The lock guarding the task table.
    [[nodiscard]] platform::Lock& lock() noexcept { return lock_; }
    /// A copy of the task table, taken under the lock.
    [[nodiscard]] TaskHandlerTable mutableTaskHandlerByTaskIdentifier() const;
    /// Replaces the task table, under the lock.
    void setMutableTaskHandlerByTaskIdentifier(TaskHandlerTable table);

    /// Builds a request for `method` (kept as given) and `URLString`.
    ///
    /// Default headers are added where the request has no value for the field
    /// yet. For a method in `HTTPMethodsEncodingParametersInURI` (compared in
    /// upper case) the parameter dictionary's query string is appended to the
    /// URL with "?" or "&"; when that text does not parse, it is percent-encoded
    /// with the URL-unsafe set (escapes already made are encoded again) and
    /// parsed once more. For every other method the body is the form-encoded
    /// query (`isFormatParam`) or pretty JSON of a dictionary, a string sent as
    /// it is, or nothing for any other kind; "Content-Type" defaults to
    /// "application/x-www-form-urlencoded". The timeout is left at the default.
    ///
    /// Throws `platform::InternalInconsistencyException` with
    /// "Invalid parameter not satisfying: method" / "...: URLString" / "...: url"
    /// when the method or URL string is absent or the URL string does not parse.
    /// `error` is accepted for symmetry with the platform and never written.
    platform::URLRequest requestWithMethod(std::optional<std::string_view> method,
                                           std::optional<std::string_view> URLString,
                                           const platform::Value& parameters, bool isFormatParam,
                                           std::shared_ptr<platform::Error>* error = nullptr);

    /// Sets the default header `field` (exact case) to `value`; nullopt removes
    /// it. Affects requests built afterwards. Not synchronised with concurrent
    /// request building: configure a manager before using it from other threads.
    void setValue(std::optional<std::string> value, const std::string& field);

    /// The default headers, field (exact case) to value.
    [[nodiscard]] const std::map<std::string, std::string>& mutableHTTPRequestHeaders() const noexcept {
        return mutableHTTPRequestHeaders_;
    }

    /// The methods whose parameters go into the URL; "GET", "HEAD", "DELETE" at creation.
    [[nodiscard]] const std::set<std::string>& HTTPMethodsEncodingParametersInURI() const noexcept {
        return HTTPMethodsEncodingParametersInURI_;
    }
    /// Names must be upper case to match: a request's method is upper-cased before the lookup.
    /// Not synchronised, like setValue(): set it before the manager is used from other threads.
    void setHTTPMethodsEncodingParametersInURI(std::set<std::string> methods) {
        HTTPMethodsEncodingParametersInURI_ = std::move(methods);
    }

    // ---- The second logging path, for the SDK's other modules.

    /// Non-zero `disableErrorLog` suppresses type 1 lines, non-zero
    /// `disableDebugLog` type 0 lines. Both start at zero.
    static void setDisabelErrr(std::int64_t disableErrorLog, std::int64_t disableDebugLog) noexcept;

    /// Writes "[CommonSDK-<label>-<file>]=><message>" to the system log unless
    /// the type is switched off: type 0 is labelled "DEBUG", every other type
    /// "ERROR". Function and line are not printed; no lock is taken.
    template <class Format, class... Args>
    static void logFromFile(std::string_view file, std::string_view function, std::uint64_t line,
                            std::int64_t type, const Format& format, const Args&... args) {
        if (isSuppressed(type)) return;
        if constexpr (std::is_convertible_v<const Format&, std::string_view>) {
            logFromFileWithArgs(file, function, line, type, std::string_view(format), args...);
        } else {
            const std::string text = platform::Value(format).description();
            logFromFileWithArgs(file, function, line, type, std::string_view(text), args...);
        }
    }

    /// The non-template core of `logFromFile`.
    static void logFromFilev(std::string_view file, std::string_view function, std::uint64_t line,
                             std::int64_t type, std::string_view format, std::span<const platform::FormatArg> args);

private:
    [[nodiscard]] static bool isSuppressed(std::int64_t type) noexcept;

    template <class... Args>
    static void logFromFileWithArgs(std::string_view file, std::string_view function, std::uint64_t line,
                                    std::int64_t type, std::string_view format, const Args&... args) {
        if constexpr (sizeof...(Args) == 0) {
            logFromFilev(file, function, line, type, format, {});
        } else {
            const platform::FormatArg list[] = {platform::FormatArg(args)...};
            logFromFilev(file, function, line, type, format, list);
        }
    }

    using Completion = std::function<void(const std::shared_ptr<platform::URLResponse>&, const platform::Value&,
                                          const std::shared_ptr<platform::Error>&)>;
    [[nodiscard]] std::shared_ptr<platform::Object> handlerFor(std::uint64_t identifier) const;
    // requestWithMethod() for a URL parsed already (never null).
    platform::URLRequest requestWithURL(std::string_view method, std::shared_ptr<platform::URL> url,
                                        const platform::Value& parameters, bool isFormatParam);
    // Makes the task and its handler, files the handler and starts the task.
    std::shared_ptr<platform::URLSessionDataTask> start(const platform::URLRequest& request,
                                                        std::optional<std::optional<std::string>> responseType,
                                                        bool callUnchecked, Success success, Failure failure);

    std::shared_ptr<platform::URLSessionConfiguration> sessionConfiguration_;
    std::shared_ptr<platform::OperationQueue> operationQueue_;
    std::once_flag sessionOnce_;
    std::shared_ptr<platform::URLSession> session_;
    std::map<std::string, std::string> mutableHTTPRequestHeaders_;
    std::set<std::string> HTTPMethodsEncodingParametersInURI_{"DELETE", "GET", "HEAD"};
    mutable platform::Lock lock_{lockName};
    TaskHandlerTable mutableTaskHandlerByTaskIdentifier_;
};

}  // namespace krcommon

#pragma once

// One task's response handling. The HTTP manager makes one handler per task and
// forwards the task's events to it: body bytes accumulate, and at completion the
// handler checks the status, turns the body into an object of the task's
// response type, classifies failures into three error domains, posts the
// invalid-grant notification when the server says the login grant is gone, and
// calls its completion block on the main queue, exactly once.

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/IndexSet.h>
#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/net/URLSession.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon {

/// Error domains of the handler. Status errors carry the status as code; the
/// other two carry 600.
inline constexpr const char* KRSDKResponseHttpCodeError = "KRSDKResponseHttpCodeError";
inline constexpr const char* KRSDKResponseDataIsNull = "KRSDKResponseDataIsNull";
inline constexpr const char* KRSDKResponseDataFromatError = "KRSDKResponseDataFromatError";
/// The notification posted on the main queue, with user info {"error": "invalid_grant"},
/// when a response body's "error" is "invalid_grant" in any letter case.
inline constexpr const char* SDK_INVALID_GRANT_NOTIFICATION_NAME = "SDK_INVALID_GRANT_NOTIFICATION_NAME";
/// User-info key of the error underlying a handler error (the JSON parser's).
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";

class KRCOMMON_EXPORT KRSDKResponseHandler : public platform::Object,
                                             public platform::URLSessionTaskCompletionDelegate,
                                             public platform::URLSessionDataReceiveDelegate,
                                             public platform::URLSessionDownloadFinishDelegate,
                                             public std::enable_shared_from_this<KRSDKResponseHandler> {
public:
    /// Called once, on the main queue: (the task's response, the response object
    /// or nil, an error or nullptr).
    using CompletionHandler = std::function<void(const std::shared_ptr<platform::URLResponse>&,
                                                 const platform::Value&, const std::shared_ptr<platform::Error>&)>;
    /// Names where a finished download goes: (session, task, temporary file) to a
    /// destination file URL, or nullptr to leave it.
    using DownloadDestination = std::function<std::shared_ptr<platform::URL>(
        const std::shared_ptr<platform::URLSession>&, const std::shared_ptr<platform::URLSessionDownloadTask>&,
        const std::shared_ptr<platform::URL>&)>;

    /// An empty body buffer, no response type (JSON), statuses 200 to 299 acceptable.
    /// Held by std::shared_ptr: the main-queue completion keeps its handler alive.
    KRSDKResponseHandler();
    ~KRSDKResponseHandler() override;

    // ---- Properties.

    /// Body bytes received so far; nullopt once the task has completed.
    [[nodiscard]] const std::optional<platform::Data>& mutableData() const noexcept { return mutableData_; }
    void setMutableData(std::optional<platform::Data> data) { mutableData_ = std::move(data); }
    /// Where the last download of this task went, or nullptr.
    [[nodiscard]] const std::shared_ptr<platform::URL>& downloadFileURL() const noexcept { return downloadFileURL_; }
    void setDownloadFileURL(std::shared_ptr<platform::URL> url) { downloadFileURL_ = std::move(url); }
    /// "json" (also when absent), "image" (raw bytes) or "string" (UTF-8 text);
    /// any other value gives no object and a format error.
    [[nodiscard]] const std::optional<std::string>& respType() const noexcept { return respType_; }
    void setRespType(std::optional<std::string> type) { respType_ = std::move(type); }
    /// Statuses that count as success; nullopt accepts every status.
    [[nodiscard]] const std::optional<platform::IndexSet>& acceptableStatusCodes() const noexcept {
        return acceptableStatusCodes_;
    }
    void setAcceptableStatusCodes(std::optional<platform::IndexSet> codes) { acceptableStatusCodes_ = std::move(codes); }
    /// Asked at each finished download where the file goes; empty (the default) leaves it
    /// where the session put it, to be removed there.
    [[nodiscard]] const DownloadDestination& downloadTaskDidFinishDownloading() const noexcept {
        return downloadDestination_;
    }
    void setDownloadTaskDidFinishDownloading(DownloadDestination block) { downloadDestination_ = std::move(block); }
    /// Called at completion (see CompletionHandler); empty calls nothing. It is read when the
    /// main-queue job runs, not when the task completes. Not synchronised: set it before the
    /// task is resumed.
    [[nodiscard]] const CompletionHandler& completionHandler() const noexcept { return completionHandler_; }
    void setCompletionHandler(CompletionHandler block) { completionHandler_ = std::move(block); }

    // ---- Response checks.

    /// False, with a "KRSDKResponseHttpCodeError" error in `error` (when given),
    /// when `response` is an HTTP response with a URL whose status is not
    /// acceptable. Any other response, a response without URL included, is valid.
    /// The body is not looked at.
    bool validateResponse(const std::shared_ptr<platform::URLResponse>& response, const platform::Data& data,
                          std::shared_ptr<platform::Error>* error);

    /// The response object for `task`'s current response and `data`, or nil; see
    /// the class comment. `error` receives the failure; an object may come with one.
    platform::Value responseObjectForResponse(const std::shared_ptr<platform::URLSessionTask>& task,
                                              const platform::Data& data, std::shared_ptr<platform::Error>& error);

    /// The same for a response at hand rather than a task's current one.
    platform::Value responseObjectForURLResponse(const std::shared_ptr<platform::URLResponse>& response,
                                                 const platform::Data& data, std::shared_ptr<platform::Error>& error);

    /// The JSON value `text` holds, or nil when absent or not JSON.
    static platform::Value dictionaryWithJsonString(std::optional<std::string_view> text);

    // ---- Session events, forwarded by the manager.

    /// Takes the collected body (mutableData() is nullopt afterwards) and queues the completion
    /// on the main queue: with nil and `error` for a transport failure, else with the object and
    /// error of responseObjectForResponse(). For "image" the object becomes {"data": that object
    /// or "", "cookie": the session's cookie store or nil}. Without a task the response is nil.
    void didCompleteWithError(const std::shared_ptr<platform::URLSession>& session,
                              const std::shared_ptr<platform::URLSessionTask>& task,
                              const std::shared_ptr<platform::Error>& error) override;
    /// Appends `data` to mutableData(); dropped once that is nullopt. Nil data is logged
    /// ("recceiveData is nil") and ignored.
    void didReceiveData(const std::shared_ptr<platform::URLSession>& session,
                        const std::shared_ptr<platform::URLSessionDataTask>& dataTask,
                        std::optional<std::span<const std::uint8_t>> data) override;
    /// Sets downloadFileURL() to the destination block's answer (nullptr without a block) and
    /// moves the file there; a failed move is neither logged nor reported.
    void didFinishDownloadingToURL(const std::shared_ptr<platform::URLSession>& session,
                                   const std::shared_ptr<platform::URLSessionDownloadTask>& downloadTask,
                                   const std::shared_ptr<platform::URL>& location) override;

private:
    [[nodiscard]] bool isImage() const noexcept { return respType_ && *respType_ == "image"; }
    // responseObjectForURLResponse(), taking over `*owned` (the same bytes as `data`) when it
    // keeps them unchanged as the object.
    platform::Value responseObjectFor(const std::shared_ptr<platform::URLResponse>& response,
                                      const platform::Data& data, platform::Data* owned,
                                      std::shared_ptr<platform::Error>& error);
    void reserveAnnouncedLength(const std::shared_ptr<platform::URLSessionDataTask>& dataTask);

    std::optional<platform::Data> mutableData_;
    std::shared_ptr<platform::URL> downloadFileURL_;
    std::optional<std::string> respType_;
    std::optional<platform::IndexSet> acceptableStatusCodes_;
    DownloadDestination downloadDestination_;
    CompletionHandler completionHandler_;
};

}  // namespace krcommon

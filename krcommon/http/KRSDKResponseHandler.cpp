#include <krcommon/http/KRSDKResponseHandler.h>

#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/platform/app/NotificationCenter.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/io/UTF8.h>

namespace krcommon {

using platform::Data;
using platform::Dictionary;
using platform::Error;
using platform::Value;

namespace {

std::string_view asText(const Data& data) noexcept {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

// The body as UTF-8 text, or nil when it is not valid UTF-8.
Value textOf(const Data& data) {
    const auto text = asText(data);
    return platform::UTF8::isValid(text) ? Value(text) : Value();
}

bool equalsIgnoringCase(std::string_view text, std::string_view lower) noexcept {
    if (text.size() != lower.size()) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != lower[i]) return false;
    }
    return true;
}

Dictionary errorUserInfo(const std::shared_ptr<platform::URLResponse>& response) {
    Dictionary info;
    info.set("URL", Value(response ? response->URL() : nullptr));
    info.set("errorResponse", Value(response));
    return info;
}

}  // namespace

KRSDKResponseHandler::KRSDKResponseHandler()
    : mutableData_(Data()), acceptableStatusCodes_(platform::IndexSet::indexSetWithIndexesInRange(200, 100)) {}

KRSDKResponseHandler::~KRSDKResponseHandler() = default;

bool KRSDKResponseHandler::validateResponse(const std::shared_ptr<platform::URLResponse>& response,
                                            const Data& /*data*/, std::shared_ptr<Error>* error) {
    const auto http = std::dynamic_pointer_cast<platform::HTTPURLResponse>(response);
    if (!http) return true;
    if (acceptableStatusCodes_ && !acceptableStatusCodes_->containsIndex(http->statusCode()) && http->URL()) {
        if (error) *error = Error::make(KRSDKResponseHttpCodeError, http->statusCode(), errorUserInfo(response));
        return false;
    }
    return true;
}

Value KRSDKResponseHandler::dictionaryWithJsonString(std::optional<std::string_view> text) {
    if (!text) return {};
    auto parsed = platform::JSONSerialization::parse(*text);
    return parsed ? std::move(*parsed) : Value();
}

namespace {

// A task's answer; nil for no task.
std::shared_ptr<platform::URLResponse> responseOf(const std::shared_ptr<platform::URLSessionTask>& task) {
    return task ? task->response() : nullptr;
}

}  // namespace

Value KRSDKResponseHandler::responseObjectForResponse(const std::shared_ptr<platform::URLSessionTask>& task,
                                                      const Data& data, std::shared_ptr<Error>& error) {
    return responseObjectForURLResponse(responseOf(task), data, error);
}

Value KRSDKResponseHandler::responseObjectForURLResponse(const std::shared_ptr<platform::URLResponse>& response,
                                                         const Data& data, std::shared_ptr<Error>& error) {
    return responseObjectFor(response, data, nullptr, error);
}

Value KRSDKResponseHandler::responseObjectFor(const std::shared_ptr<platform::URLResponse>& response, const Data& data,
                                              Data* owned, std::shared_ptr<Error>& error) {
    bool exempt = false;
    Value body;  // the answer parsed as JSON from its text, when it is both
    if (!isImage()) {
        // The body's own bytes, read in place: nil when they are not UTF-8 text.
        const std::string_view bytes = asText(data);
        const auto text = platform::UTF8::isValid(bytes) ? std::optional<std::string_view>(bytes) : std::nullopt;
        KRSDK_LOG("Common", 1, "http received :%@", text);
        body = dictionaryWithJsonString(text);
        if (const auto* map = body.dictionary()) {
            if (const auto* code = (*map)["error"].string()) {
                if (map->contains("error") && !map->contains("errorCode")) exempt = true;
                if (equalsIgnoringCase(*code, "invalid_grant")) {
                    platform::MainQueue::async([] {
                        platform::NotificationCenter::defaultCenter().postNotificationName(
                            SDK_INVALID_GRANT_NOTIFICATION_NAME, Value(), Dictionary{{"error", "invalid_grant"}});
                    });
                }
            }
        }
    }

    if (!validateResponse(response, data, &error) && !exempt) return {};

    Value object;
    std::shared_ptr<Error> parserError;
    if (data.empty() || (data.size() == 1 && data[0] == 0x20)) {
        error = Error::make(KRSDKResponseDataIsNull, 600, errorUserInfo(response));
    } else {
        if (!respType_ || *respType_ == "json") {
            // The text is the data's very bytes, so what was parsed above is the answer;
            // only a body that did not parse is parsed again, for the parser's error.
            if (!body.isNil()) {
                object = std::move(body);
            } else if (auto parsed = platform::JSONSerialization::parse(data, &parserError)) {
                object = std::move(*parsed);
            }
        } else if (*respType_ == "image") {
            // The bytes as they are: taken over when the caller gives them up (a large picture
            // is not copied), else copied.
            object = owned ? Value(std::move(*owned)) : Value(data);
        } else if (*respType_ == "string") {
            object = textOf(data);
        }
        if (object.isNil()) {
            object = textOf(data);
            if (object.isNil()) object = Value(data);
            error = Error::make(KRSDKResponseDataFromatError, 600, errorUserInfo(response));
        }
    }
    if (error) {
        // The error handed out carries the JSON parser's error, when there was one.
        Dictionary info = error->userInfo();
        if (parserError) info.set(NSUnderlyingErrorKey, Value(parserError));
        error = Error::make(error->domain(), error->code(), std::move(info));
    }
    return object;
}

void KRSDKResponseHandler::didCompleteWithError(const std::shared_ptr<platform::URLSession>& session,
                                                const std::shared_ptr<platform::URLSessionTask>& task,
                                                const std::shared_ptr<Error>& transportError) {
    Data body;
    if (mutableData_) {
        body = std::move(*mutableData_);
        mutableData_.reset();
    }
    auto self = shared_from_this();
    if (transportError) {
        platform::MainQueue::asyncBatched([self, task, transportError] {
            if (auto completion = self->completionHandler_) completion(responseOf(task), Value(), transportError);
        });
        return;
    }
    std::shared_ptr<Error> error;
    Value object = responseObjectFor(responseOf(task), body, &body, error);
    if (isImage()) {
        Dictionary picture;
        picture.set("data", object.isNil() ? Value("") : std::move(object));
        picture.set("cookie", Value(session ? session->configuration().HTTPCookieStorage() : nullptr));
        object = Value(std::move(picture));
    }
    platform::MainQueue::asyncBatched([self, task, object = std::move(object), error = std::move(error)] {
        if (auto completion = self->completionHandler_) completion(responseOf(task), object, error);
    });
}

void KRSDKResponseHandler::didReceiveData(const std::shared_ptr<platform::URLSession>& /*session*/,
                                          const std::shared_ptr<platform::URLSessionDataTask>& dataTask,
                                          std::optional<std::span<const std::uint8_t>> data) {
    if (!data) {
        KRSDK_LOG("Common", 2, "recceiveData is nil");
        return;
    }
    if (!mutableData_) return;
    if (mutableData_->empty()) reserveAnnouncedLength(dataTask);
    mutableData_->insert(mutableData_->end(), data->begin(), data->end());
}

void KRSDKResponseHandler::reserveAnnouncedLength(const std::shared_ptr<platform::URLSessionDataTask>& dataTask) {
    // A body whose length the response announces is collected in one buffer of that size
    // instead of one that doubles as it fills (which holds the old buffer and the new one,
    // half again the body, while it copies). Pages not yet written take no memory, so only an
    // absurd announcement is ignored.
    constexpr std::int64_t largestReserved = std::int64_t{2} << 30;
    const auto response = dataTask ? dataTask->response() : nullptr;
    const std::int64_t length = response ? response->expectedContentLength() : -1;
    if (length <= 0 || length > largestReserved) return;
    try {
        mutableData_->reserve(static_cast<std::size_t>(length));
    } catch (const std::exception&) {
        // Not that much memory at once: the buffer grows as the bytes come.
    }
}

void KRSDKResponseHandler::didFinishDownloadingToURL(
    const std::shared_ptr<platform::URLSession>& session,
    const std::shared_ptr<platform::URLSessionDownloadTask>& downloadTask,
    const std::shared_ptr<platform::URL>& location) {
    downloadFileURL_ = nullptr;
    if (downloadDestination_) downloadFileURL_ = downloadDestination_(session, downloadTask, location);
    if (downloadFileURL_ && location) {
        // A failed move is deliberately neither logged nor reported.
        platform::FileManager::moveItemAtPath(location->path(), downloadFileURL_->path());
    }
}

}  // namespace krcommon

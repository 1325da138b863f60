#include <krcommon/http/KRSDKMemberHttpManager.h>

#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/http/KRSDKResponseHandler.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/io/JSONSerialization.h>
#include <krcommon/platform/io/PropertyList.h>
#include <krcommon/platform/io/SearchPaths.h>
#include <krcommon/platform/io/UTF8.h>
#include <krcommon/platform/net/URL.h>

#include <openssl/rand.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <random>
#include <type_traits>
#include <typeinfo>

namespace krcommon {

using platform::URL;
using platform::URLRequest;
using platform::Value;

namespace {

// The second logging path's switches: plain process-wide flags, read without a lock.
std::atomic<std::int64_t> disableErrorLog{0};
std::atomic<std::int64_t> disableDebugLog{0};

// The filed handler in its role `Role`, or nullptr when it has none. The
// manager's own handler class is recognised by its exact type, which spares
// every event a search through the class hierarchy; any other object (a
// subclass, or whatever a caller filed) is asked the long way.
template <class Role>
Role* handlerAs(platform::Object* handler) {
    if (!handler) return nullptr;
    if (typeid(*handler) == typeid(KRSDKResponseHandler)) {
        if constexpr (std::is_base_of_v<Role, KRSDKResponseHandler>) {
            return static_cast<KRSDKResponseHandler*>(handler);
        } else {
            return nullptr;
        }
    }
    return dynamic_cast<Role*>(handler);
}

// A broken precondition of a request builder: a programming error of the caller.
[[noreturn]] void failPrecondition(const char* name, const char* function, std::uint64_t line) {
    throw platform::InternalInconsistencyException(platform::format("Invalid parameter not satisfying: %@", name),
                                                   function, "KRSDKMemberHttpManager", line);
}

// Whether UTF-8 text is shorter than `limit` UTF-16 code units, as the
// platform measures strings. No character takes more units than bytes, and
// the count stops once it reaches the limit, so a long body costs little.
bool utf16ShorterThan(std::string_view text, std::size_t limit) noexcept {
    if (text.size() < limit) return true;
    std::size_t units = 0;
    for (unsigned char c : text) {
        if ((c & 0xC0) != 0x80) ++units;  // one unit per lead byte
        if (c >= 0xF0) ++units;           // characters past the BMP take a surrogate pair
        if (units >= limit) return false;
    }
    return true;
}

std::string upperCased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return out;
}

}  // namespace

std::shared_ptr<KRSDKMemberHttpManager> KRSDKMemberHttpManager::create() {
    return std::make_shared<KRSDKMemberHttpManager>();
}

KRSDKMemberHttpManager::KRSDKMemberHttpManager()
    : sessionConfiguration_(platform::URLSessionConfiguration::ephemeralSessionConfiguration()),
      operationQueue_(std::make_shared<platform::OperationQueue>(1, "com.krmembersdk.http.manager.delegate")) {}

KRSDKMemberHttpManager::~KRSDKMemberHttpManager() = default;

std::shared_ptr<platform::URLSession> KRSDKMemberHttpManager::session() {
    std::call_once(sessionOnce_, [this] {
        std::weak_ptr<platform::URLSessionDelegate> delegate =
            std::static_pointer_cast<platform::URLSessionDelegate>(shared_from_this());
        session_ = platform::URLSession::sessionWithConfiguration(sessionConfiguration_, std::move(delegate),
                                                                  operationQueue_);
    });
    return session_;
}

// ---------------------------------------------------------------- requests

namespace {

// The URL a request is made for: the string parsed on its own, or nothing
// (absent or unparseable), which the request builders refuse as "URLString".
std::shared_ptr<URL> requestURL(std::optional<std::string_view> text) {
    return text ? URL::URLWithString(*text) : nullptr;
}

std::optional<std::string> headerText(const Value& value) {
    if (value.isNil()) return std::nullopt;
    if (const auto* text = value.string()) return *text;
    return value.description();
}

}  // namespace

std::shared_ptr<platform::URLSessionDataTask> KRSDKMemberHttpManager::GET(
    std::optional<std::string_view> URLString, const Value& headerParam, const Value& parameters,
    std::optional<std::string> responseType, Success success, Failure failure) {
    auto url = requestURL(URLString);
    if (!url) failPrecondition("URLString", __func__, __LINE__);
    URLRequest request = requestWithURL("GET", std::move(url), parameters, false);
    request.setTimeoutInterval(requestTimeoutInterval);
    if (const auto* headers = headerParam.dictionary()) {
        for (const auto& [field, value] : *headers) {
            if (!request.valueForHTTPHeaderField(field)) request.setValue(headerText(value), field);
        }
    }
    return start(request, std::optional<std::optional<std::string>>(std::move(responseType)), true,
                 std::move(success), std::move(failure));
}

std::shared_ptr<platform::URLSessionDataTask> KRSDKMemberHttpManager::POST(
    std::optional<std::string_view> URLString, const Value& headerParam, const Value& parameters,
    std::optional<std::string> responseType, bool isFormatParam, Success success, Failure failure) {
    auto url = requestURL(URLString);
    if (!url) failPrecondition("URLString", __func__, __LINE__);
    URLRequest request = requestWithURL("POST", std::move(url), parameters, isFormatParam);
    request.setTimeoutInterval(requestTimeoutInterval);
    if (const auto* headers = headerParam.dictionary()) {
        for (const auto& [field, value] : *headers) request.setValue(headerText(value), field);
    }
    std::optional<std::optional<std::string>> type;
    if (responseType) type.emplace(std::move(responseType));
    return start(request, std::move(type), false, std::move(success), std::move(failure));
}

std::shared_ptr<platform::URLSessionDataTask> KRSDKMemberHttpManager::uploadData(
    std::optional<std::string_view> URLString, const Value& parameters, std::optional<platform::Data> postData,
    const std::string& dataKey, Success success, Failure failure) {
    const auto url = requestURL(URLString);
    if (!url) failPrecondition("URLString", __func__, __LINE__);
    std::shared_ptr<platform::Error> error;
    URLRequest request = postUploadData(url->absoluteString(), parameters, postData, dataKey, &error);
    if (error) {
        if (failure) platform::MainQueue::async([failure, error] { failure(nullptr, Value(), error); });
        return nullptr;
    }
    return start(request, std::nullopt, false, std::move(success), std::move(failure));
}

std::shared_ptr<platform::URLSessionDataTask> KRSDKMemberHttpManager::start(
    const URLRequest& request, std::optional<std::optional<std::string>> responseType, bool callUnchecked,
    Success success, Failure failure) {
    auto task = session()->dataTaskWithRequest(request);
    auto handler = std::make_shared<KRSDKResponseHandler>();
    if (responseType) handler->setRespType(std::move(*responseType));

    // The completion owns the callbacks, the manager and the task until it has run.
    std::weak_ptr<platform::URLSessionDataTask> weakTask = task;
    handler->setCompletionHandler(
        [self = shared_from_this(), task, callUnchecked, success = std::move(success), failure = std::move(failure)](
            const std::shared_ptr<platform::URLResponse>&, const Value& responseObject,
            const std::shared_ptr<platform::Error>& error) {
            if (error) {
                if (callUnchecked || failure) failure(task, responseObject, error);
            } else {
                if (callUnchecked || success) success(task, responseObject);
            }
            std::lock_guard guard(self->lock_);
            self->mutableTaskHandlerByTaskIdentifier_.erase(task->taskIdentifier());
        });
    {
        std::lock_guard guard(lock_);
        mutableTaskHandlerByTaskIdentifier_[task->taskIdentifier()] = handler;
    }
    task->resume();
    return task;
}

// ---------------------------------------------------------------- multipart bodies

std::string KRSDKMemberHttpManager::AFCreateMultipartFormBoundary() {
    std::uint32_t words[2];
    if (RAND_bytes(reinterpret_cast<unsigned char*>(words), sizeof words) != 1) {
        static thread_local std::mt19937 fallback{std::random_device{}()};
        words[0] = fallback();
        words[1] = fallback();
    }
    return platform::format("-----Boundary%08X%08X", words[0], words[1]);
}

platform::Data KRSDKMemberHttpManager::createBodyWithBoundary(std::string_view boundary, const Value& parameters,
                                                              const std::optional<platform::Data>& data,
                                                              std::string_view fieldName) {
    fmt::memory_buffer out;
    if (const auto* fields = parameters.dictionary()) {
        for (const auto& [name, value] : *fields) {
            platform::formatTo(out, "--%@\r\n", boundary);
            platform::formatTo(out, "Content-Disposition: form-data; name=\"%@\"\r\n\r\n", name);
            platform::formatTo(out, "%@\r\n", value);
        }
    }
    if (data) {
        platform::formatTo(out, "--%@\r\n", boundary);
        platform::formatTo(out, "Content-Disposition: form-data; name=\"%@\"; filename=\"%@\"\r\n", fieldName,
                           fieldName);
        platform::formatTo(out, "Content-Type: %@\r\n\r\n", fieldName);
        out.append(reinterpret_cast<const char*>(data->data()), reinterpret_cast<const char*>(data->data()) + data->size());
        out.append(std::string_view("\r\n"));
    }
    platform::formatTo(out, "--%@--\r\n", boundary);
    return platform::Data(reinterpret_cast<const std::uint8_t*>(out.data()),
                          reinterpret_cast<const std::uint8_t*>(out.data()) + out.size());
}

URLRequest KRSDKMemberHttpManager::postUploadData(std::optional<std::string_view> URLString, const Value& parameters,
                                                  const std::optional<platform::Data>& postData,
                                                  const std::string& postKey, std::shared_ptr<platform::Error>*) {
    if (!URLString) failPrecondition("URLString", __func__, __LINE__);
    auto url = URL::URLWithString(*URLString);
    if (!url) failPrecondition("url", __func__, __LINE__);

    URLRequest request(std::move(url));
    request.setHTTPMethod("POST");
    const std::string boundary = AFCreateMultipartFormBoundary();
    request.setValue(platform::format("multipart/form-data; boundary=%@", boundary), "Content-Type");
    platform::Data body = createBodyWithBoundary(boundary, parameters, postData, postKey);
    request.setValue(platform::format("%lu", static_cast<unsigned long>(body.size())), "Content-Length");
    const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
    KRSDK_LOG("Common", 2, "httpBody is:%@", platform::UTF8::isValid(text) ? Value(text) : Value());
    request.setHTTPBody(std::move(body));
    return request;
}

// ---------------------------------------------------------------- server trust

std::string KRSDKMemberHttpManager::plistFilePath() {
    const std::string folder = platform::SearchPaths::libraryDirectory() + "/kr_sdks_kvstorage";
    return platform::format("%@/%@.plist", folder, "krmemberproperty");
}

bool KRSDKMemberHttpManager::isHostInTheWhiteList(std::optional<std::string_view> host) {
    if (!host || host->empty()) return false;
    const auto root = platform::PropertyList::readFile(plistFilePath());
    const platform::Dictionary* lists = root ? root->dictionary() : nullptr;
    if (!lists) {
        KRSDK_LOG("Common", 2, "portal infodic is nil");
        return false;
    }
    for (const char* key : {"loginSrvIpList", "portalSrvIpList"}) {
        const Value& value = (*lists)[key];
        const std::string* text = value.string();
        if (value.isNil() || (text && text->empty())) {
            KRSDK_LOG("Common", 2, "portal loginSrvIpList or portalSrvIpList string is nil");
            continue;
        }
        if (!text) continue;  // not text: nothing in it can match
        const auto list = platform::JSONSerialization::parse(*text);
        const platform::Array* entries = list ? list->array() : nullptr;
        if (!entries) continue;
        for (const Value& entry : *entries) {
            const auto* type = entry["type"].string();
            const auto* ip = entry["ip"].string();
            if (type && ip && *type == "https" && *ip == *host) return true;
        }
    }
    return false;
}

void KRSDKMemberHttpManager::didReceiveChallenge(const std::shared_ptr<platform::URLSession>&,
                                                 const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge,
                                                 platform::URLSessionChallengeCompletion completion) {
    using Disposition = platform::URLSessionAuthChallengeDisposition;
    const auto& space = challenge ? challenge->protectionSpace() : nullptr;
    const auto trust = space ? space->serverTrust() : nullptr;
    auto disposition = Disposition::CancelAuthenticationChallenge;
    std::shared_ptr<platform::URLCredential> credential;

    const platform::TrustEvaluation evaluation =
        trust ? trust->evaluate() : platform::TrustEvaluation{-1, platform::TrustResultType::Invalid};
    if (evaluation.status == 0 && (evaluation.result == platform::TrustResultType::Proceed ||
                                   evaluation.result == platform::TrustResultType::Unspecified)) {
        credential = platform::URLCredential::credentialForTrust(trust);
        disposition = Disposition::UseCredential;
        KRSDK_LOG("Common", 1, "Secure Trust Evaluate succ .....  ");
    } else {
        const std::optional<std::string> host = space ? std::optional<std::string>(space->host()) : std::nullopt;
        KRSDK_LOG("Common", 2, "ip host is:%@", host);
        if (isHostInTheWhiteList(host)) {
            credential = platform::URLCredential::credentialForTrust(trust);
            disposition = Disposition::UseCredential;
        } else {
            KRSDK_LOG("Common", 2, "Secure Trust Evaluate fail the https CA is invalid  .....  ");
        }
    }
    if (completion) completion(disposition, credential);
}

// ---------------------------------------------------------------- delegate forwarding

std::shared_ptr<platform::Object> KRSDKMemberHttpManager::handlerFor(std::uint64_t identifier) const {
    std::lock_guard guard(lock_);
    const auto found = mutableTaskHandlerByTaskIdentifier_.find(identifier);
    return found == mutableTaskHandlerByTaskIdentifier_.end() ? nullptr : found->second;
}

KRSDKMemberHttpManager::TaskHandlerTable KRSDKMemberHttpManager::mutableTaskHandlerByTaskIdentifier() const {
    std::lock_guard guard(lock_);
    return mutableTaskHandlerByTaskIdentifier_;
}

void KRSDKMemberHttpManager::setMutableTaskHandlerByTaskIdentifier(TaskHandlerTable table) {
    std::lock_guard guard(lock_);
    mutableTaskHandlerByTaskIdentifier_ = std::move(table);
}

void KRSDKMemberHttpManager::didCompleteWithError(const std::shared_ptr<platform::URLSession>& session,
                                                  const std::shared_ptr<platform::URLSessionTask>& task,
                                                  const std::shared_ptr<platform::Error>& error) {
    auto handler = task ? handlerFor(task->taskIdentifier()) : nullptr;
    if (auto* receiver = handlerAs<platform::URLSessionTaskCompletionDelegate>(handler.get())) {
        receiver->didCompleteWithError(session, task, error);
    }
}

void KRSDKMemberHttpManager::didReceiveResponse(const std::shared_ptr<platform::URLSession>&,
                                                const std::shared_ptr<platform::URLSessionDataTask>&,
                                                const std::shared_ptr<platform::URLResponse>&,
                                                platform::URLSessionResponseCompletion completion) {
    if (completion) completion(platform::URLSessionResponseDisposition::Allow);
}

void KRSDKMemberHttpManager::didBecomeDownloadTask(const std::shared_ptr<platform::URLSession>& session,
                                                   const std::shared_ptr<platform::URLSessionDataTask>& dataTask,
                                                   const std::shared_ptr<platform::URLSessionDownloadTask>& downloadTask) {
    auto handler = dataTask ? handlerFor(dataTask->taskIdentifier()) : nullptr;
    if (auto* receiver = handlerAs<platform::URLSessionDataBecomeDownloadDelegate>(handler.get())) {
        receiver->didBecomeDownloadTask(session, dataTask, downloadTask);
    }
}

void KRSDKMemberHttpManager::didReceiveData(const std::shared_ptr<platform::URLSession>& session,
                                            const std::shared_ptr<platform::URLSessionDataTask>& dataTask,
                                            std::optional<std::span<const std::uint8_t>> data) {
    auto handler = dataTask ? handlerFor(dataTask->taskIdentifier()) : nullptr;
    if (auto* receiver = handlerAs<platform::URLSessionDataReceiveDelegate>(handler.get())) {
        receiver->didReceiveData(session, dataTask, data);
    }
}

void KRSDKMemberHttpManager::didFinishDownloadingToURL(
    const std::shared_ptr<platform::URLSession>& session,
    const std::shared_ptr<platform::URLSessionDownloadTask>& downloadTask,
    const std::shared_ptr<platform::URL>& location) {
    auto handler = downloadTask ? handlerFor(downloadTask->taskIdentifier()) : nullptr;
    // The test is for data events, the call for the download: kept as the SDK has it.
    if (handlerAs<platform::URLSessionDataReceiveDelegate>(handler.get()) == nullptr) return;
    if (auto* receiver = handlerAs<platform::URLSessionDownloadFinishDelegate>(handler.get())) {
        receiver->didFinishDownloadingToURL(session, downloadTask, location);
    }
}

URLRequest KRSDKMemberHttpManager::requestWithMethod(std::optional<std::string_view> method,
                                                     std::optional<std::string_view> URLString,
                                                     const Value& parameters, bool isFormatParam,
                                                     std::shared_ptr<platform::Error>* /*error*/) {
    if (!method) failPrecondition("method", __func__, __LINE__);
    if (!URLString) failPrecondition("URLString", __func__, __LINE__);
    auto url = URL::URLWithString(*URLString);
    if (!url) failPrecondition("url", __func__, __LINE__);
    return requestWithURL(*method, std::move(url), parameters, isFormatParam);
}

URLRequest KRSDKMemberHttpManager::requestWithURL(std::string_view method, std::shared_ptr<URL> url,
                                                  const Value& parameters, bool isFormatParam) {
    URLRequest request(std::move(url));
    request.setHTTPMethod(std::string(method));
    for (const auto& [field, value] : mutableHTTPRequestHeaders_) {
        if (!request.valueForHTTPHeaderField(field)) request.setValue(value, field);
    }

    if (HTTPMethodsEncodingParametersInURI_.contains(upperCased(method))) {
        const auto query = KRQueryStringFromParameters(parameters);
        if (query && !query->empty()) {
            std::string text = request.URL()->absoluteString();
            text.push_back(request.URL()->query() ? '&' : '?');
            text.append(*query);
            if (auto joined = URL::URLWithString(text)) {
                request.setURL(std::move(joined));
                KRSDK_LOG("Common", 1, "mutable rqeust url is:%@", request.URL());
            } else {
                // The joined text does not parse (a key with a space, say): encode
                // what a URL cannot carry, the escapes already made included.
                std::string repaired;
                repaired.reserve(text.size() + text.size() / 2);
                platform::appendPercentEncoded(repaired, text, detail::urlUnsafeSet());
                request.setURL(URL::URLWithString(repaired));
                KRSDK_LOG("Common", 1, "mutable rqeust after deal url is:%@", request.URL());
            }
        }
        return request;
    }

    std::optional<std::string> body;
    if (const auto* map = parameters.dictionary()) {
        body = isFormatParam ? KRQueryStringFromParameters(*map) : KRJsonFromParameters(parameters);
        if (!body) body.emplace();
    } else if (const auto* text = parameters.string()) {
        body = *text;
    } else {
        KRSDK_LOG("Common", 1, "unknow parameters calss....");
    }
    if (!request.valueForHTTPHeaderField("Content-Type")) {
        request.setValue("application/x-www-form-urlencoded", "Content-Type");
    }
    if (!body || utf16ShorterThan(*body, 2000)) KRSDK_LOG("Common", 1, "http post data is:%@", body);
    if (body) request.setHTTPBody(platform::Data(body->begin(), body->end()));
    return request;
}

void KRSDKMemberHttpManager::setValue(std::optional<std::string> value, const std::string& field) {
    if (value) {
        mutableHTTPRequestHeaders_[field] = std::move(*value);
    } else {
        mutableHTTPRequestHeaders_.erase(field);
    }
}

void KRSDKMemberHttpManager::setDisabelErrr(std::int64_t errorLog, std::int64_t debugLog) noexcept {
    disableErrorLog.store(errorLog, std::memory_order_relaxed);
    disableDebugLog.store(debugLog, std::memory_order_relaxed);
}

bool KRSDKMemberHttpManager::isSuppressed(std::int64_t type) noexcept {
    if (type == 0) return disableDebugLog.load(std::memory_order_relaxed) != 0;
    if (type == 1) return disableErrorLog.load(std::memory_order_relaxed) != 0;
    return false;
}

void KRSDKMemberHttpManager::logFromFilev(std::string_view file, std::string_view /*function*/,
                                          std::uint64_t /*line*/, std::int64_t type, std::string_view format,
                                          std::span<const platform::FormatArg> args) {
    if (isSuppressed(type)) return;
    fmt::memory_buffer out;
    constexpr std::string_view open = "[CommonSDK-";
    out.append(open.data(), open.data() + open.size());
    const std::string_view label = type == 0 ? "DEBUG" : "ERROR";
    out.append(label.data(), label.data() + label.size());
    out.push_back('-');
    out.append(file.data(), file.data() + file.size());
    constexpr std::string_view arrow = "]=>";
    out.append(arrow.data(), arrow.data() + arrow.size());
    platform::vformatTo(out, format, args);
    platform::SystemLog::write(std::string_view(out.data(), out.size()));
}

}  // namespace krcommon

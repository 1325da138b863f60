#include <krcommon/http/KRSDKMemberHttpManager.h>

#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/net/URL.h>

#include <algorithm>
#include <atomic>
#include <cctype>

namespace krcommon {

using platform::URL;
using platform::URLRequest;
using platform::Value;

namespace {

// The second logging path's switches: plain process-wide flags, read without a lock.
std::atomic<std::int64_t> disableErrorLog{0};
std::atomic<std::int64_t> disableDebugLog{0};

// A broken precondition of a request builder: a programming error of the caller.
[[noreturn]] void failPrecondition(const char* name, const char* function, std::uint64_t line) {
    throw platform::InternalInconsistencyException(platform::format("Invalid parameter not satisfying: %@", name),
                                                   function, "KRSDKMemberHttpManager", line);
}

// Length of UTF-8 text in UTF-16 code units, as the platform measures strings.
std::size_t utf16Length(std::string_view text) noexcept {
    std::size_t units = 0;
    for (unsigned char c : text) {
        if ((c & 0xC0) != 0x80) ++units;  // one unit per lead byte
        if (c >= 0xF0) ++units;           // characters past the BMP take a surrogate pair
    }
    return units;
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

KRSDKMemberHttpManager::KRSDKMemberHttpManager() = default;
KRSDKMemberHttpManager::~KRSDKMemberHttpManager() = default;

URLRequest KRSDKMemberHttpManager::requestWithMethod(std::optional<std::string_view> method,
                                                     std::optional<std::string_view> URLString,
                                                     const Value& parameters, bool isFormatParam,
                                                     std::shared_ptr<platform::Error>* /*error*/) {
    if (!method) failPrecondition("method", __func__, __LINE__);
    if (!URLString) failPrecondition("URLString", __func__, __LINE__);
    auto url = URL::URLWithString(*URLString);
    if (!url) failPrecondition("url", __func__, __LINE__);

    URLRequest request(url);
    request.setHTTPMethod(std::string(*method));
    for (const auto& [field, value] : mutableHTTPRequestHeaders_) {
        if (!request.valueForHTTPHeaderField(field)) request.setValue(value, field);
    }

    if (HTTPMethodsEncodingParametersInURI_.contains(upperCased(*method))) {
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
    if (!body || utf16Length(*body) < 2000) KRSDK_LOG("Common", 1, "http post data is:%@", body);
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

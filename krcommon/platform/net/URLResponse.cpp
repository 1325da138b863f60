#include <krcommon/platform/net/URLResponse.h>

#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/net/URLRequest.h>

#include <charconv>

namespace krcommon::platform {

namespace {

std::optional<std::string> mimeTypeOf(const HTTPURLResponse::HeaderFields& headers) {
    for (const auto& [name, value] : headers) {
        if (!headerFieldEquals(name, "Content-Type")) continue;
        std::string_view type(value);
        type = type.substr(0, type.find(';'));
        while (!type.empty() && (type.back() == ' ' || type.back() == '\t')) type.remove_suffix(1);
        while (!type.empty() && (type.front() == ' ' || type.front() == '\t')) type.remove_prefix(1);
        std::string lowered(type);
        for (char& c : lowered) {
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        }
        return lowered;
    }
    return std::nullopt;
}

std::int64_t contentLengthOf(const HTTPURLResponse::HeaderFields& headers) {
    for (const auto& [name, value] : headers) {
        if (!headerFieldEquals(name, "Content-Length")) continue;
        std::int64_t length = -1;
        const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), length);
        if (ec == std::errc() && end == value.data() + value.size() && length >= 0) return length;
        return -1;
    }
    return -1;
}

}  // namespace

std::string URLResponse::description() const {
    return format("<%@: %p> { URL: %@ }", className(), static_cast<const void*>(this), url_);
}

HTTPURLResponse::HTTPURLResponse(std::shared_ptr<platform::URL> url, std::int64_t statusCode,
                                 HeaderFields headerFields)
    : URLResponse(std::move(url), mimeTypeOf(headerFields), contentLengthOf(headerFields)),
      statusCode_(statusCode),
      headers_(std::move(headerFields)) {}

std::optional<std::string> HTTPURLResponse::valueForHTTPHeaderField(std::string_view field) const {
    for (const auto& [name, value] : headers_) {
        if (headerFieldEquals(name, field)) return value;
    }
    return std::nullopt;
}

std::string HTTPURLResponse::localizedStringForStatusCode(std::int64_t code) {
    switch (code) {
        case 200: return "no error";
        case 201: return "created";
        case 204: return "no content";
        case 301: return "moved permanently";
        case 302: return "found";
        case 304: return "not modified";
        case 400: return "bad request";
        case 401: return "unauthorized";
        case 403: return "forbidden";
        case 404: return "not found";
        case 405: return "method not allowed";
        case 408: return "request timed out";
        case 429: return "too many requests";
        case 500: return "internal server error";
        case 502: return "bad gateway";
        case 503: return "service unavailable";
        case 504: return "gateway timed out";
        default: break;
    }
    if (code >= 100 && code < 200) return "informational";
    if (code >= 200 && code < 300) return "success";
    if (code >= 300 && code < 400) return "redirected";
    if (code >= 400 && code < 500) return "client error";
    if (code >= 500 && code < 600) return "server error";
    return "unknown";
}

std::string HTTPURLResponse::description() const {
    Dictionary headers;
    for (const auto& [name, value] : headers_) headers.set(name, Value(value));
    return format("<%@: %p> { URL: %@ } { Status Code: %lld, Headers %@ }", className(),
                  static_cast<const void*>(this), URL(), static_cast<long long>(statusCode_), Value(headers));
}

}  // namespace krcommon::platform

#pragma once

// What a server answered, without the body: the URL the answer is for and, for
// HTTP, the status code and the header fields.

#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/net/URL.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace krcommon::platform {

/// The metadata of a response to any kind of URL load.
class KRCOMMON_EXPORT URLResponse : public Object {
public:
    /// `expectedContentLength` is -1 when the length is unknown.
    URLResponse(std::shared_ptr<platform::URL> url, std::optional<std::string> MIMEType,
                std::int64_t expectedContentLength)
        : url_(std::move(url)), mimeType_(std::move(MIMEType)), expectedContentLength_(expectedContentLength) {}

    /// The URL of the answer (after redirects); nullptr when unknown.
    [[nodiscard]] const std::shared_ptr<platform::URL>& URL() const noexcept { return url_; }
    /// The media type without parameters ("application/json"), when the server named one.
    [[nodiscard]] const std::optional<std::string>& MIMEType() const noexcept { return mimeType_; }
    /// The announced body length, or -1.
    [[nodiscard]] std::int64_t expectedContentLength() const noexcept { return expectedContentLength_; }

    /// "<URLResponse: 0x...> { URL: ... }".
    [[nodiscard]] std::string description() const override;

private:
    std::shared_ptr<platform::URL> url_;
    std::optional<std::string> mimeType_;
    std::int64_t expectedContentLength_;
};

/// An HTTP response: status code and header fields.
class KRCOMMON_EXPORT HTTPURLResponse final : public URLResponse {
public:
    /// Header fields as received, in order; a field sent more than once is
    /// joined into one value with ", ".
    using HeaderFields = std::vector<std::pair<std::string, std::string>>;

    /// The MIME type is the "Content-Type" field without parameters, trimmed and lower-cased
    /// (nullopt without the field); the expected length is "Content-Length" when that is a
    /// non-negative integer, else -1.
    HTTPURLResponse(std::shared_ptr<platform::URL> url, std::int64_t statusCode, HeaderFields headerFields);

    [[nodiscard]] std::int64_t statusCode() const noexcept { return statusCode_; }
    [[nodiscard]] const HeaderFields& allHeaderFields() const noexcept { return headers_; }
    /// The value of `field`, whose name compares ignoring ASCII case.
    [[nodiscard]] std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;

    /// The reason phrase the platform shows for a status code ("not found").
    [[nodiscard]] static std::string localizedStringForStatusCode(std::int64_t statusCode);

    /// "<HTTPURLResponse: 0x...> { URL: ... } { Status Code: N, Headers {...} }".
    [[nodiscard]] std::string description() const override;

private:
    std::int64_t statusCode_;
    HeaderFields headers_;
};

}  // namespace krcommon::platform

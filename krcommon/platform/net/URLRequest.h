#pragma once

// A mutable HTTP request as the URL loading layer takes it: a URL, a method,
// header fields, an optional body and an idle timeout. A plain value type:
// copies are independent (they share the immutable URL).

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/net/URL.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace krcommon::platform {

class KRCOMMON_EXPORT URLRequest {
public:
    /// Header fields in the order they were first set, each with the name's
    /// case as first set.
    using HeaderFields = std::vector<std::pair<std::string, std::string>>;

    /// The timeout a new request gets, in seconds.
    static constexpr double defaultTimeoutInterval = 60.0;

    /// A GET request without URL.
    URLRequest() = default;
    /// A GET request for `url` (nullptr for an absent URL) with the default timeout.
    explicit URLRequest(std::shared_ptr<platform::URL> url, double timeoutInterval = defaultTimeoutInterval)
        : url_(std::move(url)), timeout_(timeoutInterval) {}

    /// The request URL; nullptr when absent.
    [[nodiscard]] const std::shared_ptr<platform::URL>& URL() const noexcept { return url_; }
    void setURL(std::shared_ptr<platform::URL> url) noexcept { url_ = std::move(url); }

    /// The method, "GET" unless set; kept exactly as set (no case folding).
    [[nodiscard]] const std::string& HTTPMethod() const noexcept { return method_; }
    void setHTTPMethod(std::string method) { method_ = std::move(method); }

    /// The value of header `field`, whose name compares ignoring ASCII case;
    /// nullopt when the request does not carry it.
    [[nodiscard]] std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
    /// Sets header `field` to `value`, replacing any value it had; the field
    /// keeps its place and the case of its name as first set. nullopt removes it.
    /// Names and values are stored as given, unchecked.
    void setValue(std::optional<std::string> value, std::string_view field);
    /// Appends `value` to header `field` as ", value", or sets it when absent.
    void addValue(std::string_view value, std::string_view field);
    /// Every header field, in the order first set.
    [[nodiscard]] const HeaderFields& allHTTPHeaderFields() const noexcept { return headers_; }
    /// Replaces every header field with `fields`, applied in order through
    /// setValue (so a name repeated in another case replaces the earlier value).
    void setAllHTTPHeaderFields(const HeaderFields& fields);

    /// The body bytes; nullopt (the default) sends none.
    [[nodiscard]] const std::optional<Data>& HTTPBody() const noexcept { return body_; }
    void setHTTPBody(std::optional<Data> body) noexcept { body_ = std::move(body); }

    /// Seconds without progress after which the load fails; 60 unless set.
    [[nodiscard]] double timeoutInterval() const noexcept { return timeout_; }
    void setTimeoutInterval(double seconds) noexcept { timeout_ = seconds; }

private:
    [[nodiscard]] HeaderFields::iterator findField(std::string_view field) noexcept;
    [[nodiscard]] HeaderFields::const_iterator findField(std::string_view field) const noexcept;

    std::shared_ptr<platform::URL> url_;
    std::string method_ = "GET";
    HeaderFields headers_;
    std::optional<Data> body_;
    double timeout_ = defaultTimeoutInterval;
};

/// Whether two header field names are equal ignoring ASCII case.
KRCOMMON_EXPORT bool headerFieldEquals(std::string_view a, std::string_view b) noexcept;

}  // namespace krcommon::platform

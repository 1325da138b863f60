#pragma once

// How a URL session behaves: where its cookies live, how many connections it
// opens per host, and which certificate authorities it trusts besides the
// system's. A session copies its configuration when it is created.

#include <krcommon/platform/net/HTTPCookieStorage.h>

#include <memory>
#include <string>
#include <vector>

namespace krcommon::platform {

class KRCOMMON_EXPORT URLSessionConfiguration {
public:
    /// Nothing persisted: cookies in a new in-memory store shared by the session's
    /// tasks, no response cache, no credential store.
    static std::shared_ptr<URLSessionConfiguration> ephemeralSessionConfiguration() {
        return std::make_shared<URLSessionConfiguration>();
    }

    URLSessionConfiguration() : cookies_(std::make_shared<platform::HTTPCookieStorage>()) {}

    /// The cookie store the session's tasks read and fill; nullptr disables cookies.
    [[nodiscard]] const std::shared_ptr<platform::HTTPCookieStorage>& HTTPCookieStorage() const noexcept {
        return cookies_;
    }
    void setHTTPCookieStorage(std::shared_ptr<platform::HTTPCookieStorage> storage) noexcept {
        cookies_ = std::move(storage);
    }

    /// Connections open at once to one host; further requests wait for a free
    /// one. 6 unless set; 0 means no limit.
    [[nodiscard]] long HTTPMaximumConnectionsPerHost() const noexcept { return maxPerHost_; }
    void setHTTPMaximumConnectionsPerHost(long count) noexcept { maxPerHost_ = count < 0 ? 0 : count; }

    /// PEM text of certificate authorities trusted in addition to the system's
    /// store. A session that cannot read one fails its HTTPS loads.
    [[nodiscard]] const std::vector<std::string>& additionalTrustAnchorsPEM() const noexcept { return anchors_; }
    void addTrustAnchorPEM(std::string pem) { anchors_.push_back(std::move(pem)); }

private:
    std::shared_ptr<platform::HTTPCookieStorage> cookies_;
    long maxPerHost_ = 6;
    std::vector<std::string> anchors_;
};

}  // namespace krcommon::platform

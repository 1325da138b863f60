#pragma once

// Cookies kept in memory and shared by every task of the sessions that use the
// store: what one response sets, the next request to a matching URL sends.
// Nothing is written to disk.

#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/net/URL.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace krcommon::platform {

namespace detail {
struct Transfer;
}

/// One cookie as the store holds it.
struct KRCOMMON_EXPORT HTTPCookie {
    std::string name;
    std::string value;
    /// The domain; a leading "." means subdomains match too.
    std::string domain;
    std::string path = "/";
    bool isSecure = false;
    bool isHTTPOnly = false;
    /// Absent for a session cookie.
    std::optional<Date> expiresDate;

    [[nodiscard]] bool isSessionOnly() const noexcept { return !expiresDate.has_value(); }
    friend bool operator==(const HTTPCookie&, const HTTPCookie&) = default;
};

/// An in-memory cookie store. Safe to use from any thread, also while tasks
/// that use it are running.
class KRCOMMON_EXPORT HTTPCookieStorage final : public Object {
public:
    HTTPCookieStorage();
    ~HTTPCookieStorage() override;
    HTTPCookieStorage(const HTTPCookieStorage&) = delete;
    HTTPCookieStorage& operator=(const HTTPCookieStorage&) = delete;

    /// Every cookie held, expired ones excluded.
    [[nodiscard]] std::vector<HTTPCookie> cookies() const;
    /// The cookies a request to `url` would send.
    [[nodiscard]] std::vector<HTTPCookie> cookiesForURL(const URL& url) const;
    /// Adds `cookie`, replacing one with the same name, domain and path.
    void setCookie(const HTTPCookie& cookie);
    /// Removes every cookie.
    void removeAllCookies();

    /// "<HTTPCookieStorage: 0x...> { cookies: N }".
    [[nodiscard]] std::string description() const override;

private:
    friend struct detail::Transfer;
    struct Impl;
    /// The native store handed to the transfers of a session.
    [[nodiscard]] void* nativeHandle() const noexcept;

    std::unique_ptr<Impl> impl_;
};

}  // namespace krcommon::platform

#pragma once

#include <krcommon/platform/core/Value.h>

#include <cstdint>
#include <memory>
#include <string>

namespace krcommon::platform {

/// The URL error domain and the codes transport failures carry, with the
/// values of the mobile platform so that code written for it reads them unchanged.
inline constexpr const char* URLErrorDomain = "NSURLErrorDomain";
enum URLErrorCode : std::int64_t {
    URLErrorUnknown = -1,
    URLErrorCancelled = -999,
    URLErrorBadURL = -1000,
    URLErrorTimedOut = -1001,
    URLErrorUnsupportedURL = -1002,
    URLErrorCannotFindHost = -1003,
    URLErrorCannotConnectToHost = -1004,
    URLErrorNetworkConnectionLost = -1005,
    URLErrorBadServerResponse = -1011,
    URLErrorSecureConnectionFailed = -1200,
    URLErrorServerCertificateUntrusted = -1202,
};

/// User-info key holding the human-readable description of an error.
inline constexpr const char* LocalizedDescriptionKey = "NSLocalizedDescription";

/// An error object: a domain, a signed code and a user-info dictionary.
/// Immutable once made; shared as std::shared_ptr<Error> and storable in a Value.
class KRCOMMON_EXPORT Error final : public Object {
public:
    /// An error of `domain` and `code` carrying `userInfo` as given; its LocalizedDescriptionKey
    /// entry, when a string, is what localizedDescription() answers.
    Error(std::string domain, std::int64_t code, Dictionary userInfo = {});

    /// Convenience: a shared error.
    static std::shared_ptr<Error> make(std::string domain, std::int64_t code, Dictionary userInfo = {});

    [[nodiscard]] const std::string& domain() const noexcept { return domain_; }
    [[nodiscard]] std::int64_t code() const noexcept { return code_; }
    [[nodiscard]] const Dictionary& userInfo() const noexcept { return userInfo_; }

    /// The user info's "NSLocalizedDescription" when it is a string, else
    /// "The operation couldn't be completed. (DOMAIN error CODE.)".
    [[nodiscard]] std::string localizedDescription() const;

    /// `Error Domain=D Code=C "localized description" UserInfo={k=v, ...}`.
    [[nodiscard]] std::string description() const override;

private:
    std::string domain_;
    std::int64_t code_;
    Dictionary userInfo_;
};

}  // namespace krcommon::platform

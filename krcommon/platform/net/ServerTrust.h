#pragma once

// The outcome of checking a server's certificate chain and host name during a
// TLS handshake, and the credential that accepts a server on its strength.

#include <krcommon/platform/core/Value.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace krcommon::platform {

/// How an evaluation ended, with the platform's numbering.
enum class TrustResultType : std::uint32_t {
    Invalid = 0,
    Proceed = 1,  ///< trusted, and the user said so explicitly
    Deny = 3,
    Unspecified = 4,  ///< trusted by the anchors, no explicit user setting
    RecoverableTrustFailure = 5,  ///< not trusted (unknown issuer, wrong host, expired ...)
    FatalTrustFailure = 6,
    OtherError = 7,
};

/// An evaluation: `status` is 0 when the evaluation could run at all.
struct TrustEvaluation {
    std::int32_t status = 0;
    TrustResultType result = TrustResultType::Invalid;
    friend bool operator==(const TrustEvaluation&, const TrustEvaluation&) = default;
};

/// A server's certificate chain for one host, evaluated once (chain up to a
/// trust anchor, validity period, and the host name or IP address against the
/// leaf certificate). Immutable.
class KRCOMMON_EXPORT ServerTrust final : public Object {
public:
    /// `certificates` are DER-encoded, the server's own first. `failureReason`
    /// says why an untrusted chain failed ("unable to get local issuer certificate").
    ServerTrust(std::string host, std::vector<Data> certificates, TrustEvaluation evaluation,
                std::string failureReason = {})
        : host_(std::move(host)),
          certificates_(std::move(certificates)),
          evaluation_(evaluation),
          failureReason_(std::move(failureReason)) {}

    /// The host name the chain was checked against.
    [[nodiscard]] const std::string& host() const noexcept { return host_; }
    /// The chain as the server presented it, DER-encoded, leaf first.
    [[nodiscard]] const std::vector<Data>& certificates() const noexcept { return certificates_; }
    /// The evaluation's status and result. Trusted means status 0 and a result
    /// of Proceed or Unspecified.
    [[nodiscard]] TrustEvaluation evaluate() const noexcept { return evaluation_; }
    [[nodiscard]] bool isTrusted() const noexcept {
        return evaluation_.status == 0 &&
               (evaluation_.result == TrustResultType::Proceed || evaluation_.result == TrustResultType::Unspecified);
    }
    /// Empty for a trusted chain.
    [[nodiscard]] const std::string& failureReason() const noexcept { return failureReason_; }

    /// "<ServerTrust: 0x...> { host: H, certificates: N, trusted: yes }" (or "no").
    [[nodiscard]] std::string description() const override;

private:
    std::string host_;
    std::vector<Data> certificates_;
    TrustEvaluation evaluation_;
    std::string failureReason_;
};

/// A credential answering a challenge. The only kind this layer knows accepts
/// a server through its trust object.
class KRCOMMON_EXPORT URLCredential final : public Object {
public:
    /// The credential that accepts the server `trust` describes, whatever its
    /// evaluation said.
    static std::shared_ptr<URLCredential> credentialForTrust(std::shared_ptr<ServerTrust> trust) {
        return std::shared_ptr<URLCredential>(new URLCredential(std::move(trust)));
    }
    [[nodiscard]] const std::shared_ptr<ServerTrust>& serverTrust() const noexcept { return trust_; }

private:
    explicit URLCredential(std::shared_ptr<ServerTrust> trust) : trust_(std::move(trust)) {}
    std::shared_ptr<ServerTrust> trust_;
};

/// Where a challenge comes from: the server's host, port and protocol, and for
/// server-trust challenges the trust object.
class KRCOMMON_EXPORT URLProtectionSpace final : public Object {
public:
    static constexpr const char* AuthenticationMethodServerTrust = "NSURLAuthenticationMethodServerTrust";

    URLProtectionSpace(std::string host, int port, std::string protocol, std::string authenticationMethod,
                       std::shared_ptr<ServerTrust> serverTrust)
        : host_(std::move(host)),
          port_(port),
          protocol_(std::move(protocol)),
          method_(std::move(authenticationMethod)),
          trust_(std::move(serverTrust)) {}

    [[nodiscard]] const std::string& host() const noexcept { return host_; }
    [[nodiscard]] int port() const noexcept { return port_; }
    /// "https".
    [[nodiscard]] const std::string& protocol() const noexcept { return protocol_; }
    /// AuthenticationMethodServerTrust for every challenge this layer's sessions make.
    [[nodiscard]] const std::string& authenticationMethod() const noexcept { return method_; }
    /// nullptr for challenges of other kinds.
    [[nodiscard]] const std::shared_ptr<ServerTrust>& serverTrust() const noexcept { return trust_; }

private:
    std::string host_;
    int port_;
    std::string protocol_;
    std::string method_;
    std::shared_ptr<ServerTrust> trust_;
};

/// A question put to the session's delegate before a connection is used.
class KRCOMMON_EXPORT URLAuthenticationChallenge final : public Object {
public:
    explicit URLAuthenticationChallenge(std::shared_ptr<URLProtectionSpace> space, std::int64_t previousFailureCount = 0)
        : space_(std::move(space)), previousFailureCount_(previousFailureCount) {}
    [[nodiscard]] const std::shared_ptr<URLProtectionSpace>& protectionSpace() const noexcept { return space_; }
    /// Earlier failed answers for this protection space; always 0 in the challenges sessions make.
    [[nodiscard]] std::int64_t previousFailureCount() const noexcept { return previousFailureCount_; }

private:
    std::shared_ptr<URLProtectionSpace> space_;
    std::int64_t previousFailureCount_;
};

}  // namespace krcommon::platform

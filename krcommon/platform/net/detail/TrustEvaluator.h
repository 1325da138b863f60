#pragma once

// Server trust as a pure function: a certificate chain, the anchors to build
// it to and the host the TLS handshake was made for go in; a verdict comes
// out. No global state is read beyond the clock.

#include <krcommon/platform/core/Value.h>

#include <openssl/x509.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace krcommon::platform::detail {

struct TrustVerdict {
    bool trusted = false;
    /// Why an untrusted chain failed ("certificate has expired", "the certificate does not match the host").
    std::string reason;
};

/// Evaluates the server certificate `leaf`, with the intermediates the server sent in
/// `untrusted` (may be null), against the anchors in `anchors`, for a TLS server
/// reached as `host` (a DNS name, or an IP literal without brackets). Trusted means
/// the chain reaches an anchor, every certificate is valid now and fit for a TLS
/// server, and the leaf names the host in its subject alternative names. Wildcards
/// match one whole leftmost label only: "*.example.com" matches "a.example.com",
/// "f*.example.com" matches nothing.
TrustVerdict evaluateServerTrust(X509_STORE* anchors, X509* leaf, STACK_OF(X509)* untrusted, std::string_view host);

/// Whether `host` is an IPv4 or IPv6 literal (brackets removed).
bool isIPAddress(std::string_view host) noexcept;

/// The chain as the server presented it, DER-encoded, leaf first.
std::vector<Data> encodedChain(X509* leaf, STACK_OF(X509)* untrusted);

/// Certificates read from PEM text, in order; empty when the text holds none. The
/// caller owns them (X509_free).
std::vector<X509*> readPEMCertificates(std::string_view pem);

/// A new store of the system's trust anchors plus `extra` (not taken over), for a TLS
/// client: the system's hashed certificate folder is read one certificate at a time as
/// chains need it, so making a store costs next to nothing; without such a folder, the
/// system's bundle file is read whole. Intermediates among `extra` count as anchors too.
/// The caller owns the store (X509_STORE_free).
X509_STORE* makeTrustStore(std::span<X509* const> extra);

}  // namespace krcommon::platform::detail

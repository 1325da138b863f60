#include <krcommon/platform/net/detail/TrustEvaluator.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

namespace krcommon::platform::detail {

namespace {

struct ContextFree {
    void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
};

}  // namespace

bool isIPAddress(std::string_view host) noexcept {
    if (host.empty() || host.size() >= INET6_ADDRSTRLEN) return false;
    char text[INET6_ADDRSTRLEN];
    host.copy(text, host.size());
    text[host.size()] = '\0';
    unsigned char address[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, text, address) == 1 || ::inet_pton(AF_INET6, text, address) == 1;
}

TrustVerdict evaluateServerTrust(X509_STORE* anchors, X509* leaf, STACK_OF(X509)* untrusted, std::string_view host) {
    TrustVerdict verdict;
    if (!leaf) {
        verdict.reason = "the server sent no certificate";
        return verdict;
    }
    std::unique_ptr<X509_STORE_CTX, ContextFree> context(X509_STORE_CTX_new());
    bool chainOK = false;
    if (context && anchors && X509_STORE_CTX_init(context.get(), anchors, leaf, untrusted) == 1) {
        X509_STORE_CTX_set_default(context.get(), "ssl_server");  // purpose and trust of a TLS server
        chainOK = X509_verify_cert(context.get()) == 1;
        if (!chainOK) verdict.reason = X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
    } else {
        verdict.reason = "the chain could not be evaluated";
    }
    ERR_clear_error();
    if (!chainOK) return verdict;

    bool hostOK = false;
    if (!host.empty()) {
        if (isIPAddress(host)) {
            const std::string literal(host);
            hostOK = X509_check_ip_asc(leaf, literal.c_str(), 0) == 1;
        } else {
            const unsigned flags = X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT;
            hostOK = X509_check_host(leaf, host.data(), host.size(), flags, nullptr) == 1;
        }
    }
    if (!hostOK) {
        verdict.reason = "the certificate does not match the host";
        return verdict;
    }
    verdict.trusted = true;
    return verdict;
}

std::vector<Data> encodedChain(X509* leaf, STACK_OF(X509)* untrusted) {
    std::vector<Data> chain;
    auto add = [&chain](X509* certificate) {
        const int length = i2d_X509(certificate, nullptr);
        if (length <= 0) return;
        Data der(static_cast<std::size_t>(length));
        unsigned char* out = der.data();
        i2d_X509(certificate, &out);
        chain.push_back(std::move(der));
    };
    if (leaf) add(leaf);
    for (int i = 0; untrusted && i < sk_X509_num(untrusted); ++i) {
        X509* certificate = sk_X509_value(untrusted, i);
        if (certificate != leaf || i > 0) add(certificate);  // the server's list usually starts with the leaf
    }
    return chain;
}

std::vector<X509*> readPEMCertificates(std::string_view pem) {
    std::vector<X509*> certificates;
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    while (X509* certificate = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr) {
        certificates.push_back(certificate);
    }
    BIO_free(bio);
    ERR_clear_error();
    return certificates;
}

X509_STORE* makeTrustStore(std::span<X509* const> extra) {
    X509_STORE* store = X509_STORE_new();
    if (!store) return nullptr;
    // Where the TLS library looks by default, or where its environment variables point.
    const char* folder = std::getenv(X509_get_default_cert_dir_env());
    if (!folder) folder = X509_get_default_cert_dir();
    const char* bundle = std::getenv(X509_get_default_cert_file_env());
    if (!bundle) bundle = X509_get_default_cert_file();
    bool hashed = false;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
        const auto name = entry.path().filename().string();
        if (name.size() > 2 && name.ends_with(".0")) {
            hashed = true;
            break;
        }
    }
    if (hashed) {
        X509_STORE_load_path(store, folder);
    } else {
        X509_STORE_load_file(store, bundle);
    }
    for (X509* certificate : extra) X509_STORE_add_cert(store, certificate);
    X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN);
    ERR_clear_error();
    return store;
}

}  // namespace krcommon::platform::detail

#pragma once

// Certificates made at test time: a test certificate authority with a server
// certificate it signed, and a self-signed server certificate nobody trusts.
// Both server certificates name 127.0.0.1 and localhost.

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace krcommon::test {

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
struct KeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

struct Identity {
    X509Ptr certificate;
    KeyPtr key;
};

inline KeyPtr makeKey() {
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key) throw std::runtime_error("cannot make a key");
    return key;
}

inline void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    if (!extension) throw std::runtime_error("bad certificate extension");
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

/// A certificate for `commonName` with `key`, signed by `issuer` (itself when null).
inline X509Ptr makeCertificate(const char* commonName, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey, bool isCA,
                               long serial, long validFromSeconds = -3600, long validForSeconds = 86400,
                               const char* names = "IP:127.0.0.1,DNS:localhost") {
    X509Ptr certificate(X509_new());
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), validFromSeconds);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), validFromSeconds + validForSeconds);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("krcommon tests"), -1,
                               -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName), -1, -1,
                               0);
    X509* signer = issuer ? issuer : certificate.get();
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer));
    if (isCA) {
        addExtension(certificate.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(certificate.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        addExtension(certificate.get(), signer, NID_basic_constraints, "CA:FALSE");
        addExtension(certificate.get(), signer, NID_ext_key_usage, "serverAuth");
        addExtension(certificate.get(), signer, NID_subject_alt_name, names);
    }
    addExtension(certificate.get(), signer, NID_subject_key_identifier, "hash");
    if (!X509_sign(certificate.get(), issuerKey ? issuerKey : key, EVP_sha256())) {
        throw std::runtime_error("cannot sign a certificate");
    }
    return certificate;
}

inline std::string toPEM(X509* certificate) {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, certificate);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string pem(data, static_cast<std::size_t>(length));
    BIO_free(bio);
    return pem;
}

/// The test authority, a server identity it signed, and a self-signed server identity.
struct TestCertificates {
    Identity authority;
    Identity server;
    Identity selfSigned;
    Identity expired;    // signed by the authority, expired yesterday
    Identity otherHost;  // signed by the authority for elsewhere.test only

    static const TestCertificates& shared() {
        static const TestCertificates certificates = [] {
            TestCertificates c;
            c.authority.key = makeKey();
            c.authority.certificate =
                makeCertificate("krcommon test authority", c.authority.key.get(), nullptr, nullptr, true, 1);
            c.server.key = makeKey();
            c.server.certificate = makeCertificate("127.0.0.1", c.server.key.get(), c.authority.certificate.get(),
                                                   c.authority.key.get(), false, 2);
            c.selfSigned.key = makeKey();
            c.selfSigned.certificate =
                makeCertificate("127.0.0.1", c.selfSigned.key.get(), nullptr, nullptr, false, 3);
            c.expired.key = makeKey();
            c.expired.certificate = makeCertificate("127.0.0.1", c.expired.key.get(), c.authority.certificate.get(),
                                                    c.authority.key.get(), false, 4, -2 * 86400, 86400);
            c.otherHost.key = makeKey();
            c.otherHost.certificate = makeCertificate("elsewhere.test", c.otherHost.key.get(),
                                                      c.authority.certificate.get(), c.authority.key.get(), false, 5,
                                                      -3600, 86400, "DNS:elsewhere.test");
            return c;
        }();
        return certificates;
    }
    [[nodiscard]] std::string authorityPEM() const { return toPEM(authority.certificate.get()); }
};

}  // namespace krcommon::test

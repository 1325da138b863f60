#pragma once

// Certificates made at test time: a test authority and server identities for
// 127.0.0.1 and localhost, signed by it, self-signed, expired, or for another host.

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace krcommon::test {

struct Identity {
    std::unique_ptr<X509, decltype(&X509_free)> certificate{nullptr, &X509_free};
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key{nullptr, &EVP_PKEY_free};
};

/// A P-256 identity for `commonName`, signed by `issuer` (by itself when null),
/// valid from `validFrom` seconds from now for `validFor` seconds.
inline Identity makeIdentity(const char* commonName, const Identity* issuer, bool isCA, long serial,
                             long validFrom = -3600, long validFor = 86400,
                             const char* names = "IP:127.0.0.1,DNS:localhost") {
    Identity id;
    id.key.reset(EVP_EC_gen("P-256"));
    id.certificate.reset(X509_new());
    X509* cert = id.certificate.get();
    if (!id.key || !cert) throw std::runtime_error("cannot make an identity");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial);
    X509_gmtime_adj(X509_getm_notBefore(cert), validFrom);
    X509_gmtime_adj(X509_getm_notAfter(cert), validFrom + validFor);
    X509_set_pubkey(cert, id.key.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
    X509* signer = issuer ? issuer->certificate.get() : cert;
    X509_set_issuer_name(cert, X509_get_subject_name(signer));
    const auto extend = [&](int nid, const char* value) {
        X509V3_CTX context;
        X509V3_set_ctx_nodb(&context);
        X509V3_set_ctx(&context, signer, cert, nullptr, nullptr, 0);
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
        if (!extension) throw std::runtime_error("bad certificate extension");
        X509_add_ext(cert, extension, -1);
        X509_EXTENSION_free(extension);
    };
    extend(NID_basic_constraints, isCA ? "critical,CA:TRUE" : "CA:FALSE");
    extend(isCA ? NID_key_usage : NID_ext_key_usage, isCA ? "critical,keyCertSign,cRLSign" : "serverAuth");
    if (!isCA) extend(NID_subject_alt_name, names);
    extend(NID_subject_key_identifier, "hash");
    if (!X509_sign(cert, issuer ? issuer->key.get() : id.key.get(), EVP_sha256())) {
        throw std::runtime_error("cannot sign a certificate");
    }
    return id;
}

struct TestCertificates {
    Identity authority = makeIdentity("krcommon test authority", nullptr, true, 1);
    Identity server = makeIdentity("127.0.0.1", &authority, false, 2);
    Identity selfSigned = makeIdentity("127.0.0.1", nullptr, false, 3);
    Identity expired = makeIdentity("127.0.0.1", &authority, false, 4, -2 * 86400, 86400);  // ended yesterday
    Identity otherHost = makeIdentity("elsewhere.test", &authority, false, 5, -3600, 86400, "DNS:elsewhere.test");

    static const TestCertificates& shared() {
        static const TestCertificates certificates;
        return certificates;
    }
    /// The authority's certificate as PEM text, for a configuration's extra anchors.
    [[nodiscard]] std::string authorityPEM() const {
        std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
        PEM_write_bio_X509(bio.get(), authority.certificate.get());
        char* data = nullptr;
        const long length = BIO_get_mem_data(bio.get(), &data);
        return {data, static_cast<std::size_t>(length)};
    }
};

}  // namespace krcommon::test

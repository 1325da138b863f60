#include "AccountService.h"

#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <stdexcept>
#include <thread>

namespace demo {

namespace {

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using CertificatePtr = std::unique_ptr<X509, decltype(&X509_free)>;

// A P-256 key and a self-signed certificate for 127.0.0.1, valid for a day.
std::pair<KeyPtr, CertificatePtr> makeIdentity() {
    KeyPtr key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    CertificatePtr certificate(X509_new(), X509_free);
    if (!key || !certificate) throw std::runtime_error("cannot make the service's key");
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 24 * 3600);
    X509_set_pubkey(certificate.get(), key.get());
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1,
                               0);
    X509_set_issuer_name(certificate.get(), name);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate.get(), certificate.get(), nullptr, nullptr, 0);
    if (X509_EXTENSION* san = X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "IP:127.0.0.1")) {
        X509_add_ext(certificate.get(), san, -1);
        X509_EXTENSION_free(san);
    }
    if (X509_sign(certificate.get(), key.get(), EVP_sha256()) == 0) throw std::runtime_error("cannot sign");
    return {std::move(key), std::move(certificate)};
}

std::string fingerprintOf(X509* certificate) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    X509_digest(certificate, EVP_sha256(), digest, &length);
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        if (i) out += ':';
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

}  // namespace

struct AccountService::Server {
    std::pair<KeyPtr, CertificatePtr> identity = makeIdentity();
    httplib::SSLServer http{identity.second.get(), identity.first.get()};
    std::thread thread;
    int port = 0;
    mutable std::mutex mutex;
    std::vector<ReceivedRequest> received;

    void record(const httplib::Request& request) {
        ReceivedRequest r{request.method, request.path, request.get_header_value("Content-Type"), request.body, {}, {}};
        for (const auto& [key, value] : request.params) r.query.emplace(key, value);
        for (const auto& [field, file] : request.files) r.parts[file.filename.empty() ? field : file.filename] = file.content;
        std::lock_guard lock(mutex);
        received.push_back(std::move(r));
    }
};

AccountService::AccountService() : server_(std::make_unique<Server>()) {
    fingerprint_ = fingerprintOf(server_->identity.second.get());
    auto& http = server_->http;
    auto answer = [this](int status, std::string body) {
        return [this, status, body](const httplib::Request& request, httplib::Response& response) {
            server_->record(request);
            response.status = status;
            response.set_content(body, "application/json");
        };
    };
    http.Post(statisticsPath, answer(200, R"({"code":0,"msg":"ok"})"));
    http.Get(userActionPath, answer(200, R"({"code":0})"));
    http.Post(uploadPath, answer(200, R"({"code":0,"avatar":"https://static.example/avatar/1.png"})"));
    http.Post(tokenPath, answer(401, R"({"error":"invalid_grant","error_description":"refresh token expired"})"));

    // Clients keep their connections open; a short keep-alive lets the
    // service stop promptly when the demo ends.
    http.set_keep_alive_timeout(1);

    server_->port = http.bind_to_any_port("127.0.0.1");
    if (server_->port <= 0) throw std::runtime_error("the account service cannot listen on 127.0.0.1");
    server_->thread = std::thread([this] { server_->http.listen_after_bind(); });
    while (!http.is_running()) std::this_thread::yield();
}

AccountService::~AccountService() {
    server_->http.stop();
    if (server_->thread.joinable()) server_->thread.join();
}

std::string AccountService::host() const { return "127.0.0.1:" + std::to_string(server_->port); }

std::vector<ReceivedRequest> AccountService::requests() const {
    std::lock_guard lock(server_->mutex);
    return server_->received;
}

}  // namespace demo

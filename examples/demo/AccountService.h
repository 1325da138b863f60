#pragma once

// The demo's embedded account service: an HTTPS server on 127.0.0.1 with a
// certificate made at start and signed by nobody, so that clients fail to
// evaluate it and must accept it through the whitelist. It serves the four
// endpoints the demo calls and records every request it receives.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace demo {

struct ReceivedRequest {
    std::string method;
    std::string path;
    std::string contentType;
    std::string body;                               // as sent
    std::multimap<std::string, std::string> query;  // decoded once, as the server reads it
    std::map<std::string, std::string> parts;       // multipart field or file name -> content
};

class AccountService {
public:
    static constexpr const char* statisticsPath = "/loginstat";
    static constexpr const char* userActionPath = "/kruserstat";
    static constexpr const char* uploadPath = "/v1/user/avatar";
    static constexpr const char* tokenPath = "/v1/auth/token";

    /// Makes the certificate and starts listening on a free port of 127.0.0.1.
    AccountService();
    ~AccountService();
    AccountService(const AccountService&) = delete;
    AccountService& operator=(const AccountService&) = delete;

    /// "127.0.0.1:<port>", as the host dictionary names a host.
    [[nodiscard]] std::string host() const;
    /// SHA-256 fingerprint of the certificate, in colon-separated hex.
    [[nodiscard]] const std::string& fingerprint() const { return fingerprint_; }
    /// Every request received so far, in order.
    [[nodiscard]] std::vector<ReceivedRequest> requests() const;

private:
    struct Server;
    std::unique_ptr<Server> server_;
    std::string fingerprint_;
};

}  // namespace demo

#pragma once

// A real HTTP or HTTPS server on 127.0.0.1 for tests, on a port of its own, that
// records every request its routes receive (method, path, query, headers, body,
// multipart parts) before answering it.

#include "TestCertificates.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace krcommon::test {

struct RecordedPart {
    std::string filename, contentType, content;
};

struct RecordedRequest {
    std::string method, path;
    std::multimap<std::string, std::string> query;
    httplib::Headers headers;  // case-insensitive names
    std::string body;
    std::multimap<std::string, RecordedPart> parts;

    [[nodiscard]] std::string header(const std::string& name) const {
        auto it = headers.find(name);
        return it == headers.end() ? std::string() : it->second;
    }
    [[nodiscard]] std::string queryValue(const std::string& name) const {
        auto it = query.find(name);
        return it == query.end() ? std::string() : it->second;
    }
};

class TestServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    /// A plain HTTP server.
    static std::unique_ptr<TestServer> http() {
        return std::unique_ptr<TestServer>(new TestServer(std::make_unique<httplib::Server>()));
    }
    /// An HTTPS server presenting `identity`.
    static std::unique_ptr<TestServer> https(const Identity& identity) {
        return std::unique_ptr<TestServer>(
            new TestServer(std::make_unique<httplib::SSLServer>(identity.certificate.get(), identity.key.get())));
    }

    ~TestServer() { stop(); }

    /// Adds a route (regex path) that records the request, then runs `handler`.
    TestServer& route(const std::string& method, const std::string& pattern, Handler handler) {
        auto wrapped = [this, handler = std::move(handler)](const httplib::Request& request, httplib::Response& response) {
            record(request);
            handler(request, response);
        };
        if (method == "GET") server_->Get(pattern, wrapped);
        else if (method == "POST") server_->Post(pattern, wrapped);
        else if (method == "PUT") server_->Put(pattern, wrapped);
        else if (method == "DELETE") server_->Delete(pattern, wrapped);
        return *this;
    }

    /// Starts listening; routes must be added before.
    void start() {
        int listening = -1;
        server_->set_socket_options([&listening](int fd) {
            httplib::default_socket_options(fd);
            listening = fd;
        });
        port_ = server_->bind_to_any_port("127.0.0.1");
        // The library listens with a backlog of 5: more connections opened at once lose their
        // SYN and wait a second to send it again.
        if (listening >= 0) ::listen(listening, SOMAXCONN);
        thread_ = std::thread([this] { server_->listen_after_bind(); });
        while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    void stop() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable()) {
            server_->stop();
            thread_.join();
        }
    }

    /// Blocks a handler until `seconds` pass or the server stops.
    void stall(double seconds) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopping_; });
    }
    /// Waits until `count` requests have reached the routes; false after `seconds`.
    bool waitForRequests(std::size_t count, double seconds = 20) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                                 [&] { return requests_.size() >= count; });
    }

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] std::string origin(const std::string& scheme) const {
        return scheme + "://127.0.0.1:" + std::to_string(port_);
    }
    [[nodiscard]] std::vector<RecordedRequest> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    [[nodiscard]] std::size_t requestCount() const {
        std::lock_guard lock(mutex_);
        return requests_.size();
    }
    /// The server library's own object, for routes that are not recorded and for tuning.
    httplib::Server& server() { return *server_; }

private:
    explicit TestServer(std::unique_ptr<httplib::Server> server) : server_(std::move(server)) {
        // Connections stay open as long as clients keep them (the library's default closes one
        // after 5 requests), with enough threads that idle ones never hold a request up.
        server_->set_keep_alive_max_count(1000);
        server_->new_task_queue = [] { return new httplib::ThreadPool(32); };
        server_->set_tcp_nodelay(true);  // answers go out at once, not after the peer's delayed ACK
    }

    void record(const httplib::Request& request) {
        RecordedRequest r{request.method, request.path, {}, request.headers, request.body, {}};
        for (const auto& [k, v] : request.params) r.query.emplace(k, v);
        for (const auto& [k, f] : request.files) r.parts.emplace(k, RecordedPart{f.filename, f.content_type, f.content});
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(std::move(r));
        }
        changed_.notify_all();
    }

    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    std::vector<RecordedRequest> requests_;
};

/// A port on 127.0.0.1 that nothing listens on: bound once, then released.
inline int closedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

}  // namespace krcommon::test

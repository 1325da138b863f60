#include <krcommon/platform/net/HTTPCookieStorage.h>

#include <krcommon/platform/core/Format.h>

#include <curl/curl.h>

#include <array>
#include <charconv>
#include <chrono>
#include <mutex>
#include <string_view>

namespace krcommon::platform {

// The store is a libcurl share handle holding the cookie engine's jar; every
// transfer of a session that uses the store is attached to it.
struct HTTPCookieStorage::Impl {
    CURLSH* share = nullptr;
    std::array<std::mutex, CURL_LOCK_DATA_LAST> locks;

    static void lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
        static_cast<Impl*>(user)->locks[static_cast<std::size_t>(data) % CURL_LOCK_DATA_LAST].lock();
    }
    static void unlock(CURL*, curl_lock_data data, void* user) {
        static_cast<Impl*>(user)->locks[static_cast<std::size_t>(data) % CURL_LOCK_DATA_LAST].unlock();
    }

    // A throwaway transfer attached to the jar, for reading and editing it.
    [[nodiscard]] CURL* editor() const {
        CURL* easy = curl_easy_init();
        if (!easy) return nullptr;
        curl_easy_setopt(easy, CURLOPT_SHARE, share);
        curl_easy_setopt(easy, CURLOPT_COOKIEFILE, "");
        return easy;
    }
};

namespace {

std::once_flag curlInit;

// One line of the jar in the Netscape format:
// domain, subdomains flag, path, secure, expiry, name, value, separated by tabs.
std::optional<HTTPCookie> parseJarLine(std::string_view line) {
    HTTPCookie cookie;
    constexpr std::string_view httpOnlyPrefix = "#HttpOnly_";
    if (line.starts_with(httpOnlyPrefix)) {
        cookie.isHTTPOnly = true;
        line.remove_prefix(httpOnlyPrefix.size());
    }
    std::array<std::string_view, 7> fields;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const auto tab = line.find('\t');
        if (i + 1 < fields.size()) {
            if (tab == std::string_view::npos) return std::nullopt;
            fields[i] = line.substr(0, tab);
            line.remove_prefix(tab + 1);
        } else {
            fields[i] = line;
        }
    }
    cookie.domain = std::string(fields[0]);
    cookie.path = std::string(fields[2]);
    cookie.isSecure = fields[3] == "TRUE";
    long long expiry = 0;
    std::from_chars(fields[4].data(), fields[4].data() + fields[4].size(), expiry);
    if (expiry != 0) cookie.expiresDate = Date{static_cast<double>(expiry)};
    cookie.name = std::string(fields[5]);
    cookie.value = std::string(fields[6]);
    return cookie;
}

bool domainMatches(std::string_view cookieDomain, std::string_view host) {
    const bool subdomains = cookieDomain.starts_with('.');
    if (subdomains) cookieDomain.remove_prefix(1);
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    auto equal = [&](std::string_view a, std::string_view b) {
        if (a.size() != b.size()) return false;
        for (std::size_t i = 0; i < a.size(); ++i) {
            if (lower(a[i]) != lower(b[i])) return false;
        }
        return true;
    };
    if (equal(cookieDomain, host)) return true;
    return subdomains && host.size() > cookieDomain.size() &&
           host[host.size() - cookieDomain.size() - 1] == '.' &&
           equal(host.substr(host.size() - cookieDomain.size()), cookieDomain);
}

bool pathMatches(std::string_view cookiePath, std::string_view path) {
    if (path.empty()) path = "/";
    if (!path.starts_with(cookiePath)) return false;
    return path.size() == cookiePath.size() || cookiePath.ends_with('/') || path[cookiePath.size()] == '/';
}

}  // namespace

HTTPCookieStorage::HTTPCookieStorage() : impl_(std::make_unique<Impl>()) {
    std::call_once(curlInit, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    impl_->share = curl_share_init();
    curl_share_setopt(impl_->share, CURLSHOPT_LOCKFUNC, &Impl::lock);
    curl_share_setopt(impl_->share, CURLSHOPT_UNLOCKFUNC, &Impl::unlock);
    curl_share_setopt(impl_->share, CURLSHOPT_USERDATA, impl_.get());
    curl_share_setopt(impl_->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
}

HTTPCookieStorage::~HTTPCookieStorage() {
    if (impl_->share) curl_share_cleanup(impl_->share);
}

void* HTTPCookieStorage::nativeHandle() const noexcept { return impl_->share; }

std::vector<HTTPCookie> HTTPCookieStorage::cookies() const {
    std::vector<HTTPCookie> result;
    CURL* easy = impl_->editor();
    if (!easy) return result;
    curl_slist* list = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_COOKIELIST, &list) == CURLE_OK) {
        const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
        for (curl_slist* item = list; item; item = item->next) {
            auto cookie = parseJarLine(item->data);
            if (!cookie) continue;
            if (cookie->expiresDate && cookie->expiresDate->timeIntervalSince1970 <= now) continue;
            result.push_back(std::move(*cookie));
        }
        curl_slist_free_all(list);
    }
    curl_easy_cleanup(easy);
    return result;
}

std::vector<HTTPCookie> HTTPCookieStorage::cookiesForURL(const URL& url) const {
    std::vector<HTTPCookie> result;
    const auto host = url.host().value_or("");
    const auto path = url.path();
    const bool secure = url.scheme() && *url.scheme() == "https";
    for (auto& cookie : cookies()) {
        if (cookie.isSecure && !secure) continue;
        if (!domainMatches(cookie.domain, host) || !pathMatches(cookie.path, path)) continue;
        result.push_back(std::move(cookie));
    }
    return result;
}

void HTTPCookieStorage::setCookie(const HTTPCookie& cookie) {
    CURL* easy = impl_->editor();
    if (!easy) return;
    const bool subdomains = cookie.domain.starts_with('.');
    const long long expiry =
        cookie.expiresDate ? static_cast<long long>(cookie.expiresDate->timeIntervalSince1970) : 0;
    const std::string line = format("%s%@\t%s\t%@\t%s\t%lld\t%@\t%@", cookie.isHTTPOnly ? "#HttpOnly_" : "",
                                    cookie.domain, subdomains ? "TRUE" : "FALSE",
                                    cookie.path.empty() ? std::string("/") : cookie.path,
                                    cookie.isSecure ? "TRUE" : "FALSE", expiry, cookie.name, cookie.value);
    curl_easy_setopt(easy, CURLOPT_COOKIELIST, line.c_str());
    curl_easy_cleanup(easy);
}

void HTTPCookieStorage::removeAllCookies() {
    CURL* easy = impl_->editor();
    if (!easy) return;
    curl_easy_setopt(easy, CURLOPT_COOKIELIST, "ALL");
    curl_easy_cleanup(easy);
}

std::string HTTPCookieStorage::description() const {
    return format("<HTTPCookieStorage: %p> { cookies: %lu }", static_cast<const void*>(this),
                  static_cast<unsigned long>(cookies().size()));
}

}  // namespace krcommon::platform

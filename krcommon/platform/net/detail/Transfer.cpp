#include <krcommon/platform/net/detail/Transfer.h>

#include <krcommon/platform/io/PosixIO.h>
#include <krcommon/platform/net/HTTPCookieStorage.h>
#include <krcommon/platform/net/detail/HeaderLines.h>
#include <krcommon/platform/net/detail/SessionCore.h>
#include <krcommon/platform/net/detail/URLErrors.h>

#include <openssl/ssl.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <typeinfo>

namespace krcommon::platform::detail {

namespace {

std::atomic<std::uint64_t> certificateEvaluations{0};

bool tlsBackendIsOpenSSL() {
    static const bool openssl = [] {
        const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
        return info && info->ssl_version && std::string_view(info->ssl_version).starts_with("OpenSSL");
    }();
    return openssl;
}

bool isFollowedRedirect(int status) noexcept {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

std::size_t onHeader(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    t.progressed();
    const std::string_view line(buffer, length);
    if (const auto status = parseStatusLine(line)) {
        t.responseHeaders.clear();  // a new header block: after 1xx, or a redirect followed
        t.sawStatusLine = true;
        t.lastStatus = *status;
        return length;
    }
    const auto field = parseFieldLine(line);
    if (!field) return length;
    if (isFollowedRedirect(t.lastStatus) && headerFieldEquals(field->first, "Location")) {
        const char* current = nullptr;
        curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &current);
        if (current && redirectLeavesHTTPS(current, field->second)) {
            t.forcedError = urlError(URLErrorAppTransportSecurityRequiresSecureConnection, t.task->originalRequest().URL(),
                                     "a redirect from HTTPS to plain HTTP was refused");
            return 0;  // any short count stops the transfer
        }
    }
    addReceivedField(t.responseHeaders, field->first, field->second);
    return length;
}

std::size_t onBody(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    t.progressed();
    if (!t.responseDelivered) t.core.deliverResponse(t);
    if (t.task->state() == URLSessionTaskState::Canceling) return 0;
    if (t.isDownload) {
        SessionCore::countReceived(*t.task, length);
        return posix::writeFully(t.downloadFd, std::string_view(buffer, length)) == 0 ? length : 0;
    }
    // Bounded buffering: past the limit the transport keeps these bytes and stops reading
    // until the delegate queue has taken what waits for it.
    if (t.link->flow.shouldPause(t.pendingData.size() + length)) {
        t.paused = true;
        return CURL_WRITEFUNC_PAUSE;
    }
    SessionCore::countReceived(*t.task, length);
    if (!t.hasPendingData) {
        t.hasPendingData = true;
        t.core.flushAtEndOfRound(t);
    }
    t.pendingData.insert(t.pendingData.end(), buffer, buffer + length);
    return length;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded) {
    auto& t = *static_cast<Transfer*>(user);
    if (uploaded != t.lastUploaded) {
        t.lastUploaded = uploaded;
        t.progressed();
    }
    return 0;
}

int onCertificateVerify(X509_STORE_CTX* context, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    certificateEvaluations.fetch_add(1, std::memory_order_relaxed);
    return t.core.decideTrust(t, context) ? 1 : 0;
}

// Runs for every new TLS connection before its handshake: puts the session's trust store
// and our evaluation in place of the library's.
CURLcode onSSLContext(CURL*, void* sslContext, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    auto* context = static_cast<SSL_CTX*>(sslContext);
    if (!t.core.prepareTLS(context)) return CURLE_SSL_CACERT_BADFILE;
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, &onCertificateVerify, &t);
    return CURLE_OK;
}

// The request's header fields as the transport takes them. `withCredentials` false leaves out
// the caller's Authorization and Cookie fields, which must not follow a request to another server.
curl_slist* headerList(const URLRequest& request, bool withCredentials) {
    curl_slist* list = nullptr;
    bool hasExpect = false;
    for (const auto& [name, value] : request.allHTTPHeaderFields()) {
        if (headerFieldEquals(name, "Content-Length")) continue;  // the transport frames the body itself
        if (headerFieldEquals(name, "Accept-Encoding")) continue;  // sent, and the answer decoded, by the transport
        if (!withCredentials && (headerFieldEquals(name, "Authorization") || headerFieldEquals(name, "Cookie"))) {
            continue;
        }
        hasExpect = hasExpect || headerFieldEquals(name, "Expect");
        const std::string line = value.empty() ? name + ";" : name + ": " + value;
        list = curl_slist_append(list, line.c_str());
    }
    if (!hasExpect) list = curl_slist_append(list, "Expect:");
    return list;
}

}  // namespace

std::uint64_t serverCertificateEvaluations() noexcept { return certificateEvaluations.load(std::memory_order_relaxed); }

Transfer::Transfer(SessionCore& owner, CURL* handle) : core(owner), easy(handle) {
    curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
}

Transfer::~Transfer() {
    curl_easy_cleanup(easy);
    releaseRequest();
}

std::unique_ptr<Transfer> Transfer::make(SessionCore& core) {
    CURL* easy = curl_easy_init();
    if (!easy) return nullptr;
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(easy, CURLOPT_HTTP09_ALLOWED, 0L);  // an answer that is not HTTP is a bad answer
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &onHeader);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBody);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &onProgress);
    if (const auto& cookies = core.configuration.HTTPCookieStorage()) {
        curl_easy_setopt(easy, CURLOPT_SHARE, static_cast<CURLSH*>(cookies->nativeHandle()));
        curl_easy_setopt(easy, CURLOPT_COOKIEFILE, "");  // switches the cookie engine on; reads no file
    }
    // Trust: our evaluation replaces the library's for the chain and covers the host too, so
    // the library's own host check is redundant; verification of the peer stays on and reads
    // our verdict. Every new connection is evaluated: no TLS session is resumed.
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    // The library would read the whole system bundle for every connection; the session's
    // own store (see SessionCore::prepareTLS) replaces it.
    curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    const bool hooked = curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &onSSLContext) == CURLE_OK;
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, hooked ? 0L : 2L);
    return std::unique_ptr<Transfer>(new Transfer(core, easy));
}

void Transfer::progressed() noexcept { lastProgress = TransferEngine::shared().roundTime(); }

std::shared_ptr<Error> Transfer::prepare(std::shared_ptr<URLSessionTask> started) {
    task = std::move(started);
    const URLRequest& request = task->originalRequest();
    const auto& url = request.URL();
    if (!url || !url->scheme() || !url->host() || url->host()->empty()) return urlError(URLErrorBadURL, url);
    const std::string scheme = *url->scheme();
    const bool secure = headerFieldEquals(scheme, "https");
    if (!secure && !headerFieldEquals(scheme, "http")) return urlError(URLErrorUnsupportedURL, url);
    if (secure && !tlsBackendIsOpenSSL()) {
        return urlError(URLErrorSecureConnectionFailed, url, "the TLS library cannot evaluate server trust");
    }
    for (const auto& [name, value] : request.allHTTPHeaderFields()) {
        if (!isSendableFieldName(name) || !isSendableFieldValue(value)) {
            return urlError(URLErrorBadURL, url, "a header field holds a character it cannot be sent with");
        }
    }

    // Both task classes are final: their exact type says which one this is.
    const URLSessionTask& object = *task;
    const std::type_info& kind = typeid(object);
    if (kind == typeid(URLSessionDataTask)) dataTask = std::static_pointer_cast<URLSessionDataTask>(task);
    isDownload = kind == typeid(URLSessionDownloadTask);
    // A timeout that is not a positive number gets the default; a huge one is cut to a year.
    double timeout = request.timeoutInterval();
    if (!(timeout > 0)) timeout = URLRequest::defaultTimeoutInterval;
    timeout = std::min(timeout, SessionCore::longestTimeoutInterval);
    idleTimeout = std::chrono::duration_cast<TransferEngine::Clock::duration>(std::chrono::duration<double>(timeout));
    link = std::make_shared<TransferLink>();
    link->transfer = this;
    progressed();

    if (isDownload) {
        std::string pattern = (std::filesystem::temp_directory_path() / "krcommon-download-XXXXXX").string();
        downloadFd = ::mkstemp(pattern.data());
        if (downloadFd < 0) return urlError(URLErrorUnknown, url, "cannot create the download file");
        downloadPath = pattern;
    }

    // Everything a request sets is set for each one: a handle comes back from the pool as
    // the previous request left it.
    requestedURL = url->absoluteString();
    curl_easy_setopt(easy, CURLOPT_URL, requestedURL.c_str());
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::ceil(timeout * 1000)));

    const std::string& method = request.HTTPMethod();
    const auto& requestBody = request.HTTPBody();
    if (requestBody) body = *requestBody;
    // A body being sent counts as progress against the idle timeout.
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, body.empty() ? 1L : 0L);
    // Back to a plain GET first: no body, no custom method, a response body.
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, nullptr);
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (method != "GET") {
        if (method == "POST" || requestBody) {
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.empty() ? "" : reinterpret_cast<const char*>(body.data()));
        }
        if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    headers = headerList(request, true);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    const auto encodings = request.valueForHTTPHeaderField("Accept-Encoding");
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, encodings ? encodings->c_str() : "");
    curl_easy_setopt(easy, CURLOPT_USERAGENT, request.valueForHTTPHeaderField("User-Agent") ? nullptr : "krcommon/1.0");
    return nullptr;
}

void Transfer::prepareRestartAfterRedirect() {
    if (restartURL.empty()) return;
    const auto from = URL::URLWithString(requestedURL);
    const auto to = URL::URLWithString(restartURL);
    curl_easy_setopt(easy, CURLOPT_URL, restartURL.c_str());
    const std::string& method = task->originalRequest().HTTPMethod();
    // The method the redirect itself would have led to.
    if ((restartStatus == 303 && method != "HEAD") ||
        ((restartStatus == 301 || restartStatus == 302) && method == "POST")) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, nullptr);
        curl_easy_setopt(easy, CURLOPT_NOBODY, 0L);
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 1L);
    }
    const bool sameServer = from && to && from->host() == to->host() && from->port() == to->port() &&
                            headerFieldEquals(from->scheme().value_or(""), to->scheme().value_or(""));
    if (!sameServer) {
        curl_slist_free_all(headers);
        headers = headerList(task->originalRequest(), false);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    }
    restartStatus = 0;
}

void Transfer::endRequest() {
    // The handle goes back to the pool: it must not point at what is released.
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
    curl_easy_setopt(easy, CURLOPT_URL, nullptr);
    releaseRequest();
    static_cast<TransferRequest&>(*this) = TransferRequest();
}

void Transfer::releaseRequest() noexcept {
    if (link) link->transfer = nullptr;
    if (headers) curl_slist_free_all(headers);
    headers = nullptr;
    if (downloadFd >= 0) ::close(downloadFd);
    downloadFd = -1;
    if (!downloadPath.empty()) ::unlink(downloadPath.c_str());
    downloadPath.clear();
}

}  // namespace krcommon::platform::detail

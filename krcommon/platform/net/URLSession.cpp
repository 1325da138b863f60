#include <krcommon/platform/net/URLSession.h>

#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/io/PosixIO.h>

#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>
#include <typeinfo>
#include <vector>

namespace krcommon::platform {

namespace {

using Clock = std::chrono::steady_clock;

std::once_flag curlInit;

// How many idle connections a session keeps for reuse: four hosts' worth at the
// per-host limit, at least 16; 64 when hosts have no limit.
long idleConnectionLimit(long perHost) { return perHost <= 0 ? 64 : std::max(4 * perHost, 16L); }

const char* descriptionForCode(std::int64_t code) {
    switch (code) {
        case URLErrorCancelled: return "cancelled";
        case URLErrorBadURL: return "bad URL";
        case URLErrorTimedOut: return "The request timed out.";
        case URLErrorUnsupportedURL: return "unsupported URL";
        case URLErrorCannotFindHost: return "A server with the specified hostname could not be found.";
        case URLErrorCannotConnectToHost: return "Could not connect to the server.";
        case URLErrorNetworkConnectionLost: return "The network connection was lost.";
        case URLErrorBadServerResponse: return "bad server response";
        case URLErrorSecureConnectionFailed:
            return "An SSL error has occurred and a secure connection to the server cannot be made.";
        case URLErrorServerCertificateUntrusted:
            return "The certificate for this server is invalid.";
        default: return "unknown error";
    }
}

// A URL-domain error with the platform's user info: the description, the failing URL
// as text and as object, and the transport's own explanation when there is one.
std::shared_ptr<Error> urlError(std::int64_t code, const std::shared_ptr<URL>& url, std::string_view detail = {}) {
    Dictionary info;
    info.set(LocalizedDescriptionKey, Value(descriptionForCode(code)));
    if (url) {
        info.set("NSErrorFailingURLStringKey", Value(url->absoluteString()));
        info.set("NSErrorFailingURLKey", Value(url));
    }
    if (!detail.empty()) info.set("NSDebugDescription", Value(detail));
    return Error::make(URLErrorDomain, code, std::move(info));
}

std::int64_t codeForCurl(CURLcode code) {
    switch (code) {
        case CURLE_UNSUPPORTED_PROTOCOL: return URLErrorUnsupportedURL;
        case CURLE_URL_MALFORMAT: return URLErrorBadURL;
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST: return URLErrorCannotFindHost;
        case CURLE_COULDNT_CONNECT: return URLErrorCannotConnectToHost;
        case CURLE_OPERATION_TIMEDOUT: return URLErrorTimedOut;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
        case CURLE_BAD_CONTENT_ENCODING:
        case CURLE_TOO_MANY_REDIRECTS: return URLErrorBadServerResponse;
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2_STREAM: return URLErrorNetworkConnectionLost;
        case CURLE_PEER_FAILED_VERIFICATION: return URLErrorServerCertificateUntrusted;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_INVALIDCERTSTATUS: return URLErrorSecureConnectionFailed;
        case CURLE_ABORTED_BY_CALLBACK: return URLErrorCancelled;
        default: return URLErrorUnknown;
    }
}

bool isIPAddress(std::string_view host) {
    return host.find(':') != std::string_view::npos ||
           std::all_of(host.begin(), host.end(), [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
}

std::string trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n')) {
        text.remove_suffix(1);
    }
    return std::string(text);
}

// A plain loop: find_first_of() calls memchr() once per character of the text.
bool hasLineBreak(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n'; });
}

}  // namespace

namespace detail {

struct Transfer;

// Holds back a task's later events (data, download, completion) while its
// delegate has not answered the response yet. The transfer itself goes on; if
// the answer is Cancel, the held data is dropped and the completion says cancelled.
struct DispositionGate {
    enum class State { Waiting, Releasing, Open, Cancelled };
    std::mutex mutex;
    State state = State::Waiting;
    std::vector<std::function<void(bool cancelled)>> parked;  // in arrival order
};

// The state of a session shared by the session object, its tasks and the events
// waiting on the delegate queue. The worker thread alone touches the curl handles.
struct SessionEngine : std::enable_shared_from_this<SessionEngine> {
    URLSessionConfiguration configuration;
    std::weak_ptr<URLSession> session;
    std::weak_ptr<URLSessionDelegate> delegate;
    std::shared_ptr<OperationQueue> delegateQueue;
    std::vector<X509*> anchors;
    bool anchorsValid = true;
    std::atomic<std::uint64_t> lastIdentifier{0};
    std::atomic<std::size_t> running{0};

    // Commands from other threads to the worker.
    std::mutex commandMutex;
    std::vector<std::shared_ptr<URLSessionTask>> toStart;
    std::vector<std::shared_ptr<URLSessionTask>> toCancel;
    bool shuttingDown = false;
    std::atomic<bool> polling{false};  // the worker is (about to be) asleep in the multi handle's poll
    // An event counter the worker polls beside its transfers. Signalling it costs
    // the caller less than the multi handle's own socket pair; -1 when none could
    // be made, and the multi handle's wake-up serves instead.
    int wakeFd = -1;
    // What the delegate implements, looked up once when the session is made, so
    // that an event finds its receiver without a type search. A pointer is used
    // only while `delegate` locks, which keeps the object alive.
    URLSessionChallengeDelegate* challengeReceiver = nullptr;
    URLSessionDataResponseDelegate* responseReceiver = nullptr;
    URLSessionDataReceiveDelegate* dataReceiver = nullptr;
    URLSessionDownloadFinishDelegate* downloadReceiver = nullptr;
    URLSessionTaskCompletionDelegate* completionReceiver = nullptr;

    // Waiting for a delegate's answer to a challenge or for a wake-up.
    std::mutex waitMutex;
    std::condition_variable waitCondition;
    std::atomic<bool> stopping{false};

    // Events for the delegate queue, run in order one at a time.
    std::mutex eventMutex;
    // An event for the delegate queue: a plain one, or a task's event that its
    // gate may hold back (see postForTask()).
    struct Event {
        std::function<void()> plain;
        std::function<void(bool cancelled)> forTask;
        std::shared_ptr<DispositionGate> gate;
    };
    std::deque<Event> events;
    bool drainScheduled = false;

    // Worker-only state.
    CURLM* multi = nullptr;
    std::thread worker;
    // Events posted by the worker wait for the end of its round: then the worker runs
    // them itself when the delegate queue is idle, and saves waking a queue thread.
    bool drainAfterRound = false;
    // Set when the session is dropped from a delegate event the worker is running:
    // the worker cannot join itself, so it keeps the engine alive until it ends.
    std::shared_ptr<SessionEngine> selfUntilEnd;
    std::vector<std::unique_ptr<Transfer>> transfers;  // running; each knows its slot
    std::vector<std::unique_ptr<Transfer>> idleTransfers;  // handles kept for the next requests
    std::vector<Transfer*> withPendingData;
    Clock::time_point roundStart{};  // when the worker last entered the multi handle

    ~SessionEngine();

    void start();
    void shutdown();
    void submitStart(std::shared_ptr<URLSessionTask> task);
    void submitCancel(std::shared_ptr<URLSessionTask> task);
    // Wakes the worker when it sleeps; a running worker sees new commands at the top of its loop.
    void wakeWorker() {
        if (polling.load()) signalWorker();
    }
    void signalWorker() {
        if (wakeFd < 0) {
            curl_multi_wakeup(multi);
            return;
        }
        const std::uint64_t one = 1;
        while (::write(wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
    [[nodiscard]] bool hasCommands() {
        std::lock_guard lock(commandMutex);
        return shuttingDown || !toStart.empty() || !toCancel.empty();
    }
    void wakeWaiters() {
        { std::lock_guard lock(waitMutex); }
        waitCondition.notify_all();
    }

    void post(std::function<void()> event) { enqueue(Event{std::move(event), {}, {}}); }
    void enqueue(Event event);
    static void runForTask(Event& event);
    void postForTask(const std::shared_ptr<DispositionGate>& gate, std::function<void(bool cancelled)> event);
    void answerResponse(const std::shared_ptr<DispositionGate>& gate, const std::shared_ptr<URLSessionTask>& task,
                        bool allow);
    void drainEvents();
    void drainOnWorker();
    void handOffDrain();
    [[nodiscard]] bool onWorker() const noexcept;

    // Worker thread.
    void run();
    void startTransfer(const std::shared_ptr<URLSessionTask>& task);
    CURL* newHandle();
    void cancelTransfer(const std::shared_ptr<URLSessionTask>& task);
    void finishTransfer(Transfer& transfer, CURLcode code);
    void complete(const std::shared_ptr<URLSessionTask>& task, std::shared_ptr<Error> error,
                  const std::shared_ptr<DispositionGate>& gate = nullptr);
    void deliverResponse(Transfer& transfer);
    void flushData(Transfer& transfer);
    void expireIdleTransfers(Clock::time_point now);
    [[nodiscard]] long nextIdleWait(Clock::time_point now) const;
    bool decideTrust(Transfer& transfer, X509_STORE_CTX* context);
    static void countReceived(URLSessionTask& task, std::size_t bytes) {
        task.bytesReceived_.fetch_add(static_cast<std::int64_t>(bytes), std::memory_order_relaxed);
    }
};

// What one request puts into the transfer that runs it. A transfer goes back
// to its session's pool with all of it reset.
struct TransferRequest {
    std::shared_ptr<URLSessionTask> task;
    std::shared_ptr<URLSessionDataTask> dataTask;  // the same task when it is a data task
    curl_slist* headers = nullptr;
    Data body;
    bool isDownload = false;
    int downloadFd = -1;
    std::string downloadPath;

    std::string requestedURL;  // as handed to the transport
    HTTPURLResponse::HeaderFields responseHeaders;
    bool responseDelivered = false;
    std::shared_ptr<DispositionGate> gate;  // set once the response went to a delegate that answers it
    Data pendingData;
    bool hasPendingData = false;

    Clock::duration idleTimeout{};
    Clock::time_point lastProgress{};
    curl_off_t lastUploaded = 0;

    std::shared_ptr<Error> forcedError;  // set by cancel, timeout or a refused challenge
    char errorBuffer[CURL_ERROR_SIZE] = {};
};

// A transfer handle and the request it runs, on the worker thread. The handle
// points at this object (callback data, error buffer) for its whole life, so a
// pooled transfer starts its next request without setting those again.
struct Transfer : TransferRequest {
    Transfer(SessionEngine* owner, CURL* handle) : engine(owner), easy(handle) {
        curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
        curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
        curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this);
        curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
    }
    ~Transfer() {
        curl_easy_cleanup(easy);
        releaseRequest();
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // Ends the request: what it holds is released, its state reset for the next one.
    void endRequest() {
        // The handle goes back to the pool: it must not point at what is released.
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
        releaseRequest();
        static_cast<TransferRequest&>(*this) = TransferRequest();
    }
    void touched() { lastProgress = Clock::now(); }
    // From curl's callbacks, many per round: the round's start time is close enough for an idle timeout.
    void progressed();

    SessionEngine* const engine;
    CURL* const easy;
    std::size_t slot = 0;  // its place among the session's running transfers

private:
    void releaseRequest() noexcept {
        if (headers) curl_slist_free_all(headers);
        if (downloadFd >= 0) ::close(downloadFd);
        if (!downloadPath.empty()) ::unlink(downloadPath.c_str());
    }
};

inline void Transfer::progressed() { lastProgress = engine->roundStart; }

}  // namespace detail

using detail::SessionEngine;
using detail::Transfer;

// ---------------------------------------------------------------- callbacks

namespace {

std::size_t onHeader(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    t.progressed();
    std::string_view line(buffer, length);
    if (line.starts_with("HTTP/")) {
        t.responseHeaders.clear();  // a new header block: after 1xx, or a redirect followed
        return length;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return length;
    std::string name = trimmed(line.substr(0, colon));
    std::string value = trimmed(line.substr(colon + 1));
    for (auto& [existing, joined] : t.responseHeaders) {
        if (headerFieldEquals(existing, name)) {
            joined.append(", ").append(value);
            return length;
        }
    }
    if (t.responseHeaders.empty()) t.responseHeaders.reserve(12);  // room for a usual answer's fields at once
    t.responseHeaders.emplace_back(std::move(name), std::move(value));
    return length;
}

std::size_t onBody(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t length = size * count;
    t.progressed();
    if (!t.responseDelivered) t.engine->deliverResponse(t);
    if (t.task->state() == URLSessionTaskState::Canceling) return 0;  // any short count stops the transfer
    SessionEngine::countReceived(*t.task, length);
    if (t.isDownload) {
        return posix::writeFully(t.downloadFd, std::string_view(buffer, length)) == 0 ? length : 0;
    }
    if (!t.hasPendingData) {
        t.hasPendingData = true;
        t.engine->withPendingData.push_back(&t);
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
    return t.engine->decideTrust(t, context) ? 1 : 0;
}

// Runs for every new TLS connection before its handshake: adds the extra
// anchors and puts our evaluation in place of the library's.
CURLcode onSSLContext(CURL*, void* sslContext, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    auto* context = static_cast<SSL_CTX*>(sslContext);
    if (!t.engine->anchorsValid) return CURLE_SSL_CACERT_BADFILE;
    if (!t.engine->anchors.empty()) {
        X509_STORE* store = SSL_CTX_get_cert_store(context);
        for (X509* anchor : t.engine->anchors) X509_STORE_add_cert(store, anchor);  // duplicates are refused, harmlessly
        ERR_clear_error();
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, &onCertificateVerify, &t);
    return CURLE_OK;
}

bool tlsBackendIsOpenSSL() {
    static const bool openssl = [] {
        const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
        return info && info->ssl_version && std::string_view(info->ssl_version).starts_with("OpenSSL");
    }();
    return openssl;
}

// Answers a challenge once: the first answer counts, and an answer never given
// (the completion dropped) counts as a refusal.
struct ChallengeAnswer {
    std::shared_ptr<SessionEngine> engine;
    bool answered = false;
    URLSessionAuthChallengeDisposition disposition = URLSessionAuthChallengeDisposition::CancelAuthenticationChallenge;
    std::shared_ptr<URLCredential> credential;

    void give(URLSessionAuthChallengeDisposition d, std::shared_ptr<URLCredential> c) {
        {
            std::lock_guard lock(engine->waitMutex);
            if (answered) return;
            answered = true;
            disposition = d;
            credential = std::move(c);
        }
        engine->waitCondition.notify_all();
    }
};

struct AnswerGuard {
    explicit AnswerGuard(std::shared_ptr<ChallengeAnswer> a) : answer(std::move(a)) {}
    AnswerGuard(const AnswerGuard&) = delete;
    AnswerGuard& operator=(const AnswerGuard&) = delete;
    std::shared_ptr<ChallengeAnswer> answer;
    ~AnswerGuard() { answer->give(URLSessionAuthChallengeDisposition::CancelAuthenticationChallenge, nullptr); }
};

// Answers a response once: Allow releases the task's held events, Cancel (or no
// answer at all, the completion dropped) stops the task.
struct ResponseAnswer {
    std::shared_ptr<SessionEngine> engine;
    std::shared_ptr<detail::DispositionGate> gate;
    std::shared_ptr<URLSessionTask> task;
    std::atomic<bool> answered{false};

    void give(URLSessionResponseDisposition disposition) {
        if (answered.exchange(true)) return;
        engine->answerResponse(gate, task, disposition != URLSessionResponseDisposition::Cancel);
    }
    ~ResponseAnswer() { give(URLSessionResponseDisposition::Cancel); }
};

}  // namespace

// ---------------------------------------------------------------- engine

namespace detail {

namespace {
thread_local const SessionEngine* workerOf = nullptr;  // the engine whose worker this thread is
}  // namespace

bool SessionEngine::onWorker() const noexcept { return workerOf == this; }

SessionEngine::~SessionEngine() {
    if (multi) curl_multi_cleanup(multi);  // the worker has ended: wake-ups after it are harmless
    if (wakeFd >= 0) ::close(wakeFd);
    for (X509* anchor : anchors) X509_free(anchor);
}

void SessionEngine::start() {
    multi = curl_multi_init();
    wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, configuration.HTTPMaximumConnectionsPerHost());
    // Idle connections stay open for reuse. libcurl's own cache limit follows the
    // number of transfers running at the moment, so a lull between bursts would
    // close connections the next burst must open again.
    curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, idleConnectionLimit(configuration.HTTPMaximumConnectionsPerHost()));
    worker = std::thread([this] { run(); });
}

void SessionEngine::shutdown() {
    {
        std::lock_guard lock(commandMutex);
        shuttingDown = true;
    }
    stopping.store(true);
    wakeWaiters();
    if (onWorker()) {
        // Dropped from an event the worker runs: it stops at the top of its loop.
        selfUntilEnd = shared_from_this();
        worker.detach();
    } else {
        if (multi) signalWorker();
        if (worker.joinable()) worker.join();
    }
    // Commands the worker did not take before it ended: a task still waiting to
    // start ends cancelled, a cancel has nothing left to do. Both hold the task,
    // and the task holds this engine, so they must not stay behind.
    std::vector<std::shared_ptr<URLSessionTask>> unstarted;
    std::vector<std::shared_ptr<URLSessionTask>> uncancelled;
    {
        std::lock_guard lock(commandMutex);
        unstarted.swap(toStart);
        uncancelled.swap(toCancel);
    }
    for (const auto& task : unstarted) {
        {
            std::lock_guard lock(task->mutex_);
            task->error_ = urlError(URLErrorCancelled, task->request_.URL());
        }
        task->state_.store(URLSessionTaskState::Completed, std::memory_order_release);
        running.fetch_sub(1, std::memory_order_relaxed);
    }
    // Dropped events may answer what they carried (a refusal, a cancel), which
    // posts again: let them go outside the lock.
    std::deque<Event> dropped;
    {
        std::lock_guard lock(eventMutex);
        dropped.swap(events);
    }
}

void SessionEngine::submitStart(std::shared_ptr<URLSessionTask> task) {
    running.fetch_add(1, std::memory_order_relaxed);
    {
        std::lock_guard lock(commandMutex);
        if (!shuttingDown) {
            toStart.push_back(std::move(task));
            task = nullptr;
        }
    }
    if (!task) {
        wakeWorker();
        return;
    }
    // The session is going away: the task ends cancelled, without events.
    {
        std::lock_guard lock(task->mutex_);
        task->error_ = urlError(URLErrorCancelled, task->request_.URL());
    }
    task->state_.store(URLSessionTaskState::Completed, std::memory_order_release);
    running.fetch_sub(1, std::memory_order_relaxed);
}

void SessionEngine::submitCancel(std::shared_ptr<URLSessionTask> task) {
    {
        std::lock_guard lock(commandMutex);
        // Once the session is going away its tasks have ended already; queuing
        // one here would also keep the engine alive through the task for ever.
        if (shuttingDown) return;
        toCancel.push_back(std::move(task));
    }
    wakeWaiters();  // a handshake of this task may be waiting for the delegate
    wakeWorker();
}

void SessionEngine::enqueue(Event event) {
    // A session going away delivers nothing more. Events dropped while it shuts
    // down may answer what they carried and post again; those go too (the
    // event is destroyed here, outside the lock).
    if (stopping.load()) return;
    bool schedule = false;
    {
        std::lock_guard lock(eventMutex);
        events.push_back(std::move(event));
        if (!drainScheduled) {
            drainScheduled = true;
            if (onWorker()) {
                drainAfterRound = true;
            } else {
                schedule = true;
            }
        }
    }
    if (schedule) delegateQueue->addOperation([self = shared_from_this()] { self->drainEvents(); });
}

// At the end of a worker round: runs what the round posted, here when the
// delegate queue is idle, else on the queue.
void SessionEngine::drainOnWorker() {
    if (!drainAfterRound) return;
    drainAfterRound = false;
    auto self = shared_from_this();  // the events may drop the session, and with it this engine
    if (!delegateQueue->runIfIdle([this] { drainEvents(); })) {
        delegateQueue->addOperation([self] { self->drainEvents(); });
    }
}

// Before the worker blocks with events still waiting for its round.
void SessionEngine::handOffDrain() {
    if (!drainAfterRound) return;
    drainAfterRound = false;
    delegateQueue->addOperation([self = shared_from_this()] { self->drainEvents(); });
}

void SessionEngine::postForTask(const std::shared_ptr<DispositionGate>& gate,
                                std::function<void(bool cancelled)> event) {
    enqueue(Event{{}, std::move(event), gate});
}

// On the delegate queue: runs a task's event, or parks it while the task's
// response waits for the delegate's answer.
void SessionEngine::runForTask(Event& event) {
    if (!event.gate) {
        event.forTask(false);
        return;
    }
    DispositionGate& gate = *event.gate;
    std::unique_lock lock(gate.mutex);
    switch (gate.state) {
        case DispositionGate::State::Waiting:
        case DispositionGate::State::Releasing:
            gate.parked.push_back(std::move(event.forTask));
            return;
        case DispositionGate::State::Open:
            lock.unlock();
            event.forTask(false);
            return;
        case DispositionGate::State::Cancelled:
            lock.unlock();
            event.forTask(true);
            return;
    }
}

void SessionEngine::answerResponse(const std::shared_ptr<DispositionGate>& gate,
                                   const std::shared_ptr<URLSessionTask>& task, bool allow) {
    bool nothingHeld = false;
    {
        std::lock_guard lock(gate->mutex);
        if (gate->state != DispositionGate::State::Waiting) return;
        // Usually the answer comes while the response event runs, before any
        // later event of the task: then the gate simply opens (or shuts).
        nothingHeld = gate->parked.empty();
        if (nothingHeld) {
            gate->state = allow ? DispositionGate::State::Open : DispositionGate::State::Cancelled;
        } else {
            gate->state = DispositionGate::State::Releasing;
        }
    }
    if (!allow) task->cancel();
    if (nothingHeld) return;
    // One event runs what was held, in order; events arriving meanwhile join the queue.
    post([gate, allow] {
        while (true) {
            std::vector<std::function<void(bool)>> held;
            {
                std::lock_guard lock(gate->mutex);
                if (gate->parked.empty()) {
                    gate->state = allow ? DispositionGate::State::Open : DispositionGate::State::Cancelled;
                    return;
                }
                held.swap(gate->parked);
            }
            for (auto& next : held) next(!allow);
        }
    });
}

void SessionEngine::drainEvents() {
    // Runs a batch of events, then yields the delegate queue to other work. What
    // the events post to the main queue in a batch wakes the main thread once.
    MainQueue::WakeBatch burst;
    for (int ran = 0; ran < 64; ++ran) {
        Event event;
        {
            std::lock_guard lock(eventMutex);
            if (events.empty()) {
                drainScheduled = false;
                return;
            }
            event = std::move(events.front());
            events.pop_front();
        }
        if (event.plain) {
            event.plain();
        } else {
            runForTask(event);
        }
    }
    {
        std::lock_guard lock(eventMutex);
        if (events.empty()) {
            drainScheduled = false;
            return;
        }
    }
    delegateQueue->addOperation([self = shared_from_this()] { self->drainEvents(); });
}

void SessionEngine::run() {
    ::pthread_setname_np(::pthread_self(), "kr.urlsession");
    workerOf = this;
    while (true) {
        std::vector<std::shared_ptr<URLSessionTask>> starting;
        std::vector<std::shared_ptr<URLSessionTask>> cancelling;
        {
            std::lock_guard lock(commandMutex);
            if (shuttingDown) break;
            starting.swap(toStart);
            cancelling.swap(toCancel);
        }
        for (auto& task : starting) startTransfer(task);
        for (auto& task : cancelling) cancelTransfer(task);

        int active = 0;
        roundStart = Clock::now();
        curl_multi_perform(multi, &active);
        while (true) {
            int left = 0;
            CURLMsg* message = curl_multi_info_read(multi, &left);
            if (!message) break;
            if (message->msg != CURLMSG_DONE) continue;
            Transfer* done = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &done);
            if (done) finishTransfer(*done, message->data.result);
        }
        for (Transfer* t : withPendingData) flushData(*t);
        withPendingData.clear();

        const auto now = Clock::now();
        expireIdleTransfers(now);
        drainOnWorker();

        long wait = 1000;
        curl_multi_timeout(multi, &wait);
        if (wait < 0 || wait > 1000) wait = 1000;
        wait = std::min(wait, nextIdleWait(now));
        if (wait > 0) {
            polling.store(true);
            if (!hasCommands()) {
                curl_waitfd wake{wakeFd, CURL_WAIT_POLLIN, 0};
                curl_multi_poll(multi, wakeFd >= 0 ? &wake : nullptr, wakeFd >= 0 ? 1 : 0, static_cast<int>(wait),
                                nullptr);
                std::uint64_t signals = 0;
                if (wake.revents != 0) (void)!::read(wakeFd, &signals, sizeof signals);  // rearms the counter
            }
            polling.store(false);
        }
    }

    // Shutting down: what is still running ends cancelled, without events.
    for (auto& transfer : transfers) {
        curl_multi_remove_handle(multi, transfer->easy);
        transfer->task->state_.store(URLSessionTaskState::Completed, std::memory_order_release);
        std::lock_guard lock(transfer->task->mutex_);
        transfer->task->error_ = urlError(URLErrorCancelled, transfer->task->request_.URL());
    }
    transfers.clear();
    idleTransfers.clear();
    workerOf = nullptr;
    // Last: may destroy this engine, when its session was dropped on this thread.
    auto keep = std::move(selfUntilEnd);
}

void SessionEngine::startTransfer(const std::shared_ptr<URLSessionTask>& task) {
    if (task->state() != URLSessionTaskState::Running) {
        complete(task, urlError(URLErrorCancelled, task->request_.URL()));
        return;
    }
    const URLRequest& request = task->request_;
    const auto& url = request.URL();
    if (!url || !url->scheme() || !url->host()) {
        complete(task, urlError(URLErrorBadURL, url));
        return;
    }
    const std::string scheme = *url->scheme();
    if (scheme != "http" && scheme != "https") {
        complete(task, urlError(URLErrorUnsupportedURL, url));
        return;
    }
    if (scheme == "https" && !tlsBackendIsOpenSSL()) {
        complete(task, urlError(URLErrorSecureConnectionFailed, url, "the TLS library cannot evaluate server trust"));
        return;
    }
    for (const auto& [name, value] : request.allHTTPHeaderFields()) {
        if (hasLineBreak(name) || hasLineBreak(value) || name.empty()) {
            complete(task, urlError(URLErrorBadURL, url, "a header field contains a line break"));
            return;
        }
    }

    std::unique_ptr<Transfer> transfer;
    if (!idleTransfers.empty()) {
        transfer = std::move(idleTransfers.back());
        idleTransfers.pop_back();
    } else if (CURL* fresh = newHandle()) {
        transfer = std::make_unique<Transfer>(this, fresh);
    } else {
        complete(task, urlError(URLErrorUnknown, url, "out of memory"));
        return;
    }
    Transfer& t = *transfer;
    CURL* const easy = t.easy;
    t.task = task;
    // Both task classes are final: their exact type says which one this is.
    const URLSessionTask& object = *task;
    const std::type_info& kind = typeid(object);
    if (kind == typeid(URLSessionDataTask)) t.dataTask = std::static_pointer_cast<URLSessionDataTask>(task);
    t.isDownload = kind == typeid(URLSessionDownloadTask);
    const double timeout = request.timeoutInterval() > 0 ? request.timeoutInterval() : URLRequest::defaultTimeoutInterval;
    t.idleTimeout = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout));
    t.touched();

    if (t.isDownload) {
        std::string pattern = (std::filesystem::temp_directory_path() / "krcommon-download-XXXXXX").string();
        t.downloadFd = ::mkstemp(pattern.data());
        if (t.downloadFd < 0) {
            t.endRequest();
            idleTransfers.push_back(std::move(transfer));
            complete(task, urlError(URLErrorUnknown, url, "cannot create the download file"));
            return;
        }
        t.downloadPath = pattern;
    }

    // Everything a request sets is set for each one: a handle comes back from
    // the pool as the previous request left it.
    t.requestedURL = url->absoluteString();
    curl_easy_setopt(easy, CURLOPT_URL, t.requestedURL.c_str());
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout * 1000));

    const std::string& method = request.HTTPMethod();
    const auto& body = request.HTTPBody();
    if (body) t.body = *body;
    // A body being sent counts as progress against the idle timeout.
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, t.body.empty() ? 1L : 0L);
    // Back to a plain GET first: no body, no custom method, a response body.
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, nullptr);
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (method != "GET") {
        if (method == "POST" || body) {
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t.body.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, t.body.empty() ? "" : reinterpret_cast<const char*>(t.body.data()));
        }
        if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    bool hasUserAgent = false;
    bool hasExpect = false;
    std::optional<std::string> acceptEncoding;
    for (const auto& [name, value] : request.allHTTPHeaderFields()) {
        if (headerFieldEquals(name, "Content-Length")) continue;  // the transport frames the body itself
        if (headerFieldEquals(name, "Accept-Encoding")) {
            acceptEncoding = value;  // sent, and the answer decoded, by the transport
            continue;
        }
        hasUserAgent = hasUserAgent || headerFieldEquals(name, "User-Agent");
        hasExpect = hasExpect || headerFieldEquals(name, "Expect");
        const std::string line = value.empty() ? name + ";" : name + ": " + value;
        t.headers = curl_slist_append(t.headers, line.c_str());
    }
    if (!hasExpect) t.headers = curl_slist_append(t.headers, "Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t.headers);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, acceptEncoding ? acceptEncoding->c_str() : "");
    curl_easy_setopt(easy, CURLOPT_USERAGENT, hasUserAgent ? nullptr : "krcommon/1.0");

    if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
        transfer.reset();  // handle and all
        complete(task, urlError(URLErrorUnknown, url, "the transfer could not be started"));
        return;
    }
    t.slot = transfers.size();
    transfers.push_back(std::move(transfer));
}

// A transfer handle with what is the same for every request of this session.
CURL* SessionEngine::newHandle() {
    CURL* easy = curl_easy_init();
    if (!easy) return nullptr;
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &onHeader);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBody);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &onProgress);
    if (const auto& cookies = configuration.HTTPCookieStorage()) {
        curl_easy_setopt(easy, CURLOPT_SHARE, static_cast<CURLSH*>(cookies->nativeHandle()));
        curl_easy_setopt(easy, CURLOPT_COOKIEFILE, "");  // switches the cookie engine on; reads no file
    }
    // Trust: our evaluation replaces the library's for the chain and covers the
    // host too, so the library's own host check is redundant; verification of the
    // peer stays on and reads our verdict.
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);  // every new connection is evaluated
    const bool hooked = curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &onSSLContext) == CURLE_OK;
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, hooked ? 0L : 2L);
    return easy;
}

void SessionEngine::cancelTransfer(const std::shared_ptr<URLSessionTask>& task) {
    for (auto& transfer : transfers) {
        if (transfer->task == task) {
            transfer->forcedError = urlError(URLErrorCancelled, task->request_.URL());
            finishTransfer(*transfer, CURLE_ABORTED_BY_CALLBACK);
            return;
        }
    }
}

void SessionEngine::expireIdleTransfers(Clock::time_point now) {
    std::vector<Transfer*> expired;
    for (auto& transfer : transfers) {
        if (now - transfer->lastProgress >= transfer->idleTimeout) expired.push_back(transfer.get());
    }
    for (Transfer* t : expired) {
        t->forcedError = urlError(URLErrorTimedOut, t->task->request_.URL());
        finishTransfer(*t, CURLE_OPERATION_TIMEDOUT);
    }
}

long SessionEngine::nextIdleWait(Clock::time_point now) const {
    long wait = 1000;
    for (const auto& transfer : transfers) {
        const auto left = transfer->lastProgress + transfer->idleTimeout - now;
        const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        wait = std::min<long>(wait, std::max<long>(ms, 0));
    }
    return wait;
}

void SessionEngine::deliverResponse(Transfer& t) {
    t.responseDelivered = true;
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    const char* effective = nullptr;
    curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effective);
    // Unless a redirect was followed, the answer comes from the request's own URL.
    std::shared_ptr<URL> url =
        effective && effective != std::string_view(t.requestedURL) ? URL::URLWithString(effective) : nullptr;
    if (!url) url = t.task->request_.URL();
    // The headers go to the response: nothing reads them from the transfer afterwards.
    auto response = std::make_shared<HTTPURLResponse>(std::move(url), status, std::move(t.responseHeaders));
    {
        std::lock_guard lock(t.task->mutex_);
        t.task->response_ = response;
    }
    const auto& dataTask = t.dataTask;
    if (!dataTask || !responseReceiver) return;
    t.gate = std::make_shared<DispositionGate>();
    auto answer = std::make_shared<ResponseAnswer>();
    answer->engine = shared_from_this();
    answer->gate = t.gate;
    answer->task = dataTask;
    post([self = shared_from_this(), dataTask, response, answer] {
        auto session = self->session.lock();
        auto delegate = self->delegate.lock();
        auto* receiver = delegate ? self->responseReceiver : nullptr;
        if (!session || !receiver) return;  // the answer, dropped, cancels
        receiver->didReceiveResponse(session, dataTask, response,
                                     [answer](URLSessionResponseDisposition disposition) { answer->give(disposition); });
    });
}

void SessionEngine::flushData(Transfer& t) {
    t.hasPendingData = false;
    if (t.pendingData.empty()) return;
    postForTask(t.gate, [self = shared_from_this(), dataTask = t.dataTask, bytes = std::move(t.pendingData)](bool cancelled) {
        if (cancelled || dataTask->state() == URLSessionTaskState::Canceling) return;
        auto session = self->session.lock();
        auto delegate = self->delegate.lock();
        auto* receiver = delegate ? self->dataReceiver : nullptr;
        if (session && receiver) receiver->didReceiveData(session, dataTask, std::span<const std::uint8_t>(bytes));
    });
    t.pendingData = Data();
}

void SessionEngine::finishTransfer(Transfer& finished, CURLcode code) {
    if (finished.slot >= transfers.size() || transfers[finished.slot].get() != &finished) return;
    std::unique_ptr<Transfer> owned = std::move(transfers[finished.slot]);
    if (finished.slot + 1 != transfers.size()) {
        transfers[finished.slot] = std::move(transfers.back());
        transfers[finished.slot]->slot = finished.slot;
    }
    transfers.pop_back();
    Transfer& t = *owned;
    CURL* const easy = t.easy;
    curl_multi_remove_handle(multi, easy);

    if (t.hasPendingData) {
        flushData(t);
        std::erase(withPendingData, &t);
    }
    std::shared_ptr<Error> error = t.forcedError;
    if (!error && t.task->state() == URLSessionTaskState::Canceling) {
        error = urlError(URLErrorCancelled, t.task->request_.URL());
    }
    if (!error && code != CURLE_OK) error = urlError(codeForCurl(code), t.task->request_.URL(), t.errorBuffer);
    if (!error && !t.responseDelivered) deliverResponse(t);

    if (t.isDownload && !error) {
        ::close(t.downloadFd);
        t.downloadFd = -1;
        auto downloadTask = std::dynamic_pointer_cast<URLSessionDownloadTask>(t.task);
        postForTask(t.gate, [self = shared_from_this(), downloadTask, path = std::move(t.downloadPath)](bool cancelled) {
            auto session = self->session.lock();
            auto delegate = self->delegate.lock();
            auto* receiver = delegate ? self->downloadReceiver : nullptr;
            if (session && receiver && !cancelled) receiver->didFinishDownloadingToURL(session, downloadTask, URL::fileURLWithPath(path));
            ::unlink(path.c_str());
        });
        t.downloadPath.clear();
    }

    auto task = t.task;
    auto gate = t.gate;
    if (idleTransfers.size() < 64) {
        t.endRequest();
        idleTransfers.push_back(std::move(owned));
    } else {
        owned.reset();
    }
    complete(task, std::move(error), gate);
}

void SessionEngine::complete(const std::shared_ptr<URLSessionTask>& task, std::shared_ptr<Error> error,
                             const std::shared_ptr<DispositionGate>& gate) {
    {
        std::lock_guard lock(task->mutex_);
        task->error_ = error;
    }
    task->state_.store(URLSessionTaskState::Completed, std::memory_order_release);
    running.fetch_sub(1, std::memory_order_relaxed);
    postForTask(gate, [self = shared_from_this(), task, error = std::move(error)](bool cancelled) mutable {
        if (cancelled && (!error || error->code() != URLErrorCancelled)) {
            // The delegate refused the response after the transfer had finished.
            error = urlError(URLErrorCancelled, task->request_.URL());
            std::lock_guard lock(task->mutex_);
            task->error_ = error;
        }
        auto session = self->session.lock();
        auto delegate = self->delegate.lock();
        auto* receiver = delegate ? self->completionReceiver : nullptr;
        if (session && receiver) receiver->didCompleteWithError(session, task, error);
    });
}

// On the worker thread, inside a TLS handshake: evaluate the chain and the host,
// ask the delegate, and wait for its answer.
bool SessionEngine::decideTrust(Transfer& t, X509_STORE_CTX* context) {
    const auto& requestURL = t.task->request_.URL();
    std::shared_ptr<URL> url = requestURL;
    if (const char* effective = nullptr;
        curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective) {
        if (auto parsed = URL::URLWithString(effective)) url = std::move(parsed);
    }
    std::string host = url && url->host() ? *url->host() : std::string();
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    const int port = url && url->port() ? *url->port() : 443;

    const bool chainOK = X509_verify_cert(context) == 1;
    const int chainError = X509_STORE_CTX_get_error(context);
    X509* leaf = X509_STORE_CTX_get0_cert(context);
    bool hostOK = false;
    if (leaf && !host.empty()) {
        hostOK = isIPAddress(host) ? X509_check_ip_asc(leaf, host.c_str(), 0) == 1
                                   : X509_check_host(leaf, host.data(), host.size(), 0, nullptr) == 1;
    }
    const bool trusted = chainOK && hostOK;
    std::string reason;
    if (!chainOK) {
        reason = X509_verify_cert_error_string(chainError);
    } else if (!hostOK) {
        reason = "the certificate does not match the host";
    }

    std::vector<Data> chain;
    if (STACK_OF(X509)* presented = X509_STORE_CTX_get0_untrusted(context)) {
        for (int i = 0; i < sk_X509_num(presented); ++i) {
            X509* certificate = sk_X509_value(presented, i);
            const int length = i2d_X509(certificate, nullptr);
            if (length <= 0) continue;
            Data der(static_cast<std::size_t>(length));
            unsigned char* out = der.data();
            i2d_X509(certificate, &out);
            chain.push_back(std::move(der));
        }
    }
    auto trust = std::make_shared<ServerTrust>(
        host, std::move(chain),
        TrustEvaluation{0, trusted ? TrustResultType::Unspecified : TrustResultType::RecoverableTrustFailure}, reason);
    auto challenge = std::make_shared<URLAuthenticationChallenge>(std::make_shared<URLProtectionSpace>(
        host, port, "https", URLProtectionSpace::AuthenticationMethodServerTrust, trust));

    auto answer = std::make_shared<ChallengeAnswer>();
    answer->engine = shared_from_this();
    // The worker waits below for the answer, so the challenge (and what this
    // round posted before it) goes to the delegate queue's own thread.
    post([self = shared_from_this(), challenge, trust, guard = std::make_shared<AnswerGuard>(answer)] {
        auto session = self->session.lock();
        auto delegate = self->delegate.lock();
        if (!session || !delegate) return;  // the guard refuses
        auto* decider = self->challengeReceiver;
        if (!decider) {
            guard->answer->give(URLSessionAuthChallengeDisposition::PerformDefaultHandling, nullptr);
            return;
        }
        decider->didReceiveChallenge(session, challenge,
                                     [guard](URLSessionAuthChallengeDisposition d, std::shared_ptr<URLCredential> c) {
                                         guard->answer->give(d, std::move(c));
                                     });
    });

    handOffDrain();
    {
        std::unique_lock lock(waitMutex);
        waitCondition.wait(lock, [&] {
            return answer->answered || stopping.load() || t.task->state() == URLSessionTaskState::Canceling;
        });
    }
    t.touched();  // the time spent deciding is not idle time of the connection

    bool accept = false;
    std::shared_ptr<Error> refusal;
    {
        std::lock_guard lock(waitMutex);
        if (answer->answered) {
            switch (answer->disposition) {
                case URLSessionAuthChallengeDisposition::UseCredential:
                    accept = answer->credential && answer->credential->serverTrust() == trust;
                    break;
                case URLSessionAuthChallengeDisposition::PerformDefaultHandling:
                    accept = trusted;
                    if (!accept) refusal = urlError(URLErrorServerCertificateUntrusted, requestURL, reason);
                    break;
                default: break;
            }
        }
    }
    if (accept) {
        X509_STORE_CTX_set_error(context, X509_V_OK);
        return true;
    }
    t.forcedError = refusal ? refusal : urlError(URLErrorCancelled, requestURL, reason);
    X509_STORE_CTX_set_error(context, chainError != X509_V_OK ? chainError : X509_V_ERR_APPLICATION_VERIFICATION);
    return false;
}

}  // namespace detail

// ---------------------------------------------------------------- session and tasks

struct URLSession::Private {};

URLSession::URLSession(const Private&, std::shared_ptr<SessionEngine> engine) : engine_(std::move(engine)) {}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(
    const std::shared_ptr<URLSessionConfiguration>& configuration, std::weak_ptr<URLSessionDelegate> delegate,
    std::shared_ptr<OperationQueue> delegateQueue) {
    std::call_once(curlInit, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    auto engine = std::make_shared<SessionEngine>();
    engine->configuration = configuration ? *configuration : URLSessionConfiguration();
    if (auto alive = delegate.lock()) {
        engine->challengeReceiver = dynamic_cast<URLSessionChallengeDelegate*>(alive.get());
        engine->responseReceiver = dynamic_cast<URLSessionDataResponseDelegate*>(alive.get());
        engine->dataReceiver = dynamic_cast<URLSessionDataReceiveDelegate*>(alive.get());
        engine->downloadReceiver = dynamic_cast<URLSessionDownloadFinishDelegate*>(alive.get());
        engine->completionReceiver = dynamic_cast<URLSessionTaskCompletionDelegate*>(alive.get());
    }
    engine->delegate = std::move(delegate);
    engine->delegateQueue = delegateQueue ? std::move(delegateQueue) : std::make_shared<OperationQueue>(1);
    for (const std::string& pem : engine->configuration.additionalTrustAnchorsPEM()) {
        BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
        int read = 0;
        while (X509* anchor = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr) {
            engine->anchors.push_back(anchor);
            ++read;
        }
        if (read == 0) engine->anchorsValid = false;
        BIO_free(bio);
        ERR_clear_error();
    }
    auto session = std::make_shared<URLSession>(Private{}, engine);
    engine->session = session;
    engine->start();
    return session;
}

URLSession::~URLSession() { engine_->shutdown(); }

std::shared_ptr<URLSessionDataTask> URLSession::dataTaskWithRequest(const URLRequest& request) {
    return std::make_shared<URLSessionDataTask>(engine_, ++engine_->lastIdentifier, request);
}

std::shared_ptr<URLSessionDownloadTask> URLSession::downloadTaskWithRequest(const URLRequest& request) {
    return std::make_shared<URLSessionDownloadTask>(engine_, ++engine_->lastIdentifier, request);
}

const URLSessionConfiguration& URLSession::configuration() const noexcept { return engine_->configuration; }
const std::shared_ptr<OperationQueue>& URLSession::delegateQueue() const noexcept { return engine_->delegateQueue; }
std::size_t URLSession::runningTaskCount() const noexcept { return engine_->running.load(std::memory_order_relaxed); }

URLSessionTask::URLSessionTask(std::shared_ptr<SessionEngine> engine, std::uint64_t identifier, URLRequest request)
    : engine_(std::move(engine)), identifier_(identifier), request_(std::move(request)) {}

URLSessionTask::~URLSessionTask() = default;

std::shared_ptr<URLResponse> URLSessionTask::response() const {
    std::lock_guard lock(mutex_);
    return response_;
}

std::shared_ptr<Error> URLSessionTask::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

void URLSessionTask::resume() {
    auto expected = URLSessionTaskState::Suspended;
    if (started_.exchange(true)) return;
    if (!state_.compare_exchange_strong(expected, URLSessionTaskState::Running)) return;
    engine_->submitStart(shared_from_this());
}

void URLSessionTask::cancel() {
    auto state = state_.load(std::memory_order_acquire);
    while (state == URLSessionTaskState::Running || state == URLSessionTaskState::Suspended) {
        if (state_.compare_exchange_weak(state, URLSessionTaskState::Canceling)) break;
    }
    if (state != URLSessionTaskState::Running && state != URLSessionTaskState::Suspended) return;
    if (state == URLSessionTaskState::Suspended && !started_.exchange(true)) {
        // Never started: it completes through the worker like any other task.
        engine_->submitStart(shared_from_this());
        return;
    }
    engine_->submitCancel(shared_from_this());
}

std::string URLSessionTask::description() const {
    static constexpr const char* names[] = {"running", "suspended", "canceling", "completed"};
    return format("<%@: %p> { taskIdentifier: %llu } { %s }", className(), static_cast<const void*>(this),
                  static_cast<unsigned long long>(identifier_), names[static_cast<int>(state())]);
}

std::string ServerTrust::description() const {
    return format("<ServerTrust: %p> { host: %@, certificates: %lu, trusted: %s }", static_cast<const void*>(this),
                  host_, static_cast<unsigned long>(certificates_.size()), isTrusted() ? "yes" : "no");
}

}  // namespace krcommon::platform
